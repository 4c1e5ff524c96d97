// What kemdctl inventory knows of a machine, from the machine or from a dump of its tables.
#pragma once

#include <string>

#include "inventory/smbios.h"
#include "kemdctl/inventory/slots.h"

struct Inventory {
    CSMBios smbios;
    bool hasSmbios = false;
    SlotRows slots;
    PciSlotSource slotSource = PciSlotSource::kNone;
    std::string error;  // what is missing or broken, and why; empty: nothing
};

// Asks the machine. False when what the options need is not there for want of permission.
bool LoadMachine(Inventory& inventory, bool needsSmbios, bool needsSlots);
// False when the file cannot be read or holds no tables.
bool LoadDump(const char* path, Inventory& inventory);
// Broken tables are there as far as they could be read.
bool IsBroken(const Inventory& inventory);
// What is wrong with the tables, beside what is wrong with their sources.
void AddTableError(Inventory& inventory);

// SMBIOS tables in one file: 32 bytes for the entry point, whose address of the table is the offset
// 32, and the table. The form that dmidecode writes and reads. Empty when the entry point is of a
// kind that the form does not know.
std::string EncodeSmbiosDump(const SmbiosData& data);
