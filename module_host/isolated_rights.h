// What a module's own process gives up before the module is loaded. No thread exists yet.
#pragma once

#include <cstdint>
#include <string>

// Bounds the memory of the process. Empty, or why it cannot.
[[nodiscard]] std::string LimitMemory(uint64_t bytes);

// Becomes the user, without other groups, capabilities, or a way to more rights. Empty, or why it
// cannot; some rights may be gone then.
[[nodiscard]] std::string BecomeUser(const char* name);
