// kemdctl performance --html: one page that needs nothing but a browser. Its size is bounded: the
// whole time is in steps with minimum, mean and maximum, as fine as the limit allows; beside that
// are all samples of the minutes before important events, and of the last quarter of an hour.
#include <algorithm>
#include <array>
#include <charconv>
#include <numeric>
#include <utility>

#include "base/json.h"
#include "kemdctl/performance/command.h"
#include "kemdctl/performance/history.h"
#include "kemdctl/performance/html_events.h"
#include "kemdctl/performance/html_pack.h"
#include "kemdctl/performance/html_page.h"
#include "kemdctl/performance/selection.h"
#include "kemdctl/trace/time_word.h"
#include "kemdctl/ui/output_file.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr int64_t kHour = 60 * kMinute;
// More than any screen has pixels, to zoom in.
constexpr int64_t kMostSteps = 8640;
constexpr int64_t kLastSamples = 15 * kMinute;
constexpr int64_t kBeforeEvent = 4 * kMinute;
constexpr int64_t kAfterEvent = kMinute;
constexpr int64_t kMostFine = kHour;
constexpr size_t kMostBytes = size_t{8} << 20;
constexpr size_t kSeriesAtOnce = 32;  // bounds the memory of their points

constexpr int64_t kSteps[] = {kSecond,      2 * kSecond,  5 * kSecond, 10 * kSecond, 15 * kSecond,
                              30 * kSecond, kMinute,      2 * kMinute, 5 * kMinute,  10 * kMinute,
                              15 * kMinute, 30 * kMinute, kHour,       2 * kHour,    6 * kHour,
                              12 * kHour,   24 * kHour,   168 * kHour};

void AppendReal(std::string& to, double number) {
    std::array<char, 32> text{};
    to.append(text.data(), std::to_chars(text.begin(), text.end(), number).ptr);
}

// Of each processor the page shows only how busy it was: ten series of hundreds would be most of
// it.
bool IsShown(const SeriesInfo& info) {
    return !info.name.starts_with("core_") || info.name == "core_idle_seconds" ||
           info.name == "core_iowait_seconds" || info.name == "core_frequency_hertz";
}

class Page {
  public:
    Page(HistoryReader& reader, HistorySpan span, std::vector<uint32_t> series)
        : m_reader(reader), m_span(span), m_numbers(std::move(series)) {}

    void SetEvents(std::vector<PageEvent> events, std::vector<std::string> notes) {
        m_events = std::move(events);
        m_notes = std::move(notes);
    }
    void Pack();
    [[nodiscard]] bool Put(const FileSink& sink) const;

  private:
    void ChooseParts(int64_t step);
    void AddFineParts();
    void AddFinePart(int64_t from, int64_t to);
    void AlignParts();
    void PackAll();
    void PackSome(std::span<const uint32_t> numbers);
    void AppendSeries(const SeriesInfo& info, const PackedSeries& packed);
    [[nodiscard]] std::string Facts() const;
    [[nodiscard]] std::string Events() const;

    HistoryReader& m_reader;
    HistorySpan m_span;
    std::vector<uint32_t> m_numbers;
    std::vector<PageEvent> m_events;
    std::vector<std::string> m_notes;
    std::vector<PagePart> m_parts;
    std::string m_series;  // as JSON
};

// Of one sample each where that is few enough.
void Page::ChooseParts(int64_t step) {
    m_parts.clear();
    const bool isFine = step == m_reader.PeriodNs();
    const int64_t from = isFine ? m_span.from : m_span.from / step * step;
    const auto count = static_cast<uint32_t>((m_span.to - from + step - 1) / step);
    m_parts.push_back({from, step, count, isFine});
    if (!isFine) AddFineParts();
}

void Page::AddFineParts() {
    std::vector<std::pair<int64_t, int64_t>> wanted = {{m_span.to - kLastSamples, m_span.to}};
    int64_t left = kMostFine - kLastSamples;
    for (auto event = m_events.rbegin(); event != m_events.rend() && left > 0; ++event) {
        if (!event->isImportant) continue;
        wanted.emplace_back(event->wall - kBeforeEvent, event->wall + kAfterEvent);
        left -= kBeforeEvent + kAfterEvent;
    }
    std::sort(wanted.begin(), wanted.end());
    for (size_t i = 0; i < wanted.size();) {
        auto [from, to] = wanted[i];
        for (++i; i < wanted.size() && wanted[i].first <= to; ++i) {
            to = std::max(to, wanted[i].second);
        }
        AddFinePart(std::max(from, m_span.from), std::min(to, m_span.to));
    }
}

void Page::AddFinePart(int64_t from, int64_t to) {
    const int64_t period = m_reader.PeriodNs();
    if (from < to) {
        m_parts.push_back({from, period, static_cast<uint32_t>((to - from) / period) + 1, true});
    }
}

// The steps of a fine part are where the samples are.
void Page::AlignParts() {
    const size_t count = std::min(m_numbers.size(), kSeriesAtOnce);
    for (PagePart& part : m_parts) {
        if (!part.isFine) continue;
        const HistorySpan span = {part.from, part.from + 60 * part.step};
        std::vector<std::vector<HistoryPoint>> points;
        m_reader.Read({m_numbers.data(), count}, span, 0, points);
        for (const auto& each : points) {
            if (each.empty()) continue;
            part.from += (each.front().wall - part.from) % part.step;
            break;
        }
    }
}

void Page::Pack() {
    const int64_t period = std::max(m_reader.PeriodNs(), kNsPerMs);
    int64_t least = std::max(period, (m_span.to - m_span.from) / kMostSteps);
    if (least < 2 * period) least = period;
    for (;;) {
        const auto* const step = std::find_if(std::begin(kSteps), std::end(kSteps) - 1,
                                              [least](int64_t each) { return each >= least; });
        ChooseParts(least == period ? period : *step);
        AlignParts();
        PackAll();
        if (m_series.size() <= kMostBytes || step == std::end(kSteps) - 1) return;
        least = *step + 1;
    }
}

// Stops early when it is too much.
void Page::PackAll() {
    m_series.clear();
    for (size_t at = 0; at < m_numbers.size() && m_series.size() <= kMostBytes;
         at += kSeriesAtOnce) {
        const size_t count = std::min(m_numbers.size() - at, kSeriesAtOnce);
        PackSome({m_numbers.data() + at, count});
    }
}

void Page::PackSome(std::span<const uint32_t> numbers) {
    using Points = std::vector<HistoryPoint>;
    std::vector<std::vector<Points>> all(numbers.size(), std::vector<Points>(m_parts.size()));
    for (size_t part = 0; part < m_parts.size(); ++part) {
        const auto [from, step, count, isFine] = m_parts[part];
        const HistorySpan span = {std::max(from, m_span.from),
                                  std::min(from + count * step, m_span.to)};
        std::vector<Points> points;
        m_reader.Read(numbers, span, isFine ? 0 : step, points);
        for (size_t i = 0; i < numbers.size(); ++i) all[i][part] = std::move(points[i]);
    }
    for (size_t i = 0; i < numbers.size(); ++i) {
        const SeriesInfo& info = m_reader.Series()[numbers[i]];
        const PackedSeries packed = PackSeries(info, m_parts, all[i]);
        if (!packed.isEmpty) AppendSeries(info, packed);
    }
}

void Page::AppendSeries(const SeriesInfo& info, const PackedSeries& packed) {
    std::string text = m_series.empty() ? "\n[" : ",\n[";
    for (const std::string* each : {&info.name, &info.labels, &info.unit, &info.help}) {
        AppendJson(text, *each);
        text += ',';
    }
    text += info.kind == SeriesKind::kCounter ? "1," : "0,";
    text += packed.isLogarithmic ? "1" : "0";
    for (const double number : {packed.low, packed.quantum, packed.high}) {
        text += ',';
        AppendReal(text, number);
    }
    for (const std::string& part : packed.parts) text += ",\"" + part + "\"";
    m_series += InScript(text + "]");
}

std::string Page::Facts() const {
    const int64_t end = m_span.to / kNsPerMs;
    const int64_t zone = LocalTime(end) - end;
    std::array<char, 32> zoneName{};
    const int64_t minutes = std::abs(zone) / 60'000;
    std::snprintf(zoneName.data(), zoneName.size(), "UTC%c%02d:%02d", zone < 0 ? '-' : '+',
                  static_cast<int>(minutes / 60), static_cast<int>(minutes % 60));
    std::string text =
        "{\"host\":" + JsonQuoted(m_reader.Host()) +
        ",\"from\":" + std::to_string(m_span.from / kNsPerMs) + ",\"to\":" + std::to_string(end) +
        ",\"zone\":" + std::to_string(zone) + ",\"zoneName\":\"" + zoneName.data() +
        "\",\"period\":" + std::to_string(m_reader.PeriodNs() / kNsPerMs) + ",\"notes\":[";
    for (const std::string& note : m_notes) {
        text += (text.back() == '[' ? "" : ",") + JsonQuoted(note);
    }
    text += "],\"parts\":[";
    for (const PagePart& part : m_parts) {
        text += text.back() == '[' ? "[" : ",[";
        AppendReal(text, static_cast<double>(part.from) / kNsPerMs);
        text += ',';
        AppendReal(text, static_cast<double>(part.step) / kNsPerMs);
        text += "," + std::to_string(part.count) + (part.isFine ? ",true]" : ",false]");
    }
    return text + "]";
}

std::string Page::Events() const {
    std::string text = ",\"events\":[";
    for (const PageEvent& event : m_events) {
        text += text.back() == '[' ? "\n[" : ",\n[";
        text += std::to_string(event.wall / kNsPerMs) + ",\"" + event.kind + "\"," +
                std::to_string(event.value) + "," + JsonQuoted(event.text) + "]";
    }
    return text + "\n]";
}

bool Page::Put(const FileSink& sink) const {
    return sink(kPerformancePageBeforeData) && sink(InScript(Facts() + Events())) &&
           sink(",\"series\":[") && sink(m_series) && sink("\n]}") &&
           sink(kPerformancePageAfterData);
}

}  // namespace

int WritePage(const PerformanceOptions& options, ReportWriter& /*report*/) {
    if (options.step) {
        Complain("--step: not with --html, which chooses its steps");
        return kError;
    }
    const auto reader = OpenHistory(options);
    if (!reader) return kError;
    const auto span = ChooseSpan(options, *reader, true);
    auto series = ChooseSeries(reader->Series(), options.words);
    if (!span || !series) return kNo;
    if (options.words.empty()) {
        std::erase_if(*series, [&](uint32_t each) { return !IsShown(reader->Series()[each]); });
    }
    Page page(*reader, *span, std::move(*series));
    std::vector<std::string> notes = reader->Problems();
    if (!reader->Error().empty()) notes.push_back(reader->Error());
    std::vector<PageEvent> events = CollectEvents(options, *reader, *span, notes);
    page.SetEvents(std::move(events), std::move(notes));
    page.Pack();
    return WriteOutputFile(options.html, 0600,
                           [&page](const FileSink& sink) { return page.Put(sink); });
}
