// Placeholder so that the project links while this module is written.
#include "tools/hpstream.h"
void StreamCopy(FILE*, FILE*) {}
