#include "kemd/profile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>

#include "base/cancel_guard.h"
#include "base/file_io.h"
#include "base/line_reader.h"
#include "base/never_destroyed.h"
#include "base/text.h"
#include "services/profile_text.h"
#include "trace/debug.h"

namespace {

// Within the process a profile file is not read while one is written.
constinit NeverDestroyed<std::shared_mutex> g_profileLock;

// Takes a line without leading white space; removes its comment and trailing white space.
std::string_view WithoutComment(std::string_view line) {
    line = CutAtNul(line);
    return TrimEnd(line.substr(0, line.find(';')));
}

// One pass over the lines of a file, writing what was asked for into the caller's buffer.
class ProfileScan {
  public:
    // `size` is at least 2.
    ProfileScan(const char* section, const char* key, char* out, uint32_t size)
        : m_section(section != nullptr ? section : ""),
          m_key(key != nullptr ? key : ""),
          m_listsSections(section == nullptr),
          m_listsKeys(section != nullptr && key == nullptr),
          m_out(out),
          m_size(size) {}

    // False ends the pass.
    bool Take(std::string_view line) {
        if (m_position >= m_size - 2) return false;
        line = TrimStart(line);
        if (line.empty()) return true;
        // Nearly every line of a large file belongs to another section.
        if (line.front() != '[' && !m_inSection) return true;
        line = WithoutComment(line);
        if (line.empty()) return true;
        return line.front() == '[' ? TakeHeader(line.substr(1)) : TakeEntry(line);
    }

    // Terminates the text in the buffer. Returns its length, 0 when nothing was found.
    uint32_t Finish() {
        if (m_position == 0) return 0;
        if (m_position >= m_size) {
            m_position = m_size - 1;
            if (IsList()) {
                m_out[m_position] = '\0';
                m_position = m_size - 2;
            }
        }
        m_out[m_position] = '\0';
        return static_cast<uint32_t>(m_position);
    }

    [[nodiscard]] bool IsList() const { return m_listsSections || m_listsKeys; }

  private:
    bool TakeHeader(std::string_view line) {
        if (m_inSection) return false;
        if (m_listsSections) {
            const size_t end = line.find(']');
            if (end != line.npos) AddName(line.substr(0, end));
            return true;
        }
        m_inSection = line.starts_with(m_section) && line.size() > m_section.size() &&
                      line[m_section.size()] == ']';
        return true;
    }

    bool TakeEntry(std::string_view line) {
        const size_t equals = line.find('=');
        if (equals == line.npos) return true;
        const std::string_view key = TrimEnd(line.substr(0, equals));
        if (m_listsKeys) {
            AddName(key);
            return true;
        }
        if (key != m_key) return true;
        m_position = Copy(TrimStart(line.substr(equals + 1)), m_size);
        return false;
    }

    void AddName(std::string_view name) { m_position += Copy(name, m_size - 1 - m_position) + 1; }

    // Copies at most `limit` bytes to the position, and a NUL after them when there is room. The
    // buffer's last byte is always NUL. Returns how many bytes were copied.
    size_t Copy(std::string_view text, size_t limit) {
        const size_t length = text.copy(m_out + m_position, limit);
        if (m_position + length < m_size) m_out[m_position + length] = '\0';
        m_out[m_size - 1] = '\0';
        return length;
    }

    std::string_view m_section;
    std::string_view m_key;
    bool m_listsSections;
    bool m_listsKeys;
    bool m_inSection = false;
    char* m_out;
    size_t m_size;
    size_t m_position = 0;
};

uint32_t CopyDefault(const char* text, char* out, uint32_t size) {
    const size_t length = strnlen(text, size - 1);
    std::memmove(out, text, length);
    out[length] = '\0';
    out[size - 1] = '\0';  // as after every other text
    return static_cast<uint32_t>(length);
}

}  // namespace

uint32_t GetPrivateProfileString(const char* section, const char* key, const char* defaultText,
                                 char* out, uint32_t size, const char* fileName) {
    if (out == nullptr || size == 0) return 0;
    const CancelGuard guard;
    out[0] = '\0';
    const std::shared_lock lock(g_profileLock.object);
    const UniqueFd file = OpenRegularFile(fileName != nullptr ? fileName : "", O_RDONLY);
    if (!file.IsOpen()) {
        TRACE(4, "GetPrivateProfileString: Cannot open %s\n", fileName);
        if (section == nullptr || key == nullptr || defaultText == nullptr) return 0;
        return CopyDefault(defaultText, out, size);
    }
    if (size == 1) return 0;  // nothing fits
    ProfileScan scan(section, key, out, size);
    LineReader lines(file.Get());
    std::string_view line;
    while (lines.Next(line) && scan.Take(line)) {
    }
    const uint32_t length = scan.Finish();
    if (length != 0 || scan.IsList() || defaultText == nullptr) return length;
    return CopyDefault(defaultText, out, size);
}

uint32_t ReadProfileText(std::string_view text, const char* section, const char* key, char* out,
                         uint32_t size) {
    out[0] = '\0';
    ProfileScan scan(section, key, out, size);
    while (!text.empty()) {
        const size_t line = std::min({text.find('\n'), text.size() - 1, LineReader::kMaxLine - 1});
        if (!scan.Take(text.substr(0, line + 1))) break;
        text.remove_prefix(line + 1);
    }
    return scan.Finish();
}

uint32_t GetPrivateProfileStringChecked(const char* section, const char* key,
                                        const char* defaultText, char* out, uint32_t size,
                                        const char* fileName) {
    if (out == nullptr || fileName == nullptr) return 0;
    return GetPrivateProfileString(section, key, defaultText, out, size, fileName);
}

namespace {

bool ReadAt(int fd, std::string& text, off_t offset) {
    return ReadFullyAt(fd, text.data(), text.size(), offset).count == text.size();
}

// Puts `text` in the place of the bytes from `start` to `end`; what follows moves along. A change
// that cannot be written whole is taken back.
[[nodiscard]] bool SpliceFile(int fd, off_t start, off_t end, std::string_view text) try {
    struct stat status {};
    if (fstat(fd, &status) != 0 || start > end || end > status.st_size) return false;
    // From the start, not only from the end: a change that fails is taken back whole.
    std::string before(static_cast<size_t>(status.st_size - start), '\0');
    if (!ReadAt(fd, before, start)) return false;
    std::string after(text);
    after.append(before, static_cast<size_t>(end - start));
    if (WriteFullyAt(fd, after, start) &&
        ftruncate(fd, start + static_cast<off_t>(after.size())) == 0) {
        return true;
    }
    if (WriteFullyAt(fd, before, start)) (void)!ftruncate(fd, status.st_size);
    return false;
} catch (const std::exception&) {
    return false;
}

// The file is open for appending (O_APPEND): others may append to it at the same time.
[[nodiscard]] bool AppendToFile(int fd, std::string_view text) {
    size_t written = 0;
    if (WriteFully(fd, text, &written)) return true;
    // What was written is taken back, unless others have appended since.
    struct stat status {};
    const off_t end = lseek(fd, 0, SEEK_CUR);
    if (written > 0 && fstat(fd, &status) == 0 && status.st_size == end) {
        (void)!ftruncate(fd, end - static_cast<off_t>(written));
    }
    return false;
}

enum class Mode { kSet, kDeleteKey, kDeleteSection };

struct Request {
    Mode mode;
    std::string_view section;
    std::string_view key;
    std::string_view value;
    const char* fileName;
};

enum class Result { kFailed, kDone, kNotOpened };

// The change that a scan of the file asks for.
struct Change {
    enum Kind { kNone, kReplace, kAppendEntry, kAppendSection } kind = kNone;
    off_t start = 0;  // kReplace: the bytes to replace
    off_t end = 0;
    bool afterLineFeed = false;  // kReplace: writes a line feed first
};

// Scans the lines as the writer sees them: stricter than the reader, it looks at the first column
// only.
class ChangeScan {
  public:
    explicit ChangeScan(const Request& request) : m_request(request) {}

    // Takes one line and the offsets of its start and end. Returns true when the change is known.
    bool Take(std::string_view line, off_t start, off_t end) {
        line = CutAtNul(line);
        if (line.empty()) return false;
        line.remove_suffix(1);  // the line feed or, without one, the last character
        if (line.empty() || line.front() == ';') return false;
        if (line.front() == '[') return TakeHeader(line.substr(1), start);
        return m_inSection && TakeEntry(line, start, end);
    }

    // Returns the change; without a decision so far it happens at the end of the file.
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
        if (TrimEnd(line.substr(0, equals), " \t") != m_request.key) return false;
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
    // Not exclusive: the name may be a link to a file that does not exist yet.
    if (!isNew) file = OpenRegularFile(request.fileName, kFlags | (mayCreate ? O_CREAT : 0), 0644);
    if (!file.IsOpen()) {
        TRACE(1, "WritePrivateProfileString: ## WARNING: append open error: %s\n",
              request.fileName);
        return Result::kNotOpened;
    }
    if (mayCreate) (void)fchmod(file.Get(), 0644);  // regardless of the umask
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
