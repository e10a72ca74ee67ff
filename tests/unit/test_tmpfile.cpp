// Temporary file names: the order of the candidate directories, the
// NAME.PID.N form with N counting up per call, and the refusal of anything at
// a candidate name that is not a plain file of ours.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

void spit(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
}

// Each test gets a fresh TMPDIR and HOME and a driver whose sequence starts
// again at 0; the environment is put back afterwards.
class TmpFile : public ::testing::Test {
protected:
    void SetUp() override {
        saveVariable("TMPDIR", savedTmpDir, hadTmpDir);
        saveVariable("HOME", savedHome, hadHome);
        char pattern[] = "/tmp/tmpfile-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        setenv("TMPDIR", dir.c_str(), 1);
        driverReset();
        pid = std::to_string(getpid());
    }
    void TearDown() override {
        for (const std::string& path : made) std::remove(path.c_str());
        std::string command = "rm -rf '" + dir + "'";
        ASSERT_EQ(std::system(command.c_str()), 0);
        restoreVariable("TMPDIR", savedTmpDir, hadTmpDir);
        restoreVariable("HOME", savedHome, hadHome);
        driverReset();
    }
    static void saveVariable(const char* name, std::string& value, bool& had) {
        const char* v = std::getenv(name);
        had = v != nullptr;
        value = v ? v : "";
    }
    static void restoreVariable(const char* name, const std::string& value, bool had) {
        if (had)
            setenv(name, value.c_str(), 1);
        else
            unsetenv(name);
    }
    // Asks for a name and remembers the file for removal.
    std::string next(const char* name = "unit") {
        const char* got = FileGetTmpFileName(nullptr, name);
        if (!got) return "";
        made.push_back(got);
        return got;
    }
    std::string expected(const std::string& directory, int n, const char* name = "unit") const {
        return directory + "/" + name + "." + pid + "." + std::to_string(n);
    }

    std::string dir, pid, savedTmpDir, savedHome;
    bool hadTmpDir = false, hadHome = false;
    std::vector<std::string> made;
};

TEST_F(TmpFile, NamesCountUpInTmpDir) {
    EXPECT_EQ(next(), expected(dir, 1));
    EXPECT_EQ(next(), expected(dir, 2));
    EXPECT_EQ(next("other"), expected(dir, 3, "other"));
    struct stat st;
    ASSERT_EQ(lstat(made[0].c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(st.st_size, 0);
}

TEST_F(TmpFile, WithoutTmpDirTheFileGoesToTmp) {
    unsetenv("TMPDIR");
    EXPECT_EQ(next(), expected("/tmp", 1));
    EXPECT_EQ(access(expected("/tmp", 1).c_str(), F_OK), 0);
}

TEST_F(TmpFile, AGivenDirectoryComesFirst) {
    std::string own = dir + "/own";
    ASSERT_EQ(mkdir(own.c_str(), 0700), 0);
    const char* got = FileGetTmpFileName(own.c_str(), "unit");
    ASSERT_NE(got, nullptr);
    made.push_back(got);
    EXPECT_EQ(std::string(got), expected(own, 1));
}

TEST_F(TmpFile, UnusableTmpDirFallsBackToTmp) {
    setenv("TMPDIR", (dir + "/does-not-exist").c_str(), 1);
    driverReset();
    EXPECT_EQ(next(), expected("/tmp", 1));
}

TEST_F(TmpFile, TmpDirIsKeptOnceFound) {
    EXPECT_EQ(next(), expected(dir, 1));
    setenv("TMPDIR", "/nonexistent-elsewhere", 1);
    EXPECT_EQ(next(), expected(dir, 2));
}

TEST_F(TmpFile, PlantedSymbolicLinkIsNotFollowed) {
    std::string target = dir + "/target";
    spit(target, "precious");
    std::string link = expected(dir, 1);
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    // The candidate in TMPDIR is refused; /tmp is next.
    EXPECT_EQ(next(), expected("/tmp", 1));
    EXPECT_EQ(slurp(target), "precious");
    struct stat st;
    ASSERT_EQ(lstat(link.c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
}

TEST_F(TmpFile, DanglingSymbolicLinkCreatesNothing) {
    std::string target = dir + "/would-be-created";
    ASSERT_EQ(symlink(target.c_str(), expected(dir, 1).c_str()), 0);
    EXPECT_EQ(next(), expected("/tmp", 1));
    EXPECT_NE(access(target.c_str(), F_OK), 0);
}

TEST_F(TmpFile, DirectoryAtTheNameIsSkipped) {
    ASSERT_EQ(mkdir(expected(dir, 1).c_str(), 0700), 0);
    EXPECT_EQ(next(), expected("/tmp", 1));
}

TEST_F(TmpFile, HardLinkToAnotherFileIsSkipped) {
    std::string target = dir + "/linked";
    spit(target, "also precious");
    ASSERT_EQ(link(target.c_str(), expected(dir, 1).c_str()), 0);
    EXPECT_EQ(next(), expected("/tmp", 1));
    EXPECT_EQ(slurp(target), "also precious");
}

TEST_F(TmpFile, FileOfAnotherUserIsSkipped) {
    if (geteuid() != 0) GTEST_SKIP() << "needs to give a file away, which only root can";
    std::string foreign = expected(dir, 1);
    spit(foreign, "theirs");
    ASSERT_EQ(chown(foreign.c_str(), 65534, 65534), 0);
    EXPECT_EQ(next(), expected("/tmp", 1));
    EXPECT_EQ(slurp(foreign), "theirs");
}

TEST_F(TmpFile, StaleFileOfOursIsEmptied) {
    std::string stale = expected(dir, 1);
    spit(stale, "left over from an earlier run");
    ASSERT_EQ(chmod(stale.c_str(), 0644), 0);
    EXPECT_EQ(next(), stale);
    struct stat st;
    ASSERT_EQ(stat(stale.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(TmpFile, TheNameLivesInOneSharedBuffer) {
    const char* first = FileGetTmpFileName(nullptr, "unit");
    ASSERT_NE(first, nullptr);
    std::string firstName = first;
    made.push_back(firstName);
    const char* second = FileGetTmpFileName(nullptr, "unit");
    ASSERT_NE(second, nullptr);
    made.push_back(second);
    EXPECT_EQ(std::string(first), expected(dir, 2));  // overwritten by the second call
    EXPECT_EQ(firstName, expected(dir, 1));
}

TEST_F(TmpFile, AfterTmpComeHomeAndThenTheCurrentDirectory) {
    unsetenv("TMPDIR");
    std::string home = dir + "/home";
    std::string work = dir + "/work";
    ASSERT_EQ(mkdir(home.c_str(), 0700), 0);
    ASSERT_EQ(mkdir(work.c_str(), 0700), 0);
    setenv("HOME", home.c_str(), 1);
    // Directories planted at the /tmp names make that candidate fail.
    std::string blocked1 = expected("/tmp", 1), blocked2 = expected("/tmp", 2);
    ASSERT_EQ(mkdir(blocked1.c_str(), 0700), 0);
    ASSERT_EQ(mkdir(blocked2.c_str(), 0700), 0);
    std::string first = next();
    unsetenv("HOME");
    driverReset();  // forget the HOME found, but keep the sequence in step below
    char saved[4096];
    ASSERT_NE(getcwd(saved, sizeof saved), nullptr);
    ASSERT_EQ(chdir(work.c_str()), 0);
    FileGetTmpFileName(nullptr, "unit");  // sequence 1 again: /tmp blocked, no HOME
    const char* got = FileGetTmpFileName(nullptr, "unit");
    std::string second = got ? got : "";
    EXPECT_EQ(chdir(saved), 0);
    rmdir(blocked1.c_str());
    rmdir(blocked2.c_str());
    EXPECT_EQ(first, expected(home, 1));
    EXPECT_EQ(second, "unit." + pid + ".2");
    EXPECT_EQ(access((work + "/unit." + pid + ".1").c_str(), F_OK), 0);
    EXPECT_EQ(access((work + "/unit." + pid + ".2").c_str(), F_OK), 0);
}

TEST_F(TmpFile, NoCandidateGivesNothingWithTheSystemReason) {
    std::string name(300, 'n');
    std::string got = next(name.c_str());
    // Too long for one path component: every candidate fails, the last with
    // the system's reason.
    EXPECT_EQ(got, "");
    EXPECT_EQ(errno, ENAMETOOLONG);
}

}  // namespace
