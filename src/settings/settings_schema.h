// The settings schema: the document describing the service's user-adjustable settings for a
// settings editor (choices, options, ranges, fixed properties, display texts in "en" and "ja").
// The service carries it as resource RT_HTML 101 and hands it out as it stands; it reads none of
// its defaults or texts itself.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orlenda {

constexpr uint32_t kSettingsSchemaResourceId = 101;

// The embedded schema's bytes exactly as the file was built in: UTF-8 without a byte-order mark,
// CR LF line ends, no terminator. The bytes stay valid for the life of the process. False (with
// nullptr and 0) only when the executable was built without the resource.
bool LoadSettingsSchema(const uint8_t** data, std::size_t* size);

}  // namespace orlenda
