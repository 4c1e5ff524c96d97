// The parts of performance_bench; each returns the exit status.
#pragma once

// The sampler beside bare reads of the same files and sadc, all once a second.
int MeasureSampling(int seconds);
// The sampler on made files, 1 to 256 processors and 2 to 500 disks; needs a private mount table.
int MeasureMadeFiles();
// The sampler's values beside those of node_exporter and sadf.
int CompareValues();
