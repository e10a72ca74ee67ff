// Placeholder so that the project links while this module is written.
#include "tools/rope.h"
Rope::~Rope() {}
std::unique_ptr<Rope> RopeNew() { return std::make_unique<Rope>(); }
void RopeInit(Rope*, uint32_t, uint32_t) {}
void RopeRelease(Rope*) {}
void RopeGrowAppend(Rope*, char) {}
void RopeCatString(Rope*, const char*) {}
void RopeCat(Rope*, const Rope*) {}
void RopeCopyString(Rope*, const char*) {}
void RopeCopy(Rope*, const Rope*) {}
void RopeDeleteFirst(Rope*) {}
void RopeDeleteLast(Rope*) {}
