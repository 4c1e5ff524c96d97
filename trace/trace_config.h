// The trace settings of one module: what its configuration files say, what the environment
// overrides, and the values in force. trace_settings.h has every key and variable.
//
// The base class of the trace object, which holds its lock around every call that changes
// something here. The level, the saved level and the trace-on flag are read without the lock.
// Nothing fails: a file that is missing, unreadable or unfinished counts as absent.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "base/fixed_string.h"
#include "trace/trace_settings.h"

class CDebugTraceConfig {
  public:
    using Path = TracePath;

    [[nodiscard]] uint32_t TraceLevel() const { return m_level.load(std::memory_order_relaxed); }
    [[nodiscard]] uint32_t SavedTraceLevel() const {
        return m_savedLevel.load(std::memory_order_relaxed);
    }
    // True while a ring buffer is active and tracing is wanted. Callers test it before they trace:
    // see TRACE in trace/debug.h.
    [[nodiscard]] bool IsTraceOn() const { return m_traceOn.load(std::memory_order_relaxed); }
    // These change at Init and with a dynamic update, under the lock.
    [[nodiscard]] const char* ModuleName() const { return m_moduleName ? m_moduleName.get() : ""; }
    [[nodiscard]] const TraceValuesAsRead& AsRead() const { return m_asRead; }
    [[nodiscard]] const TraceValuesInForce& InForce() const { return m_inForce; }

    // The module's own variable for the ring-buffer weight.
    using VariableName = FixedString<48>;
    [[nodiscard]] VariableName RingWeightVariable() const;

  protected:
    constexpr CDebugTraceConfig() = default;
    ~CDebugTraceConfig() = default;

    // Reads files and environment and sets the values in force. Always true.
    bool ReadTraceConfig(const char* moduleName);
    // Bytes of the run-time ring buffer, 0 for none. Puts the module's own variable for the weight
    // and the largest factor in force.
    [[nodiscard]] int64_t ComputeRingSize();
    // Reads files that changed since they were last read, at most once per interval.
    void UpdateTraceConfig(int64_t now);
    // Every change of the two goes through these, under the lock.
    void SetLevel(uint32_t level);
    void SetTraceOn(bool on);
    // From now on *shared is the level in force. Null: not any more.
    void ShareLevelWith(uint32_t* shared);

    std::atomic<uint32_t> m_level{0};
    std::atomic<uint32_t> m_savedLevel{0};  // the configured level, which SIGHUP restores
    std::atomic<bool> m_traceOn{false};
    std::unique_ptr<char[]> m_moduleName;  // null until Init

  private:
    // A file whose changes are watched. Forgotten (path empty) when it could not be read.
    struct WatchedFile {
        FixedString<512> path;
        int64_t modified = 0;  // nanoseconds since the epoch

        void Forget() { *this = WatchedFile(); }
    };
    WatchedFile m_globalFile;
    WatchedFile m_moduleFile;

  protected:
    std::atomic<uint32_t> m_updateInterval{0};  // seconds; 0: files are read once

  private:
    int64_t m_lastCheck = 0;  // seconds since the epoch

  protected:
    TraceValuesAsRead m_asRead;
    TraceValuesInForce m_inForce;

  private:
    uint32_t* m_sharedLevel = nullptr;  // see ShareLevelWith
    void PublishLevel() const;
    // False when the section was not found.
    bool ReadGlobalFile();
    bool ReadModuleFile(const char* name, const char* moduleName);
    void SetValuesInForce();
    void UpdateGlobalFile();
    void UpdateModuleFile();
    void UpdateValues(std::string_view section);
};

// Appends an underscore and the upper-case form of `text` to the text in `buffer`, which has room
// for `size` bytes in all; what does not fit is cut and the result is terminated.
void AppendUpperCase(char* buffer, size_t size, const char* text);

// Turns a text to lower case in place.
void ToLowerCase(char* text);

// A copy on the heap, null when there is no memory.
std::unique_ptr<char[]> CopyText(const char* text);
