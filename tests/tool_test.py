#!/usr/bin/env python3
"""The tool as a process. Usage: tool_test.py VSKVS [unittest arguments]

The sessions of tool_session.txt are held as they are written there: after "==" a fresh store, after
"$" a command, after "<" its standard input, and then what it told. With ACCEPT=1 that file is
written anew, and the difference is to be read before it is believed.
"""
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
SESSION = os.path.join(os.path.dirname(os.path.abspath(__file__)), "tool_session.txt")
UNWANTED = ("VS_JOB_ID", "VS_JOB_NAME", "VS_VERBOSE", "VS_VERBOSE_FILE")
ENVIRONMENT = {name: value for name, value in os.environ.items() if name not in UNWANTED}
ENVIRONMENT.update(NO_COLOR="1", TZ="UTC")

# What differs from run to run, and what stands for it.
VARYING = [
    (r"\d{4}-\d\d-\d\d[ T]\d\d:\d\d:\d\d\.\d+([+]0000)?", "TIME"), (r"vskvs\[\d+\]", "vskvs[PID]"),
    (r'"(pid|tid)":\d{2,}(?=,"(tid|buffer)")', r'"\1":0'), (r"not JSON: .*", "not JSON: WHY")]

# What must be refused, with the exit status and a part of the message.
REFUSED = [
    ("", 2, "subcommand"), ("frob", 2, "subcommand"), ("object", 2, "subcommand"),
    ("object show", 2, "ID"), ("object show 12x", 2, "not a number"), ("object show -1", 2, ""),
    ("object show 4294967296", 2, "32-bit"), ("object show 0x100000000", 2, "32-bit"),
    ("object add 1 --select 1 --versions 1,x", 2, "not a number"),
    ("client add 1 --jid 1 --pid 1 --data 123", 2, "hex"),
    ("client add 1 --jid 1 --pid 1 --data " + "00" * 13, 2, "hex"),
    ("client add 1 --jid 1", 2, "--pid"), ("trace --since yesterday", 2, "not a time"),
    ("status 99999999999", 2, "number"), ("--state-dir= object list", 2, "subcommand"),
    ("object import /nonexistent", 1, "No such file"), ("restore /nonexistent", 1, "No such file"),
    ("--state-dir /" + "x" * 3000 + " object list", 2, "--state-dir"),
    ("--state-dir /proc/nowhere object list", 1, "database not available"),
]

# Stores a VS object that is shorter than its count says, behind the library's back.
STORE_SHORT_RECORD = f"""
import ctypes, struct
lib = ctypes.CDLL({os.path.dirname(TOOL)!r} + "/../libvs_platform.so")
hdl, rec = ctypes.c_uint64(), ctypes.c_uint64()
record = struct.pack("7I", 5, 1, 0, 0, 0, 3, 1)
data = (ctypes.c_uint64 * 2)(ctypes.cast(record, ctypes.c_void_p).value, len(record))
attr = ctypes.create_string_buffer(struct.pack("IIQQ", 0, 4, 0, 0))
assert lib.kvs_lookup_db_handle(b"vs_objects", ctypes.byref(hdl)) == 0
assert lib.kvs_insert_object(hdl, data, 1, attr, 1, 0, 0, ctypes.byref(rec)) == 0
"""


class Tool(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="vskvs_test.")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.use_state(self.folder + "/state")

    def use_state(self, path):
        self.state = path
        self.environment = {**ENVIRONMENT, "VS_STATE_DIR": path}

    def start(self, *arguments, **options):
        pipes = dict.fromkeys(("stdin", "stdout", "stderr"), subprocess.PIPE)
        return subprocess.Popen([TOOL, *arguments], env=self.environment, text=True,
                                **{**pipes, **options})

    def run_tool(self, *arguments, text="", **options):
        process = self.start(*arguments, **options)
        out, err = process.communicate(text)
        return process.returncode, out, err

    def expect(self, *arguments):
        rc, out, err = self.run_tool(*arguments)
        self.assertEqual(rc, 0, f"{arguments}: {err}")
        return out

    def test_sessions(self):
        with open(SESSION) as file:
            expected = file.read()
        log = ""
        for number, part in enumerate(re.findall(r"^(?:==|\$).*\n(?:<.*\n)*", expected, re.M)):
            log += part
            if part.startswith("=="):
                self.use_state(f"{self.folder}/{number}")
                continue
            command, *text = part.splitlines()
            rc, out, err = self.run_tool(*command.split()[2:],
                                         text="".join(line[2:] + "\n" for line in text))
            log += out + err + (f"[exit {rc}]\n" if rc else "")
        for pattern, word in VARYING:
            log = re.sub(pattern, word, log)
        if "ACCEPT" in os.environ:
            with open(SESSION, "w") as file:
                file.write(log)
        else:
            self.assertEqual(expected, log)

    def test_refusals(self):
        self.expect("init")
        for command, status, message in REFUSED:
            rc, out, err = self.run_tool(*command.split())
            self.assertEqual((rc, out), (status, ""), command)
            self.assertRegex(err, f"^vskvs: (.|\n)*{message}")
        for command in ("object list", "dump", "status", "--help"):
            with open("/dev/full", "w") as full:
                rc, _, err = self.run_tool(*command.split(), stdout=full)
            self.assertEqual(rc, 1, command)
            self.assertIn("No space left", err)
        # Nor does what the tool tells go into the store when there is no standard error.
        self.assertEqual(
            self.run_tool("object", "show", "9", preexec_fn=lambda: os.close(2))[0], 1)
        for name in ("store.mdb", "store.mdb-lock"):
            with open(f"{self.state}/{name}", "rb") as file:
                self.assertNotIn(b"vskvs: ", file.read())

    def test_every_command_has_help_with_an_example(self):
        def visit(words):
            text = self.expect(*words, "--help")
            self.assertIn("Example:", text, words)
            _, _, commands = text.partition("Subcommands:")
            for name in re.findall(r"^  (\w+) ", commands.partition("\n\n")[0], re.M):
                visit([*words, name])
        visit([])

    def test_a_short_record_is_found(self):
        self.expect("init")
        done = subprocess.run([sys.executable, "-c", STORE_SHORT_RECORD], env=self.environment,
                              capture_output=True, text=True)
        if "ASan" in done.stderr or "static TLS" in done.stderr:
            self.skipTest("the platform as built with sanitizers cannot be loaded here")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn("vskvs check", self.run_tool("object", "list")[2])
        self.assertRegex(self.run_tool("check", "--json")[1],
                         r'"finding": "record-length",\s*"database": "vs_objects",\s*.*: 5,')

    def test_import_is_all_or_nothing(self):
        count = 30000
        path = self.folder + "/many"
        with open(path, "w") as file:
            for i in range(1, count + 1):
                file.write(f'{{"vs_object_id": {i}, "selected_version": 1, "supp_versions": []}}\n')
        self.expect("init")
        pick = random.Random(1)
        seen = set()
        for _ in range(10):
            process = self.start("object", "import", path)
            time.sleep(pick.uniform(0.02, 0.4))
            process.kill()
            process.communicate()
            seen.add(self.expect("object", "list").count("\n") - 1)
        self.assertLessEqual(seen, {0, count})
        self.assertIn("imported", self.expect("object", "import", path))
        self.assertEqual(self.expect("object", "list").count("\n") - 1, count)

    def test_trace_survives_damage_and_follows(self):
        self.expect("--state-dir", self.state, "init")
        told = "all VS KVS DBs initialized successfully"
        self.assertIn(told, self.expect("trace", "--job", "4294967295"))
        self.assertEqual(self.expect("trace", "--since", "2000000000"), "")
        follower = self.start("trace", "--follow", "--operation", "vs_kvs_insert_vs_object_rec")
        time.sleep(0.3)
        self.expect("object", "add", "5", "--select", "1")
        self.assertIn("inserted vs object id: 0x5", follower.stdout.readline())
        follower.send_signal(signal.SIGINT)
        self.assertEqual((follower.communicate()[0], follower.returncode), ("", 0))
        pick = random.Random(2)
        buffer = self.state + "/ringlog/install/vs/kvs/-1/api"
        with open(buffer, "r+b") as file:
            size = file.seek(0, os.SEEK_END)
            for _ in range(2000):
                file.seek(pick.randrange(4096, size))
                file.write(bytes([pick.getrandbits(8)]))
        self.assertIn(self.run_tool("trace")[0], (0, 1))
        os.truncate(buffer, 100)
        rc, _, err = self.run_tool("trace")
        self.assertEqual(rc, 1)
        self.assertIn("install/vs/kvs/-1/api", err)


if __name__ == "__main__":
    unittest.main()
