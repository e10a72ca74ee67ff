#!/usr/bin/env python3
"""Speed and memory of trofftovif on real documents, beside other troff readers.

  python3 bench/bench.py --program build/trofftovif [--callgrind] [--pages 500]
      [--big 2000] [--varied 1000 --seed 16] [--rounds 5] [--no-tree]

1. Manual pages, one process per page: the same fixed sample of installed
   pages (every k-th page of the sorted list, as the corpus check picks them),
   decompressed once into a temporary directory; each page is converted by
   trofftovif -man (the classic mode), trofftovif --full -man (the full mode),
   mandoc -T html and groff -man -T utf8, and read by cat, one tool after the
   other, over several rounds: a page's time is its fastest round, and each
   tool's median page time is set against cat's.
2. The ms and me papers of tests/data/corpus, one at a time, joined (the ms
   papers into one input, the me papers into another), and the joined papers
   repeated to the size of the largest joined pages (with eqn's delimiter
   turned off between copies, so that every copy reads as the first): time
   and peak memory for trofftovif in both modes and groff. The repeated
   papers' bytes per second are set against the joined pages'.
3. Joined manual pages: --big pages of the same kind of sample, and --varied
   pages chosen at random (seeded) among the installed man(7) pages, leaving
   out one cloud tool's thousands of generated pages; each joined input read
   by trofftovif in both modes, mandoc and groff: bytes per second of CPU time
   (the fastest of --rounds runs) and peak memory.
4. With --callgrind: instructions per input byte under valgrind's callgrind,
   by module, for both joined page inputs and both joined paper inputs, in
   both modes (counts that do not depend on the machine's load).
5. The whole manual tree: trofftovif-tree (beside --program, one worker per
   core) into a fresh folder, in the full mode (its default) and with
   --classic, against mandoc -T html run over every file of the section
   folders in as few processes as the argument limit allows (xargs), its
   output discarded. Pages per second.
A summary of the speed targets heads the results. Times are wall-clock and
CPU (user + system of the process and what it ran); on a shared machine the
CPU figures are the steadier. A tool that is not installed is listed as
skipped. The results go to bench/results.md.
"""
import argparse
import collections
import datetime
import lzma
import os
import platform
import random
import shutil
import statistics
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
    """name -> command for a package's documents (the file is added last), for
    the tools that are installed."""
    found = {}
    found["trofftovif"] = lambda pkg: [program, pkg]
    found["trofftovif --full"] = lambda pkg: [program, "--full", pkg]
    if shutil.which("mandoc"):
        found["mandoc"] = lambda pkg: [shutil.which("mandoc"), "-T", "html"]
    if shutil.which("groff"):
        found["groff"] = lambda pkg: [shutil.which("groff"), pkg, "-T", "utf8"]
    found["cat"] = lambda pkg: [shutil.which("cat")]
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


def varied_pages(pages, n, seed):
    """A random sample of n installed man(7) pages (seeded, so that runs can be
    compared), leaving out the many generated pages of one cloud tool, whose
    sameness would flatter any reader."""
    pool = [(name, path) for name, path in pages if "gcloud" not in os.path.basename(name)]
    random.Random(seed).shuffle(pool)
    chosen = []
    for name, path in pool:
        if len(chosen) >= n:
            break
        try:
            if corpus_check.skip_reason(corpus_check.read_document(path)) is None:
                chosen.append((name, path))
        except (OSError, EOFError, lzma.LZMAError):
            pass
    return chosen


def join(files, path):
    with open(path, "wb") as out:
        for f in files:
            with open(f, "rb") as src:
                out.write(src.read())
    return path


def mb(n):
    return n / 1e6


def spawn(cmd, path):
    """Runs cmd with the file at path as its last argument, output discarded;
    returns (exit status, wall seconds, CPU seconds)."""
    devnull = os.open(os.devnull, os.O_WRONLY)
    try:
        start = time.perf_counter()
        pid = os.posix_spawn(cmd[0], cmd + [path], os.environ,
                             file_actions=[(os.POSIX_SPAWN_DUP2, devnull, 1), (os.POSIX_SPAWN_DUP2, devnull, 2)])
        _, status, usage = os.wait4(pid, 0)
        wall = time.perf_counter() - start
    finally:
        os.close(devnull)
    return os.waitstatus_to_exitcode(status), wall, usage.ru_utime + usage.ru_stime


def bench_pages(found, files, rounds, lines, results):
    """One process per page, the tools side by side: each page is converted by
    every tool in turn, `rounds` times over; a page's time is its fastest round.
    The median page time of each tool is set against cat's."""
    size = sum(os.path.getsize(f) for f in files)
    names = [n for n in ("trofftovif", "trofftovif --full", "mandoc", "groff", "cat") if n in found]
    best = {n: [float("inf")] * len(files) for n in names}
    cpu = {n: [float("inf")] * len(files) for n in names}
    failed = {n: 0 for n in names}
    for r in range(rounds):
        for i, f in enumerate(files):
            for n in names:
                status, wall, c = spawn(found[n]("-man"), f)
                if r == 0:
                    failed[n] += status != 0
                best[n][i] = min(best[n][i], wall)
                cpu[n][i] = min(cpu[n][i], c)
    cat = statistics.median(best["cat"])
    lines += ["## Manual pages, one process per page", "",
              "%d pages, %.2f MB of input; each page converted by every tool in turn, %d rounds, "
              "a page's time its fastest round (wall clock, the process started and waited for)." % (
                  len(files), mb(size), rounds), "",
              "| tool | failed | median ms per page | median over cat's | CPU s (all pages) | pages/s (CPU) | MB/s (CPU) |",
              "|---|---|---|---|---|---|---|"]
    for n in names:
        med = statistics.median(best[n])
        total = sum(cpu[n])
        lines.append("| %s | %d | %.3f | %.2f | %.2f | %.0f | %.2f |" % (
            n, failed[n], 1000 * med, med / cat, total, len(files) / max(total, 1e-9), mb(size) / max(total, 1e-9)))
        print(lines[-1], flush=True)
        results["pages " + n] = med / cat
    lines.append("")


def fastest(cmd, path, rounds):
    """(exit status, fewest CPU seconds over the rounds, peak KiB of the first)."""
    status, _, c, rss = run(cmd + [path], path, memory=True)
    for _ in range(rounds - 1):
        c = min(c, run(cmd + [path], path)[2])
    return status, c, rss


def bench_joined(found, inputs, rounds, lines, results):
    """Each joined input read once by each tool, the fewest CPU seconds of
    `rounds` runs (groff's one run); bytes per second, against mandoc's, and
    the peak memory against twice the input plus 8 MiB."""
    lines += ["## Joined inputs", "",
              "The fewest CPU seconds (user + system) of %d runs, start-up included; groff runs once." % rounds, "",
              "| input | MB | tool | exit | CPU s | MB/s | times mandoc's | peak KiB | memory bound KiB |",
              "|---|---|---|---|---|---|---|---|---|"]
    for label, path, pkg, tools in inputs:
        size = os.path.getsize(path)
        bound = (2 * size + 8 * 1024 * 1024) // 1024
        speed = {}
        for n in tools:
            if n not in found:
                lines.append("| %s | %.2f | %s | skipped: not installed | | | | | |" % (label, mb(size), n))
                continue
            status, c, rss = fastest(found[n](pkg), path, 1 if n == "groff" else rounds)
            speed[n] = mb(size) / max(c, 1e-9)
            versus = ("%.1f" % (speed[n] / speed["mandoc"])) if "mandoc" in speed and n != "mandoc" else ""
            lines.append("| %s | %.2f | %s | %d | %.4f | %.1f | %s | %d | %s |" % (
                label, mb(size), n, status, c, speed[n], versus, rss,
                bound if n.startswith("trofftovif") else ""))
            print(lines[-1], flush=True)
            if n.startswith("trofftovif"):
                results["joined %s %s" % (label, n)] = (speed[n], speed.get("mandoc"), rss, bound)
        if "trofftovif" in speed and "trofftovif --full" in speed:
            results["full over classic " + label] = speed["trofftovif"] / speed["trofftovif --full"]
    lines.append("")


def module_of(source, program):
    """The part of the program a function's instructions are counted to: its
    folder under src/, else the library it comes from."""
    if "/src/" in source:
        return "src/" + source.split("/src/", 1)[1].split("/", 1)[0]
    if source.startswith("/usr/include/c++"):
        return "C++ library"
    return "C library and start-up"


def callgrind_modules(program, args, path, d):
    """Instructions of one run under callgrind, by module: each function's own
    instructions (those of the code inlined into it included) go to one
    module, the folder under src/ of the source file most of them come from
    (callgrind names the file of a function's first instruction, which may be
    a header inlined into it), else the library they come from."""
    out = os.path.join(d, "callgrind.out")
    subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out] + [program] + args + [path],
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
    # Names are compressed to numbers: files (fl, fi, fe, cfl, cfi) share one
    # table, functions (fn, cfn) another, objects (ob, cob) a third.
    kinds = {"fl": "file", "fi": "file", "fe": "file", "cfl": "file", "cfi": "file",
             "fn": "fn", "cfn": "fn", "ob": "ob", "cob": "ob"}
    names = {}
    by_function = collections.defaultdict(collections.Counter)  # function -> source file -> instructions
    file_now = ""   # the source file the cost lines that follow come from
    function = ""
    skip_next = False
    with open(out) as f:
        for line in f:
            if line[0].isdigit() or line[0] in "+-*":
                if skip_next:  # the inclusive cost of a call, not this function's own
                    skip_next = False
                    continue
                cost = line.split()
                if len(cost) >= 2:
                    by_function[function][file_now] += int(cost[-1])
                continue
            key, _, value = line.rstrip("\n").partition("=")
            if key in kinds:
                ident, _, name = value.partition(" ")
                if name:
                    names[(kinds[key], ident)] = name
                name = names.get((kinds[key], ident), ident)
                if key in ("fl", "fi", "fe"):
                    file_now = name
                elif key == "fn":
                    function = name
            elif key == "calls":
                skip_next = True
    os.unlink(out)
    totals = collections.Counter()
    for files in by_function.values():
        own = [(n, fl) for fl, n in files.items() if "/src/" in fl]
        main_file = max(own)[1] if own else max((n, fl) for fl, n in files.items())[1]
        totals[module_of(main_file, program)] += sum(files.values())
    return totals


def bench_instructions(program, inputs, d, lines, results):
    lines += ["## Instructions per input byte", "",
              "`valgrind --tool=callgrind`, start-up included; each function's instructions (with what is "
              "inlined into it) counted to the module its file is in.", ""]
    rows = []
    modules = set()
    for label, path, pkg in inputs:
        size = os.path.getsize(path)
        for mode, extra in (("classic", []), ("full", ["--full"])):
            totals = callgrind_modules(program, extra + [pkg], path, d)
            modules.update(totals)
            rows.append((label, mode, size, totals))
            results["instructions %s %s" % (label, mode)] = sum(totals.values()) / size
            print(label, mode, "%.1f per byte" % (sum(totals.values()) / size), flush=True)
    order = sorted(modules, key=lambda m: (not m.startswith("src/"), m))
    lines += ["| input | mode | per byte | " + " | ".join(order) + " |",
              "|---|---|---|" + "---|" * len(order)]
    for label, mode, size, totals in rows:
        lines.append("| %s | %s | **%.1f** | " % (label, mode, sum(totals.values()) / size) +
                     " | ".join("%.1f" % (totals.get(m, 0) / size) for m in order) + " |")
    lines.append("")


# Put between two copies of the joined papers: one paper's in-line equation
# delimiter (eqn's delim $$) would otherwise turn the dollar signs of every
# paper of the next copy into equations, which the first copy does not.
COPY_BREAK = b".EQ\ndelim off\n.EN\n"


def repeat(path, goal, out):
    """Writes copies of the file at path to out until it holds at least goal
    bytes, COPY_BREAK between them; returns the number of copies."""
    with open(path, "rb") as f:
        data = f.read()
    copies = max(1, -(-goal // max(len(data), 1)))
    with open(out, "wb") as f:
        f.write(COPY_BREAK.join([data] * copies))
    return copies


def bench_papers(found, d, rounds, size_goal, lines, results):
    """The papers one at a time, joined (the ms papers into one input, the me
    papers into another) and the joined papers repeated to size_goal bytes, as
    large as the joined pages, so that their bytes per second are set against
    the pages' with the same share of start-up in the time."""
    papers = corpus_check.paper_list()
    tools = ("trofftovif", "trofftovif --full", "groff")
    lines += ["## ms and me papers", "",
              "One run each; the joined papers: the fewest CPU seconds of %d runs." % rounds, "",
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
        rows.append((name, path, pkg, 1, False))
    for pkg in ("-ms", "-me"):
        count = sum(r[2] == pkg for r in rows)
        rows.append(("all %d %s papers joined" % (count, pkg[1:]), joined[pkg], pkg, rounds, False))
        repeated = os.path.join(d, "repeated" + joined[pkg][-3:])
        copies = repeat(joined[pkg], size_goal, repeated)
        rows.append(("all %d %s papers joined, %d copies" % (count, pkg[1:], copies), repeated, pkg, rounds, True))
    for name, path, pkg, n, is_repeated in rows:
        cells = ["%s" % name, "%.0f" % (os.path.getsize(path) / 1e3)]
        for tool in tools:
            if tool not in found:
                cells += ["skipped: not installed", "", ""]
                continue
            status, w, c, rss = run(found[tool](pkg) + [path], path, memory=True)
            for _ in range((n if tool != "groff" else 1) - 1):
                c = min(c, run(found[tool](pkg) + [path], path)[2])
            cells += ["%.3f%s" % (w, "" if status == 0 else " (exit %d)" % status), "%.4f" % c, "%d" % rss]
            if is_repeated and tool.startswith("trofftovif"):
                results["papers %s %s" % (pkg, tool)] = mb(os.path.getsize(path)) / max(c, 1e-9)
        lines.append("| " + " | ".join(cells) + " |")
        print(lines[-1], flush=True)
    lines.append("")
    return joined


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


def targets(results, lines):
    """The speed targets, each with what this run measured."""
    rows = []

    def row(what, measured, bound, ok):
        rows.append("| %s | %s | %s | %s |" % (what, measured, bound, "met" if ok else "**not met**"))

    for key, value in sorted(results.items()):
        if key.startswith("joined "):
            speed, mandoc, rss, bound = value
            if mandoc:
                row(key[len("joined "):] + ": bytes per second against mandoc -T html",
                    "%.1f MB/s, %.1f times" % (speed, speed / mandoc), "10 times", speed >= 10 * mandoc)
            row(key[len("joined "):] + ": peak memory", "%d KiB" % rss, "%d KiB" % bound, rss <= bound)
    for key, value in sorted(results.items()):
        if key.startswith("instructions ") and ("pages" in key):
            row(key[len("instructions "):] + ": instructions per byte", "%.1f" % value, "60", value <= 60)
    for key, value in sorted(results.items()):
        if key.startswith("full over classic "):
            row("full mode over classic mode, CPU time, " + key[len("full over classic "):],
                "%.2f" % value, "1.3", value <= 1.3)
    for label in sorted({k.split(" ", 1)[1].rsplit(" ", 1)[0] for k in results if k.startswith("instructions ")}):
        c, f = results.get("instructions %s classic" % label), results.get("instructions %s full" % label)
        if c and f:
            row("full mode over classic mode, instructions, " + label, "%.2f" % (f / c), "1.3", f / c <= 1.3)
    for n in ("trofftovif", "trofftovif --full"):
        if "pages " + n in results:
            v = results["pages " + n]
            row(n + ": one process per page, median time over cat's", "%.2f" % v, "1.2", v <= 1.2)
    for mode in ("trofftovif", "trofftovif --full"):
        pages = [v[0] for k, v in results.items() if k.startswith("joined ") and k.endswith(" " + mode)]
        for pkg in ("-ms", "-me"):
            key = "papers %s %s" % (pkg, mode)
            if key in results and pages:
                row("%s: the %s papers joined and repeated, bytes per second against the joined pages' slowest" % (mode, pkg[1:]),
                    "%.1f MB/s against %.1f" % (results[key], min(pages)), "as fast", results[key] >= min(pages))
    lines += ["## Targets", "",
              "| target | measured | bound | |", "|---|---|---|---|"] + rows + [""]


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--program", required=True)
    ap.add_argument("--pages", type=int, default=500, help="pages converted one process each")
    ap.add_argument("--page-rounds", type=int, default=3, help="rounds over the pages, a page's fastest kept")
    ap.add_argument("--big", type=int, default=2000, help="pages of the benchmark's sample joined")
    ap.add_argument("--varied", type=int, default=1000, help="randomly chosen pages joined")
    ap.add_argument("--seed", type=int, default=16, help="of the random choice")
    ap.add_argument("--rounds", type=int, default=5, help="runs of each joined input, the fastest kept")
    ap.add_argument("--callgrind", action="store_true", help="count instructions under valgrind's callgrind")
    ap.add_argument("--out", default=os.path.join(HERE, "results.md"))
    ap.add_argument("--tree", help="trofftovif-tree to time over the whole manual tree "
                    "(default: beside --program)")
    ap.add_argument("--no-tree", action="store_true", help="leave the whole-tree comparison out")
    args = ap.parse_args(argv)
    program = os.path.abspath(args.program)
    found = tools(program)

    head = ["# Benchmark results", "",
            "Machine: %s." % machine(),
            "Date: %s." % datetime.datetime.now().strftime("%Y-%m-%d %H:%M"),
            "Program: %s. Command: `python3 bench/bench.py %s`." % (args.program, " ".join(argv or sys.argv[1:])), ""]
    lines = []
    results = {}
    all_pages, _ = corpus_check.man_pages(corpus_check.MAN_DIR)
    tree = os.path.abspath(args.tree or os.path.join(os.path.dirname(program), "trofftovif-tree"))
    with tempfile.TemporaryDirectory(prefix="bench-") as d:
        joined = []
        if all_pages:
            for sub in ("pages", "big", "varied"):
                os.mkdir(os.path.join(d, sub))
            files = write_pages(corpus_check.sample_pages(all_pages, args.pages, {}), os.path.join(d, "pages"))
            bench_pages(found, files, args.page_rounds, lines, results)
            big = write_pages(corpus_check.sample_pages(all_pages, args.big, {}), os.path.join(d, "big"))
            varied = write_pages(varied_pages(all_pages, args.varied, args.seed), os.path.join(d, "varied"))
            joined = [("the bench's pages joined (%d)" % len(big), join(big, os.path.join(d, "big.man")), "-man"),
                      ("varied pages joined (%d, seed %d)" % (len(varied), args.seed),
                       join(varied, os.path.join(d, "varied.man")), "-man")]
        else:
            lines += ["No manual pages installed: the page benchmarks are skipped.", ""]
        size_goal = max([os.path.getsize(path) for _, path, _ in joined] or [8 * 1000 * 1000])
        papers = bench_papers(found, d, args.rounds, size_goal, lines, results)
        tools_joined = ("mandoc", "trofftovif", "trofftovif --full", "groff")
        bench_joined(found, [(label, path, pkg, tools_joined) for label, path, pkg in joined], args.rounds, lines,
                     results)
        if args.callgrind and shutil.which("valgrind"):
            bench_instructions(program, joined + [("ms papers joined", papers["-ms"], "-ms"),
                                                  ("me papers joined", papers["-me"], "-me")], d, lines, results)
        if os.path.isdir(corpus_check.MAN_DIR) and not args.no_tree:
            bench_tree(tree, d, lines)
    summary = []
    targets(results, summary)
    with open(args.out, "w") as f:
        f.write("\n".join(head + summary + lines) + "\n")
    print("\n".join(head + summary + lines))
    return 0


if __name__ == "__main__":
    sys.exit(main())
