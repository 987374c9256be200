"""A Java server traced from its start to its telegrams: java_bank_test.py VARN JAVA_BANK, in an IPC
namespace of its own."""

import collections
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

VARN, JAVA_BANK = sys.argv[1:]
DEADLINE = 120
ROUNDS = 4  # of the seven kinds of requests that the client sends in turn
ENVIRONMENT = {name: value for name, value in os.environ.items() if not name.startswith("TRAN_")}
SERVICES = {"JBKXFER01": 3, "JBKBAL001": 1, "JBKBAL002V01": 2}  # of one round


class Traced(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with tempfile.TemporaryDirectory() as home:
            out, tong = pathlib.Path(home, "records"), pathlib.Path(home, "tong")
            tong.mkdir()
            cls.done = subprocess.run(
                [VARN, "run", "--format", "json", "--out", out, "--tong", tong, "--", JAVA_BANK,
                 str(7 * ROUNDS)],
                env=ENVIRONMENT, encoding="utf-8", timeout=DEADLINE, capture_output=True)
            cls.kinds = collections.defaultdict(list)
            for line in out.read_text("utf-8").splitlines():
                cls.kinds[json.loads(line)["kind"]].append(json.loads(line))
            cls.tong = b"".join(path.read_bytes() for path in tong.iterdir())

    def counted(self, kind, field):
        return collections.Counter(record[field] for record in self.kinds[kind])

    def test_every_answer_is_right(self):
        self.assertEqual(self.done.returncode, 0, self.done.stderr)
        self.assertRegex(self.done.stdout, rf"{7 * ROUNDS} requests, {4 * ROUNDS} done, {3 * ROUNDS} "
                                           r"refused, 0 wrong answers; total balance unchanged")

    def test_the_server_announces_itself_as_a_container(self):
        [start] = [event for event in self.kinds["event"] if event["code"] == "1508"]
        self.assertEqual(start["message"], "거래추적 대상 WAS컨테이너(JAVABANK)가 기동되었습니다.")

    def test_each_request_is_a_transaction_that_ends(self):
        for kind in "start", "end":
            self.assertEqual(self.counted(kind, "svc_id"),
                             {name: ROUNDS * count for name, count in SERVICES.items()})
        self.assertEqual({end["depth"] for end in self.kinds["end"]}, {1})
        self.assertEqual({start["gid"] for start in self.kinds["start"]},
                         {end["gid"] for end in self.kinds["end"]})
        self.assertEqual(len({end["gid"] for end in self.kinds["end"]}), 6 * ROUNDS)

    def test_calls_are_traced_level_by_level_with_their_statements(self):
        calls = [(record["call"]["level"], record["call"]["label"], record["call"]["function"])
                 for record in self.kinds["call"] if record["svc_id"] == "JBKBAL001"]
        self.assertEqual(sorted(set(calls)), [
            (1, "METHOD", "Service.balance"), (2, "DBIO", "dbClose"), (2, "DBIO", "dbSelectBalance"),
            (2, "METHOD", "Service.holder"), (3, "DBIO", "dbSelectHolder")])
        self.assertEqual(len(calls), 5 * ROUNDS)
        statements = [record["statement"] for record in self.kinds["sql"]]
        self.assertIn(("dbAddToBalance", "UPDATE account SET balance = balance + ? WHERE number = ?"),
                      [(statement["function"], statement["sql"]) for statement in statements])

    def test_an_overdraft_is_the_databases_error_and_the_customers(self):
        refused = {record["gid"] for record in self.kinds["error"]
                   if record["std_tmsg_err_cd"] == "JBK001003"}
        self.assertEqual(len(refused), ROUNDS)
        for gid in refused:
            told = [(record["code"], record["message"]) for record in self.kinds["errinfo"]
                    if record["gid"] == gid]
            self.assertEqual([code for code, _ in told], ["1900", "1001"])
            self.assertRegex(told[0][1], r"\[SQLCODE 19\] .*balance >= 0")
            self.assertEqual(told[1][1], "잔액이 부족합니다. [140-700-000019]")

    def test_telegrams_are_logged_and_an_error_in_one_is_reported(self):
        heads = re.findall(rb"(\d{17}JBK\d{10})\d{16}.{15}([SF])\d{6}", self.tong, re.S)
        directions = collections.defaultdict(str)
        for gid, direction in heads:
            directions[gid.decode()] += direction.decode()
        self.assertEqual(directions, {start["gid"]: "SF" for start in self.kinds["start"]
                                      if start["svc_id"] == "JBKBAL002V01"})
        self.assertEqual(len(directions), 2 * ROUNDS)
        self.assertIn("없는 계좌번호입니다. [999-999-999999]".encode("euc-kr"), self.tong)
        self.assertEqual([(record["message"], record["svc_id"]) for record in self.kinds["errinfo"]
                          if record["code"] == "1105"],
                         ROUNDS * [("없는 계좌번호입니다. [999-999-999999]", "JBKBAL002V01")])

    def test_half_a_telegram_is_an_event(self):
        self.assertEqual([event["message"] for event in self.kinds["event"] if event["code"] == "2101"],
                         ROUNDS * ["전문 길이가 올바르지 않습니다. [23]"])


class Untraced(unittest.TestCase):
    def test_without_its_environment_the_server_works_all_the_same(self):
        done = subprocess.run([JAVA_BANK, "7"], env=ENVIRONMENT, encoding="utf-8", timeout=DEADLINE,
                              capture_output=True)
        self.assertEqual(done.returncode, 0)
        self.assertEqual(done.stderr, "java-bank: not traced, Tran.init returned 106\n")
        self.assertIn("0 wrong answers", done.stdout)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
