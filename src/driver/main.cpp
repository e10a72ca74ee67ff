// The entry point: takes the program's name, reads the command line and hands
// over to the conversion, which never returns.
#include <cstdio>
#include <cstring>

#include "driver/driver.h"

int main(int argc, char** argv) {
    // The name the program was invoked by, less its directories; a missing
    // invocation name falls back to the program's own.
    const char* invoked = argc > 0 && argv[0] ? argv[0] : "trofftovif";
    const char* slash = std::strrchr(invoked, '/');
    driver.program = slash ? slash + 1 : invoked;

    CommandLine(argc, argv, &driver.inFile, &driver.outFile);
    // Neither stream has been read or written yet. Larger buffers than
    // stdio's default save most system calls on large documents.
    static char inBuffer[size_t{1} << 16], outBuffer[size_t{1} << 16];
    std::setvbuf(driver.inFile, inBuffer, _IOFBF, sizeof inBuffer);
    std::setvbuf(driver.outFile, outBuffer, _IOFBF, sizeof outBuffer);
    convert();
}
