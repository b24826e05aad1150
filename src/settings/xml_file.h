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

#include <cstddef>
#include <cstdint>

#include "common/wide_string.h"

namespace orlenda {

// On failure `summary` holds the system's description of the error.
bool ReadXmlFile(const WString& path, WString* text, uint32_t* flags, WString* summary);

// Loading decodes a file's bytes where they lie. No text needs more UTF-16 units than its file
// has bytes, so `size` bytes are put into the upper half of a text buffer of a little more than
// `size` units (at byte offset `size` or a little behind it) and decoded from the front into the
// same buffer; a large file then needs no block besides its text.

// Makes `buffer` a buffer for `size` bytes, holding `bytes` in its upper half.
void PlaceXmlBytes(const uint8_t* bytes, std::size_t size, WString* buffer);

// Reads a whole file into the upper half of `buffer`; `*size` is the byte count. On failure
// `error_text` holds the system's description of the error.
bool ReadXmlFileBytes(const WString& path, WString* buffer, std::size_t* size,
                      WString* error_text);

// Decodes the `size` bytes in the upper half of `buffer`, which becomes the text: the mark decides
// the encoding and the flags (bits 0 and 2 are cleared or set, the others kept), and `summary` gets
// the read summary.
void DecodeXmlBuffer(WString* buffer, std::size_t size, uint32_t* flags, WString* summary);

// Test seam: called between writing the temporary file and replacing the old one; returning
// false abandons the save there (the temporary file is removed, the old file stays, and the
// summary says the save was abandoned).
using BeforeReplaceHook = bool (*)(const WString& temporary_path);

bool WriteXmlFile(const WString& path, WStringView text, uint32_t flags, WString* summary,
                  BeforeReplaceHook before_replace = nullptr);

}  // namespace orlenda
