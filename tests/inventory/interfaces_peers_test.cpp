// Network interfaces beside lshw and ethtool.
#include <map>
#include <sstream>

#include "inventory/host_inventory.h"
#include "inventory/pci_function.h"
#include "inventory/sources.h"
#include "inventory/sys_directory.h"
#include "tests/inventory/peers.h"

namespace {

// By name; of ports that no hardware has, none.
std::map<std::string, const KemdInventoryItem*> ByName(const KemdInventory& inventory) {
    std::map<std::string, const KemdInventoryItem*> items;
    for (const KemdInventoryItem& item : inventory.items) items[item.name] = &item;
    return items;
}

}  // namespace

TEST(InterfacesPeersTest, LshwKnowsTheSameAddressesAndDrivers) {
    NEED_PEER("lshw");
    KemdInventory inventory;
    ScanInterfaces(inventory);
    const auto items = ByName(inventory);
    if (items.empty()) GTEST_SKIP() << "no network hardware on this machine";
    size_t compared = 0;
    const JsonValue list = PeerJson("lshw -json -quiet -class network");
    for (const JsonValue& node : list.elements) {
        const auto found = items.find(std::string(node.TextOf("logicalname")));
        const JsonValue* const configuration = node.Find("configuration");
        if (found == items.end() || configuration == nullptr) continue;
        const KemdInventoryItem& item = *found->second;
        EXPECT_EQ(item.Text("mac"), node.TextOf("serial"));
        EXPECT_EQ(item.Text("driver"), configuration->TextOf("driver"));
        EXPECT_EQ(item.Text("driver_version"), configuration->TextOf("driverversion"));
        EXPECT_EQ(item.Number("link"), configuration->TextOf("link") == "yes" ? 1U : 0U);
        const std::string_view firmware = configuration->TextOf("firmware");
        EXPECT_EQ(item.Text("firmware"), firmware == "N/A" ? "" : firmware);
        const std::string_view duplex = configuration->TextOf("duplex");
        EXPECT_EQ(duplex.empty() ? duplex : item.Text("duplex"), duplex);
        // "1Gbit/s"
        const std::string speed(configuration->TextOf("speed"));
        if (!speed.empty()) {
            const uint64_t unit = speed.find("Gbit") != speed.npos ? 1000 : 1;
            EXPECT_EQ(item.Number("speed"), std::stoull(speed) * unit);
        }
        ++compared;
    }
    EXPECT_EQ(compared, items.size());
}

namespace {

// A line of ethtool -i or -P.
void CompareLine(const std::string& line, const KemdInventoryItem& item) {
    struct Known {
        const char* start;
        InventoryField field;
    };
    const Known known[] = {
        {"driver: ", "driver"},
        {"bus-info: 0", "address"},
        {"Permanent address: ", "permanent_mac"},
    };
    const std::string value = line.substr(std::min(line.find(": ") + 2, line.size()));
    for (const auto& [start, field] : known) {
        if (!line.starts_with(start) || value == "not set") continue;
        EXPECT_EQ(item.Text(field), value) << line;
    }
}

}  // namespace

TEST(InterfacesPeersTest, EthtoolKnowsTheSameBusAddressAndPort) {
    NEED_PEER("ethtool");
    KemdInventory inventory;
    ScanInterfaces(inventory);
    if (inventory.items.empty()) GTEST_SKIP() << "no network hardware on this machine";
    for (const KemdInventoryItem& item : inventory.items) {
        std::string command = "ethtool -i " + item.name;
        command.append("; ethtool -P ").append(item.name);
        std::istringstream lines(PeerText(command));
        for (std::string line; std::getline(lines, line);) CompareLine(line, item);
        const bool isPci = item.Text("bus") == "pci";
        EXPECT_EQ(isPci ? "pci:" + item.Text("address") : item.parent, item.parent);
        const auto above = PciAddressInPath(RealPath("/sys/class/net/" + item.name + "/device"));
        const bool isOnPci = above && item.Text("bus") != "usb";
        EXPECT_EQ(isOnPci ? above->Id() : item.parent, item.parent);
    }
}
