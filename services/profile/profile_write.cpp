#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <mutex>
#include <string>
#include <string_view>

#include "base/cancel_guard.h"
#include "base/file_io.h"
#include "base/line_reader.h"
#include "base/text.h"
#include "kemd/profile.h"
#include "services/profile/profile_lock.h"
#include "services/profile/splice.h"
#include "trace/debug.h"

namespace {

enum class Mode { kSet, kDeleteKey, kDeleteSection };

struct Request {
    Mode mode;
    std::string_view section;
    std::string_view key;
    std::string_view value;
    const char* fileName;
};

enum class Result { kFailed, kDone, kNotOpened };

// What the scan of a file finds to do.
struct Change {
    enum Kind { kNone, kReplace, kAppendEntry, kAppendSection } kind = kNone;
    off_t start = 0;  // kReplace: the bytes to replace
    off_t end = 0;
    bool afterLineFeed = false;  // kReplace: writes a line feed first
};

// Goes over the lines as the writer sees them: it is stricter than the reader and looks at the
// first column only.
class ChangeScan {
  public:
    explicit ChangeScan(const Request& request) : m_request(request) {}

    // One line and where it begins and ends; true when the change is known.
    bool Take(std::string_view line, off_t start, off_t end) {
        line = CutAtNul(line);
        if (line.empty()) return false;
        line.remove_suffix(1);  // the line feed, or whatever stands in its place
        if (line.empty() || line.front() == ';') return false;
        if (line.front() == '[') return TakeHeader(line.substr(1), start);
        return m_inSection && TakeEntry(line, start, end);
    }

    // The change; at the end of the file when no line has decided it.
    Change Finish(off_t fileEnd) {
        if (m_isKnown) return m_change;
        if (m_request.mode == Mode::kSet) {
            return {m_inSection ? Change::kAppendEntry : Change::kAppendSection};
        }
        if (m_request.mode == Mode::kDeleteSection && m_inSection) {
            return {Change::kReplace, m_header, fileEnd};
        }
        return {};
    }

  private:
    bool Decide(const Change& change) {
        m_change = change;
        m_isKnown = true;
        return true;
    }

    bool TakeHeader(std::string_view line, off_t start) {
        if (!m_inSection) {
            m_inSection = line.starts_with(m_request.section) &&
                          line.size() > m_request.section.size() &&
                          line[m_request.section.size()] == ']';
            m_header = start;
            return false;
        }
        switch (m_request.mode) {
            case Mode::kSet:
                return Decide({Change::kReplace, start, start});
            case Mode::kDeleteSection:
                return Decide({Change::kReplace, m_header, start});
            default:
                return Decide({});
        }
    }

    bool TakeEntry(std::string_view line, off_t start, off_t end) {
        ++m_entries;
        const size_t equals = line.find('=');
        if (equals == line.npos || m_request.mode == Mode::kDeleteSection) return false;
        line = line.substr(0, equals);
        if (line.substr(0, line.find_last_not_of(" \t") + 1) != m_request.key) return false;
        // Required: the first entry of a section gets an empty line above it, each time.
        return Decide({Change::kReplace, start, end, m_entries <= 1});
    }

    const Request& m_request;
    bool m_inSection = false;
    off_t m_header = 0;
    uint64_t m_entries = 0;
    bool m_isKnown = false;
    Change m_change;
};

std::string EntryText(const Request& request) {
    if (request.mode != Mode::kSet) return {};
    return std::string(request.key).append("=").append(request.value).append("\n");
}

// Some file systems report a failed write only here.
bool Close(UniqueFd& file) {
    return close(file.Release()) == 0;
}

Result Append(const Request& request, const std::string& text, bool mayCreate) {
    constexpr int kFlags = O_WRONLY | O_APPEND;
    UniqueFd file;
    if (mayCreate) file = OpenRegularFile(request.fileName, kFlags | O_CREAT | O_EXCL, 0644);
    const bool isNew = file.IsOpen();
    // Not exclusive: the name may be a link to a file that is still to be made.
    if (!isNew) file = OpenRegularFile(request.fileName, kFlags | (mayCreate ? O_CREAT : 0), 0644);
    if (!file.IsOpen()) {
        TRACE(1, "WritePrivateProfileString: ## WARNING: append open error: %s\n",
              request.fileName);
        return Result::kNotOpened;
    }
    if (mayCreate) (void)fchmod(file.Get(), 0644);  // whatever the process's mask is
    if (AppendToFile(file.Get(), text) && Close(file)) return Result::kDone;
    if (isNew) (void)unlink(request.fileName);
    return Result::kFailed;
}

Result AppendSection(const Request& request, bool mayCreate) {
    const std::string header = std::string("\n[").append(request.section).append("]\n\n");
    return Append(request, header + EntryText(request), mayCreate);
}

Result Write(const Request& request) try {
    UniqueFd file = OpenRegularFile(request.fileName, O_RDWR);
    if (!file.IsOpen()) {
        return request.mode == Mode::kSet ? AppendSection(request, true) : Result::kDone;
    }
    ChangeScan scan(request);
    LineReader lines(file.Get());
    std::string_view line;
    off_t start = 0;
    while (lines.Next(line) && !scan.Take(line, start, lines.Position())) start = lines.Position();
    // What cannot be read must not be taken for the end of the section.
    if (lines.HasFailed()) return Result::kFailed;

    const Change change = scan.Finish(lines.Position());
    const std::string text = (change.afterLineFeed ? "\n" : "") + EntryText(request);
    switch (change.kind) {
        case Change::kReplace:
            return SpliceFile(file.Get(), change.start, change.end, text) && Close(file)
                       ? Result::kDone
                       : Result::kFailed;
        case Change::kAppendEntry:
            file.Reset();
            return Append(request, text, false);
        case Change::kAppendSection:
            file.Reset();
            return AppendSection(request, false);
        default:
            return Result::kFailed;
    }
} catch (const std::exception&) {
    return Result::kFailed;
}

const char* OrNil(const char* text) {
    return text != nullptr ? text : "<nil>";
}

}  // namespace

bool WritePrivateProfileString(const char* section, const char* key, const char* value,
                               const char* fileName) {
    if (section == nullptr) {
        TRACE(4, "WritePrivateProfileString: ## WARNING: invalid pointer to AppName\n");
        return false;
    }
    if (fileName == nullptr) {
        TRACE(4, "WritePrivateProfileString: ## WARNING: invalid pointer to FileName\n");
        return false;
    }
    TRACE(4, "WritePrivateProfileString(%s, %s, %s, %s)\n", section, OrNil(key), OrNil(value),
          fileName);
    const CancelGuard guard;
    const std::unique_lock lock(g_profileLock.object);
    Request request{Mode::kSet, section, {}, {}, fileName};
    if (value != nullptr) request.value = value;
    if (value == nullptr) request.mode = Mode::kDeleteKey;
    if (key != nullptr) request.key = key;
    if (key == nullptr) request.mode = Mode::kDeleteSection;
    const Result result = Write(request);
    const bool done = result == Result::kDone;
    if (result != Result::kNotOpened) {
        TRACE(4, "WritePrivateProfileString rc=0x%04x\n", done ? 1U : 0U);
    }
    return done;
}
