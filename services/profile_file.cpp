#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

#include "base/cancel_guard.h"
#include "base/file_io.h"
#include "kemd/profile.h"

namespace {

constexpr uint32_t kStep = 1024;
constexpr uint32_t kLimit = 65536;

std::unique_ptr<char[]> Copy(const char* text) {
    const size_t size = std::strlen(text) + 1;
    std::unique_ptr<char[]> copy(new (std::nothrow) char[size]);
    if (copy) std::memcpy(copy.get(), text, size);
    return copy;
}

bool IsReadable(const char* path) {
    const CancelGuard guard;
    return OpenRegularFile(path, O_RDONLY).IsOpen();
}

}  // namespace

CProfileFile::CProfileFile() = default;
CProfileFile::~CProfileFile() = default;

bool CProfileFile::SetFileName(const char* path, bool mustExist) {
    m_isValid = false;
    // Copied before the old name is freed: `path` may be what GetFileName returned.
    m_fileName = path != nullptr ? Copy(path) : nullptr;
    m_isValid = m_fileName && (!mustExist || IsReadable(m_fileName.get()));
    return m_isValid;
}

bool CProfileFile::Check(bool mustExist) const {
    return m_isValid && m_fileName && (!mustExist || IsReadable(m_fileName.get()));
}

const char* CProfileFile::GetFileName() const {
    return m_fileName ? m_fileName.get() : "";
}

// Reads into a new buffer, because the arguments may point into the old one, and grows it until the
// text is whole. False without memory or when the text is too long; then the buffer is freed.
bool CProfileFile::Read(Buffer& buffer, const char* section, const char* key,
                        const char* defaultText) {
    for (uint32_t size = buffer.size != 0 ? buffer.size : kStep; size < kLimit; size += kStep) {
        std::unique_ptr<char[]> text(new (std::nothrow) char[size]);
        if (!text) break;
        const uint32_t length = GetPrivateProfileStringChecked(section, key, defaultText,
                                                               text.get(), size, m_fileName.get());
        if (length == size - 2 || length == size - 1) continue;
        buffer.text = std::move(text);
        buffer.size = size;
        return true;
    }
    buffer = {};
    return false;
}

uint32_t CProfileFile::GetUInt(const char* section, const char* key, uint32_t defaultValue) {
    if (!m_isValid || section == nullptr || key == nullptr) return defaultValue;
    std::array<char, 32> text{};
    const uint32_t length = GetPrivateProfileStringChecked(
        section, key, nullptr, text.data(), static_cast<uint32_t>(text.size()), m_fileName.get());
    if (length == 0) return defaultValue;
    return static_cast<uint32_t>(std::strtoul(text.data(), nullptr, 0));
}

bool CProfileFile::GetString(std::string& out, const char* section, const char* key,
                             const char* defaultText) try {
    if (!m_isValid) return false;
    const bool read = Read(m_value, section, key, defaultText);
    const char* const text = read ? m_value.text.get() : defaultText;
    out = text != nullptr ? text : "";
    return read;
} catch (const std::exception&) {
    return false;
}

const char* CProfileFile::GetValue(const char* section, const char* key, const char* defaultText) {
    if (!m_isValid || !Read(m_value, section, key, defaultText)) return defaultText;
    return m_value.text.get();
}

const char* CProfileFile::GetList(const char* section) {
    if (!m_isValid) return "";
    const bool read = Read(m_list, section, nullptr, "");
    m_cursor = read ? m_list.text.get() : nullptr;
    return read ? m_cursor : "";
}

const char* CProfileFile::NextEntry() {
    if (!m_isValid || m_cursor == nullptr) return "";
    if (*m_cursor != '\0') m_cursor += std::strlen(m_cursor) + 1;
    return m_cursor;
}

bool CProfileFile::AppendNames(std::vector<std::string>& names, const char* section) try {
    bool found = false;
    for (const char* name = GetList(section); *name != '\0'; name = NextEntry()) {
        names.emplace_back(name);
        found = true;
    }
    return found;
} catch (const std::exception&) {
    return false;
}

bool CProfileFile::GetSectionNames(std::vector<std::string>& names) {
    return AppendNames(names, nullptr);
}

bool CProfileFile::GetKeyNames(std::vector<std::string>& names, const char* section) {
    return section != nullptr && AppendNames(names, section);
}

bool CProfileFile::WriteString(const char* section, const char* key, const char* value) {
    return m_isValid && section != nullptr &&
           WritePrivateProfileString(section, key, value, m_fileName.get());
}

bool CProfileFile::WriteUInt(const char* section, const char* key, uint32_t number) {
    std::array<char, 31> text{};
    std::snprintf(text.data(), text.size(), "%u", number);
    return key != nullptr && WriteString(section, key, text.data());
}

bool CProfileFile::WriteInt(const char* section, const char* key, int32_t number) {
    std::array<char, 31> text{};
    std::snprintf(text.data(), text.size(), "%d", number);
    return key != nullptr && WriteString(section, key, text.data());
}

bool CProfileFile::DeleteSection(const char* section) {
    return m_isValid && WritePrivateProfileString(section, nullptr, nullptr, m_fileName.get());
}

bool CProfileFile::DeleteKey(const char* section, const char* key) {
    return m_isValid && WritePrivateProfileString(section, key, nullptr, m_fileName.get());
}

void CProfileFile::CopyEntries(const std::string& from, const std::string& to) {
    for (const char* key = GetList(from.c_str()); *key != '\0'; key = NextEntry()) {
        const char* value = GetValue(from.c_str(), key, "");
        WriteString(to.c_str(), key, value);
    }
}

bool CProfileFile::CopySection(const char* from, const char* to) try {
    // Passed as copies: the names may point into the list that CopyEntries reads again.
    if (m_isValid && from != nullptr && to != nullptr) CopyEntries(from, to);
    return m_isValid;
} catch (const std::exception&) {
    return m_isValid;
}

void CProfileFile::Flush() {
    if (m_isValid) WritePrivateProfileString(nullptr, nullptr, nullptr, m_fileName.get());
}
