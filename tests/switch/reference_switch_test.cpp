// The switch library that ships, with good and bad modules.
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "base/library_file.h"
#include "base/unique_fd.h"
#include "tests/failing_memory.h"
#include "tests/modules.h"
#include "tests/switch/switch_test.h"

namespace {

namespace fs = std::filesystem;

class ReferenceSwitchTest : public SwitchTest {
  protected:
    void SetUp() override {
        SwitchTest::SetUp();
        // The thread sanitizer creates a thread of its own with the first one.
        std::thread([] {}).join();
        Install("/build/lib/libswitch.so");
        ClearModules();
        setenv("OV_MODULE_DIR", kModules, 1);
        ASSERT_TRUE(m_binding.Load());
    }
    bool LoadAgain() {
        m_params.flags = kForceRescan;
        return m_binding.LoadModules(&m_params);
    }
};

size_t Count(const std::string& text, const std::string& part) {
    size_t found = 0;
    for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++found;
    return found;
}

TEST_F(ReferenceSwitchTest, ModulesStartInOrderAndStopInReverse) {
    AddModule("/build/modules/heartbeat.so");
    ASSERT_TRUE(m_binding.LoadModules(&m_params));
    AddModule("/build/modules/notifications.so");
    ASSERT_TRUE(m_binding.LoadModules(&m_params));  // finds nothing new: no rescan is asked for
    EXPECT_FALSE(Contains(Trace(), "notifications.so"));
    ASSERT_TRUE(LoadAgain());
    m_binding.pInterface->StartAllModules();
    m_binding.pInterface->StartAllModules();  // skips those that run
    m_binding.pInterface->NotifyModules(kNotifyStop, nullptr, 0);
    int32_t runLevel = 6;
    m_binding.pInterface->NotifyModules(kNotifyShutdown, &runLevel, 0);
    m_binding.pInterface->StopAllModules();
    EXPECT_TRUE(m_binding.UnloadModules(0));
    EXPECT_TRUE(InOrder(
        Trace(),
        {"loading modules from /tmp/modules (run mode 8, rescan 0)\n", "heartbeat.so loaded\n",
         "loading modules from /tmp/modules (run mode 8, rescan 1)\n", "notifications.so loaded\n",
         "module heartbeat.so started\n", "module notifications.so started\n",
         " notifications notification 0x20000\n", "notification 0x30000, run level 6\n",
         "module notifications.so stopped\n", "module heartbeat.so stopped\n"}));
    EXPECT_EQ(Count(Trace(), ".so loaded\n") + Count(Trace(), ".so started\n"), 4U);
}

// In the trace and in the journal, and the service manager sees each step.
TEST_F(ReferenceSwitchTest, BadModulesAreNamedAndLeftOut) {
    const sockaddr_un address{AF_UNIX, "/tmp/notify"};
    const UniqueFd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(manager.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    setenv("NOTIFY_SOCKET", "/tmp/notify", 1);
    const UniqueFd standardError(dup(STDERR_FILENO));
    const UniqueFd journal(open("/tmp/journal", O_WRONLY | O_CREAT, 0644));
    struct stat status {};
    fstat(journal.Get(), &status);
    dup2(journal.Get(), STDERR_FILENO);
    const auto name = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    setenv("JOURNAL_STREAM", name.c_str(), 1);
    for (const std::string fault : {"function", "newer", "symbol", "version"}) {
        AddModule("/test/bad_modules/bad_" + fault + ".so");
    }
    AddModule("/test/misbehaving/any.so", "fails.so");
    AddModule("/build/modules/notifications.so");
    fs::create_symlink("notifications.so", "/tmp/modules/second_name.so");
    WriteFile("/tmp/modules/cut.so", ReadFile("/build/modules/heartbeat.so").substr(0, 4096));
    MakeSafe("/tmp/modules/cut.so");
    ASSERT_TRUE(m_binding.LoadModules(&m_params));
    m_binding.pInterface->StartAllModules();
    EXPECT_FALSE(m_binding.UnloadModules(0)) << "the one that failed stays";
    dup2(standardError.Get(), STDERR_FILENO);
    std::string received;
    char text[256];
    for (ssize_t size = 0; (size = recv(manager.Get(), text, sizeof(text), 0)) > 0;) {
        received.append(text, static_cast<size_t>(size)).append("\n");
    }
    EXPECT_TRUE(InOrder(
        received, {"STATUS=loading module fails.so\n", "STATUS=starting module notifications.so\n",
                   "STATUS=running, 1 module\n", "STATUS=stopping module notifications.so\n"}));
    std::vector<std::string> lines{
        "module bad_function.so is left out: start or stop is missing\n",
        "module bad_newer.so cannot be loaded: /tmp/modules/bad_newer.so: undefined symbol: KemdNewer; "
        "neither kemd 1.0 nor a library of the module has it: update kemd, or link that library\n",
        "module bad_symbol.so is left out: it does not export kemdModule\n",
        "module bad_version.so is left out: its interface version is another\n",
        "module cut.so is left out: cut off after 4096 bytes\n",
        "module second_name.so is left out: it is loaded under another name\n",
        "module fails.so failed to start: result 7\n"};
    EXPECT_TRUE(InOrder(Trace(), lines));
    EXPECT_EQ(Count(Trace(), ".so started\n") + Count(Trace(), ".so stopped\n"), 2U);
    for (std::string& line : lines) line.insert(0, "<4>kemd: ");
    EXPECT_TRUE(InOrder(ReadFile("/tmp/journal"), lines));
    for (const char* const variable : {"NOTIFY_SOCKET", "JOURNAL_STREAM"}) unsetenv(variable);
    fs::remove_all("/tmp/modules");
    EXPECT_FALSE(LoadAgain());
    EXPECT_TRUE(Contains(Trace(), "cannot read the module directory /tmp/modules (No such file"));
}

TEST_F(ReferenceSwitchTest, ModulesThatOthersMayWriteAreLeftOut) {
    const auto mode = [](const char* path, int bits) {
        fs::permissions(path, static_cast<fs::perms>(bits));
    };
    AddModule("/build/modules/heartbeat.so");
    mode("/tmp/modules/heartbeat.so", 0664);
    // A link to a safe file in an unsafe directory.
    fs::create_directories("/tmp/open");
    mode("/tmp/open", 0777);
    fs::copy("/build/modules/notifications.so", "/tmp/open");
    MakeSafe("/tmp/open/notifications.so");
    fs::create_symlink("/tmp/open/notifications.so", "/tmp/modules/link.so");
    ASSERT_TRUE(LoadAgain());
    EXPECT_TRUE(InOrder(Trace(), {"module heartbeat.so is left out: ", "heartbeat.so may be ",
                                  "owner 0, mode 0664; wanted: owner 0, mode 0644 or 0755\n",
                                  "module link.so is left out: /tmp/open may be written by others "
                                  "than root: owner 0, mode 0777; wanted: owner 0, mode 0755\n"}));
    for (const auto& [path, bits] : {std::pair{"/tmp/modules", 0775}, {"/tmp", 0777}}) {
        mode(path, bits);
        EXPECT_FALSE(LoadAgain());
        const std::string reason = std::string("no module is loaded: ") + path + " may be writ";
        EXPECT_TRUE(Contains(Trace(), reason));
        mode(path, 0755);
    }
    EXPECT_FALSE(Contains(Trace(), ".so loaded\n"));
}

// Each allocation in turn is the first that fails; no later one succeeds, while the daemon stops.
TEST_F(ReferenceSwitchTest, WhatIsStartedIsStoppedWithoutMemory) {
    for (const char* name : {"a.so", "b.so"}) AddModule("/build/modules/notifications.so", name);
    IModuleSwitch& modules = *m_binding.pInterface;
    bool hasFailed = true;
    for (int allocations = 0; hasFailed; ++allocations) {
        g_allocations = allocations;
        try {
            (void)modules.LoadModules(&m_params);
            modules.StartAllModules();
            hasFailed = false;
        } catch (const std::bad_alloc&) {
            modules.StopAllModules();
        }
        const bool isUnloaded = modules.UnloadModules(0);
        g_allocations = -1;
        EXPECT_TRUE(isUnloaded) << allocations;
        for (const char* const name : {"/tmp/modules/a.so", "/tmp/modules/b.so"}) {
            EXPECT_EQ(dlopen(name, RTLD_NOW | RTLD_NOLOAD), nullptr) << allocations << name;
        }
    }
    EXPECT_GT(Count(Trace(), ".so started\n"), 3U);
    EXPECT_EQ(Count(Trace(), ".so started\n"), Count(Trace(), ".so stopped\n"));
}

// A sound library with some bytes changed, or with its end cut off.
TEST(LibraryFile, OnlyWhatTheLoaderNeedsIsLookedAt) {
    const std::string sound = ReadFile("/build/modules/notifications.so");
    Elf64_Ehdr header{};
    sound.copy(reinterpret_cast<char*>(&header), sizeof(header));
    const std::string cut = "cut off after ";
    const struct {
        size_t size;
        size_t position;
        std::string bytes;
        std::string fault;
    } cases[] = {
        {header.e_shoff + 1, 0, "", ""},  // the table of sections is cut
        {4096, 0, "", cut},
        {header.e_phoff + sizeof(Elf64_Phdr), 0, "", cut},
        {sizeof(header) - 1, 0, "", "no ELF file"},
        {sound.size(), 0, "MZ", "no ELF file"},
        {sound.size(), offsetof(Elf64_Ehdr, e_machine), "\3", "not for x86-64"},
        {sound.size(), offsetof(Elf64_Ehdr, e_type), "\2", "no shared library"},
        {sound.size(), offsetof(Elf64_Ehdr, e_phentsize), "\1", "its program headers are broken"},
        {sound.size(), offsetof(Elf64_Ehdr, e_phoff), std::string(8, '\377'), cut},
    };
    for (const auto& [size, position, bytes, fault] : cases) {
        WriteFile("/tmp/library.so", sound.substr(0, size).replace(position, bytes.size(), bytes));
        const LibraryFault found = LookAtLibrary("/tmp/library.so");
        EXPECT_TRUE(found.text.starts_with(fault) && found.text.empty() == fault.empty())
            << found.text << " instead of " << fault << " at " << position << ", size " << size;
        EXPECT_EQ(found.harmsLoader, fault == cut);
    }
    EXPECT_EQ(LookAtLibrary("/dev/zero").text, "no regular file");
}

}  // namespace
