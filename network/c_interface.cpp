// kemd/network.h, but for the watch.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "base/answer.h"
#include "network/ethtool_message.h"
#include "network/fields.h"
#include "network/network.h"

namespace {

// The name of a number in a set of names, or the number.
std::string NameOf(const NetworkFacts& facts, uint32_t set, size_t number) {
    const auto names = facts.names->find(set);
    const bool isNamed = names != facts.names->end() && number < names->second.size() &&
                         !names->second[number].empty();
    return isNamed ? names->second[number] : std::to_string(number);
}

uint32_t PartOfList(uint32_t list) {
    if (list >= KEMD_NETWORK_WAKE_MODES) return kWakePart;
    return list >= KEMD_NETWORK_FEATURES ? KEMD_NETWORK_SETTINGS : KEMD_NETWORK_LINK_SPEED;
}

// The number of the bit that is set at this position.
std::optional<size_t> BitAt(const NamedBits& bits, size_t position) {
    for (size_t bit = 0; bit < bits.words.size() * 32; ++bit) {
        if ((bits.words[bit / 32] >> bit % 32 & 1) == 0) continue;
        if (position-- == 0) return bit;
    }
    return std::nullopt;
}

// How many routes, addresses ... there are: `position` is beyond them, or the part was not asked
// for.
int Absent(const KemdNetworkInterface& interface, uint32_t part) {
    const int error = interface.PartError(part);
    return error != 0 ? error : ENOENT;
}

}  // namespace

int KemdNetworkOpen(KemdNetwork** network, int nameSpace) {
    if (network == nullptr) return EINVAL;
    *network = nullptr;
    return Guarded([&] {
        auto opened = std::make_unique<KemdNetwork>();
        const int error = opened->Open(nameSpace);
        if (error == 0) *network = opened.release();
        return error;
    });
}

void KemdNetworkClose(KemdNetwork* network) {
    delete network;
}

int KemdNetworkErrorText(const KemdNetwork* network, char* out, size_t* size) {
    if (network == nullptr) return EINVAL;
    return StoreText(network->ErrorText(), out, size);
}

int KemdNetworkTake(KemdNetwork* network, uint32_t parts, KemdNetworkSnapshot** snapshot) {
    if (network == nullptr || snapshot == nullptr) return EINVAL;
    *snapshot = nullptr;
    return Guarded([&] {
        auto taken = std::make_unique<KemdNetworkSnapshot>();
        const int error = network->Take(parts, *taken);
        if (error == 0) *snapshot = taken.release();
        return error;
    });
}

int KemdNetworkReadCounters(KemdNetwork* network, KemdNetworkOnCounters onCounters, void* user) {
    if (network == nullptr || onCounters == nullptr) return EINVAL;
    return Guarded([&] {
        const int error = network->ReadCounters();
        if (error != 0) return error;
        for (const KemdNetworkCounters& counters : network->Counters()) onCounters(user, &counters);
        return 0;
    });
}

void KemdNetworkRelease(KemdNetworkSnapshot* snapshot) {
    delete snapshot;
}

int KemdNetworkIsConsistent(const KemdNetworkSnapshot* snapshot) {
    return snapshot != nullptr && snapshot->isConsistent ? 1 : 0;
}

int KemdNetworkNote(const KemdNetworkSnapshot* snapshot, size_t position, char* out, size_t* size) {
    if (snapshot == nullptr) return EINVAL;
    if (position >= snapshot->notes.size()) return ENOENT;
    return StoreText(snapshot->notes[position], out, size);
}

const KemdNetworkInterface* KemdNetworkAt(const KemdNetworkSnapshot* snapshot, size_t position) {
    const bool isThere = snapshot != nullptr && position < snapshot->interfaces.size();
    return isThere ? snapshot->interfaces[position].get() : nullptr;
}

const KemdNetworkInterface* KemdNetworkByIndex(const KemdNetworkSnapshot* snapshot,
                                               uint64_t index) {
    return snapshot != nullptr ? snapshot->Find(index) : nullptr;
}

const KemdNetworkInterface* KemdNetworkByName(const KemdNetworkSnapshot* snapshot,
                                              const char* name) {
    return snapshot != nullptr && name != nullptr ? snapshot->FindName(name) : nullptr;
}

const KemdNetworkInterface* KemdNetworkMemberAt(const KemdNetworkSnapshot* snapshot,
                                                uint64_t master, size_t position) {
    if (snapshot == nullptr || master == 0) return nullptr;
    for (const auto& interface : snapshot->interfaces) {
        if (interface->Number(KEMD_NET_MASTER) == master && position-- == 0) return interface.get();
    }
    return nullptr;
}

int KemdNetworkNumber(const KemdNetworkInterface* interface, uint32_t field, uint64_t* value) {
    const FieldRow* row = FindField(field);
    if (interface == nullptr || value == nullptr || row == nullptr) return EINVAL;
    if (row->kind == KEMD_NETWORK_KIND_TEXT) return EINVAL;
    if (!interface->Has(field)) return interface->Reason(field);
    *value = interface->Number(field);
    return 0;
}

int KemdNetworkText(const KemdNetworkInterface* interface, uint32_t field, char* out,
                    size_t* size) {
    const FieldRow* row = FindField(field);
    if (interface == nullptr || row == nullptr) return EINVAL;
    if (!interface->Has(field)) return interface->Reason(field);
    if (row->kind == KEMD_NETWORK_KIND_TEXT) return StoreText(interface->Text(field), out, size);
    return Guarded([&] { return StoreText(ValueText(*row, interface->Number(field)), out, size); });
}

int KemdNetworkField(uint32_t field, KemdNetworkFieldInfo* info) {
    const FieldRow* row = FindField(field);
    if (row == nullptr) return ENOENT;
    return StoreRecord(KemdNetworkFieldInfo{0, row->kind, row->part, row->name, row->unit}, info);
}

int KemdNetworkListAt(const KemdNetworkInterface* interface, uint32_t list, size_t position,
                      char* out, size_t* size) {
    if (interface == nullptr || list > KEMD_NETWORK_SUPPORTED_WAKE_MODES) return EINVAL;
    if (list == KEMD_NETWORK_ALTERNATIVE_NAMES) {
        if (position >= interface->alternativeNames.size()) return ENOENT;
        return StoreText(interface->alternativeNames[position], out, size);
    }
    const NamedBits* bits = interface->Bits(list);
    if (bits == nullptr) {
        const int error = interface->PartError(PartOfList(list));
        return error != 0 ? error : EOPNOTSUPP;
    }
    const auto bit = BitAt(*bits, position);
    if (!bit) return ENOENT;
    return Guarded(
        [&] { return StoreText(NameOf(*interface->facts, bits->names, *bit), out, size); });
}

int KemdNetworkStatisticAt(const KemdNetworkInterface* interface, size_t position, char* out,
                           size_t* size, uint64_t* value) {
    if (interface == nullptr || value == nullptr) return EINVAL;
    if (position >= interface->statistics.size()) {
        return Absent(*interface, KEMD_NETWORK_STATISTICS);
    }
    const NamedCounter& counter = interface->statistics[position];
    *value = counter.value;
    return Guarded([&] {
        const std::string name = counter.text.empty()
                                     ? NameOf(*interface->facts, counter.names, counter.id)
                                     : counter.text;
        return StoreText(StatisticGroup(counter.names) + name, out, size);
    });
}

int KemdNetworkAddressAt(const KemdNetworkInterface* interface, size_t position,
                         KemdNetworkAddress* address) {
    if (interface == nullptr) return EINVAL;
    if (position >= interface->addresses.size()) {
        return Absent(*interface, KEMD_NETWORK_ADDRESSES);
    }
    return StoreRecord(interface->addresses[position], address);
}

int KemdNetworkRouteAt(const KemdNetworkSnapshot* snapshot, size_t position,
                       KemdNetworkRoute* route) {
    if (snapshot == nullptr) return EINVAL;
    if ((snapshot->facts->parts & KEMD_NETWORK_ROUTES) == 0) return ENODATA;
    if (position >= snapshot->routes.size()) return ENOENT;
    return StoreRecord(snapshot->routes[position], route);
}

int KemdNetworkVirtualFunctionAt(const KemdNetworkInterface* interface, size_t position,
                                 KemdNetworkVirtualFunction* function) {
    if (interface == nullptr) return EINVAL;
    if (position >= interface->functions.size()) return ENOENT;
    return StoreRecord(interface->functions[position], function);
}
