// Writes real trace files and remembers every record, to compare with what is read back.
#pragma once

#include <memory>
#include <string>
#include <unordered_set>

#include "tests/trace/trace_world.h"
#include "trace_reader/trace_merge.h"

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
    // The run-time ring from its first record on.
    void StartRing() {
        written.clear();
        SetClock(kStart);
        Start(1);
        debug.InitDone();
        Note("### Start of initialization. ###");
    }
    // A command line of 6,000 characters, which the ring's next header has.
    void GrowHeader() {
        for (std::string& word : words) arguments.push_back(word.data());
        debug.SetCommandLine(static_cast<int>(words.size()), arguments.data());
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

    // Those of the written records that are whole in a file.
    [[nodiscard]] Lines Whole(const std::string& path) const {
        std::istringstream file(ReadFile(path));
        std::unordered_set<std::string> lines;
        for (std::string line; std::getline(file, line);) lines.insert(line);
        Lines whole;
        for (const std::string& record : written) {
            if (lines.contains(record.substr(0, record.find('\n')))) whole.push_back(record);
        }
        return whole;
    }
    static Lines Read(TraceSource& source) {
        Lines lines;
        for (TraceRecord record; source.Next(record);) lines.emplace_back(record.line);
        return lines;
    }
    static Lines Read(TraceMerge& merge) {
        Lines lines;
        for (TraceRecord record; merge.Next(record);) lines.emplace_back(record.line);
        return lines;
    }
    static Lines ReadPath(const std::string& path) {
        TraceSource source(path, 0);
        EXPECT_TRUE(source.Open()) << source.Facts().problem;
        return Read(source);
    }
    // Where two lists differ; empty: nowhere.
    static std::string Differ(const Lines& expected, const Lines& found) {
        const auto [a, b] =
            std::mismatch(expected.begin(), expected.end(), found.begin(), found.end());
        if (a == expected.end() && b == found.end()) return {};
        return "at " + std::to_string(a - expected.begin()) + " of " +
               std::to_string(expected.size()) + " and " + std::to_string(found.size()) +
               "\nexpected: " + (a == expected.end() ? "the end" : *a).substr(0, 200) +
               "\nfound:    " + (b == found.end() ? "the end" : *b).substr(0, 200);
    }
    Lines written;
    Lines words = Lines(60, std::string(100, 'a'));  // of the command line
    std::vector<char*> arguments;
};
