// The virtual functions in RTM_NEWLINK.
#include <arpa/inet.h>
#include <linux/if_link.h>

#include <algorithm>
#include <cstring>

#include "network/attributes.h"
#include "network/messages.h"

namespace {

using Function = KemdNetworkVirtualFunction;

// Settings that consist of the function's number and one value.
struct Setting {
    uint16_t attribute;
    int32_t Function::*member;
};
constexpr Setting kFunctionSettings[] = {{IFLA_VF_SPOOFCHK, &Function::isSpoofChecked},
                                         {IFLA_VF_LINK_STATE, &Function::linkState},
                                         {IFLA_VF_TRUST, &Function::isTrusted}};
struct Counter {
    uint16_t attribute;
    uint64_t Function::*member;
};
constexpr Counter kCounters[] = {{IFLA_VF_STATS_RX_PACKETS, &Function::rxPackets},
                                 {IFLA_VF_STATS_TX_PACKETS, &Function::txPackets},
                                 {IFLA_VF_STATS_RX_BYTES, &Function::rxBytes},
                                 {IFLA_VF_STATS_TX_BYTES, &Function::txBytes},
                                 {IFLA_VF_STATS_BROADCAST, &Function::broadcast},
                                 {IFLA_VF_STATS_MULTICAST, &Function::multicast},
                                 {IFLA_VF_STATS_RX_DROPPED, &Function::rxDropped},
                                 {IFLA_VF_STATS_TX_DROPPED, &Function::txDropped}};

void ReadCounters(Function& function, const Attributes& counters) {
    function.hasCounters = 1;
    for (const Attribute& attribute : counters) {
        for (const Counter& counter : kCounters) {
            if (counter.attribute != attribute.type) continue;
            function.*counter.member = attribute.Number().value_or(0);
        }
    }
}

void ReadVlans(Function& function, const Attributes& list) {
    const auto vlan = HeaderOf<ifla_vf_vlan_info>(list.Find(IFLA_VF_VLAN_INFO).bytes);
    if (!vlan) return;
    function.vlan = static_cast<int32_t>(vlan->vlan);
    function.vlanPriority = static_cast<int32_t>(vlan->qos);
    function.vlanProtocol = ntohs(vlan->vlan_proto);
}

void ReadAttribute(Function& function, const Attribute& attribute) {
    for (const Setting& setting : kFunctionSettings) {
        if (setting.attribute != attribute.type) continue;
        // All bits set: the driver does not say, which is -1 as well.
        const auto value = HeaderOf<ifla_vf_spoofchk>(attribute.bytes);
        if (value) function.*setting.member = static_cast<int32_t>(value->setting);
    }
    if (attribute.type == IFLA_VF_STATS) ReadCounters(function, Attributes(attribute.bytes));
    if (attribute.type == IFLA_VF_VLAN_LIST) ReadVlans(function, Attributes(attribute.bytes));
    if (attribute.type == IFLA_VF_RATE) {
        if (const auto rate = HeaderOf<ifla_vf_rate>(attribute.bytes)) {
            function.minRate = rate->min_tx_rate;
            function.maxRate = rate->max_tx_rate;
        }
    }
}

}  // namespace

std::vector<KemdNetworkVirtualFunction> ReadVirtualFunctions(std::string_view list,
                                                             size_t macLength) {
    std::vector<Function> functions;
    for (const Attribute& info : Attributes(list)) {
        const Attributes attributes(info.bytes);
        const auto mac = HeaderOf<ifla_vf_mac>(attributes.Find(IFLA_VF_MAC).bytes);
        if (info.type != IFLA_VF_INFO || !mac) continue;
        Function function{};
        function.size = sizeof function;
        function.number = mac->vf;
        std::memcpy(function.mac, mac->mac, sizeof function.mac);
        function.macLength = static_cast<uint32_t>(std::min(macLength, sizeof function.mac));
        function.vlan = function.vlanPriority = function.vlanProtocol = -1;
        function.minRate = function.maxRate = -1;
        function.linkState = function.isSpoofChecked = function.isTrusted = -1;
        for (const Attribute& attribute : attributes) ReadAttribute(function, attribute);
        functions.push_back(function);
    }
    return functions;
}
