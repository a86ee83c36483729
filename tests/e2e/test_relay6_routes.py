"""Routes for prefixes delegated through the agent (route-install on Ethernet1): real ISC
dhcpd -6 and dhclient -6 -P, and crafted server replies for what a real server does not
hand out. Routes are read from the kernel of the relay namespace, where the agent places
them (proto dhcp, metric 19)."""

import ipaddress
import json
import struct

import dhcp6 as D
import lab as L
from conftest import Agent

SERVER = {"address": L.SERVER_IP6}
SERVER_LINK = ("server", L.SERVER_BRIDGE)
INFINITE = 0xFFFFFFFF
HAND_MADE = "2001:db8:77::/48"   # proto dhcp, metric 19, but not the agent's


def routes(lab):
    """The relay namespace's proto dhcp IPv6 routes: prefix -> its `ip route` line."""
    out = L.run("ip", "-n", lab.ns["relay"], "-6", "route", "show", "proto", "dhcp").stdout
    return {line.split()[0]: line for line in out.splitlines()}


def wait_routes(lab, what, check, timeout=10):
    L.wait_for(lambda: check(routes(lab)), timeout, f"{what}: {routes(lab)}")


def shown(agent):
    return {r["prefix"]: r for r in agent.show("routes")["routes"]}


def reply_with(prefixes, msg_type=D.REPLY):
    """A Reply delegating each (prefix, valid lifetime) in one IA_PD."""
    ia = struct.pack("!III", 1, 0, 0)
    for prefix, valid in prefixes:
        net = ipaddress.IPv6Network(prefix)
        ia += D.option(D.OPT_IAPREFIX, struct.pack("!IIB", min(valid, 100), valid,
                                                    net.prefixlen) + net.network_address.packed)
    return D.message(msg_type, 0x515151, D.option(D.OPT_CLIENT_ID, bytes.fromhex("0003000102aa"))
                     + D.option(D.OPT_IA_PD, ia))


def repl(inner, peer):
    return D.relay(D.RELAY_REPL, 0, L.RELAY_CLIENT_IP6, peer,
                   D.option(D.OPT_INTERFACE_ID, b"Ethernet1:default")
                   + D.option(D.OPT_RELAY_MSG, inner))


def from_server(lab, *payloads):
    lab.send6(*SERVER_LINK, list(payloads), dst=L.RELAY_SERVER_IP6, sport=547)


def test_delegated_prefix_routed_to_the_client_until_released(lab, relay_agent):  # noqa: F811
    lab.start_dhcpd6("server")
    a = relay_agent(servers_v6=[SERVER], route_install=True)
    lease = lab.dhclient6(timeout=15, prefix=True)
    assert lease and lease.prefix, a.log_text()
    client_ll = lab.addr6("client", L.CLIENT_DEV)
    wait_routes(lab, "the delegated prefix's route", lambda r: lease.prefix in r)
    line = routes(lab)[lease.prefix]
    assert f"via {client_ll} dev {L.RELAY_CLIENT_DEV}" in line and "metric 19" in line, line
    assert "expires" in line, "the kernel's backstop expiry"
    inside = str(ipaddress.IPv6Network(lease.prefix)[1])
    towards = L.run("ip", "-n", lab.ns["relay"], "-6", "route", "get", inside).stdout
    assert f"via {client_ll} dev {L.RELAY_CLIENT_DEV}" in towards, towards
    binding = shown(a)[lease.prefix]
    assert (binding["nextHop"], binding["interface"], binding["vrf"]) == (
        client_ll, "Ethernet1", "default")
    assert 0 < binding["remaining"] <= 600

    lab.release6(prefix=True)
    wait_routes(lab, "the route to go with the Release", lambda r: lease.prefix not in r)
    assert shown(a) == {}

    # Route installation turned off by a reload takes every route of the interface along.
    lease = lab.dhclient6(timeout=15, prefix=True)
    wait_routes(lab, "the route of a new lease", lambda r: lease.prefix in r)
    lab.agent_config(path=a.config, servers_v6=[SERVER], route_install=False)
    a.ctl("reload")
    wait_routes(lab, "no route with route installation off", lambda r: not r)
    assert shown(a) == {}


def test_lifetimes_relays_below_and_vrf_moves(lab, relay_agent):  # noqa: F811
    """Lifetimes 0 and infinite never expire; a short one does, route and binding. A Reply
    for a client behind another relay (nested in two Relay-Repl levels) is routed via that
    relay; a next hop of :: places nothing. Moving the interface to another VRF leaves no
    route or binding in the old one."""
    a = relay_agent(servers_v6=[SERVER], route_install=True)
    below = "fe80::c"
    from_server(lab,
                repl(reply_with([("2001:db8:a0::/48", 0), ("2001:db8:a1::/48", INFINITE),
                                 ("2001:db8:a2::/48", 3)]), "fe80::42"),
                repl(D.relay(D.RELAY_REPL, 0, L.HOP_DOWN_IP6, "fe80::43",
                             D.option(D.OPT_RELAY_MSG, reply_with([("2001:db8:a3::/48", 60)]))),
                     below),
                repl(reply_with([("2001:db8:a4::/48", 60)]), "::"))
    wait_routes(lab, "four routes", lambda r: len(r) == 4)
    got = routes(lab)
    for never in ("2001:db8:a0::/48", "2001:db8:a1::/48"):
        assert "expires" not in got[never] and "via fe80::42" in got[never], got[never]
    assert "expires" in got["2001:db8:a2::/48"]
    assert f"via {below} dev {L.RELAY_CLIENT_DEV}" in got["2001:db8:a3::/48"]
    assert "2001:db8:a4::/48" not in got and "2001:db8:a4::/48" not in shown(a)
    wait_routes(lab, "the short lifetime's end", lambda r: "2001:db8:a2::/48" not in r)
    assert set(shown(a)) == {"2001:db8:a0::/48", "2001:db8:a1::/48", "2001:db8:a3::/48"}

    L.run("ip", "-n", lab.ns["relay"], "link", "set", L.RELAY_CLIENT_DEV, "netns", lab.ns["red"])
    L.wait_for(lambda: not shown(a), 10, f"bindings of the old VRF gone: {shown(a)}")
    assert routes(lab) == {}


def test_agent_killed_and_started_again_keeps_its_routes_only(lab, tmp_path):
    """After SIGKILL the routes stay in the kernel; the agent started again takes their
    bindings back from its file, puts back a route that went meanwhile, still ends the
    short one on time, removes the route of a binding it does not take back, and never
    touches a proto dhcp route it did not make."""
    a = Agent(tmp_path, lab.agent_config(servers_v6=[SERVER], route_install=True),
              lab.ns["relay"])
    L.run("ip", "-n", lab.ns["relay"], "-6", "route", "add", HAND_MADE, "via", "fe80::99",
          "dev", L.RELAY_CLIENT_DEV, "proto", "dhcp", "metric", "19")
    from_server(lab, repl(reply_with([("2001:db8:b0::/48", INFINITE), ("2001:db8:b1::/48", 14),
                                      ("2001:db8:b2::/48", INFINITE)]), "fe80::42"))
    wait_routes(lab, "the agent's three routes", lambda r: len(r) == 4)
    a.proc.kill()
    a.proc.wait()
    assert len(routes(lab)) == 4, "routes outlive the agent"

    # While it is down: one route goes, and one binding's interface stops installing routes.
    L.run("ip", "-n", lab.ns["relay"], "-6", "route", "del", "2001:db8:b0::/48")
    state = tmp_path / "prefix-bindings.json"
    saved = json.loads(state.read_text())
    for b in saved["bindings"]:
        if b["prefix"] == "2001:db8:b2::/48":
            b["interface"] = "Ethernet3"
    state.write_text(json.dumps(saved))

    again = Agent(tmp_path, a.config, lab.ns["relay"])
    try:
        wait_routes(lab, "the lost route put back", lambda r: "2001:db8:b0::/48" in r)
        assert set(shown(again)) == {"2001:db8:b0::/48", "2001:db8:b1::/48"}
        wait_routes(lab, "the short binding's end", lambda r: "2001:db8:b1::/48" not in r, 20)
        assert set(shown(again)) == {"2001:db8:b0::/48"}
        wait_routes(lab, "the route of the binding not taken back removed",
                    lambda r: "2001:db8:b2::/48" not in r, 20)
        assert set(routes(lab)) == {"2001:db8:b0::/48", HAND_MADE}
    finally:
        assert again.stop() == 0, again.log_text()
