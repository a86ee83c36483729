"""The shell lab (scripts/lab.sh): one client lease through the agent, and nothing
left behind. The lab module itself is checked by every test that uses it; its DHCPv6
side here too, with ISC's relay in the agent's place, so that a failing DHCPv6 test
of the agent points at the agent."""

import ipaddress
import os
import re
import subprocess
from pathlib import Path

import pytest

import dhcp6 as D
import lab as L
from conftest import AGENT, RUN_PREFIX, TOP, run


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
    # An IPv6 address from the server's pool too, unless the agent says it does not relay
    # DHCPv6 at all.
    assert re.search(r"^lease6 2001:db8:1::1[0-9a-f]{2} from server$", res.stdout, re.M), \
        res.stdout
    assert "agent stopped cleanly" in res.stdout
    assert [n for n in run("ip", "netns", "list").stdout.split() if n.startswith(prefix)] == []
    # dhcpd was started by a process of its own: only the lab's sweep of the namespaces'
    # processes stops it, and its command line names the lab's directory.
    assert [p for p in Path("/proc").glob("[0-9]*/cmdline")
            if f"/tmp/{prefix}.".encode() in cmdline(p)] == []


def cmdline(path):
    try:
        return path.read_bytes()
    except OSError:  # the process is gone
        return b""


def test_dhcpv6_lab_through_isc_relays(lab):  # noqa: F811
    """dhcpd -6 and dhclient -6 with ISC dhcrelay -6 in the relay namespace: an address
    and a delegated prefix, then, behind a second dhcrelay (insert_downstream_relay), an
    address on the downstream link from a Relay-Forw nested in another."""
    lab.start_dhcpd6("server")
    lab.start_dhcrelay6("relay", L.RELAY_CLIENT_DEV, L.SERVER_IP6, L.RELAY_SERVER_DEV)
    with lab.capture("server", L.SERVER_BRIDGE, L.DHCP6_PORTS) as cap:
        lease = lab.dhclient6()
        prefix = lab.dhclient6(prefix=True)
        lab.insert_downstream_relay()
        nested = lab.dhclient6()
        relayed = D.captured(cap.stop(), D.PORT_AGENT, D.RELAY_FORW)
    assert lease and L.server_of6(lease.address) == "server"
    assert prefix and L.server_of6(prefix.prefix) == "server"
    assert nested and L.server_of6(nested.address) == "server"
    assert ipaddress.ip_address(nested.address) in ipaddress.ip_network(L.DOWNSTREAM_NET6)
    direct = [f for f in relayed if f.inner.msg_type != D.RELAY_FORW]
    behind = [f for f in relayed if f.inner.msg_type == D.RELAY_FORW]
    assert {f.inner.msg_type for f in direct} == {D.SOLICIT, D.REQUEST}
    assert {(f.hop_count, f.link_address) for f in direct} == {(0, L.RELAY_CLIENT_IP6)}
    assert {(f.hop_count, f.inner.hop_count, f.inner.link_address) for f in behind} == \
        {(1, 0, L.HOP_DOWN_IP6)}
