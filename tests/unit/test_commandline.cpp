// The choice and checking of the input and output streams, the warning
// prefix, and a fatal error that comes before the temporary files exist.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "driver/driver.h"

namespace {

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

class Streams : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/streams-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        input = dir + "/in.tr";
        std::ofstream(input) << ".PP\nsome text\n";
    }
    void TearDown() override {
        if (in && in != stdin) std::fclose(in);
        if (out && out != stdout) std::fclose(out);
        std::string command = "rm -rf '" + dir + "'";
        ASSERT_EQ(std::system(command.c_str()), 0);
    }
    std::string dir, input;
    FILE* in = nullptr;
    FILE* out = nullptr;
};

TEST_F(Streams, OutputNamingTheInputIsRefusedAndTheInputKept) {
    EXPECT_EQ(SetupStandardIO(input.c_str(), input.c_str(), &in, &out), kSameFile);
    EXPECT_EQ(slurp(input), ".PP\nsome text\n");
}

TEST_F(Streams, OutputReachingTheInputThroughALinkIsRefused) {
    std::string link = dir + "/link.vif";
    ASSERT_EQ(symlink(input.c_str(), link.c_str()), 0);
    EXPECT_EQ(SetupStandardIO(input.c_str(), link.c_str(), &in, &out), kSameFile);
    EXPECT_EQ(slurp(input), ".PP\nsome text\n");
}

TEST_F(Streams, MissingInputCannotBeRead) {
    std::string missing = dir + "/missing.tr";
    EXPECT_EQ(SetupStandardIO(missing.c_str(), nullptr, &in, &out), kInputUnreadable);
}

TEST_F(Streams, OutputInAMissingDirectoryCannotBeWritten) {
    std::string bad = dir + "/no/such/dir.vif";
    out = stdout;
    EXPECT_EQ(SetupStandardIO(input.c_str(), bad.c_str(), &in, &out), kOutputUnwritable);
}

TEST_F(Streams, TwoNamesOpenBothAndEmptyAnExistingOutput) {
    std::string output = dir + "/out.vif";
    std::ofstream(output) << "old contents";
    char* words[] = {input.data(), output.data()};
    EXPECT_EQ(ProcessCommandLineFilenames(2, words, &in, &out), kStreamsReady);
    ASSERT_NE(in, stdin);
    ASSERT_NE(out, stdout);
    EXPECT_EQ(slurp(output), "");
    char first[4] = {};
    ASSERT_EQ(std::fread(first, 1, 3, in), 3u);
    EXPECT_STREQ(first, ".PP");
}

TEST_F(Streams, OneNameOpensTheInputAndKeepsStandardOutput) {
    char* words[] = {input.data()};
    EXPECT_EQ(ProcessCommandLineFilenames(1, words, &in, &out), kStreamsReady);
    EXPECT_NE(in, stdin);
    EXPECT_EQ(out, stdout);
}

TEST_F(Streams, MoreThanTwoNamesKeepTheStandardStreams) {
    std::string output = dir + "/never.vif";
    char* words[] = {input.data(), output.data(), input.data()};
    in = nullptr;
    out = nullptr;
    EXPECT_EQ(ProcessCommandLineFilenames(3, words, &in, &out), kTooManyFiles);
    EXPECT_EQ(in, stdin);
    EXPECT_EQ(out, stdout);
    EXPECT_NE(access(output.c_str(), F_OK), 0);  // nothing was opened
}

TEST_F(Streams, EmptyNamesLeaveTheStreamsAlone) {
    FILE* other = std::tmpfile();
    ASSERT_NE(other, nullptr);
    in = other;
    out = stdout;
    EXPECT_EQ(SetupStandardIO("", "", &in, &out), kStreamsReady);
    EXPECT_EQ(in, other);
    EXPECT_EQ(out, stdout);
}

// ---- Warning prefix and fatal errors ---------------------------------------------

struct ProcessEnded {
    int status;
};
[[noreturn]] void throwStatus(int status) { throw ProcessEnded{status}; }

class Fatal : public ::testing::Test {
protected:
    void SetUp() override {
        driverReset();
        setExitHook(throwStatus);
    }
    void TearDown() override {
        setExitHook(nullptr);
        driverReset();
    }
};

TEST_F(Fatal, WarningPrefixQuotesLineThenColumn) {
    driver.stdIn.line = 12;
    driver.stdIn.column = 5;
    testing::internal::CaptureStderr();
    TVWarningPre();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Line 12 @ 5:  ");
}

TEST_F(Fatal, BeforeTheTemporaryFilesExistNothingIsAssembled) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int status = -1;
    try {
        TVFatalVM();
    } catch (const ProcessEnded& ended) {
        status = ended.status;
    }
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(status, 1);
    EXPECT_EQ(err, "Line 1 @ 1:  No temporary file could be made:  " + std::string(strerror(ENOMEM)) + ".\n");
}

TEST_F(Fatal, SystemErrorBeforeTheTemporaryFilesNamesTheReason) {
    testing::internal::CaptureStderr();
    int status = -1;
    errno = EACCES;
    try {
        fatalStdio();
    } catch (const ProcessEnded& ended) {
        status = ended.status;
    }
    EXPECT_EQ(status, 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Line 1 @ 1:  No temporary file could be made:  " + std::string(strerror(EACCES)) + ".\n");
}

}  // namespace
