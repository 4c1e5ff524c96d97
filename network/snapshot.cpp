#include "network/snapshot.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

auto Place(const std::vector<std::shared_ptr<KemdNetworkInterface>>& interfaces, uint64_t index) {
    // Most often none has gone, and their indexes follow each other.
    const uint64_t first = interfaces.empty() ? 0 : interfaces.front()->Index();
    if (index >= first && index - first < interfaces.size()) {
        const auto guess = interfaces.begin() + static_cast<ptrdiff_t>(index - first);
        if ((*guess)->Index() == index) return guess;
    }
    return std::lower_bound(
        interfaces.begin(), interfaces.end(), index,
        [](const auto& interface, uint64_t wanted) { return interface->Index() < wanted; });
}

}  // namespace

KemdNetworkInterface* KemdNetworkSnapshot::Find(uint64_t index) const {
    const auto place = Place(interfaces, index);
    return place != interfaces.end() && (*place)->Index() == index ? place->get() : nullptr;
}

std::shared_ptr<KemdNetworkInterface> KemdNetworkSnapshot::Share(uint64_t index) const {
    const auto place = Place(interfaces, index);
    return place != interfaces.end() && (*place)->Index() == index ? *place : nullptr;
}

const KemdNetworkInterface* KemdNetworkSnapshot::FindName(std::string_view name) const {
    for (const auto& interface : interfaces) {
        if (interface->IsNamed(name)) return interface.get();
    }
    return nullptr;
}

void KemdNetworkSnapshot::Put(std::shared_ptr<KemdNetworkInterface> interface) {
    const auto place = Place(interfaces, interface->Index());
    if (place != interfaces.end() && (*place)->Index() == interface->Index()) {
        interfaces[static_cast<size_t>(place - interfaces.begin())] = std::move(interface);
    } else {
        interfaces.insert(place, std::move(interface));
    }
}

void KemdNetworkSnapshot::Remove(uint64_t index) {
    const auto place = Place(interfaces, index);
    if (place != interfaces.end() && (*place)->Index() == index) interfaces.erase(place);
}

void KemdNetworkSnapshot::NoteError(uint32_t part, const char* what, int error) {
    facts->errors.try_emplace(part, error);
    notes.push_back(std::string(what) + ": " + std::strerror(error));
}
