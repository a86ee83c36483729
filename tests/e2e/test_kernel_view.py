"""The agent's view of the kernel: VRFs as network namespaces, their devices and
addresses, followed live while an operator changes them with `ip`."""

import textwrap
import time
from pathlib import Path

from conftest import run


def settles(get, expected, timeout=5.0):
    """Polls `get()` until it returns `expected`: the agent follows the kernel on its own time."""
    deadline = time.monotonic() + timeout
    while (got := get()) != expected and time.monotonic() < deadline:
        time.sleep(0.05)
    assert got == expected


def ns_run(ns, *args):
    return run("ip", "-n", ns, *args)


def vrf_states(agent):
    return {v["vrf"]: v["active"] for v in agent.show("vrfs")}


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
    assert vrf_states(a) == {"default": True, "red": True, "blue": False}
    assert f"VRF blue is not active: namespace {blue} does not exist" in a.log_text()
    run("ip", "netns", "add", blue)
    settles(lambda: vrf_states(a)["blue"], True)

    # A veth pair between the two VRFs, addressed in red.
    run("ip", "link", "add", "vr0", "netns", red, "type", "veth", "peer", "vb0", "netns", blue)
    # Promotion is off in a fresh namespace: the secondary would go with the primary.
    run("ip", "netns", "exec", red, "sysctl", "-qw", "net.ipv4.conf.vr0.promote_secondaries=1")
    ns_run(red, "addr", "add", "192.0.2.1/24", "dev", "vr0")
    ns_run(red, "addr", "add", "192.0.2.9/24", "dev", "vr0")
    ns_run(red, "addr", "add", "2001:db8:1::1/64", "dev", "vr0", "nodad")
    ns_run(red, "link", "set", "vr0", "up")
    ns_run(blue, "link", "set", "vb0", "up")

    def vr0():
        i = interfaces(a, "red").get("vr0")
        return i and (i["intfId"], i["ipv4"], "2001:db8:1::1/64" in i["ipv6"], i["up"],
                      i["running"])
    settles(vr0, ("Ethernet1", ["192.0.2.1/24", "192.0.2.9/24"], True, True, True))
    settles(lambda: interfaces(a, "blue").get("vb0", {}).get("intfId"), "Ethernet2")

    # Removing the primary promotes the secondary; taking the peer down drops carrier.
    ns_run(red, "addr", "del", "192.0.2.1/24", "dev", "vr0")
    ns_run(blue, "link", "set", "vb0", "down")
    settles(vr0, ("Ethernet1", ["192.0.2.9/24"], True, True, False))

    # The blue namespace goes away: its VRF is inactive and shows no devices, and vr0 went
    # with its veth peer.
    run("ip", "netns", "del", blue)
    settles(lambda: (vrf_states(a)["blue"], interfaces(a, "blue"), vr0()), (False, {}, None))
    assert a.stop() == 0


def test_a_vrf_coming_and_going_leaks_no_descriptors(tmp_path, netns, agent):
    green = netns("green", create=False)
    cfg = tmp_path / "relay.yaml"
    cfg.write_text(f"vrfs:\n  green: {green}\n")
    a = agent(cfg)

    def open_fds():
        return len(list((Path("/proc") / str(a.proc.pid) / "fd").iterdir()))

    settles(lambda: vrf_states(a)["green"], False)
    before = open_fds()
    for _ in range(100):
        run("ip", "netns", "add", green)
        settles(lambda: vrf_states(a)["green"], True)
        run("ip", "netns", "del", green)
        settles(lambda: vrf_states(a)["green"], False)
    # A leak would be a hundred descriptors; one may be a control connection still closing.
    settles(lambda: open_fds() <= before, True)
    assert a.stop() == 0
