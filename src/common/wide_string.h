// The wide string: UTF-16 code units, value semantics, memory from the process heap.
// Comparison and search work on code units; nothing here normalises or case-folds.
#pragma once

#include <string>
#include <string_view>

#include "common/heap.h"

namespace orlenda {

using WChar = char16_t;
using WString = std::basic_string<WChar, std::char_traits<WChar>, HeapAllocator<WChar>>;
using WStringView = std::u16string_view;

// UTF-8 to UTF-16. Every malformed sequence (bad lead or continuation byte, overlong form,
// surrogate code point, value above U+10FFFF, sequence cut short) becomes one U+FFFD per maximal
// invalid subpart, as the Unicode standard recommends; valid text around it is kept.
WString Utf8ToWide(std::string_view utf8);

// UTF-16 to UTF-8. An unpaired surrogate becomes U+FFFD.
HeapString WideToUtf8(WStringView wide);

inline WStringView View(const WString& s) { return WStringView(s.data(), s.size()); }

}  // namespace orlenda
