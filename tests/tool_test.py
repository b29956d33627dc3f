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
import select
import signal
import struct
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
    (r"\d{4}-\d\d-\d\d[ T]\d\d:\d\d:\d\d\.\d+([+]0000|Z)?", "TIME"), (r"vskvs\[\d+\]", "vskvs[PID]"),
    (r'"(pid|tid)":\d{2,}(?=,"(tid|buffer|job)")', r'"\1":0'), (r"not JSON: .*", "not JSON: WHY"),
    (r"(vskvs\[PID\]) user \S+", r"\1 user USER"), (r'"uid":\d+,"user":"[^"]*"', '"uid":0,"user":"USER"'),
    (r'"transaction":\d+', '"transaction":0')]

# What must be refused, with the exit status and a part of the message.
REFUSED = [
    ("", 2, "subcommand"), ("frob", 2, "expected: frob"), ("object", 2, "subcommand"),
    ("object frob", 2, "expected: frob"),
    ("object show", 2, "ID"), ("object show 12x", 2, "not a number"), ("object show -1", 2, ""),
    ("object show 4294967296", 2, "32-bit"), ("object show 0x100000000", 2, "32-bit"),
    *[("object add 1 --select 1 --versions " + versions, 2, "not a number")
      for versions in ("1,x", "1,,2", "1,", ",")],
    ("object add 1 --select 1 --versions 1 2", 2, "expected: 2"),
    ("client add 1 --jid 1 --pid 1 --data 123", 2, "hex"),
    ("client add 1 --jid 1 --pid 1 --data " + "00" * 13, 2, "hex"),
    ("client add 1 --jid 1", 2, "--pid"), ("trace --since yesterday", 2, "not a time"),
    *[("log --until " + time, 2, "not a time")
      for time in ("2026-11-22T22:00:00.5Zulu", "2026-11-22T22:00:00.", "9999-01-01T00:00:00Z")],
    ("log 1 --registration 1", 2, "excludes"), ("log --follow --reverse", 2, "excludes"),
    ("trace --since 9999999999", 2, "not a time"), ("trace --since 1e9d", 2, "not a time"),
    ("status 99999999999", 2, "number"), ("status KVS_RC", 2, "name"),
    ("--state-dir= object list", 2, "expected: list"),
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

# The journal in the store's file: its salt and size, and an entry of one transaction.
JOURNAL_SIZE = 65536
JOURNAL_HEADER = struct.Struct("<QQII")
ENTRY_HEADER = struct.Struct("<IIQQQIIIIQ32s")
CHANGE_HEADER = struct.Struct("<IBBHQQQIIII")


def crc32c(data):
    crc = 0xffffffff
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = crc >> 1 ^ (0x82f63b78 if crc & 1 else 0)
    return crc ^ 0xffffffff


def object_bytes(key, selected, count, kept):
    return struct.pack("<6I", key, selected, 0, 0, 1, count) + bytes(4 * kept)


def change_bytes(kind, name, key, old, new, old_length=None, count=1, last=0):
    length = CHANGE_HEADER.size + len(name) + len(old) + len(new)
    old_length = len(old) if old_length is None else old_length
    return (CHANGE_HEADER.pack(length + -length % 8, kind, len(name), 0, key, last, count,
                               old_length, len(old), len(new), 0) +
            name + old + new + bytes(-length % 8))


# Changes that no library made, and the texts they are shown with.
FORGED = [
    (change_bytes(2, b"vs_objects", 1, object_bytes(1, 5, 2000, 1018),
                  object_bytes(1, 6, 1, 0) + b"\1\0\0\0", 8024),
     "object 0x1: selected_version 5 -> 6, supp_count 2000 -> 1, " +
     f"supp_version {', '.join(['0'] * 32)} and 986 more removed" +
     " (of the old record 4096 of 8024 bytes are kept)"),
    (change_bytes(3, b"vs_objects", 1, b"", b"", 99), "object 0x1 deleted, it was: 99 bytes " +
     "(of the old record 0 of 99 bytes are kept)"),
    (change_bytes(1, b"vs_objects", 2, b"", object_bytes(1, 5, 0, 0)),
     "object 0x2 added: 24 bytes 010000000500000000000000000000000100000000000000"),
    (change_bytes(1, b"vs_objects", 1, b"", object_bytes(1, 5, 0xffffffff, 1)),
     "object 0x1 added: 28 bytes 01000000050000000000000000000000" + "01000000ffffffff00000000"),
    (change_bytes(2, b"vs_clients_info", 3, struct.pack("<3I", 3, 1, 7), b"x" * 70),
     "clients of object 0x3: 12 bytes 030000000100000007000000 -> 70 bytes " + "78" * 64 + "..."),
    (change_bytes(9, HOSTILE, 1 << 32, b"", b"\0"), None),
    (change_bytes(4, b"none", 0, b"", b"", count=2**64 - 1, last=2**64 - 1),
     "none: 18446744073709551615 changes in one batch, first of record 0x0, last of record 0xffffffff"),
    (change_bytes(2, b"vs_clientobjectsreg", 3, struct.pack("<4I", 3, 2, 1, 2),
                  struct.pack("<4I", 3, 2, 2, 1)), "registration of job 3: another order of vs_array"),
]


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
        process = subprocess.Popen([TOOL, *arguments], env=self.environment, text=True,
                                   errors="surrogateescape", **{**pipes, **options})
        self.addCleanup(process.kill)
        return process

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
        self.environment["VS_VERBOSE"] = "frob"
        self.assertIn('ignoring "frob"', self.run_tool("check")[2])
        del self.environment["VS_VERBOSE"]
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

    def select_often(self, times, count=50):
        line = '{{"vs_object_id": {}, "selected_version": {}}}\n'
        for version in range(times):
            self.expect("object", "import", "--update", "-",
                        text="".join(line.format(i + 1, version) for i in range(count)))

    def import_objects(self, count):
        line = '{{"vs_object_id": {}, "selected_version": 99, "supp_versions": []}}\n'
        self.expect("object", "import", "-",
                    text="".join(line.format(i + 1) for i in range(count)))

    def test_log_says_what_is_gone(self):
        self.environment["VS_JOURNAL_SIZE"] = "64K"
        # More than the journal takes in one piece.
        self.import_objects(300)
        summary = json.loads(self.expect("log", "--json", "7").splitlines()[0])
        self.assertEqual((summary["kind"], summary["count"], summary["key"], summary["last_key"]),
                         ("summary", 300, 1, 300))
        self.select_often(20)
        *changes, end = map(json.loads, self.expect("log", "--json").splitlines())
        numbers = [change["sequence"] for change in changes]
        gone = numbers[-1] - numbers[0] + 1 - len(numbers)
        self.assertEqual(end, {"gap": {"first": numbers[0], "last": 1001,
                                       "gone_before": numbers[0] - 1, "gone_between": gone}})
        self.assertGreater(numbers[0], 1)
        for change in changes:
            self.assertEqual(change["old"]["selected_version"],
                             (change["sequence"] - 52) // 50 if change["sequence"] > 51 else 99)
        self.assertRegex(self.run_tool("log", "-n", "0")[2],
                         f"^vskvs: changes {numbers[0]} to 1001, since .*Z; "
                         f"{numbers[0] - 1} before them are gone")
        # The times that are printed are taken.
        times = [line.split()[0] for line in self.expect("log").splitlines()]
        for first, last in [(times[0], times[-1]), (changes[0]["time"], changes[-1]["time"]),
                            (times[0], times[0]), (times[-1][:-1] + "+0000", times[-1])]:
            chosen = [line.split()[0] for line in
                      self.expect("log", "--since", first, "--until", last).splitlines()]
            self.assertEqual(chosen, [time for time in times
                                      if first[:26] <= time[:26] <= last[:26]])
        # One that follows too slowly says what it missed.
        follower = self.start("log", "--follow", "--json", "-n", "0")
        self.assertEqual(json.loads(follower.stdout.readline()), end)
        follower.send_signal(signal.SIGSTOP)
        self.select_often(15)
        follower.send_signal(signal.SIGCONT)
        gap = json.loads(follower.stdout.readline())["gap"]
        self.assertEqual((gap["first"], gap["first"] + gap["gone_between"] + 1, gap["gone_before"]),
                         (1001, json.loads(follower.stdout.readline())["sequence"], 0))
        follower.send_signal(signal.SIGINT)
        follower.communicate()

    def test_log_takes_a_journal_as_it_is(self):
        self.environment["VS_JOURNAL_SIZE"] = "64K"
        self.expect("object", "import", "-",
                    text='{"vs_object_id": 1, "selected_version": 1, "supp_versions": []}')
        store = open(self.state + "/store.mdb", "r+b")
        self.addCleanup(store.close)
        image = store.read()
        places = [at for at in range(16, len(image) - JOURNAL_SIZE, 4096)
                  if JOURNAL_HEADER.unpack_from(image, at)[1] == JOURNAL_SIZE]
        self.assertEqual(len(places), 1)
        offset = JOURNAL_HEADER.size
        start = places[0] + offset
        salt = image[places[0]:places[0] + 8]
        _, _, sequence, transaction, *_ = ENTRY_HEADER.unpack_from(image, start)

        def write_entry(changes, count, process=b"x", is_damaged=False):
            body = ENTRY_HEADER.pack(0, ENTRY_HEADER.size + len(changes), sequence, transaction,
                                     2**64 - 1, count, 0, 2**32 - 1, 2**32 - 1, 2**64 - 1,
                                     process) + changes
            checksum = crc32c(salt + struct.pack("<Q", offset) + body[4:]) ^ is_damaged
            store.seek(start)
            store.write(struct.pack("<I", checksum) + body[4:])
            store.flush()

        whole = b"".join(change for change, _ in FORGED)
        write_entry(whole, len(FORGED), HOSTILE[:32])
        *changes, _ = map(json.loads, self.expect("log", "--json").splitlines())
        lines = self.expect("log").splitlines()
        self.assertEqual((len(changes), len(lines)), (len(FORGED), len(FORGED)))
        for change, line, (_, text) in zip(changes, lines, FORGED):
            self.assertNotRegex(line, UNPRINTABLE)
            if text is not None:
                self.assertEqual(change["text"], text)
                self.assertTrue(line.endswith("  " + text), line)
        too_long = change_bytes(1, b"n" * 65, 1, b"", b"")
        for unusable in [(whole, len(FORGED), b"x", True), (too_long + whole, 2)]:
            write_entry(*unusable)
            self.assertEqual(json.loads(self.expect("log", "--json"))["gap"]["last"], 0)
        # Any bytes, with a right checksum.
        pick = random.Random(3)
        for _ in range(30):
            forged = bytearray(whole[-1200:] if pick.random() < 0.5 else whole[:200])
            for _ in range(pick.randrange(1, 20)):
                forged[pick.randrange(len(forged))] = pick.choice([0, 1, 4, 48, 255])
            write_entry(bytes(forged), pick.choice([1, 8, 2**32 - 1]), bytes([255]) * 32)
            self.assertNotRegex(self.expect("log") + self.expect("log", "--json"), UNPRINTABLE)

    def test_watch_sees_changes_of_others(self):
        self.import_objects(2)
        watcher = self.start("watch", "2", "--json", "-n", "1")
        version = 0
        # Until it has begun to watch there is nothing to see.
        while not select.select([watcher.stdout], [], [], 0.05)[0] and version < 500:
            version += 1
            self.expect("object", "select", "1", str(version))
            self.expect("object", "select", "2", str(version))
        change = json.loads(watcher.communicate(timeout=60)[0])
        self.assertEqual((change["key"], watcher.returncode), (2, 0))
        self.assertIn(change["new"]["selected_version"], range(1, version + 1))
        # Between two changes it sleeps, until it is interrupted or its reader is gone.
        for end, status in [(lambda one: one.send_signal(signal.SIGINT), 0),
                            (lambda one: one.stdout.close(), -signal.SIGPIPE)]:
            follower = self.start("log", "--follow", "-n", "0")
            self.assertIn("changes 1 to ", follower.stderr.readline())
            for version in (1001, 1002):
                self.expect("object", "select", "1", str(version))
                self.assertIn(f"-> {version}\n", follower.stdout.readline())
            end(follower)
            self.assertEqual(follower.wait(timeout=60), status)
            follower.stdin.close()
            follower.stderr.close()
            follower.stdout.close()

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
            self.assertEqual("file is damaged" in err, "dump --salvage" in err)
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
