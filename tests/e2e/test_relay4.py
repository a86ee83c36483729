"""DHCPv4 relayed by the agent between a real ISC dhclient and real ISC dhcpd servers,
in the lab's namespaces (see lab.py)."""

from conftest import Agent
from lab import dhcp_type as lab_dhcp_type
from lab import lab  # noqa: F401  (fixture)

CLIENT_RANGE = "192.0.2."
DHCPDISCOVER = 1
DHCPOFFER = 2


def start_agent(lab, tmp_path, **relay_settings):  # noqa: F811
    return Agent(tmp_path, lab.agent_config(**relay_settings), lab.ns["relay"])


def test_same_vrf_relay_to_two_servers(lab, tmp_path):  # noqa: F811
    server = lab.start_dhcpd("server")
    server2 = lab.start_dhcpd("server2")
    a = start_agent(lab, tmp_path, servers=[{"address": "198.51.100.2"},
                                            {"address": "198.51.100.3"}])
    try:
        lease = lab.dhclient(timeout=20)
        assert lease is not None, a.log_text()
        assert lease.ip.startswith(CLIENT_RANGE)
        for d in (server, server2):
            discovers = [s for s in d.seen() if s.msg_type == DHCPDISCOVER]
            assert discovers, d.log_text()
            assert all(s.giaddr == "192.0.2.1" for s in discovers)
        counters = a.show("counters")
        assert counters["counters"]["totalRequestsReceived"] >= 2
        assert counters["counters"]["totalRequestsForwarded"] >= 4  # two copies each
        assert counters["counters"]["totalRepliesForwarded"] >= 2
    finally:
        assert a.stop() == 0


def test_option_82_reaches_the_server_and_never_the_client(lab, tmp_path):  # noqa: F811
    server = lab.start_dhcpd("server")
    a = start_agent(lab, tmp_path, information_option=True, circuit_id="rack4-port1")
    try:
        with lab.capture("client", "c0") as cap:
            lease = lab.dhclient(timeout=20)
            assert lease is not None, a.log_text()
            frames = cap.stop()
        seen = [s for s in server.seen() if s.circuit_id]
        assert seen and seen[0].circuit_id == b"rack4-port1", server.log_text()
        # Nothing the client received carries the relay's option 82.
        offers = [p for p in frames if lab_dhcp_type(p) == DHCPOFFER]
        assert offers, "\n".join(p.summary() for p in frames)
        for frame in frames:
            assert b"rack4-port1" not in bytes(frame)
    finally:
        assert a.stop() == 0
