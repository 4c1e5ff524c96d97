#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "kemdctl/trace/stats_facts.h"
#include "kemdctl/ui/command.h"
#include "kemdctl/ui/text.h"
#include "trace_reader/record.h"
#include "trace_reader/trace_source.h"

namespace {

constexpr size_t kTop = 10;

// Whether the terminal is said to show UTF-8.
bool HasUnicode() {
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char* value = std::getenv(name);
        if (value == nullptr || *value == '\0') continue;
        const std::string_view locale(value);
        return locale.find("UTF-8") != locale.npos || locale.find("utf8") != locale.npos;
    }
    return false;
}

std::string Repeat(const char* text, uint64_t times) {
    std::string all;
    for (uint64_t i = 0; i < times; ++i) all += text;
    return all;
}

// A long silence takes one line.
void ShowSilence(int64_t steps, int64_t unit) {
    if (steps > 0) Write("  (nothing for " + DurationText(steps * unit) + ")\n");
}

void ShowBars(const TimeHistogram& histogram) {
    constexpr uint64_t kWidth = 40;
    const char* const block = HasUnicode() ? "\u2588" : "#";
    uint64_t highest = 1;
    for (const auto& [step, bar] : histogram.Bars()) highest = std::max(highest, bar.count);
    Write("\nrecords in each " + DurationText(histogram.Unit()) + "\n");
    int64_t next = histogram.Bars().begin()->first;
    for (const auto& [step, bar] : histogram.Bars()) {
        ShowSilence(step - next, histogram.Unit());
        next = step + 1;
        // Whatever is there is seen.
        const uint64_t width = std::max<uint64_t>(bar.count * kWidth / highest, 1);
        Write("  " + std::string(FormatTime(step * histogram.Unit()).data()) + "  " +
              Repeat(block, width) + " " + std::to_string(bar.count) + "\n");
    }
}

// One character for each step of time.
void ShowMemory(const TimeHistogram& histogram) {
    static constexpr const char* kAscii[] = {"_", ".", "-", "=", "+", "*", "%", "#"};
    static constexpr const char* kBlocks[] = {"\u2581", "\u2582", "\u2583", "\u2584",
                                              "\u2585", "\u2586", "\u2587", "\u2588"};
    int64_t low = INT64_MAX, high = -1;
    for (const auto& [step, bar] : histogram.Bars()) {
        if (bar.residentKb < 0) continue;
        low = std::min(low, bar.residentKb);
        high = std::max(high, bar.residentKb);
    }
    if (high < 0) return;
    std::string line;
    int64_t next = histogram.Bars().begin()->first;
    for (const auto& [step, bar] : histogram.Bars()) {
        line.append(static_cast<size_t>(step - next), ' ');
        next = step + 1;
        const double share = high == low ? 0
                                         : static_cast<double>(bar.residentKb - low) /
                                               static_cast<double>(high - low);
        const auto level = static_cast<size_t>(share * 7);
        line += bar.residentKb < 0 ? " " : HasUnicode() ? kBlocks[level] : kAscii[level];
    }
    Write("\nresident memory, " + std::to_string(low) + " to " + std::to_string(high) +
          " KB, highest in each " + DurationText(histogram.Unit()) + "\n  " + line + "\n");
}

void ShowTally(const char* title, const Tally& tally, uint64_t records) {
    Write(std::string("\n") + title + "\n");
    for (const auto& [text, count] : tally.Top(kTop)) {
        char line[64];
        std::snprintf(line, sizeof line, "  %9llu  %3u%%  ", static_cast<unsigned long long>(count),
                      static_cast<unsigned>(count * 100 / records));
        Write(line + (text.empty() ? "(none)" : Printable(text)) + "\n");
    }
    if (tally.LeftOut() == 0) return;
    Write("  not counted, as there are too many different ones: " +
          std::to_string(tally.LeftOut()) + " records\n");
}

void ShowGaps(const std::vector<TraceGap>& gaps) {
    if (gaps.empty()) return;
    Write("\nlongest gaps\n");
    for (const TraceGap& gap : gaps) {
        Write("  after " + std::string(FormatTime(gap.begin).data()) + "  " +
              DurationText(gap.length) + "\n");
    }
}

void ShowFiles(const TraceStats& stats, const TraceMerge& merge) {
    Write("\nfiles\n");
    for (size_t i = 0; i < merge.Sources().size(); ++i) {
        const TraceSource& source = *merge.Sources()[i];
        const SourceFacts& facts = source.Facts();
        Write("  " + Printable(source.Path()) + ": " + source.Describe() + "\n");
        const auto reach = ReachOf(stats.reach[i], source);
        if (!reach) continue;
        Write(std::string("    ") + (facts.cycle > 0 ? "reaches back " : "will reach back about ") +
              DurationText(*reach) + (facts.cycle > 0 ? "\n" : " once it is full\n"));
    }
}

}  // namespace

void ShowStats(const TraceStats& stats, const TraceMerge& merge) {
    if (stats.records == 0) {
        Write("records: none\n");
        return ShowFiles(stats, merge);
    }
    Write("records: " + std::to_string(stats.records) + ", " + FormatTime(stats.lowest).data() +
          " to " + FormatTime(stats.highest).data() + "\n");
    ShowBars(stats.histogram);
    ShowMemory(stats.histogram);
    ShowTally("busiest threads", stats.threads, stats.records);
    ShowTally("busiest tags", stats.tags, stats.records);
    ShowTally("most frequent texts, numbers as #", stats.texts, stats.records);
    ShowGaps(stats.gaps);
    ShowFiles(stats, merge);
}
