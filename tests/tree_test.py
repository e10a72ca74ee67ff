#!/usr/bin/env python3
"""End-to-end test of trofftovif-tree on a small tree built here: plain and
gzip-compressed pages, .so stubs and a symbolic link, an mdoc page, a damaged
gzip file, a converter that fails; then a second, incremental run; the full
mode (the default) against --classic; a hostile tree whose pages include
files outside their folder, a folder, a device, a FIFO and themselves; a
gzip page that expands without end and pages past the size limit; and the
temporary files of killed workers and of a killed run.
  tree_test.py --tree BIN --program CONVERTER
"""
import argparse
import gzip
import os
import re
import signal
import subprocess
import sys
import tempfile
import time

failures = []


def check(condition, what):
    if not condition:
        failures.append(what)


def write(path, data, compress=False):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(gzip.compress(data) if compress else data)


BSD_PAGE = b".Dd January 1, 2020\n.Dt BSD 1\n.Os\n.Sh NAME\n.Nm bsd\n.Nd a page in mdoc\n"


NOTES = b".SH\nNotes\n.PP\nText.\n.LP\nMore.\n"


def build_tree(src):
    write(src + "/man1/plain.1", b".TH PLAIN 1\n.SH NAME\nplain \\- a page\n.PP\nSome text.\n")
    # two gzip members, as "cat a.gz b.gz" makes: both are the page
    write(src + "/man1/packed.1.gz", gzip.compress(b".TH PACKED 1\n.SH NAME\n") +
          gzip.compress(b"packed \\- compressed\n"))
    write(src + "/man1/stub.1", b".\\\" a redirect\n.so man7/target.7\n")
    write(src + "/man7/target.7.gz", b".TH TARGET 7\nThe target.\n", compress=True)
    os.symlink("packed.1.gz", src + "/man1/alias.1.gz")
    write(src + "/man1/bsd.1", BSD_PAGE)
    # An include named from the root of the tree, as man(1) reads it, where
    # only the gzipped page exists.
    write(src + "/man5/shell.5", b".TH SHELL 5\nBefore.\n.so man7/target.7\nAfter.\n")
    write(src + "/man1/damaged.1.gz", b"\x1f\x8b\x08\x00broken")
    write(src + "/man1/outside.1", b".so ../../etc/passwd\n")
    write(src + "/papers/paper.ms", b".NH\nIntroduction\n.PP\nText.\n")
    # no extension: its macros decide, SH and PP being in both man and ms
    write(src + "/papers/notes", NOTES)
    # in a section folder a page is a man page even without TH
    write(src + "/man1/untitled.1", b".SH NAME\nuntitled \\- no TH\n.PP\nText.\n")
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


def direct(program, options, data):
    return subprocess.run([program] + options, input=data, capture_output=True).stdout


# A page with a macro definition and a conditional: the full mode interprets
# them, the classic one hands them back as text.
DEFINING_PAGE = (b".TH DEF 1\n.SH NAME\ndef \\- a page\n.de XX\nDefined \\\\$1 text.\n..\n"
                 b".XX macro\n.if n Conditional text.\n")


def check_modes(args, tmp):
    src = tmp + "/modes/src"
    write(src + "/man1/def.1", DEFINING_PAGE)
    write(src + "/man1/bsd.1", BSD_PAGE)
    rep = tmp + "/modes/report.tsv"
    outputs = {}
    for mode, extra in (("full", []), ("classic", ["--classic"])):
        for how, program in (("here", []), ("program", ["--program", args.program])):
            dst = "%s/modes/%s-%s" % (tmp, mode, how)
            proc = run(args.tree, ["-q", "--report", rep] + extra + program + [src, dst], 0)
            lines = report(rep)
            check(lines["man1/def.1"][1] == "converted", "%s/%s: page converted" % (mode, how))
            if mode == "full":
                check(lines["man1/bsd.1"][1] == "converted", "%s/%s: mdoc page converted" % (mode, how))
                check(read(dst + "/man1/bsd.1.vif") ==
                      direct(args.program, ["--full", "-mdoc"], BSD_PAGE),
                      "%s/%s: mdoc page converted as the converter does it" % (mode, how))
            else:
                check(lines["man1/bsd.1"][1] == "skipped: mdoc page (no mdoc package in the classic mode)",
                      "%s/%s: mdoc page skipped: %s" % (mode, how, lines["man1/bsd.1"]))
                check(b"1 skipped: mdoc page" in proc.stderr, "%s/%s: mdoc skip counted" % (mode, how))
            outputs[mode, how] = read(dst + "/man1/def.1.vif")
    full, classic = outputs["full", "here"], outputs["classic", "here"]
    check(full == direct(args.program, ["--full", "-man"], DEFINING_PAGE),
          "the default is the full mode, as the program's --full gives it")
    check(classic == direct(args.program, ["-man"], DEFINING_PAGE),
          "--classic gives the classic converter's output byte for byte")
    check(outputs["full", "program"] == full, "--program runs the program with --full")
    check(outputs["classic", "program"] == classic, "--program --classic runs the program without --full")
    check(b"Defined macro text." in full and b"Conditional text." in full, "full mode interprets .de and .if")
    check(b"$1" not in full and b".XX" not in full, "no troff source left in the full mode's output")
    check(b"$1" in classic and b".XX" in classic, "the classic mode shows the troff source")


# Pages whose includes reach for what is not theirs. Each page is
# ".TH\nBefore.\n.so NAME\nAfter.\n"; every one must convert with one warning
# naming the include, read nothing from outside its folder, and go on after it.
MARKER = b"OUTSIDE-THE-TREE-MARKER"


def build_hostile_tree(tmp):
    src = tmp + "/hostile/src"
    # Files outside the tree, which no page may bring in: ../../etc/passwd
    # from a section folder is this one.
    write(tmp + "/hostile/etc/passwd", MARKER + b" from the relative path\n")
    write(tmp + "/hostile/secret.txt", MARKER + b" from the absolute path\n")
    pages = {
        "relative.1": ("../../etc/passwd", "outside the document's folder"),
        "absolute.1": (tmp + "/hostile/secret.txt", "outside the document's folder"),
        # Up to the root of the file system, and down to the system's file.
        "climbing.1": ("../" * 40 + "etc/passwd", "outside the document's folder"),
        "system.1": ("/etc/passwd", "outside the document's folder"),
        "link.1": ("link.inc", "outside the document's folder"),
        "upward.1": ("../man5/page.5", "outside the document's folder"),
        "folder.1": ("sub", "not a regular file"),
        "fifo.1": ("fifo.inc", "not a regular file"),
        "zero.1": ("/dev/zero", "outside the document's folder"),
        "missing.1": ("missing.inc", "No such file or directory"),
        # Missing beside the page and, from the tree's root, a link out of it.
        "rootlink.1": ("man1/link.inc", "No such file or directory"),
        "gzlink.1": ("man1/gzlink.inc", "No such file or directory"),
        "self.1": ("self.1", None),
    }
    for name, (target, _) in pages.items():
        write(src + "/man1/" + name, b".TH H 1\nBefore.\n.so " + target.encode() + b"\nAfter.\n")
    # A page of the tree, but in another folder than the page including it.
    write(src + "/man5/page.5", b".TH P 5\n" + MARKER + b" from another folder of the tree\n")
    os.makedirs(src + "/man1/sub")
    os.symlink(tmp + "/hostile/secret.txt", src + "/man1/link.inc")
    write(tmp + "/hostile/secret.gz", MARKER + b" from a gzipped link\n", compress=True)
    os.symlink(tmp + "/hostile/secret.gz", src + "/man1/gzlink.inc.gz")
    os.mkfifo(src + "/man1/fifo.inc")
    os.mkfifo(src + "/man1/fifo.1.gz")  # a FIFO where a page would be
    # What a page may include: a file beside it, or below its folder.
    write(src + "/man1/inc/part.inc", b"Included text.\n")
    write(src + "/man1/including.1", b".TH I 1\nBefore.\n.so inc/part.inc\nAfter.\n")
    return src, pages


def check_hostile(args, tmp):
    src, pages = build_hostile_tree(tmp)
    rep = tmp + "/hostile/report.tsv"
    reports = {}
    for how, extra in (("here", ["-j", "2"]), ("program", ["-j", "2", "--program", args.program]),
                       ("classic", ["--classic"])):
        dst = tmp + "/hostile/dst-" + how
        try:
            proc = subprocess.run([args.tree, "-q", "--timeout", "20", "--report", rep] + extra + [src, dst],
                                  capture_output=True, timeout=120)
        except subprocess.TimeoutExpired:
            check(False, "hostile tree (%s): the run does not end" % how)
            continue
        check(proc.returncode == 0, "hostile tree (%s): exit status %d\n%s" %
              (how, proc.returncode, proc.stderr.decode()))
        lines = report(rep)
        reports[how] = lines
        check(lines.get("man1/fifo.1.gz", ["", ""])[1] == "skipped: not a regular file",
              "hostile tree (%s): a FIFO page is skipped unread: %s" % (how, lines.get("man1/fifo.1.gz")))
        for name in list(pages) + ["including.1"]:
            line = lines.get("man1/" + name, ["", "missing from the report", "", ""])
            output = read(dst + "/man1/" + name + ".vif") or b""
            what = "hostile tree (%s): %s" % (how, name)
            check(line[1] == "converted", what + ": converted: %s" % line)
            check(MARKER not in output and b"root:x:0:0" not in output,
                  what + ": nothing from outside its folder in the output")
            check(b"After." in output, what + ": the conversion goes on after the include")
        included = read(dst + "/man1/including.1.vif") or b""
        if how == "classic":
            # The classic mode reads no include at all.
            check(b"Included text." not in included, "classic: .so not interpreted")
            check(all(lines["man1/" + n][2] == "0" for n in pages), "classic: no include warnings")
            continue
        check(b"Included text." in included, "hostile tree (%s): a file below the page's folder is included" % how)
        check(lines["man1/including.1"][2] == "0", "hostile tree (%s): a good include warns of nothing" % how)
        for name, (target, reason) in pages.items():
            line = lines["man1/" + name]
            if reason is None:
                expected = r"Line \d+ @ \d+:  Includes nested too deep; %s skipped\." % re.escape(target)
            else:
                expected = r"Line \d+ @ \d+:  Can't include %s: %s; skipped\." % (re.escape(target), re.escape(reason))
            check(line[2] == "1" and re.fullmatch(expected, line[3]) is not None,
                  "hostile tree (%s): %s gives one warning %r: %s" % (how, name, expected, line[2:]))
    if "here" in reports and "program" in reports:
        check(reports["here"] == reports["program"],
              "hostile tree: the program run in the page's folder warns as the built-in converter does")


# What a page may hold, once decompressed, in the size-limit checks.
LIMIT = 1 << 20


def peak_memory(command, env=None):
    """Runs a command; its exit status and the largest resident set, in KiB,
    of it or any process of its own that it waited for."""
    probe = ("import resource, subprocess, sys\n"
             "status = subprocess.run(sys.argv[1:], capture_output=True).returncode\n"
             "print(status, resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)\n")
    out = subprocess.run([sys.executable, "-c", probe] + command, capture_output=True, env=env,
                         timeout=120).stdout.split()
    return int(out[0]), int(out[1])


def check_size_limit(args, tmp):
    src = tmp + "/limit/src"
    # A bomb: 512 MiB of "a" in 128 concatenated gzip members, half a megabyte
    # in all. Read whole, it would take the worker past 512 MiB.
    bomb = gzip.compress(b"a" * (4 << 20), 9) * 128
    write(src + "/man1/bomb.1.gz", bomb)
    # A page of exactly the limit converts; one byte more does not.
    head = b".TH EDGE 1\n.SH NAME\nedge \\- a page at the limit\n"
    tail = b"The last words of the page.\n"
    body = (b"Text of the page.\n" * (LIMIT // 18))[:LIMIT - len(head) - len(tail) - 1] + b"\n"
    edge = head + body + tail
    write(src + "/man1/edge.1.gz", edge, compress=True)
    write(src + "/man1/over.1", edge + b"x")
    rep = tmp + "/limit/report.tsv"
    status, peak = peak_memory([args.tree, "-q", "-j", "1", "--max-size", "1M", "--report", rep,
                                src, tmp + "/limit/dst"])
    check(status == 1, "size limit: exit status %d, expected 1 for the failures" % status)
    lines = report(rep)
    check(lines["man1/bomb.1.gz"][1] == "failed: expands past the limit of 1 MiB (--max-size)",
          "size limit: the bomb fails with its reason: %s" % lines["man1/bomb.1.gz"])
    check(lines["man1/over.1"][1] == "failed: larger than the limit of 1 MiB (--max-size)",
          "size limit: a plain page one byte too large fails: %s" % lines["man1/over.1"])
    check(lines["man1/edge.1.gz"][1] == "converted", "size limit: a page of the limit converts: %s"
          % lines["man1/edge.1.gz"])
    output = read(tmp + "/limit/dst/man1/edge.1.vif") or b""
    check(len(edge) == LIMIT and b"last words of the page" in output,
          "size limit: the whole page at the limit is converted")
    check(not os.path.exists(tmp + "/limit/dst/man1/bomb.1.vif"), "size limit: no output for the bomb")
    # A tenth of the bomb, and a margin for a sanitizer build's own memory.
    check(peak < 50 << 10, "size limit: the worker's memory stays bounded: %d KiB at the peak" % peak)
    # The default limit is 64 MiB.
    os.remove(src + "/man1/over.1")
    proc = run(args.tree, ["-q", "-j", "1", "--report", rep, src, tmp + "/limit/dst-default"], 1)
    lines = report(rep)
    check(lines["man1/bomb.1.gz"][1] == "failed: expands past the limit of 64 MiB (--max-size)",
          "default size limit: %s" % lines["man1/bomb.1.gz"])
    check(lines["man1/edge.1.gz"][1] == "converted", "default size limit: a page of 1 MiB converts")
    check(b"failed: man1/bomb.1.gz: expands past the limit" in proc.stderr, "the failure's reason on standard error")
    for bad in ("0", "64X", "-1", "K"):
        run(args.tree, ["-q", "--max-size", bad, src, tmp + "/limit/dst-bad"], 2)


def temporary_files(folder):
    return sorted(os.path.relpath(os.path.join(d, n), folder) for d, _s, files in os.walk(folder)
                  for n in files if ".part." in n or n.startswith("trofftovif."))


def check_killed(args, tmp):
    src, dst, rep = tmp + "/killed/src", tmp + "/killed/dst", tmp + "/killed/report.tsv"
    convtmp = tmp + "/killed/tmp"  # where the workers' converters make their files
    os.makedirs(convtmp)
    write(src + "/man1/hang.1", b".TH HANG 1\nThe conversion of this page never ends.\n")
    write(src + "/man1/later.1", b".TH LATER 1\nConverted after the hanging page.\n")
    hang = dict(os.environ, TMPDIR=convtmp, TROFFTOVIF_TREE_TEST_HANG="man1/hang.1")

    # A worker past the time limit is killed: its file fails, nothing of it is
    # left, and a fresh worker converts the next file.
    proc = subprocess.run([args.tree, "-q", "-j", "1", "--timeout", "1", "--report", rep, src, dst],
                          capture_output=True, env=hang, timeout=60)
    check(proc.returncode == 1, "timed-out worker: exit status %d" % proc.returncode)
    lines = report(rep)
    check(lines["man1/hang.1"][1] == "failed: no result after 1 s", "timed-out file fails: %s" % lines["man1/hang.1"])
    check(lines["man1/later.1"][1] == "converted", "the file after it converts")
    check(temporary_files(dst) == [] and os.listdir(convtmp) == [],
          "timed-out worker: nothing left: %s %s" % (temporary_files(dst), os.listdir(convtmp)))

    # A run killed as a whole leaves the temporary files of the file its worker
    # had; the next run removes them, and only them.
    dst = tmp + "/killed/dst-run"
    started = subprocess.Popen([args.tree, "-q", "-j", "1", src, dst], env=hang, start_new_session=True,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 30
    while time.monotonic() < deadline and not (temporary_files(dst) and os.listdir(convtmp)):
        time.sleep(0.05)
    time.sleep(0.2)
    os.killpg(started.pid, signal.SIGKILL)
    started.wait()
    left = temporary_files(dst)
    check(len(left) == 1 and left[0].startswith("man1/.hang.1.vif.part."), "killed run leaves its output: %s" % left)
    check(len(os.listdir(convtmp)) == 2, "killed run leaves its converter's files: %s" % os.listdir(convtmp))
    # Files of a process still running, and a file of no process, are not this
    # command's leftovers.
    running = "man1/.hang.1.vif.part.%d.1" % os.getpid()
    others = [running, "man1/.notes.part", "man1/.hang.1.vif.part.x.1"]
    for name in others:
        write(dst + "/" + name, b"")
    write(convtmp + "/trofftovif.%d.1" % os.getpid(), b"")
    proc = subprocess.run([args.tree, "-q", "-j", "1", "--report", rep, src, dst], capture_output=True,
                          env=dict(os.environ, TMPDIR=convtmp), timeout=60)
    check(proc.returncode == 0, "the run after a killed one: exit status %d" % proc.returncode)
    lines = report(rep)
    check(lines["man1/hang.1"][1] == "converted", "the next run converts the page: %s" % lines["man1/hang.1"])
    check(temporary_files(dst) == sorted(n for n in others if ".part." in n),
          "the next run removes what the killed one left, nothing else: %s" % temporary_files(dst))
    check(os.listdir(convtmp) == ["trofftovif.%d.1" % os.getpid()],
          "the next run removes the killed run's converter files: %s" % os.listdir(convtmp))


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
        check(lines["man1/bsd.1"][1] == "converted", "mdoc page converted")
        check(lines["man1/damaged.1.gz"][1].startswith("failed"), "damaged page failed")
        check(lines["man1/outside.1"][1].startswith("skipped: redirect outside"), "escape from the tree refused")
        check(link(dst + "/man1/stub.1.vif") == "../man7/target.7.vif", "stub links to its target")
        check(link(dst + "/man1/alias.1.vif") == "packed.1.vif", "alias links to its target")
        check(not os.path.exists(dst + "/man1/damaged.1.vif"), "no output for a failure")
        bsd = read(dst + "/man1/bsd.1.vif")
        check(b" a page in mdoc " in bsd and b"Nd" not in bsd, "mdoc page's macros interpreted")
        check(read(dst + "/man1/packed.1.vif") ==
              direct(args.program, ["--full", "-man"], b".TH PACKED 1\n.SH NAME\npacked \\- compressed\n"),
              "compressed page converted as the converter does it directly")
        check(read(dst + "/papers/paper.ms.vif") ==
              direct(args.program, ["--full", "-ms"], b".NH\nIntroduction\n.PP\nText.\n"),
              "paper converted with -ms")
        check(lines["man1/untitled.1"][1] == "converted", "page without TH in man1 converted")
        shell = read(dst + "/man5/shell.5.vif") or b""
        check(lines["man5/shell.5"][1:3] == ["converted", "0"] and b"The target." in shell and b"After." in shell,
              "an include named from the tree's root, gzipped there, is read: %s" % lines["man5/shell.5"])
        check(read(dst + "/papers/notes.vif") == direct(args.program, ["--full", "-ms"], NOTES),
              "SH then LP outside a section folder is an ms paper")
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
        # does not stop the other files. In the full mode it reads the page
        # on standard input in the page's folder, which it writes first; in
        # the classic one it is given the file names.
        broken = tmp + "/broken.sh"
        with open(broken, "w") as f:
            f.write('#!/bin/sh\n'
                    'if [ "$1" = --full ]; then\n'
                    '  input=$(cat); echo partial; pwd\n'
                    '  case "$input" in *PLAIN*) exit 3;; esac\n'
                    '  printf "%s\\n" "$input"; exit 0\n'
                    'fi\n'
                    'echo partial > "$3"\ncase "$2" in *plain*) exit 3;; esac\ncat "$2" > "$3"\n')
        os.chmod(broken, 0o755)
        for mode in ([], ["--classic"]):
            out2 = tmp + "/dst2" + "".join(mode)
            run(args.tree, ["--program", broken, "-q", "--report", rep, "-j", "2"] + mode + [src, out2], 1)
            lines = report(rep)
            check(lines["man1/plain.1"][1].startswith("failed: exit status 3"), "%s: failing conversion reported" % mode)
            check(not os.path.exists(out2 + "/man1/plain.1.vif"), "%s: no partial output of a failure" % mode)
            check(lines["man7/target.7.gz"][1] == "converted", "%s: other files go on" % mode)
            target = read(out2 + "/man7/target.7.vif") or b""
            check(b"The target." in target, "%s: the page reached the program" % mode)
            if not mode:
                check(target.split(b"\n")[1] == os.path.realpath(src + "/man7").encode(),
                      "full mode: the program runs in the page's folder: %r" % target[:200])
        # A worker that dies costs only the file it had: the others, the
        # files after it included, are converted by a fresh worker.
        out3 = tmp + "/dst3"
        crash = dict(os.environ, TROFFTOVIF_TREE_TEST_CRASH="man1/plain.1")
        subprocess.run([args.tree, "-q", "--report", rep, "-j", "1", src, out3], env=crash,
                       capture_output=True)
        lines = report(rep)
        check(lines["man1/plain.1"][1].startswith("failed: ended by signal"), "crashed worker's file failed")
        check(not os.path.exists(out3 + "/man1/plain.1.vif"), "no output for the crashed file")
        check(temporary_files(out3) == [], "nothing left of the crashed file: %s" % temporary_files(out3))
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

        check_modes(args, tmp)
        check_hostile(args, tmp)
        check_size_limit(args, tmp)
        check_killed(args, tmp)
    for failure in failures:
        print("FAILED:", failure)
    print("%d passed, %d failed" % (1 if not failures else 0, 1 if failures else 0))
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
