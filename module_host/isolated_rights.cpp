#include "module_host/isolated_rights.h"

#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

static std::string Failure(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

std::string LimitMemory(uint64_t bytes) {
    const rlimit limit = {bytes, bytes};
    if (setrlimit(RLIMIT_DATA, &limit) == 0) return {};
    return Failure("MemoryLimit cannot be set to " + std::to_string(bytes) + " bytes");
}

// No capability can be had again, be it by executing a program.
static bool DropCapabilities() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
    return prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) == 0 &&
           syscall(SYS_capset, &header, none.data()) == 0 &&
           prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
}

std::string BecomeUser(const char* name) {
    const std::string change = "it cannot become user " + std::string(name);
    errno = 0;
    const passwd* const user = getpwnam(name);
    endpwent();
    if (user == nullptr && errno != 0 && errno != ENOENT) return Failure(change);
    if (user == nullptr) return change + ": there is no such user";
    // As far as we may. The bounding set ends where there is no such capability.
    unsigned long capability = 0;
    while (prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) == 0) ++capability;
    const gid_t group = user->pw_gid;
    if (setgroups(1, &group) != 0 || setresgid(group, group, group) != 0 ||
        setresuid(user->pw_uid, user->pw_uid, user->pw_uid) != 0) {
        return Failure(change);
    }
    if (!DropCapabilities()) return Failure("its capabilities cannot be dropped");
    // A change of user resets both: the process outlives no daemon, and may leave a core.
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && prctl(PR_SET_DUMPABLE, 1) == 0) return {};
    return Failure(change);
}
