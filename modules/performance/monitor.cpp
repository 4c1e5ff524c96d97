#include "modules/performance/monitor.h"

#include <pthread.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <utility>

#include "kemd/trace.h"
#include "performance/history_reader.h"

namespace {

constexpr const char* kTag = "performance";
constexpr const char* kVersion = "1.0";
constexpr int64_t kRetry = 60 * kSecond;
// What cannot be had may change, as when a disk no longer answers.
constexpr int64_t kNotesEvery = 10 * kSecond;

int64_t Monotonic() {
    return SampleTime::Now().monotonic;
}

std::string ReadLine(const char* path) {
    std::string line;
    std::ifstream file(path);
    std::getline(file, line);
    return line;
}

std::string HostName() {
    utsname names{};
    return uname(&names) == 0 ? names.nodename : "";
}

// The daemon's mask lets nobody else in, but these may be read by all.
void MakeDirectories() {
    for (const char* const path : {"/var/lib/kemd", "/var/lib/kemd/performance"}) {
        if (mkdir(path, 0755) == 0) (void)chmod(path, 0755);
    }
}

std::string PeriodText(int64_t ms) {
    char text[64];
    std::snprintf(text, sizeof text, "every %g s", static_cast<double>(ms) / 1000);
    return text;
}

}  // namespace

bool Monitor::Start(const PerformanceSettings& settings) {
    m_wanted = settings;
    m_isEnding = false;
    m_isChanged = true;
    m_isSyncWanted = false;
    m_state = {};
    m_own = {};
    m_state.at = SampleTime::Now().monotonic;
    m_alarms = Alarms();
    m_dead.clear();
    m_clocks = {};
    m_deadline = 0;
    m_isRunning = m_sampler.Start(RunSampler, this, 0, false, 0, true);
    if (!m_isRunning) return false;
    if (m_syncer.Start(RunSyncer, this, 0, false, 0, true)) return true;
    Stop();
    return false;
}

void Monitor::Stop() {
    if (!m_isRunning) return;
    {
        const std::lock_guard lock(m_lock);
        m_isEnding = true;
    }
    m_change.notify_all();
    m_request.notify_all();
    (void)m_sampler.WaitForTermination(-1);
    (void)m_syncer.WaitForTermination(-1);
    m_isRunning = false;
}

void Monitor::Apply(const PerformanceSettings& settings) {
    {
        const std::lock_guard lock(m_lock);
        m_wanted = settings;
        m_isChanged = true;
    }
    m_change.notify_all();
}

MonitorState Monitor::State() {
    const std::lock_guard lock(m_lock);
    return m_state;
}

int Monitor::Sync() {
    const std::lock_guard lock(m_writerLock);
    return m_writer != nullptr ? m_writer->Sync() : ENODEV;
}

void* Monitor::RunSampler(void* self) {
    (void)pthread_setname_np(pthread_self(), "performance");
    static_cast<Monitor*>(self)->Sample();
    return nullptr;
}

void* Monitor::RunSyncer(void* self) {
    (void)pthread_setname_np(pthread_self(), "perf-sync");
    static_cast<Monitor*>(self)->KeepSynced();
    return nullptr;
}

void Monitor::KeepSynced() {
    std::unique_lock lock(m_lock);
    for (;;) {
        m_request.wait(lock, [this] { return m_isEnding || m_isSyncWanted; });
        if (m_isEnding) return;
        m_isSyncWanted = false;
        lock.unlock();
        const int error = Sync();
        lock.lock();
        if (error == ENODEV) continue;
        if (m_state.syncError != error && error != 0) {
            KemdMessage(kTag, "%s does not reach the disk: %s", kHistoryFile, std::strerror(error));
        }
        m_state.syncError = error;
    }
}

void Monitor::Sample() {
    bool isFailing = false;
    while (AwaitDeadline()) {
        try {
            TakeDueSample();
            isFailing = false;
        } catch (const std::exception& error) {
            if (!isFailing) KemdMessage(kTag, "a sample is not complete: %s", error.what());
            isFailing = true;
        }
    }
    Close();
    // Here, and not when the library is unloaded: too late then to keep it for a thread that hangs.
    m_sources.reset();
}

void Monitor::TakeDueSample() {
    TakeSettings();
    const int64_t period = m_settings.periodMs * kMs;
    const int64_t late = Monotonic() - m_deadline;
    if (late < 0) return;  // new settings, before the next sample
    const auto missed = static_cast<uint64_t>(late / period);
    m_deadline += static_cast<int64_t>(missed + 1) * period;
    Tick(missed);
}

bool Monitor::AwaitDeadline() {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline{std::chrono::nanoseconds(m_deadline)};
    std::unique_lock lock(m_lock);
    m_change.wait_until(lock, deadline, [this] { return m_isEnding || m_isChanged; });
    return !m_isEnding;
}

void Monitor::TakeSettings() {
    PerformanceSettings wanted;
    {
        const std::lock_guard lock(m_lock);
        if (!std::exchange(m_isChanged, false)) return;
        wanted = m_wanted;
    }
    const bool isFirst = m_deadline == 0;
    const bool isOther = wanted.size != m_settings.size || wanted.periodMs != m_settings.periodMs ||
                         wanted.isWithProcesses != m_settings.isWithProcesses;
    m_settings = wanted;
    m_alarms.Configure(m_settings.limits);
    if (!isFirst && !isOther) return;
    m_deadline = Monotonic();
    m_isOpenWanted = true;
}

// The table and all that refers to it begin again with the file.
void Monitor::Open(const SampleTime& now) {
    m_modules = ModuleSeries();
    m_alarms.ForgetTable();
    m_table = std::make_unique<SeriesTable>();
    m_sources = std::make_unique<Sampler>(SamplerSettings{m_settings.isWithProcesses != 0});
    m_isFirst = true;
    m_own.periodMs = m_settings.periodMs;
    OpenWriter(now);
    m_isOpenWanted = false;
}

void Monitor::OpenWriter(const SampleTime& now) {
    m_openAt = now.monotonic + kRetry;
    m_syncedAt = now.monotonic;
    m_bootId = ReadLine("/proc/sys/kernel/random/boot_id");
    std::string lastBoot;
    std::string error;
    if (const auto reader = HistoryReader::Open(kHistoryFile, error)) lastBoot = reader->BootId();
    if (!TryOpenWriter()) return;
    if (!lastBoot.empty() && lastBoot != m_bootId) AddMark(now, MarkKind::kReboot, 0, m_bootId);
    AddMark(now, MarkKind::kStart, 0,
            std::string(kVersion) + ", " + PeriodText(m_settings.periodMs));
}

bool Monitor::TryOpenWriter() {
    MakeDirectories();
    HistorySettings settings;
    settings.path = kHistoryFile;
    settings.size = static_cast<uint64_t>(m_settings.size);
    settings.periodNs = m_settings.periodMs * kMs;
    settings.host = HostName();
    settings.bootId = m_bootId;
    std::string error;
    {
        const std::lock_guard lock(m_writerLock);
        m_writer.reset();
        m_writer = HistoryWriter::Open(settings, error);
    }
    if (m_writer == nullptr) {
        if (error != m_own.error) {
            KemdMessage(kTag, "no sample is written: %s; it is tried again each minute",
                        error.c_str());
        }
        m_own.error = error;
        return false;
    }
    if (!m_own.error.empty()) KemdMessage(kTag, "%s is written again", kHistoryFile);
    m_own.error.clear();
    if (!m_writer->Findings().empty()) {
        KemdMessage(kTag, "%s: %s", kHistoryFile, m_writer->Findings().c_str());
    }
    struct stat status {};
    if (stat(kHistoryFile, &status) == 0) {
        m_device = status.st_dev;
        m_inode = status.st_ino;
        m_size = status.st_size;
    }
    return true;
}

void Monitor::Close() try {
    if (m_writer == nullptr) return;
    AddMark(SampleTime::Now(), MarkKind::kStop, 0, "");
    (void)Sync();
    const std::lock_guard lock(m_writerLock);
    m_writer.reset();
} catch (const std::bad_alloc&) {
    m_writer.reset();
}

void Monitor::Tick(uint64_t missed) {
    if (m_isOpenWanted) {
        Open(SampleTime::Now());
        m_deadline = Monotonic() + m_settings.periodMs * kMs;
    } else if (m_writer == nullptr && Monotonic() >= m_openAt) {
        OpenWriter(SampleTime::Now());
    }
    const SampleTime now = SampleTime::Now();
    MarkClocks(now);
    if (missed > 0) {
        m_own.gaps += missed;
        AddMark(now, MarkKind::kGap, static_cast<int64_t>(missed), "");
    }
    AppendSample(now);
    Report(now);
    MarkDeadModules(now);
    RequestSync(now);
    Publish(now);
}

void Monitor::AppendSample(const SampleTime& now) {
    m_sources->Sample(*m_table);
    m_modules.Sample(*m_table, now.monotonic);
    if (m_writer == nullptr) return;
    m_writer->Append(now, *m_table);
    ++m_own.samples;
    const std::string& processes = m_sources->Processes();
    if (!processes.empty()) AddMark(now, MarkKind::kProcesses, 0, processes);
}

void Monitor::AddMark(const SampleTime& now, MarkKind kind, int64_t value,
                      const std::string& text) {
    if (m_writer != nullptr) m_writer->Mark({now, kind, value, text});
}

void Monitor::MarkClocks(const SampleTime& now) {
    ClockReading reading;
    if (!Clocks::Read(reading)) return;
    const ClockChange change = m_clocks.Compare(reading);
    if (change.slept != 0) AddMark(now, MarkKind::kSuspend, change.slept, "");
    if (change.step != 0) AddMark(now, MarkKind::kClockStep, change.step, "");
}

void Monitor::Report(const SampleTime& now) {
    m_events.clear();
    m_alarms.Compare(*m_table, now, m_events);
    Moved moved(kHistoryFile, now, m_settings.periodMs * kMs);
    for (const AlarmEvent& event : m_events) Report(now, event, moved);
}

void Monitor::Report(const SampleTime& now, const AlarmEvent& event, Moved& moved) {
    std::string text = event.text;
    if (!event.isEnd && m_writer != nullptr) {
        const std::string others = moved.Text(event);
        if (!others.empty()) text += "; with it: " + others;
    }
    KemdTrace(kTag, 1, "%s", text.c_str());
    AddMark(now, event.isEnd ? MarkKind::kAlarmEnd : MarkKind::kAlarm,
            static_cast<int64_t>(event.value), text);
}

// The trace has it from who started the process.
void Monitor::MarkDeadModules(const SampleTime& now) {
    if (m_dead == m_modules.Dead()) return;
    for (const std::string& module : m_modules.Dead()) {
        if (m_dead.contains(module)) continue;
        AddMark(now, MarkKind::kAlarm, 0,
                "module " + module + ": its process has died, its series have no values");
    }
    for (const std::string& module : m_dead) {
        if (m_modules.Dead().contains(module)) continue;
        AddMark(now, MarkKind::kAlarmEnd, 0, "module " + module + " is started again, or unloaded");
    }
    m_dead = m_modules.Dead();
}

// Someone may have removed the file, or put another in its place.
bool Monitor::IsFileOurs() {
    struct stat status {};
    return stat(kHistoryFile, &status) == 0 && status.st_dev == m_device &&
           status.st_ino == m_inode && status.st_size == m_size;
}

// Asked for early enough that nothing is older than the interval before the next sample.
void Monitor::RequestSync(const SampleTime& now) {
    if (m_writer == nullptr) return;
    const int64_t next = now.monotonic + m_settings.periodMs * kMs;
    if (next - m_syncedAt <= m_settings.syncMs * kMs) return;
    m_syncedAt = now.monotonic;
    const std::string losses = m_writer->Losses(*m_table);
    if (!losses.empty() && m_losses.empty()) {
        KemdMessage(kTag, "%s is too small for its series: %s left out; set a larger size",
                    kHistoryFile, losses.c_str());
    }
    m_losses = losses;
    if (!IsFileOurs()) {
        KemdMessage(kTag, "%s is not the file any more that was written: it begins again",
                    kHistoryFile);
        m_isOpenWanted = true;
        return;
    }
    {
        const std::lock_guard lock(m_lock);
        m_isSyncWanted = true;
    }
    m_request.notify_all();
}

void Monitor::TakeNotes(const SampleTime& now) {
    std::string notes;
    for (const std::string& note : m_sources->Notes()) {
        if (m_isFirst) KemdTrace(kTag, 2, "%s", note.c_str());
        notes += note + "\n";
    }
    m_own.notes = std::move(notes);
    m_notesAt = now.monotonic + kNotesEvery;
    m_isFirst = false;
}

void Monitor::Publish(const SampleTime& now) {
    if (m_isFirst || now.monotonic >= m_notesAt) TakeNotes(now);
    m_own.series = 0;
    for (SeriesTable::Index i = 0; i < m_table->Size(); ++i) {
        m_own.series += m_table->HasValue(i) ? 1 : 0;
    }
    m_own.at = now.monotonic;
    m_own.ofModules = m_modules.Count();
    m_own.alarms = m_alarms.Texts();
    const std::lock_guard lock(m_lock);
    m_own.syncError = m_state.syncError;
    m_state = m_own;
}
