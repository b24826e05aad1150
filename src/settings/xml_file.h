// Reading and writing a document's text as a file.
//
// Reading: EF BB BF = UTF-8 with a mark (kXmlFlagUtf8Bom), FF FE = UTF-16LE with a mark
// (kXmlFlagUtf16Bom), anything else UTF-8 without a mark. Writing is the opposite, chosen by the
// flags. Each call gives a summary for the document's report, e.g. "UTF-8 BOM + 120 bytes to 118
// wide chars", "UTF-16LE BOM + 40 wide chars", "40 wide chars to 41 bytes".
//
// Writing never leaves a half-written file: the bytes go to a temporary file in the same folder,
// "<path>.tmp" in the same folder, which is flushed to disk and then replaces the old file in one
// step. The written summary counts the bytes after the mark, as the read summary does.
#pragma once

#include <cstdint>

#include "common/wide_string.h"

namespace orlenda {

// On failure `summary` holds the system's description of the error.
bool ReadXmlFile(const WString& path, WString* text, uint32_t* flags, WString* summary);

// Test seam: called between writing the temporary file and replacing the old one; returning
// false abandons the save there (the temporary file is removed, the old file stays, and the
// summary says the save was abandoned).
using BeforeReplaceHook = bool (*)(const WString& temporary_path);

bool WriteXmlFile(const WString& path, WStringView text, uint32_t flags, WString* summary,
                  BeforeReplaceHook before_replace = nullptr);

}  // namespace orlenda
