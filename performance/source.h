// A source sets the series of one part of the host at each sample. What all of them need: files
// that stay open, series in tables, and devices that come and go.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "performance/series.h"

inline constexpr int64_t kSecondNs = 1'000'000'000;
// What cannot be read is tried again after this time; what is read rarely is read this often.
inline constexpr int64_t kRareNs = 10 * kSecondNs;

struct SampleContext {
    SeriesTable& table;
    int64_t now;                // CLOCK_MONOTONIC
    std::vector<char>& buffer;  // of all files in turn; grows
};

class Source {
  public:
    Source() = default;
    virtual ~Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    virtual void Sample(SampleContext& context) = 0;
    virtual void AddNotes(std::vector<std::string>& notes) const = 0;
};

using Sources = std::vector<std::unique_ptr<Source>>;

// A file of /proc or /sys that stays open. One that cannot be read is tried again every kRareNs;
// after a read that succeeded, at once.
class SourceFile {
  public:
    // `hasParts`: the kernel hands out a page at a time, so that it is read until nothing comes.
    explicit SourceFile(std::string path, bool hasParts = false)
        : m_path(std::move(path)), m_hasParts(hasParts) {}

    // The whole text, valid until the buffer is used again; empty when it cannot be had.
    std::string_view Read(SampleContext& context);
    // Of a file with parts: the first part, and the text so far with the next one; the same text
    // when there is no more.
    std::string_view ReadPart(SampleContext& context) {
        return Start(context) ? Text(context) : "";
    }
    std::string_view ReadMore(SampleContext& context);

    // 0, or why there is no text.
    [[nodiscard]] int Error() const { return m_error; }
    [[nodiscard]] const std::string& Path() const { return m_path; }
    // "PATH: REASON: no SERIES" when it cannot be read.
    void AddNote(std::vector<std::string>& notes, const char* series) const;

  private:
    bool Start(SampleContext& context);
    // One pread after what is there; false when it failed, which closes the file.
    bool Append(SampleContext& context);
    void Fail(const SampleContext& context, int error);
    [[nodiscard]] std::string_view Text(const SampleContext& context) const {
        return {context.buffer.data(), m_size};
    }

    std::string m_path;
    UniqueFd m_fd;
    size_t m_size = 0;  // of the text in the buffer
    int64_t m_retryAt = 0;
    int m_error = 0;
    bool m_hasParts;
};

// One row of a source's table of series.
struct SeriesRow {
    const char* name;
    const char* unit;
    const char* help;
    SeriesKind kind = SeriesKind::kCounter;
    uint32_t multiply = 1;
    uint32_t divide = 1;
    bool isReal = false;
};
SeriesTable::Index AddSeries(SeriesTable& table, const SeriesRow& row,
                             const std::string& labels = {});

// A series that is added with its first value.
class LazySeries {
  public:
    [[nodiscard]] bool IsAdded() const { return m_index != kNone; }
    void Add(SeriesTable& table, const SeriesRow& row, const std::string& labels = {}) {
        m_index = AddSeries(table, row, labels);
    }
    // Once added.
    void Set(SeriesTable& table, uint64_t bits) const { table.Set(m_index, bits); }
    void Set(SeriesTable& table, const SeriesRow& row, uint64_t bits) {
        if (!IsAdded()) Add(table, row);
        Set(table, bits);
    }
    // Of a device: `label` is "disk", "mount" ...
    void Set(SeriesTable& table, const SeriesRow& row, const char* label, const std::string& device,
             uint64_t bits) {
        if (!IsAdded()) Add(table, row, SeriesLabel(label, device));
        Set(table, bits);
    }
    void Clear(SeriesTable& table) const {
        if (IsAdded()) table.Clear(m_index);
    }
    void Remove(SeriesTable& table) {
        if (IsAdded()) table.Remove(m_index);
        m_index = kNone;
    }

  private:
    static constexpr SeriesTable::Index kNone = UINT32_MAX;
    SeriesTable::Index m_index = kNone;
};

// Devices in the order in which the kernel lists them: the usual sample finds each in its place.
// `Device` has `name`, is made from a name, and has `Clear` and `Remove`, which take the table.
template <typename Device>
class DeviceList {
  public:
    void Begin() { m_next = 0; }
    // The device of the next line; a new one when there was none of that name.
    Device& Next(std::string_view name) {
        if (m_next == m_devices.size() || m_devices[m_next].name != name) Find(name);
        return m_devices[m_next++];
    }
    // After the last line: those that had none are gone.
    void End(SeriesTable& table) {
        for (size_t i = m_next; i < m_devices.size(); ++i) m_devices[i].Remove(table);
        m_devices.erase(m_devices.begin() + static_cast<long>(m_next), m_devices.end());
    }
    // Those that the condition holds for are gone.
    template <typename Condition>
    void Drop(SeriesTable& table, Condition condition) {
        std::erase_if(m_devices, [&](Device& device) {
            const bool isGone = condition(device);
            if (isGone) device.Remove(table);
            return isGone;
        });
    }
    // There is no list now.
    void Clear(SeriesTable& table) {
        for (Device& device : m_devices) device.Clear(table);
    }
    [[nodiscard]] std::vector<Device>& All() { return m_devices; }
    [[nodiscard]] const std::vector<Device>& All() const { return m_devices; }

  private:
    // Moves the device to this place; those in between move on by one.
    void Find(std::string_view name) {
        const auto here = m_devices.begin() + static_cast<long>(m_next);
        const auto found = std::find_if(here, m_devices.end(),
                                        [&](const Device& device) { return device.name == name; });
        if (found == m_devices.end()) {
            m_devices.insert(here, Device(name));
        } else {
            std::rotate(here, found, found + 1);
        }
    }

    std::vector<Device> m_devices;
    size_t m_next = 0;
};

// Makers of the sources, each in the file of its name.
void AddCpuSource(Sources& sources);
void AddKeyedSources(Sources& sources);
void AddSmallSources(Sources& sources);
void AddDiskSource(Sources& sources);
void AddInterfaceSource(Sources& sources);
void AddProtocolSources(Sources& sources);
