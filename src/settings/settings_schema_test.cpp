#include "settings/settings_schema.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <string>

#include "settings/xml_document.h"

namespace orlenda {
namespace {

// The resource is the source file byte for byte, with no byte-order mark, tab or NUL, and every
// line ended by CR LF.
TEST(SettingsSchema, EmbeddedBytesAreTheSourceFileAndItsLayout) {
  std::ifstream file(ORLENDA_SETTINGS_SCHEMA_FILE, std::ios::binary);
  ASSERT_TRUE(file) << ORLENDA_SETTINGS_SCHEMA_FILE;
  const uint8_t* data = nullptr;
  std::size_t size = 0;
  ASSERT_TRUE(LoadSettingsSchema(&data, &size));
  const std::string schema(reinterpret_cast<const char*>(data), size);
  EXPECT_EQ(schema, std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>()));
  EXPECT_EQ(schema.compare(0, 23, "<?xml version=\"1.0\"?>\r\n"), 0) << "no byte-order mark";
  EXPECT_EQ(schema.find("encoding"), std::string::npos);
  EXPECT_EQ(schema.substr(schema.size() - 2), "\r\n") << "last line ends with CR LF";
  const std::string bare = std::regex_replace(schema, std::regex("\r\n"), "");
  EXPECT_EQ(bare.find_first_of(std::string("\t\0\r\n", 4)), std::string::npos) << "a tab, NUL, lone CR or LF";
  // The text stays as the resource has always had it, misspelling and all.
  EXPECT_NE(schema.find("inter-PC communcations."), std::string::npos);
  XmlDocument doc;
  EXPECT_TRUE(doc.ParseText(View(Utf8ToWide(schema)))) << WideToUtf8(View(doc.GetReport())).c_str();
  EXPECT_TRUE(doc.FindSibling(u"/xmlroot"));
}

}  // namespace
}  // namespace orlenda
