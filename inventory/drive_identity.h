// What identifies a drive, in the pages that the kernel keeps of it. Bytes come from drives:
// nothing is believed beyond their length. Pure functions; any thread. May throw std::bad_alloc.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

struct AtaIdentity {
    std::string model;
    std::string serial;
    std::string firmware;
    std::string wwn;            // "0x5000c500a1b2c3d4"
    uint16_t rotationRate = 0;  // rpm; 0: not known, or nothing turns
};

// The ATA information page (89h) with the answer of IDENTIFY DEVICE; empty texts when it is none.
AtaIdentity ReadAtaIdentity(std::span<const uint8_t> page);
// The unit serial number page (80h).
std::string ReadSerialPage(std::span<const uint8_t> page);
// The device identification page (83h): the name of the logical unit as in DriveWwn.
std::string ReadWwnPage(std::span<const uint8_t> page);
// The kernel's word for a name: "naa.5000c5..." gives "0x5000c5...", "eui.", "nvme." and "uuid."
// stay; empty for what is no world wide name.
std::string DriveWwn(std::string_view wwid);
// Part of an id: what is no letter, digit or one of "._:+-" becomes "_".
std::string IdPart(std::string_view text);
