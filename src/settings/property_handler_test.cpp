#include "settings/property_handler.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "logging/log.h"
#include "platform/paths.h"
#include "support/isolated_dirs.h"
#include "support/store_files.h"

namespace orlenda {
namespace {

std::string U8(const WString& s) { return std::string(WideToUtf8(View(s)).c_str()); }

std::filesystem::path FsPath(const WString& path) { return std::filesystem::path(std::u16string(path)); }

class PropertyStoreTest : public ::testing::Test {
 protected:
  void SetUp() override { testing::UseIsolatedDirs(); }

  // A store file of this test's own, absent at the start.
  WString FreshName() {
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    WString name = Utf8ToWide(std::string(info->name()) + ".properties");
    CPropertyHandler probe(name);
    std::filesystem::remove(FsPath(probe.file_path()));
    std::filesystem::remove(FsPath(probe.file_path() + u".bad"));
    return name;
  }

  WString value_;  // what the last read found
  uint32_t number_ = 0;
};

TEST_F(PropertyStoreTest, NestedGroupsAreCreatedAndWrittenAtOnce) {
  const WString name = FreshName();
  CPropertyHandler store(name);
  const WString sep(1, platform::PathSeparator());
  const WString path_end = u"Morvane" + sep + u"Orlenda" + sep + name;
  EXPECT_EQ(store.file_path().substr(store.file_path().size() - path_end.size()), path_end);  // throws if shorter
  EXPECT_FALSE(std::filesystem::exists(FsPath(store.file_path())));  // nothing written before a change

  ASSERT_TRUE(store.SetString(u"A/B/C", u"value <&>"));
  CPropertyHandler reread(name);
  ASSERT_TRUE(reread.GetString(u"/A//B/C/", &value_));
  EXPECT_EQ(value_, u"value <&>");
  HeapVector<WString> groups;
  reread.EnumerateGroups(u"A", &groups);
  EXPECT_EQ(groups, HeapVector<WString>{u"B"});
  EXPECT_EQ(testing::ReadBytes(store.file_path()),
            "<xmlroot>\r\n  <type value=\"A\">\r\n    <type value=\"B\">\r\n      <property id=\"C\" type=\"string\""
            " value=\"value &lt;&amp;&gt;\"/>\r\n    </type>\r\n  </type>\r\n</xmlroot>");
}

TEST_F(PropertyStoreTest, TypedValuesAndConflicts) {
  CPropertyHandler store(FreshName());
  // A value of another type is not found, and cannot be overwritten: the file stays as it was.
  ASSERT_TRUE(store.SetString(u"port/PortType", u"12"));
  EXPECT_FALSE(store.GetNumber(u"port/PortType", &number_));
  const std::string before = testing::ReadBytes(store.file_path());
  EXPECT_FALSE(store.SetNumber(u"port/PortType", 5));
  EXPECT_EQ(testing::ReadBytes(store.file_path()), before);
  ASSERT_TRUE(store.GetString(u"port/PortType", &value_));
  EXPECT_EQ(value_, u"12");

  // Numbers stop at the first non-digit and saturate, as a hand-edited file may hold.
  const std::string edited_file =
      "<xmlroot><property id=\"a\" type=\"number\" value=\"12abc\"/>"
      "<property id=\"b\" type=\"number\" value=\"99999999999\"/>"
      "<property id=\"c\" type=\"number\" value=\"x\"/></xmlroot>";
  CPropertyHandler edited(reinterpret_cast<const uint8_t*>(edited_file.data()), edited_file.size());
  const std::pair<const char16_t*, uint32_t> numbers[] = {{u"a", 12}, {u"b", 4294967295u}, {u"c", 0}};
  for (const auto& [id, expected] : numbers) {
    ASSERT_TRUE(edited.GetNumber(id, &number_));
    EXPECT_EQ(number_, expected);
  }

  BlobRef big = BlobRef::Adopt(BlobCreate(5000));
  for (uint64_t i = 0; i < big.size(); ++i) big.data()[i] = static_cast<uint8_t>(i * 7);
  ASSERT_TRUE(store.SetBinary(u"bin", big.get()));
  BlobRef back;
  ASSERT_TRUE(store.GetBinary(u"bin", &back) && back);
  ASSERT_EQ(back.size(), 4092u);
  EXPECT_EQ(std::memcmp(back.data(), big.data(), 4092), 0);
  ASSERT_TRUE(store.SetBinary(u"empty", nullptr));
  back = BlobRef::Adopt(BlobCreate(1));
  ASSERT_TRUE(store.GetBinary(u"empty", &back));
  EXPECT_FALSE(back);
}

TEST_F(PropertyStoreTest, DeleteTakesThePropertyBeforeTheGroup) {
  CPropertyHandler store(FreshName());
  ASSERT_TRUE(store.SetString(u"x", u"property"));
  ASSERT_TRUE(store.SetString(u"x/inner", u"in the group"));
  ASSERT_TRUE(store.Delete(u"x"));
  EXPECT_FALSE(store.GetString(u"x", &value_));
  ASSERT_TRUE(store.GetString(u"x/inner", &value_));
  ASSERT_TRUE(store.Delete(u"x"));  // now the group, with everything in it
  EXPECT_FALSE(store.GetString(u"x/inner", &value_));
  EXPECT_FALSE(store.Delete(u"x"));
}

TEST_F(PropertyStoreTest, ExportReplaceAndImportGroups) {
  CPropertyHandler store(FreshName());
  ASSERT_TRUE(store.SetString(u"empty/sub/p", u"1"));
  WString xml;
  ASSERT_TRUE(store.ExportGroup(u"empty", &xml));
  EXPECT_EQ(xml, u"<xmlroot></xmlroot>");

  ASSERT_TRUE(store.SetString(u"P/a", u"1"));
  ASSERT_TRUE(store.SetNumber(u"P/b", 250));
  ASSERT_TRUE(store.ExportGroup(u"P", &xml));
  EXPECT_EQ(xml, u"<xmlroot><property id=\"a\" type=\"string\" value=\"1\"/>"
            u"<property id=\"b\" type=\"number\" value=\"250\"/></xmlroot>");

  ASSERT_TRUE(store.ReplaceGroup(u"Q/R", View(xml)));
  ASSERT_TRUE(store.GetNumber(u"Q/R/b", &number_));
  EXPECT_EQ(number_, 250u);
  // The content is what the parse took for it, whatever the root's name holds.
  ASSERT_TRUE(store.ReplaceGroup(u"S", u"<r\"><property id=\"z\" type=\"number\" value=\"7\"/></r\">"));
  ASSERT_TRUE(store.GetNumber(u"S/z", &number_));
  EXPECT_EQ(number_, 7u);

  ASSERT_TRUE(store.ImportProperties(
      u"<xmlroot><property id=\"ConfigurationPath\" type=\"string\" value=\"/P/\"/>"
      u"<property id=\"a\" type=\"string\" value=\"new\" extra=\"kept\"/>"
      u"<property id=\"c\" type=\"number\" value=\"3\"/></xmlroot>"));
  // The old "a" gives way; the configuration path only names the group.
  ASSERT_TRUE(store.ExportGroup(u"P", &xml));
  EXPECT_EQ(U8(xml), "<xmlroot><property id=\"b\" type=\"number\" value=\"250\"/>"
                     "<property id=\"a\" type=\"string\" value=\"new\" extra=\"kept\"/>"
                     "<property id=\"c\" type=\"number\" value=\"3\"/></xmlroot>");
  EXPECT_FALSE(store.ImportProperties(u"<a/><b/>"));
}

// A request the store refuses changes nothing, in memory or on disk, however far it got before it
// found the problem: a later unrelated save must not write half of it out.
TEST_F(PropertyStoreTest, RefusedChangesLeaveNoTrace) {
  const struct {
    const char16_t* group;  // replaced by the text; nullptr: the text is imported
    const char16_t* text;
  } cases[] = {
      // A property that cannot be inserted, after a same-named one would give way; the second of two.
      {nullptr, u"<xmlroot><property id=\"a\" type=\"string\" value=\"new\"><x></property></xmlroot>"},
      {nullptr, u"<xmlroot><property id=\"ConfigurationPath\" type=\"string\" value=\"g/h\"/>"
                u"<property id=\"b\" type=\"string\" value=\"2\"/>"
                u"<property id=\"a\" type=\"string\" value=\"new\"><x></property></xmlroot>"},
      // Unusable content for groups that do not exist yet.
      {u"new/group", u"<r><a></r>"},
  };
  auto fill = [](CPropertyHandler* s) { return s->SetString(u"a", u"old") && s->SetNumber(u"g/n", 1); };
  for (const auto& c : cases) {
    CPropertyHandler store(FreshName());
    ASSERT_TRUE(fill(&store));
    const WString text = store.document().GetText();
    const std::string file = testing::ReadBytes(store.file_path());
    const std::string what = U8(c.text);
    EXPECT_FALSE(c.group ? store.ReplaceGroup(c.group, c.text) : store.ImportProperties(c.text)) << what;
    EXPECT_EQ(U8(store.document().GetText()), U8(text)) << what;
    EXPECT_EQ(testing::ReadBytes(store.file_path()), file) << what;
    // The next save writes no leftover: the store is what one that never saw the request holds.
    CPropertyHandler untouched;
    ASSERT_TRUE(fill(&untouched));
    for (CPropertyHandler* s : {&store, &untouched}) ASSERT_TRUE(s->SetString(u"other", u"x"));
    EXPECT_EQ(U8(store.document().GetText()), U8(untouched.document().GetText())) << what;
  }
}

TEST_F(PropertyStoreTest, PropertiesInRequestTexts) {
  WString xml = u"<xmlroot><property id=\"PortName\" type=\"string\" value=\"COM&amp;1\"/>"
                u"<property id=\"PortType\" type=\"string\" value=\"T\"/></xmlroot>";
  ASSERT_TRUE(CPropertyHandler::FindPropertyInText(View(xml), u"PortName", &value_));
  EXPECT_EQ(value_, u"COM&1");
  EXPECT_FALSE(CPropertyHandler::FindPropertyInText(View(xml), u"Missing", &value_));
  ASSERT_TRUE(CPropertyHandler::RemovePropertyFromText(&xml, u"PortName"));
  EXPECT_FALSE(CPropertyHandler::FindPropertyInText(View(xml), u"PortName", &value_));
  ASSERT_TRUE(CPropertyHandler::FindPropertyInText(View(xml), u"PortType", &value_));
  EXPECT_FALSE(CPropertyHandler::RemovePropertyFromText(&xml, u"PortName"));
}

TEST_F(PropertyStoreTest, UnusableFileStaysUntilTheFirstChangeThenIsKeptAsBad) {
  const WString name = FreshName();
  const WString path = CPropertyHandler(name).file_path();
  const std::string broken = "this is not XML <<<";
  testing::WriteBytes(path, broken);
  CPropertyHandler store(name);
  EXPECT_FALSE(store.GetString(u"anything", &value_));
  // Untouched before any change; a save that fails (its temporary file cannot be written) leaves the
  // unusable file in place too.
  std::filesystem::create_directory(FsPath(path + u".tmp"));
  EXPECT_FALSE(store.SetString(u"k", u"v"));
  EXPECT_EQ(testing::ReadBytes(path), broken);
  EXPECT_FALSE(std::filesystem::exists(FsPath(path + u".bad")));
  std::filesystem::remove(FsPath(path + u".tmp"));

  ASSERT_TRUE(store.SetString(u"k", u"v"));
  EXPECT_EQ(testing::ReadBytes(path + u".bad"), broken);
  CPropertyHandler reread(name);
  ASSERT_TRUE(reread.GetString(u"k", &value_));
  EXPECT_EQ(value_, u"v");
}

// Merging settings documents. With no log service running, every trace line is counted as lost,
// which tells how many conflict lines a merge wrote.
TEST(MergeDocuments, SecondAddsButNeverOverridesAndAnEmptyFirstTakesIt) {
  testing::UseIsolatedDirs();
  WString first =
      u"<xmlroot><ui language=\"en\" label=\"First\"/>"
      u"<choice id=\"A\" default=\"x\"><option value=\"x\"/></choice>"
      u"<range id=\"R\" default=\"5\" min=\"1\"/></xmlroot>";
  const WString second =
      u"<xmlroot><ui language=\"en\" label=\"Second\" tooltip=\"tip\"/>"
      u"<choice id=\"A\"><option value=\"x\"><property id=\"p\" type=\"number\" value=\"1\"/></option>"
      u"<option value=\"y\"/></choice>"
      u"<choice id=\"B\" default=\"z\"><option value=\"z\"/></choice>"
      u"<range id=\"R\" default=\"9\"/><item id=\"dropped\"/></xmlroot>";
  const uint32_t lost_before = LostMessageCount();
  ASSERT_TRUE(CPropertyHandler::MergeDocuments(&first, View(second)));
  EXPECT_EQ(LostMessageCount() - lost_before, 2u);  // ui label and range default
  // The first keeps its label and default and gains the tooltip; the unknown "item" stays out.
  EXPECT_EQ(U8(first),
            "<xmlroot><ui language=\"en\" label=\"First\" tooltip=\"tip\"/><choice id=\"A\" default=\"x\">"
            "<option value=\"x\">\r\n  <property id=\"p\" type=\"number\" value=\"1\"/>\r\n</option>\r\n"
            "<option value=\"y\"/>\r\n</choice>\r\n<choice id=\"B\" default=\"z\"><option value=\"z\"/></choice>\r\n"
            "<range id=\"R\" default=\"5\" min=\"1\"/></xmlroot>");
  // An empty first document takes the second as it is, well formed or not.
  WString empty;
  ASSERT_TRUE(CPropertyHandler::MergeDocuments(&empty, u"<not well formed"));
  EXPECT_EQ(empty, u"<not well formed");
}

}  // namespace
}  // namespace orlenda
