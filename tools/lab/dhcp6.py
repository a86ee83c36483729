"""DHCPv6 messages for the lab, read and written by hand rather than through scapy's
dissectors: a test must see a malformed message as it is on the wire, and build one
byte for byte (a length that overruns, a hop count past the limit)."""

import ipaddress
import struct
from dataclasses import dataclass, field

PORT_CLIENT, PORT_AGENT = 546, 547   # clients listen on 546; relays and servers on 547
ALL_RELAYS_AND_SERVERS = "ff02::1:2"

SOLICIT, ADVERTISE, REQUEST, REPLY = 1, 2, 3, 7
RELAY_FORW, RELAY_REPL = 12, 13

OPT_CLIENT_ID, OPT_SERVER_ID, OPT_IA_NA, OPT_IAADDR = 1, 2, 3, 5
OPT_RELAY_MSG, OPT_VENDOR, OPT_INTERFACE_ID = 9, 17, 18
OPT_IA_PD, OPT_IAPREFIX, OPT_REMOTE_ID, OPT_VSS = 25, 26, 37, 68

CABLELABS = 4491
CCAP_CORES = 61           # CableLabs sub-option: the CCAP cores' addresses
RELAY_HEADER = 34         # msg-type, hop-count, link-address, peer-address


def options(data):
    """(code, data) of each option in `data`, in wire order; an option whose length
    overruns the end is cut where the data ends and ends the walk."""
    out, at = [], 0
    while at + 4 <= len(data):
        code, size = struct.unpack_from("!HH", data, at)
        out.append((code, bytes(data[at + 4:at + 4 + size])))
        at += 4 + size
    return out


def option(code, data):
    return struct.pack("!HH", code, len(data)) + data


def message(msg_type, xid=0x6a6b6c, opts=b""):
    return struct.pack("!I", msg_type << 24 | xid) + opts


def relay(msg_type, hop_count, link, peer, opts=b""):
    return (bytes([msg_type, hop_count]) + ipaddress.IPv6Address(link).packed
            + ipaddress.IPv6Address(peer).packed + opts)


@dataclass
class Msg:
    """One DHCPv6 message. Relay messages have their header fields and `inner`, the
    decoded Relay Message option (None without one)."""
    msg_type: int
    raw: bytes
    options: list = field(default_factory=list)
    hop_count: int = None
    link_address: str = None
    peer_address: str = None
    inner: "Msg" = None
    ip: object = field(default=None, repr=False)   # the scapy IPv6 packet it came in, if captured

    def option(self, code):
        """The data of the first option `code`, or None."""
        return next((d for c, d in self.options if c == code), None)

    def codes(self):
        return [c for c, _ in self.options]


def decode(data):
    data = bytes(data)
    if not data:
        return None
    msg_type = data[0]
    if msg_type not in (RELAY_FORW, RELAY_REPL):
        return Msg(msg_type, data, options(data[4:]))
    if len(data) < RELAY_HEADER:
        return Msg(msg_type, data)
    m = Msg(msg_type, data, options(data[RELAY_HEADER:]), hop_count=data[1],
            link_address=str(ipaddress.IPv6Address(data[2:18])),
            peer_address=str(ipaddress.IPv6Address(data[18:34])))
    inner = m.option(OPT_RELAY_MSG)
    m.inner = decode(inner) if inner is not None else None
    return m


def captured(packets, dport=None, msg_type=None):
    """The DHCPv6 messages of captured frames (to `dport` and of `msg_type` when given),
    each with its IPv6 packet in `ip`."""
    from scapy.layers.inet import UDP
    from scapy.layers.inet6 import IPv6
    out = []
    for p in packets:
        if IPv6 not in p or UDP not in p or (dport and p[UDP].dport != dport):
            continue
        m = decode(bytes(p[UDP].payload))
        if m and (msg_type is None or m.msg_type == msg_type):
            m.ip = p[IPv6]
            out.append(m)
    return out


def ccap_cores(msg):
    """The addresses of sub-option 61 in the CableLabs option 17 of `msg`, or None
    without one."""
    for code, data in msg.options:
        if code != OPT_VENDOR or len(data) < 4 or struct.unpack_from("!I", data)[0] != CABLELABS:
            continue
        at = 4
        while at + 4 <= len(data):
            sub, size = struct.unpack_from("!HH", data, at)
            if sub == CCAP_CORES:
                cores = data[at + 4:at + 4 + size]
                return [str(ipaddress.IPv6Address(cores[i:i + 16])) for i in range(0, size, 16)]
            at += 4 + size
    return None
