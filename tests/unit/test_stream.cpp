// The input stream record (line and column counting, the byte that ends the
// input) and StreamCopy's block-wise copy.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/hpstream.h"
#include "tools/stream.h"

namespace {

// ---- STREAM_GETC ---------------------------------------------------------------

struct MemoryInput {
    explicit MemoryInput(const std::string& data) : bytes(data) {
        stream.file = fmemopen(bytes.data(), bytes.size(), "r");
    }
    ~MemoryInput() {
        if (stream.file) std::fclose(stream.file);
    }
    std::string bytes;
    InputStream stream;
};

TEST(StreamGetc, CountsColumnsAndLines) {
    MemoryInput in("ab\ncd");
    ASSERT_NE(in.stream.file, nullptr);
    EXPECT_EQ(in.stream.line, 1);
    EXPECT_EQ(in.stream.column, 1);
    EXPECT_EQ(in.stream.lastChar, -1);
    EXPECT_EQ(STREAM_GETC(in.stream), 'a');
    EXPECT_EQ(STREAM_GETC(in.stream), 'b');
    EXPECT_EQ(in.stream.line, 1);
    EXPECT_EQ(in.stream.column, 3);
    EXPECT_EQ(STREAM_GETC(in.stream), '\n');
    EXPECT_EQ(in.stream.line, 2);
    EXPECT_EQ(in.stream.column, 1);
    EXPECT_EQ(STREAM_GETC(in.stream), 'c');
    EXPECT_EQ(STREAM_GETC(in.stream), 'd');
    EXPECT_EQ(in.stream.column, 3);
    // The end of input is -1 and still moves the column.
    EXPECT_EQ(STREAM_GETC(in.stream), -1);
    EXPECT_EQ(in.stream.lastChar, EOF);
    EXPECT_EQ(in.stream.column, 4);
    EXPECT_EQ(in.stream.line, 2);
}

TEST(StreamGetc, HighBytesComeBackNegativeAnd255EndsTheInput) {
    MemoryInput in(std::string("\x80\xfe\xff" "after", 8));
    ASSERT_NE(in.stream.file, nullptr);
    EXPECT_EQ(STREAM_GETC(in.stream), -128);
    EXPECT_EQ(STREAM_GETC(in.stream), -2);
    int c = STREAM_GETC(in.stream);
    EXPECT_EQ(c, -1);            // indistinguishable from the end of input
    EXPECT_EQ(in.stream.lastChar, 255);  // though the record keeps the byte read
}

// ---- StreamCopy ----------------------------------------------------------------

// Streams whose reads and writes are counted, built with fopencookie and left
// unbuffered: each fwrite of StreamCopy is then one write call, and the source
// hands out exactly the bytes StreamCopy asked for (how stdio splits them into
// read calls is its own business).
struct CountingSource {
    std::string data;
    size_t position = 0;
    bool failReads = false;
    std::vector<size_t> reads;  // bytes handed out by each read call

    static ssize_t read(void* cookie, char* buffer, size_t size) {
        auto* self = static_cast<CountingSource*>(cookie);
        if (self->failReads) {
            errno = EIO;
            return -1;
        }
        size_t n = std::min(size, self->data.size() - self->position);
        std::memcpy(buffer, self->data.data() + self->position, n);
        self->position += n;
        self->reads.push_back(n);
        return static_cast<ssize_t>(n);
    }
    FILE* open() {
        cookie_io_functions_t io{};
        io.read = &CountingSource::read;
        FILE* f = fopencookie(this, "r", io);
        if (f) setvbuf(f, nullptr, _IONBF, 0);
        return f;
    }
};

struct CountingSink {
    std::string data;
    bool failWrites = false;
    std::vector<size_t> writes;  // sizes of the write calls

    static ssize_t write(void* cookie, const char* buffer, size_t size) {
        auto* self = static_cast<CountingSink*>(cookie);
        self->writes.push_back(size);
        if (self->failWrites) {
            errno = ENOSPC;
            return 0;
        }
        self->data.append(buffer, size);
        return static_cast<ssize_t>(size);
    }
    FILE* open() {
        cookie_io_functions_t io{};
        io.write = &CountingSink::write;
        FILE* f = fopencookie(this, "w", io);
        if (f) setvbuf(f, nullptr, _IONBF, 0);
        return f;
    }
};

std::string patterned(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++) s[i] = static_cast<char>('a' + i % 23);
    return s;
}

TEST(StreamCopy, EmptyStreamWritesNothing) {
    CountingSource source;
    CountingSink sink;
    FILE* from = source.open();
    FILE* to = sink.open();
    ASSERT_TRUE(from && to);
    StreamCopy(from, to);
    std::fclose(from);
    std::fclose(to);
    EXPECT_TRUE(sink.writes.empty());
    EXPECT_EQ(sink.data, "");
    ASSERT_FALSE(source.reads.empty());
    EXPECT_EQ(source.reads.back(), 0u);
}

TEST(StreamCopy, CopiesInBlocksOf10240UntilAnEmptyRead) {
    CountingSource source;
    source.data = patterned(25000);
    CountingSink sink;
    FILE* from = source.open();
    FILE* to = sink.open();
    ASSERT_TRUE(from && to);
    StreamCopy(from, to);
    EXPECT_TRUE(std::feof(from));  // it went on reading until the end was seen
    std::fclose(from);
    std::fclose(to);
    EXPECT_EQ(sink.writes, (std::vector<size_t>{10240, 10240, 4520}));
    EXPECT_EQ(sink.data, source.data);
    ASSERT_FALSE(source.reads.empty());
    EXPECT_EQ(source.reads.back(), 0u);  // the final empty read
}

TEST(StreamCopy, ExactMultipleOfTheBlockEndsWithTheEmptyPass) {
    CountingSource source;
    source.data = patterned(2 * kStreamCopyBlock);
    CountingSink sink;
    FILE* from = source.open();
    FILE* to = sink.open();
    ASSERT_TRUE(from && to);
    StreamCopy(from, to);
    std::fclose(from);
    std::fclose(to);
    EXPECT_EQ(sink.writes, (std::vector<size_t>{10240, 10240}));
    EXPECT_EQ(sink.data, source.data);
    EXPECT_EQ(source.reads.back(), 0u);
}

TEST(StreamCopy, StopsAtOnceOnAReadError) {
    CountingSource source;
    source.data = patterned(100);
    source.failReads = true;
    CountingSink sink;
    FILE* from = source.open();
    FILE* to = sink.open();
    ASSERT_TRUE(from && to);
    StreamCopy(from, to);
    std::fclose(from);
    std::fclose(to);
    EXPECT_TRUE(sink.writes.empty());
}

TEST(StreamCopy, StopsAfterAWriteThatWroteNothing) {
    CountingSource source;
    source.data = patterned(25000);
    CountingSink sink;
    sink.failWrites = true;
    FILE* from = source.open();
    FILE* to = sink.open();
    ASSERT_TRUE(from && to);
    StreamCopy(from, to);
    EXPECT_EQ(sink.writes.size(), 1u);
    EXPECT_EQ(source.position, 10240u);  // one block read, none after the failed write
    EXPECT_TRUE(std::ferror(to));
    std::fclose(from);
    std::fclose(to);
}

TEST(StreamCopy, CopiesTheRestFromTheCurrentPosition) {
    std::FILE* from = std::tmpfile();
    std::FILE* to = std::tmpfile();
    ASSERT_TRUE(from && to);
    std::fputs("skipped|kept", from);
    std::fseek(from, 8, SEEK_SET);
    std::fputs("head:", to);
    StreamCopy(from, to);
    std::rewind(to);
    char buffer[64] = {};
    size_t n = std::fread(buffer, 1, sizeof buffer - 1, to);
    EXPECT_EQ(std::string(buffer, n), "head:kept");
    std::fclose(from);
    std::fclose(to);
}

}  // namespace
