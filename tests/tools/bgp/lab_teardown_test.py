#!/usr/bin/env python3
"""The BGP lab leaves nothing behind: namespaces, links, daemons and its
folder go when the run is interrupted midway and when a daemon does not
start (whose log must then be printed).

   lab_teardown_test.py CASE   (CASE: a test method name)
Exit 77 (skipped) where network namespaces cannot be made, unless CI=true.
"""

import os
import re
import signal
import subprocess
import sys
import time
import unittest

CHECK = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "tools", "bgplab", "check.py")


def alive(pid):
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    try:
        with open("/proc/%d/stat" % pid) as f:
            return f.read().split(")")[-1].split()[0] != "Z"
    except OSError:
        return False


class LabTeardownTest(unittest.TestCase):
    def assertNothingLeft(self, out):
        m = re.search(r"lab: namespaces (\S+) .* and (\S+) .*, work (\S+)", out)
        self.assertIsNotNone(m, out)
        names = subprocess.run(["ip", "netns", "list"], capture_output=True, text=True).stdout.split()
        for ns in m.group(1, 2):
            self.assertNotIn(ns, names)
        self.assertFalse(os.path.exists(m.group(3)), m.group(3))
        pids = [int(p) for p in re.findall(r"lab: started \S+ in \S+ \(pid (\d+)\)", out)]
        self.assertTrue(pids, out)
        for _ in range(50):             # the kernel reaps them shortly after
            if not any(alive(p) for p in pids):
                break
            time.sleep(0.1)
        self.assertEqual([p for p in pids if alive(p)], [], out)

    def test_interrupted_after_the_first_routes(self):
        p = subprocess.Popen([sys.executable, CHECK, "--plain", "--deadline", "120"], stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT, text=True)
        out = []
        for line in p.stdout:
            out.append(line)
            if line.startswith("  ok "):
                p.send_signal(signal.SIGTERM)
                break
        out.append(p.stdout.read())
        rc = p.wait(60)
        text = "".join(out)
        self.assertIn("  ok ", text)
        self.assertEqual(rc, 130, text)
        self.assertNothingLeft(text)

    def test_daemon_that_does_not_start_fails_with_its_log(self):
        p = subprocess.run([sys.executable, CHECK, "--plain", "--gobgpd", "/bin/false", "--deadline", "120"],
                           capture_output=True, text=True, timeout=150)
        text = p.stdout + p.stderr
        self.assertEqual(p.returncode, 2, text)
        self.assertIn("SETUP FAILED: gobgpd exited with 1 while waiting for gobgpd's API socket", text)
        self.assertIn("---- gobgpd (", text)
        self.assertIn("---- zebra (", text)
        self.assertNothingLeft(text)


if __name__ == "__main__":
    if subprocess.run(["unshare", "--net", "true"], capture_output=True).returncode != 0:
        if os.environ.get("CI") == "true":
            print("FAIL: CI=true and unshare --net true fails here")
            sys.exit(1)
        print("SKIPPED: unshare --net true fails here")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1] + sys.argv[1:], verbosity=2)
