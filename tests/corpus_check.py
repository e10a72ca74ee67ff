#!/usr/bin/env python3
"""Converts real documents and checks that nothing breaks and no text is lost.

  python3 tests/corpus_check.py --program build/trofftovif [--sample N] [--jobs 2] [--asan]

The documents are
  - every English manual page written with the man macros: the files of the
    section directories directly under /usr/share/man (man1, man2, ...; not the
    language subdirectories), compressed or not, converted with -man. Pages that
    hold only a .so redirect, mdoc pages (first request .Dd, or using .Dt or .Sh)
    and symbolic links to another page are skipped and counted by reason;
  - the ms and me papers of tests/data/corpus, converted with -ms or -me by
    their extension.
For each document: the exit status is 0; the converter neither crashes nor
hangs (time limit per document) and writes no sanitizer report on standard
error; its temporary files are gone; the output is well-formed (vifcheck.py);
and no text is lost: every word (split on blanks and tabs) of the input's plain
text lines, the lines that begin with neither "." nor "'" and hold no
backslash, appears in the text of the output. Words are compared as bytes.
A word counts as present when it is a word of the output text or a part of one
(text glued to a neighbour by the converter still counts).

Options:
  --sample N     a fixed sample of at least N manual pages: every k-th page of the
                 sorted list, the next one in the list standing in for a skipped one
  --only man|docs  only the manual pages, or only the ms/me papers
  --jobs J       documents converted at once (default: the number of processors)
  --asan         the program is a sanitizer build: checked for that, and given a
                 longer time limit
  --timeout S    seconds per document before it counts as a hang (default 20)
  --keep DIR     write the input and output of each failing document into DIR
  --lint         also give each document to groff -ww -z with its package, and
                 a manual page to mandoc -T lint: any message is a failure (for
                 the project's own manual pages; both must be installed)
  PATH...        check only these files (man pages, or .ms/.me papers)
Prints one summary line and the failures with their first problem; exit status
1 on any failure, 77 when there was nothing to check.
"""
import argparse
import bz2
import concurrent.futures
import gzip
import lzma
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import vifcheck  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
DOCS_DIR = os.path.join(HERE, "data", "corpus")
MAN_DIR = "/usr/share/man"
SECTION_DIR_RE = re.compile(r"man[0-9a-z][0-9a-z]*")
SANITIZER_MARKS = (b"ERROR: AddressSanitizer", b"runtime error:", b"Sanitizer")
SKIP_EXIT = 77

# Words the converter drops by a rule of its own design, so that their loss is
# expected: (document as named in the report, word, the rule). Each one met is
# listed in the report; every other lost word is a failure.
# The two rules that drop words:
# HANDED_BACK: a control line that no rule takes (an unknown name, or an
#   argument its rule refuses) comes back as text with each argument in double
#   quotes. An argument that ends in the escape character then forms the
#   comment escape with its closing quote, and a \c inside an argument ends the
#   line; either way the rest of the handed-back line and the next input line
#   are discarded (".IP [\fB-x\fP\ \fIfile\fP]", ".TP \w'1)\ 'u", ".CR x\c").
HANDED_BACK = ("a refused or unknown control line is handed back with quoted arguments; "
               "an argument ending in the escape character (or holding \\c) then "
               "discards the next input line")
# APOSTROPHE: the apostrophe-delimited escapes (\b \h \l \L \o \v \w \x) read
#   on to the next apostrophe and consume it; when none follows on their own
#   line (a "\backslash" in text, or a string ending in "\" glued to an "x"),
#   the apostrophe of a later word ("doesn't") is consumed.
APOSTROPHE = ("an apostrophe-delimited escape without its apostrophe consumes the next "
              "apostrophe of the text")

DESIGNED_LOSSES = [
    ('man1/unzip.1.gz', 'processing.', HANDED_BACK),
    ('man1/unzip.1.gz', 'overrides', HANDED_BACK),
    ('man1/unzip.1.gz', 'Unzip$Ext', HANDED_BACK),
    ('man1/unzipsfx.1.gz', 'excluded', HANDED_BACK),
    ('man1/unzipsfx.1.gz', 'processing.', HANDED_BACK),
    ('man1/unzipsfx.1.gz', 'By', HANDED_BACK),
    ('man1/unzipsfx.1.gz', 'default,', HANDED_BACK),
    ('man1/zipgrep.1.gz', 'excluded', HANDED_BACK),
    ('man1/zipgrep.1.gz', 'from', HANDED_BACK),
    ('man1/zipgrep.1.gz', 'processing.', HANDED_BACK),
    ('man1/zipinfo.1.gz', 'excluded', HANDED_BACK),
    ('man1/zipinfo.1.gz', 'processing.', HANDED_BACK),
    ('man3/XtInsertEventTypeHandler.3.gz', 'types', HANDED_BACK),
    ('man3/XtInsertEventTypeHandler.3.gz', 'extension.', HANDED_BACK),
    ('man7/groff_diff.7.gz', 'Create', HANDED_BACK),
    ('man7/groff_diff.7.gz', 'Append', HANDED_BACK),
    ('man7/groff_diff.7.gz', 'Same', HANDED_BACK),
    ('man7/groff_diff.7.gz', '[This', HANDED_BACK),
    ('man7/groff_diff.7.gz', 'glyphs.]', HANDED_BACK),
    ('man7/groff_diff.7.gz', 'Map', HANDED_BACK),
    ('man7/groff_hdtbl.7.gz', 'controlling', HANDED_BACK),
    ('man7/groff_hdtbl.7.gz', 'spanning.', HANDED_BACK),
    ('man7/groff_hdtbl.7.gz', 'alignment.', HANDED_BACK),
    ('man7/groff_hdtbl.7.gz', 'prints', HANDED_BACK),
    ('man7/groff_hdtbl.7.gz', 'immediately,', HANDED_BACK),
    ('man7/groff_hdtbl.7.gz', 'position', HANDED_BACK),
    ('man7/groff_hdtbl.7.gz', '(left', HANDED_BACK),
    ('man7/groff_hdtbl.7.gz', 'right)', HANDED_BACK),
    ('man7/groff_hdtbl.7.gz', 'middle', HANDED_BACK),
    ('man7/groff_hdtbl.7.gz', 'bottom.', HANDED_BACK),
    ('man8/lsof.8.gz', '4)', HANDED_BACK),
    ('me/usd-30.rogue.me', 'gone', HANDED_BACK),
    ('me/usd-30.rogue.me', 'managed', HANDED_BACK),
    ('me/usd-30.rogue.me', 'strength.', HANDED_BACK),
    ('me/usd-30.rogue.me', 'numbers', HANDED_BACK),
    ('man3/asn1_write_value.3.gz', "it's", APOSTROPHE),
    ('me/psd-19.curses.me', "doesn't", APOSTROPHE),
    ('me/psd-19.curses.me', "isn't", APOSTROPHE),
    ('me/psd-19.curses.me', "what's", APOSTROPHE),
]

# Requests that only comment: ignored when looking for a page's first request.
COMMENT_LINE_RE = re.compile(rb"^(?:[.'][ \t]*\\[\"#]|\\[\"#]|[.'][ \t]*$)")
REQUEST_RE = re.compile(rb"^[.'][ \t]*([^ \t\n]*)")
MDOC_RE = re.compile(rb"^[.'][ \t]*(?:Dt|Sh)(?:[ \t]|$)", re.M)
WORD_SEP_RE = re.compile(rb"[ \t\r]+")
CHAR_REQUEST_RE = re.compile(rb"[ \t]*(cc|c2|ec|eo)(?:[ \t]+([^ \t]+))?[ \t]*$")


# --- reading and sorting the documents ------------------------------------------

def read_document(path):
    opener = {".gz": gzip.open, ".bz2": bz2.open, ".xz": lzma.open, ".lzma": lzma.open}
    with opener.get(os.path.splitext(path)[1], open)(path, "rb") as f:
        return f.read()


def skip_reason(data):
    """Why a manual page is not one for the man macros, or None."""
    first = None
    only_so = True
    for line in data.split(b"\n"):
        if not line.strip() or COMMENT_LINE_RE.match(line):
            continue
        m = REQUEST_RE.match(line)
        if first is None and m:
            first = m.group(1)
        if not (m and m.group(1) == b"so"):
            only_so = False
    if first == b"so" and only_so:
        return ".so redirect"
    if first == b"Dd" or MDOC_RE.search(data):
        return "mdoc page"
    return None


def man_pages(man_dir):
    """(name, path) of every file in the section directories, sorted, and the
    number of symbolic links skipped because they lead to another page."""
    pages = []
    links = 0
    if not os.path.isdir(man_dir):
        return pages, links
    for sec in sorted(os.listdir(man_dir)):
        sec_path = os.path.join(man_dir, sec)
        if not SECTION_DIR_RE.fullmatch(sec) or not os.path.isdir(sec_path):
            continue
        for name in sorted(os.listdir(sec_path)):
            path = os.path.join(sec_path, name)
            if os.path.islink(path):
                # A link names a page that is checked under its own name.
                links += 1
                continue
            if os.path.isfile(path):
                pages.append((sec + "/" + name, path))
    return pages, links


def package_of(path):
    ext = os.path.splitext(path)[1]
    return {".ms": "-ms", ".me": "-me"}.get(ext, "-man")


def paper_list():
    docs = []
    for sub in ("ms", "me"):
        d = os.path.join(DOCS_DIR, sub)
        if os.path.isdir(d):
            docs += [(sub + "/" + n, os.path.join(d, n)) for n in sorted(os.listdir(d))]
    return docs


def sample_pages(pages, n, skipped):
    """Every k-th page of the sorted list; a page that is skipped is replaced by
    the next one in the list, so that the sample holds at least n pages."""
    if n >= len(pages):
        return pages
    k = max(1, len(pages) // n)
    chosen = []
    i = 0
    for start in range(0, len(pages), k):
        i = max(i, start)
        while i < len(pages):
            name, path = pages[i]
            i += 1
            try:
                reason = skip_reason(read_document(path))
            except (OSError, EOFError, lzma.LZMAError) as e:
                reason = "unreadable (%s)" % e.__class__.__name__
            if not reason:
                chosen.append((name, path))
                break
            skipped[reason] = skipped.get(reason, 0) + 1
    return chosen


# --- the check of one document ----------------------------------------------------

def plain_words(data):
    """(word, line number) of every word of the plain text lines: the lines
    that begin with neither control character and hold no escape character.
    The requests cc, c2, ec and eo are followed, so that a page that changes
    these characters is read as the converter reads it. A line that continues
    the one before it (ended by an escaped line end) is part of that line. A
    carriage return separates words: the converter reads it as a hard line
    break."""
    out = []
    control, nobreak, escape = b".", b"'", b"\\"
    continued = False
    for lineno, line in enumerate(data.split(b"\n"), 1):
        was_continued = continued
        continued = bool(escape) and (len(line) - len(line.rstrip(escape))) % 2 == 1
        if was_continued or not line:
            continue
        if line[:1] in (control, nobreak):
            m = CHAR_REQUEST_RE.match(line, 1)
            if m:
                arg = m.group(2)[:1] if m.group(2) else b""
                if m.group(1) == b"cc":
                    control = arg or b"."
                elif m.group(1) == b"c2":
                    nobreak = arg or b"'"
                elif m.group(1) == b"ec":
                    escape = arg or b"\\"
                else:
                    escape = b""
            continue
        if b"\\" in line or (escape and escape in line):
            continue
        out += [(w, lineno) for w in WORD_SEP_RE.split(line) if w]
    return out


def lost_words(data, text):
    tokens = set(text.split())
    lost = []
    seen = set()
    for word, lineno in plain_words(data):
        if word in tokens or word in seen:
            continue
        seen.add(word)
        if word not in text:
            lost.append((word, lineno))
    return lost


def worker_tmpdir(parent):
    """The worker's own directory for the converter's temporary files, which
    must be empty again after every run."""
    d = os.path.join(parent, str(os.getpid()))
    os.makedirs(d, exist_ok=True)
    return d


def clear_dir(d):
    for n in os.listdir(d):
        p = os.path.join(d, n)
        if os.path.isdir(p) and not os.path.islink(p):
            shutil.rmtree(p, ignore_errors=True)
        else:
            os.unlink(p)


def check_document(job):
    """Runs in a worker process; returns a dict describing the outcome."""
    name, path, program, timeout, is_man, keep, tmp_parent = job
    res = {"name": name, "skip": None, "problems": [], "seconds": 0.0, "designed": [],
           "bytes": 0, "words": 0}
    try:
        data = read_document(path)
    except (OSError, EOFError, lzma.LZMAError) as e:
        res["skip"] = "unreadable (%s)" % e.__class__.__name__
        return res
    if is_man:
        res["skip"] = skip_reason(data)
        if res["skip"]:
            return res
    res["bytes"] = len(data)
    problems = res["problems"]
    tmp = worker_tmpdir(tmp_parent)
    env = dict(os.environ, TMPDIR=tmp)
    env.setdefault("UBSAN_OPTIONS", "print_stacktrace=1")
    start = time.monotonic()
    try:
        proc = subprocess.run([program, "-man" if is_man else package_of(path)],
                              input=data, capture_output=True, timeout=timeout, env=env)
    except subprocess.TimeoutExpired:
        res["seconds"] = time.monotonic() - start
        problems.append("hang: no end after %g s" % timeout)
        clear_dir(tmp)
        return res
    res["seconds"] = time.monotonic() - start
    left = os.listdir(tmp)
    clear_dir(tmp)
    out, err = proc.stdout, proc.stderr
    if proc.returncode < 0:
        problems.append("crash: killed by signal %d" % -proc.returncode)
    elif proc.returncode != 0:
        problems.append("exit status %d" % proc.returncode)
    for line in err.split(b"\n"):
        if any(mark in line for mark in SANITIZER_MARKS):
            problems.append("sanitizer: " + line.decode("latin-1").strip()[:200])
            break
    if left:
        problems.append("temporary files left: %s" % " ".join(sorted(left)))
    r = vifcheck.check(out)
    if r.problems:
        problems.append("output not well-formed: %s (%d problems)" % (r.problems[0], len(r.problems)))
    res["words"] = len(plain_words(data))
    lost = lost_words(data, r.text)
    designed = {(d, w): rule for d, w, rule in DESIGNED_LOSSES}
    really_lost = []
    for word, lineno in lost:
        rule = designed.get((name, word.decode("latin-1")))
        if rule:
            res["designed"].append((word.decode("latin-1"), rule))
        else:
            really_lost.append((word, lineno))
    if really_lost:
        word, lineno = really_lost[0]
        problems.append("lost %d word%s, first %r from input line %d"
                        % (len(really_lost), "" if len(really_lost) == 1 else "s",
                           word.decode("latin-1"), lineno))
    if problems and keep:
        base = os.path.join(keep, name.replace("/", "_"))
        with open(base + ".in", "wb") as f:
            f.write(data)
        with open(base + ".vif", "wb") as f:
            f.write(out)
        with open(base + ".err", "wb") as f:
            f.write(err)
    return res


def lint_problems(path):
    """What mandoc's and groff's own checks say of a document: each message,
    or a failing status, is a problem."""
    problems = []
    package = package_of(path)
    commands = [["groff", "-ww", "-z", package, path]]
    if package == "-man":
        commands.insert(0, ["mandoc", "-T", "lint", path])
    for command in commands:
        try:
            proc = subprocess.run(command, capture_output=True, timeout=60)
        except FileNotFoundError:
            problems.append("lint: %s is not installed (scripts/test.sh installs it)" % command[0])
            continue
        messages = (proc.stdout + proc.stderr).decode("latin-1").strip()
        if proc.returncode != 0 or messages:
            problems.append("lint: %s: status %d: %s" % (" ".join(command[:-1]), proc.returncode,
                                                          messages.split("\n")[0] if messages else "no message"))
    return problems


# --- the run ------------------------------------------------------------------

def is_sanitized(program):
    with open(program, "rb") as f:
        return b"__asan_init" in f.read()


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--program", required=True)
    ap.add_argument("--sample", type=int, default=0)
    ap.add_argument("--only", choices=("man", "docs"))
    ap.add_argument("--jobs", type=int, default=os.cpu_count() or 1)
    ap.add_argument("--asan", action="store_true")
    ap.add_argument("--timeout", type=float, default=20.0)
    ap.add_argument("--keep")
    ap.add_argument("--man-dir", default=MAN_DIR)
    ap.add_argument("--lint", action="store_true")
    ap.add_argument("paths", nargs="*")
    args = ap.parse_args(argv)

    program = os.path.abspath(args.program)
    if not os.access(program, os.X_OK):
        print("corpus: no program at %s" % program)
        return 1
    timeout = args.timeout
    if args.asan:
        if not is_sanitized(program):
            print("corpus: --asan given but %s is not a sanitizer build" % program)
            return 1
        timeout *= 3
    if args.keep:
        os.makedirs(args.keep, exist_ok=True)

    skipped = {}
    jobs = []
    if args.paths:
        for p in args.paths:
            # Named as in a full run, so that the table of designed losses applies.
            name = p
            for base in (args.man_dir, DOCS_DIR):
                rel = os.path.relpath(os.path.abspath(p), base)
                if not rel.startswith(".."):
                    name = rel
            jobs.append((name, p, program, timeout, package_of(p) == "-man", args.keep))
    else:
        if args.only != "docs":
            pages, links = man_pages(args.man_dir)
            if links:
                skipped["link to another page"] = links
            if args.sample:
                pages = sample_pages(pages, args.sample, skipped)
            jobs += [(n, p, program, timeout, True, args.keep) for n, p in pages]
        if args.only != "man":
            jobs += [(n, p, program, timeout, False, args.keep) for n, p in paper_list()]

    results = []
    start = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="corpus-") as tmp_parent, \
            concurrent.futures.ProcessPoolExecutor(max_workers=max(1, args.jobs)) as pool:
        jobs = [j + (tmp_parent,) for j in jobs]
        for res in pool.map(check_document, jobs, chunksize=4):
            results.append(res)
    elapsed = time.monotonic() - start
    if args.lint:
        for job, res in zip(jobs, results):
            if not res["skip"]:
                res["problems"] += lint_problems(job[1])

    converted = [r for r in results if not r["skip"]]
    for r in results:
        if r["skip"]:
            skipped[r["skip"]] = skipped.get(r["skip"], 0) + 1
    failing = [r for r in converted if r["problems"]]
    slowest = max(converted, key=lambda r: r["seconds"], default=None)
    total_bytes = sum(r["bytes"] for r in converted)
    summary = "corpus: %d documents converted, %d failing" % (len(converted), len(failing))
    if slowest:
        summary += ", slowest %s (%.2f s)" % (slowest["name"], slowest["seconds"])
    summary += "; %.1f s in all, %.1f MB of input, %d words checked" % (
        elapsed, total_bytes / 1e6, sum(r["words"] for r in converted))
    if skipped:
        summary += "; skipped: " + ", ".join("%d %s" % (n, why) for why, n in sorted(skipped.items()))
    print(summary)
    for r in converted:
        for word, rule in r["designed"]:
            print("designed loss: %s: %r (%s)" % (r["name"], word, rule))
    for r in failing:
        print("FAIL %s: %s" % (r["name"], r["problems"][0]))
    if not converted:
        print("corpus: nothing to check")
        return SKIP_EXIT
    return 1 if failing else 0


if __name__ == "__main__":
    sys.exit(main())
