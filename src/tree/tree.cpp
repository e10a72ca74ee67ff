// Planning and running the conversion of a whole tree: detection of each
// file's kind, redirects, incremental skips, and the parallel runs of the
// converter, each writing to a temporary name that is renamed when complete.
#include "tree/tree.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include "driver/driver.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <regex>
#include <thread>

extern char** environ;

namespace fs = std::filesystem;

namespace tree {

namespace {

bool startsWith(const std::string& s, const char* prefix) {
    return s.compare(0, std::strlen(prefix), prefix) == 0;
}

bool endsWith(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The request name of a control line ("TH" for ".TH x 1"), or "".
std::string requestName(const std::string& line) {
    if (line.empty() || (line[0] != '.' && line[0] != '\'')) return "";
    size_t i = 1;
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) i++;
    size_t start = i;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t') i++;
    return line.substr(start, i - start);
}

bool isComment(const std::string& line) {
    return startsWith(line, ".\\\"") || startsWith(line, "'\\\"") || startsWith(line, "\\\"") ||
           startsWith(line, ".\\#");
}

template <typename Visit>
void forEachLine(const std::string& text, Visit visit) {
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        if (!visit(text.substr(start, end - start))) return;
        start = end + 1;
    }
}

// A section folder of a manual tree: man1, man3p, mann, ...
bool inSectionFolder(const std::string& relative) {
    for (const auto& part : fs::path(relative).parent_path()) {
        std::string name = part.string();
        if (name.size() > 3 && startsWith(name, "man") &&
            (std::isdigit(static_cast<unsigned char>(name[3])) || name[3] == 'n' || name[3] == 'l'))
            return true;
    }
    return false;
}

// Opens a regular file for reading, its size in `size`; -1 with `problem`
// set on failure. What is not a regular file is refused unopened; should one
// take a regular file's place in between, opening does not wait for it (as
// for a FIFO without a writer) and nothing is read from it.
int openRegular(const std::string& path, uint64_t& size, std::string& problem) {
    struct stat st {};
    if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        problem = "not a regular file";
        return -1;
    }
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        problem = std::string("cannot read: ") + std::strerror(errno);
        return -1;
    }
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        problem = "not a regular file";
        return -1;
    }
    size = static_cast<uint64_t>(st.st_size);
    return fd;
}

// One read(2), again when interrupted; -1 with `problem` set on failure.
ssize_t readSome(int fd, char* buffer, size_t size, std::string& problem) {
    ssize_t n;
    while ((n = read(fd, buffer, size)) < 0 && errno == EINTR) {
    }
    if (n < 0) problem = std::string("cannot read: ") + std::strerror(errno);
    return n;
}

// Reads a whole regular file into `text`; false with `problem` set on failure.
bool readWhole(const std::string& path, std::string& text, std::string& problem) {
    uint64_t size = 0;
    int fd = openRegular(path, size, problem);
    if (fd < 0) return false;
    text.clear();
    text.reserve(size);
    char buffer[1 << 16];
    ssize_t n;
    while ((n = readSome(fd, buffer, sizeof buffer, problem)) > 0) text.append(buffer, static_cast<size_t>(n));
    close(fd);
    return n == 0;
}

std::string tooLarge(uint64_t maxBytes, bool isCompressed) {
    return std::string(isCompressed ? "expands past" : "larger than") + " the limit of " + sizeName(maxBytes) +
           " (--max-size)";
}

// Appends to a page's text unless that takes it past the limit.
bool appendWithin(std::string& text, const char* data, size_t size, uint64_t maxBytes, bool isCompressed,
                  std::string& problem) {
    if (text.size() + size > maxBytes) {
        problem = tooLarge(maxBytes, isCompressed);
        return false;
    }
    text.append(data, size);
    return true;
}

// Gunzips a stream whose first chunk, already read, is in `input`; the text
// grows as it is inflated, never past `maxBytes`.
bool inflateStream(int fd, char* input, size_t inputSize, ssize_t n, std::string& text, std::string& problem,
                   uint64_t maxBytes) {
    z_stream z{};
    if (inflateInit2(&z, 15 + 32) != Z_OK) {
        problem = "cannot start gzip decompression";
        return false;
    }
    char output[1 << 16];
    int status = Z_OK;  // of the last inflate(): Z_STREAM_END between two members
    bool ok = true;
    for (; ok && n > 0; n = readSome(fd, input, inputSize, problem)) {
        z.next_in = reinterpret_cast<Bytef*>(input);
        z.avail_in = static_cast<uInt>(n);
        do {
            if (status == Z_STREAM_END) {
                if (z.avail_in == 0) break;
                inflateReset(&z);  // concatenated gzip members continue the same text
            }
            z.next_out = reinterpret_cast<Bytef*>(output);
            z.avail_out = sizeof output;
            status = inflate(&z, Z_NO_FLUSH);
            if (status == Z_BUF_ERROR) status = Z_OK;  // all input taken: more is needed
            if (status != Z_OK && status != Z_STREAM_END) {
                problem = "damaged gzip data";
                ok = false;
            } else {
                ok = appendWithin(text, output, sizeof output - z.avail_out, maxBytes, true, problem);
            }
        } while (ok && (z.avail_out == 0 || z.avail_in > 0));
    }
    inflateEnd(&z);
    if (ok && n < 0) ok = false;  // a read failed: `problem` says why
    if (ok && status != Z_STREAM_END) {
        problem = "damaged gzip data";
        ok = false;
    }
    return ok;
}

}  // namespace

const char* packageOption(Package package) {
    switch (package) {
        case Package::Man: return "-man";
        case Package::Me: return "-me";
        case Package::Ms: return "-ms";
        case Package::Mdoc: return "-mdoc";
        case Package::None: break;
    }
    return "";
}

std::string sizeName(uint64_t bytes) {
    if (bytes != 0 && bytes % (1 << 20) == 0) return std::to_string(bytes >> 20) + " MiB";
    if (bytes != 0 && bytes % (1 << 10) == 0) return std::to_string(bytes >> 10) + " KiB";
    return std::to_string(bytes) + " bytes";
}

bool readSource(const std::string& path, std::string& text, std::string& problem, uint64_t maxBytes) {
    uint64_t size = 0;
    int fd = openRegular(path, size, problem);
    if (fd < 0) return false;
    text.clear();
    char input[1 << 16];
    ssize_t n = readSome(fd, input, sizeof input, problem);
    bool ok;
    if (n >= 2 && static_cast<unsigned char>(input[0]) == 0x1f && static_cast<unsigned char>(input[1]) == 0x8b) {
        ok = inflateStream(fd, input, sizeof input, n, text, problem, maxBytes);
    } else if (size > maxBytes) {
        problem = tooLarge(maxBytes, false);  // the rest is not read
        ok = false;
    } else {
        text.reserve(size);
        for (ok = n >= 0; ok && n > 0; n = readSome(fd, input, sizeof input, problem))
            ok = appendWithin(text, input, static_cast<size_t>(n), maxBytes, false, problem);
        ok = ok && n >= 0;
    }
    close(fd);
    return ok;
}

std::string soTarget(const std::string& text) {
    std::string target;
    bool other = false;
    forEachLine(text, [&](const std::string& line) {
        if (line.find_first_not_of(" \t\r") == std::string::npos || isComment(line)) return true;
        if (target.empty() && requestName(line) == "so") {
            size_t start = line.find_first_not_of(" \t", line.find("so") + 2);
            size_t end = line.find_last_not_of(" \t\r");
            if (start != std::string::npos && end >= start) target = line.substr(start, end - start + 1);
            return true;
        }
        other = true;
        return false;
    });
    return other ? "" : target;
}

bool isMdoc(const std::string& text) {
    bool mdoc = false;
    forEachLine(text, [&](const std::string& line) {
        std::string name = requestName(line);
        if (name == "Dd" || name == "Dt" || name == "Sh") {
            mdoc = true;
            return false;
        }
        return name.empty() || isComment(line) || name == "\\\"" || name == "Os";
    });
    return mdoc;
}

Package choosePackage(const std::string& relative, const std::string& text) {
    if (inSectionFolder(relative)) return Package::Man;
    std::string name = relative;
    if (endsWith(name, ".gz")) name.resize(name.size() - 3);
    if (endsWith(name, ".ms")) return Package::Ms;
    if (endsWith(name, ".me")) return Package::Me;
    if (endsWith(name, ".man")) return Package::Man;
    // By the macros used: the first request that belongs to one package decides.
    static const std::map<std::string, Package> kMacros = {
        {"TH", Package::Man}, {"SH", Package::Man}, {"TP", Package::Man},
        {"NH", Package::Ms}, {"PP", Package::Ms}, {"LP", Package::Ms}, {"TL", Package::Ms},
        {"AU", Package::Ms}, {"AB", Package::Ms}, {"IP", Package::Ms},
        {"pp", Package::Me}, {"lp", Package::Me}, {"sh", Package::Me}, {"uh", Package::Me},
        {"np", Package::Me}, {"ip", Package::Me}, {"(q", Package::Me}, {"+c", Package::Me},
    };
    Package found = Package::None;
    bool sawTH = false;
    forEachLine(text, [&](const std::string& line) {
        std::string request = requestName(line);
        if (request == "TH") sawTH = true;
        auto it = kMacros.find(request);
        if (it != kMacros.end() && it->first != "SH" && it->first != "IP" && it->first != "PP") {
            found = it->second;
            return false;
        }
        return true;
    });
    if (sawTH) return Package::Man;
    return found;
}

std::string outputName(const std::string& relative) {
    std::string name = relative;
    if (endsWith(name, ".gz")) name.resize(name.size() - 3);
    return name + ".vif";
}

std::vector<Job> plan(const Options& options) {
    std::vector<Job> jobs;
    const fs::path root = fs::weakly_canonical(options.source);
    std::vector<std::string> files;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(root, fs::directory_options::skip_permission_denied, ec);
         it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (ec) break;
        if (it->is_directory(ec) && !it->is_symlink(ec)) continue;
        if (it->is_symlink(ec) && it->is_directory(ec)) {
            it.disable_recursion_pending();
            continue;
        }
        files.push_back(it->path().lexically_relative(root).string());
    }
    std::sort(files.begin(), files.end());
    for (const auto& relative : files) {
        Job job;
        job.relative = relative;
        job.output = outputName(relative);
        fs::path full = root / relative;
        if (fs::is_symlink(full, ec)) {
            // A link is a redirect to the page it points at, when that page
            // lies inside the tree.
            fs::path target = fs::weakly_canonical(full, ec);
            std::string rel = fs::relative(target, root, ec).string();
            if (ec || rel.empty() || startsWith(rel, "..") || !fs::is_regular_file(target, ec)) {
                job.reason = "redirect outside the tree or to no page";
            } else {
                job.action = Action::Redirect;
                job.target = rel;
            }
        } else if (fs::is_regular_file(full, ec)) {
            job.action = Action::Read;
        } else {
            job.reason = "not a regular file";
        }
        jobs.push_back(job);
    }
    return jobs;
}

namespace {

// The page a ".so" name gives, taken as man(1) takes it, from the root of the
// tree: the file as named, else gzipped beside it. Its path relative to the
// root, or "" when there is no such regular file inside the tree.
std::string pageFromRoot(const fs::path& root, const std::string& name) {
    std::error_code ec;
    fs::path target = fs::weakly_canonical(root / name, ec);
    std::string rel = fs::relative(target, root, ec).string();
    if (!fs::is_regular_file(target, ec) && fs::is_regular_file(target.string() + ".gz", ec)) rel += ".gz";
    if (ec || rel.empty() || startsWith(rel, "..") || !fs::is_regular_file(root / rel, ec)) return "";
    return rel;
}

// Decides what a file read from the tree is: a redirect (a ".so" stub), a
// skip (mdoc, not troff) or a document to convert.
void classify(const Options& options, const std::string& rootPath, Job& job, const std::string& text) {
    const fs::path root = rootPath;
    std::error_code ec;
    job.action = Action::Skip;
    if (std::string so = soTarget(text); !so.empty()) {
        std::string rel = pageFromRoot(root, so);
        if (rel.empty()) {
            job.reason = "redirect outside the tree or to no page";
        } else {
            job.action = Action::Redirect;
            job.target = rel;
        }
    } else if (isMdoc(text) && !options.isFull) {
        job.reason = "mdoc page (no mdoc package in the classic mode)";
    } else if (isMdoc(text) && options.forced == Package::None) {
        job.package = Package::Mdoc;
        job.action = Action::Convert;
    } else {
        job.package = options.forced != Package::None ? options.forced : choosePackage(job.relative, text);
        if (job.package == Package::None) {
            job.reason = "not a troff document";
        } else {
            job.action = Action::Convert;
        }
    }
}

// Follows redirects to redirects; a redirect to a skip or into a loop is skipped.
void resolveRedirects(std::vector<Job>& jobs) {
    std::map<std::string, size_t> byPath;  // relative path -> job index
    for (size_t i = 0; i < jobs.size(); i++) byPath[jobs[i].relative] = i;
    // A redirect follows its target: redirects to redirects are followed (a
    // few steps at most), and a redirect to a skipped file is skipped for the
    // same reason.
    for (auto& job : jobs) {
        for (int step = 0; job.action == Action::Redirect && step < 8; step++) {
            auto it = byPath.find(job.target);
            if (it == byPath.end()) {
                job.action = Action::Skip;
                job.reason = "redirect outside the tree or to no page";
                break;
            }
            const Job& target = jobs[it->second];
            if (target.action == Action::Convert) break;
            if (target.action == Action::Skip) {
                job.action = Action::Skip;
                job.reason = target.reason;
                break;
            }
            job.target = target.target;
        }
        if (job.action == Action::Redirect && jobs[byPath[job.target]].action != Action::Convert) {
            job.action = Action::Skip;
            job.reason = "redirect loop";
        }
    }
}

bool newerThan(const fs::path& a, const fs::path& b) {
    std::error_code ec1, ec2;
    auto ta = fs::last_write_time(a, ec1), tb = fs::last_write_time(b, ec2);
    return !ec1 && !ec2 && ta > tb;
}

std::string readFile(const std::string& path) {
    std::string text, problem;
    return readWhole(path, text, problem) ? text : std::string();
}

// True while the process runs: a zombie has ended.
bool isRunning(pid_t pid) {
    if (pid <= 0 || (kill(pid, 0) != 0 && errno != EPERM)) return false;
    const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t name = stat.rfind(')');
    return name == std::string::npos || name + 2 >= stat.size() || stat[name + 2] != 'Z';
}

// The temporary outputs of this command: ".ls.1.vif.part.PID.N" beside
// man1/ls.1.vif, with ".in" and ".err" for a converter program's input copy
// and messages. The process id is the first group.
const std::regex kTempOutput(R"(\..+\.part\.([0-9]+)\.[0-9]+(\.in|\.err)?)");
// The converter's own temporary files, "trofftovif.PID.N", and those of a
// converter program of any name.
const std::regex kConverterTemp(R"(trofftovif\.([0-9]+)\.[0-9]+)");
const std::regex kProgramTemp(R"(.+\.([0-9]+)\.[0-9]+)");

// Removes the plain files of `folder` (below it too when `recursive`) of the
// user's own whose name matches `pattern` and whose process, if given, is
// that one, or else has ended: what a killed worker or run left behind.
void removeLeftovers(const fs::path& folder, const std::regex& pattern, bool recursive, pid_t of = 0) {
    std::error_code ec;
    auto consider = [&](const fs::directory_entry& entry) {
        std::smatch match;
        const std::string name = entry.path().filename().string();
        if (!std::regex_match(name, match, pattern)) return;
        const pid_t pid = static_cast<pid_t>(std::strtol(match[1].str().c_str(), nullptr, 10));
        if (of ? pid != of : isRunning(pid)) return;
        struct stat st {};
        if (lstat(entry.path().c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == geteuid())
            fs::remove(entry.path(), ec);
    };
    if (recursive) {
        for (auto it = fs::recursive_directory_iterator(folder, fs::directory_options::skip_permission_denied, ec);
             !ec && it != fs::recursive_directory_iterator(); it.increment(ec))
            consider(*it);
    } else {
        for (auto it = fs::directory_iterator(folder, ec); !ec && it != fs::directory_iterator(); it.increment(ec))
            consider(*it);
    }
}

// Waits for the child for at most `seconds`; kills it after that.
int waitFor(pid_t pid, unsigned seconds, bool& timedOut) {
    timedOut = false;
    int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidfd >= 0) {
        pollfd p{pidfd, POLLIN, 0};
        int ready;
        do {
            ready = poll(&p, 1, static_cast<int>(seconds * 1000));
        } while (ready < 0 && errno == EINTR);
        close(pidfd);
        if (ready == 0) {
            timedOut = true;
            kill(pid, SIGKILL);
        }
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

// One file's conversion, whichever way the converter runs: the output goes
// to a temporary name beside its final one and is renamed only on success.
struct Conversion {
    std::string text;        // the source, decompressed
    fs::path output;
    std::string outputTemp;  // unique to this process and thread
};

// Reads a file and decides what it is; when it is a document to convert,
// gets it ready. False when its job is settled without converting: a
// redirect, a file skipped, an output up to date, a source that cannot be read.
bool startConversion(const Options& options, Job& job, const fs::path& root, const fs::path& destination,
                     Conversion& c) {
    fs::path source = root / job.relative;
    std::string problem;
    if (!readSource(source.string(), c.text, problem, options.maxBytes)) {
        job.action = Action::Convert;  // a page that cannot be read fails
        job.package = options.forced == Package::None ? Package::Man : options.forced;
        job.problem = problem;
        job.result = Job::Result::Failed;
        return false;
    }
    job.bytesIn = c.text.size();
    classify(options, root.string(), job, c.text);
    if (job.action != Action::Convert) return false;
    c.output = destination / job.output;
    // Made once per folder and process: the files of a folder mostly come
    // one after the other.
    static thread_local fs::path lastFolder;
    if (c.output.parent_path() != lastFolder) {
        std::error_code ec;
        fs::create_directories(c.output.parent_path(), ec);
        lastFolder = c.output.parent_path();
    }
    if (!options.force && newerThan(c.output, source)) {
        job.result = Job::Result::UpToDate;
        return false;
    }
    c.outputTemp = (c.output.parent_path() /
                    ("." + c.output.filename().string() + ".part." + std::to_string(getpid()) + "." +
                     std::to_string(std::hash<std::thread::id>{}(std::this_thread::get_id()))))
                       .string();
    return true;
}

// Counts the converter's warnings and puts the output in place when the
// conversion succeeded (`problem` empty).
void endConversion(Job& job, const Conversion& c, const std::string& messages, std::string problem) {
    forEachLine(messages, [&](const std::string& line) {
        if (startsWith(line, "Line ")) {
            if (job.warnings++ == 0) job.firstWarning = line;
        }
        return true;
    });
    std::error_code ec;
    if (problem.empty()) {
        job.bytesOut = fs::file_size(c.outputTemp, ec);
        fs::rename(c.outputTemp, c.output, ec);
        if (ec) problem = "cannot rename the output: " + ec.message();
    }
    job.problem = problem;
    job.result = problem.empty() ? Job::Result::Converted : Job::Result::Failed;
    if (!problem.empty()) fs::remove(c.outputTemp, ec);
}

std::string exitProblem(int status, const std::string& messages) {
    std::string problem = "exit status " + std::to_string(status);
    if (!messages.empty()) problem += ": " + messages.substr(0, messages.find('\n'));
    return problem;
}

// Runs the converter program on one file, in a process of its own. The
// classic mode names the files: PROGRAM -PACKAGE INPUT OUTPUT, the input
// being the page as read (gunzipped) in a temporary file. The full mode runs
// PROGRAM --full -PACKAGE in the page's own folder, the page on standard
// input and the document on standard output: the converter looks for
// includes in its current folder then, which is the page's, as it does
// beside a document it is given by name.
void convertOne(const Options& options, Job& job, const fs::path& root, const fs::path& destination) {
    Conversion c;
    if (!startConversion(options, job, root, destination, c)) return;
    std::string inputCopy = c.outputTemp + ".in", errors = c.outputTemp + ".err";
    std::error_code ec;
    {
        std::ofstream in(inputCopy, std::ios::binary);
        in << c.text;
        if (!in) {
            fs::remove(inputCopy, ec);
            endConversion(job, c, "", "cannot write a temporary file in the destination");
            return;
        }
    }
    std::string program = options.program;
    // The full mode starts it in another folder: a relative name is taken
    // from here.
    const std::string path = fs::absolute(program, ec).string();
    std::string full = "--full";
    const char* option = packageOption(job.package);
    std::string outputTemp = c.outputTemp;
    std::string folder = (root / job.relative).parent_path().string();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    std::vector<char*> argv = {program.data()};
    if (options.isFull) {
        argv.push_back(full.data());
        argv.push_back(const_cast<char*>(option));
        posix_spawn_file_actions_addopen(&actions, 0, inputCopy.c_str(), O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, outputTemp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    } else {
        argv.push_back(const_cast<char*>(option));
        argv.push_back(inputCopy.data());
        argv.push_back(outputTemp.data());
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_addopen(&actions, 2, errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    // Last, so that no file above is looked for in the page's folder.
    if (options.isFull) posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
    pid_t pid;
    int spawned = posix_spawn(&pid, path.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    std::string messages, problem;
    if (spawned != 0) {
        problem = std::string("cannot run ") + program + ": " + std::strerror(spawned);
    } else {
        bool timedOut;
        int status = waitFor(pid, options.timeoutSeconds, timedOut);
        messages = readFile(errors);
        if (timedOut || WIFSIGNALED(status)) {
            // The temporary files of a program killed in the middle.
            const char* folder = std::getenv("TMPDIR");
            removeLeftovers(folder && *folder ? folder : "/tmp", kProgramTemp, false, pid);
        }
        if (timedOut) {
            problem = "no result after " + std::to_string(options.timeoutSeconds) + " s";
        } else if (WIFSIGNALED(status)) {
            problem = std::string("ended by signal ") + strsignal(WTERMSIG(status));
        } else if (WEXITSTATUS(status) != 0) {
            problem = exitProblem(WEXITSTATUS(status), messages);
        }
    }
    endConversion(job, c, messages, problem);
    fs::remove(inputCopy, ec);
    fs::remove(errors, ec);
}

// ---- Conversion inside worker processes ---------------------------------------

// Set in workers from the environment, for the tests: the file on which a
// worker dies, or hangs.
const char* testCrashOn = nullptr;
const char* testHangOn = nullptr;

// Where workers' converters make their two temporary files per document: the
// user's TMPDIR, else memory when the system offers it, else /tmp.
std::string workerTempFolder() {
    const char* named = std::getenv("TMPDIR");
    if (named && *named) return named;
    struct stat st {};
    if (stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode) && access("/dev/shm", W_OK | X_OK) == 0)
        return "/dev/shm";
    return "/tmp";
}

// What the converter linked into this program is lent for the includes of
// the page it converts: the tree's root and the size limit of a page.
struct IncludeSource {
    fs::path root;
    uint64_t maxBytes = 0;
} includeSource;

// Reads an include the converter did not find beside the page from the root
// of the tree, where man(1) reads it: "man1/bash.1" in a page of man7 is
// the tree's man1/bash.1.gz. Nothing outside the tree, nothing but a regular
// file, nothing past the size limit; the text, gunzipped, in a temporary
// file the converter reads and closes. A converter program (--program) is
// lent nothing: it reads only what is beside the page.
FILE* includeFromRoot(const std::string& name) {
    const std::string rel = pageFromRoot(includeSource.root, name);
    if (rel.empty()) return nullptr;
    // A gzipped page found through a symbolic link must still be the tree's.
    std::error_code ec;
    const fs::path real = fs::canonical(includeSource.root / rel, ec);
    const std::string inTree = ec ? std::string() : fs::relative(real, includeSource.root, ec).string();
    if (ec || inTree.empty() || startsWith(inTree, "..")) return nullptr;
    std::string text, problem;
    if (!readSource(real.string(), text, problem, includeSource.maxBytes)) return nullptr;
    FILE* file = std::tmpfile();
    if (file && (std::fwrite(text.data(), 1, text.size(), file) != text.size() || std::fseek(file, 0, SEEK_SET) != 0)) {
        std::fclose(file);
        file = nullptr;
    }
    return file;
}

// Converts one file with the converter linked into this program, in the mode
// asked for. The page's path is the document's: its includes are looked for
// beside it. The converter's messages go to standard error, which in a
// worker is a file of its own, emptied before each document and read back
// after it.
void convertHere(const Options& options, Job& job, const fs::path& root, const fs::path& destination) {
    static char outBuffer[1 << 16];
    Conversion c;
    if (!startConversion(options, job, root, destination, c)) return;
    std::string messages, problem;
    FILE* in = c.text.empty() ? std::fopen("/dev/null", "r") : fmemopen(c.text.data(), c.text.size(), "r");
    FILE* out = in ? std::fopen(c.outputTemp.c_str(), "w") : nullptr;
    // Fault injection for the tests, in a worker only: it dies on the file
    // named, its temporary output open, or the conversion of that file waits
    // for input that never comes.
    if (testCrashOn && job.relative == testCrashOn) raise(SIGKILL);
    if (int never[2]; testHangOn && job.relative == testHangOn && in && pipe(never) == 0) {
        std::fclose(in);
        in = fdopen(never[0], "r");
    }
    if (!in || !out) {
        problem = std::string("cannot open a temporary file: ") + std::strerror(errno);
    } else {
        std::setvbuf(out, outBuffer, _IOFBF, sizeof outBuffer);
        std::fflush(stderr);
        if (ftruncate(STDERR_FILENO, 0) != 0 || lseek(STDERR_FILENO, 0, SEEK_SET) != 0) {
            problem = std::string("cannot reuse the message file: ") + std::strerror(errno);
        } else {
            const std::string documentPath = (root / job.relative).string();
            ConversionOptions conversion;
            conversion.package = packageOption(job.package) + 1;
            conversion.isFull = options.isFull;
            conversion.documentPath = documentPath.c_str();
            includeSource = IncludeSource{root, options.maxBytes};
            conversion.findInclude = includeFromRoot;
            int status = convertInProcess(conversion, in, out);
            struct stat st {};
            if (fstat(STDERR_FILENO, &st) == 0 && st.st_size > 0) {
                messages.resize(static_cast<size_t>(st.st_size));
                ssize_t got = pread(STDERR_FILENO, messages.data(), messages.size(), 0);
                messages.resize(got > 0 ? static_cast<size_t>(got) : 0);
            }
            if (status != 0) problem = exitProblem(status, messages);
        }
    }
    if (in) std::fclose(in);
    if (out && std::fclose(out) != 0 && problem.empty())
        problem = std::string("cannot write the output: ") + std::strerror(errno);
    endConversion(job, c, messages, problem);
}

// What the workers and the command share: the next file to take, and for each
// worker the file it is converting (-1: none) and since when, so that a
// worker that dies or hangs is known by the file it had.
constexpr unsigned kMaxWorkers = 256;
struct Board {
    std::atomic<size_t> next{0};
    struct Slot {
        std::atomic<long long> job{-1};
        std::atomic<long long> startedMs{0};
    } slots[kMaxWorkers];
};
static_assert(std::atomic<size_t>::is_always_lock_free && std::atomic<long long>::is_always_lock_free,
              "the board is shared between processes");

long long nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string cleanField(std::string text) {
    for (char& ch : text)
        if (ch == '\t' || ch == '\n' || ch == '\r') ch = ' ';
    return text;
}

// A worker's report of one file, tab-separated on one line: index, result,
// action, package, warnings, bytes in and out, first warning, problem,
// reason, target.
std::string encodeResult(size_t k, const Job& job) {
    auto number = [](auto v) { return std::to_string(static_cast<unsigned long long>(v)) + "\t"; };
    return number(k) + number(job.result) + number(job.action) + number(job.package) + number(job.warnings) +
           number(job.bytesIn) + number(job.bytesOut) + cleanField(job.firstWarning) + "\t" +
           cleanField(job.problem) + "\t" + cleanField(job.reason) + "\t" + cleanField(job.target) + "\n";
}

// Applies a report to the command's copy of the jobs; returns the index into
// `work`, or -1 for a line that does not parse.
long long decodeResult(const std::string& line, std::vector<Job>& jobs, const std::vector<size_t>& work) {
    std::vector<std::string> f;
    size_t start = 0;
    for (size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1)
        f.push_back(line.substr(start, tab - start));
    f.push_back(line.substr(start));
    if (f.size() != 11) return -1;
    auto number = [&f](size_t i) { return std::strtoull(f[i].c_str(), nullptr, 10); };
    size_t k = number(0);
    if (k >= work.size()) return -1;
    Job& job = jobs[work[k]];
    job.result = static_cast<Job::Result>(number(1));
    job.action = static_cast<Action>(number(2));
    job.package = static_cast<Package>(number(3));
    job.warnings = static_cast<unsigned>(number(4));
    job.bytesIn = number(5);
    job.bytesOut = number(6);
    job.firstWarning = f[7];
    job.problem = f[8];
    job.reason = f[9];
    job.target = f[10];
    return static_cast<long long>(k);
}

bool writeAll(int fd, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// A worker: takes files from the board until none is left, converting each
// in this process and reporting it on `reportFd`.
[[noreturn]] void workerMain(const Options& options, std::vector<Job>& jobs, const std::vector<size_t>& work,
                             Board& board, unsigned slot, int reportFd, const fs::path& root,
                             const fs::path& destination, const std::string& tempFolder) {
    signal(SIGPIPE, SIG_IGN);
    setenv("TMPDIR", tempFolder.c_str(), 1);
    FILE* messages = std::tmpfile();
    if (!messages || dup2(fileno(messages), STDERR_FILENO) < 0) _exit(3);
    // Fault injection for the tests: the worker dies at once for ":start".
    testCrashOn = std::getenv("TROFFTOVIF_TREE_TEST_CRASH");
    testHangOn = std::getenv("TROFFTOVIF_TREE_TEST_HANG");
    if (testCrashOn && std::strcmp(testCrashOn, ":start") == 0) raise(SIGKILL);
    Board::Slot& mine = board.slots[slot];
    for (;;) {
        size_t k = board.next.fetch_add(1);
        if (k >= work.size()) break;
        mine.startedMs = nowMs();
        mine.job = static_cast<long long>(k);
        Job& job = jobs[work[k]];
        convertHere(options, job, root, destination);
        if (!writeAll(reportFd, encodeResult(k, job))) _exit(4);
    }
    mine.job = -1;
    _exit(0);
}

// Without worker processes: converts here, one file after the other, with
// the converter's messages caught in a file of their own as a worker does,
// standard error given back afterwards.
void convertAllHere(const Options& options, std::vector<Job>& jobs, const std::vector<size_t>& work,
                    const fs::path& root, const fs::path& destination) {
    std::fflush(stderr);
    int saved = dup(STDERR_FILENO);
    FILE* messages = saved >= 0 ? std::tmpfile() : nullptr;
    bool caught = messages && dup2(fileno(messages), STDERR_FILENO) >= 0;
    for (size_t i : work) {
        if (caught) {
            convertHere(options, jobs[i], root, destination);
        } else {
            jobs[i].action = Action::Convert;
            jobs[i].result = Job::Result::Failed;
            jobs[i].problem = "no worker process and no file for the converter's messages";
        }
    }
    if (saved >= 0) {
        dup2(saved, STDERR_FILENO);
        close(saved);
    }
    if (messages) std::fclose(messages);
}

struct Worker {
    pid_t pid = -1;
    int reportFd = -1;
    std::string unread;     // a report line not complete yet
    bool isKilled = false;  // killed for running past the time limit
};

// Runs the conversions in worker processes that each convert many files, one
// after the other, in process. A worker that crashes or hangs costs only the
// file it had: that file fails, and a fresh worker takes the rest.
template <typename Progress>
void runWorkers(const Options& options, std::vector<Job>& jobs, const std::vector<size_t>& work,
                const fs::path& root, const fs::path& destination, Progress progress) {
    void* shared = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        convertAllHere(options, jobs, work, root, destination);
        return;
    }
    Board& board = *new (shared) Board;
    const unsigned count = std::clamp(options.jobs, 1u, kMaxWorkers);
    const std::string tempFolder = workerTempFolder();
    removeLeftovers(tempFolder, kConverterTemp, false);  // of workers killed in an earlier run
    std::vector<Worker> workers(count);
    std::fflush(nullptr);  // nothing buffered is written twice by a worker

    auto start = [&](unsigned i) -> bool {
        board.slots[i].job = -1;
        board.slots[i].startedMs = 0;
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return false;
        pid_t pid = fork();
        if (pid == 0) {
            close(fds[0]);
            workerMain(options, jobs, work, board, i, fds[1], root, destination, tempFolder);
        }
        close(fds[1]);
        if (pid < 0) {
            close(fds[0]);
            return false;
        }
        workers[i] = Worker{pid, fds[0], "", false};
        return true;
    };
    unsigned live = 0;
    for (unsigned i = 0; i < count; i++) live += start(i);

    while (live > 0) {
        std::vector<pollfd> fds;
        std::vector<unsigned> owner;
        for (unsigned i = 0; i < count; i++) {
            if (workers[i].pid < 0) continue;
            fds.push_back({workers[i].reportFd, POLLIN, 0});
            owner.push_back(i);
        }
        int ready = poll(fds.data(), fds.size(), 200);
        for (size_t f = 0; ready > 0 && f < fds.size(); f++) {
            if (!(fds[f].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            Worker& w = workers[owner[f]];
            char buffer[8192];
            ssize_t n = read(w.reportFd, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) continue;
            if (n > 0) {
                w.unread.append(buffer, static_cast<size_t>(n));
                for (size_t end; (end = w.unread.find('\n')) != std::string::npos;) {
                    if (decodeResult(w.unread.substr(0, end), jobs, work) >= 0) progress();
                    w.unread.erase(0, end + 1);
                }
                continue;
            }
            // The worker has ended: the file it had, if any, failed with it.
            int status = 0;
            while (waitpid(w.pid, &status, 0) < 0 && errno == EINTR) {
            }
            close(w.reportFd);
            // What a worker killed in the middle of a file leaves: its
            // converter's temporary files and its temporary output.
            removeLeftovers(tempFolder, kConverterTemp, false, w.pid);
            Board::Slot& slot = board.slots[owner[f]];
            long long k = slot.job.exchange(-1);
            // A file still to read has not been reported.
            if (k >= 0 && jobs[work[static_cast<size_t>(k)]].action == Action::Read) {
                Job& job = jobs[work[static_cast<size_t>(k)]];
                removeLeftovers((destination / job.output).parent_path(), kTempOutput, false, w.pid);
                job.action = Action::Convert;
                job.result = Job::Result::Failed;
                if (w.isKilled)
                    job.problem = "no result after " + std::to_string(options.timeoutSeconds) + " s";
                else if (WIFSIGNALED(status))
                    job.problem = std::string("ended by signal ") + strsignal(WTERMSIG(status));
                else
                    job.problem = "the worker converting it ended with status " + std::to_string(WEXITSTATUS(status));
                progress();
            }
            w.pid = -1;
            live--;
            // A worker that ended before taking any file is not replaced:
            // another would only end the same way. What no worker takes is
            // converted here at the end.
            bool tookFiles = slot.startedMs.load() != 0;
            if (tookFiles && board.next.load() < work.size() && start(owner[f])) live++;
        }
        // A worker past the time limit on one file is killed; its end is
        // handled above like any other.
        long long now = nowMs();
        for (unsigned i = 0; i < count; i++) {
            Worker& w = workers[i];
            if (w.pid < 0 || w.isKilled || board.slots[i].job.load() < 0) continue;
            if (now - board.slots[i].startedMs.load() > static_cast<long long>(options.timeoutSeconds) * 1000) {
                kill(w.pid, SIGKILL);
                w.isKilled = true;
            }
        }
    }
    const size_t taken = std::min(board.next.load(), work.size());
    munmap(shared, sizeof(Board));
    // A file taken by a worker that ended before it could say so.
    for (size_t k = 0; k < taken; k++) {
        Job& job = jobs[work[k]];
        if (job.action != Action::Read) continue;
        job.action = Action::Convert;
        job.result = Job::Result::Failed;
        job.problem = "lost when its worker ended";
    }
    if (taken < work.size()) {
        convertAllHere(options, jobs, std::vector<size_t>(work.begin() + static_cast<std::ptrdiff_t>(taken), work.end()),
                       root, destination);
    }
}

// A redirect's output is a relative symbolic link to its target's output.
void linkRedirect(Job& job, const Job& target, const fs::path& destination) {
    fs::path output = destination / job.output;
    std::error_code ec;
    fs::create_directories(output.parent_path(), ec);
    fs::path link = fs::relative(destination / target.output, output.parent_path(), ec);
    fs::remove(output, ec);
    fs::create_symlink(link, output, ec);
    if (ec) {
        job.problem = "cannot make the link: " + ec.message();
        job.result = Job::Result::Failed;
    } else {
        job.result = Job::Result::Redirected;
    }
}

}  // namespace

void run(const Options& options, std::vector<Job>& jobs) {
    const fs::path root = fs::weakly_canonical(options.source);
    const fs::path destination = fs::absolute(options.destination);
    // Temporary outputs that a run killed before it could clean up left.
    removeLeftovers(destination, kTempOutput, true);
    std::vector<size_t> work;
    std::map<std::string, size_t> byPath;
    for (size_t i = 0; i < jobs.size(); i++) {
        byPath[jobs[i].relative] = i;
        if (jobs[i].action == Action::Read) work.push_back(i);
    }
    std::atomic<size_t> done{0};
    const bool showProgress = options.progress && isatty(STDERR_FILENO);
    const auto start = std::chrono::steady_clock::now();
    std::mutex progressLock;
    auto progress = [&] {
        size_t finished = done.fetch_add(1) + 1;
        if (showProgress && (finished % 16 == 0 || finished == work.size())) {
            std::lock_guard<std::mutex> lock(progressLock);
            double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            std::fprintf(stderr, "\r%zu of %zu files, %.0f files/s ", finished, work.size(),
                         seconds > 0 ? finished / seconds : 0.0);
        }
    };
    if (options.program.empty()) {
        runWorkers(options, jobs, work, root, destination, progress);
    } else {
        // A converter program of the user's choice: one process per file.
        std::atomic<size_t> next{0};
        auto worker = [&] {
            for (size_t k; (k = next.fetch_add(1)) < work.size();) {
                convertOne(options, jobs[work[k]], root, destination);
                progress();
            }
        };
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < std::max(1u, options.jobs); i++) threads.emplace_back(worker);
        for (auto& t : threads) t.join();
    }
    if (showProgress) std::fputc('\n', stderr);
    resolveRedirects(jobs);
    for (auto& job : jobs) {
        if (job.action == Action::Skip && job.result == Job::Result::Pending) job.result = Job::Result::Skipped;
    }
    for (auto& job : jobs) {
        if (job.action != Action::Redirect) continue;
        const Job& target = jobs[byPath[job.target]];
        if (target.result == Job::Result::Failed) {
            job.result = Job::Result::Skipped;
            job.reason = "redirect to a page that failed";
        } else {
            linkRedirect(job, target, destination);
        }
    }
}

}  // namespace tree
