"""Two network namespaces joined by a veth: our EVPN stack in one, FRR in the other.

Used by the end-to-end check (check.py), `make demo DEMO_PEER=bgp` and the
BGP benchmark. Python 3 standard library only; needs root, iproute2, FRR
(zebra, bgpd, vtysh) and gobgpd.

Everything the lab makes carries a tag with the creating process's pid (the
namespace names, the work folder), the links are created directly inside the
namespaces (never in the caller's), and every address lives only inside them:
BGP and VXLAN go over the veth and nowhere else. close() stops the processes
it started (by pid), deletes the namespaces and the work folder; it runs from
`with Lab(...)` even when a check raises.
"""

import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time

# The veth's subnet: the benchmarking range, so no real network can be meant.
# VTEPs the controller names for its hosts sit in the same subnet, which FRR
# sees as connected, so their next hops resolve without any route.
OURS_ADDR = "198.18.0.1"
FRR_ADDR = "198.18.0.2"
PREFIX_LEN = 24
OURS_ASN = 65001
FRR_ASN = 65002
FRR_DIR = "/usr/lib/frr"


class SetupError(Exception):
    """The lab could not be set up: a missing program, a daemon that died."""


class Skip(Exception):
    """The machine cannot run the lab at all (no network namespaces)."""


def run(cmd, check=True, timeout=30, input=None):
    p = subprocess.run(cmd, capture_output=True, text=True, timeout=timeout, input=input)
    if check and p.returncode != 0:
        raise SetupError("%s: exit %d: %s" % (" ".join(cmd), p.returncode, (p.stderr or p.stdout).strip()))
    return p


def wait_for(what, pred, timeout, period=0.1, procs=()):
    """Polls pred() until it returns a true value, at most `timeout` seconds
    and 10,000 rounds; raises SetupError (naming `what` and any watched
    process that exited) otherwise. Returns pred's value."""
    end = time.monotonic() + timeout
    for _ in range(10000):
        v = pred()
        if v:
            return v
        for p in procs:
            if p.proc.poll() is not None:
                raise SetupError("%s exited with %s while waiting for %s\n%s"
                                 % (p.name, p.proc.returncode, what, p.log_tail()))
        if time.monotonic() >= end:
            break
        time.sleep(period)
    raise SetupError("no %s within %.0f s" % (what, timeout))


def can_unshare():
    """None when network namespaces can be made here, else the reason."""
    try:
        p = subprocess.run(["unshare", "--net", "true"], capture_output=True, text=True, timeout=20)
    except (OSError, subprocess.TimeoutExpired) as e:
        return "unshare --net true: %s" % e
    if p.returncode != 0:
        return "unshare --net true failed (exit %d): %s" % (p.returncode, p.stderr.strip())
    return None


def need(path):
    found = shutil.which(path) if os.sep not in path else (path if os.access(path, os.X_OK) else None)
    if not found:
        raise SetupError("missing program: %s (scripts/setup installs frr, gobgpd and iproute2)" % path)
    return found


class Proc:
    """A process started inside a namespace, with its output in a log file."""

    def __init__(self, name, cmd, log, ns, env=None):
        self.name, self.log = name, log
        self.out = open(log, "ab")
        # `ip netns exec` enters the namespace and execs the program: the pid
        # is the program's own.
        self.proc = subprocess.Popen(["ip", "netns", "exec", ns] + cmd, stdout=self.out,
                                     stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, env=env)
        self.pid = self.proc.pid

    def alive(self):
        return self.proc.poll() is None

    def signal(self, sig):
        if self.alive():
            try:
                os.kill(self.pid, sig)
            except ProcessLookupError:
                pass

    def stop(self, timeout=10):
        """SIGTERM, then SIGKILL after `timeout`; returns the exit status."""
        self.signal(signal.SIGTERM)
        try:
            self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            self.signal(signal.SIGKILL)
            self.proc.wait(10)
        self.out.close()
        return self.proc.returncode

    def kill(self):
        self.signal(signal.SIGKILL)
        self.proc.wait(10)
        self.out.close()
        return self.proc.returncode

    def log_tail(self, lines=40):
        try:
            with open(self.log, errors="replace") as f:
                text = f.read().splitlines()[-lines:]
        except OSError:
            text = []
        return "---- %s (%s), last %d lines:\n%s" % (self.name, self.log, len(text), "\n".join(text))


class Lab:
    def __init__(self, keep=False, say=print, tag=None):
        self.say = say
        self.keep = keep
        tag = tag or "%x" % os.getpid()
        self.ns_ours = "obvpn-a-" + tag
        self.ns_frr = "obvpn-f-" + tag
        self.veth_ours = "obv-a" + tag[-8:]
        self.veth_frr = "obv-f" + tag[-8:]
        self.work = tempfile.mkdtemp(prefix="orbevpn-bgplab-")
        os.chmod(self.work, 0o755)
        self.frr_dir = os.path.join(self.work, "frr")
        self.procs = []
        self.namespaces = []
        self.vnis = []

    # ---- lifetime

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def close(self):
        for p in reversed(self.procs):
            if p.alive():
                p.stop(timeout=5)
        # Anything still inside our namespaces was started by us (a daemon's
        # own child): end it by its pid before the namespace goes.
        for ns in self.namespaces:
            pids = run(["ip", "netns", "pids", ns], check=False).stdout.split()
            for pid in pids:
                try:
                    os.kill(int(pid), signal.SIGKILL)
                except (ProcessLookupError, ValueError):
                    pass
        for ns in self.namespaces:
            run(["ip", "netns", "del", ns], check=False)
        self.namespaces = []
        if not self.keep:
            shutil.rmtree(self.work, ignore_errors=True)
        else:
            self.say("lab: kept %s" % self.work)

    def logs(self):
        """The tail of every daemon's log, for a failure report."""
        out = [p.log_tail() for p in self.procs]
        for name in ("zebra.log", "bgpd.log"):
            path = os.path.join(self.frr_dir, name)
            if os.path.exists(path) and not any(p.log == path for p in self.procs):
                with open(path, errors="replace") as f:
                    out.append("---- %s:\n%s" % (path, "\n".join(f.read().splitlines()[-40:])))
        return "\n".join(out)

    def start(self, name, cmd, ns, log=None, env=None):
        p = Proc(name, cmd, log or os.path.join(self.work, name + ".log"), ns, env)
        self.procs.append(p)
        self.say("lab: started %s in %s (pid %d)" % (name, ns, p.pid))
        return p

    def forget(self, proc):
        if proc in self.procs:
            self.procs.remove(proc)

    # ---- network

    def ip(self, ns, *args):
        return run(["ip", "-n", ns] + list(args))

    def nsexec(self, ns, *cmd, check=True, timeout=30):
        return run(["ip", "netns", "exec", ns] + list(cmd), check=check, timeout=timeout)

    def make_network(self):
        for prog in ("ip", "bridge"):
            need(prog)
        for ns in (self.ns_ours, self.ns_frr):
            run(["ip", "netns", "add", ns])
            self.namespaces.append(ns)
            self.ip(ns, "link", "set", "lo", "up")
            # No IPv6: nothing but what the lab sends (no router or neighbour
            # solicitations that would teach the bridge stray MACs).
            self.nsexec(ns, "sysctl", "-q", "-w", "net.ipv6.conf.all.disable_ipv6=1")
            self.nsexec(ns, "sysctl", "-q", "-w", "net.ipv6.conf.default.disable_ipv6=1")
        run(["ip", "link", "add", self.veth_ours, "netns", self.ns_ours, "type", "veth",
             "peer", "name", self.veth_frr, "netns", self.ns_frr])
        self.ip(self.ns_ours, "addr", "add", "%s/%d" % (OURS_ADDR, PREFIX_LEN), "dev", self.veth_ours)
        self.ip(self.ns_frr, "addr", "add", "%s/%d" % (FRR_ADDR, PREFIX_LEN), "dev", self.veth_frr)
        self.ip(self.ns_ours, "link", "set", self.veth_ours, "up")
        self.ip(self.ns_frr, "link", "set", self.veth_frr, "up")

    def add_frr_vni(self, vni):
        """A bridge br<VNI> in FRR's namespace holding the VXLAN device vx<VNI>
        (local = FRR's address) and an access port ac<VNI> (one end of a veth
        pair whose other end stays silent), where the test adds local MACs."""
        ns = self.ns_frr
        br, vx, ac = "br%d" % vni, "vx%d" % vni, "ac%d" % vni
        self.ip(ns, "link", "add", br, "type", "bridge")
        self.ip(ns, "link", "add", vx, "type", "vxlan", "id", str(vni), "local", FRR_ADDR,
                "dstport", "4789", "nolearning")
        self.ip(ns, "link", "add", ac, "type", "veth", "peer", "name", ac + "p")
        for dev in (vx, ac):
            self.ip(ns, "link", "set", dev, "master", br)
        self.ip(ns, "link", "set", ac, "type", "bridge_slave", "learning", "off")
        for dev in (br, vx, ac, ac + "p"):
            self.ip(ns, "link", "set", dev, "up")
        self.vnis.append(vni)

    def frr_fdb_add(self, vni, mac, kind="static", verb="add"):
        """A local MAC on the VNI's access port: `bridge fdb add` (or
        `replace`, to take over a MAC the bridge has on the VXLAN device)."""
        self.nsexec(self.ns_frr, "bridge", "fdb", verb, mac, "dev", "ac%d" % vni, "master", kind)

    def frr_fdb_del(self, vni, mac):
        self.nsexec(self.ns_frr, "bridge", "fdb", "del", mac, "dev", "ac%d" % vni, "master", check=False)

    def kernel_fdb(self, vni):
        """FRR's kernel FDB on the VXLAN device: {mac: vtep} of the remote
        entries (those with a destination), all-zero MAC included."""
        out = self.nsexec(self.ns_frr, "bridge", "-j", "fdb", "show", "dev", "vx%d" % vni).stdout
        fdb = {}
        for e in json.loads(out or "[]"):
            if "dst" in e:
                fdb.setdefault(e["mac"], set()).add(e["dst"])
        return fdb

    # ---- FRR

    def start_frr(self, neighbors=((OURS_ADDR, OURS_ASN),), asn=FRR_ASN, extra_bgp=""):
        """zebra and bgpd run in the foreground as children of this process,
        with their config, pid files, vty sockets and zserv socket in the lab's
        own folder (not the system service's), as the frr user, which must
        reach that folder."""
        for prog in ("zebra", "bgpd"):
            need(os.path.join(FRR_DIR, prog))
        need("vtysh")
        os.makedirs(self.frr_dir)
        try:
            import pwd
            frr = pwd.getpwnam("frr")
        except KeyError:
            raise SetupError("no user frr (the frr package makes it)")
        os.chown(self.frr_dir, frr.pw_uid, frr.pw_gid)
        os.chmod(self.frr_dir, 0o750)
        d = self.frr_dir
        with open(os.path.join(d, "zebra.conf"), "w") as f:
            f.write("hostname frr-lab\nlog file %s\nlog timestamp precision 6\n!\n" % os.path.join(d, "zebra.log"))
        # Microseconds in the log: the benchmark reads bgpd's update debug.
        lines = ["frr defaults datacenter", "hostname frr-lab", "log file %s" % os.path.join(d, "bgpd.log"),
                 "log timestamp precision 6", "!",
                 "router bgp %d" % asn,
                 " bgp router-id %s" % FRR_ADDR,
                 " no bgp default ipv4-unicast",
                 " bgp graceful-restart",
                 " bgp graceful-restart preserve-fw-state"]
        for addr, peer_asn in neighbors:
            lines += [" neighbor %s remote-as %d" % (addr, peer_asn),
                      " neighbor %s timers 3 9" % addr,
                      " neighbor %s timers connect 1" % addr]
        lines += [" address-family l2vpn evpn"]
        lines += ["  neighbor %s activate" % addr for addr, _ in neighbors]
        lines += ["  advertise-all-vni", " exit-address-family", "!"]
        if extra_bgp:
            lines += [extra_bgp]
        with open(os.path.join(d, "bgpd.conf"), "w") as f:
            f.write("\n".join(lines) + "\n")
        common = ["-i", None, "-z", os.path.join(d, "zserv.api"), "--vty_socket", d, "-P", "0",
                  "-u", "frr", "-g", "frr"]

        def args(name):
            a = list(common)
            a[1] = os.path.join(d, name + ".pid")
            return [os.path.join(FRR_DIR, name), "-f", os.path.join(d, name + ".conf")] + a

        # zebra's own log file is written by the frr user; stdout takes what
        # it prints before.
        self.zebra = self.start("zebra", args("zebra"), self.ns_frr, log=os.path.join(self.work, "zebra.out"))
        wait_for("zebra's zserv socket", lambda: os.path.exists(os.path.join(d, "zserv.api")), 20,
                 procs=[self.zebra])
        self.bgpd_cmd = args("bgpd")
        self.bgpd = self.start("bgpd", self.bgpd_cmd, self.ns_frr, log=os.path.join(self.work, "bgpd.out"))
        wait_for("bgpd's vty", lambda: self.vtysh_ok("show bgp summary"), 20, procs=[self.zebra, self.bgpd])

    def kill_bgpd(self):
        """FRR's bgpd killed (SIGKILL): no NOTIFICATION, its sessions just
        drop, as in a crash; zebra stays."""
        self.bgpd.kill()
        self.forget(self.bgpd)

    def start_bgpd(self):
        """bgpd started again after kill_bgpd(), with the same config."""
        self.bgpd = self.start("bgpd", self.bgpd_cmd, self.ns_frr, log=os.path.join(self.work, "bgpd.out"))
        wait_for("bgpd's vty", lambda: self.vtysh_ok("show bgp summary"), 20, procs=[self.zebra, self.bgpd])

    def vtysh_ok(self, cmd):
        p = self.nsexec(self.ns_frr, "vtysh", "--vty_socket", self.frr_dir, "-c", cmd, check=False)
        return p.returncode == 0

    def vtysh(self, cmd):
        return self.nsexec(self.ns_frr, "vtysh", "--vty_socket", self.frr_dir, "-c", cmd).stdout

    def vtysh_json(self, cmd):
        out = self.vtysh(cmd + " json")
        return json.loads(out) if out.strip() else {}

    def frr_macs(self, vni):
        """FRR's EVPN MAC table of the VNI: {mac: {type, remoteVtep, remoteSequence, ...}}."""
        return self.vtysh_json("show evpn mac vni %d" % vni).get("macs", {})

    def frr_remote_vteps(self, vni):
        """The VTEPs FRR floods the VNI's BUM traffic to: what zebra installed
        from type-3 routes, the all-zero MAC's destinations on the VXLAN
        device. (`show evpn vni N json` lists type-2 next hops there too.)"""
        return self.kernel_fdb(vni).get("00:00:00:00:00:00", set())

    def frr_session_up(self, addr=OURS_ADDR):
        d = self.vtysh_json("show bgp neighbors %s" % addr)
        return d.get(addr, {}).get("bgpState") == "Established"

    def frr_graceful_restart(self, addr=OURS_ADDR):
        """FRR's graceful-restart view of the session with `addr`: its
        `gracefulRestartInfo`, the capability entries about graceful restart,
        and "preserved": whether the peer's last OPEN set the forwarding-state
        bit for l2vpn evpn (FRR keeps the family's routes over the peer's
        restart only then; it lists the family as "not preserved" otherwise,
        and a family without a tuple not at all)."""
        d = self.vtysh_json("show bgp neighbors %s" % addr).get(addr, {})
        caps = {k: v for k, v in d.get("neighborCapabilities", {}).items()
                if "race" in k or "estart" in k or "ByPeer" in k}
        by_peer = json.dumps(caps).lower()
        preserved = "evpn" in by_peer and "not preserved" not in by_peer and "preserved" in by_peer
        return {"info": d.get("gracefulRestartInfo"), "capabilities": caps, "preserved": preserved}

    def frr_evpn_routes(self, peer=OURS_ADDR):
        """The EVPN routes FRR's bgpd holds from `peer`, best or not, as a set
        of (RD, prefix, next hops, extended communities): the RD, the route
        targets and the MAC-mobility sequence number are all in there."""
        d = self.vtysh_json("show bgp l2vpn evpn")
        routes = set()
        for rd, entries in d.items():
            if not isinstance(entries, dict) or "rd" not in entries:
                continue
            for prefix, e in entries.items():
                if not isinstance(e, dict) or "paths" not in e:
                    continue
                for path in e["paths"]:
                    for p in (path if isinstance(path, list) else [path]):
                        if p.get("peerId") != peer:
                            continue
                        nh = ",".join(n.get("ip", "") for n in p.get("nexthops", []))
                        ec = " ".join(sorted(p.get("extendedCommunity", {}).get("string", "").split()))
                        routes.add((rd, prefix, nh, ec))
        return routes


class EventFeed:
    """A connection to orbevpn-agent's `--input unix:PATH` socket, and the
    controller state it has sent, so that a restarted agent gets the same
    snapshot again."""

    def __init__(self):
        self.sock = None
        self.state = {}     # (kind, vni, key) -> event

    def connect(self, path, timeout=20):
        def attempt():
            s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            try:
                s.connect(path)
                return s
            except OSError:
                s.close()
                return None
        self.sock = wait_for("the agent's event socket %s" % path, attempt, timeout)

    def send(self, *events):
        data = "".join(json.dumps(e, separators=(",", ":")) + "\n" for e in events)
        self.sock.sendall(data.encode())
        for e in events:
            op = e["op"]
            if op == "mac":
                self.state[("mac", e["vni"], e["mac"])] = e
            elif op == "macDel":
                self.state.pop(("mac", e["vni"], e["mac"]), None)
            elif op == "flood":
                self.state[("flood", e["vni"], e["vtep"])] = e
            elif op == "floodDel":
                self.state.pop(("flood", e["vni"], e["vtep"]), None)
            elif op in ("vni", "controllerdb"):
                self.state[(op, e.get("vni"), None)] = e

    def snapshot(self):
        order = {"controllerdb": 0, "vni": 1, "mac": 2, "flood": 3}
        return [e for _, e in sorted(self.state.items(), key=lambda kv: (order[kv[0][0]], str(kv[0])))]

    def close(self):
        if self.sock:
            self.sock.close()
            self.sock = None


class OurStack:
    """orbevpn-agent and orbevpn-bgp (which runs gobgpd) in our namespace."""

    def __init__(self, lab, agent, bgp, gobgpd, extra_bgp_args=()):
        self.lab, self.agent_bin, self.bgp_bin, self.gobgpd = lab, need(agent), need(bgp), need(gobgpd)
        self.extra_bgp_args = list(extra_bgp_args)
        self.root = os.path.join(lab.work, "root")
        self.state = os.path.join(lab.work, "bgp-state")
        self.control = os.path.join(lab.work, "agent.ctl")
        self.input = os.path.join(lab.work, "agent.in")
        os.makedirs(self.root, exist_ok=True)
        os.makedirs(self.state, exist_ok=True)
        self.agent = self.bgp = None
        self.feed = EventFeed()
        self.runs = 0

    def start_bgp(self, extra_args=()):
        self.runs += 1
        cmd = [self.bgp_bin, "--asn", str(OURS_ASN), "--router-id", OURS_ADDR,
               "--neighbor", "%s,%d" % (FRR_ADDR, FRR_ASN), "--rt-scheme", "asn:vni",
               "--root", self.root, "--gobgpd", self.gobgpd, "--state-dir", self.state,
               "--log-level", "info"] + self.extra_bgp_args + list(extra_args)
        self.bgp = self.lab.start("orbevpn-bgp-%d" % self.runs, cmd, self.lab.ns_ours)
        return self.bgp

    def start_agent(self, events=None):
        """Starts the agent, connects the feed and sends the snapshot (the
        feed's state, or `events` the first time), then `synced`."""
        self.runs += 1
        for p in (self.control, self.input):
            if os.path.exists(p):
                os.unlink(p)
        cmd = [self.agent_bin, "--root", self.root, "--control", self.control,
               "--input", "unix:" + self.input, "--sync-timeout", "60"]
        self.agent = self.lab.start("orbevpn-agent-%d" % self.runs, cmd, self.lab.ns_ours)
        self.feed.close()
        wait_for("the agent's event socket", lambda: os.path.exists(self.input), 20, procs=[self.agent])
        self.feed.connect(self.input)
        self.feed.send(*(events if events is not None else self.feed.snapshot()))
        self.feed.send({"op": "synced"})
        wait_for("the agent's control socket", lambda: self.ctl_ok("status"), 20, procs=[self.agent])
        return self.agent

    def ctl_ok(self, *words):
        p = run([self.agent_bin, "ctl", "--control", self.control] + list(words), check=False)
        return p.returncode == 0

    def ctl_json(self, *words):
        p = run([self.agent_bin, "ctl", "--control", self.control] + list(words) + ["--json"])
        return json.loads(p.stdout)

    def imported(self, vni):
        """Our import mirror of the VNI: ({mac: (vtep, seqNo)}, {flood VTEPs})."""
        for v in self.ctl_json("dump", "import").get("vnis", []):
            if v["vni"] == vni:
                macs = {m["mac"]: (m["vtep"], m["seqNo"]) for m in v.get("macs", [])}
                flood = set()
                for fl in v.get("floodLists", []):
                    flood.update(fl.get("vteps", []))
                return macs, flood
        return {}, set()

    def status(self):
        return self.ctl_json("status")
