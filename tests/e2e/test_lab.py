"""The shell lab (scripts/lab.sh): one client lease through the agent, and nothing
left behind. The lab module itself is checked by every test that uses it."""

import os
import re
import subprocess
from pathlib import Path

import pytest

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
