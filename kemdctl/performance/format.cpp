#include "kemdctl/performance/format.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <utility>

#include "kemdctl/trace/time_word.h"
#include "trace_reader/record.h"

namespace {

// Three digits; whole numbers as they are.
std::string Digits(double number) {
    std::array<char, 32> text{};
    const double size = std::fabs(number);
    const char* format = "%.0f";
    if (size != std::round(size)) {
        format = size < 0.01 ? "%.1g" : size < 9.995 ? "%.2f" : size < 99.95 ? "%.1f" : "%.0f";
    }
    std::snprintf(text.data(), text.size(), format, number);
    return text.data();
}

std::string Scaled(double number, double base, std::span<const char* const> prefixes, double from) {
    size_t power = 0;
    if (std::fabs(number) >= from) {
        // 999.9 would be shown as 1000.
        while (power + 1 < prefixes.size() && std::fabs(number) >= base * 0.9995) {
            number /= base;
            ++power;
        }
    }
    return Digits(number) + prefixes[power];
}

}  // namespace

ValueFormat::ValueFormat(const SeriesInfo& info, size_t cores) : m_unit(info.unit) {
    const bool isRate = info.kind == SeriesKind::kCounter;
    if (isRate && info.unit == "seconds") {
        m_scale = Scale::kPercent;
        m_factor = 100.0;
        if (info.name.starts_with("cpu_") && cores > 0) m_factor /= static_cast<double>(cores);
        m_unit = "%";
        // Of all requests together: how many were waiting on average.
        if (info.name == "disk_queue_seconds") {
            m_scale = Scale::kPlain;
            m_factor = 1;
            m_unit.clear();
        }
        return;
    }
    constexpr std::pair<std::string_view, const char*> kSigns[] = {
        {"seconds", "s"}, {"celsius", "°C"}, {"hertz", "Hz"}, {"watts", "W"}, {"percent", "%"}};
    for (const auto& [name, sign] : kSigns) {
        if (m_unit == name) m_unit = sign;
    }
    if (info.unit == "bytes") m_scale = Scale::kBinary;
    if (info.unit == "hertz") m_scale = Scale::kDecimal;
    if (info.unit == "percent") m_scale = Scale::kPercent;
    if (isRate) m_unit += "/s";
}

std::string ValueFormat::Unit() const {
    return m_unit;
}

std::string ValueFormat::Text(double value) const {
    constexpr const char* kBinary[] = {" B", " KiB", " MiB", " GiB", " TiB", " PiB", " EiB"};
    constexpr const char* kHertz[] = {" ", " k", " M", " G", " T"};
    constexpr const char* kPlain[] = {"", "k", "M", "G", "T", "P", "E"};
    if (!std::isfinite(value)) return "-";
    const double number = value * m_factor;
    const double positive = number == 0 ? 0 : number;  // no "-0"
    switch (m_scale) {
        case Scale::kBinary:
            return Scaled(std::fabs(number) < 1024 ? std::round(positive) : number, 1024, kBinary,
                          1024) +
                   (m_unit.ends_with("/s") ? "/s" : "");
        case Scale::kDecimal:
            return Scaled(positive, 1000, kHertz, 1000) + m_unit;
        case Scale::kPercent: {
            const double rounded = std::round(positive * 10) / 10;
            std::array<char, 32> text{};
            std::snprintf(text.data(), text.size(), rounded < 100 ? "%.1f%%" : "%.0f%%", rounded);
            return text.data();
        }
        case Scale::kPlain:
            break;
    }
    const bool hasBlank = !m_unit.empty() && m_unit[0] != '/' && m_unit[0] != '%';
    return Scaled(positive, 1000, kPlain, 100'000) + (hasBlank ? " " : "") + m_unit;
}

double ValueFormat::RoundUp(double value) const {
    const double number = value * m_factor;
    if (!(number > 0)) return 0;
    const double base = m_scale == Scale::kBinary ? 1024 : 10;
    double unit = std::pow(base, std::floor(std::log(number) / std::log(base)));
    if (m_scale != Scale::kBinary) {
        for (const double step : {1, 2, 5, 10}) {
            if (step * unit >= number * (1 - 1e-9)) return step * unit / m_factor;
        }
    }
    while (unit < number * (1 - 1e-9)) unit *= 2;
    return unit / m_factor;
}

size_t CountCores(std::span<const SeriesInfo> series) {
    return static_cast<size_t>(
        std::count_if(series.begin(), series.end(),
                      [](const SeriesInfo& each) { return each.name == "core_user_seconds"; }));
}

std::vector<std::string> LabelValues(const SeriesInfo& info) {
    std::vector<std::string> values;
    const std::string& labels = info.labels;
    for (size_t i = labels.find('"'); i < labels.size(); i = labels.find('"', i + 1)) {
        std::string& value = values.emplace_back();
        for (++i; i < labels.size() && labels[i] != '"'; ++i) {
            const bool isEscaped = labels[i] == '\\' && i + 1 < labels.size();
            if (isEscaped) ++i;
            value += isEscaped && labels[i] == 'n' ? '\n' : labels[i];
        }
    }
    return values;
}

std::string ShortId(const SeriesInfo& info) {
    std::string id = info.name;
    for (const std::string& value : LabelValues(info)) id += '/' + value;
    return id;
}

std::string SpanText(int64_t nanoseconds) {
    constexpr std::pair<const char*, int64_t> kUnits[] = {
        {"d", 86'400'000}, {"h", 3'600'000}, {"m", 60'000}, {"s", 1000}, {"ms", 1}};
    int64_t left = nanoseconds / kNsPerMs;
    std::string text;
    for (const auto& [unit, length] : kUnits) {
        if (left >= length) text += std::to_string(left / length) + unit;
        left %= length;
    }
    return text.empty() ? "0s" : text;
}

std::string TimeText(int64_t wall) {
    const int64_t down = wall % kNsPerMs < 0 ? 1 : 0;
    return FormatTime(LocalTime(wall / kNsPerMs - down)).data();
}

std::string TimeText(int64_t wall, int64_t from, int64_t to, int64_t step) {
    constexpr size_t kDate = 10, kWithSeconds = 19;
    const bool isOneDay = TimeText(from).substr(0, kDate) == TimeText(to).substr(0, kDate);
    std::string text = TimeText(wall);
    if (step >= 1000 * kNsPerMs) text.resize(std::min(text.size(), kWithSeconds));
    return isOneDay ? text.substr(kDate + 1) : text;
}
