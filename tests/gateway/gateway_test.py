"""Telegrams over sockets, traced with two calls: gateway_test.py VARN GATEWAY, in an IPC namespace
of its own."""

import collections
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

VARN, GATEWAY = sys.argv[1:]
DEADLINE = 120
QUEUE_BYTES = int(pathlib.Path("/proc/sys/kernel/msgmnb").read_text())
ROUNDS = 2  # of the 16 kinds of requests that the client sends in turn
ENVIRONMENT = {name: value for name, value in os.environ.items() if not name.startswith("TRAN_")}


def tong_records(data):
    """GID, direction and telegram of each."""
    while data:
        gid, direction, size = data[:30].decode(), chr(data[61]), int(data[62:68])
        yield gid, direction, data[68:68 + size]
        assert data[68 + size:69 + size] == b"\n", gid
        data = data[69 + size:]


def counted(records, *fields):
    return collections.Counter(tuple(record[field] for field in fields) for record in records)


def times_rounds(counts):
    return {key: ROUNDS * count for key, count in counts.items()}


class Traced(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with tempfile.TemporaryDirectory() as home:
            out, tong = pathlib.Path(home, "records"), pathlib.Path(home, "tong")
            tong.mkdir()
            cls.done = subprocess.run(
                [VARN, "run", "--format", "json", "--out", out, "--tong", tong, "--", GATEWAY,
                 "-n", str(16 * ROUNDS)],
                env=ENVIRONMENT, encoding="utf-8", timeout=DEADLINE, capture_output=True)
            if "those records are lost" in cls.done.stderr and QUEUE_BYTES < 1 << 20:
                raise unittest.SkipTest("a queue that may not be made larger was full")
            cls.kinds = collections.defaultdict(list)
            for line in out.read_text("utf-8").splitlines():
                cls.kinds[json.loads(line)["kind"]].append(json.loads(line))
            [log] = tong.iterdir()
            cls.tong = list(tong_records(log.read_bytes()))

    def test_every_answer_is_right(self):
        self.assertEqual(self.done.returncode, 0, self.done.stderr)
        self.assertRegex(self.done.stdout, "7 broken telegrams refused; 0 wrong answers")

    def test_whole_telegrams_start_and_end_services_and_broken_ones_are_events(self):
        services = times_rounds({("DEPBAL001",): 2, ("DEPXFR001",): 7, ("CLHBAL001V01",): 2,
                                 ("NOSUCH001",): 1, ("ERRRLY001",): 4})
        for kind in "start", "end":
            self.assertEqual(counted(self.kinds[kind], "svc_id"), services)
        self.assertEqual({start["depth"] for start in self.kinds["start"]}, {1})
        self.assertEqual(counted(self.kinds["event"], "code"), {("1508",): 1, ("2101",): 5})

    def test_error_results_are_reported_with_what_their_error_parts_say(self):
        self.assertEqual(counted(self.kinds["error"], "proc_rslt_dv_cd"),
                         times_rounds({("1",): 3, ("8",): 3, ("9",): 3, ("2",): 1}))
        self.assertEqual(counted(self.kinds["errinfo"], "code", "chnl_class"),
                         times_rounds({("1105", "O"): 3, ("1106", "C"): 1, ("1106", "O"): 1,
                                       ("1107", "O"): 2, ("9999", "O"): 1}))
        self.assertIn("[GWY001004] 잔액이 부족합니다. [이서연]",
                      [record["message"] for record in self.kinds["errinfo"]])
        additional = [record for record in self.kinds["info"] if record["message"][0] == "["]
        self.assertEqual(len(additional), ROUNDS * 10)

    def test_linked_transactions_are_announced_under_both_gids(self):
        linked = {start["gid"] for start in self.kinds["start"]
                  if start["chnl_typ_cd"] in ("ICT", "ICC")}
        self.assertEqual(len(linked), ROUNDS * 3)
        created, exist = (
            {(record["gid"], re.search("GID '(.*?)'", record["message"])[1])
             for record in self.kinds["info"] if record["message"].startswith(text)}
            for text in ("C/C Transaction Created", "Linked C/C Main Service Transaction Exist"))
        self.assertEqual({own for _, own in created}, linked)
        self.assertEqual({(theirs, own) for own, theirs in created}, exist)
        self.assertFalse(linked & {theirs for theirs, _ in created})

    def test_the_tong_log_holds_both_telegrams_of_all_but_the_client_handlers(self):
        directions = collections.defaultdict(str)
        for gid, direction, telegram in self.tong:
            directions[gid] += direction
            self.assertEqual(int(telegram[:8]), len(telegram))
        self.assertEqual(directions, {start["gid"]: "SF" for start in self.kinds["start"]
                                      if not start["svc_id"].startswith("CLH")})
        self.assertIn("상대은행 시스템 점검 중입니다.".encode("euc-kr"),
                      b"".join(telegram for _, _, telegram in self.tong))


class Untraced(unittest.TestCase):
    def test_told_to_stop_it_answers_what_has_begun_and_ends(self):
        server = subprocess.Popen([GATEWAY, "serve"], env=ENVIRONMENT, encoding="utf-8",
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(server.kill)
        port = int(re.search(r":(\d+)$", server.stdout.readline())[1])
        sending = [GATEWAY, "send", "--port", str(port), "-n", "16"]
        subprocess.run(sending, stdout=subprocess.DEVNULL, timeout=DEADLINE, check=True)
        with socket.create_connection(("127.0.0.1", port), timeout=DEADLINE) as peer:
            answers = peer.makefile("rb")
            peer.sendall(b"00000008" b"00000600half a telegram")
            self.assertIn(b"GWY009001", answers.read(int(answers.read(8)) - 8))
            server.send_signal(signal.SIGTERM)
            self.assertIn(b"GWY009000", answers.read())
        _, said = server.communicate(timeout=DEADLINE)
        self.assertEqual((server.returncode, said),
                         (0, "gateway: not traced, TRAN_INIT returned 106\n"))
        self.assertEqual(subprocess.run(sending, stderr=subprocess.DEVNULL).returncode, 1)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
