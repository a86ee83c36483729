"""The agent's view of the kernel as `show vrfs` and `show interfaces` give it: VRFs as
network namespaces, their devices and addresses, followed while an operator changes
them with `ip`. How each change is followed (promotion, carrier, moves, lost
notifications, descriptors) is the kernel front end's unit tests'."""

import textwrap
import time

from conftest import run


def settles(get, expected, timeout=5.0):
    """Polls `get()` until it returns `expected`: the agent follows the kernel on its own time."""
    deadline = time.monotonic() + timeout
    while (got := get()) != expected and time.monotonic() < deadline:
        time.sleep(0.05)
    assert got == expected


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

    def vrfs():
        return {v["vrf"]: v["active"] for v in a.show("vrfs")}

    def interfaces(vrf):
        view = {v["vrf"]: v for v in a.show("interfaces")["vrfs"]}[vrf]
        return {i["device"]: i for i in view["interfaces"]}

    def vr0():
        i = interfaces("red").get("vr0")
        return i and (i["intfId"], i["ipv4"], "2001:db8:1::1/64" in i["ipv6"], i["up"],
                      i["running"])
    assert vrfs() == {"default": True, "red": True, "blue": False}
    assert f"VRF blue is not active: namespace {blue} does not exist" in a.log_text()
    run("ip", "netns", "add", blue)
    settles(lambda: vrfs()["blue"], True)

    # A veth pair between the two VRFs, addressed in red.
    run("ip", "link", "add", "vr0", "netns", red, "type", "veth", "peer", "vb0", "netns", blue)
    for args in (("addr", "add", "192.0.2.1/24", "dev", "vr0"),
                 ("addr", "add", "192.0.2.9/24", "dev", "vr0"),
                 ("addr", "add", "2001:db8:1::1/64", "dev", "vr0", "nodad"),
                 ("link", "set", "vr0", "up")):
        run("ip", "-n", red, *args)
    settles(vr0, ("Ethernet1", ["192.0.2.1/24", "192.0.2.9/24"], True, True, False))
    run("ip", "-n", blue, "link", "set", "vb0", "up")
    settles(vr0, ("Ethernet1", ["192.0.2.1/24", "192.0.2.9/24"], True, True, True))
    assert interfaces("blue")["vb0"]["intfId"] == "Ethernet2"

    # The blue namespace goes away: its VRF is inactive and shows no devices, and vr0 went
    # with its veth peer.
    run("ip", "netns", "del", blue)
    settles(lambda: (vrfs()["blue"], interfaces("blue"), vr0()), (False, {}, None))
    assert a.stop() == 0
