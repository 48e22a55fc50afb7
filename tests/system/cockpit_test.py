"""The page of `serve` in a real browser: what a user does with it, by keys and mouse, against the simulated ECU."""
import csv
import json
import re
import signal
import unittest

from browser import BrowserCase, Keys, ROOT, serve_modules
from harness import SystemTest, wait_until
from recording import Recording

HOSTILE = "<img src=x onerror=alert(1)>\u202edeeps"


class CockpitTest(BrowserCase, SystemTest):
    def serve(self, *options, a2l=None):
        self.sim = self.start_sim()
        if a2l:
            self.sim.a2l = a2l(self.sim.a2l)
        (self.dir / "recordings").mkdir()
        self.host = self.start_cli(self.sim, "serve", "--recordings", self.dir / "recordings", *options)
        self.host.wait_for_out("unix:")
        self.address = self.host.out.splitlines()[1]

    def put(self, page, *names):
        """Searches and takes each by keys alone, from wherever the focus is."""
        for name in names:
            page.keys(Keys.CONTROL, "k", Keys.NULL)
            page.keys(Keys.CONTROL, "a", Keys.NULL)
            page.keys(name)
            page.wait(lambda name=name: page.text(".row.active .label") == name, name)
            page.keys(Keys.ENTER)
            page.wait(lambda name=name: name in page.text("#panes") + page.text("#parameters"), f"{name} in its place")

    def measure(self, page):
        page.keys(Keys.CONTROL, Keys.ENTER, Keys.NULL)
        page.wait_for_text("#state", "measuring")

    def shown(self, page, name):
        """The number beside the name of a signal."""
        return page.run("""const row = [...document.querySelectorAll(".legend tbody tr")].find((one) => one.querySelector(".name").textContent === arguments[0]);
            return row && parseFloat(row.querySelector(".number").textContent)""", name)

    def cell(self, page, column, row):
        return page.run("return document.querySelectorAll('.grid tbody tr')[arguments[1]].cells[arguments[0] + 1]", column, row)

    def get(self, *names):
        return [line.split()[1] for line in self.run_cli(self.sim, "get", *names).stdout.splitlines()]

    def test_modules(self):
        page = self.browser()
        page.driver.get(serve_modules(self))
        results = page.wait(lambda: page.run("return globalThis.results"), "the end of the tests")
        self.assertEqual((results["failed"], page.troubles()), ([], []))
        self.assertGreaterEqual(results["count"], len(re.findall(r"(?m)^test\(", "".join(
            path.read_text(encoding="utf-8") for path in (ROOT / "tests" / "page").glob("*_test.js")))))
        index = (ROOT / "src" / "page" / "index.html").read_text(encoding="utf-8")
        for path in (ROOT / "src" / "page").glob("*.js"):
            self.assertIn(f'href="/page/{path.name}"' if path.name != "app.js" else 'src="/page/app.js"', index)

    def test_find_plot_and_calibrate_while_it_moves(self):
        self.serve()
        page = self.browser()
        page.open(self.address)
        self.assertNotIn("token", page.driver.current_url)
        self.put(page, "torque_request", "cal_torque_curve", "cal_ignition_map")
        page.wait_for_text(".plan", "4 signals")  # and the inputs of both: throttle, engine_speed, rel_load
        self.measure(page)
        page.wait(lambda: -20 <= (self.shown(page, "torque_request") or -99) <= 250, "a value of the model")
        page.wait_for_text(".card", "throttle")

        self.cell(page, 0, 0).click()
        page.keys(Keys.CONTROL, "a", Keys.NULL)
        page.keys("77", Keys.ENTER)
        page.wait(lambda: self.shown(page, "torque_request") == 77, "the torque that the changed curve asks for")
        self.assertEqual(self.get("cal_torque_curve[0]", "cal_torque_curve[7]"), ["77.000", "77.000"])
        page.wait_for_text(".card .flag", "changed 8")
        page.keys("*1.5", Keys.ENTER)
        page.wait(lambda: self.shown(page, "torque_request") == 115.5, "one and a half times that")
        page.keys(Keys.CONTROL, "z", Keys.NULL)
        page.wait(lambda: self.shown(page, "torque_request") == 77, "one step back")
        page.keys(Keys.CONTROL, "z", Keys.NULL)
        page.wait(lambda: page.text(".card .flag") == "", "nothing changed any more")
        self.assertEqual(self.get("cal_torque_curve[0]", "cal_torque_curve[7]"), ["-20.000", "250.000"])
        page.keys("9999", Keys.ENTER)
        page.wait(lambda: "✕" in self.cell(page, 0, 0).text, "a cell that was refused")
        self.assertRegex(self.cell(page, 0, 0).get_attribute("title"), "outside the limits")

        second = page.run("return [...document.querySelectorAll('.grid')][1].querySelectorAll('td')[8]")
        second.click()
        page.keys("15.3", Keys.ENTER)
        page.wait(lambda: second.text == "≈15.5•", "the value that the ECU holds, marked as rounded and changed")
        self.assertEqual(self.get("cal_ignition_map[0][1]"), ["15.5"])
        self.assertEqual(page.troubles(), [])

    def test_record_mark_open_zoom_and_export(self):
        self.serve()
        page = self.browser()
        page.open(self.address)
        self.put(page, "counter_1ms", "engine_speed")
        self.measure(page)
        page.named("name of the recording").send_keys("drive", Keys.ENTER)
        page.named("■ Stop recording")
        page.named("Plot").click()
        page.keys("m")
        page.wait_for_text("#status", "Marked")
        page.wait(lambda: (self.shown(page, "counter_1ms") or 0) > 2000, "two seconds")
        page.click("■ Stop recording")
        page.click("Recordings", "[role=tab]")
        page.click("drive")
        page.wait_for_text("#mode", "drive")
        self.assertEqual(page.text("#lost"), "")
        recording = Recording(self.dir / "recordings" / "drive")
        group = next(one for one in recording.groups if one.signals[0].name == "counter_1ms")
        times = [time - recording.meta["startHostNs"] for time in group.timestamps]
        # The whole of it at first, then single samples around the middle.
        begin, end = page.run("return [cockpit.plots.view.from, cockpit.plots.view.to]")
        self.assertAlmostEqual(begin, times[0] / 1e9, delta=0.05)
        self.assertAlmostEqual(end, times[-1] / 1e9, delta=0.05)
        page.named("Plot").click()
        for _ in range(20):
            page.keys("+")
        page.wait(lambda: page.run("const one = [...cockpit.plots.panes[0].shown.values()][0]; return one.strip.exact && one.strip.count < 60"), "single samples")
        at = page.run("return cockpit.plots.view.cursors.a") * 1e9
        expected = [value for time, value in zip(times, group.counters()) if time <= at][-1]
        row = page.run("return document.querySelector('.legend tbody tr').cells[2].textContent")
        self.assertEqual(int(row), expected)
        page.click("CSV")
        path = wait_until(lambda: next(page.downloads.glob("*.csv"), None), "the CSV")
        view = page.run("return [cockpit.plots.view.from, cockpit.plots.view.to]")
        with open(path, encoding="utf-8", newline="") as file:
            rows = list(csv.reader(file))
        inside = [value for time, value in zip(times, group.counters()) if view[0] <= time / 1e9 <= view[1]]
        self.assertEqual([int(float(one[1])) for one in rows[1:] if one[1]], inside)
        page.click("SVG")
        svg = wait_until(lambda: next(page.downloads.glob("*.svg"), None), "the SVG").read_text(encoding="utf-8")
        self.assertRegex(svg, r"counter_1ms</text>")
        page.click("Fit")
        page.wait(lambda: page.run("return cockpit.plots.sources[0].happenings.filter((one) => one.kind === 'mark').length") == 1, "the mark")
        page.click("save the layout")
        page.driver.switch_to.alert.send_keys("mine")
        page.driver.switch_to.alert.accept()
        page.wait_for_text("#status", "Layout mine saved")
        page.driver.refresh()
        page.wait(lambda: "engine_speed" in page.text("#panes"), "the last layout")
        self.assertEqual(json.loads((self.dir / "recordings" / "layouts" / "mine.json").read_text())["panes"][0]["signals"], ["counter_1ms", "engine_speed"])
        self.assertEqual(page.troubles(), [])

    def test_two_tabs_and_a_lost_server(self):
        self.serve()
        page = self.browser()
        page.open(self.address)
        self.put(page, "cal_gain")
        first = page.driver.current_window_handle
        page.driver.switch_to.new_window("tab")
        page.open(self.address)
        self.put(page, "cal_gain")
        page.keys(Keys.CONTROL, "a", Keys.NULL)
        page.keys("2.5", Keys.ENTER)
        page.wait_for_text(".card .flag", "changed (was 1.000)")
        page.driver.switch_to.window(first)
        page.wait(lambda: page.run("return document.querySelector('.scalar input').value") == "2.5", "what the other tab wrote")
        self.sim.kill()
        page.wait(lambda: "no ECU" in page.text("#state") or "reconnecting" in page.text("#state"), "an ECU that is gone")
        self.host.signal(signal.SIGKILL)
        page.wait_for_text("#lost", "No connection to the server")
        self.assertTrue(page.named("⚠ No connection", "[role=alert]").is_displayed())

    def test_hostile_names_stay_texts(self):
        def spoil(path):
            text = path.read_text(encoding="utf-8").replace('"Torque of the curve, at throttle"', f'"{HOSTILE}"')
            self.assertIn(HOSTILE, text)
            path.write_text(text, encoding="utf-8")
            return path

        self.serve(a2l=spoil)
        page = self.browser()
        page.open(self.address)
        page.keys(Keys.CONTROL, "k", Keys.NULL)
        page.keys("onerror")
        page.wait_for_text(".row .note", "<img src=x onerror=alert(1)>⟦202E⟧deeps")
        page.keys(Keys.ENTER)
        page.wait_for_text("#panes", "torque_request")
        self.assertEqual((page.all("img, script:not([src])"), page.troubles()), ([], []))

    def test_names_for_screen_readers(self):
        self.serve()
        page = self.browser()
        page.open(self.address)
        self.put(page, "engine_speed", "cal_gain", "cal_injector", "cal_ignition_map")
        names = page.names()
        actors = {"button", "textbox", "searchbox", "combobox", "checkbox", "tab", "tree", "treeitem", "grid", "image", "ComboBoxMenuSelect", "spinbutton", "listbox"}
        self.assertEqual([one for one in names if one[0] in actors and not one[1].strip()], [])
        for expected in (("button", "▶ Measure"), ("combobox", "search objects"), ("grid", "cal_ignition_map"), ("textbox", "value of cal_gain"), ("tree", "objects"),
                         ("button", "cal_gain: one step more"), ("region", "Parameters"), ("image", "Picture of cal_ignition_map"), ("treeitem", "map, cal_ignition_map, ")):
            self.assertTrue(any(role == expected[0] and name.startswith(expected[1]) for role, name in names), (expected, names))
        # Whatever can be clicked is large enough for a finger, and its text can be read in both colours.
        small = page.run("""return [...document.querySelectorAll("button, select, input")].filter((one) => one.checkVisibility() && one.type !== "checkbox")
            .map((one) => [one.textContent || one.ariaLabel, one.getBoundingClientRect()]).filter(([, box]) => box.width < 24 || box.height < 24).map(([name]) => name)""")
        self.assertEqual(small, [])


if __name__ == "__main__":
    unittest.main()
