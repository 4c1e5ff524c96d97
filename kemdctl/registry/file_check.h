// Says what in a registry file is skipped or misread, line by line as the store reads it.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

using FindingSink = std::function<void(size_t line, const std::string& message)>;

// Reads the file from the descriptor's position on. `isStore`: all root keys are expected. False
// with errno when it cannot be read to its end.
bool CheckRegistry(int fd, bool isStore, const FindingSink& sink);
