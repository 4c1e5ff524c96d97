#include "network/ethtool.h"

#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>
#include <linux/genetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <map>
#include <string_view>

#include "network/attributes.h"
#include "network/ethtool_ioctl.h"
#include "network/ethtool_message.h"
#include "network/module_eeprom.h"

namespace {

struct NameSet {
    uint32_t id;
    uint32_t part;
};
constexpr NameSet kNameSets[] = {{ETH_SS_LINK_MODES, KEMD_NETWORK_LINK_SPEED},
                                 {ETH_SS_FEATURES, KEMD_NETWORK_SETTINGS},
                                 {ETH_SS_WOL_MODES, KEMD_NETWORK_SETTINGS},
                                 {ETH_SS_STATS_STD, KEMD_NETWORK_STATISTICS},
                                 {ETH_SS_STATS_ETH_PHY, KEMD_NETWORK_STATISTICS},
                                 {ETH_SS_STATS_ETH_MAC, KEMD_NETWORK_STATISTICS},
                                 {ETH_SS_STATS_ETH_CTRL, KEMD_NETWORK_STATISTICS},
                                 {ETH_SS_STATS_RMON, KEMD_NETWORK_STATISTICS}};
// The request's header is attribute 1 of each request but that for statistics.
constexpr uint16_t kHeader = 1;

void AddFamilyHeader(NetlinkRequest& request, uint8_t command) {
    genlmsghdr header{};
    header.cmd = command;
    header.version = ETHTOOL_GENL_VERSION;
    request.AddHeader(header);
}

// All standard groups, as a compact set.
void AddGroups(NetlinkRequest& request) {
    const uint32_t groups = (1U << __ETHTOOL_STATS_CNT) - 1;
    const size_t set = request.Begin(ETHTOOL_A_STATS_GROUPS);
    request.Add(ETHTOOL_A_BITSET_NOMASK, {});
    request.AddNumber(ETHTOOL_A_BITSET_SIZE, __ETHTOOL_STATS_CNT);
    request.Add(ETHTOOL_A_BITSET_VALUE, {reinterpret_cast<const char*>(&groups), sizeof groups});
    request.End(set);
}

// Kinds whose driver says the same for each, because none of them has a device of its own: with
// thousands of containers asking each would take longer than all else.
bool HasDriverOfKind(std::string_view kind) {
    constexpr std::string_view kKinds[] = {"veth",   "bridge", "vlan",  "macvlan", "macvtap",
                                           "ipvlan", "ipvtap", "vxlan", "dummy",   "tap"};
    return std::find(std::begin(kKinds), std::end(kKinds), kind) != std::end(kKinds);
}

// The same of the link's settings: this driver makes them up, and nobody can change them.
bool HasLinkOfKind(const KemdNetworkInterface& interface) {
    return interface.Text(KEMD_NET_KIND) == "veth";
}

uint32_t GroupOf(const Attributes& groups) {
    for (const Attribute& attribute : groups) {
        const Attributes group(attribute.bytes);
        if (group.Find(CTRL_ATTR_MCAST_GRP_NAME).Text() == ETHTOOL_MCGRP_MONITOR_NAME) {
            return static_cast<uint32_t>(group.Find(CTRL_ATTR_MCAST_GRP_ID).Number().value_or(0));
        }
    }
    return 0;
}

}  // namespace

int Ethtool::Open() {
    m_ioctl.Reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    // A kernel without IPv4 has the calls on other sockets too.
    if (!m_ioctl.IsOpen()) m_ioctl.Reset(socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int error = m_socket.Open(NETLINK_GENERIC);
    // A kernel or a container without generic netlink: the ioctl is left.
    if (error == EPROTONOSUPPORT || error == EACCES || error == EPERM) return 0;
    if (error != 0) return error;
    (void)FindFamily();
    return 0;
}

int Ethtool::FindFamily() {
    NetlinkRequest request = FamilyRequest("looking for ethtool", ETHTOOL_GENL_NAME);
    return m_socket.Ask(request, [this](const NetlinkMessage& message) {
        const Attributes attributes(AfterHeader(message.payload, sizeof(genlmsghdr)));
        m_family = static_cast<uint16_t>(attributes.Find(CTRL_ATTR_FAMILY_ID).Number().value_or(0));
        m_monitorGroup = GroupOf(Attributes(attributes.Find(CTRL_ATTR_MCAST_GROUPS).bytes));
    });
}

NetlinkRequest Ethtool::Request(const char* what, uint8_t command, uint16_t flags,
                                uint32_t index) const {
    NetlinkRequest request(what, m_family, flags);
    AddFamilyHeader(request, command);
    const bool isStatistics = command == ETHTOOL_MSG_STATS_GET;
    const size_t header = request.Begin(isStatistics ? uint16_t{ETHTOOL_A_STATS_HEADER} : kHeader);
    if (index != 0) request.AddNumber(ETHTOOL_A_HEADER_DEV_INDEX, index);
    request.AddNumber(ETHTOOL_A_HEADER_FLAGS, ETHTOOL_FLAG_COMPACT_BITSETS);
    request.End(header);
    if (isStatistics) AddGroups(request);
    return request;
}

const std::shared_ptr<const NameSets>& Ethtool::Names(uint32_t parts) {
    std::shared_ptr<NameSets> more;
    for (const auto& [id, part] : kNameSets) {
        if (m_family == 0 || (parts & part) == 0 || m_names->contains(id)) continue;
        // Snapshots that were taken before keep what they have.
        if (more == nullptr) more = std::make_shared<NameSets>(*m_names);
        ReadNames(id, *more);
    }
    if (more != nullptr) m_names = more;
    return m_names;
}

void Ethtool::ReadNames(uint32_t set, NameSets& names) {
    names[set];  // asked once, whatever the answer
    // One at a time: an older kernel refuses a request with a set that it does not know.
    NetlinkRequest request = Request("names", ETHTOOL_MSG_STRSET_GET, 0, 0);
    const size_t sets = request.Begin(ETHTOOL_A_STRSET_STRINGSETS);
    const size_t one = request.Begin(ETHTOOL_A_STRINGSETS_STRINGSET);
    request.AddNumber(ETHTOOL_A_STRINGSET_ID, set);
    request.End(one);
    request.End(sets);
    (void)m_socket.Ask(
        request, [&](const NetlinkMessage& message) { ReadNameSets(message.payload, names); });
}

void Ethtool::ReadAll(uint32_t parts, const KemdNetworkSnapshot& snapshot, const OnError& onError) {
    if ((parts & KEMD_NETWORK_SETTINGS) != 0) parts |= kWakePart;
    if (m_family == 0) return onError(kWakePart, "ethtool's netlink family", EOPNOTSUPP);
    for (const EthtoolQuery& query : kEthtoolQueries) {
        if ((parts & query.part) == 0 || ReadByKind(query, snapshot)) continue;
        NetlinkRequest request = Request(query.what, query.command, NLM_F_DUMP, 0);
        const int error = m_socket.Dump(
            request, [] {},
            [&](const NetlinkMessage& message) {
                KemdNetworkInterface* interface = snapshot.Find(EthtoolIndex(message.payload));
                if (interface != nullptr) ReadEthtool(query.command, message.payload, *interface);
            });
        if (error == 0) continue;
        if (error == EOPNOTSUPP || error == EPERM || error == EACCES || error == ETIMEDOUT) {
            onError(query.part, query.what, error);
            continue;
        }
        // A single driver that fails ends the kernel's dump for all after it.
        for (const auto& interface : snapshot.interfaces) AskOne(*interface, query);
    }
}

bool Ethtool::ReadByKind(const EthtoolQuery& query, const KemdNetworkSnapshot& snapshot) {
    const auto& all = snapshot.interfaces;
    const auto same = std::count_if(all.begin(), all.end(),
                                    [](const auto& each) { return HasLinkOfKind(*each); });
    constexpr size_t kDumpsCost = 4;  // as much less than asking each
    const size_t others = all.size() - static_cast<size_t>(same);
    if (query.command != ETHTOOL_MSG_LINKMODES_GET || others * kDumpsCost > all.size())
        return false;
    const KemdNetworkInterface* answered = nullptr;
    for (const auto& interface : all) {
        const bool isSame = HasLinkOfKind(*interface);
        if (isSame && answered != nullptr) {
            interface->CopyFields(*answered, KEMD_NET_SPEED, KEMD_NET_LANES);
            interface->CopyBits(*answered);
            continue;
        }
        AskOne(*interface, query);
        if (isSame && interface->Has(KEMD_NET_SPEED)) answered = interface.get();
    }
    return true;
}

void Ethtool::AskOne(KemdNetworkInterface& interface, const EthtoolQuery& query) {
    NetlinkRequest request = Request(query.what, query.command, 0, interface.Index());
    (void)m_socket.Ask(request, [&](const NetlinkMessage& message) {
        ReadEthtool(query.command, message.payload, interface);
    });
}

void Ethtool::ReadByIoctl(KemdNetworkInterface& interface, uint32_t parts) const {
    const EthtoolIoctl calls(m_ioctl.Get(), interface);
    if ((parts & KEMD_NETWORK_DRIVER) != 0) calls.ReadDriver();
    if (m_family != 0) return;
    if ((parts & (KEMD_NETWORK_HARDWARE | KEMD_NETWORK_LINK_SPEED)) != 0) calls.ReadLink();
    if ((parts & KEMD_NETWORK_SETTINGS) != 0) calls.ReadSettings();
}

void Ethtool::ReadAllByIoctl(uint32_t parts, const KemdNetworkSnapshot& snapshot) const {
    // By kind, the first whose driver answered.
    std::map<std::string, const KemdNetworkInterface*, std::less<>> answered;
    for (const auto& interface : snapshot.interfaces) {
        const auto known = answered.find(interface->Text(KEMD_NET_KIND));
        if (known != answered.end()) {
            interface->CopyFields(*known->second, KEMD_NET_BUS, KEMD_NET_FIRMWARE);
            ReadByIoctl(*interface, parts & ~KEMD_NETWORK_DRIVER);
            continue;
        }
        ReadByIoctl(*interface, parts);
        const std::string_view kind = interface->Text(KEMD_NET_KIND);
        if (interface->Has(KEMD_NET_DRIVER) && HasDriverOfKind(kind)) {
            answered.emplace(kind, interface.get());
        }
    }
}

void Ethtool::ReadOne(KemdNetworkInterface& interface, uint32_t parts) {
    ReadByIoctl(interface, parts);
    if ((parts & KEMD_NETWORK_SETTINGS) != 0) parts |= kWakePart;
    for (const EthtoolQuery& query : kEthtoolQueries) {
        if ((parts & query.part) != 0 && m_family != 0) AskOne(interface, query);
    }
    if ((parts & KEMD_NETWORK_MODULE) != 0) ReadModule(interface);
}

int Ethtool::ReadEeprom(uint32_t index, uint8_t page, uint32_t offset, uint32_t length,
                        std::string& bytes) {
    constexpr uint8_t kAddress = 0x50;
    NetlinkRequest request = Request("module", ETHTOOL_MSG_MODULE_EEPROM_GET, 0, index);
    request.AddNumber(ETHTOOL_A_MODULE_EEPROM_OFFSET, offset);
    request.AddNumber(ETHTOOL_A_MODULE_EEPROM_LENGTH, length);
    request.Add(ETHTOOL_A_MODULE_EEPROM_PAGE, {reinterpret_cast<const char*>(&page), 1});
    request.Add(ETHTOOL_A_MODULE_EEPROM_I2C_ADDRESS, {reinterpret_cast<const char*>(&kAddress), 1});
    const int error = m_socket.Ask(request, [&](const NetlinkMessage& message) {
        bytes = Attributes(AfterHeader(message.payload, sizeof(genlmsghdr)))
                    .Find(ETHTOOL_A_MODULE_EEPROM_DATA)
                    .bytes;
    });
    return error != 0 || bytes.size() == length ? error : EIO;
}

void Ethtool::ReadModule(KemdNetworkInterface& interface) {
    const ReadModuleBytes read = [&](uint8_t page, uint32_t offset, uint32_t length,
                                     std::string& bytes) {
        return m_family != 0 ? ReadEeprom(interface.Index(), page, offset, length, bytes)
                             : EOPNOTSUPP;
    };
    const int error = ReadModuleIdentity(read, interface);
    if (error == 0 || error == EOPNOTSUPP) return;
    for (uint32_t field = KEMD_NET_MODULE_TYPE; field <= KEMD_NET_MODULE_DATE; ++field) {
        interface.SetError(field, error);
    }
}
