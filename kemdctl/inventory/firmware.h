// What kemdctl inventory does with the firmware's own tables.
#pragma once

class ReportWriter;

// What the command line says; null for what it does not have.
struct FirmwareOptions {
    const char* slot;    // --slot
    const char* source;  // --from-dump
    const char* target;  // --dump
};

bool IsStandardOutput(const char* path);
// The exit code.
int RunFirmware(ReportWriter& report, const FirmwareOptions& options);
// For JSON: opens the document, with what --tables says about this machine as its members.
void StateTables(ReportWriter& report);
