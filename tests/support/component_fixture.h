// Test support for the component layer: the service's store files written before a Load, and what
// the test modules (tests/modules/test_component.c) recorded through the host table.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "common/wide_string.h"
#include "components/configuration.h"
#include "support/isolated_dirs.h"
#include "support/store_files.h"

namespace orlenda::testing {

// One "/components/<name>" entry; an empty file leaves its "filename" property out.
struct ComponentFile {
  const char16_t* name;
  WString file;
};

// Writes "Orlenda.configuration": the components in this order, then each (path, text) property.
void WriteConfiguration(const std::vector<ComponentFile>& components,
                        const std::vector<std::pair<const char16_t*, const char16_t*>>& properties = {});

// Sets a number in "Orlenda.properties" on file, for a module to read while it loads.
void SetNumberOnFile(const char16_t* path, uint32_t value);

// Sets a value in the loaded configuration's properties store.
inline bool SetLoadedNumber(const char16_t* path, uint32_t value) {
  return CConfiguration::WithProperties([&](CPropertyHandler& s) { return s.SetNumber(path, value); });
}
inline bool SetLoadedString(const char16_t* path, const char16_t* text) {
  return CConfiguration::WithProperties([&](CPropertyHandler& s) { return s.SetString(path, text); });
}

// The calls the test modules recorded: read through the loaded configuration, or from the
// properties file while none is loaded.
std::u16string RecordedCalls();
inline void ClearRecordedCalls() {
  CConfiguration::WithProperties([](CPropertyHandler& s) { return s.Delete(u"/testmodule/calls"); });
}

// Each test starts without store files and leaves the configuration unloaded.
class ConfigurationFixture : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { UseIsolatedDirs(); }
  void SetUp() override { RemoveStoreFiles(); }
  void TearDown() override {
    CConfiguration::Unload();
    RemoveStoreFiles();
  }
};

}  // namespace orlenda::testing
