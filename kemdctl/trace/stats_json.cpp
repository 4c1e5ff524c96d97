#include "kemdctl/trace/stats_facts.h"
#include "kemdctl/ui/json.h"
#include "trace_reader/record.h"

namespace {

void PutTime(JsonWriter& json, const char* key, int64_t time) {
    json.Key(key);
    json.Text(FormatTime(time).data());
}

void PutNumber(JsonWriter& json, const char* key, int64_t number) {
    json.Key(key);
    json.Number(number);
}

void PutTally(JsonWriter& json, const char* key, const Tally& tally) {
    constexpr size_t kTop = 10;
    json.Key(key);
    json.Open('[');
    for (const auto& [text, count] : tally.Top(kTop)) {
        json.Open('{');
        json.Key("text");
        json.Text(text);
        PutNumber(json, "count", static_cast<int64_t>(count));
        json.Close('}');
    }
    json.Close(']');
}

void PutBars(JsonWriter& json, const TimeHistogram& histogram) {
    PutNumber(json, "unit", histogram.Unit());
    json.Key("bars");
    json.Open('[');
    for (const auto& [step, bar] : histogram.Bars()) {
        json.Open('{');
        PutTime(json, "time", step * histogram.Unit());
        PutNumber(json, "count", static_cast<int64_t>(bar.count));
        if (bar.residentKb >= 0) PutNumber(json, "residentKb", bar.residentKb);
        json.Close('}');
    }
    json.Close(']');
}

void PutGaps(JsonWriter& json, const std::vector<TraceGap>& gaps) {
    json.Key("gaps");
    json.Open('[');
    for (const TraceGap& gap : gaps) {
        json.Open('{');
        PutTime(json, "begin", gap.begin);
        PutNumber(json, "milliseconds", gap.length);
        json.Close('}');
    }
    json.Close(']');
}

void PutFiles(JsonWriter& json, const TraceStats& stats, const TraceMerge& merge) {
    json.Key("files");
    json.Open('[');
    for (size_t i = 0; i < merge.Sources().size(); ++i) {
        const TraceSource& source = *merge.Sources()[i];
        const SourceFacts& facts = source.Facts();
        json.Open('{');
        json.Key("path");
        json.Text(source.Path());
        PutNumber(json, "records", static_cast<int64_t>(facts.records));
        PutNumber(json, "cycle", facts.cycle);
        if (const auto reach = ReachOf(stats.reach[i], source)) PutNumber(json, "reach", *reach);
        json.Close('}');
    }
    json.Close(']');
}

}  // namespace

void ShowStatsAsJson(const TraceStats& stats, const TraceMerge& merge) {
    JsonWriter json;
    json.Open('{');
    PutNumber(json, "records", static_cast<int64_t>(stats.records));
    if (stats.records > 0) {
        PutTime(json, "first", stats.lowest);
        PutTime(json, "last", stats.highest);
    }
    PutBars(json, stats.histogram);
    PutTally(json, "threads", stats.threads);
    PutTally(json, "tags", stats.tags);
    PutTally(json, "texts", stats.texts);
    PutGaps(json, stats.gaps);
    PutFiles(json, stats, merge);
    json.Close('}');
    json.Finish();
}
