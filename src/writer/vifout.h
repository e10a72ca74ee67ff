// The VIF writer: the prelude, the paragraph catalog, the Page, Document and
// Marker statements, and the text flow (Para, ParaLine, String, Char, Font,
// AFrame) with its small state machine.
// Owns: the catalog (theCatalog, deviationNo) and the text state (vifOutState).
// Calls: the document model and the C standard I/O library.
#pragma once

#include <cstdio>

#include "writer/model.h"

// The version the program reports in its prelude and version text.
inline constexpr const char* kVifVersion = "5.1";

// ---- Prelude, catalog, page and document --------------------------------
unsigned VifPreludeOut(FILE* stream, const char* generator);

// Declares a paragraph format; returns the entry's name, or null when memory
// is exhausted. Declaring a tag twice makes two entries of that name.
const char* VifCatalogNew(const Pgf& format);
// The catalog name of a paragraph's format: the newest equal entry whose name
// begins with the tag, else a new entry (numbered when the tag is taken).
// Null only when memory is exhausted.
const char* VifCatalogName(const Pgf& format);

unsigned VifCatalogOut(FILE* stream);
unsigned VifPgfOut(const Pgf& format, FILE* stream);
unsigned VifPageOut(Page& page, FILE* stream);           // rounds HFMargins in place
unsigned VifDocumentOut(Document& document, FILE* stream); // rounds DMargins in place
unsigned VifMarkerOut(const Marker& marker, FILE* stream);

// ---- Text flow ------------------------------------------------------------
// Called only while a paragraph is open, except VifParaClose.
unsigned VifParaOpen(const Pgf& format, FILE* stream);
unsigned VifParaClose(FILE* stream);
unsigned VifCharOut(char c, FILE* stream);
// n characters that VifCharOut would each write as they are (32 to 126, none
// of ' ` > \), in one write: a run of plain text.
unsigned VifPlainOut(const char* text, size_t n, FILE* stream);
unsigned VifFontOut(const Font& f, FILE* stream);
// Whether the font of the last VifFontOut, given again, writes nothing: so
// after a call that wrote nothing, and after most that wrote. (Not after one
// whose style cleared the FPlain it sets, which the next call sets back.)
bool VifFontSettled();
unsigned VifAFrameOut(int id, FILE* stream);

// Drops the catalog and the text state, freeing their storage (for
// convertInProcess, which runs many documents in one process).
void VifReset();
