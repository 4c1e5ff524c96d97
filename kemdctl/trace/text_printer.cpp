// Records as lines of text, for people: full and short.
#include <array>
#include <cstdio>
#include <string>
#include <string_view>

#include "kemdctl/trace/show_sink.h"
#include "kemdctl/ui/text.h"

namespace {

constexpr const char* kReset = "\x1b[0m";
constexpr const char* kDim = "\x1b[2m";
constexpr const char* kMark = "\x1b[1;7m";
constexpr const char* kErrorColor = "\x1b[31m";
constexpr const char* kWarning = "\x1b[33m";
// Looking for matches in more of a line would take long in a line that was made for that.
constexpr size_t kMarked = 4096;

bool IsTail(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80;
}

const char* Severity(std::string_view text) {
    const auto has = [text](std::string_view word) { return text.find(word) != text.npos; };
    if (has("ERROR") || has("FATAL")) return kErrorColor;
    return has("WARNING") ? kWarning : "";
}

class TextPrinter : public Printer {
  public:
    TextPrinter(const TraceOptions& options, Output& output)
        : m_output(output),
          m_marked(options.filter.wanted),
          m_isShort(options.form == Form::kShort),
          m_isPlain(!m_isShort && !output.IsForTerminal()) {}

    void Print(const TraceRecord& record, const Delta* delta) override {
        std::string& to = m_output.Text();
        if (delta != nullptr) PutDelta(*delta);
        if (m_isPlain) {
            to += record.line;
        } else {
            PutPrefix(record);
            PutText(record.text);
        }
        to += '\n';
        m_output.EndRecord();
    }

    void PrintGap(int64_t length) override {
        std::array<char, 64> text{};
        std::snprintf(text.data(), text.size(), "-- %.3f s without a record --",
                      static_cast<double>(length) / 1000);
        Paint(kDim, text.data());
        m_output.Text() += '\n';
        m_output.EndRecord();
    }

  private:
    void Paint(const char* color, std::string_view text) {
        const bool isPainted = m_output.HasColor() && *color != '\0';
        if (isPainted) m_output.Text() += color;
        m_output.Text() += text;
        if (isPainted) m_output.Text() += kReset;
    }

    void PutDelta(const Delta& delta) {
        std::array<char, 32> text{};
        if (delta) {
            std::snprintf(text.data(), text.size(), "%+11.3f ", static_cast<double>(*delta) / 1000);
        } else {
            std::snprintf(text.data(), text.size(), "%12s", "");
        }
        m_output.Text() += text.data();
    }

    // The line has one unless its text is all of it.
    void PutPrefix(const TraceRecord& record) {
        const size_t length = record.line.size() - record.text.size();
        if (length == 0) return;
        std::string prefix(record.line.substr(0, length));
        if (m_isShort) {
            prefix = prefix.substr(11, 12) + " " + std::string(record.tag) + " ";
            prefix.append(record.tag.size() < 13 ? 13 - record.tag.size() : 0, ' ');
        }
        Paint(kDim, Printable(prefix));
    }

    // The lines of a text stay lines.
    void PutText(std::string_view text) {
        const char* const color = Severity(text);
        for (size_t end = text.find('\n'); end != text.npos; end = text.find('\n')) {
            PutLine(text.substr(0, end), color);
            m_output.Text() += "\n    ";
            text.remove_prefix(end + 1);
        }
        PutLine(text, color);
    }

    void PutLine(std::string_view line, const char* color) {
        size_t done = 0;
        while (m_output.HasColor() && done < kMarked) {
            const Pattern::Place place = FindMark(line.substr(0, kMarked), done);
            if (place.end <= place.begin) break;
            Paint(color, Printable(line.substr(done, place.begin - done)));
            Paint(kMark, Printable(line.substr(place.begin, place.end - place.begin)));
            done = place.end;
        }
        Paint(color, Printable(line.substr(done)));
    }

    // The next match that is not empty, in whole characters.
    [[nodiscard]] Pattern::Place FindMark(std::string_view line, size_t from) const {
        Pattern::Place first = {line.size(), 0};
        for (const Pattern& pattern : m_marked) {
            Pattern::Place place = {from, from};
            while (place.begin < line.size() && pattern.Find(line, place.begin, place)) {
                if (place.end > place.begin) break;
                ++place.begin;
            }
            if (place.end > place.begin && place.begin < first.begin) first = place;
        }
        while (first.begin > from && first.begin < line.size() && IsTail(line[first.begin])) {
            --first.begin;
        }
        while (first.end > first.begin && first.end < line.size() && IsTail(line[first.end])) {
            ++first.end;
        }
        return first;
    }

    Output& m_output;
    const std::vector<Pattern>& m_marked;
    bool m_isShort;
    bool m_isPlain;
};

}  // namespace

std::unique_ptr<Printer> MakeTextPrinter(const TraceOptions& options, Output& output) {
    return std::make_unique<TextPrinter>(options, output);
}
