// Builders for configuration snippets, so that a test reads like the
// configuration an operator writes. Interface names inside /internal are in
// stored form ("l3-core1").
#ifndef IPAPP_TESTS_CONFIG_XML_H
#define IPAPP_TESTS_CONFIG_XML_H

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <initializer_list>
#include <string>

namespace ipapp::test {

inline std::string E(const std::string &tag, const std::string &body) {
  return "<" + tag + ">" + body + "</" + tag + ">";
}

// /config/interface
inline std::string Interfaces(const std::string &body) {
  return "<config xmlns=\"urn:ipapp:shellcfg\"><interface>" + body + "</interface></config>";
}
inline std::string Entry(const std::string &list, const std::string &name,
                         const std::string &body) {
  return "<" + list + " xmlns=\"urn:ipapp:ipapp\"><name>" + name + "</name>" + body + "</" + list +
         ">";
}
inline std::string L3(const std::string &name, const std::string &body = "") {
  return Entry("l3", name, body);
}
inline std::string Lo(const std::string &name, const std::string &body = "") {
  return Entry("loopback", name, body);
}
inline std::string Mgmt(const std::string &name, const std::string &body = "") {
  return Entry("mgmt", name, body);
}
// L3 and mgmt: primary ("" for none) and secondaries.
inline std::string V4(const std::string &primary, std::initializer_list<std::string> more = {}) {
  std::string body = primary.empty() ? "" : E("ip", primary);
  for (const std::string &s : more) body += E("secondary", E("ip", s));
  return E("ipv4", E("address", body));
}
// Loopback IPv4 and every IPv6: a list of addresses.
inline std::string AddrList(const char *family, std::initializer_list<std::string> addrs) {
  std::string body;
  for (const std::string &a : addrs) body += E("address", E("ip", a));
  return E(family, body);
}
inline std::string LoV4(std::initializer_list<std::string> a) {
  return AddrList("ipv4", a);
}
inline std::string V6(std::initializer_list<std::string> a) {
  return AddrList("ipv6", a);
}
inline std::string Vlan(int vlan) {
  return E("lower-layer-if", E("vlan", std::to_string(vlan)));
}
inline std::string Vrf(const std::string &vrf) {
  return E("vrf", vrf);
}

// /internal
inline std::string Internal(const std::string &body) {
  return "<internal xmlns=\"urn:ipapp:shellcfg-internal\">" + body + "</internal>";
}
inline std::string VrfName(int index, const std::string &name) {
  return E("vrf-config", E("indexTOstring", E("index", std::to_string(index)) + E("vname", name)));
}
// table "ospf" or "ospfv3"; extra: further leaves of the row.
inline std::string Ospf(const std::string &if_name, const std::string &table = "ospf",
                        int instance = 1, const std::string &area = "0.0.0.0",
                        const std::string &extra = "") {
  return E(table + "-interface-l3", E("instance", std::to_string(instance)) + E("area", area) +
                                        E("if-name", if_name) + E(table + "-pm-if-name", if_name) +
                                        extra);
}
inline std::string LdpL3(const std::string &if_name, int vlan, const std::string &addr) {
  return E("int-ldp-intf-l3", E("if-name", if_name) + E("lower-layer", "l3-vlan") +
                                  E("vlan", std::to_string(vlan)) + E("address", addr));
}
inline std::string LdpLo(const std::string &if_name, const std::string &addr) {
  return E("int-ldp-intf-lo", E("if-name", if_name) + E("address", addr));
}

// Static routes; addresses as the tables' hex-string keys (0a:00:00:01).
inline std::string Hex(const std::string &addr) {
  unsigned char b[16];
  const bool v6 = addr.find(':') != std::string::npos;
  EXPECT_EQ(inet_pton(v6 ? AF_INET6 : AF_INET, addr.c_str(), b), 1) << addr;
  std::string hex;
  for (int i = 0; i < (v6 ? 16 : 4); ++i) {
    char pair[4];
    snprintf(pair, sizeof pair, "%s%02x", i == 0 ? "" : ":", b[i]);
    hex += pair;
  }
  return hex;
}
inline std::string Route(const std::string &net, int plen, const std::string &hop, int fte = 0) {
  const std::string family = net.find(':') != std::string::npos ? "ipv6" : "ipv4";
  return E("rtmStaticRtEntry",
           E("rtmStaticRtFteIndex", std::to_string(fte)) + E("rtmStaticRtNetworkAddrType", family) +
               E("rtmStaticRtNetworkAddr", Hex(net)) +
               E("rtmStaticRtNetworkPrefixLen", std::to_string(plen)) +
               E("rtmStaticRtNextHopAddrType", family) + E("rtmStaticRtNextHopAddr", Hex(hop)));
}
inline std::string Routes(const std::string &entries) {
  return "<QX-RTM-MIB xmlns=\"urn:ipapp:QX-RTM-MIB\">" + E("rtmStaticRtTable", entries) +
         "</QX-RTM-MIB>";
}
// A route's output interface, in stored form.
inline std::string RouteIntf(const std::string &net, int plen, const std::string &hop,
                             const std::string &intf) {
  return "<rtmStaticRtEntry-global xmlns=\"urn:ipapp:rtm-global\">" + E("fte-index", "0") +
         E("network", Hex(net)) + E("prefix-len", std::to_string(plen)) + E("next-hop", Hex(hop)) +
         E("interface-name", intf) + "</rtmStaticRtEntry-global>";
}

}  // namespace ipapp::test

#endif  // IPAPP_TESTS_CONFIG_XML_H
