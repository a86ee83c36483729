"""Fixtures for end-to-end tests: the built programs, per-run network namespace
names, and a daemon runner that always stops what it started."""

import itertools
import json
import os
import signal
import subprocess
import sys
import time
import uuid
from pathlib import Path

import pytest

TOP = Path(__file__).resolve().parents[2]
# The namespace lab is the demo's as well as the tests'.
sys.path.insert(0, str(TOP / "tools" / "lab"))
import lab as L  # noqa: E402
BUILD = Path(os.environ.get("DHCP_RELAY_BUILD", TOP / "build"))
AGENT = BUILD / "dhcp-relay-agent"
CTL = BUILD / "tools" / "dhcp-relay-ctl"
EXAMPLE = TOP / "examples" / "dhcp-relay.yaml"

# Every namespace a test creates starts with this, so two runs never collide and
# the clean-up can find leftovers of this run only.
RUN_PREFIX = f"drt{os.getpid() % 100000}x{uuid.uuid4().hex[:4]}"


def run(*args, check=True, **kw):
    return subprocess.run([str(a) for a in args], check=check, capture_output=True, text=True, **kw)


def noise(rng, count):
    """Random datagrams of up to 600 bytes, empty ones among them."""
    return [rng.randbytes(rng.randrange(0, 601)) for _ in range(count)]


def mutations(rng, valid, header, count, codes, shortest=0):
    """`valid` cut at every length from `shortest`, then `count` copies with random bytes
    added and a few bytes past `header` overwritten (with one of `codes`, option codes and
    lengths, or anything) and cut somewhere past `header`, so that the option walkers meet
    bad lengths, missing ends and stray options."""
    out = [valid[:n] for n in range(shortest, len(valid) + 1)]
    for _ in range(count):
        m = bytearray(valid + rng.randbytes(rng.randrange(0, 40)))
        for _ in range(rng.randrange(1, 8)):
            m[rng.randrange(header, len(m))] = rng.choice((*codes, rng.randrange(256)))
        out.append(bytes(m[:rng.randrange(header, len(m) + 1)]))
    return out


@pytest.fixture
def netns():
    """Creates network namespaces named with the run prefix; removes them (and any
    process left in them) even when the test fails."""
    made = []

    def make(suffix, create=True):
        """`create=False` only names one for the test to create later; it is still
        removed at the end if it exists then."""
        name = f"{RUN_PREFIX}-{suffix}"
        made.append(name)
        if create:
            run("ip", "netns", "add", name)
            run("ip", "-n", name, "link", "set", "lo", "up")
        return name

    yield make
    for name in made:
        pids = run("ip", "netns", "pids", name, check=False).stdout.split()
        for pid in pids:
            try:
                os.kill(int(pid), signal.SIGKILL)
            except (ProcessLookupError, ValueError):
                pass
        run("ip", "netns", "del", name, check=False)


class Agent:
    """The daemon, run inside its own network namespace (its default VRF), so that its
    relay sockets and whatever it sends stay off the host."""

    def __init__(self, tmp_path, config, namespace, wrap=(), env=None):
        """`wrap` is a command line the agent runs under (it must exec the agent, so the
        process is the agent's); `env` adds to the agent's environment."""
        self.tmp = tmp_path
        self.namespace = namespace
        self.config = Path(config)
        self.socket = tmp_path / "ctl.sock"
        self.log = tmp_path / "agent.log"
        env = {**os.environ, "BLIPJETDIR": str(tmp_path), "DHCP_RELAY_TRACE": "2", **(env or {})}
        self.proc = subprocess.Popen(
            ["ip", "netns", "exec", namespace, *map(str, wrap),
             str(AGENT), "--config", str(self.config), "--socket", str(self.socket)],
            stdout=open(self.log, "w"), stderr=subprocess.STDOUT, env=env)
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            if self.proc.poll() is not None:
                raise AssertionError(f"agent exited with {self.proc.returncode}:\n{self.log_text()}")
            if self.ctl("show", "vrfs", check=False).returncode == 0:
                return
            time.sleep(0.05)
        raise AssertionError(f"agent did not answer on {self.socket}:\n{self.log_text()}")

    def ctl(self, *args, check=True):
        return run(CTL, "--socket", self.socket, *args, check=check)

    def show(self, what):
        return json.loads(self.ctl("show", what, "--json").stdout)

    def log_text(self):
        return self.log.read_text() if self.log.exists() else ""

    def signal(self, signo):
        self.proc.send_signal(signo)

    def wait_log(self, text, timeout=5):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if text in self.log_text():
                return
            time.sleep(0.05)
        raise AssertionError(f"{text!r} not in agent log:\n{self.log_text()}")

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        return self.proc.returncode


@pytest.fixture
def agent(tmp_path, netns):
    started = []

    def start(config):
        a = Agent(tmp_path, config, netns(f"agent{len(started)}"))
        started.append(a)
        return a

    yield start
    for a in started:
        a.stop()


_lab_numbers = itertools.count()


@pytest.fixture
def lab(netns, tmp_path):
    """A built lab; its namespaces carry the run prefix and go, with every process in
    them, when the test ends however it ends."""
    # pytest runs finalizers on Ctrl-C but dies on SIGTERM (a CI timeout) with daemons
    # and namespaces left behind; make SIGTERM an interrupt too.
    if signal.getsignal(signal.SIGTERM) is signal.SIG_DFL:
        signal.signal(signal.SIGTERM, signal.default_int_handler)
    n = next(_lab_numbers)
    built = L.Lab(tmp_path / f"lab{n}", make_ns=lambda role: netns(f"l{n}-{role}"))
    yield built
    built.close()


@pytest.fixture
def relay_agent(lab, tmp_path):
    """relay_agent(global_relay=None, **settings) starts the agent in the lab's relay
    namespace on lab.agent_config(global_relay, **settings); each agent must exit
    cleanly at the end."""
    started = []

    def start(global_relay=None, **settings):
        config = lab.agent_config(global_relay=global_relay, **settings)
        started.append(Agent(tmp_path, config, lab.ns["relay"]))
        return started[-1]

    yield start
    for a in started:
        assert a.stop() == 0, a.log_text()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if report.when == "call":
        item.passed = report.passed


@pytest.fixture(autouse=True)
def no_ring_files_left(request, tmp_path):
    """The agents' trace rings help with a failure only: a passed test leaves none behind
    in pytest's kept temporary directories."""
    yield
    if getattr(request.node, "passed", False):
        for ring in tmp_path.rglob("*.bj*"):
            ring.unlink()
