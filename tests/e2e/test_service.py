"""The agent as the systemd unit runs it: with only the unit's capabilities, telling
systemd (here, the test's notification socket) when it is ready, reloading and stopping;
and relaying a real lease across VRFs, which needs every one of those capabilities."""

import re
import signal
import socket

import lab as L
from conftest import TOP, Agent
from test_relay4_vrf import NO_PING

UNIT = TOP / "packaging" / "dhcp-relay-agent.service"
CAP_BITS = {"CAP_NET_BIND_SERVICE": 10, "CAP_NET_ADMIN": 12, "CAP_NET_RAW": 13,
            "CAP_SYS_ADMIN": 21}


def unit_capabilities():
    text = UNIT.read_text()
    bounding = re.search(r"^CapabilityBoundingSet=(.*)$", text, re.M).group(1).split()
    ambient = re.search(r"^AmbientCapabilities=(.*)$", text, re.M).group(1).split()
    assert sorted(bounding) == sorted(ambient) == sorted(CAP_BITS), (bounding, ambient)
    return bounding


class Notifications:
    """What systemd would hear on NOTIFY_SOCKET."""

    def __init__(self, path):
        self.path = path
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(str(path))
        self.sock.settimeout(10)

    def next(self):
        return dict(line.split("=", 1) for line in self.sock.recv(4096).decode().splitlines())

    def close(self):
        self.sock.close()


def test_unit_capabilities_relay_and_notify(lab, tmp_path):  # noqa: F811
    caps = unit_capabilities()
    setpriv = ",".join(["-all"] + [f"+{c[4:].lower()}" for c in caps])
    lab.split_red_vrf()  # entering the VRF's namespace needs CAP_SYS_ADMIN
    lab.start_dhcpd("red", extra=NO_PING)
    # Option 82 tells the server in red which subnet the client is on.
    config = lab.agent_config(information_option=True,
                              servers=[{"address": L.RED_IP, "vrf": "red"}])
    notify = Notifications(tmp_path / "notify")
    try:
        # The lab stops the agent, which runs in its relay namespace, if the test fails.
        a = Agent(tmp_path, config, lab.ns["relay"],
                  wrap=["setpriv", "--no-new-privs", f"--bounding-set={setpriv}",
                        f"--inh-caps={setpriv}", f"--ambient-caps={setpriv}"],
                  env={"NOTIFY_SOCKET": str(notify.path)})
        assert notify.next() == {"READY": "1"}
        status = dict(line.split(":\t", 1) for line in
                      open(f"/proc/{a.proc.pid}/status").read().splitlines() if ":\t" in line)
        mask = sum(1 << CAP_BITS[c] for c in caps)
        assert [int(status[k], 16) for k in ("CapBnd", "CapEff", "CapAmb")] == [mask] * 3
        assert status["NoNewPrivs"].strip() == "1"

        lease = lab.dhclient(timeout=20)
        assert lease is not None and lease.ip.startswith("192.0.2."), a.log_text()

        # A refused file fails the reload (systemctl reload runs dhcp-relay-ctl reload),
        # and systemd hears the agent is ready again.
        good = config.read_text()
        config.write_text(good + "bogus-key: 1\n")
        assert a.ctl("reload", check=False).returncode == 1
        assert notify.next()["RELOADING"] == "1"
        assert notify.next() == {"READY": "1"}
        config.write_text(good)
        assert a.ctl("reload").returncode == 0
        assert [notify.next()["RELOADING"], notify.next()] == ["1", {"READY": "1"}]

        a.signal(signal.SIGTERM)
        assert notify.next() == {"STOPPING": "1"}
        assert a.stop() == 0
    finally:
        notify.close()
