#include "services/registry/node.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "base/text.h"
#include "trace/debug.h"

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

RegistryKey::RegistryKey(CRegistryNode* node) : m_node(node) {
    if (node != nullptr) node->m_references.fetch_add(1, std::memory_order_relaxed);
}

void RegistryKey::Release() {
    if (m_node->m_references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete m_node;
}

RegistryEntries CRegistryNode::Empty() {
    const RecursiveLock lock(m_lock);
    m_isDeleted = true;
    ++m_generation;
    return {std::exchange(m_entries, {}), std::move(m_text)};
}

static void TraceDeleted(const RegistryEntry& entry) {
    if (entry.IsSubkey() && !entry.Node()) return;
    TRACE(2, "CRegistryNode::deleteNode \"%.*s\"\n", static_cast<int>(entry.Name().size()),
          entry.Name().data());
}

// With a list instead of recursion: a file decides how deep a tree is.
void CRegistryNode::DeleteEntries(RegistryEntries entries) {
    RegistryKey pending;
    const auto begin = [&pending](RegistryEntries& level) {
        for (RegistryEntry& entry : level.list) {
            TraceDeleted(entry);
            const RegistryKey node = entry.TakeNode();
            if (node) node->m_nextDeleted = std::exchange(pending, node);
        }
    };
    begin(entries);
    while (pending) {
        const RegistryKey node = pending;
        pending = std::exchange(node->m_nextDeleted, {});
        entries = node->Empty();
        begin(entries);
    }
}

// As strcmp. `order` is the name's.
static int Compare(const RegistryEntry& entry, std::string_view name, uint64_t order) {
    if (entry.Order() != order) return entry.Order() < order ? -1 : 1;
    return entry.Name().compare(name);
}

// Fetches the entries of a small key at once: the steps of a search would wait for one cache line
// after the other.
static void Prefetch(const std::vector<RegistryEntry>& entries) {
    constexpr size_t kLine = 64;
    constexpr size_t kMost = 8 * kLine;
    const auto* bytes = reinterpret_cast<const char*>(entries.data());
    const size_t size = std::min(entries.size() * sizeof(RegistryEntry), kMost);
    for (size_t offset = 0; offset < size; offset += kLine) __builtin_prefetch(bytes + offset);
}

LockedNode::Place LockedNode::Seek(std::string_view name) const {
    const auto& entries = m_node.m_entries;
    Prefetch(entries);
    const uint64_t order = NameOrder(name);
    size_t first = 0;
    size_t last = entries.size();
    while (first < last) {
        const size_t middle = (first + last) / 2;
        const int result = Compare(entries[middle], name, order);
        if (result == 0) return {middle, true};
        if (result < 0) {
            first = middle + 1;
        } else {
            last = middle;
        }
    }
    return {first, false};
}

const RegistryEntry* LockedNode::Find(std::string_view name) const {
    const Place place = Seek(name);
    return place.isTaken ? &m_node.m_entries[place.position] : nullptr;
}

RemovedEntry LockedNode::Put(RegistryEntry entry) {
    constexpr size_t kGrowth = 16;
    auto& entries = m_node.m_entries;
    const Place place = Seek(entry.Name());
    ++m_node.m_generation;
    if (place.isTaken) {
        return RemovedEntry(std::exchange(entries[place.position], std::move(entry)));
    }
    if (entries.size() == entries.capacity()) {
        entries.reserve(entries.size() + std::max(kGrowth, entries.size() / 2));
    }
    entries.insert(entries.begin() + static_cast<std::ptrdiff_t>(place.position), std::move(entry));
    return {};
}

std::vector<RemovedEntry> LockedNode::Merge(RegistryEntries entries) {
    std::vector<RemovedEntry> removed;
    if (m_node.m_entries.empty()) {
        ++m_node.m_generation;
        m_node.m_entries = std::move(entries.list);
        m_node.m_text = std::move(entries.text);
        return removed;
    }
    // All memory first: the entries are put together or not at all.
    removed.reserve(entries.list.size());
    m_node.m_entries.reserve(m_node.m_entries.size() + entries.list.size());
    for (RegistryEntry& entry : entries.list) entry.Unpack();
    for (RegistryEntry& entry : entries.list) removed.push_back(Put(std::move(entry)));
    return removed;
}

RemovedEntry LockedNode::Remove(std::string_view name) {
    const Place place = Seek(name);
    auto& entries = m_node.m_entries;
    if (!place.isTaken) return {};
    ++m_node.m_generation;
    RegistryEntry entry = std::move(entries[place.position]);
    entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(place.position));
    return RemovedEntry(std::move(entry));
}

int CompareNames(const RegistryEntry& a, const RegistryEntry& b) {
    return Compare(a, b.Name(), b.Order());
}
