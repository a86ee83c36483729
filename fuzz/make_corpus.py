#!/usr/bin/env python3
"""Writes the seed corpus of the fuzz programs: DHCPv4 messages as clients, relays
and servers send them, built field by field (RFC 2131, 2132, 3046, 3527, 5107, 6607).
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

CORPUS = {
    "dhcp_options": MESSAGES,
    "info_opt_parse": MESSAGES,
    "info_opt_edit": MESSAGES,
    "relay_agent_info": SUB_OPTIONS,
    "tlv_walker": TLV,
}

for target, seeds in CORPUS.items():
    os.makedirs(os.path.join(ROOT, target), exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(ROOT, target, name + ".bin"), "wb") as f:
            f.write(data)
