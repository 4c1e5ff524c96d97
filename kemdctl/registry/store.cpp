#include "kemdctl/registry/store.h"

#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/file_io.h"
#include "base/never_destroyed.h"
#include "base/paths.h"
#include "kemdctl/facts/process_facts.h"
#include "kemdctl/ui/command.h"
#include "kemdctl/ui/output_file.h"
#include "services/registry/file.h"
#include "services/registry/store.h"

namespace {

constexpr const char* kChangeLock = "/etc/orvmon/kemdctl.lock";

void NoteRunningDaemon() {
    if (FindDaemon() == 0) return;
    Complain("note: kemd is running; its modules keep their own copy of the registry and may");
    Complain("note: overwrite this change when they next save");
}

std::string WhyUnusable(const char* path) {
    return LoadErrorText(RestoreRegistryFile(path, *RegistryKey(new CRegistryNode)));
}

}  // namespace

CRegistry& Cursor() {
    static NeverDestroyed<CRegistry> cursor;
    return cursor.object;
}

std::string LoadErrorText(int error) {
    return error == ENODATA ? "it holds no registry" : ErrorText(error);
}

bool LoadStore() {
    (void)Cursor();
    RegistryStore& store = TheRegistryStore();
    if (store.LoadError() != 0) {
        const int error = store.LoadError();
        Complain("cannot read %s: %s", store.File(), ErrorText(error).c_str());
        if (error == EACCES || error == EPERM) return false;
        Complain(
            "try again; if that does not help, kemdctl registry restore brings back an older one");
        return false;
    }
    if (store.IsLoaded()) {
        if (std::string_view(store.File()) != kRegistryFile) {
            Complain("note: %s: %s; %s is used", kRegistryFile, WhyUnusable(kRegistryFile).c_str(),
                     store.File());
        }
        return true;
    }
    Complain("no registry can be loaded");
    for (const char* const path : {kRegistryFile, kRegistryOldFile, kRegistryDefaultFile}) {
        Complain("%s: %s", path, WhyUnusable(path).c_str());
    }
    return false;
}

KeyPath SplitPath(std::string_view path) {
    KeyPath components;
    while (!path.empty()) components.push_back(TakeComponent(path));
    return components;
}

bool IsRootKey(std::string_view name) {
    return std::find(kRootKeyNames.begin(), kRootKeyNames.end(), name) != kRootKeyNames.end();
}

RegistryKey FindKey(const KeyPath& path) {
    RegistryKey key = TheRegistryStore().Root();
    for (const std::string_view name : path) {
        const RegistryKey parent = std::move(key);
        if (!parent) return {};
        const LockedNode locked(*parent);
        const RegistryEntry* const entry = locked.Find(name);
        key = entry != nullptr ? entry->Node() : RegistryKey();
    }
    return key;
}

bool WriterLock::Take() {
    constexpr int kAttempts = 200;
    constexpr useconds_t kPause = 50'000;  // 10 seconds in all
    // Not the directory: any user may open and lock that, and so keep root from writing.
    m_file = OpenRegularFile(kChangeLock, O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
    if (!m_file.IsOpen()) {
        Complain("cannot open %s: %s", kChangeLock, ErrorText(errno).c_str());
        return false;
    }
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (flock(m_file.Get(), LOCK_EX | LOCK_NB) == 0) return true;
        if (errno != EWOULDBLOCK) break;
        usleep(kPause);
    }
    Complain(
        "cannot lock %s: %s", kChangeLock,
        errno == EWOULDBLOCK ? "another kemdctl is changing the registry" : std::strerror(errno));
    return false;
}

int SaveStore() {
    if (!CRegistry::SaveTree()) {
        const int error = errno;
        const std::string file = TheRegistryStore().FailedFile();
        const bool isLocked = error == EBUSY && file == kRegistryLockFile;
        Complain("cannot save %s: %s%s", kRegistryFile,
                 file != kRegistryFile ? (file + ": ").c_str() : "",
                 isLocked ? "another process holds the lock; try again" : ErrorText(error).c_str());
        return kError;
    }
    NoteRunningDaemon();
    return kYes;
}
