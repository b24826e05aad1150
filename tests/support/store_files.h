// Test support: files in the data folder this test process uses: the service's two store files,
// and whole files read and written as bytes.
#pragma once

#include <filesystem>
#include <string>

#include "common/wide_string.h"

namespace orlenda::testing {

// Where the store of this bare file name lives ("Orlenda.configuration", "Orlenda.properties").
WString StorePath(const char16_t* name);

// Removes both store files and their ".bad" copies, so a test starts from no configuration.
void RemoveStoreFiles();

// A file's bytes ("" when it cannot be read); a file written with these bytes, its folders created.
std::string ReadBytes(const std::filesystem::path& path);
void WriteBytes(const std::filesystem::path& path, const std::string& bytes);

}  // namespace orlenda::testing
