#!/usr/bin/env python3
"""End-to-end case runner.

A case is tests/<tree>/<area>/<topic>/<name>.tr with beside it:
  <name>.vif     the exact standard output
  <name>.body    instead of <name>.vif: the exact body of the standard output,
                 that is everything from the first line that begins with
                 "<Para " (the first paragraph of the text, after the catalog,
                 the document and the page statements) to the end; empty when
                 the output has no such line. Written by hand, never by
                 --update. A case has a .vif, a .body, or neither (then the
                 standard output must be empty); with both, both are compared.
  <name>.err     the exact standard error (absent: empty)
  <name>.status  the exit status (absent: 0)
  <name>.args    the command-line words, one line, split like a shell would;
                 {in} stands for the path of the .tr file, {tmp} for the case's
                 own temporary directory. Standard input is the .tr file.
Only .tr files are cases: a file that a case includes sits beside it under
another extension (for example <name>.inc).
Each case runs with TMPDIR set to a fresh directory, which must be empty again
afterwards: the converter removes its temporary files on every path.

  run_cases.py --program BIN DIR-OR-CASE...   run the cases found
  run_cases.py --program BIN --update DIR     rewrite expected files; only for
                                              the captured regression tree, and
                                              never a case that has a .body
"""
import argparse
import difflib
import os
import shlex
import subprocess
import sys
import tempfile

REGRESS_TREE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "regress")


def find_cases(paths):
    for path in paths:
        if os.path.isfile(path) and path.endswith(".tr"):
            yield path[:-3]
            continue
        if os.path.isfile(path + ".tr"):
            yield path
            continue
        for root, _dirs, files in sorted(os.walk(path)):
            for name in sorted(files):
                if name.endswith(".tr"):
                    yield os.path.join(root, name[:-3])


def read(path, default=b""):
    try:
        with open(path, "rb") as f:
            return f.read()
    except FileNotFoundError:
        return default


def body(output):
    """The output from its first line that begins with "<Para " to the end."""
    lines = output.splitlines(True)
    for index, line in enumerate(lines):
        if line.startswith(b"<Para "):
            return b"".join(lines[index:])
    return b""


def diff(expected, actual, label):
    lines = difflib.unified_diff(
        expected.decode("latin-1").splitlines(True),
        actual.decode("latin-1").splitlines(True),
        "expected " + label, "actual " + label)
    return "".join(lines)


def run_case(program, base, update):
    with tempfile.TemporaryDirectory() as tmp:
        words = shlex.split(read(base + ".args").decode())
        words = [w.replace("{in}", base + ".tr").replace("{tmp}", tmp) for w in words]
        tmpdir = os.path.join(tmp, "tmpfiles")
        os.mkdir(tmpdir)
        env = dict(os.environ, TMPDIR=tmpdir)
        with open(base + ".tr", "rb") as stdin:
            try:
                proc = subprocess.run([program] + words, stdin=stdin, capture_output=True,
                                      env=env, cwd=tmp, timeout=60)
            except subprocess.TimeoutExpired:
                return ["timed out"]
        left = os.listdir(tmpdir)
    if update:
        if os.path.exists(base + ".body"):
            return []  # hand-written expectations are never rewritten
        with open(base + ".vif", "wb") as f:
            f.write(proc.stdout)
        for suffix, data, empty in ((".err", proc.stderr, b""),
                                    (".status", b"%d\n" % proc.returncode, b"0\n")):
            if data != empty:
                with open(base + suffix, "wb") as f:
                    f.write(data)
            elif os.path.exists(base + suffix):
                os.remove(base + suffix)
        return []
    problems = []
    status = int(read(base + ".status", b"0").strip() or 0)
    if proc.returncode != status:
        problems.append("exit status %d, expected %d" % (proc.returncode, status))
    checks = [(".err", proc.stderr)]
    if os.path.exists(base + ".body"):
        checks.insert(0, (".body", body(proc.stdout)))
    if os.path.exists(base + ".vif") or not os.path.exists(base + ".body"):
        checks.insert(0, (".vif", proc.stdout))
    for suffix, actual in checks:
        expected = read(base + suffix)
        if expected != actual:
            problems.append(diff(expected, actual, suffix))
    if left:
        problems.append("temporary files left behind: %s" % " ".join(left))
    return problems


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", required=True)
    parser.add_argument("--update", action="store_true",
                        help="rewrite the expected files (regression tree only)")
    parser.add_argument("paths", nargs="+")
    args = parser.parse_args()
    if args.update:
        for path in args.paths:
            if not os.path.abspath(path).startswith(REGRESS_TREE):
                sys.exit("--update only rewrites the captured regression tree " + REGRESS_TREE)
    passed = failed = 0
    for base in find_cases(args.paths):
        base = os.path.abspath(base)
        problems = run_case(os.path.abspath(args.program), base, args.update)
        if problems:
            failed += 1
            print("FAILED: %s.tr" % base)
            for problem in problems:
                print(problem)
        else:
            passed += 1
    print("%d passed, %d failed" % (passed, failed))
    sys.exit(1 if failed or passed == 0 and not args.update else 0)


if __name__ == "__main__":
    main()
