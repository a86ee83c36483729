"""The agent's view of the kernel: VRFs as network namespaces, their devices and
addresses, followed live while an operator changes them with `ip`."""

import textwrap
import time
from pathlib import Path

from conftest import run


def eventually(check, timeout=5.0):
    """Polls `check` (which raises AssertionError until the agent has caught up)."""
    deadline = time.monotonic() + timeout
    while True:
        try:
            return check()
        except AssertionError:
            if time.monotonic() > deadline:
                raise
            time.sleep(0.05)


def ns_run(ns, *args):
    return run("ip", "-n", ns, *args)


def interfaces(agent, vrf):
    view = {v["vrf"]: v for v in agent.show("interfaces")["vrfs"]}[vrf]
    return {i["device"]: i for i in view["interfaces"]}


def test_two_vrfs_follow_namespaces_links_and_addresses(tmp_path, netns, agent):
    red = netns("red")
    blue = netns("blue", create=False)  # created while the agent runs
    cfg = tmp_path / "relay.yaml"
    cfg.write_text(textwrap.dedent(f"""\
        vrfs:
          red: {red}
          blue: {blue}
        devices:
          Ethernet1: vr0
          Ethernet2: vb0
        """))
    a = agent(cfg)

    def vrf_states():
        return {v["vrf"]: v["active"] for v in a.show("vrfs")}

    assert vrf_states() == {"default": True, "red": True, "blue": False}
    assert f"VRF blue is not active: namespace {blue} does not exist" in a.log_text()

    run("ip", "netns", "add", blue)

    def blue_active():
        assert vrf_states()["blue"] is True
    eventually(blue_active)

    # A veth pair between the two VRFs, addressed in red.
    run("ip", "link", "add", "vr0", "netns", red, "type", "veth", "peer", "vb0", "netns", blue)
    # Promotion is off in a fresh namespace: the secondary would go with the primary.
    run("ip", "netns", "exec", red, "sysctl", "-qw", "net.ipv4.conf.vr0.promote_secondaries=1")
    ns_run(red, "addr", "add", "192.0.2.1/24", "dev", "vr0")
    ns_run(red, "addr", "add", "192.0.2.9/24", "dev", "vr0")
    ns_run(red, "addr", "add", "2001:db8:1::1/64", "dev", "vr0", "nodad")
    ns_run(red, "link", "set", "vr0", "up")
    ns_run(blue, "link", "set", "vb0", "up")

    def red_addressed():
        vr0 = interfaces(a, "red")["vr0"]
        assert vr0["intfId"] == "Ethernet1"
        assert vr0["ipv4"] == ["192.0.2.1/24", "192.0.2.9/24"]
        assert "2001:db8:1::1/64" in vr0["ipv6"]
        assert vr0["up"] and vr0["running"]
        assert interfaces(a, "blue")["vb0"]["intfId"] == "Ethernet2"
    eventually(red_addressed)

    # Removing the primary promotes the secondary; taking the peer down drops carrier.
    ns_run(red, "addr", "del", "192.0.2.1/24", "dev", "vr0")
    ns_run(blue, "link", "set", "vb0", "down")

    def changed():
        vr0 = interfaces(a, "red")["vr0"]
        assert vr0["ipv4"] == ["192.0.2.9/24"]
        assert vr0["up"] and not vr0["running"]
    eventually(changed)

    # The blue namespace goes away: its VRF is inactive and shows no devices.
    run("ip", "netns", "del", blue)

    def blue_gone():
        assert vrf_states()["blue"] is False
        assert interfaces(a, "blue") == {}
        assert "vr0" not in interfaces(a, "red")  # its veth peer went with blue
    eventually(blue_gone)

    assert a.stop() == 0


def test_a_vrf_coming_and_going_leaks_no_descriptors(tmp_path, netns, agent):
    green = netns("green", create=False)
    cfg = tmp_path / "relay.yaml"
    cfg.write_text(f"vrfs:\n  green: {green}\n")
    a = agent(cfg)

    def green_is(active):
        def check():
            assert {v["vrf"]: v["active"] for v in a.show("vrfs")}["green"] is active
        eventually(check)

    def open_fds():
        return len(list((Path("/proc") / str(a.proc.pid) / "fd").iterdir()))

    green_is(False)
    before = open_fds()
    for _ in range(100):
        run("ip", "netns", "add", green)
        green_is(True)
        run("ip", "netns", "del", green)
        green_is(False)

    # A leak would be a hundred descriptors; one may be a control connection still closing.
    def no_more_fds():
        assert open_fds() <= before
    eventually(no_more_fds)
    assert a.stop() == 0
