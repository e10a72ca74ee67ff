#!/usr/bin/env python3
"""Runs every input the fuzzer ever found through the converter.

Each file in fuzz/regressions holds, like the fuzzing harness's inputs, one
byte that chooses the macro package (its value modulo 5: none, man, me, ms,
my) followed by the troff input. Each must convert with exit status 0, write
nothing that a sanitizer reports, and give a well-formed document.
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
SANITIZER_WORDS = (b"Sanitizer", b"runtime error:")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", required=True)
    here = os.path.dirname(os.path.abspath(__file__))
    parser.add_argument("dir", nargs="?", default=os.path.join(here, "..", "fuzz", "regressions"))
    args = parser.parse_args()
    passed = failed = 0
    for name in sorted(os.listdir(args.dir)):
        with open(os.path.join(args.dir, name), "rb") as f:
            data = f.read()
        if not data:
            continue
        options = PACKAGES[data[0] % len(PACKAGES)]
        with tempfile.TemporaryDirectory() as tmp:
            try:
                proc = subprocess.run([args.program] + options, input=data[1:], capture_output=True,
                                      timeout=30, env=dict(os.environ, TMPDIR=tmp))
            except subprocess.TimeoutExpired:
                problems = ["timed out"]
            else:
                problems = []
                if proc.returncode != 0:
                    problems.append("exit status %d" % proc.returncode)
                if any(word in proc.stderr for word in SANITIZER_WORDS):
                    problems.append(proc.stderr.decode("latin-1")[-2000:])
                problems += vifcheck.check(proc.stdout).problems
        if problems:
            failed += 1
            print("FAILED: %s" % name)
            print("\n".join(problems[:5]))
        else:
            passed += 1
    print("%d passed, %d failed" % (passed, failed))
    sys.exit(1 if failed or not passed else 0)


if __name__ == "__main__":
    main()
