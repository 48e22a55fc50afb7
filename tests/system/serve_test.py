"""`serve`: values, measurement, recordings and streams over HTTP, and who may not."""
import http.client
import json
import re
import signal
import socket
import subprocess
import sys
import unittest
from pathlib import Path

from harness import PATIENCE, SystemTest, wait_until
from recording import events

ROOT = Path(__file__).resolve().parents[2]
EXAMPLES = ROOT / "examples" / "python"
sys.path.insert(0, str(EXAMPLES))
from xcplumo_client import Client, EcuError  # noqa: E402


class ServeTest(SystemTest):
    def serve(self, *options, sim=None):
        self.sim = sim or self.start_sim()
        runtime = self.dir / "runtime"
        runtime.mkdir(mode=0o700, exist_ok=True)
        self.env["XDG_RUNTIME_DIR"] = str(runtime)
        self.host = self.start_cli(self.sim, "serve", *options)
        self.host.wait_for_out("unix:")
        self.address = self.host.out.splitlines()[1]
        self.port, self.token = re.fullmatch(r"http://[\d.]+:(\d+)/#token=([0-9a-f]{64})", self.address).groups()
        self.client = Client(self.address, timeout=PATIENCE)
        self.addCleanup(self.client.close)
        wait_until(lambda: self.client.state()["state"] == "connected", "a connection")
        self.base = f"/v1/ecus/{self.client.ecu}"

    def request(self, method, path, body=None, headers=None):
        connection = http.client.HTTPConnection("127.0.0.1", int(self.port), timeout=PATIENCE)
        self.addCleanup(connection.close)
        connection.request(method, path, body, {"Authorization": f"Bearer {self.token}"} if headers is None else headers)
        answer = connection.getresponse()
        return answer.status, answer.read(), answer.headers

    def test_values_are_those_of_get_and_set(self):
        self.serve()
        names = ["engine_speed", "cal_gain", "cal_ignition_map", "cal_ignition_map[2][3]", "nothing", "cal_injector"]
        told = json.loads(self.request("POST", f"{self.base}/values/read", json.dumps({"names": names}))[1])["values"]
        for name, one in zip(names, told):
            self.assertEqual(one["name"], name)
            if name == "nothing":
                self.assertEqual(one["error"]["code"], "notFound")
            elif name != "engine_speed":
                status, body, _ = self.request("GET", f"{self.base}/values/{name}")
                self.assertEqual((status, json.loads(body)), (200, one))
        ecu = self.client
        before, table = ecu["cal_gain"], ecu["cal_gains"]
        ecu["cal_gain"] = 2.5
        ecu["cal_gains"] = [6, 5, 4, 3, 2, 1]
        self.assertEqual((ecu["cal_gain"], ecu["cal_gains"]), (2.5, [6, 5, 4, 3, 2, 1]))
        with self.assertRaisesRegex(EcuError, "outside the limits"):
            ecu["cal_gain"] = 99
        with self.assertRaises(EcuError) as refused:
            ecu.write({"cal_gain": 3, "nothing": 1})
        self.assertEqual(refused.exception.code, "notFound")
        entries = ecu.ask("GET", f"{self.base}/writes")["entries"]
        self.assertEqual([(one["name"], one["old"]["physical"], one["new"]["physical"]) for one in entries],
                         [("cal_gain", before, 2.5), ("cal_gains", table, [6, 5, 4, 3, 2, 1]), ("cal_gain", 2.5, 3)])
        self.assertTrue(all(re.fullmatch(r"127\.0\.0\.1:\d+", one["client"]) for one in entries))
        done = self.run_cli(self.sim, "describe", "cal_ignition_map", "--json")
        expected = json.loads(done.stdout)
        self.assertEqual({key: expected[key] for key in ecu.describe("cal_ignition_map")}, ecu.describe("cal_ignition_map"))
        listed = json.loads(self.run_cli(self.sim, "list", "-p", "cal_", "--json").stdout)["objects"]
        self.assertEqual(ecu.objects("cal_", kind="parameter"), listed)
        self.host.signal(signal.SIGINT)
        self.assertEqual(self.host.finish(), 0, self.host.err)
        self.assertNotIn(self.token, self.host.err)
        self.assertEqual(list((self.dir / "runtime" / "xcplumo").glob("*.sock")), [])

    def test_who_may_not(self):
        self.serve("--read-only", "--recordings", self.dir)
        host = f"127.0.0.1:{self.port}"
        bearer = {"Authorization": f"Bearer {self.token}"}
        status, _, headers = self.request("POST", "/v1/login", json.dumps({"token": self.token}), {"Origin": f"http://{host}"})
        self.assertEqual(status, 200)
        cookie = headers["Set-Cookie"]
        self.assertRegex(cookie, "; HttpOnly; SameSite=Strict; Path=/$")
        self.assertNotIn(self.token, cookie)
        cookie = {"Cookie": cookie.split(";")[0]}
        get, put = ("GET", "/v1", None), ("PUT", f"{self.base}/values/cal_gain", '{"value": 2}')
        rows = ((get, bearer, 200), (get, cookie, 200), (get, {}, 401), (get, {"Authorization": "Bearer 0"}, 401),
                (get, bearer | {"Origin": "http://evil.example"}, 403), (get, cookie | {"Origin": "null"}, 403),
                (get, bearer | {"Host": "evil.example"}, 421), (get, cookie | {"Host": f"evil.example:{self.port}"}, 421),
                (put, bearer, 403), (("POST", f"{self.base}/values/write", "{}"), bearer, 403),
                (("POST", "/v1/login", '{"token": "0"}'), {}, 401), (("POST", "/v1/login", "[" * 1000), {}, 400),
                (("POST", f"{self.base}/values/read", '{"names": 5}'), bearer, 400),
                (("GET", "/v1/ecus/other/state", None), bearer, 404), (("GET", "/v2", None), {}, 401),
                *((("GET", f"/v1/recordings/{name}", None), bearer, code)
                  for name, code in (("..", 400), ("%2e%2e%2fetc", 400), (".hidden", 400), ("none", 404), ("link", 404))))
        (self.dir / "link").symlink_to("/etc")
        for (method, path, body), headers, expected in rows:
            self.assertEqual(self.request(method, path, body, headers)[0], expected, (method, path, headers))
        self.assertEqual(self.client["cal_gain"], 1)

    def test_measure_watch_record_and_change_meanwhile(self):
        self.serve("--recordings", self.dir)
        ecu = self.client
        plan = ecu.plan(["counter_1ms@0", "engine_speed@1"])
        self.assertEqual([plan["recordsPerSecond"], len(plan["lists"])], [1100, 2])
        with self.assertRaisesRegex(EcuError, "nothing_at_all"):
            ecu.plan(["nothing_at_all"])
        ecu.measure(["counter_1ms@0", "engine_speed@1"])
        records = ecu.records(["counter_1ms"], missed=self.fail)
        time, first = next(records)
        ecu.record("first")
        with self.assertRaisesRegex(EcuError, "a recording runs"):
            ecu.measure(["wave@0"])
        ecu.mark("the step")
        ecu["cal_gain"] = 2
        through = self.run_cli(self.sim, "set", "cal_gain=4")
        self.assertRegex(through.stderr, f"^through pid {self.host.process.pid} .*, recording to {self.dir / 'first'}\n$")
        self.assertEqual(ecu["cal_gain"], 4)
        self.assertEqual(ecu.ask("GET", f"{self.base}/writes")["entries"][-1]["new"], {"text": "4"})
        for count in range(1, 1500):
            later, values = next(records)
            self.assertEqual(values["counter_1ms"], first["counter_1ms"] + count)
            self.assertGreater(later, time)
            time = later
        window = next(data for event, data in ecu.events(["counter_1ms"], window_ms=50) if event == "window")
        (least, greatest, last), = window["values"]
        self.assertEqual((greatest - least + 1, last), (window["records"], greatest))
        ecu.end_recording()
        self.assertEqual(ecu.state()["state"], "measuring")
        next(records)
        ecu.stop()
        lines = [json.loads(line) for line in (self.dir / "first" / "events.jsonl").read_text().splitlines()]
        self.assertEqual([line["text"] for line in lines if line["event"] == "marker"], ["the step"])
        self.assertEqual([(line["name"], line["old"], line["new"]) for line in lines
                          if line["event"] == "parameter"], [("cal_gain", "1", "2"), ("cal_gain", "2", "4")])
        self.assertEqual(self.run_plain("recording", "check", self.dir / "first").returncode, 0)
        listed = ecu.ask("GET", "/v1/recordings")
        self.assertEqual((listed["recordings"], listed["total"], [one["name"] for one in listed["details"]]), (["first"], 1, ["first"]))
        told = ecu.ask("GET", "/v1/recordings/first")
        expected = json.loads(self.run_plain("recording", "info", self.dir / "first", "--json").stdout)
        self.assertEqual({key: expected[key] for key in told}, told)
        self.assertEqual(self.run_plain("export", self.dir / "first", "-o", self.dir / "own.csv", "--merge").returncode, 0)
        self.assertEqual(self.request("GET", "/v1/recordings/first/export?form=csv")[1], (self.dir / "own.csv").read_bytes())
        self.assertEqual(self.request("GET", "/v1/recordings/first/export")[1][:3], b"MDF")
        self.assertEqual([path.name for path in self.dir.iterdir() if path.name.startswith(".export")], [])

    def test_goes_on_when_the_ecu_comes_back(self):
        self.serve()
        port = self.sim.port
        self.sim.kill()
        with self.assertRaises(EcuError):
            wait_until(lambda: self.client["cal_gain"] is None, "an error")
        self.start_sim(port=port)
        wait_until(lambda: self.client.state()["state"] == "connected", "the ECU")
        self.assertEqual(self.client["cal_gain"], 1)

    def test_what_goes_wrong_stands_where_one_looks(self):
        """A write without an answer, a reset, a signal that is not known, names that lead elsewhere, JSON without a bottom."""
        sim = self.start_sim("--epk", "PUMP 3.1", "--fault", "lose:DOWNLOAD:2:3")
        recordings, elsewhere = self.dir / "recordings", self.dir / "elsewhere"
        recordings.mkdir()
        elsewhere.mkdir()
        (recordings / "link").symlink_to(elsewhere)
        self.serve("-c", self.quick_config(), "--recordings", recordings, sim=sim)
        ecu = self.client
        ecu.measure(["counter_1ms@0"])
        for name in ("link", "layouts", ".."):
            with self.assertRaises(EcuError):
                ecu.record(name)
        self.assertEqual(list(elsewhere.iterdir()), [])
        ecu.record("first")
        ecu["cal_gain"] = 1.5
        with self.assertRaises(EcuError):
            ecu["cal_gain"] = 3.5
        self.assertEqual(ecu["cal_gain"], 3.5)
        told = [(one["old"]["physical"], one["new"]["physical"], "error" in one) for one in ecu.ask("GET", f"{self.base}/writes")["entries"]]
        self.assertEqual(told, [(1, 1.5, False), (1.5, 3.5, True)])
        sim.signal(signal.SIGUSR1)
        wait_until(lambda: any("is not as it was" in one["text"] for one in ecu.ask("GET", f"{self.base}/log")["entries"]), "the reset in the log")
        ecu.end_recording()
        kinds = [one["event"] for one in events(recordings / "first")]
        self.assertEqual([kinds.count(kind) for kind in ("parameter", "ecuChanged", "ecuClock")], [2, 1, 1], kinds)
        self.assertIn("ecu", kinds)
        with self.assertRaisesRegex(EcuError, "wavee"):
            ecu.measure(["wavee@0"])
        self.assertEqual(ecu.state()["state"], "measuring")
        link = socket.socket(socket.AF_UNIX)
        self.addCleanup(link.close)
        link.connect(self.host.out.splitlines()[2].removeprefix("unix:"))
        body = '{"commands":' + "[" * 1000000
        link.sendall(f"POST /v1/share/begin HTTP/1.1\r\nHost: localhost\r\nContent-Length: {len(body)}\r\n\r\n{body}".encode())
        self.assertRegex(link.recv(100), b"^HTTP/1.1 400 ")
        self.assertEqual(ecu["cal_gain"], 1)

    def test_the_description_of_the_api_and_the_examples(self):
        self.serve("--recordings", self.dir)
        text = (ROOT / "docs" / "api.yaml").read_text(encoding="utf-8")
        paths = re.findall(r"(?m)^  (/\S*):\n((?:    \w+: .*\n)+)", text)
        self.assertGreater(len(paths), 15)
        for path, methods in paths:
            real = path.replace("{ecu}", self.client.ecu).replace("{name}", "x")
            status, _, headers = self.request("PATCH", real)
            told = {method.upper() for method in re.findall(r"(?m)^    (\w+):", methods)}
            if path.endswith("/values/read") or path.endswith("/values/write"):
                told |= {"GET", "PUT"}  # of an object of that name
            self.assertEqual((status, set(headers["Allow"].split(", "))), (405, told), path)
            keys = re.search(r'get:.*"200": \{description: "?([a-zA-Z, ]+)"?\}', methods)
            if keys and "," in keys[1] and "events" not in keys[1] and "{name}" not in path:
                self.assertEqual(set(keys[1].split(", ")), set(json.loads(self.request("GET", real)[1])), path)
        done = subprocess.run([sys.executable, EXAMPLES / "step_and_plot.py", self.address], capture_output=True, text=True,
                              timeout=PATIENCE, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertRegex(done.stdout, r"\d+ values of engine_speed, cal_idle_speed stepped to 950 at \d+\.\d+ s")


if __name__ == "__main__":
    unittest.main()
