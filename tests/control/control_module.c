/* A module that does what it is asked for; its name and what it needs are chosen by the build. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "kemd/config.h"
#include "kemd/module.h"
#include "kemd/trace.h"

#ifndef MODULE_AFTER
#define MODULE_AFTER NULL
#endif
static const char kName[] = MODULE_NAME;
static const char* const kAfter[] = {MODULE_AFTER, NULL};
static int health;
static char healthText[64];

/* Until somebody opens the other end. */
static void* Hang(void* argument) {
    close(open("/tmp/hang", O_RDONLY | O_CLOEXEC));
    return argument;
}

static int Configure(void* user, const struct KemdConfig* config) {
    int64_t number = 0;
    const int error = KemdConfigNumber(config, "Number", 0, 0, 9, &number);
    KemdMessage((const char*)user, "number %d", (int)number);
    return error;
}

static void* Leave(void* argument) {
    _exit(3);
    return argument;
}

static int Start(void* user) {
    pthread_t thread;
    KemdMessage((const char*)user, "start");
    if (access("/tmp/slow", F_OK) == 0) Hang(NULL);
    if (kAfter[0] == NULL && access("/tmp/leave", F_OK) == 0) {
        pthread_create(&thread, NULL, Leave, NULL);
    }
    return access("/tmp/fail", F_OK) == 0 ? EIO : 0;
}

static void Stop(void* user) {
    KemdMessage((const char*)user, "stop");
}

static int Health(void* user, char* text, size_t size) {
    (void)user;
    if (health == 3) Hang(NULL);
    snprintf(text, size, "%s", healthText);
    return health;
}

static int Write(struct KemdReply* reply, const char* text) {
    return reply->write(reply, text, strlen(text));
}

static int Request(void* user, const char* text, struct KemdReply* reply) {
    pthread_t thread;
    if (sscanf(text, "health %d %63[^\n]", &health, healthText) >= 1) return 0;
    if (strncmp(text, "echo ", 5) == 0) return Write(reply, text + 5);
    if (strcmp(text, "hang") == 0) {
        KemdMessage((const char*)user, "hangs");
        Hang(NULL);
        KemdMessage((const char*)user, "goes on");
        return Write(reply, "done");
    }
    if (strcmp(text, "thread") == 0) {
        const int error = pthread_create(&thread, NULL, Hang, NULL);
        return error != 0 ? error : pthread_detach(thread);
    }
    if (strcmp(text, "crash") == 0) {
        KemdTrace((const char*)user, 1, "crashes");
        *(volatile int*)16 = 1;
    }
    if (strcmp(text, "flood") == 0) {
        int error = 0;
        while (error == 0) error = Write(reply, "0123456789abcdef");
        return error;
    }
    Write(reply, "no such thing");
    return EINVAL;
}

KEMD_MODULE_V2 = {
    KEMD_MODULE_V2_HEAD,  .name = kName,        .moduleVersion = "1.2", .description = "A \"test\"",
    .startAfter = kAfter, .user = (void*)kName, .configure = Configure, .start = Start,
    .stop = Stop,         .health = Health,     .request = Request,
};
