// Placeholder so that the project links while this module is written.
#include "macros/macros.h"
void MeDefine() {}
void meReset() {}
