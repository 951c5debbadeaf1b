#!/usr/bin/env python3
"""Applies each deliberate fault of faults.txt in turn, rebuilds and runs the
suite, and prints which tests failed. Run by hand, not by CI:

    tests/faults/run.py BUILD_DIR [--also TEST_DIR] [F01 F07 ...] > tests/faults/after.txt

BUILD_DIR is a configured plain build of this checkout. Each faulty file is
restored from git afterwards, and the build is brought back up to date at the
end. A fault whose text is not found exactly once is reported as stale.

--also TEST_DIR runs a second ctest tree against the same faulty library as
well: a copy of an earlier build's tests (configure BUILD_DIR with
-DCMAKE_LINK_DEPENDS_NO_SHARED=ON so that its tests load the rebuilt library
instead of being relinked), to compare an older suite without building it
again. Faults in headers reach only the copied tests' library calls."""

import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent


def parseFaults():
    faults, current = [], None
    for line in (HERE / "faults.txt").read_text().splitlines():
        if line.startswith("== "):
            ident, _, title = line[3:].partition(" ")
            current = {"id": ident, "title": title}
            faults.append(current)
        elif current is not None and line[:4] in ("file", "old ", "new "):
            key, _, value = line.partition(" ")
            current[key] = value.replace("\\n", "\n")
    return faults


def run(command, **kwargs):
    return subprocess.run(command, cwd=ROOT, text=True, capture_output=True, **kwargs)


def build(buildDir):
    return run(["cmake", "--build", buildDir, "-j2"]).returncode == 0


# A fault that makes a test spin would hold the run for the tests' own
# TIMEOUT property. Past this the run is stopped, and the tests started but
# not finished are reported as hung.
SUITE_SECONDS = int(os.environ.get("FAULT_SUITE_SECONDS", "90"))


def failingTests(testDir):
    with tempfile.TemporaryFile("w+") as log:
        ctest = subprocess.Popen(["ctest", "--test-dir", testDir, "-j2", "--timeout", "120",
                                  "-E", "^Install\\."], cwd=ROOT, text=True, stdout=log,
                                 stderr=subprocess.STDOUT, start_new_session=True)
        try:
            ctest.wait(timeout=SUITE_SECONDS)
        except subprocess.TimeoutExpired:
            os.killpg(ctest.pid, signal.SIGKILL)
            ctest.wait()
        log.seek(0)
        output = log.read()
    # "Start  7: Suite.Name", then "  3/90 Test  #7: Suite.Name ....***Failed    0.02 sec".
    started = re.findall(r"Start\s+\d+: (\S+)", output)
    ended = dict(re.findall(r"Test\s+#\d+: (\S+) \.*\s*(.+?)\s+[\d.]+ sec", output))
    failed = []
    for name in started:
        status = ended.get(name, "Hung").lstrip("*")
        # A skip says nothing about the fault: some tests skip on a busy machine.
        if not status.startswith("Passed") and status != "Skipped":
            failed.append(name if status == "Failed" else f"{name}[{status}]")
    return failed


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    args = sys.argv[2:]
    also = None
    if args[:1] == ["--also"]:
        also, args = args[1], args[2:]
    buildDir, wanted = sys.argv[1], set(args)
    for fault in parseFaults():
        if wanted and fault["id"] not in wanted:
            continue
        path = ROOT / fault["file"]
        text = path.read_text()
        label = f"{fault['id']} {fault['title']}"
        if text.count(fault["old"]) != 1:
            print(f"{label}\n    STALE: text found {text.count(fault['old'])} times", flush=True)
            continue
        start = time.monotonic()
        try:
            path.write_text(text.replace(fault["old"], fault["new"]))
            if not build(buildDir):
                outcome = "BUILD FAILED"
            else:
                failed = failingTests(buildDir)
                outcome = " ".join(failed) if failed else "NOT CAUGHT"
                if also:
                    failed = failingTests(also)
                    outcome += "\n    also: " + (" ".join(failed) if failed else "NOT CAUGHT")
        finally:
            run(["git", "checkout", "--", fault["file"]], check=True)
        print(f"{label}\n    {outcome}  ({time.monotonic() - start:.0f}s)", flush=True)
    build(buildDir)


main()
