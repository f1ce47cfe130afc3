// The element's interface-identifier service.
#ifndef IFUID_H
#define IFUID_H

#include <stdint.h>

/// Identifier of an interface of the element.
typedef uint32_t ifuid_t;

/// Fills *ifuid with the identifier of the L3 interface on VLAN vlan
/// (0x0C000000 | vlan). Returns 0, or -1 for a VLAN outside 1..4094.
extern "C" int ifuid_l3_vlan_from_components(ifuid_t *ifuid, int32_t vlan);

/// System interface index of an interface (1000 + VLAN for L3 VLAN
/// interfaces); -1 for an identifier that names no interface.
extern "C" int ifuid_to_ifindex(ifuid_t ifuid);

#endif  // IFUID_H
