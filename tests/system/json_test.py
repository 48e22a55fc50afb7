"""--json: one object for each result that says what the text output says, a line for each record of a measurement."""
import json
import shlex
import shutil
import unittest

from harness import SystemTest, record, signals, value_line
from recording import Recording


def info_text(told):
    ecu, daq, status = told["ecu"], told["daq"], told["status"]
    cycles = [f"{e['cycleNs'] // 1000000} ms" if e["cycleNs"] else "not cyclic" for e in daq["events"]]
    return (f"ECU            {ecu['name']} ({ecu['description']})\n"
            f"resources      {''.join(name + ' ' for name in told['resources'])}\n"
            f"communication  {told['byteOrder']}, AG {told['addressGranularity']}, MAX_CTO {told['maxCto']}, MAX_DTO {told['maxDto']}\n"
            f"DAQ            {'dynamic' if daq['dynamic'] else 'static'}, timestamp {daq['timestampBytes']} byte x "
            f"{daq['timestampTickNs'] / 1e6:.3f} ms, max ODT entry {daq['maxOdtEntry']}\n"
            + "".join(f"  event {e['event']:<3} {e['name']:<20} {cycle}\n" for e, cycle in zip(daq["events"], cycles))
            + f"status         session 0x{status['session']:02X}\n")


def list_text(told):
    def mark(o):
        return "  rw" * o["writable"] if o["kind"] == "measurement" else "  read-only" * (not o["writable"])
    return "".join(f"{o['kind'][0].upper()}  {o['name']:<50} "
                   f"{o['type'] if o['kind'] != 'parameter' or o['type'] == 'VALUE' else 'CURVE/MAP...':<13} "
                   f"{o['unit']:<8} 0x{o['address'] or 0:08X}{mark(o)}\n" for o in told["objects"])


def recording_text(told):
    text = (f"recording      {told['name']}\nECU            {told['ecu']} ({told['source']})\n"
            f"start          {told['start'][:23]}Z\nduration       {told['seconds']:.3f} s\n"
            f"size           {told['bytes'] / 1000:.1f} kB\noutages        {told['outages'] or 'none'}\n"
            f"A2L            {told['a2lName']}, SHA-256 {told['a2lSha256']}\ncommand        {shlex.join(told['commandLine'])}\n")
    clocks = {"ecu": "timestamps of the ECU, laid on the host's clock", "host": "the host's, when a record came"}
    for group in told["groups"]:
        first, last, count = group["firstNs"] / 1e9, group["lastNs"] / 1e9, group["records"]
        text += (f"group {group['group']:<8} {group['name']}, {group['cycleNs'] // 1000000} ms\n"
                 f"  times        {clocks[group['clock']]}\n"
                 f"  records      {count}, {(count - 1) / (last - first):.1f}/s, from {first:.3f} s to {last:.3f} s\n"
                 f"  gaps         {group['gaps']['count'] or 'none'}\n")
        text += "".join(f"  {s['name']:<40} {s['type']:<13} {s['least']['text']:>12} {s['greatest']['text']:>12}\n"
                        for s in group["signals"])
    return text


def check_text(told):
    verdict = "sound" if told["sound"] else f"{len(told['findings'])} fault(s)"
    return ("".join(f"{f['text']} (repair {f['repair']})\n" for f in told["findings"])
            + f"{told['directory']}: {told['groups']} group(s), {told['records']} record(s), {verdict}\n")


def export_text(told):
    return "".join(f"{file} written\n" for file in told["files"])


def values_text(told):
    return "".join(value_line(v["name"], v["value"]["text"] if "value" in v else f"ERROR {v['error']['message']}")
                   for v in told["values"])


def told_beside(told):
    rows = [(v["name"], f"the ECU now holds {v['held']['text']}" if "held" in v else v.get("deviation")) for v in told["values"]]
    hints = [v["error"].get("hint") for v in told["values"] if "error" in v]
    return ("".join(f"{name}: {text}\n" for name, text in rows if text)
            + "".join(f"hint: {hint}\n" for hint in hints if hint))


class JsonTest(SystemTest):
    def told(self, *arguments):
        """The object that a command prints, and how it ended."""
        done = self.run_plain(*arguments, "--json")
        self.assertEqual((done.stdout.count("\n"), done.stdout[-1:]), (1, "\n"), done.stdout)
        told = json.loads(done.stdout)
        self.assertEqual((list(told)[:2], list(told)[-2:]), (["schema", "command"], ["errors", "exit"]))
        self.assertEqual((told["schema"], told["exit"]), (1, done.returncode))
        return told, done

    def test_objects_say_what_the_text_says(self):
        sim, directory = self.start_sim(), self.dir / "rec"
        self.run_cli(sim, *record(directory, ["wave@0", "gear@2"], 0.5))
        sim.a2l.write_text(sim.a2l.read_text(encoding="utf-8").replace('"rpm"', '"\N{DEGREE SIGN}\t\x9b"'), encoding="utf-8")
        units = {o["unit"] for o in self.told("--a2l", sim.a2l, "list", "engine_speed")[0]["objects"]}
        self.assertEqual(units, {"\N{DEGREE SIGN}\t\x9b"})
        sim.a2l = self.write_a2l()
        damaged = self.dir / "damaged"
        shutil.copytree(directory, damaged)
        (damaged / "g0000.tix").write_bytes(b"")
        rows = [(info_text, ["info"]), (list_text, ["list"]), (list_text, ["list", "-p", "lim"]),
                (recording_text, ["recording", "info", directory]), (check_text, ["recording", "check", directory]),
                (check_text, ["recording", "check", damaged]),
                (values_text, ["get", "cal_injector", "cal_uint64_lsb", "cal_lambda", "none", "cal_gains[9]"]),
                (values_text, ["set", "--exact", "cal_lambda=0.85", "cal_uint64_lsb=0x1FFFFFFFFFFFFFFF", "cal_injector=test mode",
                               "cal_stubborn=1", "cal_limited=1,5"]),
                (export_text, ["export", directory, "--force", "-o", self.dir / "x.csv"])]
        for text, arguments in rows:
            with self.subTest(arguments):
                told, done = self.told(*self.arguments(sim, *arguments)[1:])
                plain = self.run_cli(sim, *arguments)
                self.assertEqual((text(told), told["errors"]), (plain.stdout, []))
                self.assertEqual((done.returncode, done.stderr), (plain.returncode, ""))
                if text is values_text:
                    self.assertEqual(told_beside(told), plain.stderr)
        told, _ = self.told(*self.arguments(sim, "set", f"cal_uint64_lsb={2 ** 64 - 3}", "cal_injector=1", "x")[1:])
        self.assertEqual([v.get("value") for v in told["values"]],
                         [{"raw": 2 ** 64 - 3, "physical": 2 ** 64 - 3, "unit": "", "text": "1.84467e+19"},
                          {"raw": 1, "physical": 1, "unit": "", "text": "on"}])
        self.assertEqual(told["errors"], [{"code": "invalidArgument", "message": "expected NAME=VALUE", "name": "x"}])

    def test_errors_are_objects_and_lines(self):
        sim = self.start_sim()
        damaged = "caf\N{REPLACEMENT CHARACTER}\x01"
        rows = [("notFound", "cannot open A2L file none", ["--a2l", "none", "list"],
                 {"hint": "No such file or directory", "name": "none"}),
                ("notFound", f"no recording in {damaged}", ["recording", "check", "caf\udce9\x01"], {"name": damaged}),
                ("invalidArgument", "unknown reconnect policy x", ["--reconnect", "x", "info"], {}),
                ("notFound", "'wavy' is neither a MEASUREMENT nor a CHARACTERISTIC",
                 self.arguments(sim, "measure", "-s", "wavy")[1:], {"hint": "wavy: did you mean 'wave'?"})]
        for code, message, arguments, more in rows:
            with self.subTest(arguments):
                told, done = self.told(*arguments)
                self.assertEqual(told["errors"], [{"code": code, "message": message} | more])
                self.assertEqual((done.returncode, done.stderr.count("\n")), (1, 2 if "hint" in more else 1))

    def test_a_measurement_tells_every_record(self):
        sim, directory = self.start_sim(), self.dir / "rec"
        names = ["wave@0", "gear@1", "cal_uint64_lsb@1"]
        self.assertEqual(self.run_cli(sim, "set", f"cal_uint64_lsb={2 ** 64 - 3}").returncode, 0)
        done = self.run_cli(sim, "measure", "--json", "-t", 0.5, "-r", directory, *signals([*names, "gear@1"]))
        first, *lines, last = map(json.loads, done.stdout.splitlines())
        self.assertEqual([first["type"], last["type"], last["errors"], last["exit"]], ["start", "end", [], 0])
        self.assertEqual([f"{s['name']}@{s['event']}" for s in first["signals"]], [*names, "gear@1"])
        self.assertEqual([line["state"] for line in lines if line["type"] == "state"], ["measuring", "connected"])
        told, groups = self.statistics(done.stderr, directory)
        self.assertEqual([last["statistics"][key] for key in ("records", "lostOdts", "recorded")],
                         [told["records"], 0, told["recorded"]])
        start = min(group.timestamps[0] for group in groups)
        for number, group in enumerate(groups):
            records = [line for line in lines if line["type"] == "record" and line["group"] == number]
            shift = records[0]["tNs"] - (group.timestamps[0] - start)
            for line, time, data in zip(records, group.timestamps, group.records, strict=True):
                self.assertEqual([line["tNs"], round(line["t"] * 1e9)], [time - start + shift] * 2)
                self.assertEqual({name: value["raw"] for name, value in line["values"].items()},
                                 {signal.name: signal.raw(data) for signal in group.signals})
        value = records[-1]["values"]["cal_uint64_lsb"]
        self.assertEqual(value, {"raw": 2 ** 64 - 3, "physical": 2 ** 64 - 3, "unit": "", "text": "1.84467e+19"})
        self.assertIn(records[-1]["values"]["gear"]["text"], ("neutral", "first", "second", "third", "fourth", "fifth"))


if __name__ == "__main__":
    unittest.main()
