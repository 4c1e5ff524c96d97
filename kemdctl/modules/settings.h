// The settings file of a module, as the administrator changes and reads it.
#pragma once

class ReportWriter;

// Writes Enabled. The file is there whole or as it was.
int EnableModule(const char* name, bool isEnabled, ReportWriter& report);

// What is in force at the next start or reload, and where each value comes from.
int ShowModuleConfig(const char* name, ReportWriter& report);
