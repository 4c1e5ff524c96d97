// kemd/config.h: typed reads of one section of a profile file.
#include "services/module_config.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>

#include "base/text.h"
#include "kemd/config.h"
#include "kemd/profile.h"
#include "kemd/trace.h"
#include "services/profile_text.h"

struct KemdConfig {
    const char* file;
    const char* section;
    const char* module;
    const std::string_view* text;  // what the file holds; null: it is read
};

namespace {

// One value, read from the file.
class Value {
  public:
    Value(const KemdConfig* config, const char* key) : m_config(*config), m_key(key) {
        const auto size = static_cast<uint32_t>(m_buffer.size());
        const uint32_t length =
            config->text != nullptr
                ? ReadProfileText(*config->text, config->section, key, m_buffer.data(), size)
                : GetPrivateProfileString(config->section, key, nullptr, m_buffer.data(), size,
                                          config->file);
        m_text = Trim({m_buffer.data(), length});
        m_isCut = length + 1 == m_buffer.size();
    }

    // An empty value counts as none.
    [[nodiscard]] bool IsMissing() const { return m_text.empty(); }
    [[nodiscard]] bool IsCut() const { return m_isCut; }
    [[nodiscard]] std::string_view Text() const { return m_text; }
    int Refuse(int error, const char* allowed) const {
        KemdMessage(m_config.module, "%s: [%s] %s = %.*s%s: %s; the default is used", m_config.file,
                    m_config.section, m_key, static_cast<int>(m_text.size()), m_text.data(),
                    m_isCut ? "..." : "", allowed);
        return error;
    }

  private:
    const KemdConfig& m_config;
    const char* m_key;
    std::array<char, 512> m_buffer{};
    std::string_view m_text;
    bool m_isCut = false;
};

bool IsSame(std::string_view text, std::string_view word) {
    return text.size() == word.size() && strncasecmp(text.data(), word.data(), word.size()) == 0;
}

// The number that the text begins with, and what follows it.
bool TakeNumber(std::string_view& text, int64_t& number) {
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc()) return false;
    text = TrimStart({rest, static_cast<size_t>(end - rest)});
    return true;
}

// Milliseconds of a unit; 0: no such unit.
int64_t UnitMs(std::string_view unit) {
    if (unit.empty() || unit == "s") return 1000;
    if (unit == "ms") return 1;
    if (unit == "m") return int64_t{60} * 1000;
    if (unit == "h") return int64_t{3600} * 1000;
    if (unit == "d") return int64_t{24} * 3600 * 1000;
    return 0;
}

// Bytes of a unit; 0: no such unit.
int64_t UnitBytes(std::string_view unit) {
    if (unit.empty()) return 1;
    if (unit == "K") return int64_t{1} << 10;
    if (unit == "M") return int64_t{1} << 20;
    if (unit == "G") return int64_t{1} << 30;
    return 0;
}

// Reads a number with a unit; `unitOf` says how much the unit is.
bool TakeWithUnit(std::string_view text, int64_t& number, int64_t (*unitOf)(std::string_view)) {
    if (!TakeNumber(text, number)) return false;
    const int64_t unit = unitOf(text);
    if (unit == 0) return false;
    // What cannot be multiplied is out of every range.
    if (__builtin_mul_overflow(number, unit, &number)) number = INT64_MAX;
    return true;
}

// A number of the settings: what it may be, in words too, and what it is when it is missing.
struct Range {
    int64_t fallback;
    int64_t least;
    int64_t most;
    std::array<char, 128> allowed;
};

// `parse` makes a number of the text; false when it is none.
template <typename Parse>
int ReadRange(const KemdConfig* config, const char* key, const Range& range, int64_t* out,
              Parse parse) {
    if (config == nullptr || key == nullptr || out == nullptr) return EINVAL;
    *out = range.fallback;
    const Value value(config, key);
    if (value.IsMissing()) return 0;
    int64_t number = 0;
    if (!parse(value.Text(), number)) return value.Refuse(EINVAL, range.allowed.data());
    if (number < range.least || number > range.most) {
        return value.Refuse(ERANGE, range.allowed.data());
    }
    *out = number;
    return 0;
}

}  // namespace

int KemdConfigNumber(const KemdConfig* config, const char* key, int64_t fallback, int64_t least,
                     int64_t most, int64_t* out) {
    Range range{fallback, least, most, {}};
    std::snprintf(range.allowed.data(), range.allowed.size(),
                  "a number from %" PRId64 " to %" PRId64 " is needed", least, most);
    return ReadRange(config, key, range, out, [](std::string_view text, int64_t& number) {
        return TakeNumber(text, number) && text.empty();
    });
}

int KemdConfigTime(const KemdConfig* config, const char* key, int64_t fallbackMs, int64_t leastMs,
                   int64_t mostMs, int64_t* outMs) {
    Range range{fallbackMs, leastMs, mostMs, {}};
    std::snprintf(range.allowed.data(), range.allowed.size(),
                  "a time from %" PRId64 " ms to %" PRId64 " ms is needed (units ms, s, m, h, d)",
                  leastMs, mostMs);
    return ReadRange(config, key, range, outMs, [](std::string_view text, int64_t& number) {
        return TakeWithUnit(text, number, UnitMs);
    });
}

int KemdConfigSize(const KemdConfig* config, const char* key, int64_t fallback, int64_t least,
                   int64_t most, int64_t* out) {
    Range range{fallback, least, most, {}};
    std::snprintf(range.allowed.data(), range.allowed.size(),
                  "a size from %" PRId64 " to %" PRId64 " bytes is needed (units K, M, G)", least,
                  most);
    return ReadRange(config, key, range, out, [](std::string_view text, int64_t& number) {
        return TakeWithUnit(text, number, UnitBytes);
    });
}

int KemdConfigBool(const KemdConfig* config, const char* key, int fallback, int* out) {
    static constexpr std::array<const char*, 9> kWords = {"no",   "false", "off", "0",    "yes",
                                                          "true", "on",    "1",   nullptr};
    if (out == nullptr) return EINVAL;
    int index = 0;
    const int error = KemdConfigWord(config, key, fallback != 0 ? 4 : 0, kWords.data(), &index);
    *out = index >= 4 ? 1 : 0;
    return error;
}

int KemdConfigWord(const KemdConfig* config, const char* key, int fallback,
                   const char* const* words, int* out) {
    if (config == nullptr || key == nullptr || words == nullptr || out == nullptr) return EINVAL;
    *out = fallback;
    const Value value(config, key);
    if (value.IsMissing()) return 0;
    std::array<char, 256> allowed = {"one of these is needed:"};
    for (int i = 0; words[i] != nullptr; ++i) {
        if (IsSame(value.Text(), words[i])) {
            *out = i;
            return 0;
        }
        const size_t length = std::strlen(allowed.data());
        std::snprintf(allowed.data() + length, allowed.size() - length, " %s", words[i]);
    }
    return value.Refuse(EINVAL, allowed.data());
}

int KemdConfigText(const KemdConfig* config, const char* key, const char* fallback, char* out,
                   size_t size) {
    if (config == nullptr || key == nullptr || out == nullptr || size == 0) return EINVAL;
    const auto store = [&](std::string_view text) {
        const size_t length = text.copy(out, size - 1);
        out[length] = '\0';
        return length == text.size();
    };
    const auto storeFallback = [&] { return store(fallback != nullptr ? fallback : ""); };
    const Value value(config, key);
    if (value.IsMissing()) return storeFallback() ? 0 : ERANGE;
    if (!value.IsCut() && store(value.Text())) return 0;
    (void)storeFallback();
    std::array<char, 64> allowed{};
    std::snprintf(allowed.data(), allowed.size(), "at most %zu bytes are taken",
                  std::min(size, size_t{511}) - 1);
    return value.Refuse(ERANGE, allowed.data());
}

KemdConfig* KemdConfigOpen(const char* file, const char* section, const char* module) {
    return new (std::nothrow) KemdConfig{file, section, module, nullptr};
}

KemdConfig* OpenConfigText(const char* file, const char* section, const char* module,
                           const std::string_view& text) {
    return new (std::nothrow) KemdConfig{file, section, module, &text};
}

void KemdConfigClose(KemdConfig* config) {
    delete config;
}
