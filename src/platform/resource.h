// Resources carried inside this executable, found by type and identifier.
//
// Windows: the module's own resources (FindResourceW on the executable, LoadResource,
// LockResource, SizeofResource); the build links an .rc file into each executable that needs one.
// POSIX: the build compiles the same files into a table of byte arrays in the platform library, so
// every executable that asks for a resource carries that table.
//
// The bytes are the file's bytes exactly (no terminator is added, nothing is converted) and stay
// valid, unchanged, for the life of the process; they are never freed and must not be written.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orlenda::platform {

// Resource types by their Windows numbers.
constexpr uint32_t kResourceTypeHtml = 23;  // RT_HTML

// True with the resource's bytes when this executable carries a resource of `type` and `id`;
// false otherwise, with `*data` set to nullptr and `*size` to 0. Identifiers are 16-bit numbers.
bool FindModuleResource(uint32_t type, uint32_t id, const uint8_t** data, std::size_t* size);

}  // namespace orlenda::platform
