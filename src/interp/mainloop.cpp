// Placeholder so that the project links while this module is written.
#include "interp/interp.h"
TVState tv;
void TVCreateRopes() {}
void doIt() {}
void fire() {}
void pgfOpen() {}
void aFrameNewF() {}
void TVPgfOut(const Pgf&) {}
void TVsp() {}
void TVns() {}
void TVrs() {}
void TVReturnReset() {}
void TVArgsEmpty() {}
int TVGetc() { return -1; }
bool arg(Rope*) { return false; }
Rope* TVSkipPast(char) { return tv.TVArgs[10].get(); }
void interpReset() {}
