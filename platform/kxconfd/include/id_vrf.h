// The element's VRF-identity service.
#ifndef ID_VRF_H
#define ID_VRF_H

#include <stdint.h>

/// VRF identity of a forwarding-table component: the key of the internal
/// VRF table (indexTOstring) under which the VRF's name is kept.
uint32_t IdVrfFromComponent(uint32_t component);

#endif  // ID_VRF_H
