// Private to the writer: the hooks its source files share beyond vifout.h.
// The catalog lives in catalog.cpp, the text state in text.cpp; VifReset (in
// text.cpp) drops both.
#pragma once

// Empties the catalog and sets its deviation counter back to 0.
void catalogReset();
