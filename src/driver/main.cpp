// Placeholder so that the project links while this module is written.
#include "driver/driver.h"
int main(int argc, char** argv) { CommandLine(argc, argv, &driver.inFile, &driver.outFile); convert(); }
