"""The DHCPv4 relay against crafted traffic: a storm of malformed datagrams from both
sides, and smart relay on an interface without an address or secondary. Frames are
built here with scapy, written to a pcap in the lab directory and sent with sendp from
inside the lab's namespaces. Each message check (hop limit, short headers, our own
echoes, other agents' requests, forged replies) is the relay's unit tests' (DhcpRelaySmTest,
RelayPathsTest), which see the same code paths message by message."""

import json
import random

from scapy.all import BOOTP, IP, UDP, Ether, mac2str, wrpcap

from lab import (CLIENT_DEV, RELAY_CLIENT_DEV, RELAY_CLIENT_IP, RELAY_SERVER_DEV, RELAY_SERVER_IP,
                 SERVER_BRIDGE, SERVER_IP, wait_for)
from test_relay4_vrf import start_agent

CLIENT_MAC = "02:00:00:00:0c:01"
BOOTREPLY = 2


def mac_of(lab, role, dev):  # noqa: F811
    return json.loads(lab.ip(role, "-j", "link", "show", "dev", dev).stdout)[0]["address"]


def counters(agent):
    return agent.show("counters")["counters"]


def wait_counter(agent, name, at_least):
    return wait_for(lambda: counters(agent)[name] >= at_least, 10,
                    f"{name} >= {at_least}: {counters(agent)}")


def send(lab, role, dev, frames, timeout=20):  # noqa: F811
    """Sends raw Ethernet frames from `role`'s namespace, in order."""
    path = lab.dir / f"send-{role}-{len(list(lab.dir.glob('send-*')))}.pcap"
    wrpcap(str(path), [Ether(f) for f in frames])
    lab.scapy(role, f"sendp(rdpcap({str(path)!r}), iface={dev!r})", timeout=timeout)


MAGIC = bytes([99, 130, 83, 99])


def dhcp_payload(msg_type=1, extra=b"", **header):
    """A DHCP message from CLIENT_MAC with the option bytes written verbatim."""
    return (bytes(BOOTP(flags=0x8000, chaddr=mac2str(CLIENT_MAC), **header)) + MAGIC
            + bytes([53, 1, msg_type]) + extra + b"\xff")


def from_client(payload, dst_ip="255.255.255.255", dst_mac="ff:ff:ff:ff:ff:ff",
                src_ip="0.0.0.0", sport=68):
    return bytes(Ether(src=CLIENT_MAC, dst=dst_mac) / IP(src=src_ip, dst=dst_ip)
                 / UDP(sport=sport, dport=67) / payload)


def from_server(lab):  # noqa: F811
    """A function that wraps a payload as the server's unicast to the agent."""
    head = (Ether(src=mac_of(lab, "server", SERVER_BRIDGE),
                  dst=mac_of(lab, "relay", RELAY_SERVER_DEV))
            / IP(src=SERVER_IP, dst=RELAY_SERVER_IP) / UDP(sport=67, dport=67))
    return lambda payload: bytes(head / payload)


def mutations(rng, valid, count):
    """`valid` truncated at every length from just short of the fixed header to its
    end, then `count` copies with a few random bytes overwritten past the header, so
    the option walkers meet bad lengths, missing ends and stray option 82s."""
    out = [valid[:n] for n in range(220, len(valid) + 1)]
    for _ in range(count):
        m = bytearray(valid + bytes(rng.randrange(0, 40)))
        for _ in range(rng.randrange(1, 8)):
            m[rng.randrange(240, len(m))] = rng.choice((0, 1, 82, 255, rng.randrange(256)))
        out.append(bytes(m[:rng.randrange(236, len(m) + 1)]))
    return out


def test_malformed_storm_leaves_the_agent_serving(lab, tmp_path):  # noqa: F811
    lab.start_dhcpd("server")
    a = start_agent(lab, tmp_path, information_option=True, circuit_id="edge-port")
    rng = random.Random(0xD1C9)
    relay_mac = mac_of(lab, "relay", RELAY_CLIENT_DEV)
    agent82 = bytes([82, 15, 1, 4]) + b"port" + bytes([2, 3]) + b"abc" + bytes([5, 4, 192, 0, 2, 0])
    request = dhcp_payload(xid=1, extra=bytes([50, 4, 192, 0, 2, 120]) + agent82)
    reply = dhcp_payload(msg_type=5, op=BOOTREPLY, xid=2, giaddr=RELAY_CLIENT_IP,
                         yiaddr="192.0.2.120", extra=bytes([54, 4, 198, 51, 100, 2]) + agent82)

    def noise(n):
        return [rng.randbytes(rng.randrange(0, 601)) for _ in range(n)]

    client_side = []
    for payload in noise(1000) + mutations(rng, request, 600):
        if rng.random() < 0.5:
            client_side.append(from_client(payload))
        else:
            client_side.append(from_client(payload, dst_ip=RELAY_CLIENT_IP, dst_mac=relay_mac,
                                           src_ip="192.0.2.77"))
    server_side = list(map(from_server(lab), noise(1000) + mutations(rng, reply, 600)))
    before = counters(a)
    send(lab, "client", CLIENT_DEV, client_side, timeout=40)
    send(lab, "server", SERVER_BRIDGE, server_side, timeout=40)

    assert a.proc.poll() is None, a.log_text()
    # The storm reached the agent (the socket buffer may shed some of it).
    for name in ("totalRequestsReceived", "totalRepliesReceived"):
        wait_counter(a, name, before[name] + 500)
    lease = lab.dhclient(timeout=20)
    assert lease is not None, a.log_text()
    assert lease.ip.startswith("192.0.2.")
    assert a.stop() == 0, a.log_text()
    assert "assertion failed" not in a.log_text().lower()


def test_smart_relay_without_address_or_secondary_keeps_the_agent_up(lab, tmp_path):  # noqa: F811
    """Smart relay on an interface with no IPv4 address, then with one secondary that
    comes and goes: requests are dropped for want of an address meanwhile, the interface
    shows a warning while it has no secondary, and the agent stays up. Where each request
    goes meanwhile is SmartRelayTest's."""
    lab.ip("relay", "addr", "del", f"{RELAY_CLIENT_IP}/24", "dev", RELAY_CLIENT_DEV)
    a = start_agent(lab, tmp_path, smart_relay=True)

    def warnings():
        a.show("counters")  # publishes the status at once
        return a.show("status")["interfaces"]["Ethernet1"]["warnings"]
    try:
        lab.send_discover(CLIENT_MAC, count=4)
        wait_for(lambda: a.show("counters")["drops"]["noAddress"] == 4, 10,
                 "four requests dropped for want of an address")
        assert a.proc.poll() is None and warnings(), a.log_text()

        lab.ip("relay", "addr", "add", f"{RELAY_CLIENT_IP}/24", "dev", RELAY_CLIENT_DEV)
        lab.add_secondary()
        wait_for(lambda: not warnings(), 10, "the secondary to end the warning")
        lab.del_secondary()
        wait_for(warnings, 10, "the warning for the last secondary gone")
        assert a.proc.poll() is None, a.log_text()
    finally:
        assert a.stop() == 0, a.log_text()
