#!/usr/bin/env python3
"""Expansion cost: the same number of interpolated characters two ways.

Builds two inputs that each expand 4,000,000 characters through string
interpolation: a 1,000-character string interpolated 4,000 times, and a
100,000-character string interpolated 40 times, every interpolation on its own
input line. With pushback that costs O(1) per character read, both take about
the same time; a cost per character that grows with the pending text would
make the second far slower.

  bench/expansion.py [--program build/trofftovif] [--repeat 3]
"""
import argparse
import os
import subprocess
import tempfile
import time


def make_input(length, count):
    # Long values come from repeated doubling with self-references, which
    # expand once, at definition time.
    lines = [".ds s x"]
    size = 1
    while size * 2 <= length:
        lines.append(".ds s \\*s\\*s")
        size *= 2
    if size < length:
        lines.append(".ds s \\*s" + "y" * (length - size))
    lines += ["\\*s"] * count
    return ("\n".join(lines) + "\n").encode()


def best_time(program, data, repeat):
    best = None
    with tempfile.TemporaryDirectory() as tmp:
        path = os.path.join(tmp, "in.tr")
        with open(path, "wb") as f:
            f.write(data)
        for _ in range(repeat):
            with open(path, "rb") as stdin:
                start = time.perf_counter()
                proc = subprocess.run([program], stdin=stdin, stdout=subprocess.DEVNULL,
                                      stderr=subprocess.PIPE, env=dict(os.environ, TMPDIR=tmp))
                elapsed = time.perf_counter() - start
            if proc.returncode != 0 or proc.stderr:
                raise SystemExit("run failed: status %d, %r" % (proc.returncode, proc.stderr[:200]))
            best = elapsed if best is None else min(best, elapsed)
    return best


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", default=os.path.join(here, "..", "build", "trofftovif"))
    parser.add_argument("--repeat", type=int, default=3)
    args = parser.parse_args()
    short = best_time(args.program, make_input(1000, 4000), args.repeat)
    long = best_time(args.program, make_input(100000, 40), args.repeat)
    print("1,000 chars x 4,000:  %.3f s" % short)
    print("100,000 chars x 40:   %.3f s" % long)
    print("ratio long/short:     %.2f" % (long / short))


if __name__ == "__main__":
    main()
