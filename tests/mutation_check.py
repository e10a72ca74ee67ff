#!/usr/bin/env python3
"""Mutation check: does the suite catch small faults a developer could make?

Copies the project to a scratch folder once, then for each fault below writes
it into the copy's source, rebuilds there, runs the suite without the long
corpus tests (`ctest -LE corpus`, which holds the captured regression tree;
the checker's own test left out),
puts the source back, and records which tests failed. Prints every fault with
the tests that caught it, the faults that survived, and the score. Slow (a
rebuild and a suite run per fault): not part of CI.

  tests/mutation_check.py [--work DIR] [--only ID,ID...] [--jobs N]
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# (id, file under src/, text as it stands, text with the fault, what the fault is)
FAULTS = [
    # driver
    ("driver-package-name", "driver/driver.cpp", "driver.macroPackage = argv[first] + 1;",
     "driver.macroPackage = argv[first] + 2;", "off by one taking the package name from -mXX"),
    ("driver-quiet-hash", "driver/driver.cpp",
     'return line.compare(i, 2, "\\\\\\"") == 0 || line.compare(i, 2, "\\\\#") == 0;',
     'return line.compare(i, 2, "\\\\\\"") == 0;', "\\# comment lines no longer count as quiet"),
    ("driver-version-letter", "driver/driver.cpp", "if (option == 'V' || option == 'v') {",
     "if (option == 'V') {", "-v no longer prints the version"),
    # tools
    ("rope-delete-first", "tools/rope.cpp", "std::memmove(rope->text, rope->text + 1, rope->length - 1);",
     "std::memmove(rope->text, rope->text + 1, rope->length - 2);", "off by one moving a rope's text"),
    ("stream-column-reset", "tools/stream.h", "        stream.column = 1;\n", "",
     "column count not reset at a new line"),
    # interp
    ("mainloop-copy-fill", "interp/mainloop.cpp", "            tv.TVIsFilling = s.wasFilling;\n", "",
     "the end of a copied region does not bring filling back"),
    ("mainloop-newline-reset", "interp/mainloop.cpp", "        if (c != kNewline) newlines = 0;\n",
     "\n", "dropped reset of the newline count"),
    ("escape-font-digit", "interp/escape.cpp",
     "case '1': case '2': case '3': case '4': position = name[0] - '1'; break;",
     "case '1': case '2': case '3': case '4': position = name[0] - '0'; break;", "\\fN off by one"),
    ("escape-size-two-digits", "interp/escape.cpp", "if (sign == 0 && value >= 1 && value <= 3) {",
     "if (sign == 0 && value >= 1 && value <= 2) {", "\\s3N read as one digit"),
    ("escape-number-sign", "interp/escape.cpp", "while (c == '+' || c == '-') c = TVGetc();",
     "while (c == '+') c = TVGetc();", "\\n-x keeps its sign"),
    ("traps-word-disarm", "interp/registers.cpp", "            t->isWordArmed = false;\n",
     "\n", "word trap left armed after the line ends"),
    ("traps-line-late", "interp/registers.cpp", "trap->lineCount = r.lineCount;",
     "trap->lineCount = r.lineCount + 1;", "line trap set one line too late"),
    # requests
    ("fill-nf-break", "requests/fill.cpp",
     "    tv.TVIsFilling = false;\n    tv.TVReturn.newPgf = true;\n}\n\n",
     "    tv.TVIsFilling = false;\n}\n\n", "nf without its break"),
    ("type-leading", "requests/type.cpp",
     "(static_cast<int64_t>(tv.TVLineSpacing) - 1) * vs;", "static_cast<int64_t>(tv.TVLineSpacing) * vs;",
     "line spacing counted one too many"),
    ("type-font-position", "requests/type.cpp",
     "if (name[0] >= '1' && name[0] <= '9') position = name[0] - '1';",
     "if (name[0] >= '1' && name[0] <= '9') position = name[0] - '0';", "ft N off by one"),
    ("type-relative-tabs", "requests/type.cpp", "(isRelative && n > 0) ? stops[n - 1].TSX.value + value",
     "(isRelative && n > 1) ? stops[n - 1].TSX.value + value", "second relative tab stop made absolute"),
    ("define-default-tabs", "requests/define.cpp", "stop.TSX.value = 0.5f * static_cast<float>(k + 1);",
     "stop.TSX.value = 0.5f * static_cast<float>(k);", "default tab stops off by one"),
    ("fill-ad-swap", "requests/fill.cpp", "        troffState.lastAd = troffState.ad;\n", "",
     "ad with a mode forgets the mode before it"),
    ("fill-ce-filling", "requests/fill.cpp", "    troffState.ceIsFilling = tv.TVIsFilling;\n", "",
     "ce does not keep the fill mode it interrupts"),
    ("fill-ul-trap", "requests/fill.cpp", "void ulTrap() { tv.TVIsUnderline = false; }",
     "void ulTrap() {}", "underlining does not end after its lines"),
    # macros
    ("man-toggle-reset", "macros/man.cpp", "    tv.TVReturn.suppressSpace = true;\n    s.toggleNo = 0;\n",
     "    tv.TVReturn.suppressSpace = true;\n", "alternating fonts not reset per macro"),
    ("man-tabs", "macros/man.cpp", "tv.TVTabStops[i].TSX.value = 0.5f * static_cast<float>(i + 1);",
     "tv.TVTabStops[i].TSX.value = 0.5f * static_cast<float>(i);", "man tab stops off by one"),
    ("man-prevailing-indent", "macros/man.cpp", "if (tv.TVCursor.x < s.prevailingIndent) {",
     "if (tv.TVCursor.x > s.prevailingIndent) {", "flipped comparison of the cursor with the indent"),
    ("ms-nh-level", "macros/ms.cpp", "level = (truncated >= 0 && truncated <= 4) ?",
     "level = (truncated >= 0 && truncated < 4) ?", "NH 4 taken as the deepest level"),
    ("ms-rs-level", "macros/ms.cpp", "    if (s.rsLevel < UINT32_MAX) s.rsLevel++;\n", "\n",
     "RS does not count its level"),
    ("ms-title-fill", "macros/ms.cpp", "    s.isCentering = true;\n    tv.TVIsFilling = false;\n",
     "    s.isCentering = true;\n", "title block stays filled"),
    ("ms-re-level", "macros/ms.cpp", "    if (s.rsLevel != 0) s.rsLevel--;\n", "",
     "RE does not go back a level"),
    ("escape-symbol-font", "interp/escape.cpp", "case 'S': position = 3; break;",
     "case 'S': position = 2; break;", "\\fS selects the bold position"),
    ("me-title-parts", "macros/me.cpp", "    size_t start = 1;\n    for (int k = 0; k < 3; ++k) {",
     "    size_t start = 0;\n    for (int k = 0; k < 3; ++k) {", "three-part title read from its delimiter"),
    ("me-np-restart", "macros/me.cpp", "        s.isUseHangingPgf1 = false;\n", "\n",
     "np numbering starts again at every item"),
    ("me-pf-position", "macros/me.cpp", "TVFontSetByPosition(static_cast<unsigned>(s.pf - 1 + 0.1f));",
     "TVFontSetByPosition(static_cast<unsigned>(s.pf + 0.1f));", "paragraph font position off by one"),
    # writer
    ("writer-gt-escape", "writer/text.cpp", "c != '`' && c != '>' && c != '\\\\') {",
     "c != '`' && c != '\\\\') {", "'>' written bare inside a String"),
    ("writer-tilde", "writer/text.cpp", "if ((c >= 32 && c <= 126) || c == '\\t') {",
     "if ((c >= 32 && c < 126) || c == '\\t') {", "a tilde written as a Char statement"),
    ("writer-small-dimension", "writer/model.cpp",
     "if (static_cast<double>(d.value) < threshold[d.unit]) d.value = replacement[d.unit];",
     "if (static_cast<double>(d.value) > threshold[d.unit]) d.value = replacement[d.unit];",
     "flipped comparison replacing tiny dimensions"),
    ("writer-backquote", "writer/text.cpp", "case '`': return put(\"\\\\xD4 \", stream);",
     "case '`': return put(\"\\\\xD5 \", stream);", "opening quote written as the closing one"),
    # roff
    ("roff-round-negative", "roff/expr.cpp", "return static_cast<int64_t>(value < 0 ? value - 0.5 : value + 0.5);",
     "return static_cast<int64_t>(value + 0.5);", "negative numbers rounded up"),
    ("roff-less-equal", "roff/expr.cpp", "case 'l': return a <= b;", "case 'l': return a < b;",
     "<= compares as <"),
    ("roff-char-number", "roff/escapes.cpp", "if (value < 128) {", "if (value <= 128) {",
     "\\N'128' taken as a plain byte"),
    ("roff-size-digits", "roff/escapes.cpp", "if (sign == 0 && c >= '1' && c <= '3') {",
     "if (sign == 0 && c >= '1' && c <= '2') {", "full mode \\s3N read as one digit"),
    ("roff-leading-blanks", "roff/roff.cpp",
     "    while (i < text.size() && (text[i] == ' ' || text[i] == '\\t')) i++;\n    size_t start = i;",
     "    size_t start = i;", "first word after blanks not found"),
    # mdoc
    ("mdoc-three-letter", "macros/mdoc.cpp", "if (name.size() < 2 || name.size() > 3) return 0;",
     "if (name.size() < 2 || name.size() >= 3) return 0;", "three-letter macros unknown"),
    ("mdoc-compact", "macros/mdoc.cpp", "float space = list.isCompact && list.items > 1 ? 0 : kParaSpace;\n    usePgf(format,",
     "float space = list.isCompact && list.items > 0 ? 0 : kParaSpace;\n    usePgf(format,", "compact list loses space before its first item"),
    ("mdoc-enum", "macros/mdoc.cpp", ": list.type == ListType::Enum  ? std::to_string(list.items) + \".\"",
     ": list.type == ListType::Enum  ? std::to_string(list.items - 1) + \".\"", "enumerated items count from 0"),
    # tree
    ("tree-section-folder", "tree/tree.cpp", "if (name.size() > 3 && startsWith(name, \"man\") &&",
     "if (name.size() > 4 && startsWith(name, \"man\") &&", "man1 not seen as a section folder"),
    ("tree-th", "tree/tree.cpp", "if (request == \"TH\") sawTH = true;", "if (request == \"SH\") sawTH = true;",
     "wrong macro marks a man page"),
    ("tree-gzip-members", "tree/tree.cpp", "if (status == Z_STREAM_END && z.avail_in > 0) status = inflateReset(&z);",
     "", "only the first gzip member read"),
]


def sync(src, dst):
    """Makes dst hold what src holds, rewriting only the files that differ, so
    that they and only they are newer than what was built from them (an
    interrupted run may have left a fault behind)."""
    if os.path.exists(dst):
        for name in os.listdir(dst):
            if not os.path.lexists(os.path.join(src, name)):
                path = os.path.join(dst, name)
                shutil.rmtree(path) if os.path.isdir(path) and not os.path.islink(path) else os.remove(path)
    os.makedirs(dst, exist_ok=True)
    for name in os.listdir(src):
        a, b = os.path.join(src, name), os.path.join(dst, name)
        if os.path.islink(a):
            if not os.path.islink(b) or os.readlink(b) != os.readlink(a):
                if os.path.lexists(b):
                    os.remove(b)
                os.symlink(os.readlink(a), b)
        elif os.path.isdir(a):
            sync(a, b)
        else:
            with open(a, "rb") as f:
                data = f.read()
            if not os.path.isfile(b) or open(b, "rb").read() != data:
                with open(b, "wb") as f:
                    f.write(data)


def run(cmd, cwd, timeout=None):
    return subprocess.run(cmd, cwd=cwd, capture_output=True, text=True, timeout=timeout)


def failed_tests(output):
    names = []
    after = output.split("The following tests FAILED:", 1)
    if len(after) == 2:
        for line in after[1].splitlines():
            m = re.match(r"\s*\d+ - (\S+) \((.*)\)", line)
            if m:
                names.append(m.group(1) + ("" if m.group(2) == "Failed" else " (%s)" % m.group(2)))
    return names


def build_and_test(work, jobs):
    b = run(["cmake", "--build", "build", "-j%d" % jobs], work)
    if b.returncode != 0:
        return None, b.stdout[-2000:] + b.stderr[-2000:]
    # vifcheck tests the checker alone: no fault of the source can reach it.
    t = run(["ctest", "-j%d" % jobs, "-LE", "corpus", "-E", "^vifcheck$", "--timeout", "300"],
            os.path.join(work, "build"))
    return failed_tests(t.stdout), t.stdout


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--work", help="scratch folder (default: a fresh temporary one)")
    ap.add_argument("--only", help="comma-separated fault ids")
    ap.add_argument("--jobs", type=int, default=2)
    args = ap.parse_args()
    faults = FAULTS
    if args.only:
        wanted = args.only.split(",")
        faults = [f for f in FAULTS if f[0] in wanted]
    work = args.work or tempfile.mkdtemp(prefix="mutation.")
    if not os.path.exists(os.path.join(work, "CMakeLists.txt")):
        shutil.copytree(ROOT, work, symlinks=True, dirs_exist_ok=True,
                        ignore=shutil.ignore_patterns(".git", "build*"))
    else:  # an earlier run's copy: bring the source and tests up to date
        for sub in ("src", "tests"):
            sync(os.path.join(ROOT, sub), os.path.join(work, sub))
    # Unoptimised: a fault costs one quick compile; the suite runs fast enough either way.
    c = run(["cmake", "-S", ".", "-B", "build", "-DCMAKE_BUILD_TYPE=None", "-DCMAKE_CXX_FLAGS=-O0"], work)
    if c.returncode != 0:
        sys.exit(c.stdout + c.stderr)
    failed, out = build_and_test(work, args.jobs)
    if failed is None or failed:
        sys.exit("the suite does not pass without faults:\n%s" % (failed or out))
    caught = 0
    survivors = []
    for ident, rel, before, after, what in faults:
        path = os.path.join(work, "src", rel)
        with open(path) as f:
            original = f.read()
        if original.count(before) != 1:
            print("%-24s NOT APPLIED: the text is found %d times in %s" % (ident, original.count(before), rel))
            survivors.append(ident)
            continue
        start = time.monotonic()
        try:
            with open(path, "w") as f:
                f.write(original.replace(before, after))
            failed, out = build_and_test(work, args.jobs)
        finally:
            with open(path, "w") as f:
                f.write(original)
        seconds = time.monotonic() - start
        if failed is None:
            print("%-24s DOES NOT COMPILE (%s)\n%s" % (ident, what, out))
            survivors.append(ident)
        elif failed:
            caught += 1
            print("%-24s caught by %s  [%.0f s]" % (ident, ", ".join(failed[:6]) +
                                                   (" and %d more" % (len(failed) - 6) if len(failed) > 6 else ""),
                                                   seconds))
        else:
            print("%-24s SURVIVED (%s)  [%.0f s]" % (ident, what, seconds))
            survivors.append(ident)
        sys.stdout.flush()
    # the last build must be of the unchanged source
    run(["cmake", "--build", "build", "-j%d" % args.jobs], work)
    print("\nscore: %d of %d caught (%.0f%%)" % (caught, len(faults), 100.0 * caught / max(1, len(faults))))
    if survivors:
        print("survived: " + " ".join(survivors))


if __name__ == "__main__":
    main()
