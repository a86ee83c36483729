"""The daemon as an operator runs it: start on a configuration file, inspect it with
dhcp-relay-ctl, reload it with a changed and then a broken file, stop it."""

import json
import signal
import socket
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


def test_check_accepts_the_example_and_names_what_is_wrong(tmp_path):
    ok = run(AGENT, "--config", EXAMPLE, "--check", check=False)
    assert ok.returncode == 0, ok.stderr
    assert ok.stdout.strip() == "ok"

    bad = write(tmp_path / "bad.yaml", """\
        relay:
          dscp-v4: 64
        interfaces:
          Ethernet1:
            servers:
              - address: 10.0.0.300
        """)
    res = run(AGENT, "--config", bad, "--check", check=False)
    assert res.returncode != 0
    out = res.stdout + res.stderr
    assert f"{bad}:2: relay.dscp-v4:" in out
    assert f"{bad}:6: interfaces.Ethernet1.servers[0].address:" in out


def test_bad_file_at_start_exits_nonzero_and_opens_nothing(tmp_path):
    bad = write(tmp_path / "bad.yaml", "vlans-typo: 1\n")
    res = run(AGENT, "--config", bad, "--socket", tmp_path / "ctl.sock", check=False)
    assert res.returncode != 0
    assert f"{bad}:1: vlans-typo:" in res.stdout + res.stderr
    assert not (tmp_path / "ctl.sock").exists()


def test_show_reload_and_stop(tmp_path, netns, agent):
    red = netns("red")
    cfg = write(tmp_path / "relay.yaml", relay_config(red))
    a = agent(cfg)

    shown = a.show("config")
    eth1 = shown["interfaces"]["Ethernet1"]
    assert [s["address"] for s in eth1["servers"]] == ["192.0.2.10", "198.51.100.7"]
    assert eth1["servers"][1]["vrf"] == "red"
    assert shown["relay"]["dscp-v4"] == 46
    assert shown["vrfs"] == {"red": red}

    vrfs = {v["vrf"]: v for v in a.show("vrfs")}
    assert vrfs["default"]["active"] is True
    assert vrfs["red"]["namespace"] == red and vrfs["red"]["active"] is True

    intfs = {v["vrf"]: v for v in a.show("interfaces")["vrfs"]}
    assert [i["device"] for i in intfs["red"]["interfaces"]] == ["lo"]
    assert any(i["device"] == "lo" for i in intfs["default"]["interfaces"])

    status = a.show("status")
    assert status["counters"]["totalRequestsReceived"] == 0

    text = a.ctl("show", "config").stdout
    assert "Ethernet1" in text and "198.51.100.7" in text

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


def test_malformed_control_requests_get_an_error_and_the_agent_keeps_running(tmp_path, agent):
    cfg = write(tmp_path / "relay.yaml", "relay: {dscp-v4: 1}\n")
    a = agent(cfg)
    for junk in [b"this is not json\n", b"[1, 2]\n", b'{"cmd": "launch"}\n', b"\xff\xfe\n"]:
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
            s.settimeout(5)
            s.connect(str(a.socket))
            s.sendall(junk)
            reply = json.loads(s.makefile().readline())
            assert reply["ok"] is False and reply["error"]
    assert a.show("config")["relay"]["dscp-v4"] == 1
    assert a.stop() == 0


def test_counters_are_published_on_request_and_cleared(tmp_path, agent):
    cfg = write(tmp_path / "relay.yaml", "interfaces: {Ethernet1: {servers: [{address: 192.0.2.10}]}}\n")
    a = agent(cfg)
    shown = a.show("counters")
    assert set(shown["counters"].values()) == {0}
    assert shown["counterUpdateTime"] > 0, "asking for counters publishes them at once"
    assert shown["lastResetAllTime"] == 0

    assert a.ctl("clear", "counters").stdout == "Relay counters cleared.\n"
    assert a.show("counters")["lastResetAllTime"] > 0

    res = a.ctl("clear", "counters", "Ethernet9", check=False)
    assert res.returncode == 1 and "Ethernet9" in res.stderr
    assert a.stop() == 0
