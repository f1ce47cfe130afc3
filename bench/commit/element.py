"""A fully configured element, scaled by its number of L3 interfaces.

At 256 L3 interfaces the element is at its limits: every L3 interface with a
primary and three secondary IPv4 addresses and two IPv6 addresses, 256
loopbacks, 16 management interfaces, 800 static routes weighing 1000 (600 IPv4,
200 IPv6, each with its rtmStaticRtEntry-global row), 192 LDP rows and 512
OSPF/OSPFv3 rows (384 OSPF: every other L3 interface and every loopback; 128
OSPFv3: every fourth L3 interface and a quarter of the loopbacks). Every other
table grows in proportion to the L3 interfaces.

The candidate is the running configuration with the primary address of one L3
interface moved within its subnet. That interface runs OSPFv3 but not OSPF,
so the commit is accepted and every validation of the commit runs to its end:
the OSPF cross check walks every OSPF row. The LDP rows name interfaces of
their own (an LDP interface must have exactly one IPv4 address); which names
they hold does not change what the plug-in reads.

ospf_areas > 1 puts every OSPF interface in that many areas of its instance,
one row per area (the rows of the second area follow those of the first, and
so on): the same element with that many times the OSPF rows per interface.
The commit is still accepted, and the OSPF cross check walks every row and
re-reads the whole running table for each.
"""

VRFS = 8


def _ipv4_hex(a, b, c, d):
    return "%02x:%02x:%02x:%02x" % (a, b, c, d)


def _ipv6_hex(words):
    return ":".join("%02x:%02x" % (w >> 8, w & 0xFF) for w in words)


def _l3_name(i):
    return "ge%d" % i


def _l3(i, n, changed):
    hi, lo = i >> 8, i & 0xFF
    secondaries = ["10.%d.%d.1/24" % (64 * k + hi, lo) for k in (1, 2, 3)]
    vrf = "<vrf>cust%d</vrf>" % (1 + (i // 4) % VRFS) if i % 4 == 3 else ""
    return (
        '<l3 xmlns="urn:ipapp:ipapp"><name>%s</name>'
        "<ipv4><address><ip>10.%d.%d.%d/24</ip>%s</address></ipv4>"
        "<ipv6><address><ip>2001:db8:%x::1/64</ip></address>"
        "<address><ip>2001:db8:%x:1::1/64</ip></address></ipv6>"
        "<lower-layer-if><vlan>%d</vlan></lower-layer-if>%s</l3>\n"
        % (
            _l3_name(i),
            hi,
            lo,
            5 if changed else 1,
            "".join("<secondary><ip>%s</ip></secondary>" % s for s in secondaries),
            i,
            i,
            i + 1,
            vrf,
        )
    )


def _loopback(i):
    return (
        '<loopback xmlns="urn:ipapp:ipapp"><name>%d</name>'
        "<ipv4><address><ip>172.%d.%d.1/32</ip></address></ipv4>"
        "<ipv6><address><ip>2001:db8:ffff:%x::1/128</ip></address></ipv6></loopback>\n"
        % (i, 16 + (i >> 8), i & 0xFF, i)
    )


def _mgmt(i):
    return (
        '<mgmt xmlns="urn:ipapp:ipapp"><name>%d</name>'
        "<ipv4><address><ip>192.168.%d.10/24</ip></address></ipv4><vrf>mgmt</vrf></mgmt>\n" % (i, i)
    )


def _routes(n):
    """(fte, family, network hex, prefix len, next-hop hex, interface) per route."""
    routes = []
    for j in range(600 * n // 256):
        k = j % n
        fte = 1 + (k // 4) % VRFS if k % 4 == 3 else 0
        net = _ipv4_hex(20 + (j >> 16), (j >> 8) & 0xFF, j & 0xFF, 0)
        hop = _ipv4_hex(10, k >> 8, k & 0xFF, 2)
        routes.append((fte, "ipv4", net, 24, hop, _l3_name(k)))
    for j in range(200 * n // 256):
        k = j % n
        fte = 1 + (k // 4) % VRFS if k % 4 == 3 else 0
        net = _ipv6_hex([0x2001, 0xDB9, j, 0, 0, 0, 0, 0])
        hop = _ipv6_hex([0x2001, 0xDB8, k, 0, 0, 0, 0, 2])
        routes.append((fte, "ipv6", net, 48, hop, _l3_name(k)))
    return routes


def ospf_rows(n, ospf_areas=1):
    """OSPF rows of the element: every other L3 interface and every loopback, per area."""
    return ospf_areas * (n // 2 + n)


def configuration(n, candidate=False, ospf_areas=1):
    """The element's configuration as XML text, n L3 interfaces (a multiple of 4)."""
    changed = n - 3  # i % 4 == 1: OSPFv3, no OSPF, no VRF
    out = ['<config xmlns="urn:ipapp:shellcfg"><interface>\n']
    out += [_l3(i, n, candidate and i == changed) for i in range(n)]
    out += [_loopback(i) for i in range(n)]
    out += [_mgmt(i) for i in range(max(1, n // 16))]
    out.append("</interface></config>\n")

    out.append('<internal xmlns="urn:ipapp:shellcfg-internal"><vrf-config>\n')
    for v in range(1, VRFS + 1):
        out.append("<indexTOstring><index>%d</index><vname>cust%d</vname></indexTOstring>\n" % (v, v))
    out.append(
        "<indexTOstring><index>%d</index><vname>mgmt</vname></indexTOstring></vrf-config>\n"
        % (VRFS + 1)
    )
    ospf = ["l3-%s" % _l3_name(i) for i in range(0, n, 2)] + ["loopback-%d" % i for i in range(n)]
    for a in range(ospf_areas):
        for k, name in enumerate(ospf):
            out.append(
                "<ospf-interface-l3><instance>1</instance><area>0.0.0.%d</area><if-name>%s</if-name>"
                "<ospf-pm-if-name>%s</ospf-pm-if-name></ospf-interface-l3>\n"
                % (4 * a + k % 4, name, name)
            )
    v3 = [("l3-%s" % _l3_name(i), 1000 + i + 1) for i in range(1, n, 4)]
    v3 += [("loopback-%d" % i, 10000 + i) for i in range(n // 4)]
    for k, (name, ifindex) in enumerate(v3):
        out.append(
            "<ospfv3-interface-l3><instance>2</instance><area>0.0.0.%d</area><if-name>%s</if-name>"
            "<ospfv3-pm-if-name>%s</ospfv3-pm-if-name><ospfv3-pm-if-index>%d</ospfv3-pm-if-index>"
            "</ospfv3-interface-l3>\n" % (k % 4, name, name, ifindex)
        )
    for i in range(3 * n // 4):
        out.append(
            "<int-ldp-intf-l3><if-name>l3-mpls%d</if-name><lower-layer>l3-vlan</lower-layer>"
            "<vlan>%d</vlan><address>10.250.%d.%d/30</address></int-ldp-intf-l3>\n"
            % (i, 2000 + i, i >> 6, 4 * (i & 63) + 1)
        )
    out.append(
        "<int-ldp-intf-lo><if-name>loopback-0</if-name><address>172.16.0.1/32</address>"
        "</int-ldp-intf-lo></internal>\n"
    )

    routes = _routes(n)
    out.append('<QX-RTM-MIB xmlns="urn:ipapp:QX-RTM-MIB"><rtmStaticRtTable>\n')
    for fte, family, net, plen, hop, _ in routes:
        out.append(
            "<rtmStaticRtEntry><rtmStaticRtFteIndex>%d</rtmStaticRtFteIndex>"
            "<rtmStaticRtNetworkAddrType>%s</rtmStaticRtNetworkAddrType>"
            "<rtmStaticRtNetworkAddr>%s</rtmStaticRtNetworkAddr>"
            "<rtmStaticRtNetworkPrefixLen>%d</rtmStaticRtNetworkPrefixLen>"
            "<rtmStaticRtNextHopAddrType>%s</rtmStaticRtNextHopAddrType>"
            "<rtmStaticRtNextHopAddr>%s</rtmStaticRtNextHopAddr></rtmStaticRtEntry>\n"
            % (fte, family, net, plen, family, hop)
        )
    out.append("</rtmStaticRtTable></QX-RTM-MIB>\n")
    for fte, _, net, plen, hop, intf in routes:
        out.append(
            '<rtmStaticRtEntry-global xmlns="urn:ipapp:rtm-global"><fte-index>%d</fte-index>'
            "<network>%s</network><prefix-len>%d</prefix-len><next-hop>%s</next-hop>"
            "<interface-name>l3-%s</interface-name></rtmStaticRtEntry-global>\n"
            % (fte, net, plen, hop, intf)
        )
    return "".join(out)


def write(n, running_path, candidate_path, ospf_areas=1):
    with open(running_path, "w") as f:
        f.write(configuration(n, ospf_areas=ospf_areas))
    with open(candidate_path, "w") as f:
        f.write(configuration(n, candidate=True, ospf_areas=ospf_areas))
