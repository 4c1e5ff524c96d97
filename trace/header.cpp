#include "trace/header.h"

#include <cstdlib>

#include "trace/texts.h"

namespace {

void TakeTable(NamedValue* entry) {
    for (; entry->name != nullptr; ++entry) {
        const char* value = std::getenv(entry->name);
        entry->value = value != nullptr ? CopyText(value) : nullptr;
    }
}

const char* OrNotSet(const char* value) {
    return value != nullptr ? value : "NotSet";
}

void EmitTable(const NamedValue* entry, const HeaderSink& line) {
    for (; entry->name != nullptr; ++entry) {
        line("\n%s=%s", entry->name, OrNotSet(entry->value.get()));
    }
}

void EmitValuesAsRead(const TraceValuesAsRead& read, const HeaderSink& line) {
    line("\n%s", trace_text::kValuesAsRead.data());
    for (const TraceSetting& setting : kTraceSettings) {
        if (setting.header == nullptr) continue;
        if (setting.number != nullptr) {
            line("\n%-27s: %d", setting.header, read.*setting.number);
        } else {
            line("\n%-27s: %s", setting.header, (read.*setting.path).Get());
        }
    }
}

void EmitSettingsInForce(const TraceValuesInForce& force, ShownInForce where,
                         const HeaderSink& line) {
    for (const TraceSetting& setting : kTraceSettings) {
        if (setting.shown == where) line("\n%-27s: %d", setting.shownAs, force.*setting.inForce);
    }
}

void EmitValuesInForce(const HeaderFacts& facts, const CDebugTraceConfig& config,
                       const HeaderSink& line) {
    const auto& force = config.InForce();
    line("\n%s", trace_text::kValuesInForce.data());
    line("\n%s%d", trace_text::kProcessId.data(), facts.processId);
    line("\nTrace Target               : %d", static_cast<int>(facts.target));
    line("\nTrace Level                : %d", static_cast<int>(config.TraceLevel()));
    line("\nTrace Level Saved          : %d", static_cast<int>(config.SavedTraceLevel()));
    line("\nApplication Init Done      : %d", facts.initDone ? 1 : 0);
    line("\nLogFile Path               : %s", facts.logPath);
    line("\nLogFile Max Size           : %d", static_cast<int>(facts.logLimit));
    line("\nRing Buffer FD             : %d", facts.ringDescriptor);
    EmitSettingsInForce(force, ShownInForce::kBeforeRingSize, line);
    line("\n%s%d", trace_text::kRingSize.data(), static_cast<int>(facts.ringSize));
    line("\nRing Buffer Directory      : %s", force.logDirectory.Get());
    line("\nRing Buffer Path           : %s", facts.ringPath);
    EmitSettingsInForce(force, ShownInForce::kAtEnd, line);
}

}  // namespace

void EnvironmentSnapshot::Take() {
    TakeTable(environment.data());
    TakeTable(configuration.data());
}

void HeaderSink::operator()(const char* format, ...) const {
    va_list args;
    va_start(args, format);
    m_writer(m_context, format, args);
    va_end(args);
}

void EmitCommandLine(const HeaderFacts& facts, const HeaderSink& line) {
    if (facts.argumentCount <= 0) return;
    line("\n%s%s", facts.moduleName, trace_text::kCommandLine.data());
    for (int i = 0; i < facts.argumentCount; ++i)
        line("\nargv[%d] = \"%s\"", i, facts.arguments[i]);
}

void EmitHeader(const HeaderFacts& facts, const CDebugTraceConfig& config, const HeaderSink& line) {
    EmitCommandLine(facts, line);
    line("\n%s", trace_text::kEnvironment.data());
    EmitTable(facts.environment.environment.data(), line);
    // Read at this moment, unlike the snapshot.
    const auto variable = config.RingWeightVariable();
    line("\n%s=%s", variable.Get(), OrNotSet(std::getenv(variable.Get())));
    line("\n%s", trace_text::kConfiguration.data());
    EmitTable(facts.environment.configuration.data(), line);
    EmitValuesAsRead(config.AsRead(), line);
    EmitValuesInForce(facts, config, line);
    line("\n%s", trace_text::kHeaderEnd.data());
}
