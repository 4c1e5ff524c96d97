/* Traces as often as a request says, and answers how many nanoseconds one record took. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "kemd/module.h"
#include "kemd/trace.h"

static double Now(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e9 + (double)now.tv_nsec;
}

static int Request(void* user, const char* text, struct KemdReply* reply) {
    char answer[32];
    const int count = atoi(text);
    const double start = Now();
    (void)user;
    for (int i = 0; i < count; ++i) {
        KemdTrace("bench", 2, "SCAN: adapter %d answered, state %s, next poll later", i, "ready");
    }
    if (count == 0) return 0;
    snprintf(answer, sizeof answer, "%.1f", (Now() - start) / count);
    return reply->write(reply, answer, strlen(answer));
}

KEMD_MODULE_V2 = {KEMD_MODULE_V2_HEAD, .name = "isolated_bench_module", .request = Request};
