#include "network/ethtool_ioctl.h"

#include <linux/ethtool.h>
#include <linux/if.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <utility>

#include "base/file_io.h"

namespace {

// "0000:02:00.0"
bool IsPciAddress(std::string_view text) {
    constexpr std::string_view kShape = "0000:00:00.0";
    return text.size() >= kShape.size() && text[text.size() - 2] == '.' &&
           text[text.size() - 5] == ':' && text[text.size() - 8] == ':';
}

template <size_t kSize>
std::string_view FixedText(const char (&text)[kSize]) {
    return {text, strnlen(text, kSize)};
}

}  // namespace

int EthtoolIoctl::Call(void* command) const {
    ifreq request{};
    const std::string_view name = m_interface.Text(KEMD_NET_NAME);
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    request.ifr_data = static_cast<char*>(command);
    return ioctl(m_fd, SIOCETHTOOL, &request) == 0 ? 0 : errno;
}

void EthtoolIoctl::ReadDriver() const {
    ethtool_drvinfo info{};
    info.cmd = ETHTOOL_GDRVINFO;
    const int error = Call(&info);
    if (error != 0) {
        if (error != EOPNOTSUPP) m_interface.SetError(KEMD_NET_DRIVER, error);
        return ReadNumaNode();
    }
    const auto set = [this](uint32_t field, std::string_view text) {
        if (!text.empty() && text != "N/A") m_interface.SetText(field, text);
    };
    set(KEMD_NET_DRIVER, FixedText(info.driver));
    set(KEMD_NET_DRIVER_VERSION, FixedText(info.version));
    set(KEMD_NET_FIRMWARE, FixedText(info.fw_version));
    // Of a virtio device netlink names the virtio bus, and this the PCI function.
    const std::string_view bus = FixedText(info.bus_info);
    if (IsPciAddress(bus)) set(KEMD_NET_BUS, "pci");
    if (IsPciAddress(bus) || !m_interface.Has(KEMD_NET_BUS_ADDRESS)) set(KEMD_NET_BUS_ADDRESS, bus);
    ReadNumaNode();
}

void EthtoolIoctl::ReadNumaNode() const {
    const std::string address(m_interface.Text(KEMD_NET_BUS_ADDRESS));
    if (!IsPciAddress(address) || address.find('/') != std::string::npos) return;
    const auto text = ReadTextFile("/sys/bus/pci/devices/" + address + "/numa_node");
    int node = -1;
    if (!text) return;
    std::from_chars(text->data(), text->data() + text->size(), node);
    if (node >= 0) m_interface.Set(KEMD_NET_NUMA_NODE, static_cast<uint64_t>(node));
}

void EthtoolIoctl::ReadLink() const {
    ethtool_value link{};
    link.cmd = ETHTOOL_GLINK;
    if (Call(&link) == 0) m_interface.Set(KEMD_NET_LINK_DETECTED, link.data != 0 ? 1 : 0);

    // The first call says how long the sets of modes are, which stand after the settings.
    constexpr size_t kMostWords = 127;
    constexpr size_t kHead = sizeof(ethtool_link_settings) / sizeof(__u32);
    std::array<__u32, kHead + 3 * kMostWords> answer{};
    ethtool_link_settings settings{};
    int words = 0;
    for (const bool isFirst : {true, false}) {
        settings = {};
        settings.cmd = ETHTOOL_GLINKSETTINGS;
        settings.link_mode_masks_nwords = static_cast<__s8>(words);
        std::memcpy(answer.data(), &settings, sizeof settings);
        if (Call(answer.data()) != 0) return;
        std::memcpy(&settings, answer.data(), sizeof settings);
        if (isFirst) words = -settings.link_mode_masks_nwords;
        if (words <= 0) return;
    }
    for (const uint32_t field : {KEMD_NET_SPEED, KEMD_NET_DUPLEX}) m_interface.Forget(field);
    if (settings.speed != static_cast<__u32>(SPEED_UNKNOWN)) {
        m_interface.Set(KEMD_NET_SPEED, settings.speed);
    }
    if (settings.duplex != DUPLEX_UNKNOWN) m_interface.Set(KEMD_NET_DUPLEX, settings.duplex);
    m_interface.Set(KEMD_NET_AUTO_NEGOTIATION, settings.autoneg);
    m_interface.Set(KEMD_NET_PORT, settings.port);
    m_interface.Set(KEMD_NET_PHY_ADDRESS, settings.phy_address);
    m_interface.Set(KEMD_NET_TRANSCEIVER, settings.transceiver);
    const __u32* first = answer.data() + kHead;
    for (const uint32_t list :
         {KEMD_NETWORK_SUPPORTED_MODES, KEMD_NETWORK_ADVERTISED_MODES, KEMD_NETWORK_PEER_MODES}) {
        m_interface.SetBits({list, ETH_SS_LINK_MODES, {first, first + words}});
        first += words;
    }
}

template <typename Command>
void EthtoolIoctl::Read(Command command, uint32_t number, const Settings<Command>& settings) const {
    command.cmd = number;
    if (Call(&command) != 0) return;
    for (const Setting<Command>& setting : settings) {
        // What the device does not have at all: netlink leaves it out.
        if (setting.most != nullptr && command.*setting.most == 0) continue;
        m_interface.Set(setting.field, command.*setting.value);
        if (setting.most != nullptr) m_interface.Set(setting.field + 1, command.*setting.most);
    }
}

void EthtoolIoctl::ReadSettings() const {
    using Pause = ethtool_pauseparam;
    using Rings = ethtool_ringparam;
    using Channels = ethtool_channels;
    Read(Pause{}, ETHTOOL_GPAUSEPARAM,
         Settings<Pause>{{KEMD_NET_PAUSE_AUTO, &Pause::autoneg, nullptr},
                         {KEMD_NET_PAUSE_RX, &Pause::rx_pause, nullptr},
                         {KEMD_NET_PAUSE_TX, &Pause::tx_pause, nullptr}});
    Read(Rings{}, ETHTOOL_GRINGPARAM,
         Settings<Rings>{
             {KEMD_NET_RING_RX, &Rings::rx_pending, &Rings::rx_max_pending},
             {KEMD_NET_RING_RX_MINI, &Rings::rx_mini_pending, &Rings::rx_mini_max_pending},
             {KEMD_NET_RING_RX_JUMBO, &Rings::rx_jumbo_pending, &Rings::rx_jumbo_max_pending},
             {KEMD_NET_RING_TX, &Rings::tx_pending, &Rings::tx_max_pending}});
    Read(Channels{}, ETHTOOL_GCHANNELS,
         Settings<Channels>{
             {KEMD_NET_CHANNELS_RX, &Channels::rx_count, &Channels::max_rx},
             {KEMD_NET_CHANNELS_TX, &Channels::tx_count, &Channels::max_tx},
             {KEMD_NET_CHANNELS_OTHER, &Channels::other_count, &Channels::max_other},
             {KEMD_NET_CHANNELS_COMBINED, &Channels::combined_count, &Channels::max_combined}});
}
