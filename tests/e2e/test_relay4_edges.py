"""The DHCPv4 relay against crafted traffic: header limits, messages other relay
agents already relayed, replies that are not ours (forged answers to cross-VRF
copies among them), our own broadcasts heard back, and a storm of malformed
datagrams. Frames are built here with scapy, written to a
pcap in the lab directory and sent with sendp from inside the lab's namespaces;
captures show what the agent sent and the counters show what it dropped."""

import json
import random
import socket
import struct
from collections import Counter

from scapy.all import BOOTP, IP, UDP, Ether, mac2str, wrpcap

from conftest import mutations, noise
from lab import (CLIENT_DEV, RED_DEV, RED_IP, RELAY_CLIENT_DEV, RELAY_CLIENT_IP, RELAY_RED_DEV,
                 RELAY_RED_IP, RELAY_SECONDARY_IP, RELAY_SERVER_DEV, RELAY_SERVER_IP, SERVER_BRIDGE,
                 SERVER_IP, wait_for)

CLIENT_MAC = "02:00:00:00:0c:01"
BOOTREQUEST = 1
BOOTREPLY = 2
FOREIGN_RELAY_IP = "192.0.2.60"   # another relay agent on the client link
FOREIGN_GIADDR = "10.9.8.1"       # the subnet that relay serves


def mac_of(lab, role, dev):  # noqa: F811
    return json.loads(lab.ip(role, "-j", "link", "show", "dev", dev).stdout)[0]["address"]


def counters(agent):
    return agent.show("counters")["counters"]


def wait_counter(agent, name, at_least):
    return wait_for(lambda: counters(agent)[name] >= at_least, 10,
                    f"{name} >= {at_least}: {counters(agent)}")


def send(lab, role, dev, frames, timeout=20, inter=0):  # noqa: F811
    """Sends raw Ethernet frames from `role`'s namespace, in order, `inter` seconds
    apart."""
    path = lab.dir / f"send-{role}-{len(list(lab.dir.glob('send-*')))}.pcap"
    wrpcap(str(path), [Ether(f) for f in frames])
    lab.scapy(role, f"sendp(rdpcap({str(path)!r}), iface={dev!r}, inter={inter})",
              timeout=timeout)


def bootp_header(op=BOOTREQUEST, hops=0, xid=0, flags=0x8000, giaddr="0.0.0.0",
                 yiaddr="0.0.0.0", mac=CLIENT_MAC):
    """The 236-byte fixed header, built by hand so lengths are exact."""
    return (struct.pack("!BBBBIHH", op, 1, 6, hops, xid, 0, flags)
            + bytes(4) + bytes(map(int, yiaddr.split("."))) + bytes(4)
            + bytes(map(int, giaddr.split("."))) + mac2str(mac) + bytes(10) + bytes(64 + 128))


MAGIC = bytes([99, 130, 83, 99])


def dhcp_payload(msg_type=1, extra=b"", **header):
    return bootp_header(**header) + MAGIC + bytes([53, 1, msg_type]) + extra + b"\xff"


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


def wait_frames(cap, check, what, agent):
    """cap.wait, failing with what was captured and what the agent logged."""
    try:
        return cap.wait(check, what=what)
    except TimeoutError as e:
        got = "\n".join(f.summary() + (f" xid={f[BOOTP].xid:#x} hops={f[BOOTP].hops}"
                                        if BOOTP in f else "") for f in cap.packets())
        raise AssertionError(f"{e}\ncaptured:\n{got}\nagent log:\n{agent.log_text()}")


def xids(frames, op):
    return {f[BOOTP].xid for f in frames if BOOTP in f and f[BOOTP].op == op}


def by_xid(frames, xid):
    return [f for f in frames if BOOTP in f and f[BOOTP].xid == xid]


AGENT_82 = {"information_option": True, "circuit_id": "edge-port"}


def test_requests_relayed_by_another_agent(lab, relay_agent):
    """A foreign giaddr means the server answers that relay. One sent to us names this
    agent as that relay's server: it goes to our servers with its giaddr, one hop more. A
    broadcast one leaves with the last hop count any relay accepts, so two relays on one
    link cannot ping-pong it."""
    lab.start_dhcpd("server")
    a = relay_agent(**AGENT_82)
    # The re-broadcast needs a route for 255.255.255.255 to leave by.
    lab.ip("relay", "route", "add", "default", "via", SERVER_IP)
    relay_mac = mac_of(lab, "relay", RELAY_CLIENT_DEV)
    unicast = dhcp_payload(hops=3, xid=0xF0, giaddr=FOREIGN_GIADDR, flags=0)
    broadcast = dhcp_payload(hops=2, xid=0xF1, giaddr=FOREIGN_GIADDR)
    before = counters(a)["totalRequestsForwarded"]
    with lab.capture("server", SERVER_BRIDGE) as srv:
        send(lab, "client", CLIENT_DEV, [
            from_client(unicast, dst_ip=RELAY_CLIENT_IP, dst_mac=relay_mac,
                        src_ip=FOREIGN_RELAY_IP, sport=67),
            from_client(broadcast, src_ip=FOREIGN_RELAY_IP, sport=67),
        ])
        frames = wait_frames(srv, lambda p: by_xid(p, 0xF0) and by_xid(p, 0xF1),
                             "the relayed request and the re-broadcast", a)
    wait_counter(a, "totalRequestsForwarded", before + 2)

    # To the configured server, byte for byte but for the hop count: the other agent's
    # giaddr and no option of ours.
    [relayed] = by_xid(frames, 0xF0)
    assert relayed[IP].dst == SERVER_IP and relayed[UDP].dport == 67
    assert bytes(relayed[BOOTP]) == unicast[:3] + bytes([4]) + unicast[4:]
    [rebroadcast] = by_xid(frames, 0xF1)
    assert rebroadcast[IP].dst == "255.255.255.255"
    assert bytes(rebroadcast[BOOTP]) == broadcast[:3] + bytes([255]) + broadcast[4:]


def test_malformed_storm_leaves_the_agent_serving(lab, relay_agent):
    lab.start_dhcpd("server")
    a = relay_agent(**AGENT_82)
    rng = random.Random(0xD1C9)
    relay_mac = mac_of(lab, "relay", RELAY_CLIENT_DEV)
    agent82 = bytes([82, 15, 1, 4]) + b"port" + bytes([2, 3]) + b"abc" + bytes([5, 4, 192, 0, 2, 0])
    request = dhcp_payload(xid=1, extra=bytes([50, 4, 192, 0, 2, 120]) + agent82)
    reply = dhcp_payload(msg_type=5, op=BOOTREPLY, xid=2, giaddr=RELAY_CLIENT_IP,
                         yiaddr="192.0.2.120", extra=bytes([54, 4, 198, 51, 100, 2]) + agent82)

    # Cut from just short of the fixed header; options overwritten past the cookie.
    client_side = []
    for payload in noise(rng, 1000) + mutations(rng, request, 240, 600, (0, 1, 82, 255), 220):
        if rng.random() < 0.5:
            client_side.append(from_client(payload))
        else:
            client_side.append(from_client(payload, dst_ip=RELAY_CLIENT_IP, dst_mac=relay_mac,
                                           src_ip="192.0.2.77"))
    server_side = list(map(from_server(lab),
                           noise(rng, 1000) + mutations(rng, reply, 240, 600, (0, 1, 82, 255), 220)))
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
    assert a.proc.poll() is None
    assert "assertion failed" not in a.log_text().lower()


def cross_vrf_reply(xid, giaddr, override, msg_type=5, mac=CLIENT_MAC):
    """A server's answer to a request this agent relayed across VRFs: option 82 as the
    agent sent it (its circuit-id, link selection, the override address and the
    client's VRF; none without `override`), and a lease time for the binding an ACK
    sets up."""
    def sub(code, value):
        return bytes([code, len(value)]) + value
    extra = bytes([54, 4]) + socket.inet_aton(RED_IP) + bytes([51, 4, 0, 0, 2, 88])
    if override:
        extra += sub(82, sub(1, b"Ethernet1") + sub(5, socket.inet_aton("192.0.2.0"))
                     + sub(11, socket.inet_aton(override)) + sub(151, b"\0default"))
    return dhcp_payload(msg_type=msg_type, op=BOOTREPLY, xid=xid, giaddr=giaddr,
                        yiaddr="192.0.2.77", mac=mac, extra=extra)


STRANGER = "203.0.113.66"   # a host in VRF red that is no server of the agent's
# (xid, DHCP message type, source, giaddr, override address, reason it is dropped)
FORGED = [(0xA1, 2, RED_IP, FOREIGN_GIADDR, None, "unknownGiaddr"),  # for another relay
          (0xB1, 2, STRANGER, RELAY_RED_IP, RELAY_CLIENT_IP, "unknownServer"),
          (0xB2, 5, STRANGER, RELAY_RED_IP, RELAY_CLIENT_IP, "unknownServer"),
          (0xB3, 5, RED_IP, "203.0.113.99", RELAY_CLIENT_IP, "giaddrNotOwn"),
          (0xB4, 5, RED_IP, RELAY_RED_IP, "192.0.2.99", "unknownOverride")]
FLOOD = 300
CONTROL_XID = 0xBC


def test_forged_cross_vrf_replies_never_reach_the_client(lab, relay_agent):  # noqa: F811
    """Replies in VRF red that look like answers to the agent's cross-VRF copies: only
    the configured server's, to the agent's own address there, for an override address
    of the agent's, reaches the client and sets up a binding; one for another relay
    (its giaddr, no option of ours) goes nowhere either. The control goes last on
    the same socket: once the client has it, every forged one was decided."""
    lab.split_red_vrf()
    a = relay_agent(information_option=True, servers=[{"address": RED_IP, "vrf": "red"}])
    head = Ether(src=mac_of(lab, "red", RED_DEV), dst=mac_of(lab, "redvrf", RELAY_RED_DEV))

    def reply(src, payload):
        return bytes(head / IP(src=src, dst=RELAY_RED_IP) / UDP(sport=67, dport=67) / payload)
    forged = [reply(src, cross_vrf_reply(xid, giaddr, override, msg_type))
              for xid, msg_type, src, giaddr, override, _ in FORGED]
    # A few hundred clients' worth of ACKs from the stranger, each for another MAC.
    forged += [reply(STRANGER, cross_vrf_reply(0xC000 + i, RELAY_RED_IP, RELAY_CLIENT_IP,
                                               mac=f"02:00:00:00:{i >> 8:02x}:{i & 0xFF:02x}"))
               for i in range(FLOOD)]
    control = reply(RED_IP, cross_vrf_reply(CONTROL_XID, RELAY_RED_IP, RELAY_CLIENT_IP))
    with lab.capture("client", CLIENT_DEV) as cap:
        # Paced, so that a busy machine does not shed the control from the socket.
        send(lab, "red", RED_DEV, forged + [control], timeout=60, inter=0.002)
        frames = wait_frames(cap, lambda p: by_xid(p, CONTROL_XID), "the server's reply", a)
    assert xids(frames, BOOTREPLY) == {CONTROL_XID}
    shown = a.show("counters")
    received = shown["counters"]["totalRepliesReceived"]
    # Every forged reply the socket took (a busy machine may shed some of the flood)
    # was refused, for its own reason.
    expected = Counter(reason for *_, reason in FORGED)
    expected["unknownServer"] += received - len(FORGED) - 1
    assert {k: n for k, n in shown["drops"].items() if n} == expected, shown
    assert received >= 4 + FLOOD // 2 and shown["counters"]["totalRepliesForwarded"] == 1
    assert a.show("status")["numClientBindings"] == 1


def relayed_giaddrs(frames, mac=CLIENT_MAC):
    """giaddr of each request the agent relayed for `mac`, in order."""
    return [f[BOOTP].giaddr for f in frames
            if BOOTP in f and f[BOOTP].op == BOOTREQUEST and f[BOOTP].chaddr[:6] == mac2str(mac)]


def test_smart_relay_without_address_or_secondary_keeps_the_agent_up(lab, relay_agent):  # noqa: F811
    """Smart relay on an interface with no IPv4 address, then with one secondary that
    goes while a client is on it. No server answers, so the client moves on every
    third DISCOVER wherever it can."""
    lab.ip("relay", "addr", "del", f"{RELAY_CLIENT_IP}/24", "dev", RELAY_CLIENT_DEV)
    a = relay_agent(smart_relay=True)

    def warnings():
        a.show("counters")  # publishes the status at once
        return a.show("status")["interfaces"]["Ethernet1"]["warnings"]

    def relayed(cap, count):
        return relayed_giaddrs(wait_frames(cap, lambda p: len(relayed_giaddrs(p)) >= count,
                                           f"{count} relayed requests", a))
    lab.send_discover(CLIENT_MAC, count=4)
    wait_for(lambda: a.show("counters")["drops"]["noAddress"] == 4, 10,
             "four requests dropped for want of an address")
    assert a.proc.poll() is None and warnings(), a.log_text()

    lab.ip("relay", "addr", "add", f"{RELAY_CLIENT_IP}/24", "dev", RELAY_CLIENT_DEV)
    lab.add_secondary()
    wait_for(lambda: not warnings(), 10, "the secondary to end the warning")
    with lab.capture("relay", RELAY_SERVER_DEV) as cap:
        lab.send_discover(CLIENT_MAC, count=4)
        assert relayed(cap, 4) == [RELAY_CLIENT_IP] * 3 + [RELAY_SECONDARY_IP]
        lab.del_secondary()
        wait_for(warnings, 10, "the warning for the last secondary gone")
        lab.send_discover(CLIENT_MAC, count=4)
        assert relayed(cap, 8)[4:] == [RELAY_CLIENT_IP] * 4
    assert a.proc.poll() is None, a.log_text()
