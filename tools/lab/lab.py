"""A DHCP lab in network namespaces, with ISC dhcpd and dhclient as real peers, for
DHCPv4 and DHCPv6 alike.

    client --veth-- relay --veth-- server (bridge) --veth-- server2
                      |
                      +---veth---- red

Every namespace is named `<prefix>-<role>`, so nothing here touches the host's
devices or addresses and all traffic stays between the namespaces. The relay
agent runs inside the relay namespace (`ip netns exec`), so its default VRF is
that namespace; `red` is the namespace a cross-VRF server lives in.

A dnsmasq in the server namespace (start_dns) can be the relay namespace's DNS
server, for servers the agent knows by host name.

Lab.insert_switch() puts an access switch (a namespace of its own) between the
client and the relay, for option 82 that a first hop put in;
Lab.insert_downstream_relay() puts another DHCPv6 relay (ISC dhcrelay, namespace
"hop") there, for Relay-Forw messages that reach the agent already relayed.

Every link has an IPv4 subnet and a global IPv6 /64 (documentation prefixes) with
an address at both ends, and link-local addresses; duplicate address detection is
off in every lab namespace, so addresses are usable the moment they exist (a
DHCPv6 client sends from its link-local address, which must not be tentative).

The server side is one bridged link (the bridge lives in the server namespace),
so both servers are one hop from the relay's Ethernet2 and the relay's view stays
a plain veth.

`close()` stops every process started in the lab's namespaces and deletes them;
it is safe to call twice and after a half-built lab.

Run as a program, this module drives a lab from a shell (scripts/lab.sh):
    lab.py --prefix P --dir D up | dhcpd ROLE | dhcpd6 ROLE | client [--timeout S]
                                 | client6 [--timeout S] | agent-config | names | down
"""

import argparse
import ipaddress
import json
import os
import re
import shutil
import signal
import struct
import subprocess
import sys
import textwrap
import time
from dataclasses import dataclass, field
from pathlib import Path

import dhcp6

HERE = Path(__file__).resolve().parent
CLIENT_SCRIPT = HERE / "dhclient-script"
PYTHON = "/usr/bin/python3"  # the Debian one: it has scapy

# Kernel device names, the same in every lab (they live in different namespaces).
CLIENT_DEV = "c0"          # client -> relay
RELAY_CLIENT_DEV = "r0"    # relay  -> client      (system name Ethernet1)
RELAY_SERVER_DEV = "r1"    # relay  -> server link (system name Ethernet2)
RELAY_RED_DEV = "r2"       # relay  -> red         (system name Ethernet3)
SERVER_BRIDGE = "br0"
SERVER_DEV = "s0"          # server's bridge port towards the relay
SERVER_PEER_DEV = "s1"     # server's bridge port towards server2
SERVER2_DEV = "s2"
RED_DEV = "e0"
SWITCH_DOWN_DEV = "w0"     # switch -> client     (Lab.insert_switch)
SWITCH_UP_DEV = "w1"       # switch -> relay
HOP_DOWN_DEV = "h0"        # downstream relay -> client   (Lab.insert_downstream_relay)
HOP_UP_DEV = "h1"          # downstream relay -> relay

# Documentation ranges (RFC 5737); the relay's secondary client subnet is from the
# benchmark range (RFC 2544), which is reserved for tests like this one too.
CLIENT_NET = "192.0.2.0/24"
RELAY_CLIENT_IP = "192.0.2.1"
SECONDARY_NET = "198.18.0.0/24"
RELAY_SECONDARY_IP = "198.18.0.1"
SERVER_NET = "198.51.100.0/24"
RELAY_SERVER_IP = "198.51.100.1"
SERVER_IP = "198.51.100.2"
SERVER2_IP = "198.51.100.3"
RED_NET = "203.0.113.0/24"
RELAY_RED_IP = "203.0.113.1"
RED_IP = "203.0.113.2"

# IPv6 (RFC 3849), one /64 per link, the relay's end ::1 as in IPv4.
CLIENT_NET6 = "2001:db8:1::/64"
RELAY_CLIENT_IP6 = "2001:db8:1::1"
CLIENT_IP6 = "2001:db8:1::c"       # the client's own, beside any address it leases
SERVER_NET6 = "2001:db8:2::/64"
RELAY_SERVER_IP6 = "2001:db8:2::1"
SERVER_IP6 = "2001:db8:2::2"
SERVER2_IP6 = "2001:db8:2::3"
RED_NET6 = "2001:db8:3::/64"
RELAY_RED_IP6 = "2001:db8:3::1"
RED_IP6 = "2001:db8:3::2"
# Behind a downstream relay (Lab.insert_downstream_relay): the client's link is another
# one, and the downstream relay's upstream side is a second host on the relay's
# client link.
DOWNSTREAM_NET6 = "2001:db8:4::/64"
HOP_DOWN_IP6 = "2001:db8:4::1"
DOWNSTREAM_CLIENT_IP6 = "2001:db8:4::c"
HOP_UP_IP6 = "2001:db8:1::2"

# Each server leases from its own part of the pool, so a lease names its server.
POOLS = {
    "server": {CLIENT_NET: ("192.0.2.100", "192.0.2.149"),
               SECONDARY_NET: ("198.18.0.100", "198.18.0.149")},
    "server2": {CLIENT_NET: ("192.0.2.150", "192.0.2.199"),
                SECONDARY_NET: ("198.18.0.150", "198.18.0.199")},
    # dhcpd in red, reached across VRFs (see Lab.split_red_vrf).
    "red": {CLIENT_NET: ("192.0.2.50", "192.0.2.99")},
}

# DHCPv6 the same way: each server's addresses from its own part of each client link,
# and its delegated prefixes (/56) from its own /48 of 2001:db8:ff00::/40.
POOLS6 = {
    "server": {CLIENT_NET6: ("2001:db8:1::100", "2001:db8:1::1ff"),
               DOWNSTREAM_NET6: ("2001:db8:4::100", "2001:db8:4::1ff")},
    "server2": {CLIENT_NET6: ("2001:db8:1::200", "2001:db8:1::2ff"),
                DOWNSTREAM_NET6: ("2001:db8:4::200", "2001:db8:4::2ff")},
    "red": {CLIENT_NET6: ("2001:db8:1::300", "2001:db8:1::3ff"),
            DOWNSTREAM_NET6: ("2001:db8:4::300", "2001:db8:4::3ff")},
}
PD_POOLS = {"server": "2001:db8:ff00::/48", "server2": "2001:db8:ff01::/48",
            "red": "2001:db8:ff02::/48"}
DELEGATED_LEN = 56

ROLES = ("client", "relay", "server", "server2", "red")
SERVER_DEVS = {"server": SERVER_BRIDGE, "server2": SERVER2_DEV, "red": RED_DEV}

# `ip netns exec NS` bind-mounts every file of /etc/netns/NS over its namesake in
# /etc, so a resolv.conf there is the resolver configuration of whatever the lab runs
# in NS (see Lab.start_dns).
ETC_NETNS = Path("/etc/netns")
DNS_DOMAIN = "lab.test"    # RFC 6761: reserved for tests


def run(*args, check=True, **kw):
    res = subprocess.run([str(a) for a in args], capture_output=True, text=True, **kw)
    if check and res.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, args))} failed ({res.returncode}): {res.stderr}")
    return res


def wait_for(check, timeout, what):
    """Polls `check` until it returns something true; the kernel and the daemons
    report readiness only through files and logs."""
    deadline = time.monotonic() + timeout
    while True:
        got = check()
        if got:
            return got
        if time.monotonic() > deadline:
            raise TimeoutError(f"timed out after {timeout}s waiting for {what}")
        time.sleep(0.05)


def _router(cidr):
    """The relay's address in each client subnet is the subnet's first host."""
    return str(ipaddress.ip_network(cidr).network_address + 1)


def _subnet(cidr, body=""):
    net = ipaddress.ip_network(cidr)
    return f"subnet {net.network_address} netmask {net.netmask} {{{body}}}\n"


def server_of6(leased):
    """The role whose pool an IPv6 address or delegated prefix came from, or None."""
    if "/" in leased:
        net = ipaddress.ip_network(leased)
        return next((role for role, pool in PD_POOLS.items()
                     if net.subnet_of(ipaddress.ip_network(pool))), None)
    addr = ipaddress.ip_address(leased)
    return next((role for role, nets in POOLS6.items() for lo, hi in nets.values()
                 if ipaddress.ip_address(lo) <= addr <= ipaddress.ip_address(hi)), None)


def _hex_bytes(text):
    """dhcpd's binary-to-ascii(16, 8, ":", ...) drops leading zeros ("a:1")."""
    return bytes(int(b, 16) for b in text.split(":")) if text else b""


# The option 82 sub-options dhcpd logs, as (dhcpd's name, Seen field, logged as hex):
# agent.circuit-id is 1, agent.remote-id 2, agent.link-selection 5; dhcpd has no names for
# 11, server identifier override (RFC 5107), and 151, virtual subnet selection (RFC 6607),
# so they get some here. Byte strings go as hex, so any byte survives syslog text;
# addresses as dotted decimal.
_LOGGED = (("agent.circuit-id", "circuit_id", True), ("agent.remote-id", "remote_id", True),
           ("agent.link-selection", "link_selection", False),
           ("agent.lab-server-id-override", "server_id_override", False),
           ("agent.lab-vss", "vss", True))
_HEX = {field for _, field, hexed in _LOGGED if hexed}

# Statements at the top of dhcpd.conf run for every packet dhcpd answers, so the log
# shows what the server got from the relay: giaddr and the sub-options above. dhcpd
# also evaluates them once at start-up, with no packet: the outer `if` keeps that quiet.
DHCPD_LOG = ("option agent.lab-server-id-override code 11 = ip-address;\n"
             "option agent.lab-vss code 151 = string;\n"
             "if exists dhcp-message-type {\n"
             '   log(info, concat("lab: giaddr=", binary-to-ascii(10, 8, ".", packet(24, 4)),\n'
             '                    " chaddr=", binary-to-ascii(16, 8, ":", substring(hardware, 1, 6)),\n'
             '                    " type=", binary-to-ascii(10, 8, "", option dhcp-message-type)));\n'
             + "".join(f'   if exists {opt} {{ log(info, concat("lab: {field}=", binary-to-ascii('
                       + ('16, 8, ":"' if hexed else '10, 8, "."') + f", option {opt}))); }}\n"
                       for opt, field, hexed in _LOGGED)
             + "}\n")


@dataclass
class Seen:
    """One packet as dhcpd logged it."""
    giaddr: str
    chaddr: str
    msg_type: int
    circuit_id: bytes = None
    remote_id: bytes = None
    link_selection: str = None
    server_id_override: str = None
    vss: bytes = None  # type byte, then the VPN identifier


class _DhcpdProcess:
    """ISC dhcpd in the foreground in one namespace, with its files in the lab directory
    under `name`."""

    def _start(self, lab, ns, dev, name, family, conf_text):
        self.ns = ns
        base = lab.dir / name
        conf, leases = base.with_suffix(".conf"), base.with_suffix(".leases")
        self.log = base.with_suffix(".log")
        conf.write_text(conf_text)
        leases.write_text("")
        self.proc = lab.spawn(ns, [lab.binary("/usr/sbin/dhcpd"), family, "-f", "-d", "-cf", conf,
                                   "-lf", leases, "-pf", base.with_suffix(".pid"), dev], self.log)
        wait_for(self._ready, 10, f"dhcpd {family} in {ns}")

    def _ready(self):
        if self.proc.poll() is not None:
            raise RuntimeError(f"dhcpd exited ({self.proc.returncode}):\n{self.log_text()}")
        return "Server starting service." in self.log_text()

    def log_text(self):
        return self.log.read_text(errors="replace") if self.log.exists() else ""


class Dhcpd(_DhcpdProcess):
    # Without a declaration for a giaddr's subnet dhcpd ignores the request ("unknown
    # network segment"); `subnets` chooses which ones it knows.
    ALL_SUBNETS = (SERVER_NET, CLIENT_NET, SECONDARY_NET, RED_NET)

    def __init__(self, lab, role, ns, dev, pools, extra="", subnets=ALL_SUBNETS):
        text = ("authoritative;\nddns-update-style none;\n"
                "default-lease-time 600;\nmax-lease-time 600;\n" + extra + DHCPD_LOG)
        for cidr in subnets:
            body = ""
            if cidr in pools:
                lo, hi = pools[cidr]
                body = f" range {lo} {hi}; option routers {_router(cidr)}; "
            text += _subnet(cidr, body)
        self._start(lab, ns, dev, f"dhcpd-{role}", "-4", text)

    def seen(self):
        """What dhcpd logged per packet, in order."""
        out = []
        for m in re.finditer(r"lab: (\w+)=(\S*)(?: chaddr=(\S*) type=(\d*))?", self.log_text()):
            field, value = m.group(1), m.group(2)
            if field == "giaddr":
                chaddr = ":".join(f"{b:02x}" for b in _hex_bytes(m.group(3)))
                out.append(Seen(giaddr=value, chaddr=chaddr, msg_type=int(m.group(4) or 0)))
            elif out:
                setattr(out[-1], field, _hex_bytes(value) if field in _HEX else value)
        return out

    def acks(self):
        """(address, interface-or-relay) of every DHCPACK the server sent."""
        return re.findall(r"DHCPACK on (\S+) to \S+ .*?via (\S+)", self.log_text())


class Dhcpd6(_DhcpdProcess):
    """dhcpd -6: addresses (IA_NA) and delegated prefixes (IA_PD) of `role`'s pools. A
    relayed request is served from the subnet6 that holds the link-address of the relay
    nearest the client; the server answers the relay that sent it the Relay-Forw. Its
    log names each Relay-Forw's addresses; the options show in captures only
    (dhcp6.captured)."""
    SUBNETS = (SERVER_NET6, RED_NET6, CLIENT_NET6, DOWNSTREAM_NET6)

    def __init__(self, lab, role, ns, dev, extra=""):
        net = ipaddress.ip_network(PD_POOLS[role])
        last = net.network_address + net.num_addresses - (1 << (128 - DELEGATED_LEN))
        text = ("ddns-update-style none;\ndefault-lease-time 600;\nmax-lease-time 600;\n"
                "preferred-lifetime 300;\n" + extra)
        for cidr in self.SUBNETS:
            body = ""
            if cidr in POOLS6[role]:
                body = " range6 {} {}; ".format(*POOLS6[role][cidr])
            if cidr == CLIENT_NET6:
                body += f"prefix6 {net.network_address} {last} /{DELEGATED_LEN}; "
            text += f"subnet6 {cidr} {{{body}}}\n"
        self._start(lab, ns, dev, f"dhcpd6-{role}", "-6", text)


@dataclass
class Lease:
    ip: str
    server: str
    mask: str
    routers: str = None
    vars: dict = field(default_factory=dict)


@dataclass
class Lease6:
    """What dhclient -6 bound: an address (IA_NA) and/or a delegated prefix (IA_PD,
    "ADDRESS/LEN")."""
    address: str = None
    prefix: str = None
    vars: dict = field(default_factory=dict)


DHCP4_PORTS = (67, 68)
DHCP6_PORTS = (dhcp6.PORT_CLIENT, dhcp6.PORT_AGENT)


class Capture:
    """tcpdump on one device of one namespace, written to a pcap file and read back
    with scapy once stopped: DHCPv4 or, with DHCP6_PORTS, DHCPv6."""

    def __init__(self, lab, ns, dev, ports=DHCP4_PORTS):
        self.pcap = lab.dir / f"cap-{ns}-{dev}-{len(lab.procs)}.pcap"
        self.log = self.pcap.with_suffix(".log")
        # -U and --immediate-mode write each packet as it comes (without the latter,
        # packets wait in the kernel ring block and stop() loses them). -p: a promiscuous
        # bridge device hands every frame it forwards up to the local stack, where
        # dhcpd's packet socket would answer packets meant for others.
        self.proc = lab.spawn(ns, [lab.binary("/usr/bin/tcpdump"), "-i", dev, "-n", "-U",
                                   "--immediate-mode", "-p", "-w", self.pcap,
                                   f"udp port {ports[0]} or udp port {ports[1]}"], self.log)
        wait_for(self._ready, 10, f"tcpdump on {ns}/{dev}")

    def _ready(self):
        if self.proc.poll() is not None:
            raise RuntimeError(f"tcpdump exited: {self.log.read_text()}")
        return "listening on" in self.log.read_text()

    def packets(self):
        """What was captured so far (tcpdump -U flushes per packet; a record caught
        half-written counts as not there yet)."""
        from scapy.all import rdpcap  # all: registers the link layers pcap names
        from scapy.error import Scapy_Exception
        try:
            return list(rdpcap(str(self.pcap)))
        except (Scapy_Exception, EOFError, struct.error):
            return []

    def wait(self, check, timeout=10, what="packets"):
        """Polls until `check(packets)` is true; returns the packets."""
        return wait_for(lambda: check(self.packets()) and self.packets(), timeout, what)

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGINT)
            self.proc.wait(timeout=10)
        return self.packets()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()


def dhcp_type(pkt):
    """The DHCP message type of a scapy packet (1 DISCOVER ... 8 INFORM), or None."""
    from scapy.layers.dhcp import DHCP
    if DHCP not in pkt:
        return None
    for opt in pkt[DHCP].options:
        if isinstance(opt, tuple) and opt[0] == "message-type":
            return opt[1]
    return None


class Lab:
    """The namespaces and the peers in them.

    `make_ns(role) -> name` creates a namespace (tests pass conftest's `netns`
    factory, so its clean-up covers the lab too); without it the lab creates
    `<prefix>-<role>` itself. `build=False` attaches to a lab an earlier process
    built (the shell entry point runs one step per process)."""

    def __init__(self, workdir, prefix=None, make_ns=None, build=True):
        self.dir = Path(workdir)
        self.dir.mkdir(parents=True, exist_ok=True)
        self.procs = []
        self._made_etc_netns = False
        self._apparmor = self._confined_binaries()
        if make_ns is None:
            def make_ns(role):
                name = f"{prefix}-{role}"
                run("ip", "netns", "add", name)
                run("ip", "-n", name, "link", "set", "lo", "up")
                return name
        self._make_ns = lambda role: self._without_dad(make_ns(role))
        if not build:
            self.ns = {r: f"{prefix}-{r}" for r in ROLES}
            return
        self.ns = {}
        try:
            for role in ROLES:
                self.ns[role] = self._make_ns(role)
            self._wire()
        except BaseException:
            self.close()
            raise

    # --- topology ----------------------------------------------------------------

    def ip(self, role, *args):
        return run("ip", "-n", self.ns[role], *args)

    @staticmethod
    def _without_dad(ns):
        """Devices take these defaults when they are created in (or moved into) the
        namespace, so the lab's addresses are never tentative."""
        run("ip", "netns", "exec", ns, "sysctl", "-qw", "net.ipv6.conf.all.accept_dad=0",
            "net.ipv6.conf.default.accept_dad=0")
        return ns

    def _addr6(self, role, dev, address):
        self.ip(role, "-6", "addr", "add", f"{address}/64", "dev", dev, "nodad")

    def addr6(self, role, dev, scope="link"):
        """The first IPv6 address of `scope` ("link" or "global") on `dev`. The kernel
        makes a link-local address once the link has carrier, which a veth reports a
        moment after it is up: this waits for it."""
        def first():
            shown = json.loads(self.ip(role, "-j", "-6", "addr", "show", "dev", dev, "scope",
                                       scope).stdout)
            return next((a["local"] for a in shown[0]["addr_info"] if "local" in a), None)
        return wait_for(first, 10, f"an IPv6 {scope} address on {role}/{dev}")

    def _veth(self, a, a_dev, b, b_dev):
        # Created inside `a` with its peer moved straight to `b`: the pair never
        # exists in the host's namespace, not even for a moment.
        self.ip(a, "link", "add", a_dev, "type", "veth", "peer", b_dev, "netns", self.ns[b])
        self.ip(a, "link", "set", a_dev, "up")
        self.ip(b, "link", "set", b_dev, "up")

    def _wire(self):
        self._veth("relay", RELAY_CLIENT_DEV, "client", CLIENT_DEV)
        self._veth("relay", RELAY_SERVER_DEV, "server", SERVER_DEV)
        self._veth("relay", RELAY_RED_DEV, "red", RED_DEV)
        self._veth("server2", SERVER2_DEV, "server", SERVER_PEER_DEV)

        self.ip("server", "link", "add", SERVER_BRIDGE, "type", "bridge", "stp_state", "0",
                "forward_delay", "0")
        for dev in (SERVER_DEV, SERVER_PEER_DEV):
            self.ip("server", "link", "set", dev, "master", SERVER_BRIDGE)
        self.ip("server", "link", "set", SERVER_BRIDGE, "up")
        # dhcpd reads with a packet socket that matches only the UDP port, so a
        # unicast the bridge floods while it has not learned the MACs yet reaches
        # both servers and both answer. Static entries keep each unicast on its way.
        for role, dev, port in (("relay", RELAY_SERVER_DEV, SERVER_DEV),
                                ("server2", SERVER2_DEV, SERVER_PEER_DEV)):
            mac = json.loads(self.ip(role, "-j", "link", "show", "dev", dev).stdout)[0]["address"]
            run("bridge", "-n", self.ns["server"], "fdb", "replace", mac, "dev", port, "master",
                "static")

        self.ip("relay", "addr", "add", f"{RELAY_CLIENT_IP}/24", "dev", RELAY_CLIENT_DEV)
        self.ip("relay", "addr", "add", f"{RELAY_SERVER_IP}/24", "dev", RELAY_SERVER_DEV)
        self.ip("relay", "addr", "add", f"{RELAY_RED_IP}/24", "dev", RELAY_RED_DEV)
        self.ip("server", "addr", "add", f"{SERVER_IP}/24", "dev", SERVER_BRIDGE)
        self.ip("server2", "addr", "add", f"{SERVER2_IP}/24", "dev", SERVER2_DEV)
        self.ip("red", "addr", "add", f"{RED_IP}/24", "dev", RED_DEV)
        for role in ("server", "server2"):
            for net in (CLIENT_NET, SECONDARY_NET):
                self.ip(role, "route", "add", net, "via", RELAY_SERVER_IP)
        self.ip("red", "route", "add", "default", "via", RELAY_RED_IP)
        ends6 = (("relay", RELAY_CLIENT_DEV, RELAY_CLIENT_IP6), ("client", CLIENT_DEV, CLIENT_IP6),
                 ("relay", RELAY_SERVER_DEV, RELAY_SERVER_IP6),
                 ("server", SERVER_BRIDGE, SERVER_IP6), ("server2", SERVER2_DEV, SERVER2_IP6),
                 ("relay", RELAY_RED_DEV, RELAY_RED_IP6), ("red", RED_DEV, RED_IP6))
        for role, dev, address in ends6:
            self._addr6(role, dev, address)
        for role in ("server", "server2"):
            for net in (CLIENT_NET6, DOWNSTREAM_NET6):
                self.ip(role, "-6", "route", "add", net, "via", RELAY_SERVER_IP6)
        self.ip("red", "-6", "route", "add", "default", "via", RELAY_RED_IP6)
        run("ip", "netns", "exec", self.ns["relay"], "sysctl", "-qw", "net.ipv4.ip_forward=1",
            "net.ipv6.conf.all.forwarding=1")
        # DHCPv6 peers bind to link-local addresses: every end has one before the lab is.
        for role, dev, _ in ends6:
            self.addr6(role, dev)

    def add_secondary(self):
        """The relay's secondary address on the client link (smart relay, giaddr
        rotation); the servers already route its subnet via the relay."""
        self.ip("relay", "addr", "add", f"{RELAY_SECONDARY_IP}/24", "dev", RELAY_CLIENT_DEV)

    def del_secondary(self):
        self.ip("relay", "addr", "del", f"{RELAY_SECONDARY_IP}/24", "dev", RELAY_CLIENT_DEV)

    def split_red_vrf(self):
        """Moves the relay's red-side device (Ethernet3) into a namespace of its own,
        "redvrf", which agent_config() then names as the agent's VRF red: a server in
        red is then reachable from the client's VRF only across VRFs, as on a router
        whose VRF red holds Ethernet3."""
        self.ns["redvrf"] = self._make_ns("redvrf")
        # A device moved to another namespace loses its addresses and goes down.
        self.ip("relay", "link", "set", RELAY_RED_DEV, "netns", self.ns["redvrf"])
        self.ip("redvrf", "addr", "add", f"{RELAY_RED_IP}/24", "dev", RELAY_RED_DEV)
        self._addr6("redvrf", RELAY_RED_DEV, RELAY_RED_IP6)
        self.ip("redvrf", "link", "set", RELAY_RED_DEV, "up")

    def insert_switch(self, option82):
        """Puts an access switch between the client and the relay (access_switch.py,
        in namespace "switch") that adds `option82` (the option's value, bytes) to
        every DHCP request of the client. The client keeps its device name; the
        relay's Ethernet1 now faces the switch."""
        self.ns["switch"] = self._make_ns("switch")
        # The device keeps its peer (the relay's r0) when it moves, and goes down.
        self.ip("client", "link", "set", CLIENT_DEV, "netns", self.ns["switch"])
        self.ip("switch", "link", "set", CLIENT_DEV, "name", SWITCH_UP_DEV)
        self.ip("switch", "link", "set", SWITCH_UP_DEV, "up")
        self._veth("client", CLIENT_DEV, "switch", SWITCH_DOWN_DEV)
        log = self.dir / "switch.log"
        proc = self.spawn("switch", [PYTHON, HERE / "access_switch.py", SWITCH_DOWN_DEV,
                                     SWITCH_UP_DEV, option82.hex()], log)

        def ready():
            if proc.poll() is not None:
                raise RuntimeError(f"the switch exited: {log.read_text()}")
            return "forwarding" in log.read_text()
        wait_for(ready, 20, "the switch")

    def insert_downstream_relay(self):
        """Puts another DHCPv6 relay between the client and the relay: ISC dhcrelay -6 in
        namespace "hop", relaying the client's link (DOWNSTREAM_NET6, the client's device
        keeps its name) to the relay's Ethernet1 address. Its upstream side is a host on
        the relay's client link with a global address (HOP_UP_IP6)."""
        self.ns["hop"] = self._make_ns("hop")
        # The device keeps its peer (the relay's r0) when it moves, and goes down.
        self.ip("client", "link", "set", CLIENT_DEV, "netns", self.ns["hop"])
        self.ip("hop", "link", "set", CLIENT_DEV, "name", HOP_UP_DEV)
        self.ip("hop", "link", "set", HOP_UP_DEV, "up")
        self._addr6("hop", HOP_UP_DEV, HOP_UP_IP6)
        self._veth("client", CLIENT_DEV, "hop", HOP_DOWN_DEV)
        self._addr6("hop", HOP_DOWN_DEV, HOP_DOWN_IP6)
        self._addr6("client", CLIENT_DEV, DOWNSTREAM_CLIENT_IP6)
        return self.start_dhcrelay6("hop", HOP_DOWN_DEV, RELAY_CLIENT_IP6, HOP_UP_DEV)

    def agent_config(self, path=None, global_relay=None, **relay_settings):
        """Writes the agent's YAML for this lab: Ethernet1 faces the client with
        `relay_settings` (keys as in examples/dhcp-relay.yaml, "_" for "-": servers,
        servers_v6, ccap_cores, ...; without servers or servers_v6 the one server is
        `server`'s DHCPv4), Ethernet2 the servers, Ethernet3 red. VRF red is the red
        namespace, or "redvrf" after split_red_vrf(). `global_relay` is the file's
        `relay:` section, keyed as in the file (dscp-v6, remote-id, ...)."""
        settings = {k.replace("_", "-"): v for k, v in relay_settings.items()}
        if "servers" not in settings and "servers-v6" not in settings:
            settings = {"servers": [{"address": SERVER_IP}], **settings}
        path = Path(path or self.dir / "relay.yaml")
        lines = [f"vrfs:\n  red: {self.ns.get('redvrf', self.ns['red'])}\n",
                 "system:\n  hostname: lab-relay\n  bridge-mac: 02:00:00:00:01:00\n",
                 f"devices:\n  Ethernet1: {RELAY_CLIENT_DEV}\n  Ethernet2: {RELAY_SERVER_DEV}\n"
                 f"  Ethernet3: {RELAY_RED_DEV}\n",
                 "interfaces:\n  Ethernet1:\n"]
        if global_relay:
            lines.insert(-1, "relay:\n" + "".join(f"  {k}: {_yaml(v)}\n"
                                                  for k, v in global_relay.items()))
        for key, value in settings.items():
            lines.append(f"    {key}: {_yaml(value)}\n")
        path.write_text("".join(lines))
        return path

    # --- processes ---------------------------------------------------------------

    @staticmethod
    def _confined_binaries():
        """Binaries an AppArmor profile confines in enforce mode. The Debian profiles
        for dhcpd, dhclient and tcpdump allow only their /etc and /var paths, so a
        lab file elsewhere would be refused; see binary()."""
        try:
            text = Path("/sys/kernel/security/apparmor/profiles").read_text()
        except OSError:
            return set()
        return {m.group(1) for m in re.finditer(r"^(\S+) \(enforce\)", text, re.M)}

    def binary(self, path):
        """AppArmor attaches a profile by the executable's path, so a copy in the lab
        directory runs the same program unconfined and may read the lab's files."""
        if not any(Path(p).name == Path(path).name for p in self._apparmor):
            return path
        copy = self.dir / Path(path).name
        if not copy.exists():
            copy.write_bytes(Path(path).read_bytes())
            copy.chmod(0o755)
        return copy

    def spawn(self, role_or_ns, argv, log):
        ns = self.ns.get(role_or_ns, role_or_ns)
        proc = subprocess.Popen(["ip", "netns", "exec", ns, *map(str, argv)],
                                stdout=open(log, "w"), stderr=subprocess.STDOUT,
                                stdin=subprocess.DEVNULL, start_new_session=True)
        self.procs.append(proc)
        return proc

    def start_dhcpd(self, role="server", second_pool=False, extra="", only=None):
        """dhcpd in `role`'s namespace: "server"/"server2" behind the relay, or "red"
        behind the relay's Ethernet3. `extra` goes into dhcpd.conf as it is. `only` lists the
        client subnets it serves (its pools of POOLS); it then knows no other client
        subnet, so it ignores requests relayed from any other giaddr."""
        subnets = Dhcpd.ALL_SUBNETS
        if only is not None:
            pools = {cidr: POOLS[role][cidr] for cidr in only}
            subnets = (SERVER_NET, RED_NET, *only)
        else:
            pools = {cidr: r for cidr, r in POOLS[role].items()
                     if cidr == CLIENT_NET or (second_pool and cidr == SECONDARY_NET)}
        return Dhcpd(self, role, self.ns[role], SERVER_DEVS[role], pools, extra, subnets)

    def start_dhcpd6(self, role="server", extra=""):
        """dhcpd -6 in `role`'s namespace (as start_dhcpd), serving POOLS6 and PD_POOLS."""
        return Dhcpd6(self, role, self.ns[role], SERVER_DEVS[role], extra)

    def start_dhcrelay6(self, role, downstream, upstream, upstream_dev):
        """ISC dhcrelay -6 in `role`'s namespace: a relay that is no part of this project,
        relaying the clients on device `downstream` to address `upstream` out of
        `upstream_dev`, and the replies back."""
        log = self.dir / f"dhcrelay6-{role}.log"
        proc = self.spawn(role, [self.binary("/usr/sbin/dhcrelay"), "-6", "-d",
                                 "-pf", self.dir / f"dhcrelay6-{role}.pid", "-l", downstream,
                                 "-u", f"{upstream}%{upstream_dev}"], log)

        def ready():
            if proc.poll() is not None:
                raise RuntimeError(f"dhcrelay exited ({proc.returncode}): {log.read_text()}")
            return "Sending on" in log.read_text()
        wait_for(ready, 10, f"dhcrelay -6 in {role}")
        return proc

    def start_dns(self, records, ttl=5):
        """A DNS server (dnsmasq, DNS only) in the server namespace, on the server's
        address, answering `records` ({name: IPv4 address}) with `ttl` and NXDOMAIN
        for every other name under DNS_DOMAIN; it is the relay namespace's resolver
        for whatever starts there from now on (the agent)."""
        self.dns_hosts = self.dir / "dns.hosts"
        self.dns_log = self.dir / "dnsmasq.log"
        self._write_dns(records)
        # No dhcp-range and no configuration file: dnsmasq serves no DHCP.
        self._dns = proc = self.spawn("server", [
            self.binary("/usr/sbin/dnsmasq"), "--keep-in-foreground", "--log-facility=-",
            "--log-queries", "--conf-file=/dev/null", "--no-resolv", "--no-hosts",
            f"--addn-hosts={self.dns_hosts}", f"--local-ttl={ttl}", f"--neg-ttl={ttl}",
            f"--local=/{DNS_DOMAIN}/", f"--listen-address={SERVER_IP}", "--bind-interfaces",
            "--user=root", f"--pid-file={self.dir / 'dnsmasq.pid'}"], self.dns_log)

        def ready():
            if proc.poll() is not None:
                raise RuntimeError(f"dnsmasq exited: {self.dns_log.read_text()}")
            return self._dns_reads()
        wait_for(ready, 10, "dnsmasq")
        self._made_etc_netns = not ETC_NETNS.exists()
        etc = ETC_NETNS / self.ns["relay"]
        etc.mkdir(parents=True, exist_ok=True)
        (etc / "resolv.conf").write_text(f"nameserver {SERVER_IP}\n")

    def set_dns(self, records):
        """Replaces the DNS server's records; returns once it answers with them."""
        reads = self._dns_reads()
        self._write_dns(records)
        self._dns.send_signal(signal.SIGHUP)  # `ip netns exec` execs dnsmasq: same pid
        wait_for(lambda: self._dns_reads() > reads, 10, "dnsmasq to re-read its records")

    def _write_dns(self, records):
        self.dns_hosts.write_text("".join(f"{ip} {name}\n" for name, ip in records.items()))

    def _dns_reads(self):
        text = self.dns_log.read_text() if self.dns_log.exists() else ""
        return text.count(f"read {self.dns_hosts}")

    def dns_queries(self, name):
        """The answers dnsmasq logged for `name`, in order."""
        text = self.dns_log.read_text() if self.dns_log.exists() else ""
        return re.findall(rf"\S+ {re.escape(name)} is (\S+)", text)

    def dhclient(self, timeout=10, until="BOUND", extra=""):
        """Runs dhclient once in the client namespace; returns the Lease it bound, or
        None if none was bound within `timeout` seconds. The client keeps the
        address on its interface; call again for another DORA. With until="RENEW"
        dhclient runs on past BOUND until its first renewal (at the T1 the server
        gave) and the Lease is the renewed one. `extra` goes into dhclient.conf as
        it is (e.g. "reject ADDRESS;" turns down the offers sent from ADDRESS)."""
        # dhclient gives up after `timeout`; retry 1 keeps the DISCOVERs coming.
        record = self._dhclient(["-4", "-1"], until, timeout,
                                f"timeout {max(1, int(timeout))};\nretry 1;\ninitial-interval 1;\n"
                                "request subnet-mask, routers, domain-name-servers;\n" + extra)
        if record is None:
            return None
        return Lease(ip=record["new_ip_address"], server=record.get("new_dhcp_server_identifier"),
                     mask=record.get("new_subnet_mask"), routers=record.get("new_routers"),
                     vars=record)

    def dhclient6(self, timeout=10, prefix=False, until="BOUND6"):
        """dhclient -6 once in the client namespace, as dhclient(): an address (IA_NA), or
        with `prefix` a delegated prefix alone (IA_PD, -P). Returns the Lease6 or None.
        The client's DUID is its link-layer address, so that a server's log names it."""
        record = self._dhclient(["-6", "-D", "LL", *(["-P"] if prefix else [])], until, timeout)
        if record is None:
            return None
        return Lease6(address=record.get("new_ip6_address"), prefix=record.get("new_ip6_prefix"),
                      vars=record)

    def _next_client(self):
        """A number no dhclient run of this lab has used yet: each run has files of its
        own, also when the lab is driven step by step from separate processes."""
        return len(list(self.dir.glob("dhclient-*.conf")))

    def release6(self, prefix=False, timeout=10):
        """dhclient -6 -r on the lease file of the last dhclient6(): the client sends a
        Release for what it holds; waits until dhclient exits."""
        leases = max(self.dir.glob("dhclient-*.leases"), key=lambda p: p.stat().st_mtime)
        n = self._next_client()
        conf = self.dir / f"dhclient-{n}.conf"
        conf.write_text("")
        proc = self.spawn("client", [
            self.binary("/usr/sbin/dhclient"), "-6", "-D", "LL", *(["-P"] if prefix else []),
            "-r", "-v", "-cf", conf, "-lf", leases, "-pf", self.dir / f"dhclient-{n}.pid",
            "-sf", CLIENT_SCRIPT, CLIENT_DEV], self.dir / f"dhclient-{n}.log")
        try:
            proc.wait(timeout)
        finally:
            self._stop(proc)

    def _dhclient(self, flags, until, timeout, conf_text=""):
        """Runs dhclient with `flags` until dhclient-script is called with `until`, at
        most `timeout` (+5) seconds; returns what the script was told then, or None."""
        n = self._next_client()
        result = self.dir / f"dhclient-{n}.result"
        conf = self.dir / f"dhclient-{n}.conf"
        conf.write_text(conf_text)
        if not os.access(CLIENT_SCRIPT, os.X_OK):
            raise RuntimeError(f"{CLIENT_SCRIPT} is not executable")
        proc = self.spawn("client", [
            self.binary("/usr/sbin/dhclient"), *flags, "-d", "-v", "-cf", conf,
            "-lf", self.dir / f"dhclient-{n}.leases", "-pf", self.dir / f"dhclient-{n}.pid",
            "-sf", CLIENT_SCRIPT, "-e", f"LAB_RESULT={result}", CLIENT_DEV],
            self.dir / f"dhclient-{n}.log")

        def done():
            # Only whole records count: each ends with a blank line.
            text = result.read_text() if result.exists() else ""
            if f"reason={until}" in text[:text.rfind("\n\n") + 1]:
                return "done"
            return "exited" if proc.poll() is not None else None
        try:
            wait_for(done, timeout + 5, "dhclient")
        except TimeoutError:
            pass
        finally:
            self._stop(proc)
        # Every call of dhclient-script, as a dict of what it was told.
        calls = result.read_text().split("\n\n") if result.exists() else []
        for call in reversed(calls):
            record = dict(line.split("=", 1) for line in call.splitlines() if "=" in line)
            if record.get("reason") == until:
                return record
        return None

    def scapy(self, role, code, timeout=20):
        """Runs a scapy snippet inside `role`'s namespace (`from scapy.all import *`
        done); returns its stdout."""
        return self.python(role, "from scapy.all import *\nconf.verb = 0\n"
                           + textwrap.dedent(code), timeout)

    def python(self, role, code, timeout=20):
        """Runs Python code inside `role`'s namespace; returns its stdout."""
        res = run("ip", "netns", "exec", self.ns[role], PYTHON, "-c", textwrap.dedent(code),
                  check=False, timeout=timeout)
        if res.returncode != 0:
            raise RuntimeError(f"python in {role} failed:\n{res.stderr}")
        return res.stdout

    def send6(self, role, dev, payloads, dst=dhcp6.ALL_RELAYS_AND_SERVERS,
              sport=dhcp6.PORT_CLIENT, src=None, inter=0, timeout=20):
        """Sends each payload (bytes) as one UDP datagram from `role`'s namespace to `dst`
        port 547 out of `dev`, in order, `inter` seconds apart, from port `sport` and
        address `src` (by default the one the kernel picks: a multicast leaves from the
        link-local address)."""
        path = self.dir / f"send6-{role}-{len(list(self.dir.glob('send6-*')))}.bin"
        path.write_bytes(b"".join(struct.pack("!H", len(p)) + p for p in payloads))
        scope = "ifindex" if src and src.startswith("fe80") else 0
        self.python(role, f"""
            import socket, struct, time
            ifindex = socket.if_nametoindex({dev!r})
            s = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
            s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            s.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, ifindex)
            s.bind(({src or "::"!r}, {sport}, 0, {scope}))
            data = open({str(path)!r}, "rb").read()
            at = 0
            while at < len(data):
                (size,) = struct.unpack_from("!H", data, at)
                s.sendto(data[at + 2:at + 2 + size], ({dst!r}, {dhcp6.PORT_AGENT}, 0, ifindex))
                at += 2 + size
                if {inter}:
                    time.sleep({inter})
            """, timeout)

    def send_discover(self, mac="02:00:00:00:0c:01", xid=0x1234, count=1):
        """`count` broadcast DHCPDISCOVERs from the client namespace, one after the
        other."""
        opts = [("message-type", "discover"), "end"]
        self.scapy("client", f"""
            p = (Ether(src={mac!r}, dst="ff:ff:ff:ff:ff:ff") /
                 IP(src="0.0.0.0", dst="255.255.255.255") / UDP(sport=68, dport=67) /
                 BOOTP(chaddr=mac2str({mac!r}), xid={xid}, flags=0x8000) / DHCP(options={opts!r}))
            sendp(p, iface={CLIENT_DEV!r}, count={count})
            """)

    def capture(self, role, dev, ports=DHCP4_PORTS):
        """Starts capturing the DHCP that `dev` receives and sends (DHCPv6 with
        DHCP6_PORTS); `with lab.capture(...) as cap: ...; pkts = cap.stop()` (or
        cap.wait(...))."""
        return Capture(self, self.ns[role], dev, ports)

    def _stop(self, proc):
        if proc.poll() is None:
            proc.terminate()
            try:
                proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()

    def close(self):
        """Stops what the lab started, then anything else still in its namespaces
        (a daemon that forked), then deletes the namespaces and their /etc/netns
        files."""
        for proc in self.procs:
            self._stop(proc)
        for name in self.ns.values():
            def left():
                return run("ip", "netns", "pids", name, check=False).stdout.split()
            for pid in left():
                try:
                    os.kill(int(pid), signal.SIGKILL)
                except (ProcessLookupError, ValueError):
                    pass
            # SIGKILL lands asynchronously; deleting the name first would leave the
            # namespace alive, unnamed, until the last process in it is gone.
            try:
                wait_for(lambda: not left(), 5, f"processes in {name} to end")
            except TimeoutError:
                pass
            run("ip", "netns", "del", name, check=False)
            shutil.rmtree(ETC_NETNS / name, ignore_errors=True)
        if self._made_etc_netns:
            try:
                ETC_NETNS.rmdir()  # unless another lab has files there now
            except OSError:
                pass


def _yaml(value):
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, (list, tuple)):
        return "[" + ", ".join(_yaml(v) for v in value) + "]"
    if isinstance(value, dict):
        return "{" + ", ".join(f"{k}: {_yaml(v)}" for k, v in value.items()) + "}"
    if isinstance(value, str):
        return '"' + value.replace("\\", "\\\\").replace('"', '\\"') + '"'
    return str(value)


def main(argv):
    p = argparse.ArgumentParser(description="one step of a namespace DHCP lab")
    p.add_argument("--prefix", required=True)
    p.add_argument("--dir", required=True)
    sub = p.add_subparsers(dest="step", required=True)
    sub.add_parser("up")
    d = sub.add_parser("dhcpd")
    d.add_argument("role", choices=sorted(POOLS))
    d = sub.add_parser("dhcpd6")
    d.add_argument("role", choices=sorted(POOLS6))
    for step in ("client", "client6"):
        sub.add_parser(step).add_argument("--timeout", type=int, default=10)
    sub.choices["client6"].add_argument("--delegated", action="store_true",
                                        help="a delegated prefix (IA_PD) instead of an address")
    sub.add_parser("agent-config")
    sub.add_parser("names")
    sub.add_parser("down")
    args = p.parse_args(argv)

    lab = Lab(args.dir, prefix=args.prefix, build=args.step == "up")
    if args.step == "dhcpd":
        # Outlives this process; `down` stops it with everything else in the lab.
        d = lab.start_dhcpd(args.role)
        print(f"dhcpd ({args.role}) serving in {d.ns}; log {d.log}")
    elif args.step == "dhcpd6":
        d = lab.start_dhcpd6(args.role)
        print(f"dhcpd -6 ({args.role}) serving in {d.ns}; log {d.log}")
    elif args.step in ("client", "client6"):
        v6, prefix = args.step == "client6", getattr(args, "delegated", False)
        lease = lab.dhclient6(args.timeout, prefix=prefix) if v6 else lab.dhclient(args.timeout)
        if lease is None:
            print("no lease", file=sys.stderr)
            return 1
        if not v6:
            print(f"lease {lease.ip}/{lease.mask} from {lease.server} router {lease.routers}")
        else:
            leased = lease.prefix if prefix else lease.address
            print(f"{'prefix6' if prefix else 'lease6'} {leased} from {server_of6(leased)}")
        # What the servers logged of it: the option 82 they saw, or the Relay-forward.
        logs, wanted = (("dhcpd6-*.log", lambda line: line.startswith(("Relay-forward",
                                                                        "Reply NA")))
                        if v6 else ("dhcpd-*.log", lambda line: "lab:" in line
                                    or "DHCPACK" in line))
        for d in sorted(lab.dir.glob(logs)) if not prefix else []:
            for line in d.read_text(errors="replace").splitlines():
                if wanted(line):
                    print(f"  {d.stem}: {line}")
    elif args.step == "agent-config":
        print(lab.agent_config(servers=[{"address": SERVER_IP}],
                               servers_v6=[{"address": SERVER_IP6}], route_install=True))
    elif args.step == "names":
        for role, name in lab.ns.items():
            print(f"{role}={name}")
    elif args.step == "down":
        lab.close()
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
