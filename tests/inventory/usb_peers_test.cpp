// USB devices beside lsusb, and every name of usb.ids beside a reading of the file by other means:
// lsusb has its names from udev's hardware database.
#include <array>
#include <fstream>
#include <map>

#include "base/text.h"
#include "inventory/host_inventory.h"
#include "inventory/id_names.h"
#include "inventory/sources.h"
#include "tests/inventory/peers.h"
#include "tests/world.h"

namespace {

using DeviceNumber = std::pair<unsigned, unsigned>;  // of the bus, on the bus

std::map<DeviceNumber, const KemdInventoryItem*> ByNumber(const KemdInventory& inventory) {
    std::map<DeviceNumber, const KemdInventoryItem*> items;
    for (const KemdInventoryItem& item : inventory.items) {
        items[{item.Number("bus_number"), item.Number("bus_device")}] = &item;
    }
    return items;
}

// "480M" gives 480000.
uint64_t Kilobits(const std::string& speed) {
    return static_cast<uint64_t>(std::stod(speed) * 1000);
}

// The item's interface with this driver.
bool HasDriver(const KemdInventoryItem& item, const std::string& driver) {
    return std::any_of(item.values.begin(), item.values.end(), [&driver](const auto& value) {
        return value.field == InventoryField("usb_interfaces") &&
               Contains(value.text + ",", " " + driver + ",");
    });
}

// "|__ Port 1: Dev 2, If 0, Class=Mass Storage, Driver=usb-storage, 480M", and for root hubs
// "/:  Bus 02.Port 1: Dev 1, Class=root_hub, Driver=xhci_hcd/4p, 5000M"
void CompareTree(const std::map<DeviceNumber, const KemdInventoryItem*>& items) {
    std::istringstream tree(PeerText("lsusb -t"));
    unsigned bus = 0;
    for (std::string line; std::getline(tree, line);) {
        const size_t root = line.find("Bus ");
        if (root != line.npos) bus = static_cast<unsigned>(std::stoul(line.substr(root + 4)));
        const size_t device = line.find("Dev ");
        const size_t driver = line.find("Driver=");
        ASSERT_TRUE(device != line.npos && driver != line.npos) << line;
        const auto number = static_cast<unsigned>(std::stoul(line.substr(device + 4)));
        ASSERT_TRUE(items.contains({bus, number})) << line;
        const KemdInventoryItem& item = *items.at({bus, number});
        EXPECT_EQ(item.Number("bus_speed"), Kilobits(line.substr(line.rfind(' ') + 1))) << line;
        const size_t end = line.find_first_of("/,", driver);
        const std::string name = line.substr(driver + 7, end - driver - 7);
        EXPECT_TRUE(root != line.npos || HasDriver(item, name)) << line;
    }
}

}  // namespace

TEST(UsbPeersTest, LsusbSeesTheSameDevicesAndDrivers) {
    NEED_PEER("lsusb");
    if (!std::filesystem::exists("/sys/bus/usb/devices")) GTEST_SKIP() << "no USB on this machine";
    KemdInventory inventory;
    ScanUsb(inventory);
    const auto items = ByNumber(inventory);
    std::istringstream list(PeerText("lsusb"));
    size_t count = 0;
    for (std::string line; std::getline(list, line); ++count) {
        DeviceNumber number;
        std::array<char, 8> vendor{};
        std::array<char, 8> product{};
        ASSERT_EQ(sscanf(line.c_str(), "Bus %u Device %u: ID %4[0-9a-f]:%4[0-9a-f]", &number.first,
                         &number.second, vendor.data(), product.data()),
                  4);
        ASSERT_TRUE(items.contains(number)) << line;
        EXPECT_EQ(items.at(number)->Text("vendor_id"), vendor.data()) << line;
        EXPECT_EQ(items.at(number)->Text("device_id"), product.data()) << line;
    }
    EXPECT_EQ(count, items.size());
    CompareTree(items);
}

TEST(UsbPeersTest, EachNameOfUsbIdsIsFound) {
    std::ifstream file("/usr/share/misc/usb.ids", std::ios::binary);
    if (!file) GTEST_SKIP() << "not compared: usb.ids is not installed";
    // By "v 0781 5581", "c 08 06 50".
    std::map<std::string, std::string> expected;
    std::string prefix;
    IdNames names;
    for (std::string line; std::getline(file, line);) {
        const size_t depth = std::min(line.find_first_not_of('\t'), line.size());
        const std::string text = line.substr(depth);
        const size_t gap = text.find("  ");
        if (text.empty() || text[0] == '#') continue;
        if (depth == 0) {
            prefix = text.starts_with("C ")                            ? "c"
                     : text.find_first_not_of("0123456789abcdef") == 4 ? "v"
                                                                       : "";
        }
        if (prefix.empty() || gap == text.npos) continue;
        const std::string id =
            text.substr(gap - (prefix[0] == 'v' ? 4 : 2), prefix[0] == 'v' ? 4 : 2);
        prefix.resize(std::min(prefix.size(), 1 + depth * (id.size() + 1)));
        prefix.append(" ").append(id);
        if (prefix[0] == 'v' && depth > 1) continue;  // an interface
        expected.emplace(prefix, text.substr(gap + 2));
        unsigned a = 0;
        unsigned b = 0;
        unsigned c = 0;
        const int count = sscanf(prefix.c_str() + 1, "%x %x %x", &a, &b, &c);
        if (prefix[0] == 'c') names.WantClass(a << 16 | b << 8 | c);
        if (prefix[0] == 'v' && count == 2) {
            names.WantDevice(static_cast<uint16_t>(a), static_cast<uint16_t>(b));
        } else if (prefix[0] == 'v') {
            names.WantDevice(static_cast<uint16_t>(a), 0);
        }
    }
    ASSERT_GT(expected.size(), 20000U);
    KemdInventory inventory;
    names.ReadUsb(inventory);
    for (const auto& [key, name] : expected) {
        unsigned a = 0;
        unsigned b = 0;
        unsigned c = 0;
        const int count = sscanf(key.c_str() + 1, "%x %x %x", &a, &b, &c);
        const uint32_t code = a << 16 | b << 8 | c;
        const auto found = key[0] == 'c' ? count == 1   ? names.BaseClass(code)
                                           : count == 2 ? names.Subclass(code)
                                                        : names.ProgrammingInterface(code)
                           : count == 1
                               ? names.Vendor(static_cast<uint16_t>(a))
                               : names.Device(static_cast<uint16_t>(a), static_cast<uint16_t>(b));
        EXPECT_EQ(found, Trim(name)) << key;
    }
}
