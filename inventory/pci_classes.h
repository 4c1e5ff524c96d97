// Names of PCI classes for hosts that have no pci.ids.
#pragma once

#include <cstdint>
#include <string_view>

// Of class and subclass, "0x0106"; where the subclass has no name, that of its class; empty for a
// class that is not assigned.
std::string_view PciClassName(uint16_t code);
