// What is known of one interface, and what all interfaces of a snapshot share. Filled by the
// readers of messages; not changed any more once it belongs to a finished snapshot.
#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kemd/network.h"

// The kernel's names for the bits and numbers of ethtool, by number of the set of names.
using NameSets = std::map<uint32_t, std::vector<std::string>>;

// Beyond the parts of kemd/network.h: what only root is shown among the settings.
constexpr uint32_t kWakePart = 1U << 16;
// Those that have something to do with the hardware.
constexpr uint32_t kHardwareParts =
    KEMD_NETWORK_HARDWARE | KEMD_NETWORK_DRIVER | KEMD_NETWORK_LINK_SPEED;
// With the parts that others consist of.
constexpr uint32_t WithTheirParts(uint32_t parts) {
    return parts | ((parts & KEMD_NETWORK_HARDWARE) != 0 ? kHardwareParts : 0);
}

struct NetworkFacts {
    uint32_t parts = 0;
    std::map<uint32_t, int> errors;  // why a part is absent everywhere, by part
    std::shared_ptr<const NameSets> names;
};

// A set of bits with names: link modes, features.
struct NamedBits {
    uint32_t list = 0;   // KEMD_NETWORK_SUPPORTED_MODES ...
    uint32_t names = 0;  // number of the set
    std::vector<uint32_t> words;
};

struct NamedCounter {
    uint32_t names = 0;
    uint32_t id = 0;
    uint64_t value = 0;
    std::string text;  // when the kernel has no name for it
};

struct KemdNetworkInterface {
    explicit KemdNetworkInterface(std::shared_ptr<const NetworkFacts> shared);

    void Set(uint32_t field, uint64_t value) {
        const bool isRare = IsRare(field) || value >= kElsewhere;
        if (isRare) SetRare(field, value);
        if (!IsRare(field)) {
            m_numbers[PlaceOf(field)] = isRare ? kElsewhere : static_cast<uint32_t>(value);
        }
        m_known.set(field);
    }
    void SetText(uint32_t field, std::string_view text);
    // Why the value is absent, for this interface alone; in place of what was said before.
    void SetError(uint32_t field, int error);
    void Forget(uint32_t field) { m_known.reset(field); }
    // In place of what the list had.
    void SetBits(NamedBits bits);
    void ForgetBits(uint32_t list);

    [[nodiscard]] bool Has(uint32_t field) const { return m_known.test(field); }
    // 0 when it is absent.
    [[nodiscard]] uint64_t Number(uint32_t field) const {
        if (!Has(field)) return 0;
        const uint32_t number = IsRare(field) ? kElsewhere : m_numbers[PlaceOf(field)];
        return number == kElsewhere ? RareNumber(field) : number;
    }
    // Empty when it is absent. A NUL follows; valid until a text of the interface is set.
    [[nodiscard]] std::string_view Text(uint32_t field) const;
    // Null when it is absent.
    [[nodiscard]] const NamedBits* Bits(uint32_t list) const;
    // Why a field is absent.
    [[nodiscard]] int Reason(uint32_t field) const;
    // 0, or why there is nothing of a part.
    [[nodiscard]] int PartError(uint32_t part) const;
    [[nodiscard]] uint32_t Index() const { return m_numbers[KEMD_NET_INDEX]; }
    // By its name or an alternative one.
    [[nodiscard]] bool IsNamed(std::string_view name) const;
    [[nodiscard]] bool Equals(const KemdNetworkInterface& other, uint32_t field) const;
    // What the other has of the fields from `first` to `last`.
    void CopyFields(const KemdNetworkInterface& from, uint32_t first, uint32_t last);
    void CopyBits(const KemdNetworkInterface& from) { m_bits = from.m_bits; }
    // Takes over what a message of the link does not say: all but the fields that every snapshot
    // has.
    void KeepOthersOf(const KemdNetworkInterface& older);

    std::vector<std::string> alternativeNames;
    std::vector<KemdNetworkAddress> addresses;
    std::vector<KemdNetworkVirtualFunction> functions;
    std::vector<NamedCounter> statistics;
    std::shared_ptr<const NetworkFacts> facts;

  private:
    // Numbers stand at their place; large ones, and those that few interfaces have, are in a list,
    // as a thousand interfaces cost the time that their memory takes to be had.
    static constexpr uint32_t kElsewhere = UINT32_MAX;
    static constexpr uint32_t kOfKinds = KEMD_NET_RX_PACKETS - KEMD_NET_VLAN_ID;
    static constexpr bool IsRare(uint32_t field) {
        return field >= KEMD_NET_PAUSE_AUTO ||
               (field >= KEMD_NET_VLAN_ID && field < KEMD_NET_RX_PACKETS);
    }
    static constexpr uint32_t PlaceOf(uint32_t field) {
        return field < KEMD_NET_VLAN_ID ? field : field - kOfKinds;
    }
    void SetRare(uint32_t field, uint64_t value);
    [[nodiscard]] uint64_t RareNumber(uint32_t field) const;
    std::array<uint32_t, KEMD_NET_PAUSE_AUTO - kOfKinds> m_numbers{};
    std::vector<std::pair<uint32_t, uint64_t>> m_rareNumbers;
    // Shared by interfaces that have the same.
    std::shared_ptr<std::vector<NamedBits>> m_bits;
    std::bitset<KEMD_NET_FIELDS> m_known;
    std::string m_texts;  // each after its TextHead, and with a NUL
    std::vector<std::pair<uint32_t, int>> m_errors;
};
