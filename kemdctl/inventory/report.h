// Reports what kemdctl inventory found.
#pragma once

#include <string>

#include "kemdctl/inventory/machine.h"

class ReportWriter;

void ReportInventory(ReportWriter& report, const Inventory& inventory);
// Members: the slot of one device, found by its own row or by the bus alone.
void ReportSlot(ReportWriter& report, const SlotRow& row, bool isExact);
// Members: whether the document is complete, and the error if it is not.
void ReportError(ReportWriter& report, const std::string& error);
