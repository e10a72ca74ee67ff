// libFuzzer harness: runs the whole conversion on arbitrary bytes, in one
// process, many times. The first byte chooses the macro package (none, man,
// me, ms, my); the rest is the troff input. Every module's state is put back
// as at program start before each run, and the process exits of the converter
// (shut-down, fatal errors) are turned into an exception caught here.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "driver/driver.h"
#include "interp/interp.h"
#include "macros/macros.h"
#include "requests/rb.h"
#include "requests/troff.h"
#include "writer/vifout.h"

namespace {

struct ConversionEnded {
    int status;
};

void throwOnExit(int status) { throw ConversionEnded{status}; }

const char* const kPackages[] = {"", "man", "me", "ms", "my"};

void resetAll() {
    driverReset();
    interpReset();
    rbReset();
    troffReset();
    VifReset();
    manReset();
    meReset();
    msReset();
}

FILE* devNull() {
    static FILE* sink = std::fopen("/dev/null", "w");
    return sink;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setExitHook(throwOnExit);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const char* package = kPackages[data[0] % (sizeof kPackages / sizeof kPackages[0])];
    std::vector<char> input(data + 1, data + size);
    input.push_back('\0');  // fmemopen needs a buffer even for an empty input

    resetAll();
    driver.program = "trofftovif";
    driver.macroPackage = package;
    driver.inFile = size > 1 ? fmemopen(input.data(), size - 1, "r") : std::fopen("/dev/null", "r");
    driver.outFile = devNull();
    if (!driver.inFile) std::abort();
    int status = -1;
    try {
        convert();
    } catch (const ConversionEnded& end) {
        status = end.status;
    }
    std::fclose(driver.inFile);
    driver.inFile = nullptr;
    // Free what the run made now, so that libFuzzer sees as many frees as
    // allocations and does not mistake the next reset's frees for a leak.
    resetAll();
    // Every run of a document ends through the shut-down with status 0.
    if (status != 0) {
        std::fprintf(stderr, "conversion ended with status %d\n", status);
        std::abort();
    }
    return 0;
}
