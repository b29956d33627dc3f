#!/usr/bin/env python3
"""The tool as a process. Usage: tool_test.py VSKVS [unittest arguments]

The sessions of tool_session.txt are held as they are written there: after "==" a fresh store, after
"$" a command, after "<" its standard input, and then its output. With ACCEPT=1 that file is
written anew, and the difference is to be reviewed.
"""
import json
import os
import random
import re
import resource
import signal
import subprocess
import sys
import tempfile
import threading
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
    ("trace --since 9999999999", 2, "not a time"), ("trace --since 1e9d", 2, "not a time"),
    ("status 99999999999", 2, "number"), ("--state-dir= object list", 2, "subcommand"),
    ("object import /nonexistent", 1, "No such file"), ("restore /nonexistent", 1, "No such file"),
    ("--state-dir /" + "x" * 3000 + " object list", 2, "--state-dir"),
    ("--state-dir /proc/nowhere object list", 1, "database not available"),
]

LINE_LIMIT = 16 << 20
FIELDS = "".join(f', "f{i}": 0' for i in range(60000)).encode()

# Lines that no command takes, with the column and the message.
INVALID_LINES = [
    (b'{"vs_object_id": 1} \0 x', 21, "not JSON: control character 0x0"),
    (b'{"a": "\x01"}', 8, "not JSON: control character 0x1"),
    (b'{"a":\r1}', 6, "not JSON: control character 0xd"),
    *[(b'{"a":1, "\xc3\xa9' + bad + b'": 1}', 12, "not JSON: invalid UTF-8")
      for bad in (b"\xff", b"\x80", b"\xc0\x80", b"\xe2\x82", b"\xed\xa0\x80", b"\xf4\x90\x80\x80")],
    (b'{"a": 1e999}', 12, "not JSON: number overflow parsing '1e999'"),
    (b'{"a": ' + b"[" * 50000, 70, "nested deeper than 64 levels"),
    (b'{"a": ' + b'{"a":' * 50000, 7 + 5 * 63, "nested deeper than 64 levels"),
    (b'{"a": 1' + FIELDS + b', "f7": 0}', 10 + len(FIELDS), 'field "f7" is given twice'),
    (b'{"a": [0, {"b": 1, "b": 2}]}', 20, 'field "b" is given twice'),
    (b" " * (LINE_LIMIT + 1), LINE_LIMIT + 1, "a line of more than 16 MB"),
]
# Lines that are taken apart, but hold no VS object.
UNFIT_LINES = [
    (b'{"a": ' + b"[" * 63 + b"]" * 63 + b"}", 2, 'unknown field "a"'),
    (b'{"supp_versions": [1], "supp_versions/0": 1}', 24, 'unknown field "supp_versions/0"'),
    (b'{"n' + b"n" * 600 + b'": 1}', 2, 'unknown field "' + "n" * 485 + "..."),
    (b'{"vs_object_id": 1, "selected_version": 1, "supp_versions": [' + b"1," * 500000 + b'-1]}',
     1000062, "supp_versions/500000 must be a whole number from 0 to 4294967295"),
]

# Text that would change what a terminal shows; only its last letter may be printed.
HOSTILE = (b"\x1b[31m\r\n\t\x7f\xff\xc0\x80\xed\xa0\x80" +
           "\x80\x85\x9b\u061c\u200e\u200f\u2028\u202a\u202e\u2066\u2069\u00e9".encode())
UNPRINTABLE = r"[\0-\x09\x0b-\x1f\x7f-\x9f\u061c\u200e\u200f\u2028-\u202e\u2066-\u2069\ud800-\udfff]"

# Scripts that use the platform, without the library.
WITH_PLATFORM = f"""
import ctypes, os, struct, sys
lib = ctypes.CDLL({os.path.dirname(TOOL)!r} + "/../libvs_platform.so")
def open_buffer(name):
    handle = ctypes.c_uint64()
    assert lib.ringlog_init2(name, 0, 0, 16, 16, 0, ctypes.byref(handle)) == 0
    return handle
def emit(name):
    lib._ringlog_emit(open_buffer(name), ctypes.c_uint64(0x30200000001), name, name)
"""
EMIT_HOSTILE = f"""
text = {HOSTILE!r}
ctypes.CDLL(None).prctl(15, text[:15])
emit(b"x/" + text)
"""
EMIT_TO_MANY = """
for i in [*range(0, 400, 2), *range(1, 400, 2)]:
    if os.fork() == 0: # a process has room for 256 buffers
        emit(b"many/%d" % i)
        os._exit(0)
    assert os.wait()[1] == 0
"""

# Stores a VS object that is shorter than its count says, behind the library's back.
STORE_SHORT_RECORD = """
hdl, rec = ctypes.c_uint64(), ctypes.c_uint64()
record = struct.pack("7I", 5, 1, 0, 0, 0, 3, 1)
data = (ctypes.c_uint64 * 2)(ctypes.cast(record, ctypes.c_void_p).value, len(record))
attr = ctypes.create_string_buffer(struct.pack("IIQQ", 0, 4, 0, 0))
assert lib.kvs_lookup_db_handle(b"vs_objects", ctypes.byref(hdl)) == 0
assert lib.kvs_insert_object(hdl, data, 1, attr, 1, 0, 0, ctypes.byref(rec)) == 0
"""

BEGIN_BATCH_AND_STOP = """
hdl = ctypes.c_uint64()
assert lib.kvs_lookup_db_handle(b"vs_objects", ctypes.byref(hdl)) == 0
assert lib.kvs_batch_begin(hdl) == 0
os.kill(os.getpid(), 19)
"""


def limit_descriptors(count):
    return lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (count, count))


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
                                errors="surrogateescape", **{**pipes, **options})

    def run_tool(self, *arguments, text="", **options):
        process = self.start(*arguments, **options)
        out, err = process.communicate(text)
        return process.returncode, out, err

    def expect(self, *arguments, **options):
        rc, out, err = self.run_tool(*arguments, **options)
        self.assertEqual(rc, 0, f"{arguments}: {err}")
        return out

    def start_script(self, script):
        return subprocess.Popen([sys.executable, "-c", WITH_PLATFORM + script],
                                env=self.environment, stderr=subprocess.PIPE, text=True)

    def finish_script(self, process):
        err = process.communicate()[1]
        if "ASan" in err or "static TLS" in err:
            self.skipTest("the platform as built with sanitizers cannot be loaded here")
        self.assertEqual(process.returncode, 0, err)

    def run_script(self, script):
        self.finish_script(self.start_script(script))

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
        # A file size limit is an error, not the end of the tool.
        with open(self.folder + "/limited", "w") as limited:
            rc, _, err = self.run_tool("status", stdout=limited, preexec_fn=lambda:
                                       resource.setrlimit(resource.RLIMIT_FSIZE, (100, -1)))
        self.assertEqual((rc, "File too large" in err), (1, True), err)
        # Nor does what the tool prints go into the store when there is no standard error.
        self.assertEqual(
            self.run_tool("object", "show", "9", preexec_fn=lambda: os.close(2))[0], 1)
        for name in ("store.mdb", "store.mdb-lock"):
            with open(f"{self.state}/{name}", "rb") as file:
                self.assertNotIn(b"vskvs: ", file.read())

    def test_lines_that_are_refused(self):
        self.expect("init")
        path = self.folder + "/line"
        cases = [(("restore", path), *case) for case in INVALID_LINES]
        cases += [(("object", "import", path), *case) for case in INVALID_LINES + UNFIT_LINES]
        for command, line, column, message in cases:
            with open(path, "wb") as file:
                file.write(b"\n" + line + b"\n")
            expected = (1, "", f"vskvs: {path}:2:{column}: {message}\n")
            self.assertEqual(self.run_tool(*command), expected, line[:80])
        # What is too long is refused without the rest of the line.
        process = self.start("object", "import", "-", stderr=subprocess.STDOUT)
        process.stdin.write(" " * (LINE_LIMIT + 1))
        process.stdin.flush()
        self.assertIn(f"-:1:{LINE_LIMIT + 1}: ", process.stdout.readline())
        process.communicate()

    def test_only_printable_text_is_printed(self):
        self.expect("init")
        path = self.folder + "/line"
        with open(path, "w") as file:
            json.dump({HOSTILE.decode(errors="replace"): 1}, file)
        client = ("client", "add", "1", "--jid", "1", "--pid", "1", "--data", HOSTILE)
        for lines, *command in [
                (1, "object", "import", HOSTILE), (1, "object", "import", path),
                (1, "restore", HOSTILE), (2, "trace", HOSTILE), (1, *client),
                (2, "object", "show", HOSTILE), (2, "trace", "--since", HOSTILE)]:
            rc, out, err = self.run_tool(*command)
            self.assertIn(rc, (1, 2), command)
            self.assertNotRegex(out + err, UNPRINTABLE, command)
            self.assertIn("\u00e9", err, command)
            self.assertEqual(err.count("\n"), lines, command)
        self.run_script(EMIT_HOSTILE)
        text = self.expect("trace")
        self.assertEqual((text.count("\n"), text.count("\u00e9")), (1 + text.count("vskvs["), 3))
        document = self.expect("trace", "--json", "x/" + HOSTILE.decode(errors="surrogateescape"))
        self.assertEqual(json.loads(document)["operation"],
                         "x/" + HOSTILE.decode(errors="replace"))
        self.assertNotRegex(text + document, UNPRINTABLE)

    def test_trace_of_many_buffers(self):
        self.run_script(EMIT_TO_MANY)
        def numbers(lines):
            return [int(re.search(r"  many/(\d+)  ", line)[1]) for line in lines]
        lines = self.expect("trace", preexec_fn=limit_descriptors(16)).splitlines()
        self.assertEqual(numbers(lines), [*range(0, 400, 2), *range(1, 400, 2)])
        follower = self.start("trace", "--follow", preexec_fn=limit_descriptors(150))
        for _ in lines:
            follower.stdout.readline()
        for name in (b"many/1", b"many/399", b"none/0", b"many/1"):
            self.run_script(f"emit({name})")
            self.assertIn(f"  {name.decode()}  ", follower.stdout.readline())
        follower.send_signal(signal.SIGINT)
        self.assertEqual((follower.communicate(), follower.returncode), (("", ""), 0))

    def test_a_short_record_is_found(self):
        self.expect("init")
        self.run_script(STORE_SHORT_RECORD)
        self.assertIn("vskvs check", self.run_tool("object", "list")[2])
        self.assertRegex(self.run_tool("check", "--json")[1],
                         r'"finding": "record-length",\s*"database": "vs_objects",\s*.*: 5,')

    def write_objects(self, count):
        path = self.folder + "/many"
        with open(path, "w") as file:
            for i in range(1, count + 1):
                file.write(f'{{"vs_object_id": {i}, "selected_version": 1, "supp_versions": []}}\n')
        self.expect("init")
        return path

    def test_a_stopped_writer_is_named(self):
        self.expect("init")
        writer = self.start_script(BEGIN_BATCH_AND_STOP)
        if os.waitid(os.P_PID, writer.pid, os.WSTOPPED | os.WEXITED | os.WNOWAIT).si_code \
                != os.CLD_STOPPED:
            self.finish_script(writer)
        end = threading.Timer(60, writer.kill)
        self.addCleanup(end.cancel)
        end.start()
        process = self.start("object", "add", "5", "--select", "1")
        line = process.stderr.readline()
        writer.kill()
        writer.communicate()
        self.assertRegex(line, r"^vskvs: waiting since \d\d:\d\d:\d\d UTC for the store, held by "
                               rf"process {writer.pid} \(.*\), which is stopped\n$")
        self.assertEqual((process.communicate()[1], process.returncode), ("", 0))

    # What the terminal stops is not left in the middle of a batch, where it would stop all others.
    def test_a_stop_waits_for_the_end_of_a_batch(self):
        count = 30000
        path = self.write_objects(count)
        pick = random.Random(3)
        for i in range(10):
            process = self.start("object", "import", path, preexec_fn=lambda: os.setpgid(0, 0))
            time.sleep(pick.uniform(0.02, 0.3))
            os.kill(process.pid, signal.SIGTSTP)
            os.waitid(os.P_PID, process.pid, os.WSTOPPED | os.WEXITED | os.WNOWAIT)
            other = self.start("object", "add", str(count + i + 1), "--select", "1")
            self.addCleanup(process.kill)
            self.assertEqual((other.communicate(timeout=60)[1], other.returncode), ("", 0))
            process.send_signal(signal.SIGCONT)
            self.assertIn("imported", process.communicate()[0])

    def test_import_is_all_or_nothing(self):
        count = 5000  # takes more than one call of the library
        path = self.write_objects(count)
        self.expect("object", "add", str(count), "--select", "2", "--versions", "2")
        self.assertIn("another record", self.run_tool("object", "import", path)[2])
        self.assertEqual(self.expect("object", "list").count("\n"), 1 + 1)
        self.expect("object", "delete", str(count))
        self.assertIn(f"imported {count} objects", self.expect("object", "import", path))
        self.assertEqual(self.expect("object", "list").count("\n"), 1 + count)

    def test_checks_and_salvages_a_damaged_store(self):
        pick = random.Random(3)
        records = ('{"vs_object_id": %d, "selected_version": 0, "supp_versions": %s}\n' %
                   (i, [0] * (i % 50)) for i in range(1, 2001))
        self.environment["VS_JOURNAL_SIZE"] = "64K"  # most of the damage is to meet records
        self.expect("init")
        self.expect("object", "import", "-", text="".join(records))
        ever = set(self.expect("dump").splitlines())
        for i in range(1, 2000, 100):
            self.expect("object", "delete", str(i))
        dump = self.expect("dump")
        self.assertEqual(self.expect("dump", "--salvage"), dump)
        store = self.state + "/store.mdb"
        with open(store, "rb") as file:
            sound = file.read()
        for trial in range(int(os.environ.get("TRIALS", "16"))):
            harmed = bytearray(sound)
            at, other = (pick.randrange(len(sound) // 4096) * 4096 for _ in range(2))
            if trial % 4 == 0:
                harmed[pick.randrange(len(sound))] ^= 1 << pick.randrange(8)
            elif trial % 4 == 1:
                harmed[at:at + 4096] = pick.randbytes(4096)
            elif trial % 4 == 2:
                harmed[at:at + 4096] = sound[other:other + 4096]
            else:
                del harmed[pick.randrange(len(sound)):]
            with open(store, "wb") as file:
                file.write(harmed)
            rc, out, err = self.run_tool("check")
            self.assertIn((rc, out), [(0, "everything fits together\n"), (1, "")], err)
            salvage_rc, salvaged, err = self.run_tool("dump", "--salvage")
            self.assertEqual(salvage_rc, rc, err)
            if rc == 0:
                self.assertEqual(salvaged, dump)
                continue
            self.assertIn("vskvs: dump: the store is damaged\n", err)
            self.assertLessEqual(set(salvaged.splitlines()[:-1]), ever)
            with tempfile.TemporaryDirectory() as empty:
                self.expect("--state-dir", empty, "restore", "-", text=salvaged)
                self.assertEqual(self.expect("--state-dir", empty, "dump"), salvaged)

    def test_trace_names_a_damaged_buffer(self):
        self.expect("--state-dir", self.state, "init")
        os.truncate(self.state + "/ringlog/install/vs/kvs/-1/api", 100)
        rc, out, err = self.run_tool("trace")
        self.assertEqual((rc, out, "install/vs/kvs/-1/api" in err), (1, "", True))


if __name__ == "__main__":
    unittest.main()
