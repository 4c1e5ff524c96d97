#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>
#include <string_view>

#include "base/cancel_guard.h"
#include "base/file_io.h"
#include "base/line_reader.h"
#include "base/text.h"
#include "kemd/profile.h"
#include "services/profile/profile_lock.h"
#include "trace/debug.h"

namespace {

// A line that begins with its first visible character, without comment and white space behind.
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
        // Nearly every line of a large file is one of another section: nothing else is looked at.
        if (line.front() != '[' && !m_inSection) return true;
        line = WithoutComment(line);
        if (line.empty()) return true;
        return line.front() == '[' ? TakeHeader(line.substr(1)) : TakeEntry(line);
    }

    // Ends what was written; the number of characters, 0 when nothing was found.
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

    // Copies at most `limit` bytes to the position, and a NUL behind them when the buffer has room;
    // its last byte is NUL in every case. How many bytes were copied.
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
    out[size - 1] = '\0';  // as behind every other text
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

uint32_t GetPrivateProfileStringChecked(const char* section, const char* key,
                                        const char* defaultText, char* out, uint32_t size,
                                        const char* fileName) {
    if (out == nullptr || fileName == nullptr) return 0;
    return GetPrivateProfileString(section, key, defaultText, out, size, fileName);
}
