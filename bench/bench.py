#!/usr/bin/env python3
"""Speed and memory of trofftovif on real documents, beside other troff readers.

  python3 bench/bench.py --program build/trofftovif [--pages 500] [--big 2000]

1. Manual pages, one process per page: the same fixed sample of installed
   pages (every k-th page of the sorted list, as the corpus check picks them),
   decompressed once into a temporary directory, converted by trofftovif -man
   (the classic mode) and trofftovif --full -man (the full mode), mandoc -T
   html and groff -man -T utf8, and read by cat as the baseline cost of one
   process per page. Pages per second and MB/s of input.
2. The ms and me papers of tests/data/corpus, one at a time and joined (the ms
   papers into one input, the me papers into another): time and peak memory
   for trofftovif in both modes and groff.
3. One large input: --big pages joined, for trofftovif in both modes, mandoc
   and groff: bytes per second and peak memory.
4. The whole manual tree: trofftovif-tree (beside --program, one worker per
   core) into a fresh folder, in the full mode (its default) and with
   --classic, against mandoc -T html run over every file of the section
   folders in as few processes as the argument limit allows (xargs), its
   output discarded. Pages per second.
Times are wall-clock and CPU (user + system of the process and what it ran);
on a shared machine the CPU figures are the steadier. A tool that is not
installed is listed as skipped. The results go to bench/results.md.
"""
import argparse
import datetime
import os
import platform
import shutil
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(ROOT, "tests"))
import corpus_check  # noqa: E402


TIME = "/usr/bin/time" if os.access("/usr/bin/time", os.X_OK) else None


def run(cmd, path=None, memory=False):
    """Runs cmd with the file at path as standard input, output discarded.
    Returns (exit status, wall seconds, CPU seconds, peak memory in KiB); the
    CPU time covers the children the command waited for. The peak memory is
    measured only when asked (else 0): through /usr/bin/time, since a process
    forked from this script would start from the script's own resident size."""
    stdin = open(path, "rb") if path else subprocess.DEVNULL
    report = None
    if memory and TIME:
        fd, report = tempfile.mkstemp(prefix="bench-time-")
        os.close(fd)
        cmd = [TIME, "-f", "%x %M", "-o", report] + cmd
    try:
        start = time.monotonic()
        proc = subprocess.Popen(cmd, stdin=stdin, stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL)
        _, status, usage = os.wait4(proc.pid, 0)
        wall = time.monotonic() - start
        proc.returncode = os.waitstatus_to_exitcode(status)
    finally:
        if path:
            stdin.close()
    rss = 0
    if report:
        with open(report) as f:
            words = f.read().split()
        os.unlink(report)
        # The last line is ours; earlier ones are /usr/bin/time's note on a
        # failed command.
        status, rss = int(words[-2]), int(words[-1])
    elif memory:
        rss = usage.ru_maxrss
    return status if report else proc.returncode, wall, usage.ru_utime + usage.ru_stime, rss


def tools(program):
    """name -> (command for one input file given as argv, or None if absent)."""
    found = {}
    found["trofftovif"] = lambda pkg, f: [program, pkg, f]
    found["trofftovif --full"] = lambda pkg, f: [program, "--full", pkg, f]
    if shutil.which("mandoc"):
        found["mandoc"] = lambda pkg, f: ["mandoc", "-T", "html", f]
    if shutil.which("groff"):
        found["groff"] = lambda pkg, f: ["groff", pkg, "-T", "utf8", f]
    found["cat"] = lambda pkg, f: ["cat", f]
    return found


def machine():
    model = "unknown"
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    load = os.getloadavg()[0] if hasattr(os, "getloadavg") else float("nan")
    return "%s, %d processors (nproc), %s; load average %.1f at the start" % (
        model, os.cpu_count() or 0, platform.system(), load)


def write_pages(pages, d):
    files = []
    for i, (name, path) in enumerate(pages):
        data = corpus_check.read_document(path)
        f = os.path.join(d, "%05d-%s" % (i, os.path.basename(name).replace(".gz", "")))
        with open(f, "wb") as out:
            out.write(data)
        files.append(f)
    return files


def mb(n):
    return n / 1e6


def bench_pages(found, files, lines):
    size = sum(os.path.getsize(f) for f in files)
    lines += ["## Manual pages, one process per page", "",
              "%d pages, %.2f MB of input." % (len(files), mb(size)), "",
              "| tool | failed | wall s | CPU s | pages/s (wall) | pages/s (CPU) | MB/s (wall) | MB/s (CPU) |",
              "|---|---|---|---|---|---|---|---|"]
    for name in ("trofftovif", "trofftovif --full", "mandoc", "groff", "cat"):
        if name not in found:
            lines.append("| %s | skipped: not installed | | | | | | |" % name)
            continue
        failed = 0
        wall = cpu = 0.0
        for f in files:
            status, w, c, _ = run(found[name]("-man", f))
            failed += status != 0
            wall += w
            cpu += c
        lines.append("| %s | %d | %.2f | %.2f | %.0f | %.0f | %.2f | %.2f |" % (
            name, failed, wall, cpu, len(files) / wall, len(files) / max(cpu, 1e-9),
            mb(size) / wall, mb(size) / max(cpu, 1e-9)))
        print(lines[-1], flush=True)
    lines.append("")


def bench_papers(found, d, lines):
    papers = corpus_check.paper_list()
    tools = ("trofftovif", "trofftovif --full", "groff")
    lines += ["## ms and me papers", "",
              "| document | KB | " + " | ".join("%s wall s | CPU s | peak KiB" % t for t in tools) + " |",
              "|---|---|" + "---|---|---|" * len(tools)]
    joined = {"-ms": os.path.join(d, "all.ms"), "-me": os.path.join(d, "all.me")}
    for f in joined.values():
        open(f, "wb").close()
    rows = []
    for name, path in papers:
        pkg = corpus_check.package_of(path)
        with open(path, "rb") as src, open(joined[pkg], "ab") as out:
            out.write(src.read())
        rows.append((name, path, pkg))
    rows += [("all %d ms papers joined" % sum(r[2] == "-ms" for r in rows), joined["-ms"], "-ms"),
             ("all %d me papers joined" % sum(r[2] == "-me" for r in rows), joined["-me"], "-me")]
    for name, path, pkg in rows:
        cells = ["%s" % name, "%.0f" % (os.path.getsize(path) / 1e3)]
        for tool in tools:
            if tool not in found:
                cells += ["skipped: not installed", "", ""]
                continue
            status, w, c, rss = run(found[tool](pkg, path), memory=True)
            cells += ["%.3f%s" % (w, "" if status == 0 else " (exit %d)" % status), "%.3f" % c, "%d" % rss]
        lines.append("| " + " | ".join(cells) + " |")
        print(lines[-1], flush=True)
    lines.append("")


def bench_big(found, files, d, lines):
    big = os.path.join(d, "big.man")
    with open(big, "wb") as out:
        for f in files:
            with open(f, "rb") as src:
                out.write(src.read())
    size = os.path.getsize(big)
    lines += ["## One large input", "",
              "%d pages joined, %.2f MB." % (len(files), mb(size)), "",
              "| tool | exit | wall s | CPU s | MB/s (wall) | MB/s (CPU) | peak KiB |",
              "|---|---|---|---|---|---|---|"]
    for name in ("trofftovif", "trofftovif --full", "mandoc", "groff"):
        if name not in found:
            lines.append("| %s | skipped: not installed | | | | | |" % name)
            continue
        status, w, c, rss = run(found[name]("-man", big), memory=True)
        lines.append("| %s | %d | %.2f | %.2f | %.2f | %.2f | %d |" % (
            name, status, w, c, mb(size) / w, mb(size) / max(c, 1e-9), rss))
        print(lines[-1], flush=True)
    lines.append("")


def bench_tree(tree, d, lines):
    lines += ["## The whole manual tree", ""]
    if not os.access(tree, os.X_OK):
        lines += ["skipped: %s not built" % tree, ""]
        return
    pages = []
    for root, dirs, files in os.walk(corpus_check.MAN_DIR):
        dirs.sort()
        if "/man" in root[len(corpus_check.MAN_DIR):] or os.path.basename(root).startswith("man"):
            pages += [os.path.join(root, f) for f in sorted(files) if os.path.isfile(os.path.join(root, f))
                      and not os.path.islink(os.path.join(root, f))]
    lines += ["%s: %d files in the section folders." % (corpus_check.MAN_DIR, len(pages)), "",
              "| tool | pages | exit | wall s | CPU s | pages/s (wall) | pages/s (CPU) |",
              "|---|---|---|---|---|---|---|"]
    jobs = os.cpu_count() or 1
    summaries = []
    for label, extra in (("", []), (" --classic", ["--classic"])):
        summary = os.path.join(d, "tree-summary%s.txt" % label.replace(" ", ""))
        start = time.monotonic()
        with open(summary, "wb") as err:
            proc = subprocess.Popen([tree, "-q", "-j", str(jobs)] + extra +
                                    [corpus_check.MAN_DIR, os.path.join(d, "tree" + label.replace(" ", ""))],
                                    stdout=subprocess.DEVNULL, stderr=err)
            _, status, usage = os.wait4(proc.pid, 0)
        wall = time.monotonic() - start
        cpu = usage.ru_utime + usage.ru_stime
        with open(summary) as f:
            text = f.read()
        summaries.append((label, text))
        converted = int(text.split(" converted")[0].split()[-1]) if " converted" in text else 0
        lines.append("| trofftovif-tree%s -j %d | %d converted | %d | %.2f | %.2f | %.0f | %.0f |" % (
            label, jobs, converted, os.waitstatus_to_exitcode(status), wall, cpu, converted / wall,
            converted / max(cpu, 1e-9)))
        print(lines[-1], flush=True)
    if shutil.which("mandoc"):
        listing = os.path.join(d, "pages.list")
        with open(listing, "wb") as f:
            f.write(b"\0".join(p.encode() for p in pages))
        status, w, c, _ = run(["xargs", "-0", "mandoc", "-T", "html"], listing)
        lines.append("| mandoc -T html (xargs) | %d | %d | %.2f | %.2f | %.0f | %.0f |" % (
            len(pages), status, w, c, len(pages) / w, len(pages) / max(c, 1e-9)))
        print(lines[-1], flush=True)
    else:
        lines.append("| mandoc | skipped: not installed | | | | | |")
    lines.append("")
    for label, text in summaries:
        lines += ["trofftovif-tree%s's summary: " % label + " / ".join(l for l in text.splitlines() if l), ""]


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--program", required=True)
    ap.add_argument("--pages", type=int, default=500)
    ap.add_argument("--big", type=int, default=2000, help="pages joined into the large input")
    ap.add_argument("--out", default=os.path.join(HERE, "results.md"))
    ap.add_argument("--tree", help="trofftovif-tree to time over the whole manual tree "
                    "(default: beside --program)")
    ap.add_argument("--only-tree", action="store_true", help="run the whole-tree comparison alone")
    args = ap.parse_args(argv)
    program = os.path.abspath(args.program)
    found = tools(program)

    lines = ["# Benchmark results", "",
             "Machine: %s." % machine(),
             "Date: %s." % datetime.datetime.now().strftime("%Y-%m-%d %H:%M"),
             "Program: %s." % args.program, ""]
    all_pages, _ = corpus_check.man_pages(corpus_check.MAN_DIR)
    tree = os.path.abspath(args.tree or os.path.join(os.path.dirname(program), "trofftovif-tree"))
    with tempfile.TemporaryDirectory(prefix="bench-") as d:
        if args.only_tree:
            all_pages = []
        elif all_pages:
            os.mkdir(os.path.join(d, "pages"))
            os.mkdir(os.path.join(d, "big"))
            files = write_pages(corpus_check.sample_pages(all_pages, args.pages, {}),
                                os.path.join(d, "pages"))
            bench_pages(found, files, lines)
        else:
            lines += ["No manual pages installed: the page benchmarks are skipped.", ""]
        if not args.only_tree:
            bench_papers(found, d, lines)
        if all_pages:
            big_files = write_pages(corpus_check.sample_pages(all_pages, args.big, {}),
                                    os.path.join(d, "big"))
            bench_big(found, big_files, d, lines)
        if os.path.isdir(corpus_check.MAN_DIR):
            bench_tree(tree, d, lines)
    with open(args.out, "w") as f:
        f.write("\n".join(lines) + "\n")
    print("\n".join(lines))
    return 0


if __name__ == "__main__":
    sys.exit(main())
