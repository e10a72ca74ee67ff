// The preprocessor languages of the full mode: tables (tbl, TS to TE),
// equations (eqn, EQ to EN and in-line between its delimiters) and pictures
// (pic, PS to PE). The roff layer hands each region's request to this layer,
// which reads the region itself and gives back ordinary input: the rows of a
// table and the linear text of an equation are pushed back as lines for the
// main loop to read, each row or display equation a paragraph of its own; a
// picture leaves an empty anchored frame.
// Owns: the table and equation paragraph formats, the stack of regions being
// read back, eqn's delimiters and definitions. Calls: the interpreter's reader
// and pushback, the roff layer's line reader and width estimate, the catalog.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "writer/model.h"

// A macro package declares its table and equation formats ("table", centred
// "equation"), made from its body format `body`, by calling this right after
// it declares its own formats. Only in the full mode: in the classic mode the
// call declares nothing. Without a call the formats are made from the
// paragraph format in force at the region.
void PreprocPackageFormats(const Pgf& body);

// The region requests, called with the rest of the request line. Each reads
// its region from the input up to its end request (TE; EN; PE or PF).
void PreprocTable(std::string_view args);
void PreprocEquation(std::string_view args);
void PreprocPicture(std::string_view args);

// The name of the layer's own request, which the region handlers put in the
// lines they push back: each one starts the next row of the table being read
// back, or ends the region and puts the paragraph format, fill mode and tab
// stops back as they were.
inline constexpr const char* kPreprocStep = "\x07";
void PreprocStep();

// The main loop has read, in text, the opening delimiter that eqn's "delim"
// set (tv.TVEqnDelimiter): reads the equation up to the closing one and pushes
// back its linear form.
void PreprocInlineEquation();

// ---- Pieces with sharp edges, exposed for the unit tests -----------------------

// The linear form of an equation's text (eqn's language), as troff input:
// x sup 2 becomes x^2, a over b a/b, greek names \(*a, ... Definitions and
// delim statements are taken in and give no text.
std::string eqnLinear(std::string_view source);

// Puts the layer's state back as at program start (for convertInProcess).
void preprocReset();
