"""Prints what the matching of answers costs: packets by command without a fault, and times in units of t1. Asserts nothing.

For a silent ECU, the stop (SIGINT) is sent 0.3 t1 after the start, when the command is waited for, and 1.3 t1 after it.
"""
import concurrent.futures
import re
import signal
import time

import answers
import campaign
import harness

T1 = 500  # milliseconds: long beside what a program takes to start
LONGEST = 20  # in units of t1; longer counts as this
PARALLEL = 16
THREE = list(answers.VALUES)[:3]
PACKETS = {"info": ["info"], "get of 3": ["get", *THREE], "get of 3 by UPLOAD": ["--no-short-upload", "get", *THREE],
           "set of 3, one masked": answers.SESSIONS["set"],
           "measure of 1 s": harness.record("recording", ["counter_1ms@0", "wave@0", "counter_10ms@1", "setpoint_echo@1"], 1)}


class Timed(answers.Answers):
    """One session, with the rules given and t1 long; `stop_at` in units of t1. Returns its time in units of t1,
    its exit code, the last line that it told and what the ECU counted."""

    def run_case(self, arguments, rules=(), stop_at=None):
        sim = self.start_sim(*(word for rule in rules for word in ("--fault", rule)))
        config = self.quick_config(xcp={"timeoutsMs": [T1] * 6 + [20]}, reconnect={"heartbeatMs": 60000})
        arguments = [str(self.dir / word) if word == "recording" else word for word in arguments]
        begin = time.monotonic()
        tool = self.start_cli(sim, "-c", config, *arguments)
        if stop_at is not None:
            time.sleep(stop_at * T1 / 1000)
            begin = time.monotonic()
            tool.signal(signal.SIGINT)
        try:
            tool.process.wait(LONGEST * T1 / 1000)
            times = (time.monotonic() - begin) * 1000 / T1
        except harness.subprocess.TimeoutExpired:
            tool.kill()
            times = LONGEST
        told = re.sub(r"\[.*?\] ", "", tool.err.strip()).splitlines()
        return times, tool.process.returncode, told[-1] if told else "", harness.counters(sim)


def print_packets():
    for name, arguments in PACKETS.items():
        *_, heard = campaign.run(Timed, arguments)
        sent = {key.removeprefix("command-"): count for key, count in heard.items() if key.startswith("command-")}
        print(f"{name}: {sum(sent.values())} packets;", ", ".join(f"{count} {key}" for key, count in sorted(sent.items())))


def print_times(title, session, sent, rule, stop_at=None):
    """One line: the longest, and each position (without a fault first)."""
    cases = [(answers.SESSIONS[session], [rule.format(number)] if number else [], stop_at if number else None)
             for number in range(sum(sent.values()) + 1)]
    with concurrent.futures.ThreadPoolExecutor(PARALLEL) as pool:
        results = list(pool.map(lambda case: campaign.run(Timed, *case), cases))
    times = [seconds for seconds, *_ in results]
    worst = max(range(1, len(times)), key=times.__getitem__)
    print(f"{title}, {session}: at most {times[worst]:.2f} t1 (command {worst}, exit code {results[worst][1]}, "
          f"{results[worst][2]!r});", " ".join(f"{seconds:.2f}" for seconds in times), flush=True)


def print_without_synch():
    for name, arguments in answers.SESSIONS.items():
        plain, silent = (campaign.run(Timed, arguments, rules)[0] for rules in ((), ("ignore:SYNCH:1:0",)))
        print(f"SYNCH never answered, {name}: {silent:.2f} t1 instead of {plain:.2f}")


def main():
    for positions in answers.positions():
        print_packets()
        print_without_synch()
        for session in ("get", "get by UPLOAD", "set"):
            print_times("one answer lost", session, positions[session], "lose:*:{}")
        for session, sent in positions.items():
            for at in (0.3, 1.3):
                print_times(f"silent, stopped after {at} t1", session, sent, "silence:*:{}:1:0", at)
            print_times("EV_CMD_PENDING without end, stopped after 0.3 t1", session, sent, f"endless:*:{{}}:1:{T1 // 5}", 0.3)


if __name__ == "__main__":
    main()
