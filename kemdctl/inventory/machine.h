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

// Asks the machine. False when the options need what may not be read.
bool LoadMachine(Inventory& inventory, bool needsSmbios, bool needsSlots);
// False, with the error, when the file cannot be read or holds no tables.
bool LoadDump(const char* path, Inventory& inventory);
// Whether there are tables that are broken; what could be read of them is there.
bool IsBroken(const Inventory& inventory);
// Adds what is wrong with the tables to what is wrong with their sources.
void AddTableError(Inventory& inventory);

// The tables as one file, in the form that dmidecode writes and reads: 32 bytes for the entry
// point, which gives the offset 32 as the table's address, and the table. Empty when the form does
// not know this kind of entry point.
std::string EncodeSmbiosDump(const SmbiosData& data);
