// Planning and running the conversion of a whole tree: detection of each
// file's kind, redirects, incremental skips, and the parallel runs of the
// converter, each writing to a temporary name that is renamed when complete.
#include "tree/tree.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

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

}  // namespace

const char* packageOption(Package package) {
    switch (package) {
        case Package::Man: return "-man";
        case Package::Me: return "-me";
        case Package::Ms: return "-ms";
        case Package::None: break;
    }
    return "";
}

bool readSource(const std::string& path, std::string& text, std::string& problem) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        problem = std::string("cannot read: ") + std::strerror(errno);
        return false;
    }
    std::string raw((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (raw.size() < 2 || static_cast<unsigned char>(raw[0]) != 0x1f ||
        static_cast<unsigned char>(raw[1]) != 0x8b) {
        text = std::move(raw);
        return true;
    }
    z_stream z{};
    if (inflateInit2(&z, 15 + 32) != Z_OK) {
        problem = "cannot start gzip decompression";
        return false;
    }
    z.next_in = reinterpret_cast<Bytef*>(raw.data());
    z.avail_in = static_cast<uInt>(raw.size());
    text.clear();
    char buffer[65536];
    int status = Z_OK;
    while (status == Z_OK) {
        z.next_out = reinterpret_cast<Bytef*>(buffer);
        z.avail_out = sizeof buffer;
        status = inflate(&z, Z_NO_FLUSH);
        text.append(buffer, sizeof buffer - z.avail_out);
        // Concatenated gzip members continue the same text.
        if (status == Z_STREAM_END && z.avail_in > 0) status = inflateReset(&z);
    }
    inflateEnd(&z);
    if (status != Z_STREAM_END) {
        problem = "damaged gzip data";
        return false;
    }
    return true;
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
    std::map<std::string, size_t> byPath;  // relative path -> job index

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
            byPath[relative] = jobs.size();
            jobs.push_back(job);
            continue;
        }
        std::string text, problem;
        if (!readSource(full.string(), text, problem)) {
            job.action = Action::Convert;  // reported as a failure by the run
            job.problem = problem;
            job.package = options.forced == Package::None ? Package::Man : options.forced;
        } else if (std::string so = soTarget(text); !so.empty()) {
            // As man(1) does, the name is relative to the root of the tree.
            fs::path target = fs::weakly_canonical(root / so, ec);
            std::string rel = fs::relative(target, root, ec).string();
            if (!fs::is_regular_file(target, ec) && fs::is_regular_file(target.string() + ".gz", ec))
                rel += ".gz";
            if (ec || rel.empty() || startsWith(rel, "..") || !fs::is_regular_file(root / rel, ec)) {
                job.reason = "redirect outside the tree or to no page";
            } else {
                job.action = Action::Redirect;
                job.target = rel;
            }
        } else if (isMdoc(text)) {
            job.reason = "mdoc page (no mdoc package)";
        } else {
            job.package = options.forced != Package::None ? options.forced : choosePackage(relative, text);
            if (job.package == Package::None) {
                job.reason = "not a troff document";
            } else {
                job.action = Action::Convert;
            }
        }
        job.bytesIn = text.size();
        byPath[relative] = jobs.size();
        jobs.push_back(job);
    }
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
    return jobs;
}

namespace {

bool newerThan(const fs::path& a, const fs::path& b) {
    std::error_code ec1, ec2;
    auto ta = fs::last_write_time(a, ec1), tb = fs::last_write_time(b, ec2);
    return !ec1 && !ec2 && ta > tb;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
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

// Runs the converter on one file; the output appears under its final name
// only when the conversion succeeded.
void convertOne(const Options& options, Job& job, const fs::path& root, const fs::path& destination) {
    fs::path source = root / job.relative;
    fs::path output = destination / job.output;
    std::error_code ec;
    fs::create_directories(output.parent_path(), ec);
    if (!options.force && newerThan(output, source)) {
        job.result = Job::Result::UpToDate;
        return;
    }
    if (!job.problem.empty()) {
        job.result = Job::Result::Failed;
        return;
    }
    std::string text, problem;
    if (!readSource(source.string(), text, problem)) {
        job.problem = problem;
        job.result = Job::Result::Failed;
        return;
    }
    job.bytesIn = text.size();
    std::string stem = output.parent_path() / ("." + output.filename().string() + ".part." +
                                                std::to_string(getpid()) + "." +
                                                std::to_string(std::hash<std::thread::id>{}(std::this_thread::get_id())));
    std::string inputCopy = stem + ".in", outputTemp = stem + ".vif", errors = stem + ".err";
    {
        std::ofstream in(inputCopy, std::ios::binary);
        in << text;
        if (!in) {
            job.problem = "cannot write a temporary file in the destination";
            job.result = Job::Result::Failed;
            fs::remove(inputCopy, ec);
            return;
        }
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::string program = options.program;
    const char* option = packageOption(job.package);
    std::vector<char*> argv = {program.data(), const_cast<char*>(option), inputCopy.data(), outputTemp.data(), nullptr};
    pid_t pid;
    int spawned = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        job.problem = std::string("cannot run ") + program + ": " + std::strerror(spawned);
        job.result = Job::Result::Failed;
    } else {
        bool timedOut;
        int status = waitFor(pid, options.timeoutSeconds, timedOut);
        std::string messages = readFile(errors);
        forEachLine(messages, [&](const std::string& line) {
            if (startsWith(line, "Line ")) {
                if (job.warnings++ == 0) job.firstWarning = line;
            }
            return true;
        });
        if (timedOut) {
            job.problem = "no result after " + std::to_string(options.timeoutSeconds) + " s";
        } else if (WIFSIGNALED(status)) {
            job.problem = std::string("ended by signal ") + strsignal(WTERMSIG(status));
        } else if (WEXITSTATUS(status) != 0) {
            job.problem = "exit status " + std::to_string(WEXITSTATUS(status));
            if (!messages.empty()) job.problem += ": " + messages.substr(0, messages.find('\n'));
        }
        if (job.problem.empty()) {
            job.bytesOut = fs::file_size(outputTemp, ec);
            fs::rename(outputTemp, output, ec);
            if (ec) job.problem = "cannot rename the output: " + ec.message();
        }
        job.result = job.problem.empty() ? Job::Result::Converted : Job::Result::Failed;
    }
    fs::remove(inputCopy, ec);
    fs::remove(outputTemp, ec);
    fs::remove(errors, ec);
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
    std::vector<size_t> work;
    std::map<std::string, size_t> byPath;
    for (size_t i = 0; i < jobs.size(); i++) {
        byPath[jobs[i].relative] = i;
        if (jobs[i].action == Action::Convert) work.push_back(i);
        if (jobs[i].action == Action::Skip) jobs[i].result = Job::Result::Skipped;
    }
    std::atomic<size_t> next{0}, done{0};
    const bool showProgress = options.progress && isatty(STDERR_FILENO);
    const auto start = std::chrono::steady_clock::now();
    std::mutex progressLock;
    auto worker = [&] {
        for (size_t k; (k = next.fetch_add(1)) < work.size();) {
            convertOne(options, jobs[work[k]], root, destination);
            size_t finished = done.fetch_add(1) + 1;
            if (showProgress && (finished % 16 == 0 || finished == work.size())) {
                std::lock_guard<std::mutex> lock(progressLock);
                double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
                std::fprintf(stderr, "\r%zu of %zu files, %.0f files/s ", finished, work.size(),
                             seconds > 0 ? finished / seconds : 0.0);
            }
        }
    };
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < std::max(1u, options.jobs); i++) threads.emplace_back(worker);
    for (auto& t : threads) t.join();
    if (showProgress) std::fputc('\n', stderr);
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
