#include "base/crash_handler.h"

#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <optional>

#include "base/crash_line.h"

namespace {

struct CrashSignal {
    int number;
    std::string_view name;
};
constexpr size_t kStackSize = size_t{64} << 10;
constexpr std::array<CrashSignal, 5> kSignals = {{{SIGSEGV, "SIGSEGV"},
                                                  {SIGBUS, "SIGBUS"},
                                                  {SIGFPE, "SIGFPE"},
                                                  {SIGILL, "SIGILL"},
                                                  {SIGABRT, "SIGABRT"}}};

// A file that is loaded; the texts live as long as the table.
struct LoadedObject {
    uintptr_t begin;
    uintptr_t end;
    uintptr_t base;  // what the file calls 0
    const char* path;
    const char* module;  // null: it is none
};

// Static memory: a module may have damaged the heap.
class ObjectTable {
  public:
    void Clear() { m_count = m_used = 0; }
    // Drops what it has no room for.
    void Add(LoadedObject object) {
        object.path = Keep(object.path);
        object.module = object.module != nullptr ? Keep(object.module) : nullptr;
        if (object.path != nullptr && m_count < m_objects.size()) m_objects[m_count++] = object;
    }
    [[nodiscard]] const LoadedObject* Find(uintptr_t address) const {
        const auto* const end = m_objects.begin() + m_count;
        const auto* const found =
            std::find_if(m_objects.begin(), end, [address](const LoadedObject& each) {
                return address >= each.begin && address < each.end;
            });
        return found != end ? found : nullptr;
    }

  private:
    const char* Keep(const char* text) {
        const size_t size = std::strlen(text) + 1;
        if (size > m_texts.size() - m_used) return nullptr;
        char* const kept = m_texts.data() + m_used;
        m_used += size;
        return static_cast<const char*>(std::memcpy(kept, text, size));
    }

    std::array<LoadedObject, 256> m_objects{};
    size_t m_count = 0;
    std::array<char, size_t{32} << 10> m_texts{};
    size_t m_used = 0;
};

// The handler reads one while the other is made.
std::array<ObjectTable, 2> g_tables;
std::atomic<const ObjectTable*> g_objects{nullptr};

CrashTarget g_target{};
pid_t g_process = 0;
std::array<char, PATH_MAX> g_program{};

// Of the thread that crashed first.
std::atomic<pid_t> g_thread{0};
CrashLine g_line;
std::array<uintptr_t, 33> g_addresses;  // where it was, then return addresses
size_t g_count = 0;
volatile bool g_isGuarded = false;
sigjmp_buf g_back;

// A fault in the step only ends the step.
void Guarded(void (*step)()) {
    if (sigsetjmp(g_back, 0) == 0) {
        g_isGuarded = true;
        step();
    }
    g_isGuarded = false;
}

std::optional<LoadedObject> FindObject(uintptr_t address) {
    const LoadedObject* const noted = g_objects.load()->Find(address);
    if (noted != nullptr) return *noted;
#if __GLIBC_PREREQ(2, 35)
    // One that was just loaded, whose initialisers run, or that a module loaded. No locks in there.
    dl_find_object found{};
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    if (_dl_find_object(reinterpret_cast<void*>(address), &found) == 0) {
        return LoadedObject{0, 0, found.dlfo_link_map->l_addr, found.dlfo_link_map->l_name,
                            nullptr};
    }
#endif
    return std::nullopt;
}

// A return address may be the first one after its object, or function.
std::optional<LoadedObject> ObjectOf(size_t frame) {
    return FindObject(g_addresses[frame] - (frame > 0 ? 1 : 0));
}

// Frames before that of the fault are the handler's.
_Unwind_Reason_Code AddFrame(_Unwind_Context* context, void* fault) {
    const uintptr_t address = _Unwind_GetIP(context);
    bool& isReached = *static_cast<bool*>(fault);
    if (!isReached) {
        isReached = address == g_addresses[0];
        return _URC_NO_REASON;
    }
    if (g_count == g_addresses.size() || address == 0) return _URC_END_OF_STACK;
    g_addresses[g_count++] = address;
    return _URC_NO_REASON;
}

ucontext_t* g_context;

void CollectFrames() {
    // A call through a bad pointer has no frame that could be unwound: begin with its caller.
    auto& registers = g_context->uc_mcontext.gregs;
    const greg_t pc = registers[REG_RIP], sp = registers[REG_RSP];
    g_addresses[0] = static_cast<uintptr_t>(pc);
    g_count = 1;
    if (!ObjectOf(0)) {
        // NOLINTNEXTLINE(performance-no-int-to-ptr)
        const uintptr_t caller = *reinterpret_cast<const uintptr_t*>(sp);
        if (!FindObject(caller)) return;
        g_addresses[g_count++] = caller;
        registers[REG_RIP] = static_cast<greg_t>(caller);
        registers[REG_RSP] = sp + static_cast<greg_t>(sizeof caller);
        std::swap(g_addresses[0], g_addresses[1]);
    }
    bool isReached = false;
    _Unwind_Backtrace(AddFrame, &isReached);
}

// The registers are put back even if the unwinder faulted.
void Unwind(ucontext_t* context) {
    g_context = context;
    auto& registers = context->uc_mcontext.gregs;
    const greg_t pc = registers[REG_RIP], sp = registers[REG_RSP];
    Guarded(CollectFrames);
    if (registers[REG_RIP] != pc) std::swap(g_addresses[0], g_addresses[1]);
    registers[REG_RIP] = pc;
    registers[REG_RSP] = sp;
}

void PutModule() {
    const char* module = nullptr;
    for (size_t i = 0; i < g_count && module == nullptr; ++i) {
        if (const auto object = ObjectOf(i)) module = object->module;
    }
    if (module == nullptr && g_target.runningModule != nullptr) module = g_target.runningModule();
    if (module == nullptr) return;
    std::string_view name = module;
    if (name.ends_with(".so")) name.remove_suffix(3);
    g_line.Put("\"module\":\"");
    g_line.PutEscaped(name);
    g_line.Put("\",");
    g_line.Keep();
}

void PutFrames() {
    for (size_t i = 0; i < g_count; ++i) {
        const auto object = ObjectOf(i);
        g_line.Put(i > 0 ? ",\"" : "\"");
        if (object) g_line.PutEscaped(*object->path != '\0' ? object->path : g_program.data());
        g_line.Put(object ? "+0x" : "0x");
        g_line.PutNumber(g_addresses[i] - (object ? object->base : 0), 16);
        g_line.Put("\"");
        if (!g_line.Keep()) return;
    }
}

// The C library's calendar takes a lock.
void PutTime() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const std::chrono::sys_seconds time{std::chrono::seconds(now.tv_sec)};
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(time - day);
    const auto put = [](auto number, size_t digits, std::string_view end) {
        g_line.PutNumber(static_cast<uint64_t>(number), 10, digits);
        g_line.Put(end);
    };
    g_line.Put("{\"time\":\"");
    put(static_cast<int>(date.year()), 4, "-");
    put(static_cast<unsigned>(date.month()), 2, "-");
    put(static_cast<unsigned>(date.day()), 2, "T");
    put(clock.hours().count(), 2, ":");
    put(clock.minutes().count(), 2, ":");
    put(clock.seconds().count(), 2, ".");
    put(now.tv_nsec / 1'000'000, 3, "Z\",");
}

void PutHead(int signal, const siginfo_t& info) {
    const auto put = [](std::string_view label, int64_t number) {
        g_line.Put(label);
        g_line.PutNumber(static_cast<uint64_t>(number));
        g_line.Put(",");
    };
    PutTime();
    put("\"process\":", g_process);
    put("\"signal\":", signal);
    g_line.Put("\"name\":\"");
    for (const CrashSignal& each : kSignals) {
        if (each.number == signal) g_line.Put(each.name);
    }
    g_line.Put("\",");
    if (info.si_code > 0) {
        g_line.Put("\"address\":\"0x");
        g_line.PutNumber(reinterpret_cast<uintptr_t>(info.si_addr), 16);
        g_line.Put("\",");
    } else {
        put("\"sender\":", info.si_pid);
    }
    put("\"thread\":", gettid());
    std::array<char, 17> name{};
    prctl(PR_GET_NAME, name.data());
    g_line.Put("\"threadName\":\"");
    g_line.PutEscaped(name.data());
    g_line.Put("\",");
    g_line.Keep();
}

// A fault that the processor found comes again, now with the default action; what was sent is sent
// again, as it was.
void TakeDefaultAction(int signal, siginfo_t* info) {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigaction(signal, &action, nullptr);
    const bool comesAgain =
        info->si_code > 0 && !(signal == SIGBUS && info->si_code == BUS_MCEERR_AO);
    if (comesAgain) return;
    // Pending until the handler returns: a core dump shows where it came, not the handler.
    sigset_t own{};
    sigaddset(&own, signal);
    pthread_sigmask(SIG_BLOCK, &own, nullptr);
    if (syscall(SYS_rt_tgsigqueueinfo, getpid(), gettid(), signal, info) != 0) raise(signal);
}

// True when the calling thread is the one that writes.
bool IsFirst() {
    pid_t other = 0;
    if (g_thread.compare_exchange_strong(other, gettid())) return true;
    if (other == gettid()) {
        if (g_isGuarded) siglongjmp(g_back, 1);
        return false;
    }
    timespec moment{5, 0};
    while (nanosleep(&moment, &moment) != 0 && errno == EINTR) {
    }
    return false;
}

void OnCrash(int signal, siginfo_t* info, void* context) {
    const int saved = errno;
    // A thread that is cancelled would end in the write, and the process would live on.
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    if (getpid() == g_process && IsFirst()) {
        g_line.Clear();
        PutHead(signal, *info);
        Unwind(static_cast<ucontext_t*>(context));
        Guarded(PutModule);
        g_line.Drop();
        g_line.Put("\"frames\":[");
        g_line.Keep();
        Guarded(PutFrames);
        g_target.write(g_line.End());
    }
    TakeDefaultAction(signal, info);
    errno = saved;
}

struct Request {
    const char* path;
    const char* module;
    ObjectTable* table;
};

int AddObject(dl_phdr_info* info, size_t /*size*/, void* argument) {
    const Request& request = *static_cast<Request*>(argument);
    LoadedObject object{UINTPTR_MAX, 0, info->dlpi_addr, info->dlpi_name, nullptr};
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& part = info->dlpi_phdr[i];
        if (part.p_type != PT_LOAD) continue;
        object.begin = std::min<uintptr_t>(object.begin, object.base + part.p_vaddr);
        object.end = std::max<uintptr_t>(object.end, object.base + part.p_vaddr + part.p_memsz);
    }
    const ObjectTable* const before = g_objects;
    const LoadedObject* const known = before != nullptr ? before->Find(object.begin) : nullptr;
    if (request.path != nullptr && std::strcmp(object.path, request.path) == 0) {
        object.module = request.module;
    } else if (known != nullptr && std::strcmp(known->path, object.path) == 0) {
        object.module = known->module;
    }
    request.table->Add(object);
    return 0;
}

_Unwind_Reason_Code IgnoreFrame(_Unwind_Context* /*context*/, void* /*argument*/) {
    return _URC_NO_REASON;
}

}  // namespace

void NoteLoadedObjects(const char* path, const char* module) {
    if (g_thread != 0) return;  // the handler reads
    ObjectTable& table = g_objects == g_tables.data() ? g_tables[1] : g_tables[0];
    table.Clear();
    Request request{path, module, &table};
    dl_iterate_phdr(AddObject, &request);
    g_objects = &table;
}

CrashHandler::CrashHandler(const CrashTarget& target) {
    g_target = target;
    g_process = getpid();
    g_program = {};
    (void)!readlink("/proc/self/exe", g_program.data(), g_program.size() - 1);
    NoteLoadedObjects();
    // What the unwinder does at its first use is done now.
    _Unwind_Backtrace(IgnoreFrame, nullptr);
    // No SA_RESETHAND: a second thread that crashes the same way would end the process before the
    // line of the first is out. SA_NODEFER: a fault in the handler comes back to it.
    struct sigaction action {};
    action.sa_sigaction = OnCrash;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    sigfillset(&action.sa_mask);
    for (const CrashSignal& each : kSignals) sigdelset(&action.sa_mask, each.number);
    for (const CrashSignal& each : kSignals) {
        struct sigaction present {};
        sigaction(each.number, nullptr, &present);
        if (present.sa_handler == SIG_DFL) sigaction(each.number, &action, nullptr);
    }
}

CrashHandler::~CrashHandler() {
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    for (const CrashSignal& each : kSignals) {
        struct sigaction present {};
        sigaction(each.number, nullptr, &present);
        if (present.sa_sigaction == OnCrash) sigaction(each.number, &standard, nullptr);
    }
}

AlternateStack::AlternateStack() {
    stack_t present{};
    sigaltstack(nullptr, &present);
    if ((present.ss_flags & SS_DISABLE) == 0) return;
    void* const memory =
        mmap(nullptr, kStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return;
    stack_t stack{};
    stack.ss_sp = memory;
    stack.ss_size = kStackSize;
    if (sigaltstack(&stack, nullptr) == 0) {
        m_memory = memory;
        m_thread = gettid();
    } else {
        munmap(memory, kStackSize);
    }
}

AlternateStack::~AlternateStack() {
    if (m_memory == nullptr || gettid() != m_thread) return;
    stack_t none{};
    none.ss_flags = SS_DISABLE;
    if (sigaltstack(&none, nullptr) == 0) munmap(m_memory, kStackSize);
}
