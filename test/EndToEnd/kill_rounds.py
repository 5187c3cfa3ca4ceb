#!/usr/bin/env python3
"""Kills the agent or the hardware writer at a random moment of a churn, round after round.

The rules change between two lists all the time, and so do next hops; packets are decided all the
time: each must meet the decision of one of the lists, and go to the next hop of one of the files. In between everything comes to rest, and hardware and configuration
must be the same. Usage: kill_rounds.py DEMO BIN RULES [AGENT|--losses]

With --losses deaths cost more: the chip is another and empty, the log of a table or what next hops
have is damaged, or the next agent empties its tables first. Packets meet anything then, but each rest is as before.

With AGENT, one that counts its stores into shared memory, it is the agent that dies: in mid-change,
at one store after the other of some rows on end, now and then together with the hardware writer.
After each round everything that was announced is reported within a second, with no agent there.
"""
import importlib.util
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time

demo_path, programs, rules, *variant = sys.argv[1:]
rounds = 2000 if "BASTIL_SOAK" in os.environ else 200
spec = importlib.util.spec_from_file_location("demo", demo_path)
demo = importlib.util.module_from_spec(spec)
sys.dont_write_bytecode = True
spec.loader.exec_module(demo)

# Few, so that a round is short; one next hop comes and goes, one is a group now and then.
demo.PREFIXES = {"core": 60, "west": 12, "east": 8, "spare": 4}
demo.NEXT_HOPS["after"] |= {"west": "7:192.0.2.9 8:192.0.2.21", "east": "down",
                            "spare": "4:192.0.2.13"}
seed = int(os.environ.get("BASTIL_SEED") or random.SystemRandom().randrange(2**32))
chance = random.Random(seed)
# A writer that is slow now and then is killed with work before it.
PACES = ([], ["--batch", "1"], ["--batch", "16", "--delay", "200"], ["--rate", "20000"])


class Options:
    bin, files, json, verbose, seed = programs, [rules], True, False, seed


class Rounds(demo.Demo):
    packets = killed_agents = killed_writers = rests = 0
    shown = flips = 0

    def writer(self):
        writer = self.start("bastil-hwwriter", "--json", "--classify", 2000, "--seed",
                            chance.randrange(2**31), *self.reference(), *chance.choice(PACES))
        self.writers.append(writer)
        return writer

    def change(self):
        """Changes rules, next hops or both."""
        what = chance.randrange(3)
        if what != 0:
            self.shown = 1 - self.shown
            shutil.copy(self.path(("before", "after")[self.shown] + ".rules"), self.path("next"))
            os.replace(self.path("next"), self.path("live.rules"))
        if what != 1:
            self.flips += 1
            self.flip(("before", "after")[self.flips % 2])

    def rest(self, agent, writer):
        """Everything is acknowledged: the writer ends, and tells what it has seen."""
        agent.end(signal.SIGTERM)
        agent = self.agent("--watch")
        self.acknowledged(agent)
        return agent, self.ended_and_next(writer)

    def ended_and_next(self, writer):
        """Ends the writer, which sums up what it has seen, and starts the next one."""
        summary = self.end_writer(writer)
        for what in ("violations", "mismatches"):
            self.expect(summary.get(what, 0) == 0, f"{what}: {summary}")
        self.expect(summary["digest"] == summary["configuration"], f"they differ: {summary}")
        verified = subprocess.run([os.path.join(programs, "bastilctl"), "--dir", self.directory,
                                   "verify"], capture_output=True, text=True)
        self.expect(verified.returncode == 0, verified.stdout + verified.stderr)
        self.packets += summary.get("packets", 0)
        self.rests += 1
        return self.writer()

    def next_after_kill(self, writer):
        writer.end(signal.SIGKILL)
        self.killed_writers += 1
        self.expect(not any("meets decision" in line for _, line in writer.lines),
                    f"mismatches: {writer.lines}")
        return self.writer()

    def round(self, agent, writer):
        self.change()
        time.sleep(chance.random() * 0.12)
        if chance.random() < 0.5:
            agent.end(signal.SIGKILL)
            self.killed_agents += 1
            agent = self.agent("--watch")
        else:
            writer = self.next_after_kill(writer)
        return agent, writer

    def kill_all(self):
        agent, writer = self.agent("--watch"), self.writer()
        for number in range(1, rounds + 1):
            agent, writer = self.round(agent, writer)
            if number % 10 == 0:
                agent, writer = self.rest(agent, writer)
            if self.problems:
                break

    def run(self):
        self.prepare()
        try:
            self.kill_all()
        except demo.Failed as failed:
            self.problems.append(str(failed))
        finally:
            self.clean_up()
        for problem in self.problems:
            print(f"PROBLEM: {problem}")
        print(f"BASTIL_SEED={seed}: {self.killed_agents} agents and {self.killed_writers} writers "
              f"killed in {self.flips} flips, {self.packets} packets decided between the kills, "
              f"{self.rests} rests")
        enough = self.enough() and min(self.killed_agents, self.killed_writers, self.flips) > 0
        return 0 if enough and not self.problems else 1

    def enough(self):
        return self.packets > 0


class Losses(Rounds):
    losses = 0

    def writer(self):
        writer = self.start("bastil-hwwriter", "--json", *chance.choice(PACES))
        self.writers.append(writer)
        return writer

    def agent(self, *arguments):
        """The next agent finds what it has, what it cannot use, or nothing that it keeps."""
        fate = chance.randrange(4)
        if fate == 0 and os.path.isdir(self.directory):
            damaged = chance.choice(("entryLog%2F04080404", "TcamEntry%2Fconfig%2F0",
                                     "hardware%2Fresource"))
            for name in os.listdir(self.directory):
                if damaged in name:
                    with open(os.path.join(self.directory, name), "r+b") as log:
                        log.seek(40)
                        log.write(b"damage")
                    self.losses += 1
        return super().agent(*arguments, *(["--reset"] if fate == 1 else []))

    def next_after_kill(self, writer):
        writer.end(signal.SIGKILL)
        self.killed_writers += 1
        if chance.random() < 0.5:
            shutil.rmtree(os.path.join(self.directory, "asic"), ignore_errors=True)
            self.losses += 1
        return self.writer()

    def ended_and_next(self, writer):
        """With everything in the chip it is known what another chip has lost."""
        super().ended_and_next(writer).end(signal.SIGKILL)
        shutil.rmtree(os.path.join(self.directory, "asic"), ignore_errors=True)
        writer = self.writer()
        writer.wait_for(lambda line: demo.event_of(line, "lost"), "what the chip has lost")
        return writer

    def enough(self):
        return self.losses > 0


class EveryStore(Rounds):
    # Stores on end that are tried: those of about three rows.
    ON_END = 120

    def once(self, die_at=None):
        """Runs an agent to its end, or to a store; the number of its stores, if it did not die."""
        if die_at is not None:
            os.environ["BASTIL_DIE_AT_STORE"] = str(die_at)
        command = [*variant, "--dir", self.directory, "--once", *self.redirects(),
                   self.path("live.rules"), self.path("prefixes")]
        agent = demo.Process(command, self.echo)
        os.environ.pop("BASTIL_DIE_AT_STORE", None)
        self.processes.append(agent)
        try:
            return int(agent.wait_for(re.compile(r"stores: (\d+)").match, "its end")[0].group(1))
        except demo.Failed:
            self.expect(agent.popen.returncode == -signal.SIGKILL, f"it failed: {agent.lines}")
            self.killed_agents += 1
            return None

    def await_reports(self):
        end = time.monotonic() + 1
        while True:
            tables = self.status()
            if all(table["reported"] == table["announced"] for table in tables):
                return
            if time.monotonic() > end:
                self.problems.append(f"announced and not reported within a second: {tables}")
                return
            time.sleep(0.01)

    def kill_all(self):
        writer = self.writer()
        self.once()
        quiet = self.once()
        self.change()
        change = self.once() - quiet
        first = 0
        for number in range(rounds):
            if number % self.ON_END == 0:
                first = quiet + chance.randrange(max(1, change - self.ON_END))
            self.change()
            self.once(first + number % self.ON_END)
            if chance.random() < 0.3:
                writer = self.next_after_kill(writer)
            self.await_reports()
            self.once()
            self.await_reports()
            if number % 10 == 9:
                writer = self.ended_and_next(writer)
            if self.problems:
                break


acts = Rounds if not variant else Losses if variant == ["--losses"] else EveryStore
sys.exit(acts(Options).run())
