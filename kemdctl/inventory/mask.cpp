#include "kemdctl/inventory/mask.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "inventory/host_inventory.h"

namespace {

// A shorter one is found only where it is a whole word: it could be part of any other.
constexpr size_t kShortestPart = 5;
// What is shorter still says nothing; the field itself is masked.
constexpr size_t kShortestWord = 3;

bool IsSign(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x80 && std::isalnum(byte) == 0;
}

// Letters and digits alone: the same address or number is written with other signs between them
// in an id, in the name of a port (enx525400123456) or of a mapped device (luks-...).
struct Folded {
    explicit Folded(std::string_view text) {
        for (size_t i = 0; i < text.size(); ++i) {
            if (IsSign(text[i])) continue;
            letters += static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
            positions.push_back(i);
        }
    }
    std::string letters;
    std::vector<size_t> positions;  // of each in the text
};

// "0x5000c500a1b2c3d4" and "naa.5000c500a1b2c3d4" are the same name.
std::string_view WithoutPrefix(std::string_view text) {
    for (const std::string_view prefix : {"0x", "naa.", "eui.", "uuid.", "t10."}) {
        if (text.starts_with(prefix)) return text.substr(prefix.size());
    }
    return text;
}

bool IsPrivate(const KemdInventoryItem::Value& value) {
    return (value.field.Info().flags & kPrivate) != 0;
}

class Mask {
  public:
    explicit Mask(const KemdInventory& inventory) {
        for (const KemdInventoryItem& item : inventory.items) {
            for (const auto& value : item.values) Learn(value);
        }
        // The longest first, as a part of it may be private too.
        std::stable_sort(m_parts.begin(), m_parts.end(), [](const Part& one, const Part& other) {
            return one.letters.size() > other.letters.size();
        });
    }

    void Apply(KemdInventoryItem& item) const {
        for (std::string* text : {&item.id, &item.name, &item.parent}) Apply(*text);
        for (auto& value : item.values) {
            if (IsPrivate(value)) {
                value.text = m_masks.at(Key(value.text));
            } else if (value.field.Info().kind == KEMD_INVENTORY_TEXT) {
                Apply(value.text);
            }
        }
    }
    void Apply(std::string& text) const {
        Folded folded(text);
        for (const Part& part : m_parts) Apply(part, folded, text);
    }

  private:
    struct Part {
        std::string letters;
        std::string mask;
    };
    static std::string Key(std::string_view text) {
        const std::string letters = Folded(WithoutPrefix(text)).letters;
        return letters.empty() ? std::string(text) : letters;
    }
    void Learn(const KemdInventoryItem::Value& value) {
        if (value.field == InventoryField("by_path")) return LearnNames(value.text);
        if (!IsPrivate(value)) return;
        LearnText(value.text);
        const size_t dot = value.text.find('.');
        // Other names are made of the host's own name, without its domain.
        if (value.field == InventoryField("host_name") && dot != value.text.npos) {
            LearnText(value.text.substr(0, dot));
        }
    }
    // The names of ports and expanders on the way to a drive: "...-sas-exp0x500605b0000272bf-..."
    void LearnNames(std::string_view path) {
        constexpr size_t kDigits = 16;
        for (size_t at = 0; (at = path.find("0x", at)) != path.npos; at += 2) {
            const std::string_view digits = path.substr(at + 2, kDigits);
            const bool isName = digits.size() == kDigits &&
                                digits.find_first_not_of("0123456789abcdef") == digits.npos;
            if (isName) LearnText(std::string(digits));
        }
    }
    void LearnText(const std::string& text) {
        std::string mask = "masked-" + std::to_string(m_masks.size() + 1);
        const auto [place, isNew] = m_masks.emplace(Key(text), std::move(mask));
        const std::string& letters = place->first;
        // "00000001" names nothing and would be found in addresses.
        const bool isNumber = letters.find_first_not_of(letters[0]) >= letters.size() - 1;
        if (isNew && letters.size() >= kShortestWord && !isNumber) {
            m_parts.push_back({letters, place->second});
        }
    }
    static bool Counts(const Part& part, std::string_view text, size_t begin, size_t end) {
        if (part.letters.size() >= kShortestPart) return true;
        return end - begin == part.letters.size() && (begin == 0 || IsSign(text[begin - 1])) &&
               (end == text.size() || IsSign(text[end]));
    }
    static void Apply(const Part& part, Folded& folded, std::string& text) {
        const size_t size = part.letters.size();
        for (size_t at = 0; (at = folded.letters.find(part.letters, at)) != std::string::npos;) {
            const size_t begin = folded.positions[at];
            const size_t end = folded.positions[at + size - 1] + 1;
            if (!Counts(part, text, begin, end)) {
                ++at;
                continue;
            }
            text.replace(begin, end - begin, part.mask);
            folded = Folded(text);
            at += Folded(part.mask).letters.size();
        }
    }

    std::map<std::string, std::string> m_masks;  // by their letters and digits
    std::vector<Part> m_parts;
};

}  // namespace

void MaskInventory(KemdInventory& inventory) {
    const Mask mask(inventory);
    for (KemdInventoryItem& item : inventory.items) mask.Apply(item);
    for (std::string& note : inventory.notes) mask.Apply(note);
    for (std::string& warning : inventory.warnings) mask.Apply(warning);
}
