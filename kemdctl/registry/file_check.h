// Says what in a registry file is skipped or misread, line by line as the store reads it.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

using FindingSink = std::function<void(size_t line, const std::string& message)>;

// Reads from the descriptor's position to the end. `isStore`: all root keys are expected. False
// with errno when a read fails.
bool CheckRegistry(int fd, bool isStore, const FindingSink& sink);
