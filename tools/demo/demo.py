#!/usr/bin/env python3
"""Demonstrates agent and hardware writer with files of rules, kills both, and prints a summary.

Both are killed with SIGKILL in the middle of their work and started again; half the rules are
replaced; the next hop with the most prefixes changes, and changes back; packets are decided all the
time by the simulated hardware and by a plain scan of the rules and the next hops. Exit status: 0 all as it should be, 1 something is wrong, 2 the files cannot be shown.
"""
import argparse
import json
import mmap
import os
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import time

UNITS = (0, 1)
PACKETS = 20000
# Approximate duration in seconds of a load and of a change, slowed down to be watched and killed.
STRETCH = 2.0
PATIENCE = 60.0
# The redirected prefixes by next hop: two units have a row of TcamAction for each.
PREFIXES = {"core": 1000, "west": 60, "east": 60, "spare": 30}
NEXT_HOPS = {"before": {"core": "1:192.0.2.1  2:192.0.2.5", "west": "3:192.0.2.9",
                        "east": "4:192.0.2.13", "spare": "down"},
             "after": {"core": "5:192.0.2.17"}}
# How often a death in the middle of a change is tried: it takes milliseconds.
TRIES = 30


class Failed(Exception):
    """An awaited event did not occur."""


class Unfit(Exception):
    """The files are unsuitable."""


class Process:
    """One of the programs, with its output lines and the times at which they were printed."""

    def __init__(self, arguments, echo):
        self.began = time.monotonic()
        self.name = os.path.basename(arguments[0])
        self.lines = []
        self.changed = threading.Condition()
        self.popen = subprocess.Popen(arguments, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                      text=True, errors="replace")
        self.reader = threading.Thread(target=self.read, args=(echo,), daemon=True)
        self.reader.start()

    def read(self, echo):
        for line in self.popen.stdout:
            with self.changed:
                self.lines.append((time.monotonic(), line.rstrip("\n")))
                self.changed.notify_all()
            echo(f"    {self.name}: {line.rstrip()}")

    def wait_for(self, found, what):
        """The first result of `found` that is not None, and the time of its line."""
        end = time.monotonic() + PATIENCE
        seen = 0
        while True:
            with self.changed:
                while seen == len(self.lines):
                    if self.popen.poll() is not None and not self.reader.is_alive():
                        last = self.lines[-1][1] if self.lines else "without a word"
                        raise Failed(f"{self.name} ended with {self.popen.returncode} before "
                                     f"{what}: {last}")
                    if time.monotonic() > end:
                        raise Failed(f"{self.name}: no sign of {what} in {PATIENCE:.0f} s")
                    self.changed.wait(0.05)
                at, line = self.lines[seen]
            seen += 1
            result = found(line)
            if result is not None:
                return result, at - self.began

    def forget(self):
        """Discards the lines so far."""
        with self.changed:
            self.lines.clear()
            self.began = time.monotonic()

    def end(self, how):
        self.popen.send_signal(how)
        status = self.popen.wait(PATIENCE)
        self.reader.join(PATIENCE)
        return status


def event_of(line, name):
    """The content of a JSON line with the given event, or None."""
    try:
        facts = json.loads(line)
    except ValueError:
        return None
    return facts if isinstance(facts, dict) and facts.get("event") == name else None


def rules_of(path):
    """The rules of a file. The agent checks their syntax."""
    if os.path.isdir(path):
        raise Unfit(f"{path}: it is a directory; name the files in it")
    if not os.path.isfile(path):
        raise Unfit(f"{path}: there is no such file, or it is not a regular one")
    try:
        with open(path, encoding="utf-8", errors="replace", newline="") as file:
            lines = [line.strip() for line in file]
    except OSError as error:
        raise Unfit(f"{path}: cannot be read: {error.strerror}") from error
    lines = [line for line in lines if line and not line.startswith("#")]
    if lines and not any(line.startswith("@") for line in lines):
        raise Unfit(f"{path}: none of its lines begins with '@', so it is no file of rules but a "
                    "list of prefixes; the demonstration needs rules in the ClassBench format")
    return lines


def prefixes():
    """A list of prefixes: each with a next hop, no interface, and a name to be redirected to."""
    names = [name for name, count in PREFIXES.items() for _ in range(count)]
    return [f"172.{16 + i // 256}.{i % 256}.0/24 192.0.2.1 - {name}" for i, name in enumerate(names)]


def next_hops(which):
    return [f"{name} {way}" for name, way in (NEXT_HOPS["before"] | NEXT_HOPS[which]).items()]


class LogEnd:
    """How far a log goes, read from the header of its file: faster than a program can be asked."""

    NEXT = 384 + 64 * 2

    def __init__(self, directory, table):
        name, = (name for name in os.listdir(directory) if f"entryLog%2F{table}" in name)
        with open(os.path.join(directory, name), "rb") as file:
            self.data = mmap.mmap(file.fileno(), 4096, prot=mmap.PROT_READ)

    def version(self):
        return struct.unpack_from("<Q", self.data, self.NEXT)[0] - 1


def mirrored(rule):
    """The rule for the opposite direction: another rule of the same kind."""
    fields = re.match(r"\s*@(\S+)\s+(\S+)\s+(\d+ *: *\d+)\s+(\d+ *: *\d+)\s+(.*)", rule)
    if fields is None:
        return rule
    source, destination, source_ports, destination_ports, rest = fields.groups()
    return f"@{destination}\t{source}\t{destination_ports}\t{source_ports}\t{rest}"


class Demo:
    def __init__(self, options):
        self.options = options
        self.problems = []
        self.page = {}
        self.writers = []
        self.processes = []
        # All files are in memory, as on a switch.
        parent = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
        self.work = tempfile.mkdtemp(prefix="bastil-demo.", dir=parent)
        self.directory = os.path.join(self.work, "tables")

    def say(self, text):
        if not self.options.json:
            print(text, flush=True)

    def echo(self, text):
        if self.options.verbose:
            print(text, file=sys.stderr, flush=True)

    def path(self, name):
        return os.path.join(self.work, name)

    def start(self, program, *arguments, directory=None):
        command = [os.path.join(self.options.bin, program), "--dir", directory or self.directory,
                   *(str(argument) for argument in arguments)]
        self.processes.append(Process(command, self.echo))
        return self.processes[-1]

    def writer(self):
        writer = self.start("bastil-hwwriter", "--json", "--classify", PACKETS, "--seed",
                            self.options.seed, *self.reference())
        self.writers.append(writer)
        return writer

    def reference(self):
        """What the hardware writer holds packets against."""
        files = [("--rules", "before.rules"), ("--rules", "after.rules"), ("--next-hops", "before.hops"),
                 ("--next-hops", "after.hops"), ("--redirect", "redirects"), ("--prefixes", "prefixes")]
        return [word for option, name in files for word in (option, self.path(name))]

    def redirects(self, hops="live.hops"):
        """What tells an agent about next hops."""
        return ["--next-hops", self.path(hops), "--redirect", self.path("redirects")]

    def agent(self, *arguments, directory=None, rules="live.rules"):
        units = [word for unit in UNITS for word in ("--unit", str(unit))]
        return self.start("bastil-agent", *units, *self.redirects(), *arguments, self.path(rules),
                          self.path("prefixes"), directory=directory)

    def store(self, name, lines):
        """Under its name at once."""
        with open(self.path("next"), "w", encoding="utf-8") as file:
            file.write("\n".join(lines) + "\n")
        os.replace(self.path("next"), self.path(name))

    def flip(self, which):
        self.store("live.hops", next_hops(which))

    def status(self):
        shown = subprocess.run([os.path.join(self.options.bin, "bastilctl"), "--dir",
                                self.directory, "--json", "status"], capture_output=True, text=True)
        try:
            return json.loads(shown.stdout)["tables"]
        except (ValueError, KeyError):
            return []

    def reported(self, name):
        return sum(table["reported"] for table in self.status() if table["table"] == name)

    def issued(self):
        return sum(table["issued"] for table in self.status())

    def await_issued(self, version, what):
        end = time.monotonic() + PATIENCE
        begin = issued = self.issued()
        while issued < version:
            if time.monotonic() > end:
                raise Failed(f"no sign of {what} in {PATIENCE:.0f} s")
            self.bar(issued - begin, self.page["rows"])
            time.sleep(0.005)
            issued = self.issued()
        self.bar(None, 0)

    def bar(self, done, total):
        """Shows progress on a terminal; clears it if `done` is None."""
        if self.options.json or not sys.stdout.isatty():
            return
        if done is None:
            print("\r\x1b[K", end="", flush=True)
            return
        filled = min(40, 40 * done // max(total, 1))
        print(f"\r\x1b[K  [{'#' * filled}{'.' * (40 - filled)}] {done} of {total} rows", end="",
              flush=True)

    def expect(self, holds, problem):
        if not holds:
            self.problems.append(problem)

    def rows_written(self, agent):
        """The number of rows that the agent wrote in all units."""
        rows = 0
        for unit in UNITS:
            pattern = re.compile(rf"programmed: .* unit {unit}; (\d+) rows written")
            rows += int(agent.wait_for(pattern.match, f"the rows of unit {unit}")[0].group(1))
        return rows

    def acknowledged(self, agent):
        """Seconds from the agent's start, or its last change, to complete acknowledgement."""
        pattern = re.compile(r"acknowledged: ")
        return agent.wait_for(pattern.match, "the hardware's acknowledgement")[1]

    def end_writer(self, writer):
        status = writer.end(signal.SIGTERM)
        self.expect(status == 0, f"the hardware writer ended with {status}")
        return self.last_summary(writer)

    @staticmethod
    def last_summary(writer):
        for _, line in reversed(writer.lines):
            facts = event_of(line, "summary")
            if facts is not None:
                return facts
        raise Failed("the hardware writer left no summary")

    def started(self, writer):
        """The sum of the chip's programmed versions at the writer's start, and the time of it."""
        facts, at = writer.wait_for(lambda line: event_of(line, "started"), "its start")
        return sum(facts["programmed"].values()), at

    # The acts, in order.

    def prepare(self):
        rules = [rule for path in self.options.files for rule in rules_of(path)]
        if len(rules) < 4:
            raise Unfit("these files hold fewer than four rules: nothing to show")
        # A row that changes twice must wait for the hardware in between.
        writer = self.start("bastil-hwwriter", "--json", directory=self.path("trial"))
        self.store("redirects", ["@172.16.0.0/14 0.0.0.0/0 0 : 65535 53 : 53 0x11/0xFF east",
                                 "@0.0.0.0/0 172.16.0.0/16 0 : 65535 25 : 25 0x06/0xFF spare"])
        self.store("prefixes", prefixes())
        for which in NEXT_HOPS:
            self.store(which + ".hops", next_hops(which))
        self.flip("before")
        self.try_out(self.options.files, "")
        changed = [mirrored(rule) if i % 2 else rule for i, rule in enumerate(rules)]
        for name, lines in (("before", rules), ("after", changed)):
            with open(self.path(name + ".rules"), "w", encoding="utf-8") as file:
                file.write("\n".join(lines) + "\n")
        self.try_out([self.path("after.rules")], "the rules fit, but half of them are to be replaced "
                                                 "while the others stay, and that does not: ")
        writer.end(signal.SIGTERM)
        shutil.rmtree(self.path("trial"))
        shutil.copy(self.path("before.rules"), self.path("live.rules"))
        self.page["rules"] = len(rules)
        self.page["redirects"] = {"prefixes": sum(PREFIXES.values()), "largest": PREFIXES["core"]}
        self.say(f"{len(rules)} rules and {self.page['redirects']['prefixes']} redirected prefixes for "
                 f"{len(UNITS)} units; tables below {self.directory}")

    def try_out(self, files, what):
        """Checks that an agent accepts the files, one after the other; reports what it refuses."""
        tried = subprocess.run(
            [os.path.join(self.options.bin, "bastil-agent"), "--dir", self.path("trial"), "--once",
             "--timeout", str(PATIENCE), *self.redirects(), "--", *files, self.path("prefixes")],
            capture_output=True, text=True, errors="replace")
        if tried.returncode != 0:
            raise Unfit(what + tried.stderr.strip().removeprefix("bastil-agent: "))

    def measure(self):
        """Measures a load at full speed, in a separate directory; also gives the number of rows."""
        directory = self.path("speed")
        writer = self.start("bastil-hwwriter", "--json", directory=directory)
        agent = self.agent(directory=directory, rules="before.rules")
        rows = self.rows_written(agent)
        programmed = re.compile(r"acknowledged: .*, ([\d.]+) ms after reading began")
        match, _ = agent.wait_for(programmed.match, "the hardware's acknowledgement")
        self.expect(agent.end(signal.SIGTERM) == 0, "the agent did not end cleanly")
        self.end_writer(writer)
        self.page["rows"] = rows
        self.page["rowsPerSecond"] = round(rows / (float(match.group(1)) / 1000))
        self.say(f"full speed: {rows} rows read, compiled, programmed and acknowledged in "
                 f"{match.group(1)} ms")

    def load_and_kill_the_agent(self):
        self.rate = max(1, int(self.page["rows"] / STRETCH))
        self.say(f"loading {self.rate} rows a second; the agent dies in mid-load")
        writer = self.writer()
        agent = self.agent("--watch", "--rate", self.rate)
        self.await_issued(self.page["rows"] * 2 // 5, "rows")
        agent.end(signal.SIGKILL)
        issued = self.issued()
        self.expect(0 < issued < self.page["rows"], "the agent was not killed in mid-load")
        agent = self.agent("--watch", "--rate", self.rate)
        self.await_issued(self.page["rows"], "the other rows")
        rest = self.rows_written(agent)
        self.page["agentBack"] = self.acknowledged(agent)
        self.say(f"  it died at version {issued}; the next one wrote the other {rest} rows, "
                 f"{self.page['agentBack']:.2f} s after its start")
        return writer, agent

    def change_and_kill_the_writer(self, writer, agent):
        self.say("half the rules are replaced; the hardware writer dies in mid-churn")
        issued = self.issued()
        agent.forget()
        shutil.copy(self.path("after.rules"), self.path("next"))
        os.replace(self.path("next"), self.path("live.rules"))
        self.await_issued(issued + self.page["rules"] // 3, "the change")
        writer.end(signal.SIGKILL)
        writer = self.writer()
        version, took = self.started(writer)
        self.page["changedRows"] = self.rows_written(agent)
        self.acknowledged(agent)
        self.page["writerBack"] = took
        self.say(f"  the next one went on at version {version}, {took:.2f} s after its start; "
                 f"{self.page['changedRows']} rows were changed in all")
        return writer, agent

    def flip_and_kill_the_agent(self, writer, agent):
        """The largest next hop changes: each of its rows is written once. The agent dies half-way."""
        self.say("the largest next hop changes; the agent dies in the middle of it")
        log = LogEnd(self.directory, "04080403")
        rows = PREFIXES["core"] * len(UNITS)
        for attempt in range(TRIES):
            which = ("after", "before")[attempt % 2]
            begin = log.version()
            agent.forget()
            self.flip(which)
            end = time.monotonic() + PATIENCE
            while log.version() < begin + rows // 4 and time.monotonic() < end:
                pass
            agent.end(signal.SIGKILL)
            written = log.version() - begin
            agent = self.agent("--watch")
            self.expect(self.rows_written(agent) == 0, "the next agent wrote rules")
            took = self.acknowledged(agent)
            self.expect(log.version() == begin + rows,
                        f"{log.version() - begin} rows were written for {rows} users")
            if 0 < written < rows or self.problems:
                break
        self.expect(0 < written < rows, "the agent was never killed in the middle of a flip")
        self.page["flipKilledAgent"] = {"rows": rows, "before": written, "back": took}
        self.say(f"  {written} of {rows} rows followed before it died; the next one wrote the other "
                 f"{rows - written}, {took:.2f} s after its start")
        return which, writer, agent

    def flip_and_kill_the_writer(self, which, writer, agent):
        self.say("it changes again; the hardware writer dies in the middle of it")
        rows = PREFIXES["core"] * len(UNITS)
        for _ in range(TRIES):
            which = "before" if which == "after" else "after"
            begin = self.reported("TcamAction")
            agent.forget()
            self.flip(which)
            end = time.monotonic() + PATIENCE
            while self.reported("TcamAction") == begin and time.monotonic() < end:
                pass
            writer.end(signal.SIGKILL)
            done = self.reported("TcamAction") - begin
            writer = self.writer()
            took = self.started(writer)[1]
            self.acknowledged(agent)
            if 0 < done < rows or self.problems:
                break
        self.expect(0 < done < rows, "the hardware writer was never killed in the middle of a flip")
        self.page["flipKilledWriter"] = {"rows": rows, "before": done, "back": took}
        self.say(f"  {done} of {rows} rows were in hardware before it died; the next one went on "
                 f"{took:.2f} s after its start")
        return writer, agent

    def restart_without_change(self, writer, agent):
        self.say("both are started again, and nothing has changed")
        self.expect(agent.end(signal.SIGTERM) == 0, "the agent did not end cleanly")
        before = self.issued()
        agent = self.agent("--watch")
        self.expect(self.rows_written(agent) == 0, "a restart without change wrote rows")
        self.page["takeover"] = self.acknowledged(agent)
        self.page["versionsIssuedByRestart"] = self.issued() - before
        first = self.end_writer(writer)
        writer = self.writer()
        _, self.page["writerTakeover"] = self.started(writer)
        time.sleep(0.3)  # allows some more packets
        self.expect(agent.end(signal.SIGTERM) == 0, "the agent did not end cleanly")
        last = self.end_writer(writer)
        self.page["rowsReprogrammedByRestart"] = sum(
            last[what] - first[what] for what in ("written", "removed"))
        return first, last

    def sum_up(self, first, last):
        page = self.page
        page["tables"] = {
            table["table"]: sum(unit["live"] for unit in table["units"]) for table in self.status()}
        page["packets"] = first["packets"] + last["packets"]
        page["mismatches"] = first["mismatches"] + last["mismatches"] + sum(
            "meets decision" in line for writer in self.writers for _, line in writer.lines)
        page["violations"] = last["violations"]
        page["digest"] = {"hardware": last["digest"], "configuration": last["configuration"]}
        verify = subprocess.run([os.path.join(self.options.bin, "bastilctl"), "--dir",
                                 self.directory, "verify"], capture_output=True, text=True)
        page["verify"] = verify.returncode
        self.expect(verify.returncode == 0, f"bastilctl verify: {verify.stdout}{verify.stderr}")
        self.expect(page["packets"] > 0, "no packet was classified")
        for name in ("mismatches", "violations", "versionsIssuedByRestart",
                     "rowsReprogrammedByRestart"):
            self.expect(page[name] == 0, f"{name}: {page[name]} instead of 0")
        self.expect(last["digest"] == last["configuration"],
                    "hardware and configuration are not the same")

    def run(self):
        try:
            self.prepare()
        except Unfit as unfit:
            print(f"demo: {unfit}", file=sys.stderr)
            self.clean_up()
            return 2
        try:
            self.measure()
            writer, agent = self.change_and_kill_the_writer(*self.load_and_kill_the_agent())
            writer, agent = self.flip_and_kill_the_writer(
                *self.flip_and_kill_the_agent(writer, agent))
            first, last = self.restart_without_change(writer, agent)
            self.sum_up(first, last)
        except Failed as failed:
            self.problems.append(str(failed))
        finally:
            self.clean_up()
        self.page["problems"] = self.problems
        self.show()
        return 1 if self.problems else 0

    def clean_up(self):
        for process in self.processes:
            if process.popen.poll() is None:
                process.end(signal.SIGKILL)
        shutil.rmtree(self.work, ignore_errors=True)

    def show(self):
        if self.options.json:
            print(json.dumps(self.page, indent=1))
            return
        page = self.page
        print()
        if "tables" in page:
            rows = ", ".join(f"{count} in {name}" for name, count in page["tables"].items())
            digest = page["digest"]
            by_agent, by_writer = page["flipKilledAgent"], page["flipKilledWriter"]
            lines = [
                ("rules", f"{page['rules']} on each of {len(UNITS)} units"),
                ("redirected prefixes", f"{page['redirects']['prefixes']}, of them "
                                        f"{page['redirects']['largest']} to one next hop"),
                ("rows", rows),
                ("speed", f"{page['rowsPerSecond']} rows a second, from reading to acknowledged"),
                ("agent killed in mid-load", f"everything in hardware {page['agentBack']:.2f} s "
                                             f"after its restart, at {self.rate} rows a second"),
                ("writer killed in mid-churn", f"caught up {page['writerBack']:.2f} s after its "
                                               "restart"),
                ("next hop changed", f"{by_agent['rows']} rows written, one for each that uses it"),
                ("  agent killed meanwhile", f"after {by_agent['before']}; the others in hardware "
                                             f"{by_agent['back']:.2f} s after its restart"),
                ("  writer killed meanwhile", f"after {by_writer['before']}; back "
                                              f"{by_writer['back']:.2f} s after its restart"),
                ("restart without change", f"agent {page['takeover']:.2f} s, writer "
                                           f"{page['writerTakeover']:.2f} s"),
                ("  rows written, reprogrammed", f"{page['versionsIssuedByRestart']}, "
                                                 f"{page['rowsReprogrammedByRestart']}"),
                ("packets classified", f"{page['packets']}, {page['mismatches']} mismatches"),
                ("dependency violations", str(page["violations"])),
                ("digest of configuration", digest["configuration"]),
                ("digest of hardware", digest["hardware"]),
            ]
            for name, value in lines:
                print(f"{name:<32}{value}")
        for problem in self.problems:
            print(f"PROBLEM: {problem}")
        print("verdict: " + ("something is wrong" if self.problems else "all as it should be"))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--bin", required=True, help="where the programs are")
    parser.add_argument("--json", action="store_true", help="print the last page as JSON")
    parser.add_argument("--verbose", action="store_true", help="show what the programs tell")
    parser.add_argument("--seed", type=int, default=1, help="of the packets")
    parser.add_argument("files", nargs="+", metavar="FILE", help="rules in the ClassBench format")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    return Demo(options).run()


if __name__ == "__main__":
    sys.exit(main())
