// The trofftovif-tree command line: options, the summary and the report.
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>

#include "tree/tree.h"

namespace fs = std::filesystem;
using tree::Job;

namespace {

void usage(const char* program, int status) {
    std::fprintf(status ? stderr : stdout,
                 "Usage: %s [options] SRC DST\n"
                 "Converts every manual page or troff paper below SRC into DST, keeping\n"
                 "relative paths (man1/ls.1.gz becomes man1/ls.1.vif). Pages are converted\n"
                 "in the converter's full mode (trofftovif --full): macro definitions,\n"
                 "conditionals, registers, includes beside the page and groff escapes are\n"
                 "interpreted, and mdoc pages are converted with the mdoc package (the\n"
                 "classic mode skips them).\n\n"
                 "Options are:\n"
                 "\t-j N\t\tRun N conversions at once (default: the number of cores).\n"
                 "\t-man, -me, -ms\tUse this macro package for every file.\n"
                 "\t--classic\tConvert in the classic mode instead: the output of\n"
                 "\t\t\ttrofftovif without --full, byte for byte.\n"
                 "\t--force\t\tConvert files whose output is newer than their source too.\n"
                 "\t--report FILE\tWrite one line per file (path, status, warnings, first\n"
                 "\t\t\twarning) as tab-separated values.\n"
                 "\t--program PATH\tRun this converter program once per file (default: the\n"
                 "\t\t\tconverter built into this command, in -j worker processes):\n"
                 "\t\t\t\"PATH --full -PACKAGE\" in the page's folder, the page on\n"
                 "\t\t\tstandard input and the output on standard output; with\n"
                 "\t\t\t--classic \"PATH -PACKAGE INPUT OUTPUT\".\n"
                 "\t--timeout S\tA conversion running longer than S seconds fails (default 60).\n"
                 "\t--max-size N\tA page larger than N bytes (N followed by K, M or G: KiB,\n"
                 "\t\t\tMiB, GiB) once decompressed fails unconverted (default 64M).\n"
                 "\t-q\t\tNo progress line.\n"
                 "\t-h, --help\tPrint this usage message.\n",
                 program);
    std::exit(status);
}

const char* resultName(Job::Result result) {
    switch (result) {
        case Job::Result::Converted: return "converted";
        case Job::Result::UpToDate: return "up to date";
        case Job::Result::Skipped: return "skipped";
        case Job::Result::Redirected: return "redirect";
        case Job::Result::Failed: return "failed";
        case Job::Result::Pending: break;
    }
    return "pending";
}

// Tabs and line ends inside a field would break the TSV layout.
std::string field(std::string text) {
    for (char& c : text)
        if (c == '\t' || c == '\n' || c == '\r') c = ' ';
    return text;
}

// "4096", "64K", "64M", "1G": a size of at least one byte.
bool parseSize(const std::string& text, uint64_t& bytes) {
    char* end = nullptr;
    errno = 0;
    unsigned long long number = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0])) || errno != 0 || number == 0) return false;
    unsigned shift = 0;
    std::string suffix = end;
    if (suffix == "K" || suffix == "k") shift = 10;
    else if (suffix == "M" || suffix == "m") shift = 20;
    else if (suffix == "G" || suffix == "g") shift = 30;
    else if (!suffix.empty()) return false;
    if (number > (UINT64_MAX >> shift)) return false;
    bytes = static_cast<uint64_t>(number) << shift;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    tree::Options options;
    unsigned cores = std::thread::hardware_concurrency();
    options.jobs = cores ? cores : 1;
    std::vector<std::string> paths;
    for (int i = 1; i < argc; i++) {
        std::string word = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) usage(argv[0], 2);
            return argv[++i];
        };
        if (word == "-j") {
            int n = std::atoi(value().c_str());
            if (n < 1) usage(argv[0], 2);
            options.jobs = static_cast<unsigned>(n);
        } else if (word.rfind("-j", 0) == 0 && word.size() > 2 && std::isdigit(static_cast<unsigned char>(word[2]))) {
            options.jobs = static_cast<unsigned>(std::max(1, std::atoi(word.c_str() + 2)));
        } else if (word == "-man") {
            options.forced = tree::Package::Man;
        } else if (word == "-me") {
            options.forced = tree::Package::Me;
        } else if (word == "-ms") {
            options.forced = tree::Package::Ms;
        } else if (word == "--classic") {
            options.isFull = false;
        } else if (word == "--force") {
            options.force = true;
        } else if (word == "--report") {
            options.reportFile = value();
        } else if (word == "--program") {
            options.program = value();
        } else if (word == "--timeout") {
            options.timeoutSeconds = static_cast<unsigned>(std::max(1, std::atoi(value().c_str())));
        } else if (word == "--max-size") {
            if (!parseSize(value(), options.maxBytes)) usage(argv[0], 2);
        } else if (word == "-q") {
            options.progress = false;
        } else if (word == "-h" || word == "--help") {
            usage(argv[0], 0);
        } else if (!word.empty() && word[0] == '-') {
            std::fprintf(stderr, "%s: unknown option %s\n", argv[0], word.c_str());
            usage(argv[0], 2);
        } else {
            paths.push_back(word);
        }
    }
    if (paths.size() != 2) usage(argv[0], 2);
    options.source = paths[0];
    options.destination = paths[1];
    std::error_code ec;
    if (!fs::is_directory(options.source, ec)) {
        std::fprintf(stderr, "%s: %s is not a folder\n", argv[0], options.source.c_str());
        return 2;
    }
    fs::path source = fs::weakly_canonical(options.source, ec);
    fs::path destination = fs::weakly_canonical(options.destination, ec);
    auto rel = fs::relative(destination, source, ec).string();
    if (!ec && (rel == "." || (!rel.empty() && rel.rfind("..", 0) != 0))) {
        std::fprintf(stderr, "%s: the destination must not lie inside the source\n", argv[0]);
        return 2;
    }
    fs::create_directories(options.destination, ec);

    const auto start = std::chrono::steady_clock::now();
    std::vector<Job> jobs = tree::plan(options);
    tree::run(options, jobs);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    std::map<std::string, unsigned> skipped;
    unsigned converted = 0, upToDate = 0, redirects = 0, failed = 0, warnings = 0;
    uint64_t bytesIn = 0, bytesOut = 0;
    for (const auto& job : jobs) {
        switch (job.result) {
            case Job::Result::Converted: converted++; break;
            case Job::Result::UpToDate: upToDate++; break;
            case Job::Result::Redirected: redirects++; break;
            case Job::Result::Skipped: skipped[job.reason]++; break;
            case Job::Result::Failed:
                failed++;
                std::fprintf(stderr, "failed: %s: %s\n", job.relative.c_str(), job.problem.c_str());
                break;
            case Job::Result::Pending: break;
        }
        warnings += job.warnings;
        if (job.result == Job::Result::Converted) {
            bytesIn += job.bytesIn;
            bytesOut += job.bytesOut;
        }
    }
    std::fprintf(stderr, "%u converted, %u up to date, %u redirects, %u failed, %u warnings\n", converted,
                 upToDate, redirects, failed, warnings);
    for (const auto& [reason, count] : skipped) std::fprintf(stderr, "%u skipped: %s\n", count, reason.c_str());
    std::fprintf(stderr, "%llu bytes in, %llu bytes out, %.2f s\n", static_cast<unsigned long long>(bytesIn),
                 static_cast<unsigned long long>(bytesOut), seconds);

    if (!options.reportFile.empty()) {
        FILE* report = std::fopen(options.reportFile.c_str(), "w");
        if (!report) {
            std::fprintf(stderr, "%s: cannot write %s: %s\n", argv[0], options.reportFile.c_str(), std::strerror(errno));
            return 1;
        }
        for (const auto& job : jobs) {
            std::string status = resultName(job.result);
            if (job.result == Job::Result::Skipped) status += ": " + job.reason;
            if (job.result == Job::Result::Failed) status += ": " + job.problem;
            std::fprintf(report, "%s\t%s\t%u\t%s\n", field(job.relative).c_str(), field(status).c_str(),
                         job.warnings, field(job.firstWarning).c_str());
        }
        if (std::fclose(report) != 0) return 1;
    }
    return failed ? 1 : 0;
}
