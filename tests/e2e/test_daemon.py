"""The daemon as an operator runs it: check a file, start on it, inspect it with
dhcp-relay-ctl, reload it with a changed and then a broken file, stop it. The control
protocol's own errors are ControlServerTest's, the kernel view test_kernel_view's."""

import signal
import textwrap

from conftest import AGENT, EXAMPLE, run


def write(path, text):
    path.write_text(textwrap.dedent(text))
    return path


def relay_config(ns, dscp=46, first_server="192.0.2.10", more=""):
    return f"""\
        vrfs:
          red: {ns}
        system:
          hostname: e2e-relay
          bridge-mac: 02:00:00:00:00:aa
        relay:
          dscp-v4: {dscp}
        interfaces:
          Ethernet1:
            servers:
              - address: {first_server}
              - address: 198.51.100.7
                vrf: red
            information-option: true
            circuit-id: rack4-port1
        {more}"""


def test_a_bad_file_is_refused_with_its_places_named(tmp_path):
    ok = run(AGENT, "--config", EXAMPLE, "--check", check=False)
    # The example names devices this host lacks: warned, not refused.
    assert (ok.returncode, ok.stdout.splitlines()[-1]) == (0, "ok"), ok.stderr

    bad = write(tmp_path / "bad.yaml", """\
        relay:
          dscp-v4: 64
        interfaces:
          Ethernet1:
            servers:
              - address: 10.0.0.300
        """)
    for args in (["--check"], ["--socket", tmp_path / "ctl.sock"]):
        res = run(AGENT, "--config", bad, *args, check=False)
        out = res.stdout + res.stderr
        assert res.returncode != 0, args
        assert f"{bad}:2: relay.dscp-v4:" in out, out
        assert f"{bad}:6: interfaces.Ethernet1.servers[0].address:" in out, out
    # At start, before anything is opened.
    assert not (tmp_path / "ctl.sock").exists()


def test_show_clear_reload_and_stop(tmp_path, netns, agent):
    red = netns("red")
    cfg = write(tmp_path / "relay.yaml", relay_config(red))
    a = agent(cfg)

    shown = a.show("config")
    eth1 = shown["interfaces"]["Ethernet1"]
    assert [s["address"] for s in eth1["servers"]] == ["192.0.2.10", "198.51.100.7"]
    assert eth1["servers"][1]["vrf"] == "red"
    assert shown["relay"]["dscp-v4"] == 46
    assert shown["vrfs"] == {"red": red}
    # What is shown is itself a configuration file.
    shown_file = tmp_path / "shown.yaml"
    shown_file.write_text(a.ctl("show", "config").stdout)
    assert run(AGENT, "--config", shown_file, "--check").stdout.endswith("ok\n")

    status = a.show("status")
    assert status["families"]["dhcpv4"] == "running"
    assert status["agent"]["pid"] == a.proc.pid and status["agent"]["version"]
    assert status["config"]["file"] == str(cfg) and status["config"]["loadedAt"] > 0
    assert status["interfaces"]["Ethernet1"]["servers"] == [
        "192.0.2.10 vrf default", "198.51.100.7 vrf red"]

    assert {v["vrf"]: v["namespace"] for v in a.show("vrfs")}["red"] == red

    # Asking for counters publishes them at once; clearing them is stamped.
    assert a.show("status")["counters"]["totalRequestsReceived"] == 0
    counters = a.show("counters")
    assert set(counters["counters"].values()) == {0}
    assert counters["counterUpdateTime"] > 0 and counters["lastResetAllTime"] == 0
    assert a.ctl("clear", "counters").stdout == "Relay counters cleared.\n"
    assert a.show("counters")["lastResetAllTime"] > 0
    res = a.ctl("clear", "counters", "Ethernet9", check=False)
    assert res.returncode == 1 and "Ethernet9" in res.stderr

    # A good change is applied on SIGHUP.
    write(cfg, relay_config(red, dscp=10, more="  Ethernet2: {servers: [{address: 192.0.2.20}]}\n"))
    a.signal(signal.SIGHUP)
    a.wait_log("configuration reloaded")
    shown = a.show("config")
    assert shown["relay"]["dscp-v4"] == 10
    assert "Ethernet2" in shown["interfaces"]

    # A broken file is refused with its place named; the running configuration stays.
    write(cfg, relay_config(red, first_server="192.0.2.999"))
    a.signal(signal.SIGHUP)
    a.wait_log(f"{cfg}:11: interfaces.Ethernet1.servers[0].address:")
    assert a.show("config") == shown
    res = a.ctl("reload", check=False)
    assert res.returncode == 1 and f"{cfg}:11:" in res.stderr

    assert a.stop() == 0
    assert "assertion failed" not in a.log_text()
