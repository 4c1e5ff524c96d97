// Messages of the kernel: the first byte is 0 for those of rtnetlink, otherwise the command of
// ethtool's family that they answer (255: the memory of a module).
#include <linux/rtnetlink.h>

#include "network/difference.h"
#include "network/ethtool_message.h"
#include "network/messages.h"
#include "network/module_eeprom.h"
#include "network/netlink_socket.h"
#include "network/snapshot.h"
#include "network/team.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr uint8_t kModuleMemory = 255;

// All that a caller can read.
void ReadEverything(const KemdNetworkInterface& interface) {
    char text[64];
    for (uint32_t field = 0; field < KEMD_NET_FIELDS; ++field) {
        size_t size = sizeof text;
        const int error = KemdNetworkText(&interface, field, text, &size);
        Require(error != 0 || text[size - 1] == '\0', "a text without an end");
        uint64_t number = 0;
        (void)KemdNetworkNumber(&interface, field, &number);
    }
    for (uint32_t list = 0; list <= KEMD_NETWORK_SUPPORTED_WAKE_MODES; ++list) {
        int error = 0;
        for (size_t i = 0; i < 300 && (error == 0 || error == ERANGE); ++i) {
            size_t size = sizeof text;
            error = KemdNetworkListAt(&interface, list, i, text, &size);
        }
    }
    for (size_t i = 0; i < interface.statistics.size(); ++i) {
        size_t size = sizeof text;
        uint64_t value = 0;
        (void)KemdNetworkStatisticAt(&interface, i, text, &size, &value);
    }
    for (const auto& function : interface.functions) {
        Require(function.macLength <= sizeof function.mac, "an address longer than its room");
    }
    Require(Difference(&interface, &interface) == 0, "a difference from itself");
}

void TakeRtnetlink(const NetlinkMessage& message, KemdNetworkSnapshot& snapshot) {
    if (message.header.nlmsg_type == RTM_NEWLINK) {
        auto interface = ReadLink(message.payload, snapshot.facts);
        if (interface != nullptr) snapshot.Put(std::move(interface));
    } else if (message.header.nlmsg_type == RTM_NEWADDR) {
        const auto address = ReadAddress(message.payload);
        auto* interface = address ? snapshot.Find(address->interface) : nullptr;
        if (interface != nullptr) interface->addresses.push_back(address->address);
    } else if (message.header.nlmsg_type == RTM_NEWROUTE) {
        ReadRoutes(message.payload, snapshot.routes);
    }
}

void TakeModule(std::string_view memory) {
    KemdNetworkInterface interface(std::make_shared<NetworkFacts>());
    (void)ReadModuleIdentity(
        [&](uint8_t, uint32_t offset, uint32_t length, std::string& bytes) {
            bytes = memory.substr(std::min<size_t>(offset, memory.size()), length);
            return 0;
        },
        interface);
    ReadEverything(interface);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    // Of exactly this size, so that a byte beyond it is found.
    const std::vector<char> bytes(data + 1, data + size);
    const std::string_view input(bytes.data(), bytes.size());
    if (data[0] == kModuleMemory) TakeModule(input);
    KemdNetworkSnapshot snapshot;
    snapshot.facts = std::make_shared<NetworkFacts>();
    snapshot.facts->parts = KEMD_NETWORK_ALL;
    auto names = std::make_shared<NameSets>();
    snapshot.facts->names = names;
    ForEachMessage(input, [&](const NetlinkMessage& message) {
        if (data[0] == 0) {
            TakeRtnetlink(message, snapshot);
            return true;
        }
        ReadNameSets(message.payload, *names);
        auto interface = std::make_shared<KemdNetworkInterface>(snapshot.facts);
        interface->Set(KEMD_NET_INDEX, EthtoolIndex(message.payload));
        ReadEthtool(data[0], message.payload, *interface);
        snapshot.Put(interface);
        ReadTeam(message.payload, snapshot, *interface);
        return true;
    });
    uint64_t last = 0;
    for (const auto& interface : snapshot.interfaces) {
        Require(interface->Index() > last || snapshot.interfaces.front() == interface,
                "interfaces out of order");
        last = interface->Index();
        ReadEverything(*interface);
    }
    SortRoutes(snapshot.routes);
    Require(RouteDifferences(snapshot.routes, snapshot.routes).empty(), "routes that differ");
    return 0;
}
