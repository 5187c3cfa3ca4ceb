#!/usr/bin/env python3
"""Kills the agent or the hardware writer at a random moment of a churn, round after round.

The rules change between two lists all the time, packets are decided all the time: each must meet the
decision of one of the lists. In between everything comes to rest, and hardware and configuration
must be the same. Usage: kill_rounds.py DEMO BIN RULES
"""
import importlib.util
import os
import random
import shutil
import signal
import sys
import time

demo_path, programs, rules = sys.argv[1:]
rounds = 2000 if "BASTIL_SOAK" in os.environ else 200
spec = importlib.util.spec_from_file_location("demo", demo_path)
demo = importlib.util.module_from_spec(spec)
sys.dont_write_bytecode = True
spec.loader.exec_module(demo)

seed = int(os.environ.get("BASTIL_SEED") or random.SystemRandom().randrange(2**32))
chance = random.Random(seed)
# A writer that is slow now and then is killed with work before it.
PACES = ([], ["--batch", "1"], ["--batch", "16", "--delay", "200"], ["--rate", "20000"])


class Options:
    bin, files, json, verbose, seed = programs, [rules], True, False, seed


class Rounds(demo.Demo):
    packets = killed_agents = killed_writers = rests = 0
    shown = 0

    def writer(self):
        writer = self.start("bastil-hwwriter", "--json", "--classify", 2000, "--seed",
                            chance.randrange(2**31), "--rules", self.path("before.rules"),
                            "--rules", self.path("after.rules"), *chance.choice(PACES))
        self.writers.append(writer)
        return writer

    def change(self):
        self.shown = 1 - self.shown
        shutil.copy(self.path(("before", "after")[self.shown] + ".rules"), self.path("next"))
        os.replace(self.path("next"), self.path("live.rules"))

    def rest(self, agent, writer):
        """Everything is acknowledged: the writer ends, and tells what it has seen."""
        agent.end(signal.SIGTERM)
        agent = self.agent("--watch")
        self.acknowledged(agent)
        summary = self.end_writer(writer)
        self.expect(summary["digest"] == summary["configuration"], f"they differ: {summary}")
        self.expect(summary["violations"] == 0, f"dependency violations: {summary}")
        self.expect(summary["mismatches"] == 0, f"mismatches: {summary}")
        self.packets += summary["packets"]
        self.rests += 1
        return agent, self.writer()

    def round(self, agent, writer):
        self.change()
        time.sleep(chance.random() * 0.12)
        if chance.random() < 0.5:
            agent.end(signal.SIGKILL)
            self.killed_agents += 1
            agent = self.agent("--watch")
        else:
            writer.end(signal.SIGKILL)
            self.killed_writers += 1
            self.expect(not any("meets decision" in line for _, line in writer.lines),
                        f"mismatches: {writer.lines}")
            writer = self.writer()
        return agent, writer

    def run(self):
        self.prepare()
        agent, writer = self.agent("--watch"), self.writer()
        try:
            for number in range(1, rounds + 1):
                agent, writer = self.round(agent, writer)
                if number % 10 == 0:
                    agent, writer = self.rest(agent, writer)
                if self.problems:
                    break
        except demo.Failed as failed:
            self.problems.append(str(failed))
        finally:
            self.clean_up()
        for problem in self.problems:
            print(f"PROBLEM: {problem}")
        print(f"BASTIL_SEED={seed}: {self.killed_agents} agents and {self.killed_writers} writers "
              f"killed, {self.packets} packets decided between the kills, {self.rests} rests")
        enough = self.packets > 0 and self.killed_agents > 0 and self.killed_writers > 0
        return 0 if enough and not self.problems else 1


sys.exit(Rounds(Options).run())
