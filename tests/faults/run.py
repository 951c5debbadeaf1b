#!/usr/bin/env python3
"""Applies each deliberate fault of faults.txt in turn, rebuilds and runs the
suite, and prints which tests failed. Run by hand, not by CI:

    tests/faults/run.py BUILD_DIR [F01 F07 ...] > tests/faults/after.txt

BUILD_DIR is a configured plain build of this checkout. Each faulty file is
restored from git afterwards, and the build is brought back up to date at the
end. A fault whose text is not found exactly once is reported as stale."""

import pathlib
import re
import subprocess
import sys
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


def failingTests(buildDir):
    result = run(["ctest", "--test-dir", buildDir, "-j2", "--timeout", "120",
                  "-E", "^Install\\."])
    failed = re.findall(r"^\s*\d+ - (\S+) \(([^)]*)\)", result.stdout, re.M)
    return [name if status == "Failed" else f"{name}[{status}]" for name, status in failed]


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    buildDir, wanted = sys.argv[1], set(sys.argv[2:])
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
        finally:
            run(["git", "checkout", "--", fault["file"]], check=True)
        print(f"{label}\n    {outcome}  ({time.monotonic() - start:.0f}s)", flush=True)
    build(buildDir)


main()
