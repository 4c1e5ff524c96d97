// What udev has found out about a device: its database in /run/udev/data.
#pragma once

#include <map>
#include <string>
#include <string_view>

struct KemdInventory;

// Notes what is not known without udev; once, whoever misses it.
void NoteNoUdev(KemdInventory& inventory);

class UdevRecord {
  public:
    // `key`: "b8:0" for a block device, "+pci:0000:00:1f.2" for others.
    UdevRecord(KemdInventory& inventory, const std::string& key);
    // From the text of its file.
    explicit UdevRecord(std::string_view text);

    // Whether udev knows the device.
    [[nodiscard]] bool IsThere() const { return m_isThere; }
    // "ID_FS_TYPE"; empty when there is none. Bytes that udev wrote as \xNN are decoded for names
    // that end in _ENC, and for the name of a partition.
    [[nodiscard]] std::string Property(std::string_view name) const;

  private:
    void Read(std::string_view text);

    bool m_isThere = false;
    std::map<std::string, std::string, std::less<>> m_properties;
};
