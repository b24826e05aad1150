// Base64 as the settings files write binary values: standard alphabet, "=" padding; the output
// begins with CR LF, a CR LF follows every 64 characters and also a final group that needed
// padding; a final unpadded group that does not fill its line gets no line break. A final group
// that fills its line gets the one CR LF of the full line, padded or not (never an empty line).
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/wide_string.h"

namespace orlenda {

WString EncodeBase64(const uint8_t* bytes, std::size_t count);

// Decodes, skipping CR and LF, four characters to a group; characters outside the alphabet count
// as zero bits and each "=" shortens the output by one byte. Stops before a group that would not
// fit `size`. Returns the bytes written; with size 0 returns the room needed:
// (characters / 4) * 3 + 3, where characters is the whole text length, CR and LF included, so the
// answer is never too small. A last group cut short (n < 4 characters, damaged text only) gives
// n - 1 bytes.
std::size_t DecodeBase64(WStringView text, uint8_t* buffer, std::size_t size);

}  // namespace orlenda
