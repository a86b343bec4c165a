#!/usr/bin/env python3
"""Our EVPN stack against FRR, each in its own network namespace.

   check.py --agent BIN --bgp BIN [--gobgpd PATH] [--keep] [--timeout S]
   check.py --plain [--gobgpd PATH]     (gobgpd alone, driven by the gobgp CLI)

Namespace A runs orbevpn-agent (fed controller events on its input socket)
and orbevpn-bgp (which runs gobgpd); namespace F runs FRR's zebra and bgpd
with advertise-all-vni over a VXLAN device in a bridge. The checks:

  1. a MAC the controller learns reaches FRR's EVPN MAC table and its kernel
     FDB with the controller's VTEP and sequence number (and our flood VTEP
     becomes FRR's remote VTEP);
  2. a MAC added on FRR's bridge reaches our import mirror (VniStatusV2);
  3. FRR's own type-3 route reaches our import flood list;
  4. a MAC move with a higher sequence number wins on both sides, and a MAC
     the controller forgets after it moved to FRR has our route withdrawn
     (gobgpd would refuse that below FRR's sequence number);
  5. killing (SIGKILL) and restarting orbevpn-agent, then orbevpn-bgp, leaves
     FRR with the same routes, and withdraws none meanwhile (orbevpn-bgp's
     gobgpd outlives it and is taken over by the next one);
  6. stopping orbevpn-bgp with SIGTERM (a restart) and starting it again does
     the same: it hands its gobgpd over instead of stopping it;
  7. SIGTERM with no successor: FRR keeps our routes for the handover window,
     then they are withdrawn, and neither gobgpd nor its keeper is left;
  8. (between 5 and 6) FRR's bgpd killed and restarted: every route is back
     both ways afterwards.

--plain checks the lab itself against a bare gobgpd: routes added with the
gobgp CLI reach FRR's tables and kernel FDB, FRR's routes reach gobgpd's RIB.

Exit status: 0 every check held; 1 a check failed; 2 the lab could not be set
up (the daemons' logs are printed); 77 network namespaces cannot be made here
(the reason is printed), or 1 instead when CI=true.
"""

import argparse
import json
import os
import signal
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import lab as L  # noqa: E402

VNI = 100
OTHER_VNI = 200          # FRR has it too; nothing of ours may land there
VTEP1, VTEP2, VTEP3 = "198.18.0.11", "198.18.0.12", "198.18.0.13"
M_LEARNT = "02:00:00:00:01:01"    # learnt by the controller, then moved by it
M_FRR = "02:00:00:00:02:02"       # added on FRR's bridge
M_MOVER = "02:00:00:00:03:03"     # learnt by the controller, moves to FRR, moves back
M_GONE = "02:00:00:00:04:04"      # learnt by the controller, moves to FRR, forgotten by the controller


class CheckFailed(Exception):
    pass


class Checks:
    def __init__(self, lab, timeout, say):
        self.lab, self.timeout, self.say = lab, timeout, say
        self.passed = []
        self.verbose = False

    def expect(self, what, pred, timeout=None, period=0.2):
        """Waits (bounded in time and rounds) until pred() holds; pred returns
        (ok, detail). Raises CheckFailed with the last detail."""
        end = time.monotonic() + (timeout or self.timeout)
        detail = None
        for _ in range(5000):
            try:
                ok, detail = pred()
            except (L.SetupError, ValueError, KeyError) as e:
                ok, detail = False, "error: %s" % e
            if ok:
                return detail
            if time.monotonic() >= end:
                break
            time.sleep(period)
        raise CheckFailed("%s: not seen within %.0f s; last seen: %s" % (what, timeout or self.timeout, detail))

    def done(self, name):
        self.passed.append(name)
        self.say("  ok  %s" % name)

    def show(self, title, text):
        """With --show (the demo): what a side holds, indented."""
        if self.verbose:
            self.say("      %s\n%s" % (title, "\n".join("        " + l for l in text.rstrip().splitlines())))

    # ---- FRR's view

    def frr_mac_is(self, mac, vtep, seq, vni=VNI):
        def pred():
            m = self.lab.frr_macs(vni).get(mac)
            fdb = self.lab.kernel_fdb(vni).get(mac)
            ok = (m is not None and m.get("type") == "remote" and m.get("remoteVtep") == vtep
                  and (seq is None or m.get("remoteSequence") == seq) and fdb == {vtep})
            return ok, "FRR: %s, kernel FDB: %s" % (json.dumps(m), sorted(fdb) if fdb else None)
        return pred

    def frr_remote_state(self):
        """What FRR holds from us: remote MACs and flood VTEPs of both VNIs,
        plus its kernel FDB on the VXLAN devices."""
        state = {}
        for vni in (VNI, OTHER_VNI):
            macs = {m: (e.get("remoteVtep"), e.get("remoteSequence"))
                    for m, e in self.lab.frr_macs(vni).items() if e.get("type") == "remote"}
            fdb = {m: tuple(sorted(v)) for m, v in self.lab.kernel_fdb(vni).items()}
            state[vni] = {"macs": macs, "fdb": fdb, "vteps": sorted(self.lab.frr_remote_vteps(vni))}
        state["bgp"] = {"routes": sorted(self.lab.frr_evpn_routes())}
        return state


def run_ours(args, lab, say):
    c = Checks(lab, args.timeout, say)
    c.verbose = args.show
    stack = L.OurStack(lab, args.agent, args.bgp, args.gobgpd)
    say("starting orbevpn-bgp and orbevpn-agent in %s" % lab.ns_ours)
    stack.start_bgp()
    stack.start_agent([
        {"op": "controllerdb", "enabled": True},
        {"op": "vni", "vni": VNI},
        {"op": "flood", "vni": VNI, "vtep": L.OURS_ADDR},
        {"op": "mac", "vni": VNI, "mac": M_LEARNT, "vtep": VTEP1, "seqNo": 3},
    ])
    L.wait_for("the BGP session between orbevpn-bgp and FRR", lambda: lab.frr_session_up(), args.timeout,
               period=0.3, procs=[stack.bgp, stack.agent, lab.zebra, lab.bgpd])
    L.wait_for("the integration flag", lambda: stack.status().get("integrationMode") is True, args.timeout,
               procs=[stack.bgp, stack.agent])

    # 1. controller -> FRR
    c.expect("%s in FRR (VTEP %s, seq 3)" % (M_LEARNT, VTEP1), c.frr_mac_is(M_LEARNT, VTEP1, 3))
    c.expect("our flood VTEP %s as FRR's remote VTEP" % L.OURS_ADDR,
             lambda: (L.OURS_ADDR in lab.frr_remote_vteps(VNI), sorted(lab.frr_remote_vteps(VNI))))
    c.expect("the all-zero MAC to %s in FRR's kernel FDB" % L.OURS_ADDR,
             lambda: (L.OURS_ADDR in lab.kernel_fdb(VNI).get("00:00:00:00:00:00", set()),
                      lab.kernel_fdb(VNI)))
    c.expect("nothing of VNI %d in FRR's VNI %d" % (VNI, OTHER_VNI),
             lambda: (M_LEARNT not in lab.frr_macs(OTHER_VNI), lab.frr_macs(OTHER_VNI)), timeout=2)
    c.done("a MAC the controller learns is in FRR's EVPN MAC table and kernel FDB (VTEP, seq)")
    c.show("FRR: show evpn mac vni %d" % VNI, lab.vtysh("show evpn mac vni %d" % VNI))
    c.show("FRR: bridge fdb show dev vx%d (remote entries)" % VNI,
           "\n".join("%s dst %s" % (m, ",".join(sorted(v))) for m, v in sorted(lab.kernel_fdb(VNI).items())))

    # 2. FRR -> our import
    lab.frr_fdb_add(VNI, M_FRR, "static")
    c.expect("%s in our import mirror behind %s, seq 0" % (M_FRR, L.FRR_ADDR),
             lambda: (stack.imported(VNI)[0].get(M_FRR) == (L.FRR_ADDR, 0), stack.imported(VNI)[0]))
    c.done("a MAC added on FRR's bridge is in our import VniStatusV2")

    # 3. FRR's type-3 -> our flood list
    c.expect("FRR's VTEP %s in our import flood list" % L.FRR_ADDR,
             lambda: (L.FRR_ADDR in stack.imported(VNI)[1], sorted(stack.imported(VNI)[1])))
    c.done("FRR's own type-3 is in our flood list")
    c.show("ours: orbevpn-agent ctl dump import --json (VNI %d)" % VNI,
           json.dumps([v for v in stack.ctl_json("dump", "import").get("vnis", []) if v["vni"] == VNI]))

    # 4. moves with a higher sequence number
    stack.feed.send({"op": "mac", "vni": VNI, "mac": M_LEARNT, "vtep": VTEP2, "seqNo": 4})
    c.expect("%s moved to %s seq 4 in FRR" % (M_LEARNT, VTEP2), c.frr_mac_is(M_LEARNT, VTEP2, 4))
    stack.feed.send({"op": "mac", "vni": VNI, "mac": M_MOVER, "vtep": VTEP1, "seqNo": 1})
    c.expect("%s in FRR (VTEP %s, seq 1)" % (M_MOVER, VTEP1), c.frr_mac_is(M_MOVER, VTEP1, 1))
    # FRR learns it locally: it takes the MAC over with a higher sequence
    # number, which must win in our import.
    lab.frr_fdb_add(VNI, M_MOVER, "dynamic", verb="replace")
    c.expect("%s local in FRR with a higher sequence number" % M_MOVER,
             lambda: (lab.frr_macs(VNI).get(M_MOVER, {}).get("type") == "local"
                      and lab.frr_macs(VNI)[M_MOVER].get("localSequence", 0) > 1, lab.frr_macs(VNI).get(M_MOVER)))
    frr_seq = lab.frr_macs(VNI)[M_MOVER]["localSequence"]
    c.expect("%s behind %s with seq %d in our import" % (M_MOVER, L.FRR_ADDR, frr_seq),
             lambda: (stack.imported(VNI)[0].get(M_MOVER) == (L.FRR_ADDR, frr_seq), stack.imported(VNI)[0]))
    # The controller moves it back, above FRR's number: FRR gives it up.
    back = frr_seq + 1
    stack.feed.send({"op": "mac", "vni": VNI, "mac": M_MOVER, "vtep": VTEP3, "seqNo": back})
    c.expect("%s back to %s seq %d in FRR" % (M_MOVER, VTEP3, back), c.frr_mac_is(M_MOVER, VTEP3, back))
    c.expect("%s gone from our import once FRR withdrew it" % M_MOVER,
             lambda: (M_MOVER not in stack.imported(VNI)[0], stack.imported(VNI)[0]))
    c.done("a MAC move with a higher sequence number wins on both sides")

    # Moved to FRR, then forgotten by the controller: our route goes,
    # although FRR's for the MAC has a higher sequence number, and without
    # a restart of gobgpd (which drops the session).
    stack.feed.send({"op": "mac", "vni": VNI, "mac": M_GONE, "vtep": VTEP1, "seqNo": 1})
    c.expect("%s in FRR (VTEP %s, seq 1)" % (M_GONE, VTEP1), c.frr_mac_is(M_GONE, VTEP1, 1))
    lab.frr_fdb_add(VNI, M_GONE, "dynamic", verb="replace")
    c.expect("%s behind %s in our import" % (M_GONE, L.FRR_ADDR),
             lambda: (stack.imported(VNI)[0].get(M_GONE, (None,))[0] == L.FRR_ADDR, stack.imported(VNI)[0]))
    stack.feed.send({"op": "macDel", "vni": VNI, "mac": M_GONE})

    def our_routes_for(mac):
        return sorted(r for r in lab.frr_evpn_routes() if mac in r[1])
    c.expect("our route for %s withdrawn at FRR" % M_GONE, lambda: (not our_routes_for(M_GONE), our_routes_for(M_GONE)))
    if "restarting it" in stack.bgp.log_tail():
        raise CheckFailed("orbevpn-bgp restarted gobgpd\n%s" % stack.bgp.log_tail())
    c.expect("%s still local in FRR" % M_GONE,
             lambda: (lab.frr_macs(VNI).get(M_GONE, {}).get("type") == "local", lab.frr_macs(VNI).get(M_GONE)))
    c.done("a MAC forgotten after it moved to FRR has our route withdrawn, below FRR's sequence number")
    c.show("FRR: show evpn mac vni %d" % VNI, lab.vtysh("show evpn mac vni %d" % VNI))

    # 5. restarts
    before = c.expect("a settled FRR view", settled(c), timeout=args.timeout)
    say("  FRR holds from us: %s" % json.dumps(before[VNI]["macs"], sort_keys=True))

    def unchanged():
        now = c.frr_remote_state()
        return now == before, diff(before, now)

    # The agent, killed and restarted over the same controller state: a
    # restart over unchanged input withdraws nothing, so FRR must never lose
    # a route meanwhile.
    watch = Watch(unchanged)
    try:
        stack.agent.kill()
        lab.forget(stack.agent)
        t0 = time.monotonic()
        stack.start_agent()
        L.wait_for("the restarted agent's integration flag",
                   lambda: stack.status().get("integrationMode") is True, args.timeout, procs=[stack.agent, stack.bgp])
        time.sleep(3)                  # and FRR watched for 3 s more
    finally:
        changes = watch.stop()
    if changes:
        raise CheckFailed("FRR's routes changed while the agent was killed and restarted (%d of %d looks): %s"
                          % (len(changes), watch.looks, changes[0][1]))
    c.expect("FRR's routes after the agent's restart", unchanged)
    c.done("SIGKILL and restart of orbevpn-agent: FRR keeps the same routes (%.1f s, %d looks, none differed)"
           % (time.monotonic() - t0, watch.looks))

    # orbevpn-bgp killed and restarted: its gobgpd outlives it, keeping the
    # session, and the new orbevpn-bgp takes it over and reconciles, so FRR
    # keeps every route throughout (a single look without them fails the
    # check). FRR 8 keeps no l2vpn evpn routes over a lost session, graceful
    # restart or not, so the session must not go down; the capability is
    # still checked, for peers that do keep them.
    gr = lab.frr_graceful_restart()
    say("  FRR's graceful-restart view of us: %s" % json.dumps(gr, sort_keys=True)[:600])
    if not gr.get("preserved"):
        raise CheckFailed("our graceful-restart capability does not offer l2vpn evpn with its forwarding state "
                          "preserved: %s" % json.dumps(gr, sort_keys=True)[:1500])
    watch = Watch(unchanged)
    stack.bgp.kill()
    lab.forget(stack.bgp)
    left = [pid for pid in L.run(["ip", "netns", "pids", lab.ns_ours]).stdout.split()
            if int(pid) != stack.agent.pid]
    if not any(proc_name(pid) == "gobgpd" for pid in left):
        watch.stop()
        raise CheckFailed("gobgpd did not outlive orbevpn-bgp's SIGKILL (left: %s)"
                          % [(pid, proc_name(pid)) for pid in left])
    t0 = time.monotonic()
    stack.start_bgp()
    L.wait_for("the BGP session after orbevpn-bgp's restart", lambda: lab.frr_session_up(), args.timeout,
               period=0.3, procs=[stack.bgp])
    try:
        c.expect("FRR's routes after orbevpn-bgp's restart", unchanged, timeout=args.timeout)
        time.sleep(3)                  # FRR watched for 3 s more, past the reconcile
    finally:
        changes = watch.stop()
    took = time.monotonic() - t0
    time.sleep(2)
    c.expect("FRR's routes 2 s later", unchanged, timeout=1)
    if changes:
        raise CheckFailed("FRR's routes changed while orbevpn-bgp was killed and restarted (%d of %d looks): %s"
                          % (len(changes), watch.looks, changes[0][1][:1500]))
    if "adopting the running gobgpd" not in stack.bgp.log_tail():
        raise CheckFailed("the restarted orbevpn-bgp did not take over the running gobgpd\n%s"
                          % stack.bgp.log_tail())
    c.done("SIGKILL and restart of orbevpn-bgp: it takes over its gobgpd, FRR keeps the same routes throughout "
           "(%.1f s, %d looks, none differed)" % (took, watch.looks))
    c.expect("our import after the restarts",
             lambda: (stack.imported(VNI)[0].get(M_FRR, (None,))[0] == L.FRR_ADDR
                      and L.FRR_ADDR in stack.imported(VNI)[1], stack.imported(VNI)))
    c.done("our import holds FRR's MAC and VTEP again after the restarts")

    # FRR's bgpd killed (its session just drops) and started again: every
    # route is back both ways. gobgpd 3.10, as the graceful-restart helper
    # of a peer that held type-2 routes, dies on a nil pointer in its
    # MAC-mobility check when the session drops; orbevpn-bgp restarts it,
    # and its import hold keeps what FRR had sent meanwhile.
    restarts = stack.bgp.log_tail(400).count("restarting it and reconciling")
    t0 = time.monotonic()
    lab.kill_bgpd()
    time.sleep(2)
    lab.start_bgpd()
    L.wait_for("the BGP session after FRR's restart", lambda: lab.frr_session_up(), args.timeout,
               period=0.3, procs=[stack.bgp, lab.bgpd])
    c.expect("FRR's routes from us after its restart", unchanged, timeout=args.timeout)
    c.expect("FRR's MAC and VTEP in our import after its restart",
             lambda: (stack.imported(VNI)[0].get(M_FRR, (None,))[0] == L.FRR_ADDR
                      and L.FRR_ADDR in stack.imported(VNI)[1], stack.imported(VNI)))
    helper_died = stack.bgp.log_tail(400).count("restarting it and reconciling") > restarts
    say("  gobgpd %s" % ("died when FRR's session dropped, and was restarted" if helper_died
                         else "survived the drop of FRR's session"))
    c.done("FRR's bgpd killed and restarted: FRR has our routes and we have FRR's again, %.1f s after the kill"
           % (time.monotonic() - t0))

    # orbevpn-bgp stopped with SIGTERM, as `systemctl restart` does, and
    # started again: it hands its gobgpd over instead of stopping it, so FRR
    # again keeps every route throughout. The new run gets a short handover
    # window for the last check.
    window = 5
    watch = Watch(unchanged)
    rc = stack.bgp.stop()
    lab.forget(stack.bgp)
    if rc != 0:
        watch.stop()
        raise CheckFailed("orbevpn-bgp exited %s on SIGTERM\n%s" % (rc, stack.bgp.log_tail()))
    if not ns_procs(lab, "gobgpd"):
        watch.stop()
        raise CheckFailed("gobgpd did not outlive orbevpn-bgp's SIGTERM\n%s" % stack.bgp.log_tail())
    t0 = time.monotonic()
    stack.start_bgp(["--handover-seconds", str(window)])
    L.wait_for("the BGP session after orbevpn-bgp's restart", lambda: lab.frr_session_up(), args.timeout,
               period=0.3, procs=[stack.bgp])
    try:
        c.expect("FRR's routes after orbevpn-bgp's SIGTERM and restart", unchanged, timeout=args.timeout)
        time.sleep(3)
    finally:
        changes = watch.stop()
    took = time.monotonic() - t0
    if changes:
        raise CheckFailed("FRR's routes changed while orbevpn-bgp was stopped (SIGTERM) and restarted "
                          "(%d of %d looks): %s" % (len(changes), watch.looks, changes[0][1][:1500]))
    if "adopting the running gobgpd" not in stack.bgp.log_tail():
        raise CheckFailed("the restarted orbevpn-bgp did not take over the running gobgpd\n%s"
                          % stack.bgp.log_tail())
    c.done("SIGTERM and restart of orbevpn-bgp: it hands its gobgpd over, FRR keeps the same routes throughout "
           "(%.1f s, %d looks, none differed)" % (took, watch.looks))

    # SIGTERM and no successor: the keeper stops gobgpd once the window has
    # passed, and FRR withdraws our routes then, not before.
    rc = stack.bgp.stop()
    lab.forget(stack.bgp)
    t0 = time.monotonic()
    if rc != 0:
        raise CheckFailed("orbevpn-bgp exited %s on SIGTERM\n%s" % (rc, stack.bgp.log_tail()))

    def ours_gone():
        st = c.frr_remote_state()
        return (not st["bgp"]["routes"] and not st[VNI]["macs"] and L.OURS_ADDR not in st[VNI]["vteps"],
                diff(before, st))
    watch = Watch(unchanged)
    try:
        c.expect("FRR's withdrawal of our routes after the handover window", ours_gone,
                 timeout=window + args.timeout)
    finally:
        changes = watch.stop()
    gone_after = time.monotonic() - t0
    if changes and changes[0][0] - t0 < window - 1:
        raise CheckFailed("FRR lost our routes %.1f s after SIGTERM, within the %d s handover window: %s"
                          % (changes[0][0] - t0, window, changes[0][1][:1500]))
    L.wait_for("gobgpd and the keeper to end",
               lambda: not (ns_procs(lab, "gobgpd") or ns_procs(lab, "orbevpn-keeper")), args.timeout)
    if "no successor took gobgpd" not in stack.bgp.log_tail():
        raise CheckFailed("the keeper did not report stopping gobgpd\n%s" % stack.bgp.log_tail())
    c.done("SIGTERM of orbevpn-bgp and no successor: FRR keeps our routes for the %d s window, has them "
           "withdrawn %.1f s after, and no gobgpd or keeper is left" % (window, gone_after))

    rc = stack.agent.stop()
    if rc != 0:
        raise CheckFailed("%s exited %s on SIGTERM\n%s" % (stack.agent.name, rc, stack.agent.log_tail()))
    return c.passed


class Watch:
    """Calls look() (which returns (ok, detail)) every 0.2 s on a thread and
    keeps (time.monotonic(), detail) of the looks that were not ok."""

    def __init__(self, look):
        self.look, self.changes, self.looks = look, [], 0
        self.stopping = threading.Event()
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        while not self.stopping.is_set() and self.looks < 3000:
            try:
                ok, detail = self.look()
            except (L.SetupError, ValueError, KeyError) as e:
                ok, detail = True, None       # a failed read is no evidence either way
            self.looks += 1
            if not ok:
                self.changes.append((time.monotonic(), detail))
            self.stopping.wait(0.2)

    def stop(self):
        self.stopping.set()
        self.thread.join(30)
        return self.changes


def ns_procs(lab, name):
    """The pids of the processes named `name` in our namespace."""
    return [pid for pid in L.run(["ip", "netns", "pids", lab.ns_ours]).stdout.split() if proc_name(pid) == name]


def proc_name(pid):
    try:
        with open("/proc/%s/comm" % pid) as f:
            return f.read().strip()
    except OSError:
        return "?"


def settled(c):
    """The FRR view, once two reads a second apart agree."""
    last = [None]

    def pred():
        now = c.frr_remote_state()
        ok = now == last[0]
        last[0] = now
        if not ok:
            time.sleep(1)
        return ok, now
    return pred


def diff(a, b):
    out = []
    for vni in a:
        for k in a[vni]:
            if a[vni][k] != b.get(vni, {}).get(k):
                out.append("%s %s: before %s, now %s" % ("VNI %s" % vni if vni != "bgp" else "BGP", k, a[vni][k],
                                                         b.get(vni, {}).get(k)))
    return "; ".join(out) or "no difference"


# ---- the lab alone, against a bare gobgpd

def run_plain(args, lab, say):
    c = Checks(lab, args.timeout, say)
    gobgpd = L.need(args.gobgpd)
    L.need("gobgp")
    d = os.path.join(lab.work, "gobgp")
    os.makedirs(d, mode=0o700)
    api = os.path.join(d, "api.sock")
    with open(os.path.join(d, "gobgpd.toml"), "w") as f:
        f.write('[global.config]\n  as = %d\n  router-id = "%s"\n  local-address-list = ["%s"]\n'
                '[[neighbors]]\n  [neighbors.config]\n    neighbor-address = "%s"\n    peer-as = %d\n'
                '  [[neighbors.afi-safis]]\n    [neighbors.afi-safis.config]\n'
                '      afi-safi-name = "l2vpn-evpn"\n'
                % (L.OURS_ASN, L.OURS_ADDR, L.OURS_ADDR, L.FRR_ADDR, L.FRR_ASN))

    def start():
        if os.path.exists(api):
            os.unlink(api)
        p = lab.start("gobgpd", [gobgpd, "-f", os.path.join(d, "gobgpd.toml"), "--api-hosts",
                                 "unix://" + api], lab.ns_ours)
        L.wait_for("gobgpd's API socket", lambda: os.path.exists(api), 20, procs=[p])
        return p

    def gobgp(*a):
        return lab.nsexec(lab.ns_ours, "gobgp", "--target", "unix://" + api, *a).stdout

    def add_routes():
        rd = "%s:%d" % (L.OURS_ADDR, VNI)
        rt = "%d:%d" % (L.OURS_ASN, VNI)
        gobgp("global", "rib", "-a", "evpn", "add", "macadv", M_LEARNT, "0.0.0.0", "etag", "0", "label",
              str(VNI), "rd", rd, "rt", rt, "encap", "vxlan", "nexthop", VTEP1)
        gobgp("global", "rib", "-a", "evpn", "add", "multicast", L.OURS_ADDR, "etag", "0", "rd", rd, "rt", rt,
              "encap", "vxlan", "pmsi", "ingress-repl", str(VNI), L.OURS_ADDR, "nexthop", L.OURS_ADDR)

    def rib():
        return json.loads(gobgp("global", "rib", "-a", "evpn", "-j") or "{}")

    def in_rib(kind, what):
        r = rib()
        return any(("[type:%s]" % kind) in k and what in k and any(p.get("neighbor-ip") == L.FRR_ADDR
                                                                    for p in paths)
                   for k, paths in r.items()), sorted(r)

    p = start()
    say("gobgpd in %s, API on %s" % (lab.ns_ours, api))
    L.wait_for("the BGP session between gobgpd and FRR", lambda: lab.frr_session_up(), args.timeout,
               period=0.3, procs=[p, lab.zebra, lab.bgpd])
    add_routes()
    c.expect("%s in FRR behind %s" % (M_LEARNT, VTEP1), c.frr_mac_is(M_LEARNT, VTEP1, 0))
    c.expect("%s as FRR's remote VTEP" % L.OURS_ADDR,
             lambda: (L.OURS_ADDR in lab.frr_remote_vteps(VNI), sorted(lab.frr_remote_vteps(VNI))))
    c.done("a type-2 and a type-3 added with the gobgp CLI are in FRR's tables and kernel FDB")
    lab.frr_fdb_add(VNI, M_FRR, "static")
    c.expect("%s in gobgpd's RIB" % M_FRR, lambda: in_rib("macadv", "[mac:%s]" % M_FRR))
    c.expect("FRR's type-3 in gobgpd's RIB", lambda: in_rib("multicast", "[ip:%s]" % L.FRR_ADDR))
    c.done("a MAC on FRR's bridge and FRR's type-3 are in gobgpd's RIB")
    before = c.expect("a settled FRR view", settled(c))
    p.kill()
    lab.forget(p)
    p = start()
    L.wait_for("the BGP session after gobgpd's restart", lambda: lab.frr_session_up(), args.timeout,
               period=0.3, procs=[p])
    add_routes()      # routes added through the API do not survive the daemon
    c.expect("FRR's routes after gobgpd's restart",
             lambda: (c.frr_remote_state() == before, diff(before, c.frr_remote_state())))
    c.done("SIGKILL and restart of gobgpd, routes added again: FRR holds the same routes")
    p.stop()
    return c.passed


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--agent", help="orbevpn-agent")
    ap.add_argument("--bgp", help="orbevpn-bgp")
    ap.add_argument("--gobgpd", default="gobgpd")
    ap.add_argument("--plain", action="store_true", help="a bare gobgpd driven by the gobgp CLI")
    ap.add_argument("--timeout", type=float, default=30, help="longest wait of one step (s)")
    ap.add_argument("--deadline", type=int, default=240,
                    help="the whole run's limit (s): past it the lab is torn down and the run fails")
    ap.add_argument("--show", action="store_true", help="print what each side holds along the way")
    ap.add_argument("--keep", action="store_true", help="keep the lab's folder (logs, tables)")
    args = ap.parse_args(argv)
    say = lambda s: print(s, flush=True)  # noqa: E731
    if not args.plain and not (args.agent and args.bgp):
        ap.error("--agent and --bgp are needed (or --plain)")

    # The only reason to skip: no network namespaces here. Anything else
    # that keeps the lab from starting is a failure.
    reason = L.can_unshare()
    if reason is not None:
        if os.environ.get("CI") == "true":
            say("FAIL: CI=true and the lab cannot run here: %s" % reason)
            return 1
        say("SKIPPED: %s" % reason)
        return 77

    # A SIGTERM (ctest's timeout, ^C from make) still runs the clean-up.
    def term(signum, frame):
        raise KeyboardInterrupt("signal %d" % signum)
    signal.signal(signal.SIGTERM, term)

    def overdue(signum, frame):
        raise CheckFailed("the run took longer than --deadline %d s" % args.deadline)
    signal.signal(signal.SIGALRM, overdue)
    signal.alarm(args.deadline)

    lab = None
    try:
        lab = L.Lab(keep=args.keep, say=say)
        say("lab: namespaces %s (ours, %s) and %s (FRR, %s), work %s"
            % (lab.ns_ours, L.OURS_ADDR, lab.ns_frr, L.FRR_ADDR, lab.work))
        lab.make_network()
        lab.add_frr_vni(VNI)
        lab.add_frr_vni(OTHER_VNI)
        lab.start_frr()
        passed = run_plain(args, lab, say) if args.plain else run_ours(args, lab, say)
        say("PASS: %d checks held" % len(passed))
        return 0
    except L.SetupError as e:
        say("SETUP FAILED: %s" % e)
        if lab:
            say(lab.logs())
        return 2
    except CheckFailed as e:
        say("FAIL: %s" % e)
        if lab:
            dump_state(lab, say)
            say(lab.logs())
        return 1
    except KeyboardInterrupt as e:
        say("interrupted (%s); cleaning up" % e)
        return 130
    finally:
        signal.alarm(0)
        if lab:
            lab.close()


def dump_state(lab, say):
    for cmd in ("show bgp l2vpn evpn", "show evpn mac vni all", "show evpn vni detail",
                "show evpn vni %d json" % VNI):
        try:
            say("---- FRR: %s\n%s" % (cmd, lab.vtysh(cmd)))
        except (L.SetupError, OSError) as e:
            say("---- FRR: %s: %s" % (cmd, e))
    for vni in lab.vnis:
        try:
            say("---- FRR kernel FDB on vx%d: %s" % (vni, lab.kernel_fdb(vni)))
        except (L.SetupError, OSError, ValueError) as e:
            say("---- FRR kernel FDB on vx%d: %s" % (vni, e))


if __name__ == "__main__":
    sys.exit(main())
