#!/usr/bin/env python3
"""Writes the seed corpus of the fuzz programs: DHCPv4 messages as clients, relays
and servers send them, built field by field (RFC 2131, 2132, 3046, 3527, 5107, 6607),
DHCPv6 messages and the relay messages around them (RFC 8415, 4649, 6939, 6607), and the
Ethernet frames around DHCP and DHCPv6 messages (RFC 768, 791, 8200) and around neighbour
discovery (RFC 4443, 4861).
Run from anywhere; files are rewritten in place."""

import os
import struct

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")
COOKIE = bytes([99, 130, 83, 99])
MAC = bytes.fromhex("020000000001")


def ip(text):
    return bytes(int(p) for p in text.split("."))


def opt(code, value):
    return bytes([code, len(value)]) + value


def header(op, hops=0, flags=0, ciaddr="0.0.0.0", yiaddr="0.0.0.0", giaddr="0.0.0.0",
           sname=b"", file=b""):
    return (struct.pack("!BBBBIHH", op, 1, 6, hops, 0x3903F326, 0, flags) + ip(ciaddr) +
            ip(yiaddr) + ip("0.0.0.0") + ip(giaddr) + MAC.ljust(16, b"\0") +
            sname.ljust(64, b"\0") + file.ljust(128, b"\0"))


def message(op, options, pad_to=300, **fields):
    body = header(op, **fields) + COOKIE + options + b"\xff"
    return body.ljust(pad_to, b"\0")


RELAY_INFO = (opt(1, b"Vlan10") + opt(2, b"sw1") + opt(5, ip("10.1.2.0")) +
              opt(11, ip("10.1.2.1")) + opt(151, b"\0blue"))

MESSAGES = {
    "discover": message(1, opt(53, b"\x01") + opt(61, b"\x01" + MAC) + opt(12, b"host1") +
                        opt(55, bytes([1, 3, 6, 15, 51, 54])) + opt(57, b"\x05\xdc"),
                        flags=0x8000),
    "request": message(1, opt(53, b"\x03") + opt(50, ip("10.1.2.50")) +
                       opt(54, ip("10.9.9.9")) + opt(55, bytes([1, 3, 6]))),
    "relayed_request": message(1, opt(53, b"\x03") + opt(50, ip("10.1.2.50")) +
                               opt(54, ip("10.1.2.1")) + opt(82, RELAY_INFO),
                               hops=1, giaddr="10.1.2.1"),
    "ack_with_option82": message(2, opt(53, b"\x05") + opt(54, ip("10.9.9.9")) +
                                 opt(51, struct.pack("!I", 3600)) + opt(1, ip("255.255.255.0")) +
                                 opt(82, RELAY_INFO), yiaddr="10.1.2.50", giaddr="10.1.2.1"),
    "offer_overloaded": message(2, opt(52, b"\x03"), yiaddr="10.1.2.50", giaddr="10.1.2.1",
                                file=opt(53, b"\x02") + opt(54, ip("10.9.9.9")) + b"\xff",
                                sname=opt(82, opt(1, b"Vlan10")) + b"\xff"),
    "bootp_no_cookie": header(1).ljust(300, b"\0"),
    "no_end_option": (header(1) + COOKIE + opt(53, b"\x01") + opt(82, opt(1, b"x"))),
    "length_past_end": header(1) + COOKIE + opt(53, b"\x01") + bytes([12, 40]) + b"host",
}

SUB_OPTIONS = {
    "all_sub_options": RELAY_INFO,
    "vss_global": opt(151, b"\xff") + opt(9, b"\x00\x00\x0d\xe9"),
    "cut_short": opt(1, b"Vlan10")[:-2],
}

TLV = {
    "dhcp_options": opt(53, b"\x01") + b"\0\0" + opt(82, RELAY_INFO) + b"\xff",
    "dhcpv6_options": struct.pack("!HH", 1, 4) + b"\0\1\0\1" + struct.pack("!HH", 8, 2) + b"\0\0",
}

def inet_checksum(data):
    data = data + b"\0" * (len(data) % 2)
    total = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def udp(src, dst, sport, dport, payload, proto_sum):
    length = 8 + len(payload)
    ck = inet_checksum(proto_sum(length) + struct.pack("!HHHH", sport, dport, length, 0) + payload)
    return struct.pack("!HHHH", sport, dport, length, ck or 0xFFFF) + payload


def ipv4(src, dst, sport, dport, payload, options=b"", frag=0):
    pseudo = lambda n: ip(src) + ip(dst) + struct.pack("!BBH", 0, 17, n)
    seg = udp(src, dst, sport, dport, payload, pseudo)
    hdr = struct.pack("!BBHHHBBH", 0x45 + len(options) // 4, 0, 20 + len(options) + len(seg), 0,
                      frag, 64, 17, 0) + ip(src) + ip(dst) + options
    return hdr[:10] + struct.pack("!H", inet_checksum(hdr)) + hdr[12:] + seg


def ipv6(src, dst, sport, dport, payload):
    pseudo = lambda n: src + dst + struct.pack("!IxxxB", n, 17)
    seg = udp(src, dst, sport, dport, payload, pseudo)
    return struct.pack("!IHBB", 0x60000000, len(seg), 17, 1) + src + dst + seg


def eth(ethertype, tag=None):
    head = b"\xff" * 6 + MAC
    if tag is not None:
        head += struct.pack("!HH", 0x8100, tag)
    return head + struct.pack("!H", ethertype)


LINK_LOCAL = bytes.fromhex("fe800000000000000000000000000001")
ALL_DHCP = bytes.fromhex("ff020000000000000000000000010002")
DISCOVER4 = ipv4("0.0.0.0", "255.255.255.255", 68, 67, MESSAGES["discover"])
# SOLICIT with a client identifier (DUID-LL).
SOLICIT6 = ipv6(LINK_LOCAL, ALL_DHCP, 546, 547,
                b"\x01\x00\x00\x01" + struct.pack("!HHHH", 1, 10, 3, 1) + MAC)



def icmp6(src, dst, message):
    pseudo = src + dst + struct.pack("!IxxxB", len(message), 58)
    message = message[:2] + struct.pack("!H", inet_checksum(pseudo + message)) + message[4:]
    return struct.pack("!IHBB", 0x60000000, len(message), 58, 255) + src + dst + message


# A neighbour solicitation (RFC 4861) for LINK_LOCAL, with the source link-layer address.
NEIGHBOR_SOLICIT6 = icmp6(bytes.fromhex("fe800000000000000000000000000002"),
                          bytes.fromhex("ff0200000000000000000001ff000001"),
                          struct.pack("!BBHI", 135, 0, 0, 0) + LINK_LOCAL + b"\x01\x01" + MAC)

FRAMES = {
    "discover": eth(0x0800) + DISCOVER4,
    "discover_padded": eth(0x0800) + ipv4("0.0.0.0", "255.255.255.255", 68, 67, b"x") + b"\0" * 18,
    "tagged_with_ip_options": eth(0x0800, 10) + ipv4("10.1.2.1", "10.9.9.9", 67, 67,
                                                      MESSAGES["relayed_request"],
                                                      options=b"\x01" * 8),
    "solicit": eth(0x86DD) + SOLICIT6,
    "neighbor_solicit": eth(0x86DD) + NEIGHBOR_SOLICIT6,
    "fragment": eth(0x0800) + ipv4("10.1.2.1", "10.9.9.9", 67, 67, b"x" * 16, frag=0x2000),
    "cut_short": (eth(0x0800) + DISCOVER4)[:100],
}

def opt6(code, value):
    return struct.pack("!HH", code, len(value)) + value


def msg6(msg_type, options):
    return bytes([msg_type]) + b"\x12\x34\x56" + options


def relay6(msg_type, inner, options=b"", hops=0, link=b"\0" * 16, peer=LINK_LOCAL):
    return bytes([msg_type, hops]) + link + peer + opt6(9, inner) + options


GLOBAL6 = bytes.fromhex("20010db8000000000000000000000001")
CLIENT_ID = opt6(1, struct.pack("!HH", 3, 1) + MAC)
IA_PD = opt6(25, struct.pack("!III", 1, 3600, 5400) +
             opt6(26, struct.pack("!IIB", 7200, 7200, 56) + GLOBAL6))
IA_NA = opt6(3, struct.pack("!III", 1, 3600, 5400) +
             opt6(5, GLOBAL6 + struct.pack("!II", 7200, 7200)))
CCAP_CORES = opt6(17, struct.pack("!I", 4491) + opt6(61, GLOBAL6 * 3) + opt6(62, b"x"))
OTHER_VENDOR = opt6(17, struct.pack("!I", 9) + opt6(61, GLOBAL6))
IFACE = opt6(18, b"Ethernet1:blue")
REMOTE_ID = opt6(37, struct.pack("!IHH", 4491, 3, 1) + MAC + struct.pack("!Q", 7))

SOLICIT = msg6(1, CLIENT_ID + opt6(8, b"\0\0") + IA_PD)
REPLY = msg6(7, CLIENT_ID + IA_PD + IA_NA)
ADVERTISE_CCAP = msg6(2, CLIENT_ID + OTHER_VENDOR + CCAP_CORES + IA_NA)

DHCP6 = {
    "solicit": SOLICIT,
    "reply": REPLY,
    "release": msg6(8, CLIENT_ID + IA_NA),
    "advertise_ccap": ADVERTISE_CCAP,
    "relay_forw": relay6(12, SOLICIT, REMOTE_ID + IFACE, hops=1, link=GLOBAL6),
    "relay_repl": relay6(13, REPLY, IFACE + REMOTE_ID, link=GLOBAL6),
    "relay_repl_nested": relay6(13, relay6(13, ADVERTISE_CCAP, IFACE), IFACE),
    "relay_repl_without_relay_msg": bytes([13, 0]) + b"\0" * 32 + IFACE,
    "relay_repl_iface_no_separator": relay6(13, REPLY, opt6(18, b"Ethernet1")),
    "option_past_end": msg6(7, CLIENT_ID + struct.pack("!HH", 17, 40) + b"\0\0\x11\x8b"),
    "cut_short": relay6(13, REPLY, IFACE)[:30],
}

CORPUS = {
    "dhcp_options": MESSAGES,
    "info_opt_parse": MESSAGES,
    "info_opt_edit": MESSAGES,
    "relay_agent_info": SUB_OPTIONS,
    "tlv_walker": TLV,
    "frame_locator": FRAMES,
    "dhcp6_relay_reply": DHCP6,
    "dhcp6_ccap": DHCP6,
    "dhcp6_route_install": DHCP6,
    "dhcp6_options": DHCP6,
}

for target, seeds in CORPUS.items():
    os.makedirs(os.path.join(ROOT, target), exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(ROOT, target, name + ".bin"), "wb") as f:
            f.write(data)
