// A directory of sysfs, whose attributes are files of one short text each.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"

struct KemdInventory;

class SysDirectory {
  public:
    // What only root may read, or fails in another way than by not being there, is noted in
    // `inventory`, which must live as long. A directory that is not there has no attributes.
    SysDirectory(KemdInventory& inventory, std::string path);
    // A directory below it: "device", "queue".
    [[nodiscard]] SysDirectory Below(const char* name) const;

    [[nodiscard]] bool IsThere() const { return m_fd.IsOpen(); }
    [[nodiscard]] const std::string& Path() const { return m_path; }
    // The trimmed text, at most a page of memory; nothing when there is none.
    [[nodiscard]] std::optional<std::string> Text(const char* name) const;
    // Decimal, or hexadecimal after "0x"; nothing when the text is no number.
    [[nodiscard]] std::optional<uint64_t> Number(const char* name) const;
    // The last part of a symbolic link's target: "../../bus/pci/drivers/ahci" gives "ahci".
    [[nodiscard]] std::string LinkName(const char* name) const;
    [[nodiscard]] bool Has(const char* name) const;
    // Up to `limit` bytes as they are: "config", "vpd_pg80".
    [[nodiscard]] std::string Bytes(const char* name, size_t limit) const;
    // Sorted, without "." and "..".
    [[nodiscard]] std::vector<std::string> Names() const;

  private:
    void NoteError(const char* name, int error) const;

    KemdInventory* m_inventory;
    std::string m_path;
    UniqueFd m_fd;
};

// Where the symbolic link leads, without any links: "/sys/devices/...". Empty when it leads
// nowhere.
std::string RealPath(const std::string& path);
