#include "base/process_setup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

void OpenStandardDescriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        // open takes the lowest free number: this one.
        if (fcntl(fd, F_GETFD) < 0) (void)!open("/dev/null", O_RDWR);
    }
}

void IgnoreFileSizeLimit() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGXFSZ, &ignore, nullptr);
}

sigset_t WaitSignals() {
    sigset_t signals{};
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    sigaddset(&signals, SIGALRM);
    return signals;
}

void PrepareProcess() {
    (void)setsid();  // fails harmlessly in the foreground
    (void)!chdir("/");
    umask(026);  // Required: 026, not 022. No file of ours is for others to read.
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, nullptr);
    sigaction(SIGIO, &ignore, nullptr);
    const sigset_t signals = WaitSignals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
}
