#include "network/interface.h"

#include <algorithm>
#include <cerrno>

#include "network/fields.h"

KemdNetworkInterface::KemdNetworkInterface(std::shared_ptr<const NetworkFacts> shared)
    : facts(std::move(shared)) {
    constexpr size_t kUsualTexts = 8;
    m_texts.reserve(kUsualTexts);
}

void KemdNetworkInterface::Set(uint32_t field, uint64_t value) {
    m_numbers[field] = value;
    m_known.set(field);
}

void KemdNetworkInterface::SetText(uint32_t field, std::string_view text) {
    m_known.set(field);
    for (auto& [owner, stored] : m_texts) {
        if (owner != field) continue;
        stored = text;
        return;
    }
    m_texts.emplace_back(field, text);
}

void KemdNetworkInterface::SetError(uint32_t field, int error) {
    for (auto& [owner, stored] : m_errors) {
        if (owner != field) continue;
        stored = error;
        return;
    }
    m_errors.emplace_back(field, error);
}

const std::string& KemdNetworkInterface::Text(uint32_t field) const {
    static const auto& empty = *new std::string;  // also for a thread that outlives main
    if (!Has(field)) return empty;
    for (const auto& [owner, stored] : m_texts) {
        if (owner == field) return stored;
    }
    return empty;
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
           (m_numbers[field] == other.m_numbers[field] && Text(field) == other.Text(field));
}

void KemdNetworkInterface::KeepOthersOf(const KemdNetworkInterface& older) {
    for (uint32_t field = 0; field < KEMD_NET_FIELDS; ++field) {
        const FieldRow* row = FindField(field);
        if (row->part == 0 || !older.Has(field)) continue;
        if (row->kind == KEMD_NETWORK_KIND_TEXT) {
            SetText(field, older.Text(field));
        } else {
            Set(field, older.m_numbers[field]);
        }
    }
    bits = older.bits;
    addresses = older.addresses;
    statistics = older.statistics;
    m_errors = older.m_errors;
}
