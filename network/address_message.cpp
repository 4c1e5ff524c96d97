// RTM_NEWADDR and RTM_DELADDR.
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "network/attributes.h"
#include "network/messages.h"

namespace {

// False when it is not as long as the family's addresses are.
bool Store(const Attribute& attribute, size_t length, uint8_t (&to)[16]) {
    if (attribute.bytes.size() != length) return false;
    std::memcpy(to, attribute.bytes.data(), length);
    return true;
}

void ReadLifetimes(std::string_view bytes, KemdNetworkAddress& address) {
    const auto times = HeaderOf<ifa_cacheinfo>(bytes);
    if (!times) return;
    address.preferredSeconds = times->ifa_prefered;
    address.validSeconds = times->ifa_valid;
}

void ReadOthers(const Attributes& attributes, KemdNetworkAddress& address) {
    for (const Attribute& attribute : attributes) {
        const uint64_t number = attribute.Number().value_or(0);
        if (attribute.type == IFA_FLAGS) address.flags = static_cast<uint32_t>(number);
        if (attribute.type == IFA_RT_PRIORITY) address.metric = static_cast<uint32_t>(number);
        if (attribute.type == IFA_PROTO) address.protocol = static_cast<uint8_t>(number);
        if (attribute.type == IFA_LABEL) {
            const std::string_view label = attribute.Text().substr(0, sizeof address.label - 1);
            label.copy(address.label, label.size());
        }
        if (attribute.type == IFA_CACHEINFO) {
            ReadLifetimes(attribute.bytes, address);
        }
    }
}

}  // namespace

std::optional<AddressMessage> ReadAddress(std::string_view payload) {
    const auto header = HeaderOf<ifaddrmsg>(payload);
    if (!header || (header->ifa_family != AF_INET && header->ifa_family != AF_INET6)) return {};
    const size_t length = header->ifa_family == AF_INET ? 4 : 16;
    AddressMessage message{header->ifa_index, {}};
    KemdNetworkAddress& address = message.address;
    address.size = sizeof address;
    address.family = header->ifa_family;
    address.prefix = header->ifa_prefixlen;
    address.scope = header->ifa_scope;
    address.flags = header->ifa_flags;
    address.preferredSeconds = address.validSeconds = KEMD_NETWORK_FOREVER;
    const Attributes attributes(AfterHeader(payload, sizeof *header));
    ReadOthers(attributes, address);
    // With a peer, the interface's own address is the local one.
    const bool hasLocal = Store(attributes.Find(IFA_LOCAL), length, address.address);
    const bool hasAddress = Store(attributes.Find(IFA_ADDRESS), length, address.peer);
    if (!hasLocal && !hasAddress) return {};
    if (!hasLocal) std::memcpy(address.address, address.peer, length);
    address.hasPeer =
        hasLocal && hasAddress && std::memcmp(address.address, address.peer, length) != 0;
    if (address.hasPeer == 0) std::memset(address.peer, 0, sizeof address.peer);
    address.hasBroadcast = Store(attributes.Find(IFA_BROADCAST), length, address.broadcast);
    return message;
}

bool IsSameAddress(const KemdNetworkAddress& a, const KemdNetworkAddress& b) {
    return a.family == b.family && a.prefix == b.prefix &&
           std::memcmp(a.address, b.address, sizeof a.address) == 0 &&
           std::memcmp(a.peer, b.peer, sizeof a.peer) == 0;
}
