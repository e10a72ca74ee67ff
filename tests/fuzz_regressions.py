#!/usr/bin/env python3
"""Runs every input the fuzzer ever found through the converter.

Each file in fuzz/regressions holds, like the fuzzing harness's inputs, one
byte that chooses the macro package (its value modulo 5: none, man, me, ms,
my) followed by the troff input. Whatever mode its byte names for the
harness, each runs in both: classic, and full (--full). In each it must
convert with exit status 0, write nothing that a sanitizer reports, and give
a well-formed document. The converter runs in an empty folder of its own,
which is where the full mode looks for the includes of standard input.
  fuzz_regressions.py --program BIN [DIR]
"""
import argparse
import os
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import vifcheck  # noqa: E402

PACKAGES = [[], ["-man"], ["-me"], ["-ms"], ["-my"]]
MODES = (("classic", []), ("full", ["--full"]))
SANITIZER_WORDS = (b"Sanitizer", b"runtime error:")


def run_one(program, options, data):
    """The problems of one conversion; none when it went as it must."""
    with tempfile.TemporaryDirectory() as tmp:
        work = os.path.join(tmp, "work")
        os.mkdir(work)
        try:
            proc = subprocess.run([program] + options, input=data, capture_output=True, cwd=work,
                                  timeout=30, env=dict(os.environ, TMPDIR=tmp))
        except subprocess.TimeoutExpired:
            return ["timed out"]
    problems = []
    if proc.returncode != 0:
        problems.append("exit status %d" % proc.returncode)
    if any(word in proc.stderr for word in SANITIZER_WORDS):
        problems.append(proc.stderr.decode("latin-1")[-2000:])
    return problems + vifcheck.check(proc.stdout).problems


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", required=True)
    here = os.path.dirname(os.path.abspath(__file__))
    parser.add_argument("dir", nargs="?", default=os.path.join(here, "..", "fuzz", "regressions"))
    args = parser.parse_args()
    program = os.path.abspath(args.program)  # it runs in a folder of its own
    passed = failed = 0
    for name in sorted(os.listdir(args.dir)):
        with open(os.path.join(args.dir, name), "rb") as f:
            data = f.read()
        if not data:
            continue
        for mode, words in MODES:
            options = words + PACKAGES[data[0] % len(PACKAGES)]
            problems = run_one(program, options, data[1:])
            if problems:
                failed += 1
                print("FAILED: %s (%s mode)" % (name, mode))
                print("\n".join(problems[:5]))
            else:
                passed += 1
    print("%d passed, %d failed" % (passed, failed))
    sys.exit(1 if failed or not passed else 0)


if __name__ == "__main__":
    main()
