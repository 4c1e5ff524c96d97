// Loading and saving the registry when a system call fails, when the process is killed at one, and
// while other processes save. The test stops a child process at each of its calls.
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <set>
#include <vector>

#include "tests/services/registry_world.h"

namespace {

namespace fs = std::filesystem;

const std::string kOldPath = kRegistryPath + ".old";
const std::string kNewPath = kRegistryPath + ".new";

enum class Fault { kFail, kKill };

// The calls that a save makes for its files; a sanitizer makes others.
const std::set<long> kFileCalls = {SYS_openat, SYS_newfstatat, SYS_fstat, SYS_flock,  SYS_ftruncate,
                                   SYS_write,  SYS_fchmod,     SYS_fsync, SYS_rename, SYS_renameat2,
                                   SYS_unlink, SYS_close,      SYS_read};

[[noreturn]] void LoadChangeAndSave() {
    CRegistry registry;  // a later one would load again
    CRegistry::SetupTree(true);
    registry.Open("", HKEY_LOCAL_MACHINE);
    registry.SetValue("v", "new");
    _exit(CRegistry::SaveTree() ? 0 : 1);
}

// _Fork runs no fork handlers, which would turn off tracing in the child.
pid_t StartTraced() {
    const pid_t child = _Fork();
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(99);
        raise(SIGSTOP);
        LoadChangeAndSave();
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSTOPPED(status));
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD);
    return child;
}

void RefuseCall(pid_t child, user_regs_struct registers, long error) {
    registers.orig_rax = static_cast<unsigned long long>(-1);
    ptrace(PTRACE_SETREGS, child, nullptr, &registers);
    ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    waitpid(child, nullptr, 0);
    registers.rax = static_cast<unsigned long long>(-error);
    ptrace(PTRACE_SETREGS, child, nullptr, &registers);
}

struct Save {
    bool canExchange = true;  // some file systems cannot exchange two names
    int status = 0;           // from waitpid
    std::vector<long> calls = {};
};

// Runs a load and a save with a fault at the n-th call. False when there were fewer calls.
bool SaveWithFault(int n, Fault fault, Save& save) {
    const pid_t child = StartTraced();
    bool entering = false;
    bool reached = false;
    save.calls.clear();
    for (;;) {
        ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        waitpid(child, &save.status, 0);
        if (WIFEXITED(save.status) || WIFSIGNALED(save.status)) return reached;
        if (WSTOPSIG(save.status) != (SIGTRAP | 0x80)) continue;
        entering = !entering;
        user_regs_struct registers{};
        ptrace(PTRACE_GETREGS, child, nullptr, &registers);
        const auto call = static_cast<long>(registers.orig_rax);
        if (!entering || kFileCalls.count(call) == 0) continue;
        save.calls.push_back(call);
        if (call == SYS_renameat2 && !save.canExchange) {
            RefuseCall(child, registers, EINVAL);
            entering = false;
            continue;
        }
        if (n-- != 0) continue;
        reached = true;
        entering = false;
        if (fault == Fault::kKill) {
            kill(child, SIGKILL);
        } else {
            RefuseCall(child, registers, EIO);
        }
    }
}

class RegistrySaveTest : public RegistryTest {
  protected:
    void SetUp() override {
        RegistryTest::SetUp();
        Load("v=s=older\n");
        CRegistry registry(HKEY_LOCAL_MACHINE);
        registry.SetValue("v", "old");
        registry.SetValue("w", "not in the older one");
        ASSERT_TRUE(CRegistry::SaveTree());
        ASSERT_EQ(ReadFile(kRegistryPath), kLive);
        ASSERT_EQ(ReadFile(kOldPath), kOlder);
    }
    static void ResetFiles() {
        fs::remove_all(kNewPath);
        fs::remove_all(kOldPath + ".kept");
        WriteFile(kRegistryPath, kLive);
        WriteFile(kOldPath, kOlder);
    }
    // What the child traced after this process's last record.
    static std::string ChildTrace() {
        const std::string ring = ReadFile("/var/log/orvmon/log.kemd_i");
        const size_t start = ring.find("## SAVE ##\n");
        return ring.substr(start, ring.find("## TRACE-END ##", start) - start);
    }
    static bool IsUntouched() {
        return ReadFile(kRegistryPath) == kLive && ReadFile(kOldPath) == kOlder;
    }
    static bool IsSaved() {
        return ReadFile(kRegistryPath) == kSaved && ReadFile(kOldPath) == kLive;
    }

    inline static const std::string kOlder = FileWith("v=s=older\n");
    static std::string LiveWith(const std::string& text) {
        return FileWith("v=s=" + text + "\nw=s=not in the older one\n");
    }
    inline static const std::string kLive = LiveWith("old");
    inline static const std::string kSaved = LiveWith("new");
};

// Above all, an older generation never replaces one that could not be read this time.
TEST_F(RegistrySaveTest, FailedCallLosesNothingAndIsReported) {
    Debug.Trace(1, "## SAVE ##\n");
    for (const bool canExchange : {true, false}) {
        ResetFiles();
        int failures = 0;
        Save save{.canExchange = canExchange};
        for (int n = 0; SaveWithFault(n, Fault::kFail, save); ++n) {
            ASSERT_TRUE(WIFEXITED(save.status)) << n;
            const bool saved = WEXITSTATUS(save.status) == 0;
            EXPECT_TRUE(IsSaved() || (!saved && IsUntouched())) << "call " << n;
            EXPECT_EQ(ReadFile(kNewPath), "") << "call " << n;
            EXPECT_EQ(Contains(ChildTrace(), "CRegistry: ERROR: Cannot "), !saved) << "call " << n;
            if (!saved) ++failures;
            ResetFiles();
        }
        EXPECT_GE(failures, 11);
    }
}

TEST_F(RegistrySaveTest, SavedStoreIsOnDiskBeforeItHasItsNameAndUnlockedAfterwards) {
    Save save;
    EXPECT_FALSE(SaveWithFault(-1, Fault::kFail, save));
    EXPECT_TRUE(IsSaved());
    auto next = save.calls.begin();
    for (const long call : {SYS_flock, SYS_write, SYS_fsync, SYS_renameat2, SYS_rename, SYS_fsync,
                            SYS_flock, SYS_close}) {
        next = std::find(next, save.calls.end(), call);
        ASSERT_NE(next, save.calls.end()) << call;
        ++next;
    }
}

TEST_F(RegistrySaveTest, KilledSaveLeavesTheOldOrTheNewStore) {
    for (const bool canExchange : {true, false}) {
        Save save{.canExchange = canExchange};
        for (int n = 0; SaveWithFault(n, Fault::kKill, save); ++n) {
            ASSERT_TRUE(WIFSIGNALED(save.status)) << n;
            // What the next start loads.
            const RegistryKey root(new CRegistryNode);
            EXPECT_TRUE(RestoreRegistryFile(kRegistryPath.c_str(), *root) == 0 ||
                        (!canExchange && RestoreRegistryFile(kOldPath.c_str(), *root) == 0));
            const std::string text = Text(*root);
            EXPECT_TRUE(text == kLive || text == kSaved) << "call " << n;
            // Leftovers do not disturb the next save.
            CRegistry(HKEY_LOCAL_MACHINE).SetValue("v", "next");
            EXPECT_TRUE(CRegistry::SaveTree());
            EXPECT_EQ(ReadFile(kRegistryPath), LiveWith("next"));
            EXPECT_FALSE(fs::exists(kNewPath));
            ResetFiles();
        }
        EXPECT_TRUE(WIFEXITED(save.status) && IsSaved());
        EXPECT_EQ(fs::status(kRegistryPath).permissions(), fs::perms(0644));
        ResetFiles();
    }
}

TEST_F(RegistrySaveTest, ReplacesOnlyWhatItWasLoadedFrom) {
    // No live file: the previous generation stays.
    fs::remove(kRegistryPath);
    CRegistry(HKEY_LOCAL_MACHINE).SetValue("v", "new");
    EXPECT_EQ(ReadFile(kRegistryPath), kSaved);
    EXPECT_EQ(ReadFile(kOldPath), kOlder);
    // A tree that was never loaded must not overwrite the file.
    RegistryStore unloaded;
    unloaded.MarkDirty();
    EXPECT_TRUE(unloaded.Save());
    EXPECT_EQ(ReadFile(kRegistryPath), kSaved);
}

TEST_F(RegistrySaveTest, ProcessesTakeTurns) {
    std::vector<pid_t> children;
    for (const char* text : {"one", "two", "three"}) {
        children.push_back(fork());
        if (children.back() != 0) continue;
        bool saved = true;
        for (int i = 0; i < 80; ++i) {
            CRegistry registry(HKEY_LOCAL_MACHINE);
            registry.SetValue("v", text);
            saved = CRegistry::SaveTree() && saved;
        }
        _exit(saved ? 0 : 1);
    }
    for (const pid_t child : children) {
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    for (const std::string& path : {kRegistryPath, kOldPath}) {
        EXPECT_EQ(ReadFile(path).size(),
                  LiveWith("one").size() + (Contains(ReadFile(path), "three") ? 2 : 0));
    }
    EXPECT_FALSE(fs::exists(kNewPath));
}

}  // namespace
