#!/usr/bin/env python3
"""The verifier on hand-made records: a consistent system passes, and each
kind of fault a broken agent or peer could leave behind fails the check
that is about it, and only that one.

The fixture (fixtures/consistent) holds, after its events: VNI 10 with a
moved MAC, a MAC the EVPN side echoes exactly (left out of the export), a
MAC the EVPN side holds with an older sequence number (still exported), a
flood list with an echoed VTEP and a VTEP whose value is false; VNI 20
whose echo was withdrawn again; VNI 30 deleted; VNI 40 with only a
multipath entry (listed, nothing exported); VNI 50 with no state.
"""

import io
import json
import os
import shutil
import stat
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
VERIFY = os.path.join(HERE, "..", "..", "..", "tools", "verify", "verify.py")
FIXTURE = os.path.join(HERE, "fixtures", "consistent")

sys.dont_write_bytecode = True   # keep the source tree clean
sys.path.insert(0, os.path.dirname(VERIFY))
import verify  # noqa: E402


class Fixture:
    """A writable copy of the consistent fixture."""

    def __init__(self):
        self.dir = tempfile.mkdtemp(prefix="verify-test-")
        shutil.copytree(FIXTURE, self.dir, dirs_exist_ok=True)

    def path(self, *parts):
        return os.path.join(self.dir, *parts)

    def load(self, *parts):
        with open(self.path(*parts)) as f:
            return json.load(f)

    def save(self, data, *parts):
        with open(self.path(*parts), "w") as f:
            json.dump(data, f)

    def edit_table(self, name, fn):
        data = self.load("tables", verify.table_file(name))
        fn(data["records"])
        data["count"] = len(data["records"])
        self.save(data, "tables", verify.table_file(name))

    def edit_json(self, name, fn):
        data = self.load(name)
        fn(data)
        self.save(data, name)

    def append(self, name, *lines):
        with open(self.path(name), "a") as f:
            for line in lines:
                f.write(json.dumps(line) + "\n")

    def run(self):
        out = io.StringIO()
        args = ["--events", self.path("events.jsonl"), "--peer-log", self.path("peer.log"),
                "--tables-dir", self.path("tables"), "--controller-json", self.path("controller.json"),
                "--import-json", self.path("import.json")]
        saved = sys.stdout
        sys.stdout = out
        try:
            rc = verify.main(args)
        finally:
            sys.stdout = saved
        return rc, out.getvalue()

    def cleanup(self):
        shutil.rmtree(self.dir, ignore_errors=True)


def failed_checks(text):
    return [line.rsplit(None, 3)[0].strip() for line in text.splitlines() if line.endswith("FAIL")]


class VerifyTest(unittest.TestCase):
    def setUp(self):
        self.f = Fixture()

    def tearDown(self):
        self.f.cleanup()

    def assertFailsOnly(self, check, detail=""):
        rc, text = self.f.run()
        self.assertEqual(rc, 1, text)
        self.assertEqual(failed_checks(text), [check], text)
        self.assertIn(detail, text)

    def test_consistent(self):
        rc, text = self.f.run()
        self.assertEqual(rc, 0, text)
        self.assertIn("all checks hold", text)
        # The counts the table shows are the fixture's, not echoes of each other.
        self.assertRegex(text, r"export hosts = controller - EVPN-provided\s+3\s+3\s+ok")
        self.assertRegex(text, r"export flood = controller - EVPN-provided\s+1\s+1\s+ok")
        self.assertRegex(text, r"bridge ids = VNIs with state\s+3\s+3\s+ok")

    def test_each_fault_fails_only_its_check(self):
        def move_back(records):
            for r in records:
                if r["mac"] == "02:00:00:00:00:01" and r["vni"] == 10:
                    r["vtep"], r["seqNo"] = "192.0.2.1", 1

        def table(name, edit):
            return lambda f: f.edit_table(name, edit)

        def other_flood_list(data):
            data["vnis"][0]["floodLists"] = [{"mac": "00:00:00:00:00:00", "vteps": ["192.0.2.2"]},
                                             {"mac": "02:00:00:00:00:01", "vteps": ["198.51.100.9"]}]
        hosts, flood, ids = ("export hosts = controller - EVPN-provided", "export flood = controller - EVPN-provided",
                             "bridge ids = VNIs with state")
        cases = [  # (why, edit of the fixture, failed check, detail)
            ("stray export record", table("export/host", lambda r: r.append(
                {"mac": "02:00:00:00:00:99", "vni": 20, "vtep": "192.0.2.99", "seqNo": 1, "preference": 16})),
             hosts, "extra    02:00:00:00:00:99 20 = 192.0.2.99 1 16"),
            ("exported although EVPN provided it", table("export/host", lambda r: r.append(
                {"mac": "02:00:00:00:00:02", "vni": 10, "vtep": "192.0.2.2", "seqNo": 1, "preference": 16})),
             hosts, "extra    02:00:00:00:00:02 10"),
            ("left out although EVPN holds another seqNo", table("export/host", lambda r: r.remove(
                {"mac": "02:00:00:00:00:03", "vni": 10, "vtep": "192.0.2.1", "seqNo": 4, "preference": 20})),
             hosts, "missing  02:00:00:00:00:03 10 = 192.0.2.1 4 20"),
            ("exported with an old value", table("export/host", move_back),
             hosts, "differs  02:00:00:00:00:01 10: expected 192.0.2.4 2 16, actual 192.0.2.1 1 16"),
            ("flood VTEP with value false exported", table("export/flood", lambda r: r.append(
                {"vni": 10, "vtep": "192.0.2.3"})), flood, "extra    10 192.0.2.3"),
            ("echoed flood VTEP exported", table("export/flood", lambda r: r.append(
                {"vni": 10, "vtep": "192.0.2.2"})), flood, "extra    10 192.0.2.2"),
            ("bridge id of a VNI without state", table("brIdList", lambda r: r.append(
                {"brId": 0x2000000 + 50, "vni": 50, "value": True})), ids, "extra    33554482 = 50"),
            ("multipath-only VNI not listed", table("brIdList", lambda r: r.remove(
                {"brId": 33554472, "vni": 40, "value": True})), ids, "missing  33554472 = 40"),
            ("import mirror missing a host", lambda f: f.edit_json("import.json", lambda d: d["vnis"][1].update(
                macs=[])), "import mirror hosts = EVPN hosts", "missing  0e:00:00:14:00:00 20"),
            ("import flood under another list", lambda f: f.edit_json("import.json", other_flood_list),
             "import mirror flood = EVPN flood", ""),
            # The log says the VTEP is gone, so the tables and the mirror both hold one too many.
            ("peer tables disagree with its log", lambda f: f.append(
                "peer.log", {"op": "floodDel", "vni": 10, "vtep": "198.51.100.9"}), "EVPN flood = peer log", ""),
        ]
        for why, edit, check, detail in cases:
            with self.subTest(why):
                self.f.cleanup()
                self.f = Fixture()
                edit(self.f)
                self.assertFailsOnly(check, detail)

    def test_controller_model_lost_an_event(self):
        self.f.append("events.jsonl", {"op": "macDel", "vni": 10, "mac": "02:00:00:00:00:03"})
        rc, text = self.f.run()
        self.assertEqual(rc, 1, text)
        self.assertIn("controller model = recorded events", failed_checks(text))
        self.assertIn("extra    mac 10 02:00:00:00:00:03", text)

    def test_integration_off_means_nothing_exported(self):
        self.f.append("events.jsonl", {"op": "controllerdb", "enabled": False})
        rc, text = self.f.run()
        self.assertEqual(rc, 1, text)
        for check in ("export hosts = controller - EVPN-provided", "export flood = controller - EVPN-provided",
                      "bridge ids = VNIs with state", "integration flag = controllerdb and EVPN"):
            self.assertIn(check, failed_checks(text))

    def test_integration_off_and_everything_withdrawn(self):
        self.f.append("events.jsonl", {"op": "controllerdb", "enabled": False})
        self.f.append("peer.log", *[{"op": "hostDel", "mac": m, "vni": v} for m, v in
                                    [("02:00:00:00:00:02", 10), ("02:00:00:00:00:03", 10),
                                     ("0e:00:00:0a:00:00", 10), ("0e:00:00:14:00:00", 20)]])
        self.f.append("peer.log", {"op": "floodDel", "vni": 10, "vtep": "192.0.2.2"},
                      {"op": "floodDel", "vni": 10, "vtep": "198.51.100.9"})
        for name in ("export/host", "export/flood", "brIdList", "evpn/host", "evpn/flood"):
            self.f.edit_table(name, lambda r: r.clear())
        self.f.edit_table("config", lambda r: r.__setitem__(0, {"orbEvpnIntegrationMode": False}))
        self.f.save({"vnis": []}, "import.json")
        data = self.f.load("controller.json")
        data["controllerdbEnabled"] = False
        self.f.save(data, "controller.json")
        rc, text = self.f.run()
        self.assertEqual(rc, 0, text)

    def test_emptied_flood_list_lists_the_vni_only_if_the_agent_keeps_the_list(self):
        self.f.append("events.jsonl", {"op": "flood", "vni": 60, "vtep": "192.0.2.60"},
                      {"op": "floodDel", "vni": 60, "vtep": "192.0.2.60"})
        data = self.f.load("controller.json")
        data["vnis"].append({"name": "60", "vni": 60, "macs": [], "floodLists": [], "multiPath": []})
        self.f.save(data, "controller.json")
        rc, text = self.f.run()
        self.assertEqual(rc, 0, text)

        data["vnis"][-1]["floodLists"] = [{"mac": "00:00:00:00:00:00", "vteps": []}]
        self.f.save(data, "controller.json")
        self.assertFailsOnly("bridge ids = VNIs with state", "missing  33554492 = 60")
        self.f.edit_table("brIdList", lambda r: r.append({"brId": 33554492, "vni": 60, "value": True}))
        rc, text = self.f.run()
        self.assertEqual(rc, 0, text)

    def test_differences_are_capped(self):
        self.f.edit_table("export/host", lambda r: r.extend(
            {"mac": "02:00:00:00:01:%02x" % i, "vni": 10, "vtep": "192.0.2.1", "seqNo": 1, "preference": 16}
            for i in range(20)))
        rc, text = self.f.run()
        self.assertEqual(rc, 1)
        self.assertIn("20 difference(s), the first 5:", text)
        self.assertEqual(text.count("extra    02:00:00:00:01:"), 5)

    def test_bad_event_line_is_an_input_error_with_its_line(self):
        with open(self.f.path("events.jsonl"), "a") as f:
            f.write('{"op":"mac","vni":10}\n')
        rc, _ = self.f.run()
        self.assertEqual(rc, 2)
        with self.assertRaisesRegex(verify.InputError, r"events.jsonl:19: bad event"):
            verify.read_json_lines(self.f.path("events.jsonl"), verify.Controller())


FAKE_LUMEN = """#!/usr/bin/env python3
import os, sys
args = sys.argv[1:]
assert args[0] == "--root" and args[2] == "dump" and args[4] == "--json", args
name = args[3][len("/lab/"):].replace("/", "-") + ".json"
path = os.path.join(args[1], name)
if not os.path.exists(path):
    sys.stderr.write("no table " + args[3] + "\\n")
    sys.exit(2)
sys.stdout.write(open(path).read())
"""

FAKE_AGENT = """#!/usr/bin/env python3
import os, sys
args = sys.argv[1:]
assert args[:3] == ["ctl", "--control", os.environ["FAKE_CONTROL"]] and args[3] == "dump" \\
    and args[5] == "--json", args
sys.stdout.write(open(os.path.join(os.environ["FAKE_DIR"], args[4] + ".json")).read())
"""


class VerifyLiveTest(unittest.TestCase):
    """The command lines it runs when it reads a live system."""

    def test_reads_tables_and_dumps_through_the_tools_and_saves_them(self):
        f = Fixture()
        self.addCleanup(f.cleanup)
        for name, text in (("lumen", FAKE_LUMEN), ("agent", FAKE_AGENT)):
            with open(f.path(name), "w") as out:
                out.write(text)
            os.chmod(f.path(name), stat.S_IRWXU)
        os.remove(f.path("tables", "evpn-capability.json"))   # a table that does not exist
        env = dict(os.environ, FAKE_CONTROL="/tmp/x.ctl", FAKE_DIR=f.dir)
        live = ["--lumen", f.path("lumen"), "--root", f.path("tables"), "--prefix", "/lab",
                "--agent", f.path("agent"), "--control", "/tmp/x.ctl"]
        logs = ["--events", f.path("events.jsonl"), "--peer-log", f.path("peer.log")]

        def verify_with(*args):
            p = subprocess.run([sys.executable, VERIFY, *args], capture_output=True, text=True, env=env)
            self.assertEqual(p.returncode, 0, p.stdout + p.stderr)
            return p.stdout

        saved, snap = f.path("saved"), f.path("snap")
        self.assertTrue(verify_with(*logs, *live, "--save-dir", saved, "--title", "live")
                        .startswith("verification: live\n"))
        self.assertEqual(sorted(os.listdir(saved)),
                         sorted(["brIdList.json", "config.json", "controller.json", "evpn-flood.json",
                                 "evpn-host.json", "export-flood.json", "export-host.json", "import.json"]))
        # A snapshot saves the same, checking nothing; what was saved verifies offline.
        verify_with("--snapshot", *live, "--save-dir", snap)
        self.assertEqual(sorted(os.listdir(snap)), sorted(os.listdir(saved)))
        verify_with(*logs, "--tables-dir", saved, "--controller-json", os.path.join(saved, "controller.json"),
                    "--import-json", os.path.join(saved, "import.json"))


if __name__ == "__main__":
    unittest.main()
