// libFuzzer harness: runs the whole conversion on arbitrary bytes, in one
// process, many times. The first byte chooses the macro package (its value
// modulo 5: none, man, me, ms, my) and the mode (its value divided by 5, odd:
// the full mode; even: the classic one), so the bytes 0 to 4 keep the
// meaning they had before the full mode; the rest is the troff input.
// convertInProcess puts every module back as at program start around each
// run and turns the converter's exits into a returned status.
//
// Environment:
//   FUZZ_FULL_ONLY=1        every input runs in the full mode, whatever its
//                           first byte says
//   FUZZ_MODE_COUNTS=FILE   at exit, one line "classic N full M" is added to
//                           FILE: the inputs this process ran in each mode
//
// In the full mode the document lies in a folder of its own, made at start
// and removed at exit, holding a few files that includes may name (a.tr,
// b.tr, sub/c.tr); no include can reach anything else.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "driver/driver.h"

namespace {

const char* const kPackages[] = {"", "man", "me", "ms", "my"};
constexpr unsigned kPackageCount = sizeof kPackages / sizeof kPackages[0];

struct HarnessState {
    bool isFullOnly = false;
    std::string folder;        // the full mode's document folder
    std::string documentPath;  // a name in that folder
    std::string countsFile;
    unsigned long long classicRuns = 0, fullRuns = 0;
} harness;

FILE* devNull() {
    static FILE* sink = std::fopen("/dev/null", "w");
    return sink;
}

void writeFile(const std::string& path, const char* text) {
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f) return;
    std::fputs(text, f);
    std::fclose(f);
}

// The include files: plain text, a definition, an include of an include,
// one that includes itself, and one below that climbs back up.
void makeDocumentFolder() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/trofftovif-fuzz-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (!mkdtemp(name.data())) {
        std::perror("fuzz_convert: cannot make the document folder");
        std::exit(1);
    }
    harness.folder = name.data();
    harness.documentPath = harness.folder + "/input.tr";
    writeFile(harness.folder + "/a.tr", ".de AA\nMacro from a.tr \\\\$1\n..\nText of a.tr.\n.AA x\n");
    writeFile(harness.folder + "/b.tr", ".so a.tr\n.nr B +1\nb.tr \\n(B\n.if \\n(B<3 .so b.tr\n");
    std::string sub = harness.folder + "/sub";
    if (mkdir(sub.c_str(), 0700) == 0) writeFile(sub + "/c.tr", ".so ../a.tr\n.so c.tr\n.ds C in c.tr\n");
}

void removeDocumentFolder() {
    if (harness.folder.empty()) return;
    for (const char* name : {"/sub/c.tr", "/a.tr", "/b.tr"}) unlink((harness.folder + name).c_str());
    rmdir((harness.folder + "/sub").c_str());
    rmdir(harness.folder.c_str());
}

void atExit() {
    if (!harness.countsFile.empty()) {
        int fd = open(harness.countsFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd >= 0) {
            char line[96];
            int n = std::snprintf(line, sizeof line, "classic %llu full %llu\n", harness.classicRuns,
                                  harness.fullRuns);
            if (n > 0 && write(fd, line, static_cast<size_t>(n)) != n) {
                // Nothing to do: the count is missing, and the script says so.
            }
            close(fd);
        }
    }
    removeDocumentFolder();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const char* fullOnly = std::getenv("FUZZ_FULL_ONLY");
    harness.isFullOnly = fullOnly && std::strcmp(fullOnly, "1") == 0;
    if (const char* counts = std::getenv("FUZZ_MODE_COUNTS")) harness.countsFile = counts;
    makeDocumentFolder();
    std::atexit(atExit);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    ConversionOptions options;
    options.package = kPackages[data[0] % kPackageCount];
    options.isFull = harness.isFullOnly || (data[0] / kPackageCount) % 2 == 1;
    options.documentPath = options.isFull ? harness.documentPath.c_str() : "";
    (options.isFull ? harness.fullRuns : harness.classicRuns)++;
    std::vector<char> input(data + 1, data + size);
    input.push_back('\0');  // fmemopen needs a buffer even for an empty input

    FILE* in = size > 1 ? fmemopen(input.data(), size - 1, "r") : std::fopen("/dev/null", "r");
    if (!in) std::abort();
    int status = convertInProcess(options, in, devNull());
    std::fclose(in);
    // Every run of a document ends through the shut-down with status 0.
    if (status != 0) {
        std::fprintf(stderr, "conversion ended with status %d\n", status);
        std::abort();
    }
    return 0;
}
