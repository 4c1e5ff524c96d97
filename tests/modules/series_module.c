/* A module with a series; MODULE_NAME is its name. */
#include "kemd/module.h"
#include "kemd/performance.h"

static struct KemdSeries* series;

static int Start(void* user) {
    const struct KemdSeriesDescription description = {
        sizeof description, KEMD_SERIES_COUNTER, "work_rounds", NULL, NULL, NULL};
    (void)user;
    const int error = KemdSeriesRegister(&series, &description);
    KemdSeriesAdd(series, 7);
    return error;
}

static void Stop(void* user) {
    (void)user;
    KemdSeriesRelease(series);
}

KEMD_MODULE_V2 = {KEMD_MODULE_V2_HEAD, .name = MODULE_NAME, .start = Start, .stop = Stop};
