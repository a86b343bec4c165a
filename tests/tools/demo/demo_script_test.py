#!/usr/bin/env python3
"""The flow of scripts/demo with stand-ins for the agent and the lumen tool
that hold an empty system (fakes/), and the real orbevpn-peer (ORBEVPN_PEER):
the order of starts, stops and restarts, that a failed check or a dead agent
fails the demo, and that its temporary Lumen root goes away. What the agent
exports is the business of the demo run with the real agent."""

import os
import re
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
DEMO = os.path.join(HERE, "..", "..", "..", "scripts", "demo")
FAKES = os.path.join(HERE, "fakes")


class DemoScriptTest(unittest.TestCase):
    def run_demo(self, mode):
        fd, trace = tempfile.mkstemp(prefix="demo-trace-")
        os.close(fd)
        self.addCleanup(os.remove, trace)
        env = dict(os.environ, ORBEVPN_AGENT=os.path.join(FAKES, "agent"),
                   LUMEN=os.path.join(FAKES, "lumen"), DEMO_SIZE="4:8", DEMO_CHURN="1", DEMO_SEED="5",
                   DEMO_TIMEOUT="20", FAKE_AGENT_MODE=mode, FAKE_AGENT_TRACE=trace)
        env.pop("DEMO_WORK", None)
        env.pop("DEMO_SKIP_VNI", None)
        p = subprocess.run([DEMO], capture_output=True, text=True, env=env, timeout=100)
        with open(trace) as f:
            calls = f.read().splitlines()
        m = re.search(r"^Lumen root: (\S+)$", p.stdout, re.M)
        self.assertIsNotNone(m, p.stdout + p.stderr)
        self.assertFalse(os.path.exists(os.path.dirname(m.group(1))), "temporary root left behind")
        return p, calls

    def test_runs_stops_restarts_without_a_vni_and_passes_a_consistent_system(self):
        p, calls = self.run_demo("ok")
        self.assertEqual(p.returncode, 0, p.stdout + p.stderr)
        self.assertEqual(p.stdout.count("all checks hold"), 2, p.stdout)
        self.assertIn("demo: every check held", p.stdout)
        self.assertEqual(len(calls), 4, calls)
        first, stop1, second, stop2 = calls
        self.assertRegex(first, r"^start .*--demo 4:8 --demo-churn 1 --demo-seed 5")
        self.assertIn("--record-events", first)
        # No VNI was listed, so the demo falls back to the middle one.
        self.assertRegex(second, r"^start .*--demo 4:8 --demo-seed 5 --demo-skip-vni 2$")
        self.assertNotIn("--demo-churn", second)
        self.assertEqual([stop1, stop2], ["SIGTERM", "SIGTERM"])

    def test_a_failed_check_fails_the_demo(self):
        p, _ = self.run_demo("stray")
        self.assertEqual(p.returncode, 1, p.stdout + p.stderr)
        self.assertIn("controller model = recorded events", p.stdout)
        self.assertIn("extra    vni 7", p.stdout)
        self.assertIn("demo: FAILED", p.stdout)

    def test_an_agent_that_dies_fails_the_demo(self):
        p, calls = self.run_demo("die")
        self.assertEqual(p.returncode, 1, p.stdout + p.stderr)
        self.assertIn("the agent exited before it was steady", p.stdout)
        self.assertIn("demo: FAILED", p.stdout)


if __name__ == "__main__":
    if not os.environ.get("ORBEVPN_PEER"):
        sys.exit("ORBEVPN_PEER must name the orbevpn-peer binary")
    sys.dont_write_bytecode = True
    unittest.main()
