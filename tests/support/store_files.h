// Test support: the service's two store files in the data folder this test process uses.
#pragma once

#include "common/wide_string.h"

namespace orlenda::testing {

// Where the store of this bare file name lives ("Orlenda.configuration", "Orlenda.properties").
WString StorePath(const char16_t* name);

// Removes both store files and their ".bad" copies, so a test starts from no configuration.
void RemoveStoreFiles();

}  // namespace orlenda::testing
