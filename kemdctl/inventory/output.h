// The forms in which kemdctl inventory shows items, beside tables and JSON.
#pragma once

#include "inventory/host_inventory.h"

class ReportWriter;

// A page of 80 columns and at most 24 lines for a usual server.
void ShowPage(ReportWriter& report, const KemdInventory& inventory);
// PCI bridges, functions, drives, partitions, volumes and mounts, each under what it sits in.
void ShowTree(ReportWriter& report, const KemdInventory& inventory);
// Texts must be UTF-8. The exit code.
int WriteXml(const KemdInventory& inventory);
