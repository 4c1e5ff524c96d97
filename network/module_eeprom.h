// The identification in the memory of a plugged module: SFF-8472, SFF-8636 and CMIS.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "network/interface.h"

// Reads bytes of a page; an errno number.
using ReadModuleBytes =
    std::function<int(uint8_t page, uint32_t offset, uint32_t length, std::string& bytes)>;

[[nodiscard]] int ReadModuleIdentity(const ReadModuleBytes& read, KemdNetworkInterface& interface);
