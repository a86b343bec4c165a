#!/usr/bin/env python3
"""BGP benchmark: our stack exporting into GoBGP and on to FRR, in the BGP lab
(tools/bgplab: two network namespaces, our stack in one, FRR in the other).

   bgp_bench.py --agent BIN --bgp BIN [--sizes 10K,100K] [--vnis 10] [--samples 300]

Per size N (hosts spread over --vnis VNIs, behind 50 VTEPs, one flood VTEP
per VNI), in a fresh lab:
  load    orbevpn-bgp is up and its session to FRR established; the agent
          starts and is sent the controller's snapshot of N hosts. From the
          first event sent: the time until the agent's export table holds N
          hosts, until gobgpd's RIB holds N local type-2 routes ("into
          GoBGP"), and until FRR's bgpd has received N + VNIs routes from us
          ("seen by FRR"); routes per second = N over those times.
  latency --samples single changes, one at a time: a host moved to another
          VTEP with a higher sequence number, from the moment its event is
          sent until FRR's kernel FDB points the MAC at the new VTEP (seen by
          `bridge monitor fdb` in FRR's namespace; zebra writes the FDB once
          bgpd has chosen the route, so this bounds the time to FRR's RIB
          from above); until FRR's bgpd received the route (its update debug,
          with microsecond timestamps); and until `show evpn mac` (zebra's
          EVPN table, polled through vtysh, a coarse figure) shows the new
          sequence number, on every 10th sample.
  withdraw the controller forgets all N hosts at once: the time from the
          first event sent until gobgpd's RIB holds none of their routes
          and until FRR's bgpd holds none from us but the VNIs' type-3s;
          withdrawals per second = N over those times.
Prints one line per size:
  bgp hosts=N vnis=V load_export_s=.. load_gobgp_s=.. load_frr_s=.. gobgp_routes_per_s=..
      frr_routes_per_s=.. latency_fdb_p50_ms=.. latency_fdb_p99_ms=.. ...
Needs root (network namespaces), FRR, gobgpd; exit 77 when namespaces cannot
be made here, 2 when the lab cannot be set up, 1 when a phase times out.
"""

import argparse
import glob
import json
import os
import signal
import stat
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "bgplab"))
import lab as L  # noqa: E402


def size_of(text):
    t = text.strip().upper()
    mult = 1
    if t.endswith("K"):
        mult, t = 1000, t[:-1]
    elif t.endswith("M"):
        mult, t = 1000000, t[:-1]
    return int(float(t) * mult)


def mac_of(vni_index, i):
    return "02:%02x:%02x:%02x:%02x:%02x" % (vni_index & 255, (i >> 24) & 255, (i >> 16) & 255,
                                            (i >> 8) & 255, i & 255)


def vtep_of(n):
    return "198.18.0.%d" % (10 + n % 50)


def percentile(values, p):
    s = sorted(values)
    if not s:
        return float("nan")
    k = min(len(s) - 1, max(0, int(round(p / 100.0 * len(s) + 0.5)) - 1))
    return s[k]


class FdbWatch:
    """`bridge monitor fdb` in FRR's namespace, read on a thread: the first
    time (monotonic) each (mac, dst) was written."""

    def __init__(self, lab):
        self.seen = {}
        self.cond = threading.Condition()
        self.proc = subprocess.Popen(["ip", "netns", "exec", lab.ns_frr, "stdbuf", "-oL", "bridge", "monitor",
                                      "fdb"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.thread = threading.Thread(target=self._read, daemon=True)
        self.thread.start()

    def _read(self):
        for line in self.proc.stdout:
            now = time.monotonic()
            w = line.split()
            if not w or w[0] == "Deleted" or "dst" not in w:
                continue
            key = (w[0], w[w.index("dst") + 1])
            with self.cond:
                self.seen.setdefault(key, now)
                self.cond.notify_all()

    def wait(self, mac, dst, timeout):
        end = time.monotonic() + timeout
        with self.cond:
            while (mac, dst) not in self.seen:
                left = end - time.monotonic()
                if left <= 0:
                    return None
                self.cond.wait(left)
            return self.seen[(mac, dst)]

    def stop(self):
        self.proc.terminate()
        try:
            self.proc.wait(5)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait(5)


def gobgp_api(state_dir):
    """gobgpd's API socket, somewhere under orbevpn-bgp's state folder."""
    for path in glob.glob(os.path.join(state_dir, "**"), recursive=True):
        try:
            if stat.S_ISSOCK(os.stat(path).st_mode):
                return path
        except OSError:
            pass
    return None


def gobgp_local_type2(lab, api):
    out = lab.nsexec(lab.ns_ours, "gobgp", "--target", "unix://" + api, "global", "rib", "summary", "-a",
                     "evpn", check=False).stdout
    # "Table l2vpn-evpn\nDestination: N, Path: N"; every destination of ours
    # is ours once FRR's own routes are subtracted by the caller.
    for w in out.replace(",", " ").split():
        if w.isdigit():
            return int(w)
    return -1


def frr_received(lab):
    d = lab.vtysh_json("show bgp l2vpn evpn summary")
    peers = d.get("peers", {}) if isinstance(d, dict) else {}
    return peers.get(L.OURS_ADDR, {}).get("pfxRcd", 0)


def poll_until(what, pred, timeout, period):
    end = time.monotonic() + timeout
    for _ in range(100000):
        if pred():
            return time.monotonic()
        if time.monotonic() >= end:
            raise TimeoutError("%s: not reached in %.0f s" % (what, timeout))
        time.sleep(period)
    raise TimeoutError(what)


def one_size(args, n, say, res):
    vnis = list(range(1001, 1001 + args.vnis))
    with L.Lab(keep=args.keep, say=say) as lab:
        lab.make_network()
        for v in vnis:
            lab.add_frr_vni(v)
        lab.start_frr()
        stack = L.OurStack(lab, args.agent, args.bgp, args.gobgpd)
        stack.start_bgp()
        L.wait_for("the BGP session", lambda: lab.frr_session_up(), 60, period=0.3,
                   procs=[stack.bgp, lab.zebra, lab.bgpd])
        api = None if args.no_gobgp else gobgp_api(stack.state)
        base = gobgp_local_type2(lab, api) if api else -1   # FRR's own routes (type-3s) in gobgpd's RIB

        events = [{"op": "controllerdb", "enabled": True}]
        hosts = []
        for k, v in enumerate(vnis):
            events.append({"op": "vni", "vni": v})
            events.append({"op": "flood", "vni": v, "vtep": L.OURS_ADDR})
        for i in range(n):
            k = i % len(vnis)
            mac = mac_of(k, i)
            hosts.append((vnis[k], mac))
            events.append({"op": "mac", "vni": vnis[k], "mac": mac, "vtep": vtep_of(i), "seqNo": 1})
        say("bgp: %d hosts in %d VNIs: loading" % (n, len(vnis)))
        t0 = time.monotonic()
        stack.start_agent(events)
        timeout = args.load_timeout
        # Each look costs the daemons a walk of their tables: look seldom
        # at large sizes, so the looking does not slow what it times.
        period = max(0.25, min(2.0, n / 50000.0))
        t_export = poll_until("%d hosts in the export table" % n,
                              lambda: stack.status().get("exported", {}).get("hosts", 0) >= n, timeout, 0.1)
        res["load_export_s"] = t_export - t0
        t_gobgp = None
        if api:
            t_gobgp = poll_until("%d routes in gobgpd's RIB" % n,
                                 lambda: gobgp_local_type2(lab, api) - base >= n + len(vnis), timeout, period)
        t_frr = poll_until("%d routes received by FRR" % n,
                           lambda: frr_received(lab) >= n + len(vnis), timeout, period)
        res.update({"load_frr_s": t_frr - t0,
               "frr_routes_per_s": n / (t_frr - t0)})
        if t_gobgp:
            res["load_gobgp_s"] = t_gobgp - t0
            res["gobgp_routes_per_s"] = n / (t_gobgp - t0)
        say("bgp: %d hosts: export %.2f s, gobgpd %s, FRR %.2f s" % (
            n, t_export - t0, "%.2f s" % (t_gobgp - t0) if t_gobgp else "n/a", t_frr - t0))

        # Let zebra finish writing the FDB before timing single changes.
        poll_until("FRR's MAC tables settled", settled(lab, vnis), timeout, 1.0)

        # bgpd logs every prefix it receives, with microseconds, from here on.
        lab.vtysh("debug bgp updates in")
        watch = FdbWatch(lab)
        fdb_ms, rib_ms, lost = [], [], 0
        sent_wall = {}
        try:
            for s in range(args.samples):
                vni, mac = hosts[(s * 7919) % len(hosts)]
                seq = 2 + s
                vtep = vtep_of(s * 13 + 1 + (s % 49))
                sent_wall[mac] = time.time()
                sent = time.monotonic()
                stack.feed.send({"op": "mac", "vni": vni, "mac": mac, "vtep": vtep, "seqNo": seq})
                if s % 10 == 0:
                    # FRR's EVPN table through vtysh (tens of ms per call, so
                    # only a coarse figure; and not on every sample, since
                    # the polling itself loads zebra).
                    def in_rib():
                        e = lab.vtysh_json("show evpn mac vni %d mac %s" % (vni, mac)).get(mac, {})
                        return e.get("remoteSequence") == seq and e.get("remoteVtep") == vtep
                    try:
                        rib_ms.append((poll_until("sample %d in FRR's RIB" % s, in_rib, 10, 0.005) - sent) * 1e3)
                    except TimeoutError:
                        lost += 1
                at = watch.wait(mac, vtep, 10)
                if at is None:
                    lost += 1
                    continue
                fdb_ms.append((at - sent) * 1e3)
        finally:
            watch.stop()
            lab.vtysh("no debug bgp updates in")
        bgpd_ms = bgpd_receipts(os.path.join(lab.frr_dir, "bgpd.log"), sent_wall)
        res.update({"samples": len(fdb_ms), "lost": lost,
                    "latency_bgpd_p50_ms": percentile(bgpd_ms, 50), "latency_bgpd_p99_ms": percentile(bgpd_ms, 99),
                    "bgpd_samples": len(bgpd_ms),
                    "latency_fdb_p50_ms": percentile(fdb_ms, 50), "latency_fdb_p99_ms": percentile(fdb_ms, 99),
                    "latency_rib_poll_p50_ms": percentile(rib_ms, 50),
                    "latency_rib_poll_p99_ms": percentile(rib_ms, 99), "rib_samples": len(rib_ms)})
        withdraw(args, lab, stack, api, hosts, say, res)
        for p in (stack.agent, stack.bgp):
            p.stop()
        return res


def withdraw(args, lab, stack, api, hosts, say, res):
    n = len(hosts)
    period = max(0.25, min(2.0, n / 50000.0))
    # Every host has its own destination in gobgpd's RIB and one prefix
    # received by FRR: both counts drop by N.
    rib_before = gobgp_local_type2(lab, api) if api else -1
    frr_before = frr_received(lab)
    t0 = time.monotonic()
    stack.feed.send(*({"op": "macDel", "vni": v, "mac": mac} for v, mac in hosts))
    t_gobgp = None
    if api:
        t_gobgp = poll_until("%d routes withdrawn from gobgpd's RIB" % n,
                             lambda: gobgp_local_type2(lab, api) <= rib_before - n, args.load_timeout, period)
        res["withdraw_gobgp_s"] = t_gobgp - t0
        res["gobgp_withdrawals_per_s"] = n / (t_gobgp - t0)
    t_frr = poll_until("%d routes withdrawn at FRR" % n, lambda: frr_received(lab) <= frr_before - n,
                       args.load_timeout, period)
    res["withdraw_frr_s"] = t_frr - t0
    res["frr_withdrawals_per_s"] = n / (t_frr - t0)
    say("bgp: %d hosts withdrawn: gobgpd %s, FRR %.2f s" % (
        n, "%.2f s" % (t_gobgp - t0) if t_gobgp else "n/a", t_frr - t0))


def bgpd_receipts(log, sent_wall):
    """From bgpd's update debug ("2026/11/24 23:19:37.696179 BGP: [..] 198.18.0.1(vm)
    rcvd RD .. [2]:[0]:[48]:[MAC] label .."): per sampled MAC, the first
    receipt after its event was sent, in ms after the send."""
    first = {}
    try:
        f = open(log, errors="replace")
    except OSError:
        return []
    with f:
        for line in f:
            if " rcvd RD " not in line or "[2]:" not in line:
                continue
            try:
                mac = line.split("[48]:[", 1)[1].split("]", 1)[0]
            except IndexError:
                continue
            if mac not in sent_wall:
                continue
            try:
                ts, frac = line[:26].split(".")
                at = time.mktime(time.strptime(ts, "%Y/%m/%d %H:%M:%S")) + float("0." + frac)
            except ValueError:
                continue
            if at >= sent_wall[mac] - 0.001 and mac not in first:
                first[mac] = (at - sent_wall[mac]) * 1e3
    return list(first.values())


def settled(lab, vnis):
    last = [None]

    def pred():
        now = sum(len(lab.frr_macs(v)) for v in vnis)
        ok = now == last[0]
        last[0] = now
        return ok
    return pred


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--agent", required=True)
    ap.add_argument("--bgp", required=True)
    ap.add_argument("--gobgpd", default="gobgpd")
    ap.add_argument("--sizes", default="10K,100K")
    ap.add_argument("--vnis", type=int, default=10)
    ap.add_argument("--samples", type=int, default=300)
    ap.add_argument("--load-timeout", type=float, default=600)
    ap.add_argument("--keep", action="store_true")
    ap.add_argument("--no-gobgp", action="store_true", help="do not read gobgpd's RIB during the load")
    args = ap.parse_args(argv)
    say = lambda s: print(s, file=sys.stderr, flush=True)  # noqa: E731

    reason = L.can_unshare()
    if reason is not None:
        print("bgp_bench=skipped reason=%r" % reason)
        return 77

    def term(signum, frame):
        raise KeyboardInterrupt("signal %d" % signum)
    signal.signal(signal.SIGTERM, term)

    rc = 0
    for text in args.sizes.split(","):
        n = size_of(text)
        r = {"hosts": n, "vnis": args.vnis}
        try:
            one_size(args, n, say, r)
        except L.SetupError as e:
            print("bgp hosts=%d error=%r" % (n, str(e).splitlines()[0]))
            say(str(e))
            return 2
        except TimeoutError as e:
            # What was measured before the timeout, then the reason.
            print("bgp " + " ".join("%s=%s" % (k, ("%.3g" % v) if isinstance(v, float) else v)
                                    for k, v in r.items()) + " error=%r" % str(e), flush=True)
            rc = 1
            continue
        print("bgp " + " ".join("%s=%s" % (k, ("%.3g" % v) if isinstance(v, float) else v) for k, v in r.items()),
              flush=True)
    return rc


if __name__ == "__main__":
    sys.exit(main())
