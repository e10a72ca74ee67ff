#!/usr/bin/env python3
"""Speed of the full mode on mdoc pages beside man pages of the same size.

  python3 bench/mdoc.py --program build/trofftovif [--rounds 5] [--callgrind]

Every installed mdoc page (as tests/compare_check.py finds them) is paired
with the installed man(7) page closest to it in decompressed size, each page
used once. Both sets are decompressed into a temporary directory and converted
one process per page, trofftovif --full -mdoc and trofftovif --full -man, the
two sets alternating round by round. Printed: pages, bytes, CPU seconds (user
+ system of the converters) per round at the median, and the ratio of CPU time
per page and per byte, mdoc over man. With --callgrind, also the instructions
each set takes under valgrind's callgrind (a count that does not depend on the
machine's load), start-up included.
"""
import argparse
import bisect
import os
import re
import resource
import statistics
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests"))
import corpus_check  # noqa: E402


def children_cpu():
    r = resource.getrusage(resource.RUSAGE_CHILDREN)
    return r.ru_utime + r.ru_stime


def convert_all(program, package, files):
    start = children_cpu()
    for path in files:
        subprocess.run([program, "--full", package, path], stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, check=False)
    return children_cpu() - start


def instructions(program, package, files, d):
    total = 0
    for k, path in enumerate(files):
        out = os.path.join(d, "callgrind.%s.%d" % (package[1:], k))
        subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out, program, "--full",
                        package, path], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
        with open(out) as f:
            m = re.search(r"^summary: (\d+)", f.read(), re.M)
        total += int(m.group(1)) if m else 0
        os.remove(out)
    return total


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--program", required=True)
    ap.add_argument("--rounds", type=int, default=5)
    ap.add_argument("--callgrind", action="store_true")
    ap.add_argument("--man-dir", default=corpus_check.MAN_DIR)
    args = ap.parse_args(argv)

    pages, _ = corpus_check.man_pages(args.man_dir)
    mdoc, man = [], []
    for _, path in pages:
        data = corpus_check.read_document(path)
        reason = corpus_check.skip_reason(data)
        if reason == "mdoc page":
            mdoc.append(data)
        elif reason is None:
            man.append(data)
    man.sort(key=len)
    sizes = [len(d) for d in man]
    used = set()
    pairs = []
    for data in sorted(mdoc, key=len):
        i = bisect.bisect_left(sizes, len(data))
        # The nearest unused page, looking outwards from the same size.
        for step in range(len(sizes)):
            found = None
            for j in (i - step, i + step):
                if 0 <= j < len(sizes) and j not in used:
                    found = j
                    break
            if found is not None:
                used.add(found)
                pairs.append((data, man[found]))
                break
    with tempfile.TemporaryDirectory() as d:
        sets = {"-mdoc": [], "-man": []}
        for k, (a, b) in enumerate(pairs):
            for package, data in (("-mdoc", a), ("-man", b)):
                path = os.path.join(d, "%s-%d" % (package[1:], k))
                with open(path, "wb") as f:
                    f.write(data)
                sets[package].append(path)
        counts = {}
        if args.callgrind:
            counts = {p: instructions(args.program, p, sets[p], d) for p in sets}
        times = {"-mdoc": [], "-man": []}
        for _ in range(args.rounds):
            for package in ("-mdoc", "-man"):
                times[package].append(convert_all(args.program, package, sets[package]))
    n = len(pairs)
    size = {"-mdoc": sum(len(a) for a, _ in pairs), "-man": sum(len(b) for _, b in pairs)}
    med = {p: statistics.median(t) for p, t in times.items()}
    print("| pages | set | bytes | CPU s per round (median of %d) | ms per page |" % args.rounds)
    print("|---|---|---|---|---|")
    for p in ("-mdoc", "-man"):
        print("| %d | %s | %d | %.3f | %.2f |" % (n, p, size[p], med[p], 1000 * med[p] / n))
    print()
    print("mdoc over man: %.2f per page, %.2f per byte" %
          (med["-mdoc"] / med["-man"], (med["-mdoc"] / size["-mdoc"]) / (med["-man"] / size["-man"])))
    if counts:
        print("instructions: mdoc %d (%.0f per page), man %d (%.0f per page); mdoc over man %.2f" %
              (counts["-mdoc"], counts["-mdoc"] / n, counts["-man"], counts["-man"] / n,
               counts["-mdoc"] / counts["-man"]))


if __name__ == "__main__":
    main()
