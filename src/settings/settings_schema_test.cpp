#include "settings/settings_schema.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "settings/xml_document.h"

namespace orlenda {
namespace {

std::string EmbeddedSchema() {
  const uint8_t* data = nullptr;
  std::size_t size = 0;
  if (!LoadSettingsSchema(&data, &size)) return std::string();
  return std::string(reinterpret_cast<const char*>(data), size);
}

std::string Narrow(const WString& wide) {
  HeapString utf8 = WideToUtf8(View(wide));
  return std::string(utf8.data(), utf8.size());
}

WString Wide(const std::string& utf8) { return Utf8ToWide(utf8); }

TEST(SettingsSchema, EmbeddedBytesAreTheSourceFile) {
  std::ifstream file(ORLENDA_SETTINGS_SCHEMA_FILE, std::ios::binary);
  ASSERT_TRUE(file) << ORLENDA_SETTINGS_SCHEMA_FILE;
  std::string on_disk((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  ASSERT_FALSE(on_disk.empty());
  EXPECT_EQ(EmbeddedSchema(), on_disk);
}

TEST(SettingsSchema, EncodingAndLineLayout) {
  const std::string schema = EmbeddedSchema();
  ASSERT_FALSE(schema.empty());
  EXPECT_NE(schema.compare(0, 3, "\xEF\xBB\xBF"), 0) << "byte-order mark";
  EXPECT_EQ(schema.compare(0, 23, "<?xml version=\"1.0\"?>\r\n"), 0);
  EXPECT_EQ(schema.find("encoding"), std::string::npos);
  EXPECT_EQ(schema.find('\t'), std::string::npos);
  EXPECT_EQ(schema.find('\0'), std::string::npos);
  ASSERT_GE(schema.size(), 2u);
  EXPECT_EQ(schema.substr(schema.size() - 2), "\r\n") << "last line ends with CR LF";
  for (std::size_t i = 0; i < schema.size(); ++i) {
    if (schema[i] == '\n') {
      EXPECT_TRUE(i > 0 && schema[i - 1] == '\r') << "LF without CR at byte " << i;
    } else if (schema[i] == '\r') {
      EXPECT_TRUE(i + 1 < schema.size() && schema[i + 1] == '\n') << "CR without LF at byte " << i;
    }
  }
  // The text stays as the resource has always had it, misspelling and all.
  EXPECT_NE(schema.find("inter-PC communcations."), std::string::npos);
}

// One element of the schema as "<depth> <name> <attribute>=<value>...", attributes in file order.
void Flatten(XmlDocument* doc, int depth, std::vector<std::string>* out) {
  while (doc->FindSibling(WStringView())) {
    XmlDocument::ElementId element = doc->main_position();
    std::string line = std::to_string(depth) + " " + Narrow(doc->ElementName(element));
    for (std::size_t n = 0;; ++n) {
      WString name = doc->AttributeNameAt(element, n);
      if (name.empty()) break;
      line += " " + Narrow(name) + "=" + Narrow(doc->GetAttribute(View(name)));
    }
    out->push_back(line);
    ASSERT_TRUE(doc->Descend());
    Flatten(doc, depth + 1, out);
    ASSERT_TRUE(doc->Ascend());
  }
}

// The two display texts of an element: "en" then "ja", with the same texts.
void AddUi(int depth, const std::string& texts, std::vector<std::string>* out) {
  for (const char* language : {"en", "ja"}) {
    out->push_back(std::to_string(depth) + " ui language=" + language + " " + texts);
  }
}

std::vector<std::string> ExpectedTree() {
  std::vector<std::string> t;
  t.push_back("0 xmlroot");
  AddUi(1,
        "label=MORVANE POS Port service settings tooltip=MORVANE POS Port service settings.",
        &t);
  t.push_back("1 choice id=SK_TCP_COMMUNICATION default=Enable");
  AddUi(2, "label=TCP Communication tooltip=Enable MORVANE POS Port TCP communication.", &t);
  t.push_back("2 option value=Enable");
  AddUi(3, "label=Enable", &t);
  t.push_back("3 range id=TCP_KEEPALIVE_TIMEOUT default=5000 min=1");
  AddUi(4, "label=Keep-alive timeout tooltip=Keep connection alive within this timeout.", &t);
  t.push_back("3 range id=TCP_PING_INTERVAL default=500 min=1");
  AddUi(4, "label=Ping Interval tooltip=Ping packet sending interval.", &t);
  t.push_back("3 choice id=TCP_PORT_SETTINGS default=Default");
  AddUi(4, "label=TCP Port Settings tooltip=TCP Port to use for inter-PC communcations.", &t);
  t.push_back("4 option value=Default");
  AddUi(5, "label=Default (Port 2291)", &t);
  t.push_back("5 property id=TCP_COMMUNICATION_PORT type=number value=2291");
  t.push_back("4 option value=Custom");
  AddUi(5, "label=Custom (Advanced)", &t);
  t.push_back("5 range id=TCP_COMMUNICATION_PORT default=2291 min=1");
  AddUi(6, "label=TCP Port Number tooltip=Port number to use for TCP communication.", &t);
  t.push_back("2 option value=Disable");
  AddUi(3, "label=Disable", &t);
  return t;
}

TEST(SettingsSchema, TreeHoldsEverySettingWithBothLanguages) {
  XmlDocument doc;
  ASSERT_TRUE(doc.ParseText(View(Wide(EmbeddedSchema())))) << Narrow(doc.GetReport());
  ASSERT_TRUE(doc.HasValidRoot());
  std::vector<std::string> tree;
  Flatten(&doc, 0, &tree);
  EXPECT_EQ(tree, ExpectedTree());
}

TEST(SettingsSchema, IndentedByTwoBlanksPerLevel) {
  XmlDocument doc;
  ASSERT_TRUE(doc.ParseText(View(Wide(EmbeddedSchema()))));
  const WString& text = doc.GetText();
  int elements = 0;
  // Walks every element; each starts a line of its own after exactly 2 blanks per level.
  std::vector<int> depths{0};
  doc.ResetAll();
  while (!depths.empty()) {
    if (doc.FindSibling(WStringView())) {
      ++elements;
      std::size_t start = doc.ElementRange(doc.main_position()).offset;
      std::size_t line = text.rfind(u'\n', start);
      line = line == WString::npos ? 0 : line + 1;
      WString indent = text.substr(line, start - line);
      EXPECT_EQ(indent.find_first_not_of(u' '), WString::npos)
          << "not blanks before " << Narrow(doc.ElementPath(doc.main_position()));
      EXPECT_EQ(indent.size(), static_cast<std::size_t>(2 * depths.back()))
          << Narrow(doc.ElementPath(doc.main_position()));
      ASSERT_TRUE(doc.Descend());
      depths.push_back(depths.back() + 1);
    } else {
      depths.pop_back();
      if (!depths.empty()) {
        ASSERT_TRUE(doc.Ascend());
      }
    }
  }
  EXPECT_EQ(elements, static_cast<int>(ExpectedTree().size()));
}

}  // namespace
}  // namespace orlenda
