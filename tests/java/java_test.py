"""The Java layer under a real virtual machine: java_test.py VARN JAVA LIBRARY JAR TEST_JAR DOC, in an
IPC namespace of its own."""

import collections
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

VARN, JAVA, LIBRARY, JAR, TEST_JAR, DOC = sys.argv[1:]
DEADLINE = 120
QUEUE_BYTES = int(pathlib.Path("/proc/sys/kernel/msgmnb").read_text())
ENVIRONMENT = {name: value for name, value in os.environ.items()
               if not name.startswith(("TRAN_", "JAVA_", "_JAVA", "JDK_JAVA"))}
WIDTHS = {  # bytes of the texts that have setters
    "hdr_cd": 2, "ext_flag": 1, "trsc_grco_br": 6, "chnl_typ_cd": 3, "recv_svc_cd": 12,
    "scrn_id": 9, "emp_no": 7, "proc_rslt_dv_cd": 1, "std_tmsg_err_cd": 9, "std_tmsg_len": 8,
    "ipv6_adr": 39, "fst_trms_sys_cd": 3, "trms_sys_cd": 3, "rqst_rsps_dv_cd": 1,
    "trsc_sync_dv_cd": 1, "rslt_recv_svc_cd": 12, "eai_intf_id": 16, "dsbl_sys_cd": 3,
    "otsd_inst_cd": 4, "otsd_biz_cd": 3, "fst_trms_mdcl_ctt": 39, "spare1": 1, "spare2": 1}
PT_WIDTHS = {"pt_param_1": 30, "pt_param_2": 20, "pt_param_3": 20, "pt_param_4": 30,
             "pt_param_5": 3}


def java(*arguments, **how):
    return subprocess.run([JAVA, "-cp", f"{JAR}:{TEST_JAR}", *arguments], encoding="utf-8",
                          env=ENVIRONMENT, timeout=DEADLINE, capture_output=True, **how)


def filled(widths, *others):
    """What Scenarios.fill() put into the texts: a letter by the order of the setters' names."""
    names = {re.sub("_(.)", lambda m: m[1].upper(), name): name for name in widths}
    names["callerCd"] = names.pop("hdrCd", None)
    setters = sorted(name for name in [*names, *others] if names.get(name) or name in others)
    return {names[setter]: (chr(ord("A") + i) + setter + 40 * ".")[:widths[names[setter]]]
            for i, setter in enumerate(setters) if setter not in others}


def outline(records):
    """Of each record what tells it from the others, but for what the agent adds by itself."""
    for record in records:
        what = record["call"]["function"] if "call" in record else record["svc_id"]
        level = record["call"]["level"] if "call" in record else record.get("depth", 0)
        message = record.get("message", "")
        if not message.startswith("처리 모듈") and record.get("code") != "1508":
            yield record["kind"], what, level


class Traced(unittest.TestCase):
    maxDiff = None

    def trace(self, *command, charset="EUC-KR"):
        with tempfile.TemporaryDirectory() as home:
            out, tong, config = (pathlib.Path(home, name) for name in ("out", "tong", "config"))
            subprocess.run([VARN, "init", config], check=True, stdout=subprocess.DEVNULL)
            config.write_text(re.sub("CALL_TRC_DEPTH .*", "CALL_TRC_DEPTH = 60",
                                     config.read_text("utf-8")), "utf-8")
            done = subprocess.run(
                [VARN, "run", "-c", config, "--format", "json", "--out", out, "--tong", tong, "--",
                 JAVA, "-Xcheck:jni", f"-Dfile.encoding={charset}", f"-Dvarn.library={LIBRARY}",
                 "-cp", f"{JAR}:{TEST_JAR}", *command],
                env=ENVIRONMENT, encoding="utf-8", errors="replace", timeout=DEADLINE,
                capture_output=True)
            if "those records are lost" in done.stderr and QUEUE_BYTES < 1 << 20:
                raise unittest.SkipTest("a queue that may not be made larger was full")
            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
            self.assertNotRegex(done.stdout + done.stderr, "WARNING|FATAL|Exception")
            self.tong = b"".join(file.read_bytes() for file in tong.iterdir())
            self.said = done.stdout
            # Those of one GID come in their order, whatever comes between.
            records = map(json.loads, out.read_text("utf-8").splitlines())
            return sorted(records, key=lambda record: record["gid"])

    def test_transactions_calls_and_notices_carry_what_they_were_given(self):
        records = self.trace("Scenarios", "everything")
        self.assertEqual(records[0]["message"],
                         "거래추적 대상 WAS컨테이너(WAS1)가 기동되었습니다.")
        of_gid = [record for record in records if record["gid"] == "GID-OUTER"]
        self.assertEqual(list(outline(of_gid)), [
            ("start", "OUTER001", 1), ("info", "OUTER001", 0), ("info_ex", "", 0),
            ("errinfo", "OUTER001", 0), ("sql", "OUTER001", 0), ("call", "dbInsert", 2),
            ("start", "INNER001", 2), ("error", "INNER001", 2), ("errinfo", "INNER001", 0),
            ("call", "Limit.check", 2), ("end", "INNER001", 2), ("call", "Ledger.post", 1),
            ("end", "OUTER001", 1)])
        self.assertEqual({int(record["tid"]) for record in of_gid}, {1})  # Java's main thread
        start, end = of_gid[0], of_gid[-1]
        for name, text in filled(WIDTHS).items():
            self.assertEqual(start[name], text)
            self.assertEqual(end[name], {"proc_rslt_dv_cd": "0", "emp_no": ""}.get(name, text))
        kinds = collections.defaultdict(list)
        for record in records:
            kinds[record["kind"]].append(record)
        self.assertEqual(kinds["info"][0]["message"], "이체 접수")
        self.assertEqual((kinds["info_ex"][0]["code"], kinds["info_ex"][0]["message"]),
                         ("X001", "extended"))
        self.assertEqual(
            sorted((event["code"], event["gid"], event["svc_id"], event["recv_svc_cd"],
                    event["chnl_class"], event["message"]) for event in kinds["event"][1:]),
            [("2101", "", "", "", "", "마감"),
             ("2102", "GID-EVENT", "EVENT001", "RECV00000001", "WEB", "개시")])
        self.assertEqual([(info["code"], info["chnl_class"], info["message"])
                          for info in kinds["errinfo"]],
                         [("1002", "", "잔액 부족"), ("1003", "C", "한도 초과")])
        [sql] = [sql["statement"] for sql in kinds["sql"]]
        self.assertEqual((sql["function"], sql["sql"], sql["elapsed_us"], sql["kind"]),
                         ("dbInsert", "INSERT INTO 원장 VALUES (?)", 5000, 9999))
        calls = {call["call"]["function"]: call["call"] for call in kinds["call"]}
        self.assertEqual([calls[name]["label"] for name in ("dbInsert", "Ledger.post")],
                         ["DBIO", "METHOD"])
        self.assertEqual(calls["Limit.check"]["source"], "Limit.java")
        for inner in kinds["error"][0], kinds["end"][0]:
            self.assertEqual((inner["proc_rslt_dv_cd"], inner["std_tmsg_err_cd"]),
                             ("9", "BNK001003"))

    def test_packed_texts_stand_at_their_places_and_are_cut_behind_whole_characters(self):
        of_service = collections.defaultdict(list)
        for record in self.trace("Scenarios", "params"):
            of_service[record["svc_id"]].append(record)
        request, error, info, response = of_service["SVC1"]
        widths = {name: WIDTHS[name] for name in WIDTHS if name not in ("hdr_cd", "ext_flag")}
        sent = filled(widths, "gid", "message")
        sent["gid"] = ("Ggid" + 40 * ".")[:len(request["gid"])]
        for name, text in sent.items():
            self.assertEqual(request[name], text)
        sent.update(proc_rslt_dv_cd="8", chnl_typ_cd="ICC", scrn_id="가나다라")
        for record in error, response:
            self.assertEqual(record, {**record, **sent})
        self.assertEqual([record["kind"] for record in (error, info, response)],
                         ["error", "errinfo", "end"])
        self.assertEqual((info["code"], info["chnl_class"], info["message"]),
                         ("1106", "C", "상대은행 점검 중"))
        for telegram in b"00000600 telegram", b"00000600 answer":
            self.assertIn(telegram, self.tong)
        for record in of_service["SVC2"] + of_service["SVC4"]:
            self.assertFalse([name for name in widths if record[name]])
        start, end = of_service["SVC3"]
        self.assertEqual(start, {**start, **filled(PT_WIDTHS)})
        self.assertEqual(end, {**end, **dict.fromkeys(PT_WIDTHS, ""), "pt_param_5": "끝"})

    def test_misuse_closes_nothing_but_what_is_meant(self):
        records = list(outline(self.trace("Scenarios", "misuse")))
        self.assertEqual(records, [
            ("start", "EARLY", 1), ("end", "EARLY", 1),
            ("start", "OUTER", 1), ("call", "second", 2), ("call", "first", 1),
            ("start", "INNER", 2), ("call", "left open", 2), ("end", "INNER", 2),
            ("call", "around", 1), ("call", "dbOuter", 2), ("call", "business", 1),
            ("end", "OUTER", 1),
            ("start", "CALLS", 1), ("info", "CALLS", 0),
            *(("call", f"deep{i}", i) for i in range(51, 0, -1)), ("end", "CALLS", 1),
            *(("start", f"LEVEL{i}", i) for i in range(1, 11)),  # the agent lets go of all ten
            ("start", "LEVEL11", 1), ("call", "in11", 1), ("end", "LEVEL11", 1),
            *(("start", "LEFT", i % 10 + 1) for i in range(60)),
            ("start", "LAST", 1), ("call", "last", 1), ("end", "LAST", 1)])

    def test_two_thousand_live_threads_lose_no_record(self):
        kinds = collections.defaultdict(set)
        for record in self.trace("Scenarios", "threads"):
            kinds[record["kind"]].add((record["gid"], record["tid"], record.get("depth")))
        gids = {f"GID{i}" for i in range(2000)}
        self.assertEqual({gid for gid, _, _ in kinds["start"]}, gids)
        self.assertEqual(len({tid for _, tid, _ in kinds["start"]}), 2000)
        self.assertEqual(kinds["end"], kinds["start"])
        self.assertEqual({gid for gid, _, _ in kinds["call"]}, gids)

    def test_the_program_of_the_documentation_runs_as_it_says(self):
        source = pathlib.Path(__file__).with_name("Transfer.java").read_text("utf-8")
        shown = re.search(": from here\n(.*?)  // to here", source, re.DOTALL)[1]
        self.assertIn(re.sub("(?m)^  ", "", shown), pathlib.Path(DOC).read_text("utf-8"))
        records = self.trace("Transfer")
        self.assertEqual(list(outline(records)), [
            ("start", "XFER0001", 1), ("info", "XFER0001", 0),
            ("sql", "XFER0001", 0), ("call", "dbAddToBalance", 2),
            ("sql", "XFER0001", 0), ("call", "dbAddToBalance", 2),
            ("call", "Transfer.transfer", 1), ("end", "XFER0001", 1),
            ("start", "XFER0001", 1), ("info", "XFER0001", 0), ("call", "Transfer.transfer", 1),
            ("error", "XFER0001", 1), ("errinfo", "XFER0001", 0), ("end", "XFER0001", 1)])
        self.assertEqual(self.said, "{110-201=2000, 140-700=3000}\n")


class Untraced(unittest.TestCase):
    NO_ENVIRONMENT = "106"
    EXCEPTION = "com.vexholm.tran.api.TranLibraryException: "

    def test_guards_make_no_garbage(self):
        done = java(f"-Dvarn.library={LIBRARY}", "Scenarios", "garbage")
        self.assertEqual(done.stdout.split(), ["true", "0"], done.stderr)

    def test_the_library_is_found_by_its_name_and_by_the_path_of_the_property(self):
        file = pathlib.Path(LIBRARY)
        for how in (f"-Djava.library.path={file.parent}", f"-Dvarn.library={file}",
                    f"-Dvarn.library={file.name}"):
            for use in "tran", "adapter":
                done = java(how, "Loading", use, cwd=file.parent)
                self.assertEqual(done.stdout.splitlines()[0], self.NO_ENVIRONMENT, done.stderr)

    def test_an_absent_library_is_told_with_all_that_was_tried(self):
        by_name = "libvarn cannot be loaded; tried varn by name: no varn in java.library.path.*; "
        for how, by_path in (
                ("-Dunused", "the system property varn.library is not set"),
                ("-Dvarn.library=/no/such.so",
                 "/no/such.so, from the system property varn.library: .*/no/such.so.*")):
            message = f"{by_name}{by_path} \\(-Dvarn.absent=ignore runs without it\\)"
            done = java(how, "Loading", "tran")
            first, version, again, _ = done.stdout.splitlines()
            self.assertRegex(first, f"^{self.EXCEPTION}{message}$")
            self.assertEqual((version, again, done.stderr), ("[]", first, ""))

            done = java(how, "Loading", "adapter")
            self.assertEqual([line.split(":")[0] for line in done.stdout.splitlines()],
                             2 * ["java.lang.UnsatisfiedLinkError"])
            self.assertRegex(done.stderr, f"^varn: {message}\n$")

            done = java(how, "-Dvarn.absent=ignore", "Loading", "tran")
            self.assertEqual(done.stdout.split(), ["-2", "[]"] * 2)
            self.assertRegex(done.stderr, f"^varn: nothing is traced: {message}\n$")

    def test_applications_share_the_library_below_a_common_class_loader(self):
        done = java(f"-Dvarn.library={LIBRARY}", "Loading", JAR, TEST_JAR)
        self.assertEqual(done.stdout, "{110-201=2000, 140-700=3000}\nnull\n" * 2)
        self.assertEqual(done.stderr, "transfers are not traced\n" * 2)

    def test_a_second_class_loader_is_told_where_the_jar_belongs(self):
        for how in (f"-Dvarn.library={LIBRARY}",
                    f"-Djava.library.path={pathlib.Path(LIBRARY).parent}"):
            first, second = java(how, "Loading", JAR).stdout.splitlines()
            self.assertEqual(first, self.NO_ENVIRONMENT)
            self.assertRegex(second, self.EXCEPTION + "libvarn cannot be loaded by a second class "
                             "loader: put varn.jar into the one that all applications share, .*")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
