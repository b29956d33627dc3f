#!/usr/bin/env python3
"""The tool as a process. Usage: tool_test.py VSKVS [unittest arguments]

The session over all commands is compared as a whole with tool_session.txt; ACCEPT=1 writes that file
anew, and the difference is to be read before it is believed.
"""
import json
import os
import random
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest

TOOL = os.path.abspath(sys.argv.pop(1))
HERE = os.path.dirname(os.path.abspath(__file__))
ENVIRONMENT = {**os.environ, "NO_COLOR": "1", "TZ": "UTC"}
for name in ("VS_JOB_ID", "VS_JOB_NAME", "VS_VERBOSE", "VS_VERBOSE_FILE"):
    ENVIRONMENT.pop(name, None)

# Each line is a command of the session; "<text" after it is its standard input.
SESSION = r"""
object list
init
object list
object add 42 --select 2 --versions 1,2,3
object add 0x2b --select 0 --scope 5 --changed 0 --optional-compatible 1
object add 42 --select 1
object add 0 --select 1
object select 42 3
object select 44 3
object show 42
object show 0x2A --json
object list
client create 42
client add 42 --jid 7 --pid 1 --data 0a0B
client add 42 --jid 7 --pid 2
client update 42 --jid 7 --pid 3999999
client update 42 --jid 8 --pid 1
client show 42
client show 43
client show 44
client list --json
registration create 7 42
registration add 7 43
registration add 7 42
registration add 8 42
registration show 7
registration list --json
object import - <{"vs_object_id": 50, "selected_version": 1, "supp_versions": [1, 2]}\n\n{"vs_object_id": 51, "selected_version": 0, "supp_versions": []}
object import - <{"vs_object_id": 50, "selected_version": 2, "supp_versions": [1, 2]}
object import --update - <{"vs_object_id": 50, "selected_version": 2}\n{"vs_object_id": 99, "selected_version": 2}
object list --json
check
check --json
dump
restore - <{"vskvs_dump":1}\n{"vskvs_dump_end":1,"vs_objects":0,"vs_clients_info":0,"vs_clientobjectsreg":0}
client delete 42
object delete 43
object delete 43
status 0xC5322600
status 22
status 0x12345678 --json
trace
trace --operation vs_kvs_add_new_client_info --json
trace install/vs/none
"""

# What must be refused, with the exit status and a part of the message.
REFUSED = [
    ("", 2, "subcommand"), ("frob", 2, "subcommand"), ("object", 2, "subcommand"),
    ("object show", 2, "ID"), ("object show 12x", 2, "not a number"), ("object show -1", 2, ""),
    ("object show 4294967296", 2, "32-bit"), ("object show 0x100000000", 2, "32-bit"),
    ("object add 1 --select 1 --versions 1,x", 2, "not a number"),
    ("client add 1 --jid 1 --pid 1 --data 123", 2, "hex"),
    ("client add 1 --jid 1 --pid 1 --data " + "00" * 13, 2, "hex"), ("client add 1 --jid 1", 2, "--pid"),
    ("status 99999999999", 2, "number"), ("trace --since yesterday", 2, "not a moment"),
    ("object import /nonexistent", 1, "No such file"), ("restore /nonexistent", 1, "No such file"),
    ("--state-dir= object list", 2, "subcommand"),
    ("--state-dir /" + "x" * 3000 + " object list", 2, "--state-dir"),
    ("--state-dir /proc/nowhere object list", 1, "database not available"),
]

# Lines that an import refuses, with what stands at the place it names, and a part of the message.
def entry(fields='"selected_version": 1, "supp_versions": []', id='"vs_object_id": 1'):
    return "{" + id + ", " + fields + "}"


BAD_LINES = [
    ("{", "{", "not JSON"), ("[1]", "[", "object"), (entry() + " x", "x", "not JSON"),
    (entry('"supp_versions": []'), "{", '"selected_version" is missing'),
    (entry(id='"vs_object_id": 0'), '"vs_', "must not be 0"),
    (entry(id='"vs_object_id": "1"'), '"vs_', "whole number"),
    (entry('"selected_version": -1, "supp_versions": []'), '"sel', "whole number"),
    (entry('"selected_version": 4294967296, "supp_versions": []'), '"sel', "whole number"),
    (entry('"selected_version": 1.5, "supp_versions": []'), '"sel', "whole number"),
    (entry('"selected_version": 1, "supp_versions": 7'), '"supp', "array"),
    (entry('"selected_version": 1, "supp_versions": [1, null]'), "null", "whole number"),
    (entry('"selected_version": 1, "supp_versions": [], "x": 1'), '"x"', "unknown field"),
    (entry('"vs_object_id": 2, "supp_versions": []'), '"vs_object_id": 2', ""),
    (entry('"selected_version": 1, "supp_versions": [], "scope": 3'), '"scope', "scope 0"),
    (entry('"supp_count": 2, "selected_version": 1, "supp_versions": []'), '"supp_c', "supp_count"),
    (entry(id='"vs_object_id": 7'), '"vs_', "line 1 already"),
]
GOOD_LINE = '{"vs_object_id": 7, "selected_version": 1, "supp_versions": []}\n'


def store_short_record(state, key):
    """Stores a VS object that is shorter than its count says, behind the library's back. False where
    the platform cannot be loaded into this process, as when it is built with sanitizers."""
    code = f"""
import ctypes, struct
lib = ctypes.CDLL({os.path.dirname(TOOL)!r} + "/../libvs_platform.so")
hdl, rec = ctypes.c_uint64(), ctypes.c_uint64()
record = struct.pack("7I", {key}, 1, 0, 0, 0, 3, 1)
data = (ctypes.c_uint64 * 2)(ctypes.cast(record, ctypes.c_void_p).value, len(record))
attr = ctypes.create_string_buffer(struct.pack("IIQQ", 0, 4, 0, 0))
assert lib.kvs_lookup_db_handle(b"vs_objects", ctypes.byref(hdl)) == 0
assert lib.kvs_insert_object(hdl, data, 1, attr, 1, 0, 0, ctypes.byref(rec)) == 0
"""
    done = subprocess.run([sys.executable, "-c", code], env={**ENVIRONMENT, "VS_STATE_DIR": state},
                          capture_output=True, text=True)
    if done.returncode != 0 and "ASan" not in done.stderr and "static TLS" not in done.stderr:
        raise AssertionError(done.stderr)
    return done.returncode == 0


class Tool(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory(prefix="vskvs_test.")
        self.state = self.folder.name + "/state"
        self.addCleanup(self.folder.cleanup)

    def start(self, arguments, state=None, **options):
        command = [TOOL, "--state-dir", state or self.state] + arguments
        if any(word.startswith("--state-dir") for word in arguments):
            command = [TOOL] + arguments
        return subprocess.Popen(command, env=ENVIRONMENT, text=True, stdin=subprocess.PIPE,
                                **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options})

    def run_tool(self, arguments, text="", state=None, **options):
        process = self.start(arguments, state, **options)
        out, err = process.communicate(text)
        return process.returncode, out or "", err or ""

    def expect(self, *arguments, text="", state=None):
        rc, out, err = self.run_tool(list(arguments), text, state)
        self.assertEqual(rc, 0, f"{arguments}: {err}")
        return out

    def path(self, name, text):
        path = f"{self.folder.name}/{name}"
        with open(path, "w") as file:
            file.write(text)
        return path

    def test_session(self):
        log = ""
        for line in SESSION.strip().split("\n"):
            command, _, text = line.partition(" <")
            rc, out, err = self.run_tool(command.split(), text.replace("\\n", "\n"))
            log += f"$ vskvs {line}\n{out}{err}" + (f"[exit {rc}]\n" if rc else "")
        log = re.sub(r"\d{4}-\d\d-\d\d[ T]\d\d:\d\d:\d\d\.\d+([+]0000)?", "TIME", log)
        log = re.sub(r"vskvs\[\d+\]", "vskvs[PID]", log)
        log = re.sub(r'"(pid|tid)":\d{2,}(?=,"(tid|buffer)")', r'"\1":0', log)
        path = HERE + "/tool_session.txt"
        if "ACCEPT" in os.environ:
            with open(path, "w") as file:
                file.write(log)
        with open(path) as file:
            self.maxDiff = None
            self.assertEqual(file.read(), log)

    def test_bad_input(self):
        self.expect("init")
        for command, status, message in REFUSED:
            rc, out, err = self.run_tool(command.split())
            self.assertEqual((rc, out), (status, ""), command)
            self.assertIn(message, err)
            self.assertTrue(err.startswith("vskvs: "), err)
        for line, token, message in BAD_LINES:
            column = line.index(token) + 1 if token else len(line) + 1
            rc, _, err = self.run_tool(["object", "import", "-"], GOOD_LINE + line + "\n")
            self.assertEqual(rc, 1, line)
            self.assertIn(f"-:2:{column}: ", err)
            self.assertIn(message, err)
            self.assertEqual(self.expect("object", "list", "--json").strip(), "[]")
        for command in ("object list", "dump", "status", "--help"):
            with open("/dev/full", "w") as full:
                rc, _, err = self.run_tool(command.split(), stdout=full)
            self.assertEqual(rc, 1, command)
            self.assertIn("No space left", err)

    def test_every_command_has_help_with_an_example(self):
        def visit(words):
            text = self.expect(*words, "--help")
            self.assertIn("Example:", text, words)
            for name in re.findall(r"^  (\w+) ", text.partition("Subcommands:")[2].partition("\n\n")[0],
                                   re.M):
                visit(words + [name])
        visit([])

    def random_dump(self, seed, count):
        pick = random.Random(seed)
        word = lambda: pick.choice([0, 1, 0xFFFFFFFF, pick.getrandbits(32)])
        keys = lambda: sorted({1 + pick.getrandbits(31) for _ in range(count)})
        lines = [{"vskvs_dump": 1}]
        for key in keys():
            versions = [word() for _ in range(pick.randrange(5))]
            lines.append({"database": "vs_objects", "vs_object_id": key, "selected_version": word(),
                          "is_optional_compatible": word(), "scope": word(), "is_changed": word(),
                          "supp_count": len(versions), "supp_versions": versions})
        for key in keys():
            clients = [{"jid": word(), "pid": word(), "client_data": "%024x" % pick.getrandbits(96)}
                       for _ in range(pick.randrange(5))]
            lines.append({"database": "vs_clients_info", "vs_object_id": key,
                          "clients_count": len(clients), "clients": clients})
        for key in [0] + keys():
            ids = [word() for _ in range(pick.randrange(5))]
            lines.append({"database": "vs_clientobjectsreg", "jid": key, "vs_count": len(ids),
                          "vs_array": ids})
        end = {"vskvs_dump_end": 1}
        for name in ("vs_objects", "vs_clients_info", "vs_clientobjectsreg"):
            end[name] = sum(line.get("database") == name for line in lines)
        return "".join(json.dumps(line, separators=(",", ":")) + "\n" for line in lines + [end])

    def test_dump_and_restore(self):
        dump = self.random_dump(20261122, 300)
        self.expect("restore", "-", text=dump)
        self.assertEqual(self.expect("dump"), dump)
        rc, _, err = self.run_tool(["restore", "-"], dump)
        self.assertEqual(rc, 1)
        self.assertIn("not empty", err)
        lines = dump.splitlines(True)
        for cut in (lines[:-1], lines[1:], lines[:5] + lines[6:], lines + lines[-1:]):
            other = self.folder.name + "/other"
            rc, _, err = self.run_tool(["restore", "-"], "".join(cut), other)
            self.assertEqual(rc, 1, err)
        self.assertNotEqual(self.run_tool(["object", "list"], state=other)[0], 0)

    def test_check_finds_what_does_not_fit(self):
        pid = os.getpid()
        client = lambda jid, pid: {"jid": jid, "pid": pid, "client_data": "00" * 12}
        records = [
            ("vs_objects", "vs_object_id", 1, "supp_versions", [1, 2], {"selected_version": 3}),
            ("vs_objects", "vs_object_id", 2, "supp_versions", [1], {"selected_version": 1}),
            ("vs_clients_info", "vs_object_id", 1, "clients", [client(7, pid), client(7, pid)], {}),
            ("vs_clients_info", "vs_object_id", 2, "clients", [client(8, 0)], {}),
            ("vs_clients_info", "vs_object_id", 3, "clients", [], {}),
            ("vs_clientobjectsreg", "jid", 7, "vs_array", [1, 2, 2, 9], {})]
        dump = '{"vskvs_dump": 1}\n'
        for name, key, number, elements, values, more in records:
            rest = {"is_optional_compatible": 0, "scope": 0, "is_changed": 0} if more else {}
            dump += json.dumps({"database": name, key: number, elements: values, **more, **rest}) + "\n"
        dump += '{"vskvs_dump_end":1,"vs_objects":2,"vs_clients_info":3,"vs_clientobjectsreg":1}\n'
        self.expect("restore", "-", text=dump)
        expected = [("unsupported-selection", 1), ("repeated-jid", 1), ("dead-client", 2),
                    ("unknown-object", 3), ("repeated-object", 7), ("unknown-object", 7),
                    ("no-client", 7), ("no-client", 7), ("no-registration", 2)]
        if store_short_record(self.state, 5):
            expected.insert(0, ("record-length", 5))
            self.assertIn("vskvs check", self.run_tool(["object", "list"])[2])
        rc, out, _ = self.run_tool(["check", "--json"])
        found = [(f["finding"], f.get("vs_object_id", 0) if "objects" in f["database"][:10] or
                  f["database"] == "vs_clients_info" else f["jid"]) for f in json.loads(out)]
        self.assertEqual((rc, sorted(found)), (1, sorted(expected)))

    def test_import_is_all_or_nothing(self):
        count = 30000
        path = self.path("many", "".join(
            '{"vs_object_id": %d, "selected_version": 1, "supp_versions": [1, 2]}\n' % i
            for i in range(1, count + 1)))
        self.expect("init")
        pick = random.Random(1)
        seen = set()
        for _ in range(10):
            process = self.start(["object", "import", path])
            time.sleep(pick.uniform(0.02, 0.4))
            process.send_signal(signal.SIGKILL)
            process.communicate()
            seen.add(self.expect("object", "list").count("\n") - 1)
        self.assertLessEqual(seen, {0, count})
        self.assertIn("imported", self.expect("object", "import", path))
        self.assertEqual(self.expect("object", "list").count("\n") - 1, count)

    def test_trace_survives_damage_and_follows(self):
        self.expect("init")
        buffer = self.state + "/ringlog/install/vs/kvs/-1/api"
        whole = self.expect("trace")
        self.assertIn("all VS KVS DBs initialized successfully", whole)
        self.assertEqual(self.expect("trace", "--since", "2000000000"), "")
        self.assertIn("all VS KVS DBs", self.expect("trace", "--job", "4294967295"))
        rc, _, _ = self.run_tool(["object", "show", "9"], preexec_fn=lambda: os.close(2))
        self.assertEqual(rc, 1)
        for name in ("store.mdb", "store.mdb-lock"):
            with open(self.state + "/" + name, "rb") as file:
                self.assertNotIn(b"vskvs: ", file.read())
        follower = self.start(["trace", "--follow", "--operation", "vs_kvs_insert_vs_object_rec"])
        time.sleep(0.3)
        self.expect("object", "add", "5", "--select", "1")
        self.assertIn("inserted vs object id: 0x5", follower.stdout.readline())
        follower.send_signal(signal.SIGINT)
        self.assertEqual(follower.communicate()[0], "")
        self.assertEqual(follower.returncode, 0)
        pick = random.Random(2)
        with open(buffer, "r+b") as file:
            size = file.seek(0, 2)
            for _ in range(2000):
                file.seek(pick.randrange(4096, size))
                file.write(bytes([pick.getrandbits(8)]))
        self.assertIn(self.run_tool(["trace"])[0], (0, 1))
        os.truncate(buffer, 100)
        rc, out, err = self.run_tool(["trace"])
        self.assertEqual(rc, 1)
        self.assertIn("install/vs/kvs/-1/api", err)


if __name__ == "__main__":
    unittest.main()
