// Whole-stream helpers: StreamCopy appends the rest of one stream to another in
// blocks; the driver uses it to assemble the output from its temporary files.
// Owns: nothing. Calls: the C standard I/O library.
#pragma once

#include <cstdio>

// The block size of StreamCopy.
inline constexpr size_t kStreamCopyBlock = 10240;

// Copies the rest of `from` to `to` in blocks of kStreamCopyBlock bytes. A
// short write is not retried; read and write errors are not reported here
// (the caller checks the output stream's error flag).
void StreamCopy(FILE* from, FILE* to);
