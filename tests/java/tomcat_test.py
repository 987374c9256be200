"""Two applications of a real Tomcat, set up and traced as the operator's page says: tomcat_test.py
VARN CATALINA_SH LIBRARY JAR DOC, in an IPC namespace of its own."""

import collections
import concurrent.futures
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

VARN, CATALINA, LIBRARY, JAR, DOC = sys.argv[1:]
DOC_TEXT = pathlib.Path(DOC).read_text("utf-8")
DEADLINE = 120
# A queue that may not be made larger holds 20 records.
QUEUE_BYTES = int(pathlib.Path("/proc/sys/kernel/msgmnb").read_text())
THREADS, REQUESTS = (4, 100) if QUEUE_BYTES >= 1 << 20 else (1, 4)
APPLICATIONS = "deposit", "transfer"

# Compiled by the container, below the application's own class loader.
PAGE = """<%@ page pageEncoding="UTF-8" import="com.vexholm.tran.*" %>
<%! private int started; public void jspInit() { started = Tran.init("BANKWAS1"); } %>
<%
  String name = request.getContextPath().substring(1);
  try (Transaction tx = Tran.transaction(request.getParameter("gid"), name).start();
       Call call = tx.dbCall("dbBalance")) {
    Tran.info("이체 접수");
    call.sql("SELECT balance FROM accounts", 0, 1);
  }
  out.print(started);
%>"""


def base_directory(home):
    """An instance with the page in two applications, the jar where both find it, and the page's
    bin/setenv.sh."""
    base = home / "tomcat"
    shutil.copytree(pathlib.Path(CATALINA).parents[1] / "skel", base)
    for name in "lib", "logs", "temp", "work":
        (base / name).mkdir(exist_ok=True)
    shutil.copy(JAR, base / "lib")
    server = base / "conf" / "server.xml"
    text = server.read_text("utf-8").replace('port="8005"', 'port="-1"')  # stopped by a signal
    server.write_text(text.replace('Connector port="8080"', 'Connector port="0"'), "utf-8")
    for name in APPLICATIONS:
        application = base / "webapps" / name
        application.mkdir(parents=True)
        (application / "index.jsp").write_text(PAGE, "utf-8")
    documented = re.search(r"`bin/setenv.sh`:\n\n```sh\n(.*?)```", DOC_TEXT, re.S)[1]
    (base / "bin" / "setenv.sh").write_text(
        documented.replace("/srv", str(home)).replace("/usr/local/lib/libvarn.so", LIBRARY))
    return base


class Tomcat(unittest.TestCase):
    def setUp(self):
        home = tempfile.TemporaryDirectory()
        self.addCleanup(home.cleanup)
        self.home = pathlib.Path(home.name)
        for name in "bank", "varn":
            (self.home / name).mkdir()
        self.config = self.home / "varn" / "varn.ini"
        subprocess.run([VARN, "init", self.config], check=True, stdout=subprocess.DEVNULL)
        text = re.sub("CALL_TRC_DEPTH .*", "CALL_TRC_DEPTH = 60", self.config.read_text("utf-8"))
        self.config.write_text(re.sub("LOG_HOME .*", "LOG_HOME = log", text), "utf-8")
        subprocess.run([VARN, "up", "-c", self.config], check=True, stdout=subprocess.DEVNULL)
        self.addCleanup(subprocess.run, [VARN, "down", "-c", self.config],
                        stdout=subprocess.DEVNULL)

    def process(self, *command, **how):
        process = subprocess.Popen(command, stderr=subprocess.STDOUT, **how)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def stop(self, process):
        process.send_signal(signal.SIGTERM)
        return process.wait(DEADLINE)

    def port_of(self, log, tomcat):
        """The port that the container chose, once it serves."""
        deadline = time.monotonic() + DEADLINE
        while time.monotonic() < deadline and tomcat.poll() is None:
            said = log.read_text("utf-8", "replace")
            if "Server startup in" in said:
                return re.search(r"Starting ProtocolHandler \[\"http-nio-auto-\d+-(\d+)\"", said)[1]
            time.sleep(0.1)
        self.fail(log.read_text("utf-8", "replace"))

    def test_two_applications_are_traced_by_one_library(self):
        base, records = base_directory(self.home), self.home / "records"
        collector = self.process(VARN, "collect", "-c", self.config, "--format", "json", "--out",
                                 records, stdout=subprocess.DEVNULL)
        log = self.home / "tomcat.log"
        environment = {name: value for name, value in os.environ.items()
                       if not name.startswith(("TRAN_", "JAVA_OPTS", "CATALINA_"))}
        with log.open("wb") as out:
            tomcat = self.process(CATALINA, "run", stdout=out,
                                  env={**environment, "CATALINA_BASE": str(base)})
        port = self.port_of(log, tomcat)

        def request(n):
            gid, name = f"202611220930WEB01{n:013}", APPLICATIONS[n % 2]
            url = f"http://127.0.0.1:{port}/{name}/?gid={gid}"
            with urllib.request.urlopen(url, timeout=DEADLINE) as answer:
                return gid, name, answer.read().decode().strip()

        with concurrent.futures.ThreadPoolExecutor(THREADS) as pool:
            answers = list(pool.map(request, range(REQUESTS)))
        self.assertIn(self.stop(tomcat), (0, 128 + signal.SIGTERM))
        self.assertEqual(self.stop(collector), 0)

        said = log.read_text("utf-8", "replace")
        # The first to start names the server, the other finds it started.
        self.assertEqual({answer for _, _, answer in answers}, {"0", "104"}, said)
        self.assertNotRegex(said, "SEVERE|Exception")
        found = collections.defaultdict(list)
        for record in map(json.loads, records.read_text("utf-8").splitlines()):
            if not record.get("message", "").startswith("처리 모듈"):
                found[record["gid"]].append((record["kind"], record["svc_id"]))
        kinds = "start", "info", "sql", "call", "end"
        for gid, name, _ in answers:
            self.assertEqual(found.pop(gid, None), [(kind, name) for kind in kinds], said)
        self.assertEqual([kind for ((kind, _),) in found.values()], ["event"])  # of the start


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
