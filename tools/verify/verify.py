#!/usr/bin/env python3
"""Checks a running (or recorded) orbevpn system against what it was told.

The expected state is derived here, independently of the state machines,
from two records:
  - the controller events the agent applied (orbevpn-agent --record-events),
    replayed into a model of the controller's per-VNI state;
  - the EVPN side's log (orbevpn-peer --log), replayed into the EVPN side's
    host and flood tables as they stood at the end.
The actual state is read from the shared tables (`lumen dump PATH --json`)
and from the agent (`orbevpn-agent ctl dump controller|import --json`), or
from files saved earlier (--tables-dir, --controller-json, --import-json),
which is how the tests feed it.

Checks:
  controller model = recorded events
  export hosts / export flood = controller state minus what EVPN provided
      (a host is provided when the EVPN side holds the same MAC in the same
       VNI with the same VTEP, sequence number and preference; a flood VTEP
       when the EVPN side holds the same VTEP in the same VNI)
  bridge ids = the VNIs with state (a MAC, a multipath entry or a flood list)
  integration flag = controller database enabled and EVPN enabled
  EVPN tables = the EVPN side's log
  import mirror = the EVPN side's tables
Exit 0 when every check holds, 1 when one fails, 2 when an input is unusable.
Python 3 standard library only.
"""

import argparse
import json
import os
import subprocess
import sys

ZERO_MAC = "00:00:00:00:00:00"
DEFAULT_PREFERENCE = 16

TABLES = ["export/host", "export/flood", "brIdList", "config",
          "evpn/host", "evpn/flood", "evpn/capability"]


class InputError(Exception):
    pass


def table_file(name):
    """File name under --tables-dir of the `lumen dump --json` of a table."""
    return name.replace("/", "-") + ".json"


def bridge_id(vni):
    return 0x2000000 | (vni & 0xFFFFFF)


def mac_of(text):
    return str(text).lower()


# ---- replays -------------------------------------------------------------

class Controller:
    """The controller's state after a sequence of events."""

    def __init__(self):
        self.controllerdb = False
        # vni -> {"macs": {mac: (vtep, seqNo, pref)},
        #         "flood": {listMac: {vtep: bool}},
        #         "multipath": {mac: tuple(vteps)}}
        self.vnis = {}

    def _vni(self, vni):
        return self.vnis.setdefault(vni, {"macs": {}, "flood": {}, "multipath": {}})

    def apply(self, ev, where):
        op = ev.get("op")
        try:
            if op == "vni":
                self._vni(int(ev["vni"]))
            elif op == "vniDel":
                self.vnis.pop(int(ev["vni"]), None)
            elif op == "mac":
                self._vni(int(ev["vni"]))["macs"][mac_of(ev["mac"])] = (
                    ev["vtep"], int(ev.get("seqNo", 0)), int(ev.get("preference", DEFAULT_PREFERENCE)))
            elif op == "macDel":
                if int(ev["vni"]) in self.vnis:
                    self.vnis[int(ev["vni"])]["macs"].pop(mac_of(ev["mac"]), None)
            elif op == "flood":
                lists = self._vni(int(ev["vni"]))["flood"]
                lists.setdefault(mac_of(ev.get("mac", ZERO_MAC)), {})[ev["vtep"]] = \
                    bool(ev.get("value", True))
            elif op == "floodDel":
                vni = self.vnis.get(int(ev["vni"]))
                if vni is not None:
                    vni["flood"].get(mac_of(ev.get("mac", ZERO_MAC)), {}).pop(ev["vtep"], None)
            elif op == "multiPath":
                self._vni(int(ev["vni"]))["multipath"][mac_of(ev["mac"])] = \
                    tuple(sorted(ev["vteps"]))
            elif op == "multiPathDel":
                if int(ev["vni"]) in self.vnis:
                    self.vnis[int(ev["vni"])]["multipath"].pop(mac_of(ev["mac"]), None)
            elif op == "controllerdb":
                self.controllerdb = bool(ev["enabled"])
            elif op == "synced":
                pass
            else:
                raise InputError("%s: unknown op %r" % (where, op))
        except (KeyError, TypeError, ValueError) as e:
            raise InputError("%s: bad event %s (%s)" % (where, json.dumps(ev), e))

    def items(self, empty_lists_kept):
        """Everything the controller holds, as comparable items.

        A flood list left without VTEPs is an item only when the agent is
        seen to keep such lists (empty_lists_kept)."""
        out = {("controllerdb",): self.controllerdb}
        for vni, s in self.vnis.items():
            out[("vni", vni)] = None
            for mac, v in s["macs"].items():
                out[("mac", vni, mac)] = v
            for lmac, vteps in s["flood"].items():
                if vteps or (vni, lmac) in empty_lists_kept:
                    out[("floodList", vni, lmac)] = None
                for vtep, value in vteps.items():
                    out[("flood", vni, lmac, vtep)] = value
            for mac, vteps in s["multipath"].items():
                out[("multiPath", vni, mac)] = vteps
        return out


class EvpnSide:
    """The EVPN side's tables after its log."""

    def __init__(self):
        self.evpn_enabled = False
        self.hosts = {}     # (mac, vni) -> (vtep, seqNo, pref)
        self.flood = set()  # (vni, vtep)

    def apply(self, ev, where):
        op = ev.get("op")
        try:
            if op == "capability":
                self.evpn_enabled = bool(ev["evpnEnabled"])
            elif op == "host":
                self.hosts[(mac_of(ev["mac"]), int(ev["vni"]))] = (
                    ev["vtep"], int(ev["seqNo"]), int(ev["preference"]))
            elif op == "hostDel":
                self.hosts.pop((mac_of(ev["mac"]), int(ev["vni"])), None)
            elif op == "flood":
                self.flood.add((int(ev["vni"]), ev["vtep"]))
            elif op == "floodDel":
                self.flood.discard((int(ev["vni"]), ev["vtep"]))
            else:
                raise InputError("%s: unknown op %r" % (where, op))
        except (KeyError, TypeError, ValueError) as e:
            raise InputError("%s: bad log line %s (%s)" % (where, json.dumps(ev), e))


def read_json_lines(path, sink):
    try:
        with open(path) as f:
            for n, line in enumerate(f, 1):
                line = line.strip()
                if not line:
                    continue
                try:
                    ev = json.loads(line)
                except ValueError as e:
                    raise InputError("%s:%d: not JSON (%s)" % (path, n, e))
                if not isinstance(ev, dict):
                    raise InputError("%s:%d: not a JSON object" % (path, n))
                sink.apply(ev, "%s:%d" % (path, n))
    except OSError as e:
        raise InputError("cannot read %s: %s" % (path, e))
    return sink


# ---- what the system shows -----------------------------------------------

class Sources:
    """Reads the actual state from files or live commands, saving it if asked."""

    def __init__(self, args):
        self.args = args

    def _save(self, name, data):
        if self.args.save_dir:
            os.makedirs(self.args.save_dir, exist_ok=True)
            with open(os.path.join(self.args.save_dir, name), "w") as f:
                json.dump(data, f, indent=1, sort_keys=True)

    def _run(self, cmd):
        try:
            p = subprocess.run(cmd, capture_output=True, text=True, timeout=60)
        except (OSError, subprocess.TimeoutExpired) as e:
            raise InputError("%s: %s" % (" ".join(cmd), e))
        return p

    def table(self, name):
        """Records of a table, or None when there is no such table."""
        if self.args.tables_dir:
            path = os.path.join(self.args.tables_dir, table_file(name))
            if not os.path.exists(path):
                return None
            data = load_json(path)
        else:
            if not self.args.lumen:
                raise InputError("no --tables-dir and no --lumen to read table %s" % name)
            cmd = [self.args.lumen]
            if self.args.root:
                cmd += ["--root", self.args.root]
            cmd += ["dump", self.args.prefix + "/" + name, "--json"]
            p = self._run(cmd)
            if p.returncode == 2:
                return None
            if p.returncode != 0:
                raise InputError("%s failed (%d): %s" % (" ".join(cmd), p.returncode, p.stderr.strip()))
            try:
                data = json.loads(p.stdout)
            except ValueError as e:
                raise InputError("%s: output is not JSON (%s)" % (" ".join(cmd), e))
            self._save(table_file(name), data)
        if not isinstance(data, dict) or not isinstance(data.get("records"), list):
            raise InputError("dump of %s has no record list" % name)
        return data["records"]

    def agent_dump(self, what, file_arg):
        if file_arg:
            return load_json(file_arg)
        if not self.args.agent:
            raise InputError("no --%s-json and no --agent to ask for it" % what)
        cmd = [self.args.agent, "ctl"]
        if self.args.control:
            cmd += ["--control", self.args.control]
        cmd += ["dump", what, "--json"]
        p = self._run(cmd)
        if p.returncode != 0:
            raise InputError("%s failed (%d): %s" % (" ".join(cmd), p.returncode,
                                                    (p.stderr or p.stdout).strip()))
        try:
            data = json.loads(p.stdout)
        except ValueError as e:
            raise InputError("%s: output is not JSON (%s)" % (" ".join(cmd), e))
        self._save(what + ".json", data)
        return data


def load_json(path):
    try:
        with open(path) as f:
            return json.load(f)
    except (OSError, ValueError) as e:
        raise InputError("cannot read %s: %s" % (path, e))


def host_map(records, what):
    out = {}
    for r in records or []:
        try:
            out[(mac_of(r["mac"]), int(r["vni"]))] = (r["vtep"], int(r["seqNo"]), int(r["preference"]))
        except (KeyError, TypeError, ValueError):
            raise InputError("%s: bad host record %s" % (what, json.dumps(r)))
    return out


def flood_set(records, what):
    out = {}
    for r in records or []:
        try:
            out[(int(r["vni"]), r["vtep"])] = None
        except (KeyError, TypeError, ValueError):
            raise InputError("%s: bad flood record %s" % (what, json.dumps(r)))
    return out


def controller_items(dump):
    """The agent's controller model as the same items Controller.items() makes."""
    try:
        out = {("controllerdb",): bool(dump.get("controllerdbEnabled", False))}
        empty_lists = set()
        for v in dump.get("vnis", []):
            vni = int(v["vni"])
            out[("vni", vni)] = None
            for m in v.get("macs", []):
                out[("mac", vni, mac_of(m["mac"]))] = (m["vtep"], int(m["seqNo"]), int(m["preference"]))
            for fl in v.get("floodLists", []):
                lmac = mac_of(fl["mac"])
                out[("floodList", vni, lmac)] = None
                if not fl.get("vteps"):
                    empty_lists.add((vni, lmac))
                for t in fl.get("vteps", []):
                    out[("flood", vni, lmac, t["vtep"])] = bool(t.get("value", True))
            for mp in v.get("multiPath", []):
                out[("multiPath", vni, mac_of(mp["mac"]))] = tuple(sorted(mp.get("vteps", [])))
        return out, empty_lists
    except (KeyError, TypeError, ValueError, AttributeError) as e:
        raise InputError("controller dump: unexpected shape (%s)" % e)


def import_items(dump):
    try:
        hosts, flood = {}, {}
        for v in dump.get("vnis", []):
            vni = int(v["vni"])
            for m in v.get("macs", []):
                hosts[(mac_of(m["mac"]), vni)] = (m["vtep"], int(m["seqNo"]), int(m["preference"]))
            for fl in v.get("floodLists", []):
                lmac = mac_of(fl["mac"])
                for t in fl.get("vteps", []):
                    vtep = t["vtep"] if isinstance(t, dict) else t
                    # Everything imported goes under the all-BUM list; any
                    # other list is a difference of its own.
                    key = (vni, vtep) if lmac == ZERO_MAC else (vni, vtep, lmac)
                    flood[key] = None
        return hosts, flood
    except (KeyError, TypeError, ValueError, AttributeError) as e:
        raise InputError("import dump: unexpected shape (%s)" % e)


# ---- the expected export ---------------------------------------------------

def expected_export(ctl, evpn, flag):
    hosts, flood = {}, {}
    if not flag:
        return hosts, flood
    for vni, s in ctl.vnis.items():
        for mac, value in s["macs"].items():
            if mac == ZERO_MAC and value == ("0.0.0.0", 0, DEFAULT_PREFERENCE):
                continue   # the default entry stands for no entry
            if evpn.hosts.get((mac, vni)) == value:
                continue   # provided by EVPN
            hosts[(mac, vni)] = value
        for vtep, value in s["flood"].get(ZERO_MAC, {}).items():
            if value and (vni, vtep) not in evpn.flood:
                flood[(vni, vtep)] = None
    return hosts, flood


def vnis_with_state(ctl, empty_lists_kept):
    out = set()
    for vni, s in ctl.vnis.items():
        lists = [lm for lm, vteps in s["flood"].items() if vteps or (vni, lm) in empty_lists_kept]
        if s["macs"] or s["multipath"] or lists:
            out.add(vni)
    return out


# ---- comparison and report -------------------------------------------------

def describe(key, value):
    text = " ".join(str(k) for k in key)
    if value is not None:
        text += " = " + (" ".join(str(v) for v in value) if isinstance(value, tuple) else str(value))
    return text


def compare(expected, actual):
    diffs = []
    for k in sorted(expected.keys() - actual.keys(), key=str):
        diffs.append("missing  " + describe(k, expected[k]))
    for k in sorted(actual.keys() - expected.keys(), key=str):
        diffs.append("extra    " + describe(k, actual[k]))
    for k in sorted(expected.keys() & actual.keys(), key=str):
        if expected[k] != actual[k]:
            diffs.append("differs  %s: expected %s, actual %s" % (
                describe(k, None), describe((), expected[k]).lstrip(" ="),
                describe((), actual[k]).lstrip(" =")))
    return diffs


def snapshot(args):
    """Reads every table and both dumps live and saves them, checking nothing:
    taken while the system is steady, it can be verified after the agent
    has stopped (and flushed its record of events)."""
    if not args.save_dir or args.tables_dir or args.controller_json or args.import_json:
        raise InputError("--snapshot reads live and needs --save-dir")
    src = Sources(args)
    for name in TABLES:
        src.table(name)
    src.agent_dump("controller", None)
    src.agent_dump("import", None)
    return 0


def evpn_side_of_tables(tables):
    """The EVPN side as its own tables hold it: for runs whose EVPN side was
    killed, when its log may be short of what it wrote last."""
    evpn = EvpnSide()
    capability = tables["evpn/capability"] or []
    evpn.evpn_enabled = bool(capability and capability[0].get("evpnEnabled"))
    evpn.hosts = host_map(tables["evpn/host"], "evpn/host")
    evpn.flood = set(flood_set(tables["evpn/flood"], "evpn/flood"))
    return evpn


def verify(args, out):
    ctl = read_json_lines(args.events, Controller())
    src = Sources(args)

    tables = {name: src.table(name) for name in TABLES}
    if args.evpn_from_tables:
        evpn = evpn_side_of_tables(tables)
    else:
        evpn = read_json_lines(args.peer_log, EvpnSide())
    controller_dump = src.agent_dump("controller", args.controller_json)
    import_dump = src.agent_dump("import", args.import_json)

    model, empty_lists_kept = controller_items(controller_dump)
    flag = ctl.controllerdb and evpn.evpn_enabled
    exp_hosts, exp_flood = expected_export(ctl, evpn, flag)
    exp_brids = {(bridge_id(v),): v for v in vnis_with_state(ctl, empty_lists_kept)} if flag else {}
    act_brids = {}
    for r in tables["brIdList"] or []:
        try:
            act_brids[(int(r["brId"]),)] = int(r["vni"])
        except (KeyError, TypeError, ValueError):
            raise InputError("brIdList: bad record %s" % json.dumps(r))
    config = tables["config"] or []
    act_flag = bool(config and config[0].get("orbEvpnIntegrationMode"))

    peer_hosts = host_map(tables["evpn/host"], "evpn/host")
    peer_flood = flood_set(tables["evpn/flood"], "evpn/flood")
    imp_hosts, imp_flood = import_items(import_dump)
    mirror_exp_hosts = peer_hosts if flag else {}
    mirror_exp_flood = peer_flood if flag else {}

    checks = [
        ("controller model = recorded events", ctl.items(empty_lists_kept), model),
        ("export hosts = controller - EVPN-provided", exp_hosts,
         host_map(tables["export/host"], "export/host")),
        ("export flood = controller - EVPN-provided", exp_flood,
         flood_set(tables["export/flood"], "export/flood")),
        ("bridge ids = VNIs with state", exp_brids, act_brids),
        ("integration flag = controllerdb and EVPN", {("flag",): flag}, {("flag",): act_flag}),
    ]
    if not args.evpn_from_tables:
        checks += [
            ("EVPN hosts = peer log", {k: v for k, v in evpn.hosts.items()}, peer_hosts),
            ("EVPN flood = peer log", {k: None for k in evpn.flood}, peer_flood),
        ]
    checks += [
        ("import mirror hosts = EVPN hosts", mirror_exp_hosts, imp_hosts),
        ("import mirror flood = EVPN flood", mirror_exp_flood, imp_flood),
    ]

    width = max(len(c[0]) for c in checks)
    failed = 0
    if args.title:
        out.write("verification: %s\n" % args.title)
    out.write("%-*s  %9s  %9s  %s\n" % (width, "check", "expected", "actual", "result"))
    details = []
    for name, expected, actual in checks:
        diffs = compare(expected, actual)
        if name.startswith("integration flag"):
            e_txt, a_txt = ("on" if flag else "off"), ("on" if act_flag else "off")
        else:
            e_txt, a_txt = str(len(expected)), str(len(actual))
        result = "ok" if not diffs else "FAIL"
        failed += bool(diffs)
        out.write("%-*s  %9s  %9s  %s\n" % (width, name, e_txt, a_txt, result))
        if diffs:
            details.append((name, diffs))
    for name, diffs in details:
        out.write("\n%s: %d difference(s)%s\n" % (
            name, len(diffs), ", the first %d:" % args.max_diffs if len(diffs) > args.max_diffs else ":"))
        for d in diffs[:args.max_diffs]:
            out.write("  " + d + "\n")
    out.write("%s\n" % ("all checks hold" if not failed else "%d check(s) FAILED" % failed))
    return 0 if not failed else 1


def main(argv=None):
    p = argparse.ArgumentParser(
        description="Verify the orbevpn export, import mirror and bridge ids against the recorded "
                    "controller events and the EVPN side's log.")
    p.add_argument("--events", help="the agent's --record-events file")
    p.add_argument("--peer-log", help="the EVPN side's --log file")
    p.add_argument("--evpn-from-tables", action="store_true",
                   help="take the EVPN side from its own tables instead of --peer-log (for runs that "
                   "killed it: its log may miss its last writes)")
    p.add_argument("--snapshot", action="store_true",
                   help="only read the tables and dumps live and save them into --save-dir")
    p.add_argument("--tables-dir", help="read `lumen dump --json` outputs from DIR "
                   "(export-host.json, export-flood.json, brIdList.json, config.json, "
                   "evpn-host.json, evpn-flood.json, evpn-capability.json) instead of running lumen")
    p.add_argument("--controller-json", help="the agent's `dump controller --json`, from a file")
    p.add_argument("--import-json", help="the agent's `dump import --json`, from a file")
    p.add_argument("--lumen", help="the lumen tool, to read the tables live")
    p.add_argument("--root", help="Lumen root for --lumen")
    p.add_argument("--prefix", default="/orbevpn", help="table path prefix (default /orbevpn)")
    p.add_argument("--agent", help="orbevpn-agent, to ask for its dumps live")
    p.add_argument("--control", help="the agent's control socket")
    p.add_argument("--save-dir", help="save what was read live into DIR, in the --tables-dir layout "
                   "plus controller.json and import.json")
    p.add_argument("--max-diffs", type=int, default=5, help="differences shown per failed check")
    p.add_argument("--title", help="a line printed above the table")
    args = p.parse_args(argv)
    if not args.snapshot and not (args.events and (args.peer_log or args.evpn_from_tables)):
        p.error("--events and --peer-log (or --evpn-from-tables) are required (unless --snapshot)")
    try:
        if args.snapshot:
            return snapshot(args)
        return verify(args, sys.stdout)
    except InputError as e:
        sys.stderr.write("verify: %s\n" % e)
        return 2


if __name__ == "__main__":
    sys.exit(main())
