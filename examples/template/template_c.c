/* A module to start from, in C: a thread that does its work every few seconds until it has to stop.
 * template.cpp is the same in C++. */
#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>

#include "kemd/config.h"
#include "kemd/module.h"
#include "kemd/performance.h"
#include "kemd/services.h"
#include "kemd/trace.h"

static const char name[] = "template_c"; /* the file is called template_c.so */

static _Atomic int64_t intervalMs;
static struct KemdEvent* stop;
static pthread_t thread;
static atomic_uint rounds;              /* the thread counts, other calls read */
static struct KemdSeries* roundsSeries; /* the same for kemdctl performance */

static void* Work(void* unused) {
    (void)unused;
    do {
        KemdTrace(name, 3, "round %u", ++rounds);
        KemdSeriesAdd(roundsSeries, 1);
    } while (KemdEventWait(stop, (uint32_t)intervalMs) != 0);
    return NULL;
}

/* Before each start, and on kemdctl modules reload while the thread runs: what is wrong in the file
 * has been reported when a read fails, and the module keeps what it had. */
static int Configure(void* user, const struct KemdConfig* config) {
    int64_t interval = 0;
    const int error = KemdConfigTime(config, "Interval", 10000, 1000, 3600000, &interval);
    (void)user;
    if (error == 0) intervalMs = interval;
    return error;
}

/* Any result other than 0 is traced, and the module is left out: nothing may be left running. */
static int Start(void* user) {
    (void)user;
    stop = KemdEventOpen(NULL, 1, 0);
    if (stop == NULL) return ENOMEM;
    const struct KemdSeriesDescription series = {sizeof series, KEMD_SERIES_COUNTER, "work_rounds",
                                                 NULL,          "Rounds of work",    NULL};
    int error = KemdSeriesRegister(&roundsSeries, &series);
    if (error != 0) KemdMessage(name, "no series: %s", strerror(error)); /* it works without */
    error = pthread_create(&thread, NULL, Work, NULL);
    if (error != 0) {
        KemdSeriesRelease(roundsSeries);
        KemdEventClose(stop);
    }
    return error;
}

/* The module is unloaded after this returns, so its thread must have ended. */
static void Stop(void* user) {
    (void)user;
    KemdEventSet(stop);
    pthread_join(thread, NULL);
    KemdSeriesRelease(roundsSeries);
    KemdEventClose(stop);
}

static int Health(void* user, char* text, size_t size) {
    (void)user;
    snprintf(text, size, "%u rounds", rounds);
    return KEMD_HEALTH_OK;
}

static int Request(void* user, const char* text, struct KemdReply* reply) {
    char answer[64];
    (void)user;
    if (strcmp(text, "rounds") != 0) {
        snprintf(answer, sizeof answer, "this module knows the request \"rounds\"");
        reply->write(reply, answer, strlen(answer));
        return EINVAL;
    }
    snprintf(answer, sizeof answer, "%u", rounds);
    return reply->write(reply, answer, strlen(answer));
}

KEMD_MODULE_V2 = {
    KEMD_MODULE_V2_HEAD,    .name = name,
    .moduleVersion = "1.0", .description = "A module to start from",
    .configure = Configure, .start = Start,
    .stop = Stop,           .health = Health,
    .request = Request,
};
