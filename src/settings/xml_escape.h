// Escaping and unescaping of XML text, and the writing of CDATA sections and comments.
#pragma once

#include <cstdint>

#include "common/wide_string.h"

namespace orlenda {

// Flags of EscapeXml.
constexpr uint32_t kEscapeAttribute = 0x1;       // also escape ' and " (for attribute values)
// Leave an "&" that already begins a reference: "&", then "#", "_", ":" or a letter, then
// letters, digits, "_", ":", "-", ".", then ";" (every character above 127 counts as a letter)
constexpr uint32_t kEscapeKeepReferences = 0x2;

// "<", "&", ">" become "&lt;", "&amp;", "&gt;"; with kEscapeAttribute also "'" and "\"" become
// "&apos;" and "&quot;". Nothing else is escaped.
WString EscapeXml(WStringView text, uint32_t flags);

// Decodes "&lt;" "&amp;" "&gt;" "&apos;" "&quot;" and "&#N;" / "&#xH;" (the ";" within the 7
// characters after "&#" or "&#x", so at most six digits; value not 0); any other "&" stays as it
// is and decoding goes on with the character after it. A value above U+FFFF becomes a surrogate
// pair; a surrogate value or one above U+10FFFF is not a character and stays literal.
WString UnescapeXml(WStringView text);

// "<![CDATA[" text "]]>", with every "]]>" inside written as "]]]]><![CDATA[>".
WString CdataSection(WStringView text);
// "<!--" text "-->".
WString CommentText(WStringView text);

}  // namespace orlenda
