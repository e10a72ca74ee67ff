// StreamCopy: appends the rest of one stream to another, one block at a time.
#include "tools/hpstream.h"

#include <cerrno>

void StreamCopy(FILE* from, FILE* to) {
    char block[kStreamCopyBlock];
    for (;;) {
        errno = 0;
        size_t got = std::fread(block, 1, sizeof block, from);
        bool isLastPass = false;
        if (got == 0) {
            if (errno > 0) return;  // read error: stop at once
            isLastPass = true;      // end of the stream: one empty write, then done
        }
        errno = 0;
        size_t put = std::fwrite(block, 1, got, to);
        if (put == 0 || isLastPass) return;
    }
}
