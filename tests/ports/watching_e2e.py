#!/usr/bin/env python3
"""watching_e2e.py BUILD: a real Prometheus and a real snmpd watch a daemon on real ports.

Needs root, prometheus, snmpd and snmp; exit code 77 without them.
"""
import json
import pathlib
import re
import signal
import socket
import subprocess
import sys
import threading
import time
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "scripts"))
from testbed import BUILD, DESTINATION, STREAM, STREAM_KBPS, Testbed, main  # noqa: E402

SRP = ".1.3.111.2.802.1.1.19"
ID = "2.0.0.0.2.1.0.1"  # of the stream, as an index


class Watched(unittest.TestCase):
    """A bridge with a talker and two listeners, in a namespace with a loopback of its own."""
    maxDiff = None

    def setUp(self):
        self.bed = self.enterContext(Testbed(BUILD, ports=3, bridge="br0"))
        self.bed.switch_ip("link", "set", "lo", "up")
        self.reading = f"{self.bed.socket}.read"
        self.start()
        self.bed.talker_and_listeners()
        self.bed.wait(lambda: self.bed.carriers() == ["swp2", "swp3"], 10, "the stream is not carried")

    def start(self):
        self.daemon = self.bed.daemon(self.bed.config() | {"linux/config": {"bridge": "br0", "streams": "police"}})

    def stop(self):
        self.daemon.terminate()
        self.assertEqual(self.daemon.wait(10), 0)

    def inside(self, *command):
        """Runs a tool of others in the switch's namespace."""
        return subprocess.run(["ip", "netns", "exec", self.bed.switch, *map(str, command)], text=True,
                              capture_output=True, check=False, timeout=60)


class Prometheus(Watched):
    def export(self, *options):
        exporter = self.bed.spawn("exporter", self.bed.switch, BUILD / "msrp-exporter", "--socket", self.reading,
                                  *options)
        if "--listen" not in options:
            self.bed.wait(self.scrape, 5, "the exporter does not answer")
        return exporter

    def scrape(self):
        """What the exporter says at its usual address."""
        return self.inside("curl", "-sS", "-m", "20", "http://127.0.0.1:9120/metrics").stdout

    def query(self, expression):
        """What Prometheus says of it, as values by port."""
        done = self.inside("promtool", "query", "instant", "-o", "json", "http://127.0.0.1:9090", expression)
        return {row["metric"].get("port", ""): float(row["value"][1]) for row in json.loads(done.stdout or "[]")}

    def test_prometheus_sees_what_msrpctl_shows_and_the_daemon_go_and_come(self):
        exporter = self.export()
        config = self.bed.directory / "prometheus.yml"
        config.write_text(json.dumps({
            "global": {"scrape_interval": "1s", "evaluation_interval": "1s"},
            "rule_files": [str(TOP / "packaging/prometheus/msrp.rules.yml")],
            "scrape_configs": [{"job_name": "msrp", "static_configs": [{"targets": ["127.0.0.1:9120"]}]}]}))
        self.bed.spawn("prometheus", self.bed.switch, "prometheus", f"--config.file={config}",
                       f"--storage.tsdb.path={self.bed.directory / 'data'}", "--web.listen-address=127.0.0.1:9090")
        until = lambda expression, values, what: self.bed.wait(lambda: self.query(expression) == values, 30, what)
        until('msrp_streams{state="reserved"}', {"": 1.0}, "Prometheus does not see the stream")
        ports = self.bed.read("show", "ports")
        until('msrp_port_allocated_bytes_per_second{class="A"} * 8 / 1000',
              {port: float(row["srClassABandwidth"].split("/")[0]) for port, row in ports.items()}, "wrong bandwidth")
        self.assertEqual(self.query('msrp_port_allocated_bytes_per_second{class="A"}')["swp2"], STREAM_KBPS * 125)
        until('msrp_port_allowed_bytes_per_second{class="A"} * 8 / 1000',
              {port: float(row["srClassABandwidth"].split("/")[1]) for port, row in ports.items()}, "wrong share")
        until('msrp_port_class_state{class="A"}', {port: 3.0 for port in ports}, "wrong states")
        # Counters that are set to zero are no events, and are seen as set back.
        time.sleep(2)
        self.bed.shown("clear", "counters")
        self.assertLess(self.bed.read("show", "counters")["swp1"]["PDUs"]["rx"], 3)
        self.assertGreater(self.bed.read("get", "process")["countersCleared"], 1e9)
        until('resets(msrp_port_events_received_total{port="swp1",event="JoinMt",protocol="msrp"}[1m])',
              {"swp1": 1.0}, "no reset")
        self.assertEqual(self.bed.carriers(), ["swp2", "swp3"])
        self.stop()
        until("msrp_up", {"": 0.0}, "the daemon's end is not seen")
        self.assertEqual(self.query("msrp_streams"), {})
        self.start()
        until('msrp_streams{state="reserved"}', {"": 1.0}, "the daemon's return is not seen")
        exporter.terminate()
        self.assertEqual(exporter.wait(5), 0)
        self.assertEqual(self.bed.said("exporter").count("\n"), 1, self.bed.said("exporter"))

    def test_metrics_are_well_formed_and_rules_dashboard_and_manual_name_no_others(self):
        self.export("--streams", "1")
        text = self.scrape()
        done = subprocess.run(["promtool", "check", "metrics"], input=text, text=True, capture_output=True, check=False)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))
        known = set(re.findall(r"^(?:# TYPE )?(msrp_[a-z_]+)", text, re.MULTILINE))
        # Only where a ptp4l is asked, which time_e2e.py does.
        known.add("msrp_port_time_capable")
        for file in ("packaging/prometheus/msrp.rules.yml", "packaging/grafana/msrp.json", "docs/user.md"):
            named = set(re.findall(r"\bmsrp_[a-z_]+", (TOP / file).read_text(encoding="utf-8")))
            self.assertGreater(len(named), 10)
            self.assertEqual(named - known, set(), file)
        done = subprocess.run(["promtool", "test", "rules", TOP / "tests/monitor/msrp.rules.test.yml"], text=True,
                              capture_output=True, check=False)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        # One stream more than has series of its own.
        self.assertIn('msrp_stream_info{stream="02:00:00:00:02:01/1",talker_port="swp1",class="A",'
                      f'destination="{DESTINATION}",vlan="2"}} 1\n', text)
        self.assertIn("msrp_streams_omitted 0\n", text)
        self.bed.station("swp2", "--talk", STREAM.replace("201", "202") + ",91:e0:f0:00:00:02,2,A,100,1")
        self.bed.wait(lambda: "msrp_streams_omitted 1\n" in self.scrape(), 10, "nothing is omitted")
        self.assertEqual(self.scrape().count("msrp_stream_info{"), 1)
        self.assertIn("--streams 1", self.bed.said("exporter"))

    def test_hostile_clients_hold_up_neither_a_scrape_nor_the_daemon(self):
        path = self.bed.directory / "http"
        self.export("--listen", path)
        self.bed.wait(path.exists, 5, "no socket")

        def connected(sent):
            client = socket.socket(socket.AF_UNIX)
            client.connect(str(path))
            client.sendall(sent)
            client.settimeout(15)
            return client

        def answer(sent):
            with connected(sent) as client:
                return b"".join(iter(lambda: client.recv(65536), b""))
        get = b"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n"
        first = lambda sent: answer(sent).split(b"\r\n")[0].decode()
        self.assertEqual([first(sent) for sent in (
            get, b"HEAD / HTTP/1.0\n\n", b"GET http://x/metrics?a=1 HTTP/1.1\nHost: x\n\n", b"GET /x HTTP/1.0\r\n\r\n",
            b"POST /metrics HTTP/1.0\r\n\r\n", b"GET /metrics HTTP/1.1\r\n\r\n", b"\r\n\r\n", b"\0\xff \n\n",
            b"GET / HTTP/2.0\r\n\r\n", b"GET / HTTP/1.1\r\n" + 9000 * b"x")],
            ["HTTP/1.1 200 OK", "HTTP/1.1 200 OK", "HTTP/1.1 200 OK", "HTTP/1.1 404 Not Found",
             "HTTP/1.1 405 Method Not Allowed", "HTTP/1.1 400 Bad Request", "HTTP/1.1 400 Bad Request",
             "HTTP/1.1 400 Bad Request", "HTTP/1.1 505 HTTP Version Not Supported",
             "HTTP/1.1 431 Request Header Fields Too Large"])
        # Half requests, answers that nobody reads, and one octet after the other.
        begun = time.monotonic()
        slow = [connected(get[:-1]) for _ in range(50)] + [connected(get) for _ in range(50)]
        for _ in range(200):
            self.assertTrue(answer(get).endswith(b"\n"))
        self.assertLess(time.monotonic() - begun, 5)
        fetches = int(re.search(rb"\nmsrp_exporter_fetches_total (\d+)", answer(get))[1])
        self.assertLess(fetches, time.monotonic() - begun + 4)
        threading.Timer(8, slow[-51].sendall, [b"x"]).start()
        for client in slow[40:50]:
            client.settimeout(15)
            self.assertEqual(client.recv(1), b"")
        self.assertLess(time.monotonic() - begun, 14)
        for client in slow:
            client.close()
        # A daemon that hangs counts as away, and is seen again.
        self.daemon.send_signal(signal.SIGSTOP)
        time.sleep(2)
        self.assertIn(b"\nmsrp_up 0\n", answer(get))
        self.daemon.send_signal(signal.SIGCONT)
        self.bed.wait(lambda: b"\nmsrp_up 1\n" in answer(get), 60, "the daemon is not seen again")


class Snmp(Watched):
    def setUp(self):
        super().setUp()
        self.agentx = self.bed.directory / "agentx"
        # Not snmpd.conf, which is what snmpd itself writes at its end.
        (self.bed.directory / "agent.conf").write_text(
            "agentAddress udp:127.0.0.1:1161\nrocommunity public\nrwcommunity private\n"
            f"master agentx\nagentXSocket {self.agentx}\n")
        # The subagent waits for an snmpd that is not there yet.
        self.subagent = self.bed.spawn("subagent", self.bed.switch, BUILD / "msrp-agentx", "--socket", self.reading,
                                       "--agentx", self.agentx)
        self.start_snmpd()
        self.bed.wait(self.walk, 30, "snmpd does not tell of streams")

    def start_snmpd(self):
        self.snmpd = self.bed.spawn("snmpd", self.bed.switch, "env", f"SNMP_PERSISTENT_DIR={self.bed.directory}", "MIBS=",
                                    "snmpd", "-f", "-Lo", "-C", "-c", self.bed.directory / "agent.conf")

    def snmp(self, tool, *names, community="public"):
        done = self.inside("env", f"SNMP_PERSISTENT_DIR={self.bed.directory}", tool, "-m", "", "-v2c", "-c", community,
                           "-t", "12", "-r", "0", "-On", "-Oe", "127.0.0.1:1161", *names)
        self.said = done.stderr + done.stdout
        return dict(line.removeprefix(SRP + ".1.").split(" = ", 1) for line in done.stdout.splitlines()
                    if line.startswith(SRP + ".1.") and " = No " not in line)

    def walk(self, tool="snmpwalk"):
        return self.snmp(tool, SRP)

    def expected(self):
        """The tables as msrpctl tells of the same."""
        numbers = {port: number for number, port in enumerate(self.bed.ports, 1)}
        status, mrp, cli, packets, traffic = (self.bed.read("get", record) for record in (
            "msrp/status", "mrp/status", "msrp/cliConfig", "linux/packets", "linux/traffic"))
        classes = self.bed.read("get", "qos/hardware/status/global/defaultCosToTc") | \
            self.bed.read("get", "qos/status/cosToTc")
        a, b = (classes[str(cli[f"srClass{name}Priority"])] for name in "AB")
        rows = {"1.1.1.1.1": "INTEGER: 1", "1.1.1.2.1": "INTEGER: 2", "1.1.1.3.1": "Gauge32: 0",
                "1.1.1.5.1": "INTEGER: 2", "1.1.1.6.1": "Gauge32: 2"}
        hexa = lambda text: "Hex-STRING: " + text.replace(":", " ").upper() + " "
        for port, n in numbers.items():
            rows |= {f"1.2.1.1.1.{n}": "INTEGER: 1",
                     f"1.2.1.2.1.{n}": f"Counter64: {mrp['intf'][port]['refusedJoins']}",
                     f"1.2.1.3.1.{n}": hexa(packets["intf"][port]["lastSource"]),
                     f"1.2.1.4.1.{n}": f"Gauge32: {cli['defaultSrPvid']}", f"1.2.1.5.1.{n}": "INTEGER: 2",
                     f"2.1.1.2.1.{n}.{a}": f"Gauge32: {cli['latency'][port]['A']}",
                     f"2.1.1.2.1.{n}.{b}": f"Gauge32: {cli['latency'][port]['B']}"}
        for stream in status["registeredStreams"].values():
            rows |= {f"3.1.1.{column}.{ID}": value for column, value in enumerate((
                hexa(stream["macDa"]), f"Gauge32: {stream['vlanId']}", f"Gauge32: {stream['maxFrameSize']}",
                f"Gauge32: {stream['maxIntervalFrames']}", f"INTEGER: {stream['dataFramePriority']}",
                f"INTEGER: {stream['rank']}"), 2)}
            talker = stream["ingressIntf"]
            for index, declared in [(f"0.1.{numbers[talker]}", "0"), *(
                    (f"1.1.{numbers[port]}", {"AskingFailed": "2", "Ready": "3", "ReadyFailed": "4"}[state])
                    for port, state in stream["listenerStateOrig"].items())]:
                rows |= {f"4.1.1.3.{ID}.{index}": f"INTEGER: {declared}",
                         f"4.1.1.4.{ID}.{index}": f"Gauge32: {stream['accumulatedLatency']}",
                         f"4.1.1.5.{ID}.{index}": hexa("00:00:00:00:00:00:00:00"),
                         f"4.1.1.6.{ID}.{index}": "INTEGER: 0"}
            rows[f"4.1.1.7.{ID}.0.1.{numbers[talker]}"] = f"Counter64: {traffic['stream'][STREAM]['over']}"
        return rows

    def test_tables_are_those_of_msrpctl_and_survive_either_end(self):
        for port, (a, b) in {"swp1": (280, 2), "swp2": (0, 7), "swp3": (140, 0)}.items():
            self.bed.shown("set", "msrp/cliConfig", f"latency/{port}", json.dumps({"A": a, "B": b}))
        time.sleep(1.5)
        walked = self.walk()
        ages = {name: int(walked.pop(name).removeprefix("Gauge32: ")) for name in list(walked) if ".1.1.8." in "." + name}
        self.assertEqual(walked, self.expected())
        self.assertEqual(len(ages), 3)
        self.assertTrue(all(0 <= age < 60 for age in ages.values()), ages)
        # By single questions, in the order in which they come, and by many at once.
        name, stepped = "0", {}
        while (found := self.snmp("snmpgetnext", f"{SRP}.1.{name}")):
            [name] = found
            stepped |= found
        self.assertEqual(list(stepped), sorted(stepped, key=lambda n: [int(part) for part in n.split(".")]))
        self.assertEqual(set(stepped), set(walked) | set(ages))
        self.assertEqual(set(self.walk("snmpbulkwalk")), set(stepped))
        wanted = [f"{SRP}.1.{n}" for n in walked]
        self.assertEqual(self.snmp("snmpget", *wanted[:20]), {n: walked[n] for n in list(walked)[:20]})
        for nothing in ("1.1.1.4.1", "1.1.1.7.1", "3.1.1.1." + ID, f"3.1.1.2.{ID}.0", "3.1.1.2.2.0", "5.1", "3.2.1.2." + ID):
            self.assertEqual(self.snmp("snmpget", f"{SRP}.1.{nothing}"), {}, nothing)
        self.assertEqual(self.snmp("snmpset", f"{SRP}.1.1.1.1.1.1", "i", "2", community="private"), {})
        self.assertIn("notWritable", self.said)

        self.stop()
        self.bed.wait(lambda: not self.walk(), 20, "streams of a daemon that is gone are told of")
        self.start()
        self.bed.wait(lambda: set(self.walk()) == set(stepped), 30, "the daemon's return is not seen")
        self.snmpd.terminate()
        self.snmpd.wait(10)
        self.start_snmpd()
        self.bed.wait(lambda: set(self.walk()) == set(stepped), 40, "the return of snmpd is not seen")
        self.subagent.terminate()
        self.assertEqual(self.subagent.wait(5), 0, self.bed.said("subagent"))
        self.bed.wait(lambda: not self.walk(), 10, "tables without a subagent")


if __name__ == "__main__":
    main("prometheus", "promtool", "snmpd", "snmpwalk", "curl")
