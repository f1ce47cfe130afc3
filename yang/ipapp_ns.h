/*
 * Namespace header of the "ipapp" interface model: the tag numbers the data
 * model's compiler assigns to the element names that the validation handlers
 * compare keypath elements with. Shared by the plug-in and the data store.
 */
#ifndef IPAPP_NS_H
#define IPAPP_NS_H

#define ipapp__ns 0x1BA6C4D2
#define ipapp__ns_id "urn:ipapp:ipapp"
#define ipapp__ns_uri "urn:ipapp:ipapp"

#define ipapp_l3 0x213F1A7A             /* 557783674 */
#define ipapp_loopback 0x1472CCED       /* 343067885 */
#define ipapp_mgmt 0x1412343F           /* 336737343 */
#define ipapp_address 0x4B843099        /* 1266954393 */
#define ipapp_lower_layer_if 0x0EBC6930 /* 247228720 */
#define ipapp_vlan 0x0442B85D           /* 71481437 */
#define ipapp_vrf 0x4C5F3E78            /* 1281310328 */

#endif /* IPAPP_NS_H */
