// Placeholder so that the project links while this module is written.
#include "macros/macros.h"
void MsDefine() {}
void msReset() {}
