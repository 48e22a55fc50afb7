"""Runs the cases of a campaign in parallel and prints one line about each that failed and one about all.

A campaign is a Campaign class with a method `run_case(*case)` and a generator of cases. Every N-th case is run when
N is given as the only argument; a case given word by word is run alone, as often as it takes to look at it. Modules of
the system tests can be imported behind this one.
"""
import concurrent.futures
import os
import re
import sys
import tempfile
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "system"))
import harness  # pylint: disable=wrong-import-position
from recording import Recording  # pylint: disable=wrong-import-position

# In memory where there is such a place: whether an answer comes in time must not depend on a busy disk.
tempfile.tempdir = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
PARALLEL = 2 * (os.cpu_count() or 1)


class Campaign(harness.SystemTest):
    """What several campaigns hold besides."""

    def check_ended(self, code, err):
        self.assertIn(code, (0, 1, 2), err)
        self.assertNotRegex(err, "(?i)sanitizer|assert|terminate called")

    def check_rising(self, group):
        """Records in the order in which they were taken, none twice; returns their counters."""
        values = group.counters()
        self.assertEqual(values, sorted(set(values)))
        return values

    def check_failed_recording(self, directory, err):
        """Files that could not all be written hold what was told as recorded; returns how many were dropped.

        None when it was refused at the start, and nothing is left.
        """
        if not (directory / "meta.json").exists():
            self.assertRegex(err, "(?m)^measure: cannot (write|create|open)")
            self.assertEqual(list(directory.iterdir()) if directory.exists() else [], [])
            return None
        records, recorded, dropped = map(int, re.search(r"(\d+) records, .*recorded (\d+) \(dropped (\d+)\)", err).groups())
        self.assertEqual(records, recorded + dropped)
        groups = Recording(directory).groups
        self.assertEqual(sum(len(self.check_rising(group)) for group in groups), recorded)
        return dropped


def run(test_class, *case):
    """Runs one case in a test of its own; returns what it returns."""
    class Case(test_class):
        def runTest(self):  # pylint: disable=invalid-name
            self.outcome = self.run_case(*case)

    test = Case()
    result = test.defaultTestResult()
    test.run(result)
    for _, trace in result.failures + result.errors:
        raise AssertionError(trace)
    return test.outcome


def main(name, test_class, cases, parallel=PARALLEL, summary=list):
    """`summary` gives the lines that go before the last one."""
    arguments = sys.argv[1:]
    if len(arguments) > 1:
        run(test_class, *arguments)
        print("passed")
        return
    every = int(arguments[0]) if arguments else 1
    chosen = [case for number, case in enumerate(cases()) if number % every == 0]
    begin = time.monotonic()
    failed = []
    lock = threading.Lock()

    def one(case):
        try:
            run(test_class, *case)
        except Exception as error:  # pylint: disable=broad-except
            with lock:
                failed.append(case)
                last = [line for line in str(error).strip().splitlines() if line.strip()]
                print(f"FAILED {name}: {' '.join(map(repr, map(str, case)))}", *last[-12:], sep="\n    ", flush=True)

    with concurrent.futures.ThreadPoolExecutor(parallel) as pool:
        list(pool.map(one, chosen))
    print(*summary(), sep="\n", end="\n" if summary != list else "")
    print(f"{name}: {len(chosen)} cases, {len(failed)} failed, {time.monotonic() - begin:.0f} s")
    sys.exit(1 if failed else 0)
