/* What is known of a network interface: one number for each field, for kemd/network.h. New fields
 * are added at the end. docs/network.md says where each value comes from.
 *
 * Numbers with words ("word") and sets of flags ("flags") have the values of the kernel's headers,
 * which are named here; KemdNetworkText returns the words.
 */
#pragma once

/* Identity */
#define KEMD_NET_INDEX 0u
#define KEMD_NET_NAME 1u  /* text */
#define KEMD_NET_ALIAS 2u /* text, as the administrator set it */
#define KEMD_NET_KIND 3u  /* text: physical, loopback, bridge, bond, vlan, veth, tun, tap ... */
#define KEMD_NET_TYPE 4u  /* word: ARPHRD_ of the link layer */

/* State */
#define KEMD_NET_FLAGS 5u      /* flags: IFF_ */
#define KEMD_NET_OPER_STATE 6u /* word: IF_OPER_ */
#define KEMD_NET_LINK_MODE 7u  /* word: IF_LINK_MODE_ */
#define KEMD_NET_CARRIER 8u    /* 0 or 1 */
#define KEMD_NET_CARRIER_CHANGES 9u
#define KEMD_NET_CARRIER_UPS 10u
#define KEMD_NET_CARRIER_DOWNS 11u
#define KEMD_NET_PROTO_DOWN 12u  /* 0 or 1: held down by a protocol */
#define KEMD_NET_PROMISCUITY 13u /* how many want promiscuous mode */
#define KEMD_NET_ALLMULTI 14u    /* how many want all multicast frames */

/* Link layer */
#define KEMD_NET_MTU 15u /* bytes */
#define KEMD_NET_MIN_MTU 16u
#define KEMD_NET_MAX_MTU 17u       /* absent: no limit */
#define KEMD_NET_MAC 18u           /* text */
#define KEMD_NET_BROADCAST 19u     /* text */
#define KEMD_NET_PERMANENT_MAC 20u /* text */
#define KEMD_NET_QDISC 21u         /* text */
#define KEMD_NET_QUEUE_LENGTH 22u  /* frames */
#define KEMD_NET_GROUP 23u
#define KEMD_NET_TX_QUEUES 24u
#define KEMD_NET_RX_QUEUES 25u
#define KEMD_NET_GSO_MAX_SIZE 26u /* bytes */
#define KEMD_NET_GSO_MAX_SEGMENTS 27u

/* Relations */
#define KEMD_NET_PARENT 28u            /* index of the interface below, or of the peer of a veth */
#define KEMD_NET_PARENT_NAME_SPACE 29u /* id of the name space of that, when it is another one */
#define KEMD_NET_MASTER 30u            /* index */
#define KEMD_NET_MEMBER_KIND 31u       /* text: of what it is a member: bridge, bond, team, vrf */
#define KEMD_NET_PORT_NAME 32u         /* text: of the physical port */
#define KEMD_NET_PORT_ID 33u           /* text, hexadecimal */
#define KEMD_NET_SWITCH_ID 34u         /* text, hexadecimal */

/* Of one kind */
#define KEMD_NET_VLAN_ID 35u
#define KEMD_NET_VLAN_PROTOCOL 36u /* word: 0x8100 802.1Q, 0x88a8 802.1ad */
#define KEMD_NET_MACVLAN_MODE 37u  /* word: MACVLAN_MODE_ */
#define KEMD_NET_IPVLAN_MODE 38u   /* word: IPVLAN_MODE_ */
#define KEMD_NET_VXLAN_ID 39u
#define KEMD_NET_VXLAN_PORT 40u
#define KEMD_NET_VXLAN_REMOTE 41u   /* text: address of the group or of the other end */
#define KEMD_NET_VXLAN_LOCAL 42u    /* text */
#define KEMD_NET_TUN_OWNER 43u      /* user id */
#define KEMD_NET_TUN_GROUP 44u      /* group id */
#define KEMD_NET_TUN_PERSISTENT 45u /* 0 or 1 */
#define KEMD_NET_VRF_TABLE 46u
#define KEMD_NET_BRIDGE_STP 47u   /* word: 0 off, 1 kernel, 2 user */
#define KEMD_NET_BRIDGE_VLANS 48u /* 0 or 1: filters by VLAN */
#define KEMD_NET_BRIDGE_PRIORITY 49u
#define KEMD_NET_BRIDGE_PORT_STATE 50u /* word: BR_STATE_, of a member */
#define KEMD_NET_BRIDGE_PORT_COST 51u
#define KEMD_NET_BOND_MODE 52u         /* word: BOND_MODE_ */
#define KEMD_NET_BOND_MIIMON 53u       /* ms */
#define KEMD_NET_BOND_ACTIVE 54u       /* index of the active member */
#define KEMD_NET_BOND_PRIMARY 55u      /* index */
#define KEMD_NET_BOND_UP_DELAY 56u     /* ms */
#define KEMD_NET_BOND_DOWN_DELAY 57u   /* ms */
#define KEMD_NET_BOND_HASH 58u         /* word: BOND_XMIT_POLICY_ */
#define KEMD_NET_BOND_LACP_RATE 59u    /* word: 0 slow, 1 fast */
#define KEMD_NET_BOND_MEMBER_STATE 60u /* word: BOND_STATE_: active or backup */
#define KEMD_NET_BOND_MEMBER_MII 61u   /* word: BOND_LINK_ */
#define KEMD_NET_BOND_MEMBER_FAILURES 62u
#define KEMD_NET_BOND_MEMBER_MAC 63u /* text: what it had before it was a member */
#define KEMD_NET_BOND_MEMBER_QUEUE 64u
#define KEMD_NET_BOND_MEMBER_AGGREGATOR 65u

/* Counters, 64 bits, since the interface is there */
#define KEMD_NET_RX_PACKETS 66u
#define KEMD_NET_TX_PACKETS 67u
#define KEMD_NET_RX_BYTES 68u
#define KEMD_NET_TX_BYTES 69u
#define KEMD_NET_RX_ERRORS 70u
#define KEMD_NET_TX_ERRORS 71u
#define KEMD_NET_RX_DROPPED 72u
#define KEMD_NET_TX_DROPPED 73u
#define KEMD_NET_MULTICAST 74u
#define KEMD_NET_COLLISIONS 75u
#define KEMD_NET_RX_LENGTH_ERRORS 76u
#define KEMD_NET_RX_OVER_ERRORS 77u
#define KEMD_NET_RX_CRC_ERRORS 78u
#define KEMD_NET_RX_FRAME_ERRORS 79u
#define KEMD_NET_RX_FIFO_ERRORS 80u
#define KEMD_NET_RX_MISSED_ERRORS 81u
#define KEMD_NET_TX_ABORTED_ERRORS 82u
#define KEMD_NET_TX_CARRIER_ERRORS 83u
#define KEMD_NET_TX_FIFO_ERRORS 84u
#define KEMD_NET_TX_HEARTBEAT_ERRORS 85u
#define KEMD_NET_TX_WINDOW_ERRORS 86u
#define KEMD_NET_RX_COMPRESSED 87u
#define KEMD_NET_TX_COMPRESSED 88u
#define KEMD_NET_RX_NO_HANDLER 89u
#define KEMD_NET_RX_OTHER_HOST_DROPPED 90u

/* KEMD_NETWORK_HARDWARE */
#define KEMD_NET_BUS 91u /* text: pci, usb, virtio ... */
#define KEMD_NET_BUS_ADDRESS \
    92u /* text: "0000:02:00.0"; of a virtio device that of its PCI function */
#define KEMD_NET_NUMA_NODE 93u
#define KEMD_NET_DRIVER 94u           /* text */
#define KEMD_NET_DRIVER_VERSION 95u   /* text */
#define KEMD_NET_FIRMWARE 96u         /* text */
#define KEMD_NET_SPEED 97u            /* Mbit/s */
#define KEMD_NET_DUPLEX 98u           /* word: DUPLEX_ */
#define KEMD_NET_AUTO_NEGOTIATION 99u /* 0 or 1 */
#define KEMD_NET_LANES 100u
#define KEMD_NET_PORT 101u /* word: PORT_ */
#define KEMD_NET_PHY_ADDRESS 102u
#define KEMD_NET_TRANSCEIVER 103u    /* word: XCVR_ */
#define KEMD_NET_LINK_DETECTED 104u  /* 0 or 1, as the driver says */
#define KEMD_NET_SIGNAL_QUALITY 105u /* up to KEMD_NET_SIGNAL_QUALITY_MAX */
#define KEMD_NET_SIGNAL_QUALITY_MAX 106u
#define KEMD_NET_LINK_DOWN_REASON 107u /* word: ETHTOOL_LINK_EXT_STATE_ */
#define KEMD_NET_LINK_DOWN_DETAIL 108u /* ETHTOOL_LINK_EXT_SUBSTATE_, by reason */

/* KEMD_NETWORK_SETTINGS */
#define KEMD_NET_PAUSE_AUTO 109u /* 0 or 1 */
#define KEMD_NET_PAUSE_RX 110u   /* 0 or 1 */
#define KEMD_NET_PAUSE_TX 111u   /* 0 or 1 */
#define KEMD_NET_RING_RX 112u    /* entries */
#define KEMD_NET_RING_RX_MAX 113u
#define KEMD_NET_RING_RX_MINI 114u
#define KEMD_NET_RING_RX_MINI_MAX 115u
#define KEMD_NET_RING_RX_JUMBO 116u
#define KEMD_NET_RING_RX_JUMBO_MAX 117u
#define KEMD_NET_RING_TX 118u
#define KEMD_NET_RING_TX_MAX 119u
#define KEMD_NET_CHANNELS_RX 120u
#define KEMD_NET_CHANNELS_RX_MAX 121u
#define KEMD_NET_CHANNELS_TX 122u
#define KEMD_NET_CHANNELS_TX_MAX 123u
#define KEMD_NET_CHANNELS_OTHER 124u
#define KEMD_NET_CHANNELS_OTHER_MAX 125u
#define KEMD_NET_CHANNELS_COMBINED 126u
#define KEMD_NET_CHANNELS_COMBINED_MAX 127u

/* KEMD_NETWORK_MODULE: what is plugged in */
#define KEMD_NET_MODULE_TYPE 128u      /* word: identifier of SFF-8024 */
#define KEMD_NET_MODULE_CONNECTOR 129u /* word: connector of SFF-8024 */
#define KEMD_NET_MODULE_VENDOR 130u    /* text */
#define KEMD_NET_MODULE_OUI 131u       /* text */
#define KEMD_NET_MODULE_PART 132u      /* text */
#define KEMD_NET_MODULE_REVISION 133u  /* text */
#define KEMD_NET_MODULE_SERIAL 134u    /* text */
#define KEMD_NET_MODULE_DATE 135u      /* text: YYMMDD, and two characters of the maker's */

/* Teams and their members, for root; with KEMD_NETWORK_SETTINGS */
#define KEMD_NET_TEAM_MODE 136u           /* text: activebackup, loadbalance ... */
#define KEMD_NET_TEAM_ACTIVE 137u         /* index of the active member */
#define KEMD_NET_TEAM_MEMBER_ENABLED 138u /* 0 or 1 */
#define KEMD_NET_TEAM_MEMBER_LINK 139u    /* 0 or 1, as the team sees it */
/* How many there are here; grows. */
#define KEMD_NET_FIELDS 140u
