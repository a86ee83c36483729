"""The client's MAC in option 79 (relay.client-link-layer-address), end to end: the agent
learns it from the frames it captures on the client's link, while the message it relays is
the copy its UDP socket received. Real ISC dhclient -6 and dhcpd -6 in the lab's namespaces
(tools/lab/lab.py); what the server received is read from a capture on its link."""

import json
import time

import dhcp6 as D
import lab as L
from test_relay6 import (CLIENT_DUID, SERVER_LINK, lease_watched, relay6,  # noqa: F401
                         solicit, v6_drops)

OPT_CLIENT_LINKLAYER = 79
ON = {"client-link-layer-address": True}
HELD_XID = 0x79A79A


def client_mac(lab):  # noqa: F811
    shown = json.loads(lab.ip("client", "-j", "link", "show", "dev", L.CLIENT_DEV).stdout)
    return shown[0]["address"]


def bindings(agent):
    [vrf] = agent.show("duid-bindings")["vrfs"]
    assert vrf["captures"] == {"Ethernet1": "open"}, vrf
    return vrf["bindings"]


def option79_drops(agent):
    shown = agent.show("counters")["dhcpv6"]
    return (shown["counters"]["totalRequestsDroppedByOption79"],
            shown["interfaces"]["Ethernet1"]["counters"]["requestsDroppedByOption79"])


def test_server_sees_the_clients_mac(lab, relay6):  # noqa: F811
    """Solicit and Request reach the server with option 79 (Ethernet, the client's MAC)
    right after the agent's Remote-Id; the client leases, and no binding stays behind."""
    server = lab.start_dhcpd6("server")
    a = relay6(global_relay=ON)
    w = lease_watched(lab, SERVER_LINK)
    assert w.lease and L.server_of6(w.lease.address) == "server", (a.log_text(), server.log_text())

    [relayed] = w.relayed
    assert {f.inner.msg_type for f in relayed} == {D.SOLICIT, D.REQUEST}
    mac = bytes.fromhex(client_mac(lab).replace(":", ""))
    for f in relayed:
        assert f.codes() == [D.OPT_RELAY_MSG, D.OPT_REMOTE_ID, OPT_CLIENT_LINKLAYER,
                             D.OPT_INTERFACE_ID], f.options
        assert f.option(OPT_CLIENT_LINKLAYER) == b"\x00\x01" + mac
    L.wait_for(lambda: not bindings(a), 5, f"no binding left: {a.show('duid-bindings')}")
    assert sum(v6_drops(a).values()) == 0, a.show("counters")


def test_solicit_without_a_frame_is_held_then_dropped(lab, relay6):  # noqa: F811
    """A Solicit the capture cannot see (a Destination Options header in front of UDP, which
    the kernel's UDP socket skips and the capture filter does not) waits for a frame that
    never comes: shown as held, then dropped after 5 to 10 seconds, counted once under its
    reason and in both option 79 counters, and never sent to the server."""
    a = relay6(global_relay=ON)
    peer = lab.addr6("client", L.CLIENT_DEV)
    with lab.capture(*SERVER_LINK, L.DHCP6_PORTS) as cap:
        lab.scapy("client", f"""
            p = (Ether(src={client_mac(lab)!r}, dst="33:33:00:01:00:02")
                 / IPv6(src={peer!r}, dst={D.ALL_RELAYS_AND_SERVERS!r}) / IPv6ExtHdrDestOpt()
                 / UDP(sport={D.PORT_CLIENT}, dport={D.PORT_AGENT}) / Raw({solicit(HELD_XID)!r}))
            sendp(p, iface={L.CLIENT_DEV!r})
            """)
        [held] = L.wait_for(lambda: bindings(a), 5, f"the held Solicit: {a.log_text()}")
        seen = time.monotonic()
        assert (held["duid"], held["xid"], held["mac"], held["interface"], held["held"]) == \
            (CLIENT_DUID.hex(":"), HELD_XID, None, "Ethernet1", "SOLICIT")
        shown = a.ctl("show", "duid-bindings").stdout
        assert "SOLICIT" in shown and CLIENT_DUID.hex(":") in shown, shown

        L.wait_for(lambda: v6_drops(a).get("noClientLinkLayerAddress"), 15,
                   f"the held Solicit dropped: {a.show('counters')}")
        # Held from a moment before it was seen: 5 to 10 s, less that moment.
        waited = time.monotonic() - seen
        assert 4 <= waited <= 11, waited
        frames = cap.stop()
    assert not D.captured(frames, D.PORT_AGENT, D.RELAY_FORW)
    assert {k: v for k, v in v6_drops(a).items() if v} == {"noClientLinkLayerAddress": 1}
    assert option79_drops(a) == (1, 1)
    assert not bindings(a)
