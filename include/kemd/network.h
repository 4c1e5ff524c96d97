/* Network interfaces in C: what the kernel knows of them, at one moment (a snapshot) or as it
 * changes (a watch). Handles are opaque; no C++ type crosses this interface.
 *
 * Any thread may call, with handles of its own; a snapshot and what belongs to it may be read by
 * several at once. Nothing throws. Functions that return `int` return 0 on success and otherwise an
 * errno number. Texts end with a NUL and are the kernel's bytes: names need not be UTF-8. The
 * buffer of a text is described by `size`: its bytes; then the bytes that the text needs, with
 * ERANGE when that is more. Structures begin with `size`, which the caller sets to sizeof of what
 * it has: of an older one only that is filled, what the daemon does not know yet is 0. Nothing here
 * needs rights; what the kernel gives only to root is absent otherwise.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kemd/api.h"
#include "kemd/network_fields.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Sockets into one network name space. */
struct KemdNetwork;
/* All interfaces of the name space at one moment. */
struct KemdNetworkSnapshot;
/* One of them; belongs to its snapshot. */
struct KemdNetworkInterface;

/* The caller's name space, for `nameSpace`. */
#define KEMD_NETWORK_HERE (-1)

/* `nameSpace`: KEMD_NETWORK_HERE or a descriptor of /proc/PID/ns/net, /run/netns/NAME ..., which
 * remains the caller's. EPERM when another name space may not be entered. The name space lives on
 * as long as the handle. */
KEMD_API int KemdNetworkOpen(struct KemdNetwork** network, int nameSpace);
/* Null does nothing. Snapshots stay. */
KEMD_API void KemdNetworkClose(struct KemdNetwork* network);
/* What the last call that failed was doing and what the kernel said to it; empty when none did. */
KEMD_API int KemdNetworkErrorText(const struct KemdNetwork* network, char* out, size_t* size);

/* What a snapshot has beside names, states, relations and counters. */
#define KEMD_NETWORK_ADDRESSES 1u
#define KEMD_NETWORK_ROUTES 2u      /* default routes */
#define KEMD_NETWORK_HARDWARE 4u    /* driver, bus, speed, duplex, modes, why there is no link */
#define KEMD_NETWORK_SETTINGS 8u    /* pause, rings, channels, features, wake-on-LAN */
#define KEMD_NETWORK_STATISTICS 16u /* standard groups; counters of virtual functions */
#define KEMD_NETWORK_MODULE 32u     /* identification of plugged modules: slow, and for root */
/* What is a part of the hardware, for those who want no more of it. */
#define KEMD_NETWORK_DRIVER 64u      /* driver, firmware, bus */
#define KEMD_NETWORK_LINK_SPEED 128u /* speed, duplex, modes */
#define KEMD_NETWORK_ALL 0xFFFFFFFFu

KEMD_API int KemdNetworkTake(struct KemdNetwork* network, uint32_t parts,
                             struct KemdNetworkSnapshot** snapshot);
/* Null does nothing. */
KEMD_API void KemdNetworkRelease(struct KemdNetworkSnapshot* snapshot);
/* 1; 0 when interfaces came and went so fast that no attempt showed a single moment. */
KEMD_API int KemdNetworkIsConsistent(const struct KemdNetworkSnapshot* snapshot);
/* What this snapshot could not have, a line for each reason, as for a user: "wake-on-LAN: Operation
 * not permitted". ENOENT after the last. */
KEMD_API int KemdNetworkNote(const struct KemdNetworkSnapshot* snapshot, size_t position, char* out,
                             size_t* size);

/* The counters of one interface alone. */
struct KemdNetworkCounters {
    uint32_t size;
    uint32_t index;
    const char* name; /* a new name shows within 10 s */
    uint64_t rxPackets, txPackets, rxBytes, txBytes, rxErrors, txErrors, rxDropped, txDropped;
};
/* All that `counters` points to is valid until the callback returns. */
typedef void (*KemdNetworkOnCounters)(void* user, const struct KemdNetworkCounters* counters);
/* Calls `onCounters` for each interface, in the kernel's order, which seldom changes. For who asks
 * each second: a fraction of the cost of a snapshot. */
KEMD_API int KemdNetworkReadCounters(struct KemdNetwork* network, KemdNetworkOnCounters onCounters,
                                     void* user);

/* In the order of their indexes; null after the last. */
KEMD_API const struct KemdNetworkInterface* KemdNetworkAt(
    const struct KemdNetworkSnapshot* snapshot, size_t position);
/* By index, or by name or alternative name; null when there is none. */
KEMD_API const struct KemdNetworkInterface* KemdNetworkByIndex(
    const struct KemdNetworkSnapshot* snapshot, uint64_t index);
KEMD_API const struct KemdNetworkInterface* KemdNetworkByName(
    const struct KemdNetworkSnapshot* snapshot, const char* name);
/* The members of a bridge, bond, team or VRF; null after the last. */
KEMD_API const struct KemdNetworkInterface* KemdNetworkMemberAt(
    const struct KemdNetworkSnapshot* snapshot, uint64_t master, size_t position);

/* A field of kemd/network_fields.h. EOPNOTSUPP: the kernel or the driver does not say, or the field
 * does not fit this kind of interface. EPERM or EACCES: only for those with more rights. ENODATA:
 * not among the parts of the snapshot. Another number: the request failed with it. EINVAL: the
 * field is a text, or this daemon does not know it. */
KEMD_API int KemdNetworkNumber(const struct KemdNetworkInterface* interface, uint32_t field,
                               uint64_t* value);
/* The same for any field as text: a number in decimal or as its word, flags as words with blanks
 * between. */
KEMD_API int KemdNetworkText(const struct KemdNetworkInterface* interface, uint32_t field,
                             char* out, size_t* size);

#define KEMD_NETWORK_KIND_TEXT 0u
#define KEMD_NETWORK_KIND_NUMBER 1u
#define KEMD_NETWORK_KIND_WORD 2u  /* a number, one of a list of words */
#define KEMD_NETWORK_KIND_FLAGS 3u /* a number, several of a list of words */
#define KEMD_NETWORK_KIND_YES 4u   /* 0 or 1 */
#define KEMD_NETWORK_KIND_INDEX 5u /* of another interface */

/* What a field is, for programs that show all of them. */
struct KemdNetworkFieldInfo {
    uint32_t size;
    uint32_t kind;    /* KEMD_NETWORK_KIND_ */
    uint32_t part;    /* KEMD_NETWORK_HARDWARE ..., 0 for what every snapshot has */
    const char* name; /* as in JSON: "carrier_changes" */
    const char* unit; /* "Mbit/s"; empty for none */
};
/* ENOENT after the last. */
KEMD_API int KemdNetworkField(uint32_t field, struct KemdNetworkFieldInfo* info);

/* Lists of names. */
#define KEMD_NETWORK_ALTERNATIVE_NAMES 0u
#define KEMD_NETWORK_SUPPORTED_MODES 1u
#define KEMD_NETWORK_ADVERTISED_MODES 2u
#define KEMD_NETWORK_PEER_MODES 3u
#define KEMD_NETWORK_FEATURES 4u            /* offloads that are on */
#define KEMD_NETWORK_CHANGEABLE_FEATURES 5u /* that may be switched */
#define KEMD_NETWORK_WANTED_FEATURES 6u     /* that were asked for */
#define KEMD_NETWORK_WAKE_MODES 7u          /* wake-on-LAN as it is set */
#define KEMD_NETWORK_SUPPORTED_WAKE_MODES 8u

/* ENOENT after the last; the errors of KemdNetworkNumber when the whole list is absent. */
KEMD_API int KemdNetworkListAt(const struct KemdNetworkInterface* interface, uint32_t list,
                               size_t position, char* out, size_t* size);
/* A statistic of a standard group: "rmon/etherStatsOversizePkts". As above. */
KEMD_API int KemdNetworkStatisticAt(const struct KemdNetworkInterface* interface, size_t position,
                                    char* out, size_t* size, uint64_t* value);

#define KEMD_NETWORK_FOREVER 0xFFFFFFFFu

struct KemdNetworkAddress {
    uint32_t size;
    uint16_t family; /* AF_INET or AF_INET6 */
    uint8_t prefix;  /* bits */
    uint8_t scope;   /* RT_SCOPE_ */
    uint32_t flags;  /* IFA_F_ */
    uint32_t preferredSeconds;
    uint32_t validSeconds;
    uint32_t metric;      /* of the route that goes with it; 0: the default */
    uint8_t protocol;     /* IFAPROT_: who set it */
    uint8_t hasPeer;      /* 0 or 1, as the next */
    uint8_t hasBroadcast; /* IPv4 */
    char label[17];       /* IPv4 */
    uint8_t address[16];  /* 4 or 16 bytes, in the order of the network */
    uint8_t peer[16];
    uint8_t broadcast[16];
};
/* ENOENT after the last; ENODATA. */
KEMD_API int KemdNetworkAddressAt(const struct KemdNetworkInterface* interface, size_t position,
                                  struct KemdNetworkAddress* address);

/* A default route; of one with several next hops one for each. */
struct KemdNetworkRoute {
    uint32_t size;
    uint32_t family;
    uint32_t table;
    uint32_t metric;
    uint32_t interface; /* index; 0: none, as of a route that refuses */
    uint32_t weight;    /* among several next hops; 0: the only one */
    uint32_t flags;     /* RTNH_F_ */
    uint8_t type;       /* RTN_ */
    uint8_t protocol;   /* RTPROT_ */
    uint8_t scope;      /* RT_SCOPE_ */
    uint8_t hasSource;
    uint32_t gatewayFamily; /* 0: none */
    uint8_t gateway[16];
    uint8_t source[16]; /* preferred source address */
};
/* By family, table and metric. ENOENT after the last; ENODATA. */
KEMD_API int KemdNetworkRouteAt(const struct KemdNetworkSnapshot* snapshot, size_t position,
                                struct KemdNetworkRoute* route);

/* A virtual function. Settings that the driver does not say are -1. */
struct KemdNetworkVirtualFunction {
    uint32_t size;
    uint32_t number;
    uint8_t mac[32];
    uint32_t macLength;
    int32_t vlan; /* 0: none */
    int32_t vlanPriority;
    int32_t vlanProtocol; /* 0x8100, 0x88a8 */
    int64_t minRate;      /* Mbit/s; 0: no limit */
    int64_t maxRate;
    int32_t linkState; /* IFLA_VF_LINK_STATE_ */
    int32_t isSpoofChecked;
    int32_t isTrusted;
    int32_t hasCounters; /* 0 or 1 */
    uint64_t rxPackets, txPackets, rxBytes, txBytes, rxDropped, txDropped, broadcast, multicast;
};
KEMD_API int KemdNetworkVirtualFunctionAt(const struct KemdNetworkInterface* interface,
                                          size_t position,
                                          struct KemdNetworkVirtualFunction* function);

/* Changes. */
struct KemdNetworkWatch;

#define KEMD_NETWORK_ADDED 1u
#define KEMD_NETWORK_REMOVED 2u
#define KEMD_NETWORK_RENAMED 4u
#define KEMD_NETWORK_UP 8u       /* switched on or off: IFF_UP */
#define KEMD_NETWORK_CARRIER 16u /* carrier, also lost and back, or operational state */
#define KEMD_NETWORK_ADDRESS 32u
#define KEMD_NETWORK_MASTER 64u
#define KEMD_NETWORK_ROUTE 128u
#define KEMD_NETWORK_SPEED 256u /* speed or duplex, with KEMD_NETWORK_LINK_SPEED */
#define KEMD_NETWORK_OTHER 512u /* MTU, MAC, alias, ... */

struct KemdNetworkChange {
    uint32_t size;
    uint32_t what;                              /* KEMD_NETWORK_ADDED ..., several together */
    int64_t time;                               /* ns since 1970, when it was read */
    const struct KemdNetworkInterface* before;  /* null: there was none */
    const struct KemdNetworkInterface* after;   /* null: there is none */
    const struct KemdNetworkRoute* routeBefore; /* KEMD_NETWORK_ROUTE alone; null: new */
    const struct KemdNetworkRoute* routeAfter;  /* null: gone, maybe with its interface */
};
/* All that `change` points to is valid until the callback returns. It must not close the watch. */
typedef void (*KemdNetworkOnChange)(void* user, const struct KemdNetworkChange* change);

/* From now on; what is there already is not delivered, KemdNetworkWatchSnapshot has it. `parts` as
 * for KemdNetworkTake. */
KEMD_API int KemdNetworkWatchOpen(struct KemdNetworkWatch** watch, int nameSpace, uint32_t parts,
                                  KemdNetworkOnChange onChange, void* user);
/* Waits for changes and delivers them in the calling thread: 0. ETIMEDOUT after `timeoutMs`
 * milliseconds (KEMD_WAIT_FOREVER of kemd/services.h: waits without a wake-up), ECANCELED after
 * KemdNetworkWatchStop. When changes came faster than they were read, those that followed each
 * other are delivered as one. */
KEMD_API int KemdNetworkWatchWait(struct KemdNetworkWatch* watch, uint32_t timeoutMs);
/* Readable when KemdNetworkWatchWait would not wait. Not to be read or closed. */
KEMD_API int KemdNetworkWatchDescriptor(const struct KemdNetworkWatch* watch);
/* Ends all waiting, now and later; from any thread. */
KEMD_API int KemdNetworkWatchStop(struct KemdNetworkWatch* watch);
/* The state after the changes that were delivered, to be released by the caller. Not while another
 * thread waits. */
KEMD_API int KemdNetworkWatchSnapshot(const struct KemdNetworkWatch* watch,
                                      struct KemdNetworkSnapshot** snapshot);
KEMD_API void KemdNetworkWatchClose(struct KemdNetworkWatch* watch);

#ifdef __cplusplus
}
#endif
