// Temperatures, fans and power of /sys/class/hwmon. A sensor may take milliseconds to answer.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <map>
#include <optional>

#include "base/file_io.h"
#include "base/text.h"
#include "performance/slow_source.h"
#include "performance/text_cursor.h"

namespace {

constexpr const char* kDirectory = "/sys/class/hwmon";

struct KindRow {
    std::string_view prefix;
    std::string_view suffixes[2];  // the first that is there
    SeriesRow series;
};
constexpr SeriesRow Gauge(const char* name, const char* unit, const char* help, uint32_t divide) {
    return {name, unit, help, SeriesKind::kGauge, 1, divide};
}
constexpr KindRow kKinds[] = {
    {"temp", {"_input", ""}, Gauge("temperature_celsius", "celsius", "Temperature", 1000)},
    {"temp",
     {"_crit", "_max"},
     Gauge("temperature_limit_celsius", "celsius", "Temperature that is critical", 1000)},
    {"fan", {"_input", ""}, Gauge("fan_speed_rpm", "rpm", "Turns a minute", 1)},
    {"power", {"_average", "_input"}, Gauge("power_watts", "watts", "Electric power", 1'000'000)},
};

std::optional<int64_t> ReadNumber(int fd) {
    char text[32];
    const ssize_t count = pread(fd, text, sizeof text, 0);
    if (count <= 0) return std::nullopt;
    TextCursor cursor({text, static_cast<size_t>(count)});
    const bool isNegative = cursor.Skip("-");
    uint64_t number = 0;
    if (!cursor.Number(number) || number > INT64_MAX) return std::nullopt;
    return isNegative ? -static_cast<int64_t>(number) : static_cast<int64_t>(number);
}

// One file of a chip.
struct Sensor {
    const KindRow* kind;
    std::string label;
    UniqueFd fd;
    std::optional<int64_t> value;
};

struct ChipTask : SlowTask {
    explicit ChipTask(std::vector<Sensor> found) : sensors(std::move(found)) {}
    void Run() override {
        hasDevice = sensors.empty();
        for (Sensor& sensor : sensors) {
            sensor.value = ReadNumber(sensor.fd.Get());
            hasDevice = hasDevice || sensor.value || errno != ENODEV;
        }
    }
    std::vector<Sensor> sensors;
    bool hasDevice = true;  // false: the chip went
};

std::string LineOf(const std::string& path) {
    return std::string(Trim(ReadTextFile(path, 256).value_or("")));
}

std::vector<std::string> NamesIn(const std::string& path) {
    std::vector<std::string> names;
    DIR* const directory = opendir(path.c_str());
    if (directory == nullptr) return names;
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
    }
    closedir(directory);
    std::sort(names.begin(), names.end());
    return names;
}

// "nvme-nvme0": the driver, and the device, which tells several of a driver apart.
std::string ChipName(const std::string& path) {
    std::string name = LineOf(path + "/name");
    char target[PATH_MAX];
    const ssize_t size = readlink((path + "/device").c_str(), target, sizeof target);
    const std::string_view device(target, size > 0 ? static_cast<size_t>(size) : 0);
    if (!device.empty()) name += "-" + std::string(device.substr(device.rfind('/') + 1));
    return name;
}

// Whether the file SENSOR SUFFIX, "temp1" and "_input", has this kind of value; `directory` ends
// with a slash.
bool IsOfKind(const std::string& directory, const std::string& sensor, std::string_view suffix,
              const KindRow& kind) {
    if (!sensor.starts_with(kind.prefix)) return false;
    if (suffix == kind.suffixes[0]) return true;
    if (suffix.empty() || suffix != kind.suffixes[1]) return false;
    std::string better = directory + sensor;
    better += kind.suffixes[0];
    return access(better.c_str(), F_OK) != 0;
}

// Those of a chip, in the order of their files' names.
std::vector<Sensor> SensorsOf(const std::string& directory) {
    std::vector<Sensor> sensors;
    std::map<std::string, std::string> labels;  // by the sensor that has it
    for (const std::string& file : NamesIn(directory)) {
        const size_t end = std::min(file.find('_'), file.size());
        const std::string sensor = file.substr(0, end);
        for (const KindRow& kind : kKinds) {
            if (!IsOfKind(directory, sensor, std::string_view(file).substr(end), kind)) continue;
            UniqueFd fd(KeepHigh(open((directory + file).c_str(), O_RDONLY | O_CLOEXEC)));
            if (!fd.IsOpen()) continue;
            std::string label = LineOf(directory + sensor + "_label");
            if (label.empty()) label = sensor;
            // Two may have the same label.
            if (labels.try_emplace(label, sensor).first->second != sensor) label += " " + sensor;
            sensors.push_back({&kind, label, std::move(fd), std::nullopt});
        }
    }
    return sensors;
}

class Chip {
  public:
    explicit Chip(std::string_view directory)
        : name(directory),
          m_path(std::string(kDirectory) + "/" + name),
          m_chip(ChipName(m_path)),
          m_task(SensorsOf(m_path + "/")) {}

    void Start(SlowWorker& worker, int64_t now) { m_task.Start(worker, now); }
    void Collect(SeriesTable& table, int64_t now) {
        m_isOverdue = m_task.IsOverdue(now);
        if (m_isOverdue) Clear(table);
        if (!m_task.Take()) return;
        m_isGone = !m_task.Result().hasDevice;
        const auto& sensors = m_task.Result().sensors;
        m_series.resize(sensors.size());
        for (size_t i = 0; i < sensors.size(); ++i) {
            if (!sensors[i].value) {
                m_series[i].Clear(table);
                continue;
            }
            if (!m_series[i].IsAdded()) {
                m_series[i].Add(
                    table, sensors[i].kind->series,
                    SeriesLabel("chip", m_chip) + "," + SeriesLabel("sensor", sensors[i].label));
            }
            m_series[i].Set(table, static_cast<uint64_t>(*sensors[i].value));
        }
    }
    void AddNote(std::vector<std::string>& notes) const {
        if (m_isOverdue) notes.push_back(m_path + ": does not answer: no sensors of " + m_chip);
    }
    void Clear(SeriesTable& table) const {
        for (const LazySeries& series : m_series) series.Clear(table);
    }
    void Remove(SeriesTable& table) {
        for (LazySeries& series : m_series) series.Remove(table);
    }
    [[nodiscard]] bool IsGone() const { return m_isGone; }

    std::string name;  // "hwmon0"

  private:
    std::string m_path;
    std::string m_chip;
    PendingTask<ChipTask> m_task;
    std::vector<LazySeries> m_series;
    bool m_isOverdue = false;
    bool m_isGone = false;
};

class SensorSource : public SlowSource {
  public:
    void Start(SampleContext& context, SlowWorker& worker) override {
        // Another chip may have the number of one that went.
        m_chips.Drop(context.table, [](const Chip& chip) { return chip.IsGone(); });
        m_chips.Begin();
        for (const std::string& chip : NamesIn(kDirectory)) {
            m_chips.Next(chip).Start(worker, context.now);
        }
        m_chips.End(context.table);
    }
    void Collect(SampleContext& context) override {
        for (Chip& chip : m_chips.All()) chip.Collect(context.table, context.now);
    }
    void AddNotes(std::vector<std::string>& notes) const override {
        if (m_chips.All().empty()) {
            notes.push_back(std::string(kDirectory) + ": no chip: no temperatures, fans and power");
        }
        for (const Chip& chip : m_chips.All()) chip.AddNote(notes);
    }

  private:
    DeviceList<Chip> m_chips;
};

}  // namespace

void AddSensorSource(SlowSources& sources) {
    sources.push_back(std::make_unique<SensorSource>());
}
