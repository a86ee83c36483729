"""Mistakes an operator makes, and clients of the control socket that misbehave, are
told at once and never stop the agent."""

import os
import re
import resource
import socket
import subprocess
import threading
import time
from pathlib import Path

import pytest

import lab as L
from conftest import AGENT, Agent, run

RELAYING = "interfaces: {Ethernet1: {servers: [{address: 192.0.2.10}]}}\n"


@pytest.fixture
def cfg(tmp_path):
    """The agent's configuration file, relaying Ethernet1's clients to one server."""
    path = tmp_path / "relay.yaml"
    path.write_text(RELAYING)
    return path


def test_a_reload_refuses_a_truncated_file_and_tells_a_warning(cfg, agent):
    """A reload, like --check, refuses a truncated file (keeping the running configuration)
    and tells a file's warnings; the texts themselves are ConfigParserTest's."""
    a = agent(cfg)
    cfg.write_text("")
    res = a.ctl("reload", check=False)
    assert res.returncode == 1 and "holds no configuration" in res.stderr
    assert "Ethernet1" in a.show("config")["interfaces"]
    cfg.write_text("interfaces: {Ethernet1: {}}\n")
    assert "no interface has servers" in a.ctl("reload").stdout
    check = run(AGENT, "--config", cfg, "--check")
    assert f"warning: {cfg}: no interface has servers" in check.stdout and "ok" in check.stdout


def test_a_device_that_does_not_exist_is_told_until_it_appears(cfg, agent):
    cfg.write_text("devices: {Ethernet1: veth-late}\n" + RELAYING)
    check = run(AGENT, "--config", cfg, "--check")
    missing = 'devices.Ethernet1: device "veth-late" does not exist in VRF default'
    assert missing in check.stdout and check.stdout.endswith("ok\n")
    a = agent(cfg)
    assert missing in a.log_text()
    assert "veth-late" in a.ctl("reload").stdout
    status = a.show("status")
    assert any("veth-late" in w for w in status["warnings"]), status["warnings"]
    vrf, = a.show("interfaces")["vrfs"]
    assert vrf["missing"] == [{"intfId": "Ethernet1", "device": "veth-late"}]

    run("ip", "netns", "exec", a.namespace, "ip", "link", "add", "veth-late", "type", "veth",
        "peer", "name", "veth-peer")
    L.wait_for(lambda: a.show("status")["warnings"] == [], 5, "the warning to go")
    assert "missing" not in a.show("interfaces")["vrfs"][0]


def test_a_vrf_whose_sockets_cannot_open_shows_why(cfg, netns, agent):
    red = netns("red")
    # Port 67 taken in the VRF's namespace without address reuse: the relay cannot bind it.
    holder = subprocess.Popen(
        ["ip", "netns", "exec", red, "python3", "-c",
         "import socket, time; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); "
         "s.bind(('0.0.0.0', 67)); print('bound', flush=True); time.sleep(60)"],
        stdout=subprocess.PIPE, text=True)
    try:
        assert holder.stdout.readline().strip() == "bound"
        cfg.write_text(f"vrfs: {{red: {red}}}\n"
                       "interfaces: {Ethernet1: {vrf: red, servers: [{address: 192.0.2.10}]}}\n")
        a = agent(cfg)
        L.wait_for(lambda: "error" in a.show("vrfs")[-1], 5, "VRF red's error")
        vrf = {v["vrf"]: v for v in a.show("vrfs")}["red"]
        assert "port 67: Address already in use" in vrf.get("error", ""), vrf
        assert any(w.startswith("VRF red relays nothing: UDP socket")
                   for w in a.show("status")["warnings"])
    finally:
        holder.kill()
        holder.wait()


def test_an_agent_that_could_not_relay_exits_with_the_reason(tmp_path, cfg, netns, agent):
    # Started, as systemd starts it, with a soft limit of descriptors far below the hard one.
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    a = Agent(tmp_path, cfg, netns("limited"), wrap=["prlimit", f"--nofile=64:{hard}"])
    limits = Path(f"/proc/{a.proc.pid}/limits").read_text()
    assert re.search(rf"^Max open files\s+{hard}\s+{hard}", limits, re.M), limits
    a.stop()
    a = agent(cfg)
    bare = netns("bare")
    for ns, wrap, says in (
            (a.namespace, [], "another dhcp-relay-agent runs in this network namespace"),
            (bare, ["setpriv", "--bounding-set=-net_raw"], "raw IP socket: Operation not permitted"),
            (bare, ["setpriv", "--bounding-set=-net_bind_service"], "bind UDP port 67")):
        res = run("ip", "netns", "exec", ns, *wrap, AGENT, "--config", cfg,
                  "--socket", tmp_path / "other.sock", check=False, timeout=5)
        assert res.returncode == 1 and says in res.stderr, res.stderr
    assert a.show("status")["counters"]["totalRequestsReceived"] == 0


def test_reading_a_large_file_does_not_stall_the_agent(cfg, agent):
    a = agent(cfg)
    # Some 14 MB that take the parser a second or more, with a mistake on the last line.
    with cfg.open("w") as f:
        f.write("interfaces:\n")
        for i in range(150000):
            f.write(f"  E{i}: {{servers: [{{address: 10.{i >> 8 & 255}.{i & 255}.1}}, "
                    f"{{address: 10.{i >> 8 & 255}.{i & 255}.2}}], circuit-id: c{i}}}\n")
        f.write("relay: {dscp-v4: 99}\n")
    with socket.socket(socket.AF_UNIX) as reloading:
        reloading.connect(str(a.socket))
        began = time.monotonic()
        reloading.sendall(b'{"cmd": "reload"}\n')
        answered = []
        while True:
            reloading.settimeout(0.05)
            try:
                reply = reloading.recv(65536)
                break
            except socket.timeout:
                t = time.monotonic()
                a.show("vrfs")
                answered.append(time.monotonic() - t)
        took = time.monotonic() - began
    assert b"relay.dscp-v4: DSCP outside 0..63" in reply
    # The agent answered meanwhile, each time at once, and the refused file changed nothing.
    assert answered and max(answered) < 0.5 < took, (answered, took)
    assert list(a.show("config")["interfaces"]) == ["Ethernet1"]


def test_control_clients_cannot_stop_or_lock_out_the_agent(cfg, agent):
    a = agent(cfg)
    # Malformed requests are ControlServerTest's. Silent clients fill every slot; the operator's command still gets in.
    silent = []
    for _ in range(40):
        c = socket.socket(socket.AF_UNIX)
        c.connect(str(a.socket))
        silent.append(c)
        time.sleep(0.01)
    assert a.show("status")["counters"]["totalRequestsReceived"] == 0
    for c in silent:
        c.close()

    # A hundred clients pouring in megabytes of garbage at once, reading none of the
    # answers, cost them their connections; the operator is answered meanwhile.
    pourers = [socket.socket(socket.AF_UNIX) for _ in range(100)]

    def pour(s):
        try:
            s.connect(str(a.socket))
            s.sendall(os.urandom(1 << 20))
        except OSError:
            pass  # cut off: what the agent should do
    floods = [threading.Thread(target=pour, args=(s,)) for s in pourers]
    for t in floods:
        t.start()
    slowest, until = 0.0, time.monotonic() + 3
    while time.monotonic() < until:
        began = time.monotonic()
        a.show("vrfs")
        slowest = max(slowest, time.monotonic() - began)
    for s in pourers:
        s.shutdown(socket.SHUT_RDWR)
    for t in floods:
        t.join()
    assert slowest < 1.0, slowest
    assert a.stop() == 0
