#include "macros/mdocnames.h"
const char* mdocStandard(std::string_view) { return nullptr; }
const char* mdocLibrary(std::string_view) { return nullptr; }
std::string mdocSystemName(std::string_view m, std::string_view v) { return std::string(m) + " " + std::string(v); }
const char* mdocVolume(std::string_view) { return nullptr; }
