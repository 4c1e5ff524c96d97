#include "kemdctl/inventory/mask.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "inventory/host_inventory.h"

namespace {

// Shorter ones would be found in words that say nothing private; the field itself is masked.
constexpr size_t kShortestPart = 5;

// An id may hold a text in lower case and with other signs for blanks.
char Folded(char c) {
    return c == ' ' || c == '_' ? '-'
                                : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

std::string Folded(std::string_view text) {
    std::string folded(text);
    std::transform(folded.begin(), folded.end(), folded.begin(), [](char c) { return Folded(c); });
    return folded;
}

class Mask {
  public:
    explicit Mask(const KemdInventory& inventory) {
        for (const KemdInventoryItem& item : inventory.items) {
            for (const auto& value : item.values) {
                if ((value.field.Info().flags & kPrivate) != 0) Learn(value.text);
            }
        }
        // The longest first, as a part of it may be private too.
        std::stable_sort(m_parts.begin(), m_parts.end(), [](const Part& one, const Part& other) {
            return one.text.size() > other.text.size();
        });
    }

    void Apply(KemdInventoryItem& item) const {
        for (std::string* text : {&item.id, &item.name, &item.parent}) Apply(*text);
        for (auto& value : item.values) {
            const InventoryFieldInfo& info = value.field.Info();
            if ((info.flags & kPrivate) != 0) {
                value.text = m_masks.at(Folded(value.text));
            } else if (info.kind == KEMD_INVENTORY_TEXT) {
                Apply(value.text);
            }
        }
    }
    void Apply(std::string& text) const {
        std::string folded = Folded(text);
        for (const Part& part : m_parts) {
            for (size_t at = 0; (at = folded.find(part.text, at)) != folded.npos;) {
                text.replace(at, part.text.size(), part.mask);
                folded.replace(at, part.text.size(), part.mask);
                at += part.mask.size();
            }
        }
    }

  private:
    struct Part {
        std::string text;  // folded
        std::string mask;
    };
    void Learn(const std::string& text) {
        std::string mask = "masked-" + std::to_string(m_masks.size() + 1);
        const auto [place, isNew] = m_masks.emplace(Folded(text), std::move(mask));
        if (isNew && text.size() >= kShortestPart) m_parts.push_back({place->first, place->second});
    }

    std::map<std::string, std::string> m_masks;
    std::vector<Part> m_parts;
};

}  // namespace

void MaskInventory(KemdInventory& inventory) {
    const Mask mask(inventory);
    for (KemdInventoryItem& item : inventory.items) mask.Apply(item);
    for (std::string& note : inventory.notes) mask.Apply(note);
    for (std::string& warning : inventory.warnings) mask.Apply(warning);
}
