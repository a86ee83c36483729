"""An access switch with DHCP snooping, for the lab (see Lab.insert_switch): it passes
every frame between its two ports as it is, except the client's DHCP requests, into
which it puts its own option 82 (RFC 3046) before they go up to the relay. Replies
come down untouched, so what the relay sends to the client can be seen whole.

    access_switch.py DOWN_DEV UP_DEV OPTION82_HEX

The kernel has no bridge filter here to take the requests out of a kernel bridge, so
the switch forwards in user space, on packet sockets."""

import select
import socket
import sys

from scapy.layers.dhcp import DHCP
from scapy.layers.inet import IP, UDP
from scapy.layers.l2 import Ether

ETH_P_ALL = 0x0003


def port(dev):
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    s.bind((dev, 0))
    return s


def with_option_82(frame, value):
    """The client's request with the switch's option 82 before its end option; the
    client's own checksum may be one its kernel left to the device (veth), so both
    checksums are computed anew."""
    p = Ether(frame)
    if UDP not in p or p[UDP].dport != 67 or DHCP not in p:
        return frame
    options = [o for o in p[DHCP].options if o not in ("end", "pad")]
    p[DHCP].options = options + [("relay_agent_information", value), "end"]
    del p[IP].len, p[IP].chksum, p[UDP].len, p[UDP].chksum
    return bytes(p)


def main(down_dev, up_dev, value_hex):
    value = bytes.fromhex(value_hex)
    down, up = port(down_dev), port(up_dev)
    other = {down: up, up: down}
    print("forwarding", flush=True)
    while True:
        for s in select.select([down, up], [], [])[0]:
            frame, addr = s.recvfrom(65535)
            if addr[2] == socket.PACKET_OUTGOING:  # what this switch just sent
                continue
            other[s].send(with_option_82(frame, value) if s is down else frame)


if __name__ == "__main__":
    main(*sys.argv[1:])
