// Placeholder so that the project links while this module is written.
#include "requests/troff.h"
void TVDefineTroff() {}
void TVLeadingSet(Pgf&) {}
void troffReset() {}
