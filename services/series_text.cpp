#include "services/series_text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/utf8.h"

namespace {

constexpr size_t kMostLabels = 16;

struct Labels {
    std::array<KemdSeriesLabel, kMostLabels> list{};
    size_t count = 0;
};

bool IsLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool IsNamed(std::string_view name) {
    const auto isAllowed = [](char c) { return IsLetter(c) || (c >= '0' && c <= '9') || c == '_'; };
    return !name.empty() && (IsLetter(name[0]) || name[0] == '_') &&
           std::all_of(name.begin(), name.end(), isAllowed);
}

bool HasUnit(std::string_view name, std::string_view unit) {
    if (unit.empty()) return true;
    if (!name.ends_with(unit)) return false;
    name.remove_suffix(unit.size());
    return name.size() > 1 && name.back() == '_';
}

bool AreSound(uint32_t kind, std::string_view name, std::string_view unit, std::string_view help) {
    return kind <= KEMD_SERIES_REAL_GAUGE && IsNamed(name) && !name.ends_with("_total") &&
           !name.ends_with("_created") && HasUnit(name, unit) && IsPrintable(help);
}

// Sorted, each with another name.
bool AreSound(const Labels& labels) {
    std::string_view before;
    for (size_t i = 0; i < labels.count; ++i) {
        const std::string_view name = labels.list[i].name;
        if (!IsNamed(name) || name.starts_with("__") || name == "module" || name <= before ||
            !IsPrintable(labels.list[i].value)) {
            return false;
        }
        before = name;
    }
    return true;
}

int TakeLabels(const KemdSeriesLabel* label, Labels& labels) {
    for (; label != nullptr && label->name != nullptr; ++label) {
        if (label->value == nullptr) return EINVAL;
        if (labels.count == kMostLabels) return ENAMETOOLONG;
        labels.list[labels.count++] = *label;
    }
    std::sort(labels.list.begin(), labels.list.begin() + labels.count,
              [](const KemdSeriesLabel& a, const KemdSeriesLabel& b) {
                  return std::strcmp(a.name, b.name) < 0;
              });
    return AreSound(labels) ? 0 : EINVAL;
}

const char* OrEmpty(const char* text) {
    return text != nullptr ? text : "";
}

class Packer {
  public:
    explicit Packer(PackedSeries& packed) : m_packed(packed) { packed.fill('\0'); }
    void Add(std::string_view text) {
        if (text.size() >= m_packed.size() - m_used) {
            m_isFull = true;
            return;
        }
        text.copy(m_packed.data() + m_used, text.size());
        m_used += text.size() + 1;
    }
    // The last text is followed by an empty one, which is no label's name.
    [[nodiscard]] bool IsFull() const { return m_isFull || m_used == m_packed.size(); }

  private:
    PackedSeries& m_packed;
    size_t m_used = 0;
    bool m_isFull = false;
};

class Unpacker {
  public:
    explicit Unpacker(const PackedSeries& packed) : m_rest(packed.data(), packed.size() - 1) {}
    // Ends with a NUL: the last byte of all is one, which was checked.
    const char* Next() {
        const std::string_view text = m_rest.substr(0, m_rest.find('\0'));
        m_rest.remove_prefix(std::min(text.size() + 1, m_rest.size()));
        return text.data();
    }

  private:
    std::string_view m_rest;
};

template <size_t N>
void Copy(std::string_view text, char (&out)[N]) {
    out[text.copy(out, N - 1)] = '\0';
}

// Escaped, labels have at most twice the bytes of the packed texts, which fits with the module.
class LabelText {
  public:
    explicit LabelText(KemdSeriesInfo& info)
        : m_out(info.labels), m_end(m_out + sizeof info.labels - 1) {}
    void Add(std::string_view name, std::string_view value) {
        if (m_hasOne) Put(',');
        m_hasOne = true;
        for (const char c : name) Put(c);
        Put('=');
        Put('"');
        for (const char c : value) {
            if (c == '\\' || c == '"') Put('\\');
            Put(c);
        }
        Put('"');
        *m_out = '\0';
    }

  private:
    void Put(char c) {
        if (m_out < m_end) *m_out++ = c;
    }

    char* m_out;
    char* const m_end;
    bool m_hasOne = false;
};

}  // namespace

bool IsPrintable(std::string_view text) {
    while (!text.empty()) {
        const size_t length = Utf8Length(text);
        if (length == 0 || IsControl(CodePoint(text.substr(0, length)))) return false;
        text.remove_prefix(length);
    }
    return true;
}

int PackSeries(const KemdSeriesDescription& description, PackedSeries& packed) {
    if (description.size < sizeof description || description.name == nullptr) return EINVAL;
    const char* const unit = OrEmpty(description.unit);
    const char* const help = OrEmpty(description.help);
    if (!AreSound(description.kind, description.name, unit, help)) return EINVAL;
    Labels labels;
    if (const int error = TakeLabels(description.labels, labels)) return error;
    Packer packer(packed);
    packer.Add(description.name);
    packer.Add(unit);
    packer.Add(help);
    for (size_t i = 0; i < labels.count; ++i) {
        packer.Add(labels.list[i].name);
        packer.Add(labels.list[i].value);
    }
    return packer.IsFull() ? ENAMETOOLONG : 0;
}

bool UnpackSeries(const PackedSeries& packed, uint32_t kind, std::string_view module,
                  KemdSeriesInfo& info) {
    if (packed.back() != '\0') return false;
    Unpacker texts(packed);
    const char* const name = texts.Next();
    const char* const unit = texts.Next();
    const char* const help = texts.Next();
    Labels labels;
    for (const char* label = texts.Next(); *label != '\0'; label = texts.Next()) {
        if (labels.count == kMostLabels) return false;
        labels.list[labels.count++] = {label, texts.Next()};
    }
    if (!AreSound(kind, name, unit, help) || !AreSound(labels)) return false;
    info.kind = kind;
    Copy(module, info.module);
    Copy(name, info.name);
    Copy(unit, info.unit);
    Copy(help, info.help);
    LabelText text(info);
    text.Add("module", module);
    for (size_t i = 0; i < labels.count; ++i) text.Add(labels.list[i].name, labels.list[i].value);
    return true;
}

std::string_view PackedName(const PackedSeries& packed) {
    return packed.data();
}

std::string_view PackedUnit(const PackedSeries& packed) {
    return packed.data() + PackedName(packed).size() + 1;
}

std::string_view PackedLabels(const PackedSeries& packed) {
    const std::string_view unit = PackedUnit(packed);
    const std::string_view help = unit.data() + unit.size() + 1;
    const char* const labels = help.data() + help.size() + 1;
    const std::string_view rest(labels, static_cast<size_t>(packed.end() - labels));
    return rest.substr(0, rest.find_last_not_of('\0') + 1);
}
