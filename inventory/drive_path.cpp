#include "inventory/drive_path.h"

#include <algorithm>

namespace {

// Whether the text looks like the pattern, in which "x" stands for hexadecimal digits, "9" for
// decimal ones (one or more of them), and all else for itself.
bool IsLike(std::string_view text, std::string_view pattern) {
    constexpr std::string_view kDecimal = "0123456789";
    constexpr std::string_view kHexadecimal = "0123456789abcdef";
    for (const char wanted : pattern) {
        const bool isNumber = wanted == 'x' || wanted == '9';
        const size_t length =
            isNumber ? std::min(text.find_first_not_of(wanted == 'x' ? kHexadecimal : kDecimal),
                                text.size())
                     : static_cast<size_t>(!text.empty() && text.front() == wanted);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return text.empty();
}

bool IsUsbDevice(std::string_view name) {
    const std::string_view port = name.substr(0, name.find('.'));
    return IsLike(port, "9-9") && name.find(':') == name.npos;
}

}  // namespace

DrivePath::DrivePath(std::string_view path) {
    std::string_view previous;
    bool isInUsb = false;
    while (!path.empty()) {
        const std::string_view name = path.substr(0, path.find('/'));
        path.remove_prefix(std::min(name.size() + 1, path.size()));
        if (name.empty()) continue;
        if (IsLike(name, "x:x:x.x")) {
            pci = name;
        } else if (IsLike(name, "usb9")) {
            isInUsb = true;
        } else if (isInUsb && IsUsbDevice(name)) {
            usb = name;
        } else if (IsLike(name, "ata9")) {
            ata = name;
        } else if (IsLike(name, "host9")) {
            host = name;
            if (unit.empty()) unit = previous == "platform" ? name : previous;
        } else if (IsLike(name, "9:9:9:9")) {
            hctl = name;
        } else if (name == "block" && unit.empty()) {
            unit = previous;
        }
        previous = name;
    }
}

std::string DrivePath::HardwareId() const {
    if (!usb.empty()) return "usb:" + usb;
    return pci.empty() ? std::string() : "pci:" + pci;
}

const std::string& DrivePath::Hardware() const {
    if (!usb.empty()) return usb;
    return pci.empty() ? unit : pci;
}
