// The parts of performance_bench; each returns the exit status.
#pragma once

// The sampler beside bare reads of the same files and sadc, all once a second.
int MeasureSampling(int seconds);
// The sampler on made files, 1 to 256 processors and 2 to 500 disks; needs a private mount table.
int MeasureMadeFiles();
// The sampler's values beside those of node_exporter and sadf.
int CompareValues();
// Records the sampler's values once a second, as CSV.
int RecordValues(int seconds, const char* path);
// The history of a recording beside other coders; then days of it, written and read.
int MeasureEncoding(int days, const char* path);
// The history of 8,500 series, made of the recording's.
int MeasureManySeries(const char* path);
// kemdctl performance on this history.
void MeasureCommands(const char* history);
