// What most kernels do not send: virtual functions, teams and plugged modules, as bytes.
#include <arpa/inet.h>
#include <linux/genetlink.h>
#include <linux/if_link.h>
#include <linux/if_team.h>
#include <linux/rtnetlink.h>

#include <cstring>

#include "network/messages.h"
#include "network/module_eeprom.h"
#include "network/team.h"
#include "network/view.h"
#include "tests/world.h"

namespace {

std::string Attr(uint16_t type, const std::string& bytes) {
    const rtattr header = {static_cast<uint16_t>(sizeof header + bytes.size()), type};
    std::string text(reinterpret_cast<const char*>(&header), sizeof header);
    text += bytes;
    text.resize(RTA_ALIGN(text.size()));
    return text;
}

template <typename T>
std::string Raw(const T& value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

TEST(NetworkMessageTest, VirtualFunctions) {
    ifla_vf_mac mac{};
    mac.vf = 1;
    memcpy(mac.mac, "\x02\x00\x00\x00\x00\x09", 6);
    const std::string whole =
        Attr(IFLA_VF_MAC, Raw(mac)) +
        Attr(IFLA_VF_VLAN_LIST,
             Attr(IFLA_VF_VLAN_INFO, Raw(ifla_vf_vlan_info{1, 100, 5, htons(0x88A8)}))) +
        Attr(IFLA_VF_RATE, Raw(ifla_vf_rate{1, 100, 1000})) +
        Attr(IFLA_VF_SPOOFCHK, Raw(ifla_vf_spoofchk{1, 1})) +
        Attr(IFLA_VF_TRUST, Raw(ifla_vf_trust{1, UINT32_MAX})) +
        Attr(IFLA_VF_STATS, Attr(IFLA_VF_STATS_TX_BYTES, Raw(uint64_t{1} << 40)));
    std::string list = Attr(IFLA_VF_INFO, whole);
    const size_t first = list.size();
    for (uint32_t i = 2; i < 129; ++i) {
        mac.vf = i;
        list += Attr(IFLA_VF_INFO, Attr(IFLA_VF_MAC, Raw(mac)));
    }
    const auto functions = ReadVirtualFunctions(list, 6);
    ASSERT_EQ(functions.size(), 128U);
    const KemdNetworkVirtualFunction& one = functions[0];
    EXPECT_TRUE(one.number == 1 && one.macLength == 6 && one.mac[5] == 9);
    EXPECT_TRUE(one.vlan == 100 && one.vlanPriority == 5 && one.vlanProtocol == 0x88A8);
    EXPECT_TRUE(one.minRate == 100 && one.maxRate == 1000 && one.isSpoofChecked == 1);
    EXPECT_TRUE(one.isTrusted == -1 && one.linkState == -1 && one.hasCounters == 1);
    EXPECT_EQ(one.txBytes, uint64_t{1} << 40);
    EXPECT_TRUE(functions[127].number == 128 && functions[127].vlan == -1);
    // Whatever is cut off, only what is whole is read.
    const size_t each = (list.size() - first) / 127;
    for (size_t size = 0; size < list.size(); size += 3) {
        const size_t expected = size < first ? 0 : 1 + (size - first) / each;
        EXPECT_EQ(ReadVirtualFunctions(std::string(list, 0, size), 6).size(), expected) << size;
    }
}

TEST(NetworkMessageTest, Teams) {
    KemdNetworkSnapshot snapshot;
    const auto facts = std::make_shared<NetworkFacts>();
    for (const uint32_t index : {1U, 2U, 3U}) {
        auto interface = std::make_shared<KemdNetworkInterface>(facts);
        interface->Set(KEMD_NET_INDEX, index);
        snapshot.Put(std::move(interface));
    }
    KemdNetworkInterface& team = *snapshot.Find(1);
    snapshot.Find(2)->Set(KEMD_NET_MASTER, 1);
    const auto option = [](const char* name, const std::string& rest) {
        return Attr(TEAM_ATTR_ITEM_OPTION, Attr(TEAM_ATTR_OPTION_NAME, name) + rest);
    };
    const auto port = [](uint32_t index) {
        return Attr(TEAM_ATTR_OPTION_PORT_IFINDEX, Raw(index));
    };
    const std::string options =
        option("mode", Attr(TEAM_ATTR_OPTION_DATA, "loadbalance")) +
        option("activeport", Attr(TEAM_ATTR_OPTION_DATA, Raw(uint32_t{2}))) +
        option("enabled", port(2) + Attr(TEAM_ATTR_OPTION_DATA, "")) +
        option("enabled", port(3) + Attr(TEAM_ATTR_OPTION_DATA, "")) + option("enabled", port(9));
    const std::string message =
        Raw(genlmsghdr{}) + Attr(TEAM_ATTR_LIST_OPTION, options) +
        Attr(TEAM_ATTR_LIST_PORT,
             Attr(TEAM_ATTR_ITEM_PORT, Attr(TEAM_ATTR_PORT_IFINDEX, Raw(uint32_t{2}))));
    for (size_t size = 0; size <= message.size(); ++size) {
        ReadTeam(std::string(message, 0, size), snapshot, team);
    }
    EXPECT_EQ(team.Text(KEMD_NET_TEAM_MODE), "loadbalance");
    EXPECT_EQ(team.Number(KEMD_NET_TEAM_ACTIVE), 2U);
    EXPECT_EQ(snapshot.Find(2)->Number(KEMD_NET_TEAM_MEMBER_ENABLED), 1U);
    EXPECT_TRUE(snapshot.Find(2)->Has(KEMD_NET_TEAM_MEMBER_LINK));
    EXPECT_EQ(snapshot.Find(2)->Number(KEMD_NET_TEAM_MEMBER_LINK), 0U);
    // Another interface than the team's is not touched.
    EXPECT_FALSE(snapshot.Find(3)->Has(KEMD_NET_TEAM_MEMBER_ENABLED));
}

TEST(NetworkMessageTest, ValuesTakeThePlaceOfOlderOnes) {
    KemdNetworkInterface interface(std::make_shared<NetworkFacts>());
    for (const uint64_t bytes :
         {uint64_t{1}, uint64_t{UINT32_MAX}, uint64_t{1} << 40, uint64_t{7}, UINT64_MAX}) {
        interface.Set(KEMD_NET_RX_BYTES, bytes);
        interface.Set(KEMD_NET_MTU, bytes);
        EXPECT_TRUE(interface.Number(KEMD_NET_RX_BYTES) == bytes &&
                    interface.Number(KEMD_NET_MTU) == bytes);
    }
    for (const std::string& name : {std::string("a"), std::string(300, 'b'), std::string()}) {
        interface.SetText(KEMD_NET_NAME, name);
        interface.SetText(KEMD_NET_QDISC, "q" + name);
        EXPECT_EQ(interface.Text(KEMD_NET_NAME).data(), name);  // with its NUL
        EXPECT_EQ(interface.Text(KEMD_NET_QDISC), "q" + name);
    }
    // Two that share their bits, until one changes.
    interface.SetBits({KEMD_NETWORK_SUPPORTED_MODES, 0, {1}});
    KemdNetworkInterface other(interface.facts);
    other.CopyBits(interface);
    other.SetBits({KEMD_NETWORK_PEER_MODES, 0, {2}});
    interface.ForgetBits(KEMD_NETWORK_SUPPORTED_MODES);
    EXPECT_TRUE(interface.Bits(KEMD_NETWORK_SUPPORTED_MODES) == nullptr &&
                interface.Bits(KEMD_NETWORK_PEER_MODES) == nullptr);
    EXPECT_TRUE(other.Bits(KEMD_NETWORK_SUPPORTED_MODES) != nullptr &&
                other.Bits(KEMD_NETWORK_PEER_MODES) != nullptr);
}

TEST(NetworkMessageTest, Modules) {
    const struct {
        unsigned char type;
        size_t connector, vendor, part, serial, date;
        const char* typeText;
    } layouts[] = {{0x03, 2, 20, 40, 68, 84, "SFP"},
                   {0x11, 130, 148, 168, 196, 212, "QSFP28"},
                   {0x18, 203, 129, 148, 166, 182, "QSFP-DD"}};
    for (const auto& layout : layouts) {
        std::string memory(256, '\0');
        memory[0] = static_cast<char>(layout.type);
        memory[layout.connector] = 0x07;
        memory.replace(layout.vendor, 16, "Example Optics  ");
        memory.replace(layout.part, 16, "EX-10G-SR       ");
        memory.replace(layout.serial, 16, "S123            ");
        memory.replace(layout.date, 8, "240131  ");
        KemdNetworkInterface interface(std::make_shared<NetworkFacts>());
        const ReadModuleBytes read = [&](uint8_t, uint32_t offset, uint32_t length,
                                         std::string& bytes) {
            bytes = memory.substr(offset, length);
            return 0;
        };
        ASSERT_EQ(ReadModuleIdentity(read, interface), 0);
        EXPECT_EQ(InterfaceView(&interface).TextOr(KEMD_NET_MODULE_TYPE), layout.typeText);
        EXPECT_EQ(interface.Text(KEMD_NET_MODULE_VENDOR), "Example Optics");
        EXPECT_EQ(interface.Text(KEMD_NET_MODULE_PART), "EX-10G-SR");
        EXPECT_EQ(interface.Text(KEMD_NET_MODULE_SERIAL), "S123");
        EXPECT_EQ(interface.Text(KEMD_NET_MODULE_DATE), "240131");
        EXPECT_EQ(interface.Number(KEMD_NET_MODULE_CONNECTOR), 7U);
        for (const int error : {EPERM, ENODEV}) {
            interface.SetError(KEMD_NET_DRIVER, error);
            EXPECT_EQ(interface.Reason(KEMD_NET_DRIVER), error);
        }
    }
}

}  // namespace
