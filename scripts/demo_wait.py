#!/usr/bin/env python3
"""Waits until the agent says it is steady and the peer has stopped writing,
showing progress meanwhile (one line redrawn on a terminal, a line every two
seconds otherwise). Exit 0 when steady, 1 on a timeout or when the agent died.

   demo_wait.py --agent BIN --control PATH --pid PID --peer-log FILE [--timeout S]
"""

import argparse
import json
import os
import subprocess
import sys
import time


def status(agent, control):
    try:
        p = subprocess.run([agent, "ctl", "--control", control, "status", "--json"],
                           capture_output=True, text=True, timeout=10)
    except (OSError, subprocess.TimeoutExpired):
        return None
    if p.returncode != 0:
        return None
    try:
        return json.loads(p.stdout)
    except ValueError:
        return None


def alive(pid):
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    except PermissionError:
        return True
    # A zombie child counts as gone.
    try:
        with open("/proc/%d/stat" % pid) as f:
            return f.read().split(")")[-1].split()[0] != "Z"
    except OSError:
        return False


def line(s, elapsed):
    e, i = s.get("exported", {}), s.get("imported", {})
    return ("  %5.1f s  VNIs %-5s exported: hosts %-7s flood %-5s bridge ids %-5s  "
            "imported: hosts %-6s flood %-5s  events %s (%.0f/s)" % (
                elapsed, s.get("vnis", "?"), e.get("hosts", "?"), e.get("flood", "?"), e.get("brIds", "?"),
                i.get("hosts", "?"), i.get("flood", "?"), s.get("events", "?"),
                float(s.get("eventsPerSecond", 0) or 0)))


def size(path):
    try:
        return os.path.getsize(path)
    except OSError:
        return -1


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--agent", required=True)
    p.add_argument("--control", required=True)
    p.add_argument("--pid", type=int, required=True)
    p.add_argument("--peer-log", required=True)
    p.add_argument("--timeout", type=float, default=45)
    p.add_argument("--quiet-s", type=float, default=0.6, help="how long the peer must not write")
    a = p.parse_args()

    tty = sys.stdout.isatty()
    start = time.monotonic()
    last_print = -10.0
    last = None
    while True:
        elapsed = time.monotonic() - start
        if not alive(a.pid):
            sys.stdout.write("\n" if tty else "")
            print("  the agent exited before it was steady")
            return 1
        s = status(a.agent, a.control)
        if s is not None:
            last = s
            if tty:
                sys.stdout.write("\r" + line(s, elapsed) + "\033[K")
                sys.stdout.flush()
            elif elapsed - last_print >= 2:
                print(line(s, elapsed), flush=True)
                last_print = elapsed
            if s.get("steady"):
                # The peer answers what the agent wrote last; steady means
                # both have stopped, and the agent still says so after.
                before = size(a.peer_log)
                time.sleep(a.quiet_s)
                s2 = status(a.agent, a.control)
                if s2 is not None and s2.get("steady") and size(a.peer_log) == before:
                    if tty:
                        sys.stdout.write("\r" + line(s2, time.monotonic() - start) + "\033[K\n")
                    else:
                        print(line(s2, time.monotonic() - start))
                    print("  steady after %.1f s" % (time.monotonic() - start), flush=True)
                    return 0
                continue
        if elapsed > a.timeout:
            if tty:
                sys.stdout.write("\n")
            print("  not steady after %.0f s; last status: %s" % (a.timeout, json.dumps(last)))
            return 1
        time.sleep(0.25)


if __name__ == "__main__":
    sys.exit(main())
