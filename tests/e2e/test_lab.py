"""The namespace lab checked without a relay: real dhcpd and dhclient talk to each
other, crafted packets go where the relay tests will need them, dhcpd reports the
relay agent information it saw, and nothing outlives the lab."""

import os
import re
import subprocess
import time
from pathlib import Path

import pytest

import lab as L
from conftest import AGENT, RUN_PREFIX, TOP, run


def lab_namespaces(prefix):
    return [n for n in run("ip", "netns", "list").stdout.split() if n.startswith(prefix)]


def alive(pid):
    """A zombie counts as gone: its reaper is PID 1, not the lab."""
    try:
        return Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[0] != "Z"
    except FileNotFoundError:
        return False


def test_peers_talk_through_the_lab_and_nothing_outlives_it(tmp_path):
    """What the relay will send, crafted by hand first: unicast from giaddr to each
    server with option 82; the bridge reaches both servers, dhcpd logs the sub-options
    byte for byte, and the OFFERs come back to giaddr through the relay's server side.
    Then dhclient and a dhcpd on the client link, without a relay in between; then
    close() stops every process in the namespaces, its own or not, and deletes them."""
    prefix = f"{RUN_PREFIX}-c"
    lab = L.Lab(tmp_path / "lab", prefix=prefix)
    try:
        lab.ip("client", "addr", "add", "192.0.2.9/24", "dev", L.CLIENT_DEV)
        lab.ip("client", "route", "add", "default", "via", L.RELAY_CLIENT_IP)
        servers = {role: lab.start_dhcpd(role) for role in ("server", "server2")}
        circuit = b"Ethernet1\x00:\xff"  # a zero and a high byte must survive the log
        remote = bytes.fromhex("020000000100")
        with lab.capture("server", L.SERVER_BRIDGE) as at_server, \
                lab.capture("relay", L.RELAY_SERVER_DEV) as at_relay:
            for n, dst in enumerate((L.SERVER_IP, L.SERVER2_IP)):
                mac = f"02:00:00:00:0c:0{n + 1}"
                agent = bytes([1, len(circuit)]) + circuit + bytes([2, len(remote)]) + remote
                lab.scapy("client", f"""
                    send(IP(src="192.0.2.9", dst={dst!r}) / UDP(sport=67, dport=67) /
                         BOOTP(hops=1, giaddr={L.RELAY_CLIENT_IP!r}, chaddr=mac2str({mac!r}),
                               xid={n + 7}) /
                         DHCP(options=[("message-type", "discover"),
                                       ("relay_agent_information", {agent!r}), "end"]))
                    """)
            at_relay.wait(lambda pkts: sum(L.dhcp_type(p) == 2 for p in pkts) == 2,
                          what="both OFFERs")
            server_pkts, relay_pkts = at_server.stop(), at_relay.stop()

        # The server's capture holds only what reached the server itself.
        [discover] = [p for p in server_pkts if L.dhcp_type(p) == 1]
        assert (discover["IP"].dst, discover["BOOTP"].giaddr) == (L.SERVER_IP, L.RELAY_CLIENT_IP)
        for role, dhcpd in servers.items():
            [seen] = dhcpd.seen()
            assert (seen.giaddr, seen.msg_type) == (L.RELAY_CLIENT_IP, 1)
            assert (seen.circuit_id, seen.remote_id) == (circuit, remote)
        offers = {p["BOOTP"].xid: p for p in relay_pkts if L.dhcp_type(p) == 2}
        assert sorted(offers) == [7, 8]
        for xid, role in ((7, "server"), (8, "server2")):
            lo, hi = L.POOLS[role][L.CLIENT_NET]
            p = offers[xid]
            assert (p["IP"].dst, p["UDP"].dport) == (L.RELAY_CLIENT_IP, 67)
            assert lo <= p["BOOTP"].yiaddr <= hi  # same length: text order is numeric

        # Nobody answers the client's broadcasts yet: it gives up within its bound.
        resolv = Path("/etc/resolv.conf")
        before = resolv.stat().st_mtime_ns if resolv.exists() else None
        started = time.monotonic()
        assert lab.dhclient(timeout=2) is None
        assert time.monotonic() - started < 10

        direct = lab.start_dhcpd("direct")
        lease = lab.dhclient()
        assert lease is not None, direct.log_text()
        assert lease.ip.startswith("192.0.2.2")
        assert (lease.server, lease.mask, lease.routers) == ("192.0.2.1", "255.255.255.0",
                                                              "192.0.2.1")
        # The script applied the lease in the client namespace, and only there.
        assert f"inet {lease.ip}/24" in lab.ip("client", "-4", "addr", "show", L.CLIENT_DEV).stdout
        assert lease.ip not in run("ip", "-4", "addr").stdout
        assert (resolv.stat().st_mtime_ns if resolv.exists() else None) == before
        # No relay: dhcpd saw the client's own broadcasts, without giaddr or option 82.
        seen = direct.seen()
        assert [s.msg_type for s in seen] == [1] * (len(seen) - 1) + [3]
        assert {(s.giaddr, s.circuit_id) for s in seen} == {("0.0.0.0", None)}
        assert direct.acks() == [(lease.ip, L.RELAY_CLIENT_DEV)]

        capture = lab.capture("relay", L.RELAY_CLIENT_DEV)
        # A process the lab did not start itself, as a forking daemon would leave.
        subprocess.run(["ip", "netns", "exec", lab.ns["server"], "setsid", "-f", "sleep", "600"],
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
        pids = [p.pid for p in lab.procs] + [
            int(p) for p in run("ip", "netns", "pids", lab.ns["server"]).stdout.split()]
        assert capture.proc.poll() is None and len(pids) >= 5
    finally:
        lab.close()
    assert lab_namespaces(prefix) == []
    assert [p for p in pids if alive(p)] == []
    lab.close()  # twice is harmless

    # A lab that fails half-way through building removes what it had made.
    made = []

    def flaky(role):
        if len(made) == 2:
            raise RuntimeError("no more namespaces")
        name = f"{prefix}-h{len(made)}"
        run("ip", "netns", "add", name)
        made.append(name)
        return name
    with pytest.raises(RuntimeError, match="no more namespaces"):
        L.Lab(tmp_path / "half", make_ns=flaky)
    assert lab_namespaces(prefix) == []


@pytest.mark.skipif(not AGENT.exists(), reason="dhcp-relay-agent not built")
def test_agent_accepts_the_lab_configuration(tmp_path):
    cfg = L.Lab(tmp_path, prefix=RUN_PREFIX, build=False).agent_config(
        circuit_id="lab-port\"1", information_option=True,
        servers=[{"address": L.SERVER_IP}, {"address": L.SERVER2_IP}])
    res = run(AGENT, "--config", cfg, "--check", check=False)
    assert (res.returncode, res.stdout.strip()) == (0, "ok"), res.stderr + cfg.read_text()


@pytest.mark.skipif(not AGENT.exists(), reason="dhcp-relay-agent not built")
def test_shell_entry_point_relays_a_client_and_cleans_up():
    prefix = f"{RUN_PREFIX}-sh"
    res = subprocess.run([str(TOP / "scripts" / "lab.sh")], capture_output=True, text=True,
                         timeout=120,
                         env=dict(os.environ, LAB_PREFIX=prefix, LAB_BUILD=str(AGENT.parent)))
    assert res.returncode == 0, res.stdout + res.stderr
    # A lease from the server's pool, through the agent, which then stops cleanly.
    assert re.search(r"^lease 192\.0\.2\.1\d\d/.* router 192\.0\.2\.1$", res.stdout, re.M), res.stdout
    assert "DHCPACK on 192.0.2.1" in res.stdout and "via 192.0.2.1" in res.stdout
    assert "agent stopped cleanly" in res.stdout
    assert lab_namespaces(prefix) == []
