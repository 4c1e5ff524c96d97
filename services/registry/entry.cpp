#include "services/registry/entry.h"

#include <array>
#include <charconv>
#include <stdexcept>
#include <utility>

#include "base/line_reader.h"
#include "base/text.h"

std::string_view RegistryMarker(uint32_t type) {
    constexpr std::array<std::string_view, 5> kMarkers = {"", "=s=", "=es=", "=b=", "=d="};
    return type < kMarkers.size() ? kMarkers[type] : "";
}

// Whether the line of the file is the name, the marker, the data as they are, and a line feed.
static bool HasLine(uint32_t type) {
    return type == kRegistryString || type == kRegistryExpandString || type == kRegistryNumber;
}

RegistryEntry::RegistryEntry(std::string_view name, uint32_t type, std::string_view data)
    : m_bits(NameOrder(name) << kOrderShift | uint64_t{type} << kTypeShift) {
    const std::string_view marker = HasLine(type) ? RegistryMarker(type) : "";
    const std::string_view end = HasLine(type) ? "\n" : "";
    const size_t size = name.size() + marker.size() + data.size() + end.size();
    if (size > UINT32_MAX) throw std::length_error("registry entry");
    char* const block = new char[sizeof(Head) + size];
    m_block = block;
    const Head head{static_cast<uint32_t>(name.size()), static_cast<uint32_t>(size)};
    std::memcpy(block, &head, sizeof head);
    char* next = block + sizeof head;
    for (const std::string_view part : {name, marker, data, end}) {
        next += part.copy(next, part.size());
    }
}

static std::string_view Decimal(int32_t number, std::array<char, 12>& text) {
    const char* const end = std::to_chars(text.data(), text.data() + text.size(), number).ptr;
    return {text.data(), static_cast<size_t>(end - text.data())};
}

RegistryEntry::RegistryEntry(std::string_view name, int32_t number)
    : RegistryEntry(name, kRegistryNumber, [&] {
          std::array<char, 12> text{};
          return std::string(Decimal(number, text));
      }()) {}

RegistryEntry::RegistryEntry(std::string_view name, RegistryType type, std::string_view data)
    : RegistryEntry(name, uint32_t{type}, type == kRegistryBinary ? data : CutAtNul(data)) {}

RegistryEntry::RegistryEntry(std::string_view name, RegistryKey node)
    : RegistryEntry(name, uint32_t{kRegistrySubkey}, std::string_view()) {
    m_node = std::move(node);
}

void RegistryEntry::PackInto(char* place) {
    std::memcpy(place, m_block, PackedSize());
    if (!IsPacked()) delete[] m_block;
    m_block = place;
    m_bits |= 1;
}

void RegistryEntry::Unpack() {
    if (!IsPacked()) return;
    char* const block = new char[PackedSize()];
    std::memcpy(block, m_block, PackedSize());
    m_block = block;
    m_bits &= ~uint64_t{1};
}

int32_t RegistryEntry::Number() const {
    int32_t number = 0;
    if (Type() != kRegistryNumber) return number;
    const std::string_view text =
        Line().substr(Name().size() + RegistryMarker(kRegistryNumber).size());
    (void)std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

std::string_view RegistryEntry::Data() const {
    if (Type() == kRegistryBinary) return Line().substr(Name().size());
    if (Type() != kRegistryString && Type() != kRegistryExpandString) return {};
    const std::string_view line = Line();
    const size_t start = Name().size() + RegistryMarker(Type()).size();
    return line.substr(start, line.size() - start - 1);
}
