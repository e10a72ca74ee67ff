// Placeholder so that the project links while this module is written.
#include "driver/driver.h"
#include <cstdlib>
DriverState driver;
int32_t CommandLine(int, char**, FILE**, FILE**) { return 0; }
int32_t ProcessCommandLineFilenames(int, char**, FILE**, FILE**) { return 0; }
int32_t SetupStandardIO(const char*, const char*, FILE**, FILE**) { return 0; }
const char* FileGetTmpFileName(const char*, const char*) { return nullptr; }
void convert() { std::exit(0); }
void shutDown() { std::exit(0); }
void TVWarningPre() {}
void TVFatalVM() { std::exit(0); }
void fatalStdio() { std::exit(0); }
void fatalPost() { std::exit(0); }
void setExitHook(ExitHook) {}
void processExit(int s) { std::exit(s); }
void driverReset() {}
