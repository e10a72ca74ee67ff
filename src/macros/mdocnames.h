// The fixed texts of mdoc's name macros: standards (St), libraries (Lb), the
// names of systems and their versions (At, Bsx, Bx, Dx, Fx, Nx, Ox, Ux) and
// the volumes of the page header (Dt). The texts are troff input.
// Owns: its tables. Calls: nothing.
#pragma once

#include <string>
#include <string_view>

const char* mdocStandard(std::string_view flag);
const char* mdocLibrary(std::string_view name);
std::string mdocSystemName(std::string_view macro, std::string_view version);
const char* mdocVolume(std::string_view section);
