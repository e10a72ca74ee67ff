// The macro packages: man, me and ms register their macros as native handlers
// that switch among each package's named paragraph formats; "my" registers
// nothing.
// Owns: each package's private state. Calls: the rule table, the interpreter
// state and routines, the request helpers (TVLeadingSet) and the catalog.
#pragma once

void ManDefine();
void MeDefine();
void MsDefine();
void MyDefine();
// The macros of today's manual pages (EX, SY, UR, TQ, MR, ...), registered
// after ManDefine in the full mode only.
void ManDefineFull();
// The mdoc package, full mode only: it reads its macro lines itself, on the
// roff layer; called by the driver after the layer's RoffDefine.
void MdocDefine();

// Put each package's state back as at program start (for convertInProcess).
void manReset();
void meReset();
void msReset();
void mdocReset();
