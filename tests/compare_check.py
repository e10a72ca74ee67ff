#!/usr/bin/env python3
"""Measures how close the words of the converter's output come to the words a
reader sees in a reference rendering of the same document.

  python3 tests/compare_check.py --program build/trofftovif [--mode full|classic]
          [--only man|mdoc|docs] [--sample N] [--jobs J] [--list N] [--report FILE]
          [--min-precision P] [--min-recall R] [--min-pages-share S] [PATH...]

The documents are those of tests/corpus_check.py, chosen and skipped by its
rules (symbolic links and .so redirects are left out, and mdoc pages in the
classic mode, which has no mdoc package):
  - every installed manual page written with the man macros, the files directly
    in the section directories of /usr/share/man, converted with -man;
    reference: mandoc -T ascii -O width=1000;
  - the ms and me papers of tests/data/corpus, converted with -ms or -me;
    reference: groff -mPACKAGE -T ascii -P-cbou -t -e -p -rHY=0, which renders
    the table, equation and picture regions (.TS to .TE, .EQ to .EN, .PS to
    .PE) too: they count like any other text (--strip-regions takes them out of
    a paper's input before either renders it).
Both renderers get the same input on standard input, run in the same
directory (the manual's top directory, or the paper's own directory).

The reference's text is the rendering with overstriking removed and without its
first line and its last two lines (page header and footer). Our text is the
text of the body of the VIF output (tests/vifcheck.py): Strings and Chars, with
white space at line ends and paragraph ends. Bytes 128..255 of our output are
read in the output character set; non-ASCII characters on either side are
transliterated to ASCII (compatibility decomposition, combining marks dropped,
a few letters spelled out).

Region source words: the words of the regions' own language, which a reader
never sees: a table's options and format lines, the keywords of an equation,
a picture's source outside its quoted labels. A document "leaves" such a word
as often as our output has it more often than the reference does; the total
is reported, and --max-region-words fails the run above it.

A word is a run of two or more ASCII letters or digits. The words of each side
are compared as multisets: precision is the share of our words that the
reference has too, recall the share of the reference's words that we have. A
side without words counts 1.0 for its measure. Totals add up the counts of all
pages (micro average). A page "meets the bar" when both its precision and its
recall are at least 0.98.

Options:
  --program PATH   the converter (required)
  --mode full|classic  full (the default) runs the converter with --full before
                   the package option; classic gives the package option alone
  --only man|mdoc|docs  only the manual pages (with the mdoc pages in the full
                   mode, converted with -mdoc), only the mdoc pages, or only the
                   ms/me papers
  --sample N       a fixed sample of at least N manual pages (every k-th page of
                   the sorted list, as in corpus_check.py)
  --jobs J         documents compared at once (default: the number of processors)
  --list N         how many pages below the bar to list, worst first (default 30)
  --report FILE    write a tab-separated line of figures for every page
  --min-precision P, --min-recall R   exit status 1 when the total precision or
                   recall is below P or R
  --min-pages-share S  exit status 1 when the share of pages meeting the bar is
                   below S
  --max-region-words N  exit status 1 when more than N region source words are
                   left over all documents
  --strip-regions  take the regions out of the papers' input before either
                   side renders it
  --timeout S      seconds per rendering before it is given up (default 60)
  PATH...          compare only these files (man pages, or .ms/.me papers)
Exit status: 0, 1 when a threshold is not met or the program is missing, 77
when there is nothing to compare (no renderer installed, no documents).
"""
import argparse
import collections
import concurrent.futures
import lzma
import os
import re
import shutil
import subprocess
import sys
import time
import unicodedata

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import corpus_check  # noqa: E402
import vifcheck  # noqa: E402

SKIP_EXIT = 77
BAR = 0.98            # a page meets the bar when precision and recall reach it
TOP_WORDS = 5         # words shown per page in the "shows" and "loses" columns

MANDOC = ["mandoc", "-T", "ascii", "-O", "width=1000"]
GROFF_OPTIONS = ["-T", "ascii", "-P-cbou", "-t", "-e", "-p", "-rHY=0"]

WORD_RE = re.compile(r"[A-Za-z0-9]{2,}")
# Overstriking: any character followed by a backspace is struck over by the
# next one ("X\bX" bold, "_\bX" underlined); the last one is what shows.
OVERSTRIKE_RE = re.compile(r".\x08", re.S)
# The regions of the preprocessors: start request, and the requests that end it.
REGION_START_RE = re.compile(rb"^[.'][ \t]*(TS|EQ|PS)(?=[ \t]|$)")
REGION_ENDS = {b"TS": (b"TE",), b"EQ": (b"EN",), b"PS": (b"PE", b"PF")}
REQUEST_NAME_RE = re.compile(rb"^[.'][ \t]*([A-Za-z0-9]+)(?=[ \t]|$)")
# The keywords of eqn's language.
EQN_KEYWORDS = frozenset("""
    above back bar bold ccol chartype col cpile define delim dot dotdot down dyad fat font fwd
    from gfont gsize hat ifdef include italic lcol left lineup lpile mark matrix ndefine nosplit
    over pile rcol right roman rpile set size smallover space special split sqrt sub sup tdefine
    tilde to type under undef up utilde vcenter vec""".split())
QUOTED_RE = re.compile(r'"[^"]*"')

# Letters that have no compatibility decomposition, spelled out in ASCII.
SPELLED = str.maketrans({
    "ß": "ss", "æ": "ae", "Æ": "AE", "œ": "oe", "Œ": "OE", "ø": "o", "Ø": "O",
    "ı": "i", "ƒ": "f", "ł": "l", "Ł": "L", "đ": "d", "Đ": "D", "ð": "d", "Ð": "D",
    "þ": "th", "Þ": "Th",
})


# --- text and words ----------------------------------------------------------------

def to_ascii(s):
    """Transliterates to ASCII: compatibility decomposition with the combining
    marks dropped, so that letters with accents lose them and ligatures come
    apart. Other non-ASCII characters stay, and so separate words."""
    if s.isascii():
        return s
    s = unicodedata.normalize("NFKD", s.translate(SPELLED))
    return "".join(c for c in s if not unicodedata.combining(c))


def words(text):
    return collections.Counter(WORD_RE.findall(text))


FAMILY_RE = re.compile(rb"<FFamily `([^']*)'>")


def without_symbol_chars(vif):
    """A character of the Symbol font (an arrow, a Greek letter, a math sign)
    is no letter of the output character set: its Char statement becomes a
    blank, so that its code does not read as an accented letter."""
    lines = vif.split(b"\n")
    family = b""
    for i, line in enumerate(lines):
        m = FAMILY_RE.search(line)
        if m and line.lstrip().startswith(b"<Font"):
            family = m.group(1)
        elif family == b"Symbol" and line.startswith(b"\t<Char ") and b"HardReturn" not in line:
            lines[i] = b"\t<String ` '>"
    return b"\n".join(lines)


def our_text(vif):
    """The text of the body of our VIF output, as str, and its problems.
    vifcheck has undone the String escapes and turned each Char into its byte;
    line ends and paragraph ends are white space. Bytes 128..255 are in the
    output character set; the Symbol font's characters count as blanks."""
    r = vifcheck.check(without_symbol_chars(vif))
    return to_ascii(r.text.decode("mac_roman")), r.problems


def reference_text(rendering):
    """The text a reader sees in a rendering: overstriking removed, the first
    line and the last two (header and footer) dropped."""
    try:
        s = rendering.decode("utf-8")
    except UnicodeDecodeError:
        s = rendering.decode("latin-1")
    s = OVERSTRIKE_RE.sub("", s)
    lines = s.split("\n")
    if lines and lines[-1] == "":
        lines.pop()           # the line end of the last line opens no line
    return to_ascii("\n".join(lines[1:-2]))


def without_regions(data):
    """The input without its table, equation and picture regions, each taken
    out from its start request to its end request, both included. A region
    that is never ended runs to the end of the input."""
    out = []
    ends = None
    for line in data.split(b"\n"):
        if ends is None:
            m = REGION_START_RE.match(line)
            if m:
                ends = REGION_ENDS[m.group(1)]
            else:
                out.append(line)
        else:
            m = REQUEST_NAME_RE.match(line)
            if m and m.group(1) in ends:
                ends = None
    return b"\n".join(out)


def regions(data):
    """(kind, lines) of each table, equation and picture region of the input,
    the lines between its start and end requests as text."""
    found = []
    kind, lines = None, []
    for line in data.split(b"\n"):
        if kind is None:
            m = REGION_START_RE.match(line)
            if m:
                kind, lines = m.group(1), []
        else:
            m = REQUEST_NAME_RE.match(line)
            if m and m.group(1) in REGION_ENDS[kind]:
                found.append((kind, lines))
                kind = None
            else:
                lines.append(line.decode("latin-1"))
    if kind is not None:
        found.append((kind, lines))
    return found


def region_source_words(data):
    """The words of the regions' own language in the input: a table's options
    and format lines, an equation's keywords, a picture's source outside its
    quoted labels."""
    source = set()
    for kind, lines in regions(data):
        if kind == b"TS":
            # The options line (ending in ;) and the format lines up to the
            # one that ends in a period; T& starts more format lines.
            in_format = True
            for line in lines:
                text = line.strip()
                if text.startswith((".T&", "'T&")):
                    in_format = True
                    continue
                if in_format and not text.startswith((".", "'")):
                    source.update(WORD_RE.findall(text))
                    if text.endswith("."):
                        in_format = False
        elif kind == b"EQ":
            for line in lines:
                source.update(w for w in WORD_RE.findall(QUOTED_RE.sub(" ", line)) if w in EQN_KEYWORDS)
        else:
            for line in lines:
                if not line.startswith((".", "'")):
                    source.update(WORD_RE.findall(QUOTED_RE.sub(" ", line)))
    return source


def compare(ours, ref, region_words=frozenset()):
    """Figures of one page from the two multisets of words; `region_words`
    are the region source words of the input."""
    common = sum((ours & ref).values())
    left = collections.Counter({w: ours[w] - ref[w] for w in region_words if ours[w] > ref[w]})
    n_ours = sum(ours.values())
    n_ref = sum(ref.values())
    return {
        "ours": n_ours, "ref": n_ref, "common": common,
        "precision": common / n_ours if n_ours else 1.0,
        "recall": common / n_ref if n_ref else 1.0,
        "shows": (ours - ref).most_common(TOP_WORDS),
        "loses": (ref - ours).most_common(TOP_WORDS),
        "region_left": sum(left.values()),
        "region_shows": left.most_common(TOP_WORDS),
    }


# --- one document ------------------------------------------------------------------

def run(cmd, data, cwd, timeout):
    """(exit status, standard output) of a command, or (None, message)."""
    try:
        p = subprocess.run(cmd, input=data, capture_output=True, cwd=cwd, timeout=timeout)
    except subprocess.TimeoutExpired:
        return None, "no end after %g s" % timeout
    except OSError as e:
        return None, str(e)
    return p.returncode, p.stdout


def compare_document(job):
    """Runs in a worker process: renders one document both ways and compares."""
    name, path, is_man, program, extra, man_dir, timeout, only, strip = job
    res = {"name": name, "skip": None, "problem": None}
    try:
        data = corpus_check.read_document(path)
    except (OSError, EOFError, lzma.LZMAError) as e:
        res["skip"] = "unreadable (%s)" % e.__class__.__name__
        return res
    if is_man:
        res["skip"] = corpus_check.skip_reason(data)
        package = "-man"
        # The full mode has an mdoc package: mdoc pages are compared too.
        if res["skip"] == "mdoc page" and extra:
            res["skip"] = None
            package = "-mdoc"
        elif only == "mdoc" and not res["skip"]:
            res["skip"] = "not an mdoc page"
        if res["skip"]:
            return res
        reference_cmd = MANDOC
        cwd = man_dir if os.path.isdir(man_dir) else None
    else:
        package = corpus_check.package_of(path)
        if strip:
            data = without_regions(data)
        reference_cmd = ["groff", "-m" + package[1:]] + GROFF_OPTIONS
        cwd = os.path.dirname(os.path.abspath(path))

    status, rendering = run(reference_cmd, data, cwd, timeout)
    if status is None or (status != 0 and not rendering.strip()):
        # Without a reference there is nothing to compare the page with.
        res["skip"] = "no reference rendering"
        return res
    status, vif = run([program] + extra + [package], data, cwd, timeout)
    if status is None:
        res["problem"] = "converter: " + vif
        vif = b""
    elif status != 0:
        res["problem"] = "converter exit status %d" % status
    text, problems = our_text(vif)
    if problems and not res["problem"]:
        res["problem"] = "output not well-formed: " + problems[0]
    res.update(compare(words(text), words(reference_text(rendering)), region_source_words(data)))
    return res


# --- the run -----------------------------------------------------------------------

def plural(n, word):
    return "%d %s%s" % (n, word, "" if n == 1 else "s")


def fmt_words(pairs):
    return " ".join("%s×%d" % (w, n) for w, n in pairs) or "-"


def meets_bar(r):
    return r["precision"] >= BAR and r["recall"] >= BAR


def write_report(path, results):
    with open(path, "w", encoding="utf-8") as f:
        f.write("page\tours\treference\tcommon\tprecision\trecall\tmeets_bar\tproblem\tshows\tloses"
                "\tregion_left\n")
        for r in results:
            f.write("%s\t%d\t%d\t%d\t%.4f\t%.4f\t%s\t%s\t%s\t%s\t%d\n" % (
                r["name"], r["ours"], r["ref"], r["common"], r["precision"], r["recall"],
                "yes" if meets_bar(r) else "no", r["problem"] or "",
                fmt_words(r["shows"]), fmt_words(r["loses"]), r["region_left"]))


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--program", required=True)
    ap.add_argument("--mode", choices=("full", "classic"), default="full")
    ap.add_argument("--only", choices=("man", "mdoc", "docs"))
    ap.add_argument("--sample", type=int, default=0)
    ap.add_argument("--jobs", type=int, default=os.cpu_count() or 1)
    ap.add_argument("--list", type=int, default=30)
    ap.add_argument("--report")
    ap.add_argument("--min-precision", type=float)
    ap.add_argument("--min-recall", type=float)
    ap.add_argument("--min-pages-share", type=float)
    ap.add_argument("--max-region-words", type=int)
    ap.add_argument("--strip-regions", action="store_true")
    ap.add_argument("--timeout", type=float, default=60.0)
    ap.add_argument("--man-dir", default=corpus_check.MAN_DIR)
    ap.add_argument("paths", nargs="*")
    args = ap.parse_args(argv)

    program = os.path.abspath(args.program)
    if not os.access(program, os.X_OK):
        print("compare: no program at %s" % program)
        return 1
    extra = ["--full"] if args.mode == "full" else []
    have_mandoc = shutil.which("mandoc") is not None
    have_groff = shutil.which("groff") is not None
    missing = []

    # (name, path, is_man) of every document to compare.
    docs = []
    skipped = collections.Counter()
    if args.paths:
        for p in args.paths:
            # Named as in a whole run where the file is one of its documents.
            name = p
            for base in (args.man_dir, corpus_check.DOCS_DIR):
                rel = os.path.relpath(os.path.abspath(p), base)
                if not rel.startswith(".."):
                    name = rel
            docs.append((name, p, corpus_check.package_of(p) == "-man"))
    else:
        if args.only != "docs":
            pages, links = corpus_check.man_pages(args.man_dir)
            if links:
                skipped["link to another page"] = links
            if args.sample:
                sample_skips = {}
                pages = corpus_check.sample_pages(pages, args.sample, sample_skips)
                skipped.update(sample_skips)
            docs += [(n, p, True) for n, p in pages]
        if args.only not in ("man", "mdoc"):
            docs += [(n, p, False) for n, p in corpus_check.paper_list()]
    if not have_mandoc and any(is_man for _, _, is_man in docs):
        missing.append("mandoc")
        docs = [d for d in docs if not d[2]]
    if not have_groff and any(not is_man for _, _, is_man in docs):
        missing.append("groff")
        docs = [d for d in docs if d[2]]

    jobs = [(n, p, is_man, program, extra, args.man_dir, args.timeout, args.only, args.strip_regions)
            for n, p, is_man in docs]
    results = []
    start = time.monotonic()
    with concurrent.futures.ProcessPoolExecutor(max_workers=max(1, args.jobs)) as pool:
        for res in pool.map(compare_document, jobs, chunksize=8):
            if res["skip"]:
                skipped[res["skip"]] += 1
            else:
                results.append(res)
    elapsed = time.monotonic() - start

    if missing:
        print("compare: not installed, so not compared: %s" % ", ".join(missing))
    skipped_text = ", ".join("%d %s" % (n, why) for why, n in sorted(skipped.items()))
    if not results:
        print("compare: nothing to compare" + ("; skipped: " + skipped_text if skipped else ""))
        return SKIP_EXIT

    n_ours = sum(r["ours"] for r in results)
    n_ref = sum(r["ref"] for r in results)
    common = sum(r["common"] for r in results)
    precision = common / n_ours if n_ours else 1.0
    recall = common / n_ref if n_ref else 1.0
    good = sum(1 for r in results if meets_bar(r))
    share = good / len(results)
    region_left = sum(r["region_left"] for r in results)
    problems = [r for r in results if r["problem"]]

    line = ("compare (%s mode): %s, %d words ours, %d reference, %d in common; "
            "precision %.4f, recall %.4f; %s (%.1f%%) with both at least %.2f; %.1f s"
            % (args.mode, plural(len(results), "document"), n_ours, n_ref, common,
               precision, recall, plural(good, "document"), 100 * share, BAR, elapsed))
    line += "; region source words left: %d" % region_left
    if skipped:
        line += "; skipped: " + skipped_text
    print(line)
    with_region = sorted((r for r in results if r["region_left"]), key=lambda r: -r["region_left"])
    if with_region and args.list > 0:
        print("documents that leave region source words (%d of %d):"
              % (min(args.list, len(with_region)), len(with_region)))
        for r in with_region[:args.list]:
            print("  %s: %s" % (r["name"], fmt_words(r["region_shows"])))
    if problems:
        print("%s with a conversion problem, first %s: %s"
              % (plural(len(problems), "document"), problems[0]["name"], problems[0]["problem"]))

    below = sorted((r for r in results if not meets_bar(r)),
                   key=lambda r: (min(r["precision"], r["recall"]), r["precision"] * r["recall"],
                                  r["name"]))
    if below and args.list > 0:
        print("documents below the bar, worst first (%d of %d):" % (min(args.list, len(below)),
                                                                     len(below)))
        for r in below[:args.list]:
            print("  %s: precision %.3f, recall %.3f (%d ours, %d reference)%s\n"
                  "      shows %s\n      loses %s"
                  % (r["name"], r["precision"], r["recall"], r["ours"], r["ref"],
                     "; " + r["problem"] if r["problem"] else "",
                     fmt_words(r["shows"]), fmt_words(r["loses"])))
    if args.report:
        write_report(args.report, results)

    failed = []
    if args.min_precision is not None and precision < args.min_precision:
        failed.append("precision %.4f is below %g" % (precision, args.min_precision))
    if args.min_recall is not None and recall < args.min_recall:
        failed.append("recall %.4f is below %g" % (recall, args.min_recall))
    if args.max_region_words is not None and region_left > args.max_region_words:
        failed.append("%d region source words left, more than %d"
                      % (region_left, args.max_region_words))
    if args.min_pages_share is not None and share < args.min_pages_share:
        failed.append("share of documents at the bar %.4f is below %g"
                      % (share, args.min_pages_share))
    for f in failed:
        print("FAIL " + f)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
