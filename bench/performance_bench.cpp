// The performance monitor: performance_bench PART [SECONDS]. Parts are in files of their names.
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "bench/performance_parts.h"

int main(int argc, char** argv) {
    const std::string_view part = argc > 1 ? argv[1] : "";
    const int seconds = argc > 2 ? std::atoi(argv[2]) : 20;
    if (part == "sampling") return MeasureSampling(seconds);
    if (part == "made") return MeasureMadeFiles();
    if (part == "compare") return CompareValues();
    if (part == "record" && argc > 3) return RecordValues(seconds, argv[3]);
    if (part == "encoding" && argc > 3) return MeasureEncoding(seconds, argv[3]);
    if (part == "many" && argc > 2) return MeasureManySeries(argv[2]);
    std::fprintf(stderr,
                 "usage: performance_bench sampling|made|compare [SECONDS]\n"
                 "       performance_bench record SECONDS FILE | encoding DAYS FILE | many FILE\n");
    return 2;
}
