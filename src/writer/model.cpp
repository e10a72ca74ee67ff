// Placeholder so that the project links while this module is written.
#include "writer/model.h"
static const PropertyEntry kEnd[] = {{0, nullptr, ValueKind::String, nullptr, 0}};
const PropertyEntry pgf[1] = {kEnd[0]};
const PropertyEntry font[1] = {kEnd[0]};
const PropertyEntry tabStop[1] = {kEnd[0]};
const PropertyEntry page[1] = {kEnd[0]};
const PropertyEntry document[1] = {kEnd[0]};
const PropertyEntry marker[1] = {kEnd[0]};
unsigned VifDimensionOut(const Dimension&, FILE*) { return 1; }
unsigned VifDimension2Out(const Dimension*, FILE*) { return 1; }
unsigned VifIndentsOut(const Dimension*, FILE*) { return 1; }
unsigned VifStmtDimensionOut(const Dimension&, FILE*, unsigned, const char*) { return 1; }
unsigned VifStmtDimension2Out(const Dimension*, FILE*, unsigned, const char*) { return 1; }
unsigned VifStmtIndentsOut(const Dimension*, FILE*, unsigned, const char*) { return 1; }
unsigned outWorkHorse(const void*, FILE*, unsigned, const PropertyEntry*) { return 1; }
unsigned diffWorkHorse(const void*, const void*, void*, const PropertyEntry*) { return 1; }
void laserWriterRound(Dimension&) {}
const char* tabsFor(unsigned) { return ""; }
