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
  <name>.text    instead of or besides those: the text of the body, one line
                 per paragraph, "TAG [FIRST LEFT]: text": the paragraph's
                 format without the number of its variant, the first-line and
                 left indents of that variant in the catalog, then its
                 Strings and Chars with the changes of font written in the
                 paragraph marked before the next visible character ({B}, {I}, {BI},
                 {R}; a C before them for Courier, {S} for Symbol; the
                 paragraph's own font, from its format, counts as {R}); a tab
                 is "\t", a hard return "\r", a character code above 127
                 "<N>", a marker "{M:its text}"; trailing blanks of a
                 paragraph are dropped. A first
                 line "page: HL | HC | HR / FL | FC | FR" gives the page's
                 headers and footers when it has any. Written by hand, for
                 cases about words, spacing and structure.
  <name>.vif.sha256
                 instead of <name>.vif, in the captured regression tree only:
                 the SHA-256 of the exact standard output, in hexadecimal. For
                 the papers, whose text is the corpus's own and lies in the tree
                 already (tests/data/corpus): a difference says that the output
                 changed, and the build before shows how.
  <name>.err     the exact standard error (absent: empty)
  <name>.status  the exit status (absent: 0)
  <name>.args    the command-line words, one line, split like a shell would;
                 {in} stands for the path of the .tr file, {tmp} for the case's
                 own temporary directory. Standard input is the .tr file.
Only .tr files are cases: a file that a case includes sits beside it under
another extension (for example <name>.inc).
Each case runs with TMPDIR set to a fresh directory, which must be empty again
afterwards: the converter removes its temporary files on every path.

  run_cases.py --program BIN [--jobs N] DIR-OR-CASE...   run the cases found
  run_cases.py --program BIN --update DIR     rewrite expected files; only for
                                              the captured regression tree, and
                                              never a case that has a .body
"""
import argparse
import concurrent.futures
import difflib
import hashlib
import os
import re
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


PARA_TAG_RE = re.compile(rb"<Para <PgfTag `([^']*)'>")
STRING_ESCAPE_RE = re.compile(rb"\\(t|>|\\|x([0-9A-Fa-f]{2}) )")
FONT_PROPERTY_RE = re.compile(rb"<(FBold|FItalic|FPlain|FFamily) `?([^'>]*)'?>")


def font_mark(bold, italic, family):
    name = ("C" if family == b"Courier" else "") + ("B" if bold else "") + ("I" if italic else "")
    if family == b"Symbol":
        return "{S}"
    return "{%s}" % (name if name not in ("", "C") else name + "R")


CATALOG_PGF_RE = re.compile(rb"<Pgf\n\t<PgfTag `([^']*)'>(.*?)\n>", re.S)
INDENT_RE = re.compile(rb"<Pgf(F|L)Indent ([0-9.]+)\"?>")
VARIANT_RE = re.compile(r"^(.*?)\d*$")
PAGE_FIELD_RE = re.compile(rb"\n\t<((?:Header|Footer)[LCR]) `([^']*)'>")


def catalog_indents(output):
    """The first-line and left indents of every format of the catalog."""
    indents = {}
    for name, props in CATALOG_PGF_RE.findall(output.split(b"<AFrames", 1)[0]):
        found = dict(INDENT_RE.findall(props))
        indents[name.decode("latin-1")] = "[%s %s]" % (found.get(b"F", b"?").decode(),
                                                       found.get(b"L", b"?").decode())
    return indents


def paragraphs(output):
    """The body as one line per paragraph, as a .text file holds it."""
    indents = catalog_indents(output)
    page = dict(PAGE_FIELD_RE.findall(output.split(b"\n<Para ", 1)[0]))
    head = ""
    if page:
        fields = [page.get(k, b"").decode("latin-1") for k in
                  (b"HeaderL", b"HeaderC", b"HeaderR", b"FooterL", b"FooterC", b"FooterR")]
        head = "page: %s | %s | %s / %s | %s | %s\n" % tuple(fields)
    paras = []
    bold = italic = False
    family, shown = b"", "{R}"
    for raw in body(output).split(b"\n"):
        line = raw.strip()
        tag = PARA_TAG_RE.match(raw)
        if tag:
            name = tag.group(1).decode("latin-1")
            paras.append(["%s %s" % (VARIANT_RE.match(name).group(1), indents.get(name, "[? ?]")), ""])
            bold = italic = False
            family, shown = b"", "{R}"
            continue
        if not paras:
            continue
        text = None
        if line.startswith(b"<Font "):
            for prop, value in FONT_PROPERTY_RE.findall(line):
                if prop == b"FPlain" and value == b"Yes":
                    bold = italic = False
                elif prop == b"FBold":
                    bold = value == b"Yes"
                elif prop == b"FItalic":
                    italic = value == b"Yes"
                elif prop == b"FFamily":
                    family = value
        elif line.startswith(b"<String `"):
            inner = line[len(b"<String `"):line.rindex(b"'>")]
            text = STRING_ESCAPE_RE.sub(
                lambda m: b"\\t" if m.group(1) == b"t" else
                b"<%d>" % int(m.group(2), 16) if m.group(2) else m.group(1), inner).decode("latin-1")
        elif line.startswith(b"<MText `"):
            paras[-1][1] += "{M:%s}" % line[len(b"<MText `"):line.rindex(b"'>")].decode("latin-1")
        elif line.startswith(b"<Char HardReturn>"):
            text = "\\r"
        elif line.startswith(b"<Char "):
            text = "<%s>" % line[len(b"<Char "):].split(b">")[0].decode()
        if text:
            # A blank shows no font: a change is marked just before the
            # first visible character after it.
            mark = font_mark(bold, italic, family)
            visible = len(text) - len(text.lstrip(" "))
            if mark != shown and visible < len(text):
                text = text[:visible] + mark + text[visible:]
                shown = mark
            paras[-1][1] += text
    return (head + "".join("%s: %s\n" % (tag, text.rstrip(" ")) for tag, text in paras)).encode("latin-1")


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
        if os.path.exists(base + ".body") or os.path.exists(base + ".text"):
            return []  # hand-written expectations are never rewritten
        if os.path.exists(base + ".vif.sha256"):
            with open(base + ".vif.sha256", "w") as f:
                f.write(hashlib.sha256(proc.stdout).hexdigest() + "\n")
        else:
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
    if os.path.exists(base + ".text"):
        checks.insert(0, (".text", paragraphs(proc.stdout)))
    if os.path.exists(base + ".vif.sha256"):
        expected = read(base + ".vif.sha256").decode().strip()
        actual = hashlib.sha256(proc.stdout).hexdigest()
        if expected != actual:
            problems.append("standard output: SHA-256 %s, expected %s" % (actual, expected))
    elif os.path.exists(base + ".vif") or not (os.path.exists(base + ".body") or
                                               os.path.exists(base + ".text")):
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
    parser.add_argument("--jobs", type=int, default=1, help="cases run at once")
    parser.add_argument("paths", nargs="+")
    args = parser.parse_args()
    if args.update:
        for path in args.paths:
            if not os.path.abspath(path).startswith(REGRESS_TREE):
                sys.exit("--update only rewrites the captured regression tree " + REGRESS_TREE)
    passed = failed = 0
    bases = [os.path.abspath(base) for base in find_cases(args.paths)]
    program = os.path.abspath(args.program)
    with concurrent.futures.ThreadPoolExecutor(max(1, args.jobs)) as pool:
        results = list(pool.map(lambda base: run_case(program, base, args.update), bases))
    for base, problems in zip(bases, results):
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
