"""The tool as its user drives it: tool_test.py VARN C_BASIC BANK, in an IPC namespace of its own."""

import collections
import contextlib
import ctypes
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import unittest

VARN, C_BASIC, BANK = sys.argv[1:4]
DEADLINE = 60
GID = "20260801093000000HQ0001A000001"
SLEEPER = ["sh", "-c", "echo ready; exec sleep 1000"]


def ipc_objects():
    """What /proc lists of shared objects, without the counts and times that change."""
    listed = set()
    for kind in ("shm", "sem", "msg"):
        for line in pathlib.Path("/proc/sysvipc", kind).read_text().splitlines()[1:]:
            listed.add((kind, *line.split()[:2]))
    return listed


def summary(text):
    """The numbers of the summary by their label."""
    rows = re.findall(r"^ *([a-zA-Z][\w ]*?)  +(\d[\d ]*)", text.split("---- summary ----")[1], re.M)
    return {label: [int(number) for number in numbers.split()] for label, numbers in rows}


def read_json(path):
    return [json.loads(line) for line in path.read_text("utf-8").splitlines()]


def add_failed_sends(queue, count):
    """As a traced process counts them, under the sample's key."""
    libc = ctypes.CDLL(None)
    libc.shmat.restype = ctypes.c_void_p
    libc.shmdt.argtypes = [ctypes.c_void_p]
    address = libc.shmat(libc.shmget(717001, 0, 0), None, 0)
    (ctypes.c_uint32 * 16).from_address(address + 180)[queue] += count
    libc.shmdt(address)


def tong_record(gid, time, direction, telegram, length=None):
    """As the writer of a traced process appends it."""
    length = len(telegram) if length is None else length
    return (gid.encode().ljust(30) + f"{time:017.6f}".replace(".", "").encode() +
            b"apphost01      " + direction + b"%06d" % length + telegram + b"\n")


class Tool(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.home = pathlib.Path(directory.name)
        self.config = self.home / "varn.cfg"
        self.temp = self.home / "temp"
        self.temp.mkdir()
        self.environment = {"PATH": os.environ["PATH"], "TMPDIR": str(self.temp)}
        self.before = ipc_objects()

    def start(self, *command):
        return subprocess.Popen([str(word) for word in command], env=self.environment, text=True,
                                encoding="utf-8", stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def done(self, *command, status=0):
        """Output and errors of a command that must end with the status."""
        return self.ended(self.start(*command), status)

    def ended(self, process, status):
        out, err = process.communicate(timeout=DEADLINE)
        self.assertEqual(process.returncode, status, out + err)
        return out, err

    def varn(self, *arguments, status=0):
        return self.done(VARN, *arguments, status=status)

    def expect_nothing_left(self):
        self.assertEqual(ipc_objects(), self.before)
        self.assertEqual(list(self.temp.iterdir()), [])

    @contextlib.contextmanager
    def installation(self):
        self.varn("init", self.config)
        self.environment |= {"TRAN_HOME": str(self.home), "TRAN_AGT_HOME": str(self.home),
                             "TRAN_AGT_CFG_FILE": str(self.config)}
        self.varn("up", "-c", self.config)
        try:
            yield
        finally:
            self.varn("down", "-c", self.config)
        self.expect_nothing_left()

    def collect(self, *options):
        collecting = self.start(VARN, "collect", *options)
        self.assertIn("collecting from 4 queues", collecting.stderr.readline())
        return collecting

    def test_init_overwrites_only_when_forced(self):
        self.varn("init", self.config)
        sample = self.config.read_text()
        self.config.write_text("mine")
        self.assertIn("varn.cfg is there already", self.varn("init", self.config, status=1)[1])
        self.assertEqual(self.config.read_text(), "mine")
        self.varn("init", "--force", self.config)
        self.assertEqual(self.config.read_text(), sample)

    def test_an_installation_is_made_adopted_collected_and_removed(self):
        missing = self.varn("up", "-c", self.config, status=1)[1]
        self.assertIn(f"cannot open the configuration file {self.config}", missing)
        with self.installation():
            self.assertIn("0 of 9 shared objects made", self.varn("up")[0])
            records = self.home / "records"
            collecting = self.collect("--format", "json", "--out", records)
            self.assertIn("TRAN_END   2", self.done(C_BASIC)[0])
            add_failed_sends(2, 7)
            collecting.send_signal(signal.SIGTERM)
            counts = summary(self.ended(collecting, 0)[1])
            lines = sorted(read_json(records), key=lambda line: line["queue"])
            self.assertEqual([line["kind"] for line in lines], 
                             ["event", "start", "sql", "dbio", "info", "call", "info", "end"])
            event, start, sql, dbio, info, call, statistics, end = lines
            self.assertEqual(event["code"], "1508")
            self.assertEqual(event["message"], "거래추적 대상 프로세스(c_basic)가 기동되었습니다.")
            for line in lines[1:]:
                self.assertEqual((line["queue"], line["gid"], line["svc_id"], line["proc_nm"]),
                                 (2, GID, "HELLO001", "" if line is sql else "c_basic"))
            self.assertEqual((start["depth"], start["chnl_typ_cd"], start["recv_svc_cd"]),
                             (1, "WEB", "HELLO001"))
            self.assertEqual(info["message"], "half way there")
            self.assertEqual(sql["statement"]["sql"],
                             "SELECT text FROM greetings WHERE language = 'ko'")
            self.assertEqual((dbio["call"]["function"], dbio["call"]["level"],
                              dbio["call"]["sqlcode"], dbio["call"]["fetched_rows"]),
                             ("db_select_greeting", 2, 0, 1))
            self.assertEqual((call["call"]["function"], call["call"]["database_us"]),
                             ("greet", dbio["call"]["total_us"]))
            self.assertRegex(statistics["message"], r"총 호출 2 건 .* BIZCALL\(Method\) 1건 "
                                                    r"\(전체 Avg/Max +[1-9]\d*\.\d\d/")
            self.assertGreaterEqual(end["elapsed_us"], 2000)
            self.assertEqual(counts["records"], [8])
            self.assertEqual(counts["queue 2"], [7, 7, 7])
            self.assertEqual(counts["failed sends"], [7, 7])

            # What a queue holds when told to stop is shown; failures of before are told apart.
            self.done(C_BASIC)
            collecting = self.collect()
            collecting.send_signal(signal.SIGINT)
            out = self.ended(collecting, 0)[0]
            self.assertRegex(out, rf"\d\d:\d\d:\d\d\.\d{{6}} c_basic\(\d+\) +\d+ {GID} +01 +end "
                                  r"+\d+\.\d{3}ms HELLO001 ")
            self.assertRegex(out, r" dbio +\d+\.\d{3}ms +HELLO001 +level 2 db_select_greeting at greet "
                                  r"\(main\.c:\d+\) ")
            self.assertEqual(summary(out)["records"], [8])
            self.assertEqual(summary(out)["queue 2"], [7, 0, 7])
            self.assertEqual(summary(out)["HELLO001"][:1], [1])

            collecting = self.collect()
            self.done(C_BASIC)
            self.varn("down")
            self.assertIn("queue 0 was removed", self.ended(collecting, 1)[1])
            self.assertIn("`varn up -c", self.varn("collect", status=1)[1])

    def test_run_ends_as_its_command_does_and_leaves_nothing(self):
        plain = self.home / "plain"
        plain.write_text("no program")
        for command, status in ((["true"], 0), (["sh", "-c", "exit 3"], 3), ([C_BASIC], 0),
                                (["sh", "-c", "kill -SEGV $$"], 139), (["no-such-command"], 127),
                                ([plain], 126), ([self.home], 126), ([], 125)):
            with self.subTest(command=command):
                self.varn("run", "--", *command, status=status)
                self.expect_nothing_left()
        self.assertTrue(self.varn("run", "--", "echo", "--out", "--")[0].startswith("--out --\n"))

    def test_run_passes_signals_on_and_leaves_nothing(self):
        heeding = ["sh", "-c", "trap 'exit 7' TERM; echo ready; while :; do sleep 0.01; done"]
        for command, number, status in ((SLEEPER, signal.SIGTERM, 143),
                                        (SLEEPER, signal.SIGINT, 130),
                                        (heeding, signal.SIGTERM, 7)):
            with self.subTest(signal=number, status=status):
                running = self.start(VARN, "run", "--", *command)
                self.assertEqual(running.stdout.readline(), "ready\n")
                self.assertEqual(len(ipc_objects() - self.before), 9)
                running.send_signal(number)
                self.ended(running, status)
                self.expect_nothing_left()

    def test_run_takes_tuning_values_from_a_file(self):
        self.varn("init", self.config)
        text = self.config.read_text().replace("TRAN_LOG_FLAG_SET = SEVBCIXQ", "TRAN_LOG_FLAG_SET = S")
        self.config.write_text(text)
        counts = summary(self.varn("run", "-c", self.config, "--", C_BASIC)[0])
        self.assertEqual((counts["records"], counts["start"], counts["end"]), ([2], [1], [1]))
        self.config.write_text(text.replace("QUE_CNT = 4", "QUE_CNT = 3"))
        self.assertIn("[TRAN_LOGF] QUE_CNT is 3",
                      self.varn("run", "-c", self.config, "--", C_BASIC, status=125)[1])
        self.expect_nothing_left()

    def test_whole_telegrams_are_shown_paired_and_checked(self):
        self.environment["TZ"] = "Asia/Seoul"
        noon = 1785553200  # 2026-08-01 12:00 in Seoul
        text = "이체 접수\n".encode("euc-kr").ljust(512)
        look_alike = tong_record("GX", noon, b"S", b"inner") * 2
        # G1 calls itself, and ends the next day.
        first = (tong_record("G1", noon, b"S", text) +
                 tong_record("G1", noon + 0.001, b"S", look_alike) +
                 tong_record("G2", noon + 0.002, b"U", text) +
                 tong_record("G1", noon + 0.003, b"F", text))
        second = tong_record("G1", noon + 86400, b"F", text)
        wrong_length = tong_record("G3", noon + 86400, b"S", text, 400)
        whole, torn = self.home / "day1.dat", self.home / "day2.dat"
        whole.write_bytes(first)
        torn.write_bytes(second + wrong_length + second * 2 + first[:100])

        out, err = self.varn("tong", whole)
        self.assertEqual(err, "")
        rows = [line.split() for line in out.splitlines()]
        self.assertEqual(rows[0], ["2026-08-01", "12:00:00.000000", "request", "G1", "apphost01", "512"])
        self.assertEqual([row[2:4] + row[6:] for row in rows[1:5]],
                         [["request", "G1"], ["other", "G2"], ["response", "G1", "2.000ms"], ["----"]])
        self.assertIn("\n  이체 접수␊", self.varn("tong", "--show", whole)[0])
        out = self.varn("tong", "--gid", "G2", whole)[0]
        self.assertEqual(summary(out)["records"], [1])
        self.assertNotIn("G1", out)

        damage = [(len(second), len(second)), (len(second) * 4, 100)]
        out, err = self.varn("tong", "-q", whole, torn, status=1)
        self.assertEqual(err, f"varn: {torn}: damaged at offset {damage[0][0]}, {damage[0][1]} bytes\n"
                              f"varn: {torn}: torn last record at offset {damage[1][0]}, 100 bytes\n")
        self.assertTrue(out.startswith("---- summary ----\n"))
        self.assertEqual({label: numbers[0] for label, numbers in summary(out).items()},
                         {"files": 2, "records": 7, "requests": 2, "responses": 4, "pairs": 2,
                          "unanswered requests": 0, "responses without request": 2,
                          "bytes of telegrams": 6 * 512 + len(look_alike), "shortest ms": 2,
                          "average ms": 43200001, "longest ms": 86400000, "damaged places": 2})

        out, err = self.varn("tong", "--format", "json", "--show", whole, torn, status=1)
        lines = [json.loads(line) for line in out.splitlines()]
        self.assertEqual([line.get("elapsed_us") for line in lines],
                         [None, None, None, 2000, 86400_000_000] + [None] * 4)
        self.assertEqual([(line["offset"], line["size"], line["is_tail"]) for line in lines
                          if line["kind"] == "damage"], [(*damage[0], False), (*damage[1], True)])
        expected = {"kind": "record", "file": str(torn), "offset": 0, "direction": "response",
                    "time": "2026-08-02 12:00:00.000000", "time_us": (noon + 86400) * 1_000_000,
                    "gid": "G1", "host_name": "apphost01", "length": 512,
                    "telegram": text.decode("euc-kr").replace("\n", "␊")}
        self.assertEqual(lines[4], expected | {"elapsed_us": 86400_000_000})
        self.assertIn("damaged places", err)

        err = self.varn("tong", self.home, self.home / "absent", whole, status=1)[1]
        self.assertEqual(err, f"varn: cannot read {self.home}: Is a directory\n"
                              f"varn: cannot open {self.home}/absent: No such file or directory\n")
        self.varn("tong", status=2)
        self.varn("tong", "--format", "tree", whole, status=2)

    def test_the_oldest_of_too_many_open_requests_are_given_up(self):
        path = self.home / "many.dat"
        answered = tong_record("G0", 0, b"S", b"") + tong_record("G0", 0, b"F", b"")
        path.write_bytes(answered * 3 +
                         b"".join(tong_record(f"G{n}", n, b"S", b"") for n in range(100_002)) +
                         tong_record("G1", 1, b"F", b"") + tong_record("G2", 3, b"F", b""))
        counts = summary(self.varn("tong", "-q", path)[0])
        self.assertEqual((counts["pairs"], counts["not waited for to the end"],
                          counts["responses without request"]), ([4], [2], [1]))

    def test_whole_telegrams_go_where_the_user_says(self):
        place = self.home / "whole telegrams" / ("x" * 100)
        script = ("grep ^TONG_LOG $TRAN_AGT_CFG_FILE; echo whole >"
                  "$(sed -n 's/^TONG_LOG_HOME = //p' $TRAN_AGT_CFG_FILE)/file")
        out = self.varn("run", "--tong", place, "--", "sh", "-c", script)[0]
        self.assertRegex(out, r"^TONG_LOG_HOME = /\S{1,63}\nTONG_LOG_FLAG = 1\n")
        self.assertEqual((place / "file").read_text(), "whole\n")
        self.assertEqual(place.stat().st_mode & 0o7777, 0o700)
        self.assertIn("TONG_LOG_FLAG = 0\n", self.varn("run", "--", "sh", "-c", script)[0])
        err = self.varn("run", "--tong", place / "file", "--", "true", status=125)[1]
        self.assertIn(f"whole telegrams cannot be kept in {place}/file: Not a directory", err)
        self.varn("run", "--tong", "", "--", "true", status=125)
        self.expect_nothing_left()

        place = self.home / "tong"
        self.varn("init", self.config)
        text = self.config.read_text()
        text = text.replace("TONG_LOG_HOME = /tmp", f"TONG_LOG_HOME = {str(place)[1:]}")
        for flag, made in (("", False), ("TONG_LOG_FLAG = 0", False), ("TONG_LOG_FLAG = 1", True)):
            self.config.write_text(text.replace("TONG_LOG_FLAG = 0", flag))
            out, err = self.varn("up", "-c", self.config)
            self.assertEqual((err, "telegrams" in out, place.exists()), ("", made, made))
        self.assertEqual(place.stat().st_mode & 0o7777, 0o1770)
        place.chmod(0o777)
        self.assertIn(f"note: {place} is open to all users", self.varn("up", "-c", self.config)[0])
        self.varn("down", "-c", self.config)
        self.config.write_text(text.replace("TONG_LOG_FLAG = 0", "TONG_LOG_FLAG = yes"))
        err = self.varn("up", "-c", self.config, status=1)[1]
        self.assertRegex(err, r'varn\.cfg:\d+: \[TRAN_LOGF\] TONG_LOG_FLAG is "yes", which is not a '
                              r"decimal number")
        self.expect_nothing_left()

    def test_run_shows_the_whole_of_a_program(self):
        out, err = self.varn("run", "--", BANK, "-n", "40", "-r", "200")
        self.assertIn("이체 접수 [", out)
        self.assertRegex(out, r"XFER0001  .*\n(.*\n)*?.* ├─ attempt \(service\.cpp:\d+\)\n"
                              r".* │  ├─ db_begin at Transaction .*\n.* │  │  └─ BEGIN IMMEDIATE\n")
        self.assertNotIn("\N{REPLACEMENT CHARACTER}", out)
        self.assertNotIn("last faults", out)
        records = self.home / "records"
        err = self.varn("run", "--format", "json", "--out", records, "--", BANK, "-n", "40", "-r",
                        "200")[1]
        lines = read_json(records)
        kinds = collections.Counter(line["kind"] for line in lines)
        counts = summary(err)
        self.assertEqual({kind: counts[kind] for kind in kinds},
                         {kind: [count] for kind, count in kinds.items()})
        self.assertEqual(counts["records"], [len(lines)])
        self.assertEqual(sum(counts[f"queue {n}"][0] for n in range(4)), len(lines))
        if int(pathlib.Path("/proc/sys/kernel/msgmnb").read_text()) >= 1 << 20:
            self.assertEqual(counts["failed sends"], [0, 0])
            self.assertEqual(counts["start"], counts["end"])
            self.assertEqual(counts["transactions"], [40])
            depths = collections.Counter(line["depth"] for line in lines if line["kind"] == "end")
            self.assertEqual(depths[1], 40)
            self.assertGreater(depths[2], 0)
        self.expect_nothing_left()


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
