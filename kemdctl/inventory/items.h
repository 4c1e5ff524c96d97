// Items of the inventory as people read them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "inventory/host_inventory.h"

class ReportWriter;

// A size with one digit after the point, if need be: "512 bytes", "1.5 GiB", "16 GiB".
std::string BinarySize(uint64_t bytes);
// Printable, with its unit; values of a list with ", " between; empty when there is none. A name
// that the table of fields lacks has no value.
std::string ShownField(const KemdInventoryItem& item, std::string_view name);
// What the table of its kind has in the columns after the name, with two blanks between, but for
// yes and no.
std::string ShownSummary(const KemdInventoryItem& item);

// All items of these sections: a table for each kind that has several by nature, otherwise and with
// `isLong` a block for each item. Then warnings and notes.
void ShowSections(ReportWriter& report, const KemdInventory& inventory, uint32_t sections,
                  bool isLong);
// What could not be read, on standard error; a few lines for each reason, after `subject`.
void ComplainOfNotes(const std::vector<std::string>& notes, const std::string& subject);
