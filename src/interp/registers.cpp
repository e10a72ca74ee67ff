// Placeholder so that the project links while this module is written.
#include "interp/interp.h"
void trapNew() {}
bool fireWordTraps(bool) { return false; }
void fireLineTraps() {}
void TVMarkerOut(const Marker&) {}
bool markersPending() { return false; }
void markersNew() {}
void TVDefineString(const char*, const char*) {}
std::string ParseDefineString(const char* d) { return d; }
const char* TVStringGet(const char*) { return nullptr; }
