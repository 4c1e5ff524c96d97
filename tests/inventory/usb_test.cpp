#include "inventory/sources.h"
#include "tests/inventory/made_tree.h"

namespace {

constexpr const char* kHub = "pci0000:00/0000:00:14.0/usb1";
constexpr const char* kIds = "/usr/share/misc/usb.ids";

void Make(const std::string& path, const Attributes& attributes) {
    MakeDevice(path, "bus/usb/devices", attributes);
}

}  // namespace

TEST(UsbTest, DevicesHaveTheirHubsTheirInterfacesAndTheirNames) {
    std::filesystem::remove_all("/sys/bus");
    std::filesystem::remove_all("/sys/devices");
    WriteFile(kIds,
              "0781  SanDisk\n\t5581  Ultra\n\t\t00  storage\nC 08  Mass Storage\n"
              "AT 0781  no vendor\n\t5581  no device\n");
    const std::string hub = std::string(kHub) + "/1-1";
    Make(kHub, {{"idVendor", "1d6b"},
                {"idProduct", "0002"},
                {"bDeviceClass", "09"},
                {"bDeviceSubClass", "00"},
                {"bDeviceProtocol", "01"},
                {"maxchild", "16"},
                {"speed", "480"},
                {"manufacturer", "Linux xhci"},
                {"product", "xHCI"}});
    Make(std::string(kHub) + "/1-0:1.0", {{"bInterfaceClass", "09"}, {"bInterfaceNumber", "00"}});
    Make(hub, {{"idVendor", "05e3"}, {"idProduct", "0608"}, {"speed", "unknown"}});
    Make(hub + "/1-1.2", {{"idVendor", "0781"},
                          {"idProduct", "5581"},
                          {"bDeviceClass", "00"},
                          {"bcdDevice", "0110"},
                          {"version", " 2.10"},
                          {"speed", "1.5"},
                          {"bMaxPower", "224mA"},
                          {"serial", "4C53"},
                          {"product", "Stick"},
                          {"busnum", "1"},
                          {"devnum", "7"}});
    for (const char* const number : {"00", "0a"}) {
        Make(hub + "/1-1.2/1-1.2:1." + number, {{"bInterfaceClass", "08"},
                                                {"bInterfaceSubClass", "06"},
                                                {"bInterfaceProtocol", "50"},
                                                {"bInterfaceNumber", number}});
    }
    MakeLink("/sys/bus/usb/drivers/usb-storage",
             "/sys/devices/" + hub + "/1-1.2/1-1.2:1.00/driver");
    std::filesystem::create_symlink("/nowhere", "/sys/bus/usb/devices/2-1");
    KemdInventory inventory;
    ScanUsb(inventory);
    EXPECT_EQ(inventory.items.size(), 3U);
    EXPECT_EQ(FieldsOf(inventory, "usb:usb1"),
              "parent=pci:0000:00:14.0\naddress=usb1\nvendor=Linux xhci\nvendor_id=1d6b\n"
              "device=xHCI\ndevice_id=0002\nmanufacturer=Linux xhci\nproduct=xHCI\nclass=Hub\n"
              "class_id=09\nsubclass_id=00\nprotocol_id=01\ninterfaces=0: 09/00/00 no driver, Hub\n"
              "bus_speed=480000\nports=16\n");
    EXPECT_TRUE(FieldsOf(inventory, "usb:1-1").starts_with("parent=usb:usb1\n"));
    EXPECT_EQ(FieldsOf(inventory, "usb:1-1.2"),
              "parent=usb:1-1\naddress=1-1.2\nvendor=SanDisk\nvendor_id=0781\ndevice=Ultra\n"
              "device_id=5581\nproduct=Stick\nserial=4C53\nclass_id=00\nsubclass_id=00\n"
              "protocol_id=00\ninterfaces=0: 08/06/50 usb-storage, Mass Storage\n"
              "driver=usb-storage\ninterfaces=10: 08/06/50 no driver, Mass Storage\n"
              "revision=01.10\nusb_version=2.10\nbus_speed=1500\nmax_power=224\nbus_number=1\n"
              "usb_device_number=7\n");
}
