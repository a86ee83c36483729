"""The metrics endpoint (metrics.listen): scraped by a real Prometheus in a namespace of its
own after a relayed lease, and following reloads, refusals and hostile clients. Its text
format and HTTP edge cases are MetricsTest's."""

import json
import subprocess
import textwrap
import time

from conftest import Agent, run

PYTHON = "/usr/bin/python3"
PORT = 9467
# The link between the relay and Prometheus' namespace, from the benchmark range the lab
# already uses for its secondary subnet.
METRICS_RELAY_IP, METRICS_PROM_IP = "198.18.1.1", "198.18.1.2"

# One HTTP exchange from inside a namespace, raw, so that status and headers of any answer
# come back: prints {"status": ..., "headers": ..., "body": ...} as JSON.
FETCH = textwrap.dedent("""\
    import json, socket, sys
    host, port, request = sys.argv[1], int(sys.argv[2]), sys.argv[3].encode("latin-1")
    with socket.create_connection((host, port), timeout=5) as s:
        s.sendall(request)
        data = b""
        while chunk := s.recv(65536):
            data += chunk
    head, _, body = data.partition(b"\\r\\n\\r\\n")
    lines = head.decode("latin-1").split("\\r\\n")
    print(json.dumps({"status": int(lines[0].split()[1]),
                      "headers": dict(l.split(": ", 1) for l in lines[1:]),
                      "body": body.decode()}))
    """)


def fetch(ns, host, port, request=None, path="/metrics"):
    request = request or f"GET {path} HTTP/1.1\r\nHost: {host}\r\nConnection: close\r\n\r\n"
    res = run("ip", "netns", "exec", ns, PYTHON, "-c", FETCH, host, port, request, check=False)
    return json.loads(res.stdout) if res.returncode == 0 else res.stderr


class Prometheus:
    """Prometheus in `ns`, scraping `target` every second, its API on the namespace's own
    loopback; stopped by stop(), and with the namespace by the netns fixture anyway."""

    def __init__(self, ns, tmp_path, target):
        self.ns = ns
        self.log = tmp_path / "prometheus.log"
        config = tmp_path / "prometheus.yml"
        config.write_text(textwrap.dedent(f"""\
            global: {{scrape_interval: 1s, scrape_timeout: 1s}}
            scrape_configs:
              - job_name: relay
                static_configs: [{{targets: ["{target}"]}}]
            """))
        self.proc = subprocess.Popen(
            ["ip", "netns", "exec", ns, "prometheus", f"--config.file={config}",
             f"--storage.tsdb.path={tmp_path / 'tsdb'}", "--web.listen-address=127.0.0.1:9090"],
            stdout=open(self.log, "w"), stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
            start_new_session=True)

    def query(self, expr):
        """The instant vector of `expr` as {metric name: value}, or None before Prometheus
        answers."""
        from urllib.parse import quote
        got = fetch(self.ns, "127.0.0.1", 9090, path=f"/api/v1/query?query={quote(expr)}")
        if not isinstance(got, dict) or got["status"] != 200:
            assert self.proc.poll() is None, self.log.read_text()
            return None
        return {r["metric"]["__name__"]: float(r["value"][1])
                for r in json.loads(got["body"])["data"]["result"]}

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()


def test_prometheus_scrapes_what_show_counters_reports(lab, netns, tmp_path):
    prom_ns = netns("prom")
    lab.ip("relay", "link", "add", "m0", "type", "veth", "peer", "m1", "netns", prom_ns)
    lab.ip("relay", "addr", "add", f"{METRICS_RELAY_IP}/24", "dev", "m0")
    lab.ip("relay", "link", "set", "m0", "up")
    run("ip", "-n", prom_ns, "addr", "add", f"{METRICS_PROM_IP}/24", "dev", "m1")
    run("ip", "-n", prom_ns, "link", "set", "m1", "up")
    lab.start_dhcpd("server")
    config = lab.agent_config()
    config.write_text(config.read_text() + f"metrics:\n  listen: {METRICS_RELAY_IP}:{PORT}\n")
    a = Agent(tmp_path, config, lab.ns["relay"])
    prom = Prometheus(prom_ns, tmp_path, f"{METRICS_RELAY_IP}:{PORT}")
    try:
        assert a.show("config")["metrics"] == {"listen": f"{METRICS_RELAY_IP}:{PORT}"}
        assert lab.dhclient(timeout=20) is not None, a.log_text()
        shown = a.show("counters")["counters"]
        want = {"dhcp_relay_requests_received_total": shown["totalRequestsReceived"],
                "dhcp_relay_requests_forwarded_total": shown["totalRequestsForwarded"],
                "dhcp_relay_replies_forwarded_total": shown["totalRepliesForwarded"]}
        assert min(want.values()) >= 2, shown
        expr = '{__name__=~"dhcp_relay_(requests_(received|forwarded)|replies_forwarded)_total",' \
               'family="dhcpv4",job="relay"}'
        deadline = time.monotonic() + 20
        while (got := prom.query(expr)) != want:
            assert time.monotonic() < deadline, f"Prometheus has {got}, show counters {want}"
            time.sleep(0.2)
        assert prom.query('up{job="relay"}') == {"up": 1.0}

        got = fetch(prom_ns, METRICS_RELAY_IP, PORT)
        assert got["headers"]["Content-Type"].startswith("text/plain; version=0.0.4"), got
        lint = subprocess.run(["promtool", "check", "metrics"], input=got["body"],
                              capture_output=True, text=True)
        assert (lint.returncode, lint.stdout + lint.stderr) == (0, "")
    finally:
        prom.stop()
        assert a.stop() == 0


def test_endpoint_follows_reloads_and_survives_its_clients(netns, tmp_path):
    ns = netns("metrics")
    config = tmp_path / "relay.yaml"

    def write(listen):
        config.write_text("interfaces:\n  Ethernet1:\n    servers: [{address: 192.0.2.10}]\n"
                          + (f"metrics:\n  listen: {listen}\n" if listen else ""))

    def listening():
        out = run("ip", "netns", "exec", ns, "ss", "-Hltn").stdout
        return sorted(int(line.split()[3].rsplit(":", 1)[1]) for line in out.splitlines())

    write(f'"[::1]:{PORT}"')
    a = Agent(tmp_path, config, ns)
    # Another program's port, taken before the agent asks for it.
    holder = subprocess.Popen(
        ["ip", "netns", "exec", ns, PYTHON, "-c",
         "import socket, time\ns = socket.socket()\ns.bind(('127.0.0.1', 9468))\ns.listen()\n"
         "print('ready', flush=True)\ntime.sleep(60)"], stdout=subprocess.PIPE, text=True)
    try:
        assert holder.stdout.readline() == "ready\n"
        # A client stalled half-way through its head waits meanwhile; garbage costs its
        # sender alone.
        stalled = subprocess.Popen(["ip", "netns", "exec", ns, PYTHON, "-c",
                                   f"import socket, time\ns = socket.create_connection(('::1', {PORT}))"
                                   "\ns.send(b'GET /metr')\ntime.sleep(30)"])
        for request, status in (("GET /metrics HTTP/1.1\r\n\r\n", 200),
                                ("\x16\x03\x01 hello\r\n\r\n", 400),
                                # Answered before all of it is read: no reset may eat the answer.
                                ("GET /metrics HTTP/1.1\r\nX: " + "a" * 9000, 431)):
            assert fetch(ns, "::1", PORT, request)["status"] == status, request[:20]
        stalled.kill()
        stalled.wait()
        assert listening() == [PORT, 9468]

        # Moved onto a port in use: refused, shown and traced, and the relay goes on.
        write("127.0.0.1:9468")
        assert a.ctl("reload").returncode == 0
        warning = ("metrics endpoint not served: cannot listen on 127.0.0.1:9468: "
                   "Address already in use")
        assert warning in a.show("status")["warnings"]
        assert "[metrics] metrics endpoint not served: cannot listen on 127.0.0.1:9468" \
            in a.log_text()
        assert listening() == [9468]

        # Freed and reloaded: served; removed: closed.
        holder.kill()
        holder.wait()
        a.ctl("reload")
        assert listening() == [9468] and warning not in a.show("status")["warnings"]
        write(None)
        a.ctl("reload")
        assert listening() == [] and a.show("config")["metrics"] == {"listen": None}
    finally:
        holder.kill()
        assert a.stop() == 0
