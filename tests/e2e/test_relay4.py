"""DHCPv4 relayed by the agent between a real ISC dhclient and real ISC dhcpd servers,
in the lab's namespaces (see tools/lab/lab.py)."""

import re
from dataclasses import dataclass

import pytest

import lab as L
from test_relay4_vrf import NO_PING, client_mac

CLIENT_RANGE = "192.0.2."
DHCPDISCOVER, OFFER, ACK = 1, 2, 5


def agent_info(frame):
    """The value of a frame's option 82, or None."""
    from scapy.layers.dhcp import DHCP
    return dict(o for o in frame[DHCP].options if isinstance(o, tuple)).get(
        "relay_agent_information")


def test_same_vrf_relay_to_two_servers(lab, relay_agent):  # noqa: F811
    server = lab.start_dhcpd("server")
    server2 = lab.start_dhcpd("server2")
    a = relay_agent(servers=[{"address": "198.51.100.2"}, {"address": "198.51.100.3"}])
    # An operator follows clients from now on, without a restart.
    assert a.ctl("trace", "5").stdout == "Text trace keeps levels 0-5.\n"
    lease = lab.dhclient(timeout=20)
    assert lease is not None, a.log_text()
    mac = client_mac(lab)
    for line in (rf"DHCPDISCOVER {mac} xid 0x[0-9a-f]{{8}} on Ethernet1 vrf default: "
                 r"relayed to 198\.51\.100\.3 vrf default giaddr 192\.0\.2\.1$",
                 rf"DHCPACK {mac} xid 0x[0-9a-f]{{8}} from 198\.51\.100\.\d on Ethernet2 vrf default: "
                 r"delivered on Ethernet1 vrf default$"):
        assert re.search(line, a.log_text(), re.M), line
    assert lease.ip.startswith(CLIENT_RANGE)
    for d in (server, server2):
        discovers = [s for s in d.seen() if s.msg_type == DHCPDISCOVER]
        assert discovers, d.log_text()
        assert all(s.giaddr == "192.0.2.1" for s in discovers)
    counters = a.show("counters")
    assert counters["counters"]["totalRequestsReceived"] >= 2
    assert counters["counters"]["totalRequestsForwarded"] >= 4  # two copies each
    assert counters["counters"]["totalRepliesForwarded"] >= 2


# What an access switch between the client and the relay puts in: circuit-id and
# remote-id (lab.insert_switch).
SWITCH_82 = bytes([1, 7]) + b"sw1-p07" + bytes([2, 6]) + b"sw1-id"
AT_RED = {"address": L.RED_IP, "vrf": "red"}
FROM_ETHERNET3 = {"address": L.RED_IP, "source-interface": "Ethernet3"}
LOCATED = (L.RELAY_CLIENT_IP, "192.0.2.0")  # override address and link selection


@dataclass
class Case:
    settings: dict      # Ethernet1's, besides information-option: true
    server: tuple       # what dhcpd saw: circuit-id, remote-id, VRF, override, link; None: nothing
    down: bytes = None  # the option 82 the replies carry on the client link


OPTION_82 = {
    "untrusted-first-hop": Case({}, None),
    "kept-across-vrfs": Case({"information_option_policy": "keep", "servers": [AT_RED]},
                             (b"sw1-p07", b"sw1-id", b"\0default", *LOCATED), SWITCH_82),
    "kept-from-a-source-interface": Case(
        {"information_option_policy": "keep", "servers": [FROM_ETHERNET3]},
        (b"sw1-p07", b"sw1-id", None, *LOCATED), SWITCH_82),
}


@pytest.mark.parametrize("case", OPTION_82.values(), ids=OPTION_82.keys())
def test_option_82_up_to_the_server_and_back(lab, relay_agent, case):  # noqa: F811
    """An access switch's option 82 (giaddr zero, option present): refused by default, or
    kept with the relay's locating sub-options merged in (a cross-VRF server or a source
    interface needs them), which a real server reads and only those are taken out of the
    replies. The relay's own option and a replaced one are RelayPathsTest's; a real
    server reads the relay's own sub-options in test_relay4_vrf."""
    lab.insert_switch(SWITCH_82)
    servers = case.settings.get("servers", [])
    if AT_RED in servers:
        lab.split_red_vrf()
    d = lab.start_dhcpd("red" if servers else "server", extra=NO_PING)
    a = relay_agent(information_option=True, **case.settings)
    a.ctl("trace", "5")
    with lab.capture("client", L.CLIENT_DEV) as cap:
        lease = lab.dhclient(timeout=10 if case.server else 3)
        frames = cap.stop()
    if case.server is None:
        assert lease is None and "DHCPDISCOVER" not in d.log_text(), d.log_text()
        shown = a.show("counters")
        untrusted = shown["counters"]["totalRequestsReceived"]
        assert untrusted and {k: n for k, n in shown["drops"].items() if n} == \
            {"option82Untrusted": untrusted}, shown
        assert ": dropped (option82Untrusted)" in a.log_text()
        return
    assert lease is not None, (a.log_text(), d.log_text())
    seen = d.seen()
    assert seen and all((s.circuit_id, s.remote_id, s.vss, s.server_id_override,
                         s.link_selection) == case.server for s in seen), seen
    replies = [f for f in frames if L.dhcp_type(f) in (OFFER, ACK)]
    assert {agent_info(f) for f in replies} == {case.down}, [f.summary() for f in replies]
