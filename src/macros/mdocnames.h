// The fixed texts of mdoc's name macros: the standards of St, the libraries of
// Lb, the systems of At, Bsx, Bx, Dx, Fx, Nx, Ox and Ux, and the volume names
// that Dt's section gives the page header.
// Owns: four constant tables, sorted by key. Calls: nothing; no state, no
// allocation but the string that mdocSystemName returns.
//
// Every text is troff input for the caller to read: \(lq and \(rq are the curly
// quotes, \~ a space where the reference renderer puts a no-break space, \- the
// minus of a linker option.
#pragma once

#include <span>
#include <string>
#include <string_view>

struct MdocName {
    std::string_view key;
    const char* text;
};

// `.St -p1003.1`: the flag with its leading dash. Null for an unknown flag.
const char* mdocStandard(std::string_view flag);

// `.Lb libc`: "Standard C\~Library (libc, \-lc)". Null for a name that is not
// one of the mdoc language's documented libraries (the caller then writes
// the name in quotes).
const char* mdocLibrary(std::string_view name);

// At, Bsx, Bx, Dx, Fx, Nx, Ox and Ux, the macro name without its dot. `version`
// is the macro's words after the name, one space apart, without the trailing
// punctuation that the caller sets apart:
// - At: a known first word (v1..v7, 32v, III, V, V.1..V.4) gives its text,
//   else "AT&T UNIX" stands before it;
// - Bx: the first word followed by "BSD", then a second word (the release) after
//   a hyphen with its first letter capitalised ("4.3 tahoe": "4.3BSD-Tahoe");
//   no words: "BSD";
// - the others: the system's name, then the words after a space.
// Words that the macro does not use follow after one space, as given. An
// empty string for any other macro.
std::string mdocSystemName(std::string_view macro, std::string_view version);

// `.Dt NAME SECTION`: the page header's volume name for the section ("1":
// "General Commands Manual"). Null for any other section.
const char* mdocVolume(std::string_view section);

// The sorted tables themselves, for the tests.
std::span<const MdocName> mdocStandardTable();
std::span<const MdocName> mdocLibraryTable();
std::span<const MdocName> mdocAttVersionTable();
std::span<const MdocName> mdocVolumeTable();
