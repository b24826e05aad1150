#include "settings/settings_schema.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "settings/xml_document.h"

namespace orlenda {
namespace {

std::string EmbeddedSchema() {
  const uint8_t* data = nullptr;
  std::size_t size = 0;
  if (!LoadSettingsSchema(&data, &size)) return std::string();
  return std::string(reinterpret_cast<const char*>(data), size);
}

// The resource is the source file byte for byte, so what holds for the one holds for the other.
TEST(SettingsSchema, EmbeddedBytesAreTheSourceFile) {
  std::ifstream file(ORLENDA_SETTINGS_SCHEMA_FILE, std::ios::binary);
  ASSERT_TRUE(file) << ORLENDA_SETTINGS_SCHEMA_FILE;
  const std::string on_disk((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  ASSERT_FALSE(on_disk.empty());
  EXPECT_EQ(EmbeddedSchema(), on_disk);
}

TEST(SettingsSchema, EncodingLineLayoutAndText) {
  const std::string schema = EmbeddedSchema();
  ASSERT_GE(schema.size(), 23u);
  EXPECT_EQ(schema.compare(0, 23, "<?xml version=\"1.0\"?>\r\n"), 0) << "no byte-order mark";
  EXPECT_EQ(schema.find("encoding"), std::string::npos);
  EXPECT_EQ(schema.find_first_of(std::string("\t\0", 2)), std::string::npos);
  EXPECT_EQ(schema.substr(schema.size() - 2), "\r\n") << "last line ends with CR LF";
  for (std::size_t i = 0; i < schema.size(); ++i) {
    if (schema[i] == '\n') {
      EXPECT_TRUE(i > 0 && schema[i - 1] == '\r') << "LF without CR at byte " << i;
    } else if (schema[i] == '\r') {
      EXPECT_EQ(schema[i + 1], '\n') << "CR without LF at byte " << i;
    }
  }
  // The text stays as the resource has always had it, misspelling and all.
  EXPECT_NE(schema.find("inter-PC communcations."), std::string::npos);
  XmlDocument doc;
  EXPECT_TRUE(doc.ParseText(View(Utf8ToWide(schema)))) << WideToUtf8(View(doc.GetReport())).c_str();
  EXPECT_TRUE(doc.FindSibling(u"/xmlroot"));
}

}  // namespace
}  // namespace orlenda
