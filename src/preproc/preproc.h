// The preprocessor languages of the full mode, starting with tables (tbl, TS
// to TE). The roff layer hands each region's request to this layer, which
// reads the region itself and gives back ordinary input: the rows of a table
// are pushed back as lines for the main loop to read, each row a paragraph of
// its own.
// Owns: the table paragraph format and the stack of regions being read back.
// Calls: the interpreter's reader and pushback, the roff layer's line reader
// and width estimate, the catalog.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "writer/model.h"

// A macro package declares its table format ("table"), made from its body
// format `body`, by calling this right after it declares its own formats.
// Only in the full mode: in the classic mode the call declares nothing.
// Without a call the format is made from the paragraph format in force at
// the table.
void PreprocPackageFormats(const Pgf& body);

// The region requests, called with the rest of the request line. Each reads
// its region from the input up to its end request (TE).
void PreprocTable(std::string_view args);

// The name of the layer's own request, which the region handlers put in the
// lines they push back: each one starts the next row of the table being read
// back, or ends the region and puts the paragraph format, fill mode and tab
// stops back as they were.
inline constexpr const char* kPreprocStep = "\x07";
void PreprocStep();

// Puts the layer's state back as at program start (for convertInProcess).
void preprocReset();
