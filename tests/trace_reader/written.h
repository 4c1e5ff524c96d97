// Writes real trace files and remembers every record, to compare with what is read back.
#pragma once

#include <memory>
#include <string>
#include <unordered_set>

#include "tests/trace/trace_world.h"
#include "trace_reader/trace_merge.h"

// A file that can be read.
struct OpenSource : TraceSource {
    explicit OpenSource(const std::string& path = kRuntimeRing) : TraceSource(path, 0) {
        EXPECT_TRUE(Open()) << Facts().problem;
    }
};

class ReaderTest : public TraceTest {
  protected:
    // Rings of 4 x weight and weight MiB, none with weight 0, and this limit of the log.
    void Start(int weight, size_t limit = 51200) {
        Configure(
            "FileDebugLevel=5\nRingBufferSizeFactor=1\nMemoryTracesFlag=0\n"
            "RingBufferSizeWeight=" +
            std::to_string(weight));
        setenv("OV_LOG_FILE_MAX_SIZE", std::to_string(limit).c_str(), 1);
        ASSERT_TRUE(debug.Init("kemd"));
    }
    void StartAgain(int weight, size_t limit = 51200) {
        written.clear();
        SetClock(kStart);
        Start(weight, limit);
    }
    // The run-time ring from its first record on.
    void StartRing() {
        StartAgain(1);
        debug.InitDone();
        Note("### Start of initialization. ###");
    }
    void Message(const std::string& text) {
        debug.Message("%s", text.c_str());
        Note(text);
    }
    void Trace(const std::string& text) {
        debug.Trace(5, "%s", text.c_str());
        Note(text);
    }
    // What the trace object writes by itself.
    void Note(const std::string& text) { written.push_back(Prefix() + text); }
    static std::string Padded(int number) {
        return std::to_string(number) + std::string(static_cast<size_t>(number * 7 % 41), '-');
    }
    // Records of seconds from `first` on, about 500 bytes each.
    void TraceMany(int first, int last) {
        for (int i = first; i < last; ++i) {
            SetClock(kStart + i);
            Trace(Padded(i) + std::string(400, 'x'));
        }
    }

    // Those of the written records that are whole in a file.
    [[nodiscard]] Lines Whole(const std::string& path = kRuntimeRing) const {
        std::istringstream file(ReadFile(path));
        std::unordered_set<std::string> lines;
        for (std::string line; std::getline(file, line);) lines.insert(line);
        Lines whole;
        for (const std::string& record : written) {
            if (lines.contains(record.substr(0, record.find('\n')))) whole.push_back(record);
        }
        return whole;
    }
    // The records of a source or a merge.
    template <typename Records>
    static Lines Read(Records&& records) {
        Lines lines;
        for (TraceRecord record; records.Next(record);) lines.emplace_back(record.line);
        return lines;
    }
    // Where two lists differ; empty: nowhere.
    static std::string Differ(const Lines& expected, const Lines& found) {
        const auto join = [](const Lines& lines) {
            std::string text;
            for (const std::string& line : lines) text += line + '\n';
            return text;
        };
        return expected == found ? "" : Difference(join(expected), join(found));
    }
    Lines written;
};
