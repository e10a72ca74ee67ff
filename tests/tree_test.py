#!/usr/bin/env python3
"""End-to-end test of trofftovif-tree on a small tree built here: plain and
gzip-compressed pages, .so stubs and a symbolic link, an mdoc page, a damaged
gzip file, a converter that fails; then a second, incremental run.
  tree_test.py --tree BIN --program CONVERTER
"""
import argparse
import gzip
import os
import subprocess
import sys
import tempfile

failures = []


def check(condition, what):
    if not condition:
        failures.append(what)


def write(path, data, compress=False):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(gzip.compress(data) if compress else data)


def build_tree(src):
    write(src + "/man1/plain.1", b".TH PLAIN 1\n.SH NAME\nplain \\- a page\n.PP\nSome text.\n")
    write(src + "/man1/packed.1.gz", b".TH PACKED 1\n.SH NAME\npacked \\- compressed\n", compress=True)
    write(src + "/man1/stub.1", b".\\\" a redirect\n.so man7/target.7\n")
    write(src + "/man7/target.7.gz", b".TH TARGET 7\nThe target.\n", compress=True)
    os.symlink("packed.1.gz", src + "/man1/alias.1.gz")
    write(src + "/man1/bsd.1", b".Dd January 1, 2020\n.Dt BSD 1\n.Sh NAME\n")
    write(src + "/man1/damaged.1.gz", b"\x1f\x8b\x08\x00broken")
    write(src + "/man1/outside.1", b".so ../../etc/passwd\n")
    write(src + "/papers/paper.ms", b".NH\nIntroduction\n.PP\nText.\n")
    write(src + "/man5/warn1.5", b".TH W 5\nText \\\x01 here.\n")
    write(src + "/man5/warn2.5", b".TH W 5\nA\nB\n.ft\n\\\x01\n")


def run(tree, args, expect_status):
    proc = subprocess.run([tree] + args, capture_output=True, timeout=120)
    check(proc.returncode == expect_status,
          "%s: exit status %d, expected %d\n%s" % (args, proc.returncode, expect_status, proc.stderr.decode()))
    return proc


def link(path):
    try:
        return os.readlink(path)
    except OSError as e:
        return str(e)


def report(path):
    with open(path) as f:
        return {line.split("\t")[0]: line.rstrip("\n").split("\t") for line in f}


def read(path):
    try:
        with open(path, "rb") as f:
            return f.read()
    except OSError:
        return None


def direct(program, option, data):
    return subprocess.run([program, option], input=data, capture_output=True).stdout


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tree", required=True)
    parser.add_argument("--program", required=True)
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as tmp:
        src, dst, rep = tmp + "/src", tmp + "/dst", tmp + "/report.tsv"
        build_tree(src)
        common = ["-q", "--report", rep]
        run(args.tree, common + ["-j", "1", src, dst], 1)  # the damaged page fails
        lines = report(rep)
        check(lines["man1/plain.1"][1] == "converted", "plain page converted")
        check(lines["man1/packed.1.gz"][1] == "converted", "compressed page converted")
        check(lines["papers/paper.ms"][1] == "converted", "ms paper converted")
        check(lines["man1/stub.1"][1] == "redirect", "stub is a redirect")
        check(lines["man1/alias.1.gz"][1] == "redirect", "symbolic link is a redirect")
        check(lines["man1/bsd.1"][1].startswith("skipped: mdoc"), "mdoc page skipped")
        check(lines["man1/damaged.1.gz"][1].startswith("failed"), "damaged page failed")
        check(lines["man1/outside.1"][1].startswith("skipped: redirect outside"), "escape from the tree refused")
        check(link(dst + "/man1/stub.1.vif") == "../man7/target.7.vif", "stub links to its target")
        check(link(dst + "/man1/alias.1.vif") == "packed.1.vif", "alias links to its target")
        check(not os.path.exists(dst + "/man1/damaged.1.vif"), "no output for a failure")
        check(not os.path.exists(dst + "/man1/bsd.1.vif"), "no output for an mdoc page")
        check(read(dst + "/man1/packed.1.vif") ==
              direct(args.program, "-man", b".TH PACKED 1\n.SH NAME\npacked \\- compressed\n"),
              "compressed page converted as the converter does it directly")
        check(read(dst + "/papers/paper.ms.vif") == direct(args.program, "-ms", b".NH\nIntroduction\n.PP\nText.\n"),
              "paper converted with -ms")
        # Each page's own messages, though one worker converts both.
        check(lines["man5/warn1.5"][2:] == ["1", "Line 2 @ 8:  Expected \\ followed by a printable character."],
              "first page's warning: %s" % lines["man5/warn1.5"])
        check(lines["man5/warn2.5"][2:] == ["1", "Line 5 @ 3:  Expected \\ followed by a printable character."],
              "second page's warning: %s" % lines["man5/warn2.5"])
        left = [n for _r, _d, files in os.walk(dst) for n in files if ".part." in n]
        check(not left, "no temporary files left: %s" % left)

        # A second run converts nothing; --force converts again.
        run(args.tree, common + [src, dst], 1)
        lines = report(rep)
        check(lines["man1/plain.1"][1] == "up to date", "second run skips the converted page")
        run(args.tree, common + ["--force", "-j", "1", src, dst], 1)
        check(report(rep)["man1/plain.1"][1] == "converted", "--force converts again")

        # A converter that fails half-way leaves no partial output behind and
        # does not stop the other files.
        broken = tmp + "/broken.sh"
        with open(broken, "w") as f:
            f.write('#!/bin/sh\necho partial > "$3"\ncase "$2" in *plain*) exit 3;; esac\ncat "$2" > "$3"\n')
        os.chmod(broken, 0o755)
        out2 = tmp + "/dst2"
        run(args.tree, ["--program", broken, "-q", "--report", rep, "-j", "2", src, out2], 1)
        lines = report(rep)
        check(lines["man1/plain.1"][1].startswith("failed: exit status 3"), "failing conversion reported")
        check(not os.path.exists(out2 + "/man1/plain.1.vif"), "no partial output of a failed conversion")
        check(lines["man7/target.7.gz"][1] == "converted", "other files go on")
        # A worker that dies costs only the file it had: the others, the
        # files after it included, are converted by a fresh worker.
        out3 = tmp + "/dst3"
        crash = dict(os.environ, TROFFTOVIF_TREE_TEST_CRASH="man1/plain.1")
        subprocess.run([args.tree, "-q", "--report", rep, "-j", "1", src, out3], env=crash,
                       capture_output=True)
        lines = report(rep)
        check(lines["man1/plain.1"][1].startswith("failed: ended by signal"), "crashed worker's file failed")
        check(not os.path.exists(out3 + "/man1/plain.1.vif"), "no output for the crashed file")
        check(all(lines[name][1] == "converted" for name in
                  ("man1/packed.1.gz", "man7/target.7.gz", "papers/paper.ms")), "a fresh worker goes on")
        check(lines["man1/stub.1"][1] == "redirect", "redirects still made")

        # Workers that die before taking a file are not replaced; the command
        # converts the files itself, and its own messages still reach the user.
        out5 = tmp + "/dst5"
        proc = subprocess.run([args.tree, "-q", "--report", rep, "-j", "2", src, out5], capture_output=True,
                              env=dict(os.environ, TROFFTOVIF_TREE_TEST_CRASH=":start"))
        lines = report(rep)
        check(all(lines[name][1] == "converted" for name in
                  ("man1/plain.1", "man1/packed.1.gz", "man7/target.7.gz", "papers/paper.ms")),
              "files converted without workers")
        check(lines["man5/warn1.5"][2] == "1", "messages caught without workers")
        check(b"converted" in proc.stderr and b"Expected" not in proc.stderr,
              "summary on standard error, the converter's messages not: %r" % proc.stderr)
        check(read(out5 + "/man1/packed.1.vif") == read(dst + "/man1/packed.1.vif"), "same output without workers")

        # The converter program, run once per file, gives the same output.
        out4 = tmp + "/dst4"
        run(args.tree, ["--program", args.program, "-q", "--report", rep, "-j", "2", src, out4], 1)
        for name in ("man1/packed.1.vif", "man7/target.7.vif", "papers/paper.ms.vif"):
            check(read(out4 + "/" + name) == read(dst + "/" + name), "same output from the program: " + name)
    for failure in failures:
        print("FAILED:", failure)
    print("%d passed, %d failed" % (1 if not failures else 0, 1 if failures else 0))
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
