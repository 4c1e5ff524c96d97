/* A module of version 2 that traces its calls; name and fault are chosen by the build. */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "kemd/config.h"
#include "kemd/module.h"
#include "kemd/trace.h"

static const char kName[] = MODULE_NAME;
static int64_t intervalMs;

static int Configure(void* user, const struct KemdConfig* config) {
    const int error = KemdConfigTime(config, "Interval", 5000, 1000, 60000, &intervalMs);
    KemdMessage((const char*)user, "interval %lld ms", (long long)intervalMs);
    return error;
}

static int Start(void* user) {
    KemdMessage((const char*)user, "start");
    return 0;
}

static void Stop(void* user) {
    KemdMessage((const char*)user, "stop");
}

static void Notify(void* user, uint32_t code, const void* data) {
    KemdMessage((const char*)user, "notify %x %s", code, data == NULL ? "none" : "data");
}

/* The warmer, the worse. */
static int Health(void* user, char* text, size_t size) {
    (void)user;
    if (intervalMs < 2000) return KEMD_HEALTH_OK;
    snprintf(text, size, "interval is %lld ms", (long long)intervalMs);
    return intervalMs < 10000 ? KEMD_HEALTH_WARNING : KEMD_HEALTH_FAILED;
}

static int Request(void* user, const char* text, struct KemdReply* reply) {
    (void)user;
    if (strcmp(text, "fill") == 0) {
        while (reply->write(reply, "0123456789", 10) == 0) continue;
        return EMSGSIZE;
    }
    reply->write(reply, "you said ", 9);
    return reply->write(reply, text, strlen(text));
}

#ifndef MODULE_AFTER
#define MODULE_AFTER NULL
#endif
static const char* const kAfter[] = {MODULE_AFTER, NULL};

KEMD_MODULE_V2 = {
    KEMD_MODULE_V2_HEAD,    .name = kName,      .startAfter = kAfter, .user = (void*)kName,
    .configure = Configure, .start = Start,     .stop = Stop,         .notify = Notify,
    .health = Health,       .request = Request,
};
