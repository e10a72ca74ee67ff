// Whole-stream helpers: StreamCopy appends the rest of one stream to another;
// the driver uses it to assemble the output from its temporary files.
// Owns: nothing. Calls: the C standard I/O library and POSIX read and write.
#pragma once

#include <cstdio>

// The block size of StreamCopy: a large document's body is copied in a few
// hundred system calls.
inline constexpr size_t kStreamCopyBlock = size_t{1} << 17;

// Copies the rest of `from` (a file that can be read at an offset, such as a
// temporary file) to `to`. Whatever `to` holds in its buffer is written first;
// the bytes then go from descriptor to descriptor, leaving `from` where it was.
// A read error ends the copy silently, as the end of the file would. Returns 0,
// or the error number of a write that failed: `to`'s error flag may not say
// so, so the caller must report it. When `to` cannot be flushed the copy goes
// through stdio instead (its failures set `to`'s error flag as usual) and the
// flush's error number is returned.
int StreamCopy(FILE* from, FILE* to);
