// The fixed texts of mdoc's name macros. Expected texts are those of the mdoc
// manual pages (St, Lb, At, Bx, Dt), with \~ where the reference renderer
// puts a no-break space.
#include <gtest/gtest.h>

#include <span>
#include <string>

#include "macros/mdocnames.h"

namespace {

// What a lookup gave, "-" for none.
std::string show(const char* text) { return text ? text : "-"; }

TEST(MdocNames, Standards) {
    EXPECT_EQ(show(mdocStandard("-p1003.1")), "IEEE Std 1003.1 (\\(lqPOSIX.1\\(rq)");
    EXPECT_EQ(show(mdocStandard("-ansiC")), "ANSI X3.159-1989 (\\(lqANSI\\~C89\\(rq)");
    EXPECT_EQ(show(mdocStandard("-xsh5")), "X/Open System Interfaces and Headers Issue\\~5 (\\(lqXSH5\\(rq)");
    EXPECT_EQ(show(mdocStandard("-p1003.1-96")), "ISO/IEC 9945-1:1996 (\\(lqPOSIX.1\\(rq)");
    EXPECT_EQ(show(mdocStandard("-svid4")), "System\\~V Interface Definition, Fourth Edition (\\(lqSVID4\\(rq)");
    EXPECT_EQ(show(mdocStandard("-iso8802-3")), "ISO 8802-3: 1989");
    EXPECT_EQ(show(mdocStandard("-ieee754")), "IEEE Std 754-1985");
    EXPECT_EQ(show(mdocStandard("p1003.1")), "-");  // the dash belongs to the flag
    EXPECT_EQ(show(mdocStandard("-p1003.1-2017")), "-");
    EXPECT_EQ(show(mdocStandard("")), "-");
}

TEST(MdocNames, Libraries) {
    EXPECT_EQ(show(mdocLibrary("libc")), "Standard C\\~Library (libc, \\-lc)");
    EXPECT_EQ(show(mdocLibrary("libSystem")), "System Library (libSystem, \\-lSystem)");
    EXPECT_EQ(show(mdocLibrary("libarchive")), "Streaming Archive Library (libarchive, \\-larchive)");
    EXPECT_EQ(show(mdocLibrary("libmd")), "Message Digest (MD4, MD5, etc.) Support Library (libmd, \\-lmd)");
    EXPECT_EQ(show(mdocLibrary("libz")), "Compression Library (libz, \\-lz)");
    EXPECT_EQ(show(mdocLibrary("libgpib")), "-");  // listed, but rendered as a name in quotes
    EXPECT_EQ(show(mdocLibrary("libbsd")), "-");
    EXPECT_EQ(show(mdocLibrary("c")), "-");
    EXPECT_EQ(show(mdocLibrary("")), "-");
}

TEST(MdocNames, Volumes) {
    EXPECT_EQ(show(mdocVolume("1")), "General Commands Manual");
    EXPECT_EQ(show(mdocVolume("3p")), "Perl Library Manual");
    EXPECT_EQ(show(mdocVolume("4")), "Device Drivers Manual");
    EXPECT_EQ(show(mdocVolume("8")), "System Manager's Manual");
    EXPECT_EQ(show(mdocVolume("9")), "Kernel Developer's Manual");
    EXPECT_EQ(show(mdocVolume("0")), "-");
    EXPECT_EQ(show(mdocVolume("3x")), "-");
    EXPECT_EQ(show(mdocVolume("")), "-");
}

TEST(MdocNames, Att) {
    EXPECT_EQ(mdocSystemName("At", ""), "AT&T UNIX");
    EXPECT_EQ(mdocSystemName("At", "v7"), "Version\\~7 AT&T UNIX");
    EXPECT_EQ(mdocSystemName("At", "32v"), "Version\\~7 AT&T UNIX/32V");
    EXPECT_EQ(mdocSystemName("At", "III"), "AT&T System\\~III UNIX");
    EXPECT_EQ(mdocSystemName("At", "V.4"), "AT&T System\\~V Release\\~4 UNIX");
    EXPECT_EQ(mdocSystemName("At", "V.4 extra"), "AT&T System\\~V Release\\~4 UNIX extra");
    EXPECT_EQ(mdocSystemName("At", "v8"), "AT&T UNIX v8");
}

TEST(MdocNames, Bsd) {
    EXPECT_EQ(mdocSystemName("Bx", ""), "BSD");
    EXPECT_EQ(mdocSystemName("Bx", "4.4"), "4.4BSD");
    EXPECT_EQ(mdocSystemName("Bx", "4.3 Tahoe"), "4.3BSD-Tahoe");
    EXPECT_EQ(mdocSystemName("Bx", "4.4 lite2"), "4.4BSD-Lite2");
    EXPECT_EQ(mdocSystemName("Bx", "4.3 Tahoe extra"), "4.3BSD-Tahoe extra");
    EXPECT_EQ(mdocSystemName("Bx", "4.4 "), "4.4BSD-");
    EXPECT_EQ(mdocSystemName("Bx", " Lite2"), "BSD-Lite2");
    EXPECT_EQ(mdocSystemName("Bx", "-devel"), "-develBSD");
}

TEST(MdocNames, OtherSystems) {
    EXPECT_EQ(mdocSystemName("Fx", "10.0"), "FreeBSD 10.0");
    EXPECT_EQ(mdocSystemName("Nx", ""), "NetBSD");
    EXPECT_EQ(mdocSystemName("Ox", "4.5"), "OpenBSD 4.5");
    EXPECT_EQ(mdocSystemName("Dx", "2.4.1"), "DragonFly 2.4.1");
    EXPECT_EQ(mdocSystemName("Bsx", "1.0"), "BSD/OS 1.0");
    EXPECT_EQ(mdocSystemName("Ux", ""), "UNIX");
    EXPECT_EQ(mdocSystemName("Os", "4.4"), "");
    EXPECT_EQ(mdocSystemName("", ""), "");
}

// Each table is strictly sorted, and its lookup finds every row it holds (an
// out-of-order row would hide keys from the binary search).
void expectSearchable(std::span<const MdocName> table, const char* (*lookup)(std::string_view)) {
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (i > 0) {
            EXPECT_LT(table[i - 1].key, table[i].key);
        }
        EXPECT_EQ(lookup(table[i].key), table[i].text) << table[i].key;
    }
}

TEST(MdocNames, TablesSortedAndComplete) {
    EXPECT_EQ(mdocStandardTable().size(), 46u);
    EXPECT_EQ(mdocLibraryTable().size(), 68u);
    EXPECT_EQ(mdocAttVersionTable().size(), 14u);
    EXPECT_EQ(mdocVolumeTable().size(), 10u);
    expectSearchable(mdocStandardTable(), mdocStandard);
    expectSearchable(mdocLibraryTable(), mdocLibrary);
    expectSearchable(mdocVolumeTable(), mdocVolume);
    for (const MdocName& row : mdocAttVersionTable())
        EXPECT_EQ(mdocSystemName("At", row.key), row.text) << row.key;
}

}  // namespace
