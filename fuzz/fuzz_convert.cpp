// libFuzzer harness: runs the whole conversion on arbitrary bytes, in one
// process, many times. The first byte chooses the macro package (none, man,
// me, ms, my); the rest is the troff input. convertInProcess puts every
// module back as at program start around each run and turns the converter's
// exits into a returned status.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "driver/driver.h"

namespace {

const char* const kPackages[] = {"", "man", "me", "ms", "my"};

FILE* devNull() {
    static FILE* sink = std::fopen("/dev/null", "w");
    return sink;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const char* package = kPackages[data[0] % (sizeof kPackages / sizeof kPackages[0])];
    std::vector<char> input(data + 1, data + size);
    input.push_back('\0');  // fmemopen needs a buffer even for an empty input

    FILE* in = size > 1 ? fmemopen(input.data(), size - 1, "r") : std::fopen("/dev/null", "r");
    if (!in) std::abort();
    int status = convertInProcess(package, in, devNull());
    std::fclose(in);
    // Every run of a document ends through the shut-down with status 0.
    if (status != 0) {
        std::fprintf(stderr, "conversion ended with status %d\n", status);
        std::abort();
    }
    return 0;
}
