// What the kernel says about a device: a message when it comes, goes or changes, and the same
// fields in its file "uevent". Pure functions over bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class Uevent {
  public:
    // A message "add@/devices/pci0000:00/...", then "KEY=VALUE" after "KEY=VALUE", each with a NUL
    // at its end. Nothing when it is something else, such as a message of udev.
    static std::optional<Uevent> FromMessage(std::string_view message);
    // The file's lines; it has neither action nor path.
    static Uevent FromFile(std::string_view text);

    // Empty when there is none: "ACTION", "DEVPATH", "SUBSYSTEM", "DEVNAME" ...
    [[nodiscard]] std::string_view Field(std::string_view key) const;
    // Nothing when it is no decimal number.
    [[nodiscard]] std::optional<uint32_t> Number(std::string_view key) const;

  private:
    void Take(std::string_view text, char separator);

    std::vector<std::pair<std::string, std::string>> m_fields;
};
