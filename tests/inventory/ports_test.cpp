#include "inventory/sources.h"
#include "tests/inventory/made_tree.h"
#include "tests/inventory/memory_world.h"

TEST(PortsTest, GraphicsAdaptersAndSerialPortsBelongToTheirFunctions) {
    for (const char* const path : {"/sys/bus", "/sys/devices", "/sys/class"}) {
        std::filesystem::remove_all(path);
    }
    WriteFile("/dev/mem", ToText(FirmwareImage("pc")));  // has a slot for each of these
    const std::string gpu = "pci0000:00/0000:00:02.0";
    WriteFile("/usr/share/misc/pci.ids", "1234  Bochs\n\t1111  Display\n");
    const Attributes ids = {
        {"class", "0x030000"}, {"vendor", "0x1234"}, {"device", "0x1111"}, {"boot_vga", "1"}};
    MakeDevice(gpu, "bus/pci/devices", ids);
    MakeDevice("pci0000:00/0000:00:05.0", "bus/pci/devices", {{"class", "0x038000"}});
    MakeDevice("pci0000:00/0000:00:06.0", "bus/pci/devices", {{"class", "0x020000"}});
    const std::string card = gpu + "/drm/card0";
    MakeDevice(card, "class/drm",
               {{"card0-HDMI-A-1/status", "connected"},
                {"card0-HDMI-A-1/modes", "1920x1080\n1024x768"},
                {"card0-VGA-1/status", "disconnected"}});
    MakeLink("/sys/devices/" + gpu, "/sys/devices/" + card + "/device");
    MakeDevice(gpu + "/graphics/fb0", "class/graphics",
               {{"name", "bochsdrmfb"}, {"virtual_size", "1024,768"}});
    MakeLink("/sys/devices/" + gpu, "/sys/devices/" + gpu + "/graphics/fb0/device");

    const auto port = [](const std::string& path, const Attributes& attributes) {
        MakeDevice(path + "/tty", "class/tty", attributes);
        MakeLink("/sys/devices/" + path, "/sys/devices/" + path + "/tty/device");
        std::filesystem::rename("/sys/class/tty/tty",
                                "/sys/class/tty/" + path.substr(path.rfind('/') + 1));
    };
    port("pnp0/00:04/ttyS0",
         {{"type", "4"}, {"port", "0x3F8"}, {"iomem_base", "0x0"}, {"irq", "4"}, {"console", "Y"}});
    port("platform/serial8250/ttyS1", {{"type", "0"}});
    port("pci0000:00/0000:00:16.3/ttyS4", {{"type", "99"}, {"irq", "0"}});
    port("pci0000:00/0000:00:14.0/usb1/1-1/1-1.2/1-1.2:1.0/ttyUSB0", {});

    KemdInventory inventory;
    ScanPorts(inventory);
    EXPECT_EQ(inventory.items.size(), 5U);
    EXPECT_EQ(FieldsOf(inventory, "graphics:0000:00:02.0"),
              "parent=pci:0000:00:02.0\nvendor=Bochs\nmodel=Display\nslot=1\nboot_display=1\n"
              "connector=HDMI-A-1 connected 1920x1080\nconnector=VGA-1 disconnected\n"
              "framebuffer=fb0 bochsdrmfb 1024x768\n");
    EXPECT_EQ(FieldsOf(inventory, "graphics:0000:00:05.0"), "parent=pci:0000:00:05.0\nslot=4\n");
    EXPECT_EQ(FieldsOf(inventory, "serial_port:ttyS0"),
              "device=/dev/ttyS0\nuart=16550A\nio_address=0x3F8\nirq=4\nconsole=1\n");
    EXPECT_EQ(FieldsOf(inventory, "serial_port:ttyS4"),
              "parent=pci:0000:00:16.3\ndevice=/dev/ttyS4\nuart=type 99\n");
    EXPECT_EQ(FieldsOf(inventory, "serial_port:ttyUSB0"),
              "parent=usb:1-1.2\ndevice=/dev/ttyUSB0\n");
}
