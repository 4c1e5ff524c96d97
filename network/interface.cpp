#include "network/interface.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "network/fields.h"

namespace {

// In place of what the field had.
template <typename Stored, typename Value>
void Store(std::vector<std::pair<uint32_t, Stored>>& all, uint32_t field, Value value) {
    for (auto& [owner, stored] : all) {
        if (owner != field) continue;
        stored = value;
        return;
    }
    all.emplace_back(field, value);
}

struct TextHead {
    uint32_t field;
    uint32_t length;
};

// Where the field's head is; npos when the field has no text.
size_t FindText(std::string_view texts, uint32_t field) {
    TextHead head{};
    for (size_t at = 0; at < texts.size(); at += sizeof head + head.length + 1) {
        std::memcpy(&head, texts.data() + at, sizeof head);
        if (head.field == field) return at;
    }
    return std::string_view::npos;
}

std::string_view TextAt(std::string_view texts, size_t at) {
    TextHead head{};
    std::memcpy(&head, texts.data() + at, sizeof head);
    return texts.substr(at + sizeof head, head.length);
}

}  // namespace

KemdNetworkInterface::KemdNetworkInterface(std::shared_ptr<const NetworkFacts> shared)
    : facts(std::move(shared)) {
    constexpr size_t kUsualTexts = 128;
    m_texts.reserve(kUsualTexts);
}

void KemdNetworkInterface::SetRare(uint32_t field, uint64_t value) {
    Store(m_rareNumbers, field, value);
}

void KemdNetworkInterface::SetText(uint32_t field, std::string_view text) {
    const TextHead head = {field, static_cast<uint32_t>(text.size())};
    const size_t old = FindText(m_texts, field);
    if (old != std::string::npos) {
        m_texts.erase(old, sizeof head + TextAt(m_texts, old).size() + 1);
    }
    m_texts.append(reinterpret_cast<const char*>(&head), sizeof head).append(text) += '\0';
    m_known.set(field);
}

void KemdNetworkInterface::SetError(uint32_t field, int error) {
    Store(m_errors, field, error);
}

void KemdNetworkInterface::SetBits(NamedBits bits) {
    constexpr size_t kUsualLists = 3;  // of link modes
    ForgetBits(bits.list);
    if (m_bits == nullptr) {
        m_bits = std::make_shared<std::vector<NamedBits>>();
        m_bits->reserve(kUsualLists);
    } else if (m_bits.use_count() > 1) {
        m_bits = std::make_shared<std::vector<NamedBits>>(*m_bits);
    }
    m_bits->push_back(std::move(bits));
}

void KemdNetworkInterface::ForgetBits(uint32_t list) {
    if (Bits(list) == nullptr) return;
    auto others = std::make_shared<std::vector<NamedBits>>(*m_bits);
    std::erase_if(*others, [list](const NamedBits& bits) { return bits.list == list; });
    m_bits = std::move(others);
}

const NamedBits* KemdNetworkInterface::Bits(uint32_t list) const {
    if (m_bits == nullptr) return nullptr;
    for (const NamedBits& bits : *m_bits) {
        if (bits.list == list) return &bits;
    }
    return nullptr;
}

uint64_t KemdNetworkInterface::RareNumber(uint32_t field) const {
    for (const auto& [owner, stored] : m_rareNumbers) {
        if (owner == field) return stored;
    }
    return 0;
}

std::string_view KemdNetworkInterface::Text(uint32_t field) const {
    const size_t at = Has(field) ? FindText(m_texts, field) : std::string::npos;
    return at != std::string::npos ? TextAt(m_texts, at) : "";
}

int KemdNetworkInterface::PartError(uint32_t part) const {
    const uint32_t asked = part == kWakePart ? KEMD_NETWORK_SETTINGS : part;
    if ((facts->parts & asked) != asked) return ENODATA;
    const auto found = facts->errors.find(part);
    return found != facts->errors.end() ? found->second : 0;
}

int KemdNetworkInterface::Reason(uint32_t field) const {
    for (const auto& [owner, error] : m_errors) {
        if (owner == field) return error;
    }
    const int error = PartError(FindField(field)->part);
    return error != 0 ? error : EOPNOTSUPP;
}

bool KemdNetworkInterface::IsNamed(std::string_view name) const {
    return Text(KEMD_NET_NAME) == name ||
           std::find(alternativeNames.begin(), alternativeNames.end(), name) !=
               alternativeNames.end();
}

bool KemdNetworkInterface::Equals(const KemdNetworkInterface& other, uint32_t field) const {
    if (Has(field) != other.Has(field)) return false;
    return !Has(field) ||
           (Number(field) == other.Number(field) && Text(field) == other.Text(field));
}

void KemdNetworkInterface::CopyFields(const KemdNetworkInterface& from, uint32_t first,
                                      uint32_t last) {
    for (uint32_t field = first; field <= last; ++field) {
        if (!from.Has(field)) continue;
        if (FindField(field)->kind == KEMD_NETWORK_KIND_TEXT) {
            SetText(field, from.Text(field));
        } else {
            Set(field, from.Number(field));
        }
    }
}

void KemdNetworkInterface::KeepOthersOf(const KemdNetworkInterface& older) {
    for (uint32_t field = 0; field < KEMD_NET_FIELDS; ++field) {
        if (FindField(field)->part != 0) CopyFields(older, field, field);
    }
    m_bits = older.m_bits;
    addresses = older.addresses;
    statistics = older.statistics;
    m_errors = older.m_errors;
}
