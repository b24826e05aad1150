#include "support/component_fixture.h"

#include "settings/property_handler.h"

namespace orlenda::testing {

void WriteConfiguration(const std::vector<ComponentFile>& components,
                        const std::vector<std::pair<const char16_t*, const char16_t*>>& properties) {
  CPropertyHandler store{WString(u"Orlenda.configuration")};
  for (const ComponentFile& c : components) {
    const WString group = WString(u"/components/") + c.name;
    ASSERT_TRUE(c.file.empty() ? store.SetString(View(group + u"/description"), u"no file named")
                               : store.SetString(View(group + u"/filename"), c.file));
  }
  for (const auto& [path, text] : properties) ASSERT_TRUE(store.SetString(path, text));
}

void SetNumberOnFile(const char16_t* path, uint32_t value) {
  CPropertyHandler store{WString(u"Orlenda.properties")};
  ASSERT_TRUE(store.SetNumber(path, value));
}

std::u16string RecordedCalls() {
  WString calls;
  bool loaded = false;
  CConfiguration::WithProperties([&](CPropertyHandler& s) {
    loaded = true;
    return s.GetString(u"/testmodule/calls", &calls);
  });
  if (!loaded) CPropertyHandler(WString(u"Orlenda.properties")).GetString(u"/testmodule/calls", &calls);
  return std::u16string(calls.begin(), calls.end());
}

}  // namespace orlenda::testing
