// StreamCopy: appends the rest of one stream to another, one block at a time,
// from descriptor to descriptor.
#include "tools/hpstream.h"

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>

namespace {

char block[kStreamCopyBlock];

// Through stdio: for a stream that already failed, so that further writes
// fail and are reported the way all its writes are.
// A short write is not retried; the copy ends at a write that takes nothing.
void stdioCopy(FILE* from, FILE* to) {
    for (;;) {
        size_t got = std::fread(block, 1, sizeof block, from);
        if (got == 0 || std::fwrite(block, 1, got, to) == 0) return;
    }
}

}  // namespace

int StreamCopy(FILE* from, FILE* to) {
    int in = fileno(from), out = fileno(to);
    off_t offset = in < 0 ? -1 : ftello(from);
    if (out < 0 || offset < 0) {
        stdioCopy(from, to);
        return 0;
    }
    if (std::fflush(to) != 0) {
        // The flush's error is returned too: stdio may have dropped what it
        // could not write, leaving nothing for a later flush to fail on.
        int error = errno;
        stdioCopy(from, to);
        return error;
    }
    for (;;) {
        ssize_t got = pread(in, block, sizeof block, offset);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return 0;
        offset += got;
        for (ssize_t done = 0; done < got;) {
            ssize_t put = write(out, block + done, static_cast<size_t>(got - done));
            if (put < 0 && errno == EINTR) continue;
            if (put <= 0) return put < 0 ? errno : EIO;
            done += put;
        }
    }
}
