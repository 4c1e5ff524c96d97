// Devices of a made sysfs.
#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "inventory/host_inventory.h"
#include "tests/world.h"

inline void MakeLink(const std::string& target, const std::string& path) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::filesystem::create_directories(target);
    std::filesystem::create_symlink(target, path);
}

using Attributes = std::map<std::string, std::string>;

// A device at /sys/devices/PATH, which the bus or class links to: "bus/pci/devices".
inline void MakeDevice(const std::string& path, const std::string& list,
                       const Attributes& attributes) {
    const std::filesystem::path device = "/sys/devices/" + path;
    for (const auto& [name, text] : attributes) WriteFile(device / name, text + "\n");
    MakeLink(device, "/sys/" + list + "/" + device.filename().string());
}

// Each field and value as a line: "vendor_id=8086"; "parent=" first, when there is one.
inline std::string FieldsOf(const KemdInventory& inventory, const std::string& id) {
    const KemdInventoryItem* const item = inventory.Find(id);
    if (item == nullptr) return "no " + id;
    std::string text = item->parent.empty() ? "" : "parent=" + item->parent + "\n";
    for (const auto& value : item->values) {
        text += value.field.Info().name + ("=" + value.text) + "\n";
    }
    return text;
}
