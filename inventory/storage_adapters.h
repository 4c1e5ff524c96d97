// The adapters that drives sit at: SCSI and ATA hosts, NVMe controllers, virtio and others. One
// item for each PCI function, USB device or port of the platform, however many hosts the kernel
// makes of it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

struct DrivePath;
struct KemdInventory;
struct KemdInventoryItem;

class StorageAdapters {
  public:
    struct Host {
        std::string interface;  // as the field of its drives
        std::string adapter;    // an id
    };

    // Adds the items of all hosts and controllers, with drives or without. `inventory` must live as
    // long.
    explicit StorageAdapters(KemdInventory& inventory);

    // "host2"; null when it is not known.
    [[nodiscard]] const Host* FindHost(const std::string& name) const;
    // The id of "nvme0"; empty when it is not known.
    [[nodiscard]] std::string NvmeId(const std::string& name) const;
    // The id of the adapter of a drive that has neither host nor controller; adds the item.
    std::string UnitId(const DrivePath& path, std::string_view devicePath,
                       std::string_view interface);

  private:
    KemdInventoryItem& FindOrAdd(const DrivePath& path, const std::string& name);
    void AddHost(const std::string& name);
    void AddNvme(const std::string& name);

    KemdInventory* m_inventory;
    std::map<std::string, Host> m_hosts;
    std::map<std::string, std::string> m_nvme;  // name, id
    std::map<std::string, uint64_t> m_ports;    // of ATA, by the adapter's id
};
