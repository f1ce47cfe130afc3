// Data-store paths the rules read. The paths a handler names are recorded in
// call traces: each is written here once, as the handlers have always
// written it (some with the module prefix, some without).
#ifndef IP_APP_VALIDATION_STORE_PATHS_H
#define IP_APP_VALIDATION_STORE_PATHS_H

namespace ip_application::store_paths {

inline constexpr char kL3List[] = "/config/interface/ipapp:l3";
inline constexpr char kLoopbackList[] = "/config/interface/ipapp:loopback";
inline constexpr char kMgmtList[] = "/config/interface/ipapp:mgmt";
inline constexpr char kStaticRouteList[] = "/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry";
inline constexpr char kLdpL3List[] = "/internal/int-ldp-intf-l3";
inline constexpr char kLdpLoopbackList[] = "/internal/int-ldp-intf-lo";
inline constexpr char kOspfIntfList[] = "/internal/ospf-interface-l3";
inline constexpr char kOspfv3IntfList[] = "/internal/ospfv3-interface-l3";

/// The interface lists as the VRF handlers name them (no prefix).
inline constexpr char kL3[] = "/config/interface/l3";
inline constexpr char kLoopback[] = "/config/interface/loopback";

/// The start of an L3 interface's or a loopback's entry path: the name and
/// "}" follow.
inline constexpr char kL3EntryOpen[] = "/config/interface/l3{";
inline constexpr char kLoopbackEntryOpen[] = "/config/interface/loopback{";

}  // namespace ip_application::store_paths

#endif  // IP_APP_VALIDATION_STORE_PATHS_H
