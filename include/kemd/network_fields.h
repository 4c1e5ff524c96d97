/* What is known of a network interface: one number for each field, for kemd/network.h. New fields
 * are added at the end. docs/network.md says where each value comes from.
 *
 * Numbers with words ("word") and sets of flags ("flags") have the values of the kernel's headers,
 * which are named here; KemdNetworkText returns the words.
 */
#pragma once

/* clang-format off */
enum {
    /* Identity */
    KEMD_NET_INDEX = 0,
    KEMD_NET_NAME,              /* text */
    KEMD_NET_ALIAS,             /* text, as the administrator set it */
    KEMD_NET_KIND,              /* text: physical, loopback, bridge, bond, vlan, veth, tun, tap ... */
    KEMD_NET_TYPE,              /* word: ARPHRD_ of the link layer */
    /* State */
    KEMD_NET_FLAGS,             /* flags: IFF_ */
    KEMD_NET_OPER_STATE,        /* word: IF_OPER_ */
    KEMD_NET_LINK_MODE,         /* word: IF_LINK_MODE_ */
    KEMD_NET_CARRIER,           /* 0 or 1 */
    KEMD_NET_CARRIER_CHANGES,
    KEMD_NET_CARRIER_UPS,
    KEMD_NET_CARRIER_DOWNS,
    KEMD_NET_PROTO_DOWN,        /* 0 or 1: held down by a protocol */
    KEMD_NET_PROMISCUITY,       /* how many want promiscuous mode */
    KEMD_NET_ALLMULTI,          /* how many want all multicast frames */
    /* Link layer */
    KEMD_NET_MTU,               /* bytes */
    KEMD_NET_MIN_MTU,
    KEMD_NET_MAX_MTU,           /* absent: no limit */
    KEMD_NET_MAC,               /* text */
    KEMD_NET_BROADCAST,         /* text */
    KEMD_NET_PERMANENT_MAC,     /* text */
    KEMD_NET_QDISC,             /* text */
    KEMD_NET_QUEUE_LENGTH,      /* frames */
    KEMD_NET_GROUP,
    KEMD_NET_TX_QUEUES,
    KEMD_NET_RX_QUEUES,
    KEMD_NET_GSO_MAX_SIZE,      /* bytes */
    KEMD_NET_GSO_MAX_SEGMENTS,
    /* Relations */
    KEMD_NET_PARENT,            /* index of the interface below, or of the peer of a veth */
    KEMD_NET_PARENT_NAME_SPACE, /* id of the name space of that, when it is another one */
    KEMD_NET_MASTER,            /* index */
    KEMD_NET_MEMBER_KIND,       /* text: of what it is a member: bridge, bond, team, vrf */
    KEMD_NET_PORT_NAME,         /* text: of the physical port */
    KEMD_NET_PORT_ID,           /* text, hexadecimal */
    KEMD_NET_SWITCH_ID,         /* text, hexadecimal */
    /* Of one kind */
    KEMD_NET_VLAN_ID,
    KEMD_NET_VLAN_PROTOCOL,     /* word: 0x8100 802.1Q, 0x88a8 802.1ad */
    KEMD_NET_MACVLAN_MODE,      /* word: MACVLAN_MODE_ */
    KEMD_NET_IPVLAN_MODE,       /* word: IPVLAN_MODE_ */
    KEMD_NET_VXLAN_ID,
    KEMD_NET_VXLAN_PORT,
    KEMD_NET_VXLAN_REMOTE,      /* text: address of the group or of the other end */
    KEMD_NET_VXLAN_LOCAL,       /* text */
    KEMD_NET_TUN_OWNER,         /* user id */
    KEMD_NET_TUN_GROUP,         /* group id */
    KEMD_NET_TUN_PERSISTENT,    /* 0 or 1 */
    KEMD_NET_VRF_TABLE,
    KEMD_NET_BRIDGE_STP,        /* word: 0 off, 1 kernel, 2 user */
    KEMD_NET_BRIDGE_VLANS,      /* 0 or 1: filters by VLAN */
    KEMD_NET_BRIDGE_PRIORITY,
    KEMD_NET_BRIDGE_PORT_STATE, /* word: BR_STATE_, of a member */
    KEMD_NET_BRIDGE_PORT_COST,
    KEMD_NET_BOND_MODE,         /* word: BOND_MODE_ */
    KEMD_NET_BOND_MIIMON,       /* ms */
    KEMD_NET_BOND_ACTIVE,       /* index of the active member */
    KEMD_NET_BOND_PRIMARY,      /* index */
    KEMD_NET_BOND_UP_DELAY,     /* ms */
    KEMD_NET_BOND_DOWN_DELAY,   /* ms */
    KEMD_NET_BOND_HASH,         /* word: BOND_XMIT_POLICY_ */
    KEMD_NET_BOND_LACP_RATE,    /* word: 0 slow, 1 fast */
    KEMD_NET_BOND_MEMBER_STATE, /* word: BOND_STATE_: active or backup */
    KEMD_NET_BOND_MEMBER_MII,   /* word: BOND_LINK_ */
    KEMD_NET_BOND_MEMBER_FAILURES,
    KEMD_NET_BOND_MEMBER_MAC,   /* text: what it had before it was a member */
    KEMD_NET_BOND_MEMBER_QUEUE,
    KEMD_NET_BOND_MEMBER_AGGREGATOR,
    /* Counters, 64 bits, since the interface is there */
    KEMD_NET_RX_PACKETS,
    KEMD_NET_TX_PACKETS,
    KEMD_NET_RX_BYTES,
    KEMD_NET_TX_BYTES,
    KEMD_NET_RX_ERRORS,
    KEMD_NET_TX_ERRORS,
    KEMD_NET_RX_DROPPED,
    KEMD_NET_TX_DROPPED,
    KEMD_NET_MULTICAST,
    KEMD_NET_COLLISIONS,
    KEMD_NET_RX_LENGTH_ERRORS,
    KEMD_NET_RX_OVER_ERRORS,
    KEMD_NET_RX_CRC_ERRORS,
    KEMD_NET_RX_FRAME_ERRORS,
    KEMD_NET_RX_FIFO_ERRORS,
    KEMD_NET_RX_MISSED_ERRORS,
    KEMD_NET_TX_ABORTED_ERRORS,
    KEMD_NET_TX_CARRIER_ERRORS,
    KEMD_NET_TX_FIFO_ERRORS,
    KEMD_NET_TX_HEARTBEAT_ERRORS,
    KEMD_NET_TX_WINDOW_ERRORS,
    KEMD_NET_RX_COMPRESSED,
    KEMD_NET_TX_COMPRESSED,
    KEMD_NET_RX_NO_HANDLER,
    KEMD_NET_RX_OTHER_HOST_DROPPED,
    /* KEMD_NETWORK_HARDWARE */
    KEMD_NET_BUS,               /* text: pci, usb, virtio ... */
    KEMD_NET_BUS_ADDRESS,       /* text: "0000:02:00.0"; of a virtio device that of its PCI function */
    KEMD_NET_NUMA_NODE,
    KEMD_NET_DRIVER,            /* text */
    KEMD_NET_DRIVER_VERSION,    /* text */
    KEMD_NET_FIRMWARE,          /* text */
    KEMD_NET_SPEED,             /* Mbit/s */
    KEMD_NET_DUPLEX,            /* word: DUPLEX_ */
    KEMD_NET_AUTO_NEGOTIATION,  /* 0 or 1 */
    KEMD_NET_LANES,
    KEMD_NET_PORT,              /* word: PORT_ */
    KEMD_NET_PHY_ADDRESS,
    KEMD_NET_TRANSCEIVER,       /* word: XCVR_ */
    KEMD_NET_LINK_DETECTED,     /* 0 or 1, as the driver says */
    KEMD_NET_SIGNAL_QUALITY,    /* up to KEMD_NET_SIGNAL_QUALITY_MAX */
    KEMD_NET_SIGNAL_QUALITY_MAX,
    KEMD_NET_LINK_DOWN_REASON,  /* word: ETHTOOL_LINK_EXT_STATE_ */
    KEMD_NET_LINK_DOWN_DETAIL,  /* ETHTOOL_LINK_EXT_SUBSTATE_, by reason */
    /* KEMD_NETWORK_SETTINGS */
    KEMD_NET_PAUSE_AUTO,        /* 0 or 1 */
    KEMD_NET_PAUSE_RX,          /* 0 or 1 */
    KEMD_NET_PAUSE_TX,          /* 0 or 1 */
    KEMD_NET_RING_RX,           /* entries */
    KEMD_NET_RING_RX_MAX,
    KEMD_NET_RING_RX_MINI,
    KEMD_NET_RING_RX_MINI_MAX,
    KEMD_NET_RING_RX_JUMBO,
    KEMD_NET_RING_RX_JUMBO_MAX,
    KEMD_NET_RING_TX,
    KEMD_NET_RING_TX_MAX,
    KEMD_NET_CHANNELS_RX,
    KEMD_NET_CHANNELS_RX_MAX,
    KEMD_NET_CHANNELS_TX,
    KEMD_NET_CHANNELS_TX_MAX,
    KEMD_NET_CHANNELS_OTHER,
    KEMD_NET_CHANNELS_OTHER_MAX,
    KEMD_NET_CHANNELS_COMBINED,
    KEMD_NET_CHANNELS_COMBINED_MAX,
    /* KEMD_NETWORK_MODULE: what is plugged in */
    KEMD_NET_MODULE_TYPE,       /* word: identifier of SFF-8024 */
    KEMD_NET_MODULE_CONNECTOR,  /* word: connector of SFF-8024 */
    KEMD_NET_MODULE_VENDOR,     /* text */
    KEMD_NET_MODULE_OUI,        /* text */
    KEMD_NET_MODULE_PART,       /* text */
    KEMD_NET_MODULE_REVISION,   /* text */
    KEMD_NET_MODULE_SERIAL,     /* text */
    KEMD_NET_MODULE_DATE,       /* text: YYMMDD, and two characters of the maker's */
    KEMD_NET_FIELDS             /* how many there are here; grows */
};
/* clang-format on */
