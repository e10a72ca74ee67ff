// The driver: options and file arguments, the input and output streams, the
// two temporary files that gather frames and text while the input is read,
// the start-up order, the fatal-error routines, and the assembly of the one
// output document at shut-down.
#include "driver/driver.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "interp/interp.h"
#include "macros/macros.h"
#include "requests/rb.h"
#include "requests/troff.h"
#include "roff/roff.h"
#include "tools/hpstream.h"
#include "writer/vifout.h"

DriverState driver;

namespace {

struct DriverPrivate {
    // Temporary-file names: the process id is fetched once, the sequence
    // number grows with every name asked for, and the directories named by
    // the environment are kept once found.
    bool havePid = false;
    int pid = 0;
    uint32_t sequence = 0;
    bool haveTmpDir = false;
    std::string tmpDir;
    bool haveHome = false;
    std::string home;
    // The one buffer every returned name lives in.
    char* nameBuffer = nullptr;
    size_t nameBufferSize = 0;
    // Both temporary files are open: from here on a fatal error can still
    // assemble a document from what was gathered.
    bool filesReady = false;
    // The lines read ahead to tell an mdoc page from a man page; they are
    // read again, as an include, before the rest of the input.
    std::string head;
};
DriverPrivate s;

// How much of a page's start is read to find its first macro: comments,
// blank lines and requests beyond it (a page made of a licence alone) leave
// it a man page.
constexpr size_t kHeadLimit = 64 * 1024;

// The name a control line calls ("" for a text line), and whether a line
// shows nothing and calls nothing: blank, a comment, or a control character
// alone.
std::string_view controlName(const std::string& line, bool& isQuiet) {
    size_t i = 0;
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) i++;
    isQuiet = i == line.size() || line[i] == '\n';
    if (isQuiet || (line[i] != '.' && line[i] != '\'')) return {};
    i++;
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) i++;
    isQuiet = i == line.size() || line[i] == '\n' || line.compare(i, 2, "\\\"") == 0 ||
              line.compare(i, 2, "\\#") == 0;
    size_t end = i;
    while (end < line.size() && line[end] != ' ' && line[end] != '\t' && line[end] != '\n') end++;
    return std::string_view(line).substr(i, end - i);
}

// troff's requests have lower-case names; the macros of the packages begin
// with a capital.
bool isRequestName(std::string_view name) {
    if (name.empty()) return false;
    for (char c : name)
        if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'))) return false;
    return true;
}

// Reads whole lines from the input into s.head up to the first macro, past
// comments, blank lines and requests (with the blocks of ig, de and am), and
// says whether that macro is Dd: the mark of an mdoc page.
bool startsWithDd(FILE* in) {
    std::string line;
    bool inBlock = false;  // inside an ig, de or am block, up to ".."
    while (s.head.size() <= kHeadLimit) {
        line.clear();
        int c;
        while ((c = std::getc(in)) != EOF) {
            line += static_cast<char>(c);
            if (c == '\n') break;
        }
        s.head += line;
        if (line.empty()) return false;
        bool isQuiet = false;
        std::string_view name = controlName(line, isQuiet);
        if (inBlock) {
            inBlock = name != ".";
            continue;
        }
        if (isQuiet) continue;
        if (!isRequestName(name)) return name == "Dd";
        inBlock = name == "ig" || name.substr(0, 2) == "de" || name.substr(0, 2) == "am";
    }
    return false;
}

// Puts the lines read ahead back in front of the input, as an include of the
// document's own folder, and counts them in the input's line numbers.
void rereadHead() {
    if (s.head.empty()) return;
    FILE* head = fmemopen(s.head.data(), s.head.size(), "r");
    if (!head) TVFatalVM();
    int32_t lines = 0;
    for (char c : s.head) lines += c == '\n';
    driver.stdIn.line += lines;
    TVIncludeFile(head, TVCurrentFolder());
}

// Called by processExit in place of the exit when set. Not part of the reset.
ExitHook exitHook = nullptr;

// The body file's stdio buffer: scratch memory, no state.
char bodyBuffer[size_t{1} << 16];

constexpr const char* kUsageLines[] = {
    "Usage :\n",
    nullptr,  // the synopsis, which names the program
    "\n",
    "Options are:\n",
    "\t-h, -help\tPrint this usage message.\n",
    "\t-me\t\tUse me macro package.\n",
    "\t-ms\t\tUse ms macro package.\n",
    "\t-man\t\tUse man macro package.\n",
    "\t-V\t\tFilter Version number\n",
};

// Asked for with a word that begins with "--", the usage text also tells of
// the words of that kind.
constexpr const char* kLongOptionLines[] = {
    "\t--full\t\tFull mode: also interpret macro definitions, conditionals,\n",
    "\t\t\tregisters, includes, groff escapes and UTF-8 input.\n",
    "\t\t\tIt comes before the other options: --full -man page.1\n",
    "\t\t\tIn the full mode -mdoc uses the mdoc package, and -man\n",
    "\t\t\tuses it for a page whose first macro is .Dd.\n",
};

[[noreturn]] void printUsage(bool withLongOptions = false) {
    for (const char* line : kUsageLines) {
        if (line)
            std::fputs(line, stderr);
        else
            std::fprintf(stderr, "%s [options] < infile > outfile\n", driver.program.c_str());
    }
    if (withLongOptions) {
        for (const char* line : kLongOptionLines) std::fputs(line, stderr);
    }
    processExit(0);
}

// The shared name buffer with room for n + 1 bytes; its contents are not kept.
char* getString(size_t n) {
    if (s.nameBufferSize < n + 1) {
        std::free(s.nameBuffer);
        s.nameBuffer = static_cast<char*>(std::malloc(n + 1));
        if (!s.nameBuffer) {
            s.nameBufferSize = 0;
            return nullptr;
        }
        s.nameBufferSize = n + 1;
    }
    return s.nameBuffer;
}

// Temporary files are made in directories other users can write to, so a
// name is accepted only when it is a plain file of ours with no other link:
// a symbolic link planted at the name is never followed (O_NOFOLLOW), and a
// directory, a device, someone else's file or a hard link to one of our other
// files counts as a name that cannot be used.
bool isOurPlainFile(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0) return false;
    if (!S_ISREG(st.st_mode) || st.st_uid != geteuid() || st.st_nlink != 1) {
        errno = EEXIST;
        return false;
    }
    return true;
}

// Creates the file at `path` (read-write, 0600, neither exclusive nor
// truncating, as the name may be left over from an earlier run of a process
// with the same id). A file of ours already there is emptied, so a stale
// document never leaks into this one. On failure errno tells why.
bool createCandidate(const char* path) {
    int fd = open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    bool ok = isOurPlainFile(fd) && fchmod(fd, 0600) == 0 && ftruncate(fd, 0) == 0;
    int error = errno;
    if (close(fd) != 0 && ok) return false;
    errno = error;
    return ok;
}

enum class Candidate { Created, Failed, NoBuffer };

// Composes "DIRECTORY/NAME.PID.SEQ" (or "NAME.PID.SEQ" without a directory)
// in the shared buffer and tries to create it.
Candidate tryCandidate(const char* directory, const char* name) {
    int seq = static_cast<int>(s.sequence);
    int length = directory ? std::snprintf(nullptr, 0, "%s/%s.%d.%d", directory, name, s.pid, seq)
                           : std::snprintf(nullptr, 0, "%s.%d.%d", name, s.pid, seq);
    char* buffer = length < 0 ? nullptr : getString(static_cast<size_t>(length));
    if (!buffer) {
        errno = ENOMEM;
        return Candidate::NoBuffer;
    }
    if (directory)
        std::snprintf(buffer, static_cast<size_t>(length) + 1, "%s/%s.%d.%d", directory, name,
                      s.pid, seq);
    else
        std::snprintf(buffer, static_cast<size_t>(length) + 1, "%s.%d.%d", name, s.pid, seq);
    return createCandidate(buffer) ? Candidate::Created : Candidate::Failed;
}

// Looks an environment directory up until it is found, then keeps it. An
// empty value is treated as unset: it would name the root directory.
const char* environmentDirectory(const char* variable, bool& have, std::string& value) {
    if (!have) {
        const char* found = std::getenv(variable);
        if (!found || !*found) return nullptr;
        try {
            value = found;
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
        have = true;
    }
    return value.c_str();
}

// Opens an existing temporary file for update, refusing anything that is not
// still the plain file of ours that FileGetTmpFileName made (a name swapped
// for a link or another file in between is not used).
FILE* openTempFile(const char* path) {
    int fd = open(path, O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return nullptr;
    if (!isOurPlainFile(fd)) {
        int error = errno;
        close(fd);
        errno = error;
        return nullptr;
    }
    FILE* stream = fdopen(fd, "r+");
    if (!stream) {
        int error = errno;
        close(fd);
        errno = error;
        return nullptr;
    }
    return stream;
}

void removeTempFile(FILE*& stream, std::string& name) {
    if (stream) std::fclose(stream);
    stream = nullptr;
    if (!name.empty()) std::remove(name.c_str());
    name.clear();
}

// Removes whichever temporary files exist; errors are ignored, as this runs
// only on the way out.
void removeTempFiles() {
    removeTempFile(driver.bodyStream, driver.bodyFileName);
    removeTempFile(driver.aFrameNew.file, driver.aFrameNew.fileName);
}

// Without both temporary files no document can be assembled: say so, with
// the system's reason, clean up what was made and end with status 1, writing
// nothing to standard output.
[[noreturn]] void failWithoutTempFiles(int error) {
    TVWarningPre();
    std::fprintf(stderr, "No temporary file could be made:  %s.\n", std::strerror(error));
    removeTempFiles();
    processExit(1);
}

// Start-up steps for one temporary file: make it, keep its name, open it.
FILE* makeTempFile(std::string& nameCopy) {
    const char* name = FileGetTmpFileName(nullptr, driver.program.c_str());
    if (!name) failWithoutTempFiles(errno);
    try {
        nameCopy = name;
    } catch (const std::bad_alloc&) {
        std::remove(name);
        TVFatalVM();
    }
    FILE* stream = openTempFile(nameCopy.c_str());
    if (!stream) fatalStdio();
    return stream;
}

// Closes a temporary file after its copy into the output and removes it.
void closeAndRemove(FILE*& stream, std::string& name) {
    FILE* closing = stream;
    stream = nullptr;
    if (std::fclose(closing) != 0) fatalStdio();
    if (std::remove(name.c_str()) != 0) fatalStdio();
    name.clear();
}

// Whatever a temporary file still holds in its buffer is written out and
// checked before the file is read back: a temporary file that could not be
// written completely (a full disk) must not pass for complete.
void rewindTempFile(FILE* stream) {
    if (std::fflush(stream) != 0) fatalStdio();
    std::rewind(stream);
}

void fillCopyPgf(Pgf& format) {
    format = Pgf{};
    format.mask = bit(PgfBit::PgfTag) | bit(PgfBit::PgfColumnTop) | bit(PgfBit::PgfForceFont) |
                  bit(PgfBit::font) | bit(PgfBit::PgfBlockSize) | bit(PgfBit::PgfLIndent) |
                  bit(PgfBit::PgfFIndent) | bit(PgfBit::PgfRIndent) | bit(PgfBit::PgfLeading);
    format.PgfTag = "copy";
    format.PgfColumnTop = kNo;
    format.PgfForceFont = kYes;
    format.font.mask = bit(FontBit::FFamily) | bit(FontBit::FSize) | bit(FontBit::FPlain);
    format.font.FFamily = "Courier";
    format.font.FSize = 12;
    format.font.FPlain = kYes;
    format.PgfBlockSize = 2;
    format.PgfLIndent = Dimension{0, kUnitInch};
    format.PgfFIndent = Dimension{0, kUnitInch};
    format.PgfRIndent = Dimension{0, kUnitInch};
    format.PgfLeading = Dimension{2.0f, kUnitPoint};
}

void defineMacroPackage(const std::string& name) {
    if (name == "man")
        ManDefine();
    else if (name == "my")
        MyDefine();
    else if (name == "me")
        MeDefine();
    else if (name == "ms")
        MsDefine();
    // mdoc reads its lines itself, on the roff layer: see convert().
}

}  // namespace

// ---- Command line -------------------------------------------------------------

int32_t CommandLine(int argc, char** argv, FILE** in, FILE** out) {
    int first = 1;
    // Words of the converter's own, first on the line, begin with "--".
    while (first < argc && argv[first] && std::strncmp(argv[first], "--", 2) == 0) {
        if (std::strcmp(argv[first], "--full") != 0) printUsage(true);
        driver.isFull = true;
        first++;
    }
    if (argc > first && argv[first] && argv[first][0] == '-') {
        char option = argv[first][1];
        if (option == 'V' || option == 'v') {
            std::fprintf(stderr, "%s: version %s\n", driver.program.c_str(), kVifVersion);
            processExit(0);
        }
        if (option != 'm') printUsage(driver.isFull);
        driver.macroPackage = argv[first] + 1;
        first++;
    }
    int count = argc > first ? argc - first : 0;
    int32_t code = ProcessCommandLineFilenames(count, argv + first, in, out);

    const char* message = nullptr;
    switch (code) {
        case kStatFailed: message = "Internal Error in Filter.  Contact Norve Technical Support.\n"; break;
        case kInputUnreadable: message = "Error reading input file.\n"; break;
        case kOutputUnwritable: message = "Error writing to output file.\n"; break;
        case kNoMemoryForName: message = "Error: Out of memory.\n"; break;
        case kSameFile: message = "Input file and output file are identical.\n"; break;
        default: break;
    }
    if (message) {
        std::fputs(message, stderr);
        processExit(1);
    }
    return code;
}

int32_t ProcessCommandLineFilenames(int count, char** words, FILE** in, FILE** out) {
    *in = stdin;
    *out = stdout;
    if (count > 2) return kTooManyFiles;

    char* inName = nullptr;
    char* outName = nullptr;
    if (count >= 1 && !(inName = strdup(words[0]))) return kNoMemoryForName;
    if (inName) driver.documentPath = inName;
    if (count == 2 && !(outName = strdup(words[1]))) {
        std::free(inName);
        return kNoMemoryForName;
    }
    int32_t code = SetupStandardIO(inName, outName, in, out);
    std::free(inName);
    std::free(outName);
    return code;
}

int32_t SetupStandardIO(const char* inName, const char* outName, FILE** in, FILE** out) {
    if (inName && *inName) {
        FILE* opened = std::fopen(inName, "r");
        if (!opened) return kInputUnreadable;
        *in = opened;
    }
    struct stat inStat;
    if (fstat(fileno(*in), &inStat) != 0) return kStatFailed;

    if (outName && *outName) {
        // The output is looked at before it is opened for writing, which
        // would empty it: naming the input again must leave it intact.
        if (FILE* existing = std::fopen(outName, "r")) {
            struct stat outStat;
            bool statOk = fstat(fileno(existing), &outStat) == 0;
            std::fclose(existing);
            if (!statOk) return kStatFailed;
            if (outStat.st_dev == inStat.st_dev && outStat.st_ino == inStat.st_ino) return kSameFile;
        }
        FILE* opened = std::fopen(outName, "w");
        if (!opened) return kOutputUnwritable;
        *out = opened;
        struct stat outStat;
        if (fstat(fileno(*out), &outStat) != 0) return kStatFailed;
    }
    struct stat outStat;
    if (fstat(fileno(*out), &outStat) != 0) return kStatFailed;
    if (outStat.st_dev == inStat.st_dev && outStat.st_ino == inStat.st_ino && isatty(fileno(*in)))
        return kSameTerminal;
    return kStreamsReady;
}

// ---- Temporary files -----------------------------------------------------------

const char* FileGetTmpFileName(const char* directory, const char* name) {
    if (!s.havePid) {
        s.pid = static_cast<int>(getpid());
        s.havePid = true;
    }
    s.sequence++;

    // The candidates in order of preference; the current directory is the
    // last resort. A missing buffer ends the search at once.
    auto search = [&]() {
        Candidate result;
        if (directory && *directory) {
            if ((result = tryCandidate(directory, name)) != Candidate::Failed) return result;
        }
        if (const char* tmpDir = environmentDirectory("TMPDIR", s.haveTmpDir, s.tmpDir)) {
            if ((result = tryCandidate(tmpDir, name)) != Candidate::Failed) return result;
        }
        if ((result = tryCandidate("/tmp", name)) != Candidate::Failed) return result;
        if (const char* home = environmentDirectory("HOME", s.haveHome, s.home)) {
            if ((result = tryCandidate(home, name)) != Candidate::Failed) return result;
        }
        return tryCandidate(nullptr, name);
    };
    return search() == Candidate::Created ? s.nameBuffer : nullptr;
}

// ---- Start-up and shut-down -----------------------------------------------------

void convert() {
    driver.stdIn = InputStream{};
    driver.stdIn.file = driver.inFile;

    // The body file gets sequence number 1 and the frame file 2.
    driver.bodyStream = makeTempFile(driver.bodyFileName);
    // The body of a large document passes through its file twice: a buffer
    // larger than stdio's default saves most of the system calls.
    if (driver.bodyStream) std::setvbuf(driver.bodyStream, bodyBuffer, _IOFBF, sizeof bodyBuffer);
    driver.aFrameNew.file = makeTempFile(driver.aFrameNew.fileName);
    s.filesReady = true;

    try {
        // In the full mode a manual page is a man or an mdoc page, told by
        // its first macro.
        if (driver.isFull && driver.macroPackage == "man" && driver.inFile &&
            startsWithDd(driver.inFile)) {
            driver.macroPackage = "mdoc";
        }
        TVCreateRopes();
        TVDefineTroff();
        defineMacroPackage(driver.macroPackage);
        if (driver.isFull) {
            if (driver.macroPackage == "man") ManDefineFull();
            RoffDefine();
            if (driver.macroPackage == "mdoc") MdocDefine();
            rereadHead();
        }
        // Registered after the package, so that they replace its entries of the same name.
        TVDefineNumericalRule("sp", TVsp, "v");
        TVDefineNumericalRule("sv", TVsp, "v");
        TVDefineRule("ns", TVns);
        TVDefineRule("rs", TVrs);
        fillCopyPgf(driver.copyPgf);
        doIt();
    } catch (const std::bad_alloc&) {
        TVFatalVM();
    }
    shutDown();
}

void shutDown() {
    driver.isShuttingDown = true;
    FILE* out = driver.outFile;
    // The copies write past the output's buffer: a failed one is known by
    // its error number, not by the stream's error flag.
    int copyError = 0;
    try {
        std::string identification = "trofftovif -" + driver.macroPackage;
        if (!VifPreludeOut(out, identification.c_str())) fatalStdio();
        if (!VifCatalogOut(out)) fatalStdio();

        // The results of the two literal writes are not looked at one by
        // one: the final flush below catches them.
        rewindTempFile(driver.aFrameNew.file);
        std::fputs("<AFrames\n", out);
        copyError = StreamCopy(driver.aFrameNew.file, out);
        std::fputs(">\n", out);
        closeAndRemove(driver.aFrameNew.file, driver.aFrameNew.fileName);

        if (!VifDocumentOut(tv.TVDocument, out)) fatalStdio();
        if (!VifPageOut(tv.TVPage, out)) fatalStdio();

        rewindTempFile(driver.bodyStream);
        int bodyError = StreamCopy(driver.bodyStream, out);
        if (copyError == 0) copyError = bodyError;
        closeAndRemove(driver.bodyStream, driver.bodyFileName);
    } catch (const std::bad_alloc&) {
        TVFatalVM();
    }
    // Output that could not be written (a full disk, /dev/full) is an error
    // even when every single write was buffered.
    errno = 0;
    if (std::fflush(out) != 0 || std::ferror(out) || copyError != 0) {
        if (errno == 0) errno = copyError != 0 ? copyError : EIO;
        fatalStdio();
    }
    processExit(0);
}

// ---- Fatal errors and warnings ------------------------------------------------

void TVWarningPre() {
    std::fprintf(stderr, "Line %d @ %d:  ", static_cast<int>(driver.stdIn.line),
                 static_cast<int>(driver.stdIn.column));
}

void TVFatalVM() {
    if (!s.filesReady) failWithoutTempFiles(ENOMEM);
    TVWarningPre();
    std::fputs("Memory is full.\n", stderr);
    fatalPost();
}

void fatalStdio() {
    int error = errno;
    if (!s.filesReady) failWithoutTempFiles(error);
    TVWarningPre();
    std::fprintf(stderr, "Operating system problem:  %s.\n", std::strerror(error));
    fatalPost();
}

void fatalPost() {
    // A fatal error while the output is being assembled must not start the
    // assembly again (it would fail the same way, without end): the message
    // is out, so remove the temporary files and end with status 1.
    if (driver.isShuttingDown || !s.filesReady) {
        removeTempFiles();
        processExit(1);
    }
    shutDown();
}

// ---- Process end and reset ------------------------------------------------------

void setExitHook(ExitHook hook) { exitHook = hook; }

void processExit(int status) {
    if (exitHook) exitHook(status);
    std::exit(status);
}

void driverReset() {
    // Temporary files of an interrupted run are closed and removed. The input
    // and output streams belong to whoever set them and are left alone.
    removeTempFiles();
    std::free(s.nameBuffer);
    s = DriverPrivate{};
    driver = DriverState{};
}

namespace {

struct ConversionEnded {
    int status;
};

[[noreturn]] void endConversion(int status) { throw ConversionEnded{status}; }

void resetEveryModule() {
    driverReset();
    interpReset();
    rbReset();
    troffReset();
    VifReset();
    manReset();
    mdocReset();
    meReset();
    msReset();
    roffReset();
}

}  // namespace

int convertInProcess(const char* package, FILE* in, FILE* out) {
    ConversionOptions options;
    options.package = package;
    return convertInProcess(options, in, out);
}

int convertInProcess(const ConversionOptions& options, FILE* in, FILE* out) {
    resetEveryModule();
    driver.program = "trofftovif";
    driver.macroPackage = options.package;
    driver.isFull = options.isFull;
    driver.documentPath = options.documentPath;
    driver.findInclude = options.findInclude;
    driver.inFile = in;
    driver.outFile = out;
    ExitHook saved = exitHook;
    exitHook = endConversion;
    int status = 1;
    try {
        convert();
    } catch (const ConversionEnded& end) {
        status = end.status;
    }
    exitHook = saved;
    // Free what the run made now rather than at the next run.
    resetEveryModule();
    return status;
}
