// The "my" package: accepted on the command line, it registers nothing.
#include "macros/macros.h"

void MyDefine() {}
