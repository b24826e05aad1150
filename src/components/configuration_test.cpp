#include "components/configuration.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "common/blob.h"
#include "platform/resource.h"
#include "support/component_fixture.h"
#include "support/log_capture.h"
#include "test_modules.h"

namespace orlenda {
namespace {

using testing::Dump;
using testing::IndexOf;
using testing::IndexOfPrefix;
using testing::LogCapture;
using testing::LogLine;
using testing::RecordedCalls;
using ConfigurationTest = testing::ConfigurationFixture;

WString W(const char16_t* s) { return WString(s); }

void ExpectFullyUnloaded() {
  EXPECT_TRUE(CConfiguration::components().empty());
  EXPECT_FALSE(CConfiguration::WithConfiguration([](CPropertyHandler&) { return true; }));
  EXPECT_FALSE(CConfiguration::WithProperties([](CPropertyHandler&) { return true; }));
  const SkHostTable none{};  // every entry empty
  EXPECT_EQ(std::memcmp(CConfiguration::host_table(), &none, sizeof none), 0);
}

// ---- Load and Unload ----

// A Load that fails says why once, undoes what it loaded and stops there. The service's own version
// line comes before the first component is tried, and after "no components".
TEST_F(ConfigurationTest, AFailedLoadUndoesTheComponentsBeforeAndStopsThere) {
  const std::u16string none = u"No components configured in Orlenda.configuration";
  const struct {
    const char* what;
    int components;          // 0: no file, 1: /components/ holds no group, 3: test_a, test_b, test_c
    WString file;            // test_b's; empty: no "filename" property
    const char16_t* refuse;  // property that makes test_b refuse, or null
    std::u16string message;
    const char16_t* calls;
  } cases[] = {
      {"no configuration file", 0, WString(), nullptr, none, u""},
      {"no group in /components/", 1, WString(), nullptr, none, u""},
      {"no filename", 3, WString(), nullptr, u"filename property missing from component test_b",
       u"test_a:init:0;test_a:unload:0;"},
      // Every way a module fails to connect (the component tests') takes this path.
      {"initialisation refused", 3, W(ORLENDA_TEST_B_MODULE), u"/testmodule/test_b/refuseInit",
       u"unable to connect to component test_b with filename " ORLENDA_TEST_B_MODULE, u"test_a:init:0;test_b:init:0;test_a:unload:0;"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    testing::RemoveStoreFiles();
    if (c.components == 1) testing::WriteConfiguration({}, {{u"/components/filename", u"x"}});
    if (c.components == 3) {
      testing::WriteConfiguration(
          {{u"test_a", W(ORLENDA_TEST_A_MODULE)}, {u"test_b", c.file}, {u"test_c", W(ORLENDA_TEST_C_MODULE)}});
    }
    if (c.refuse != nullptr) testing::SetNumberOnFile(c.refuse, 1);
    LogCapture capture;
    EXPECT_FALSE(CConfiguration::Load());
    const std::vector<LogLine> lines = capture.Lines();
    const int message = IndexOf(lines, c.message);
    EXPECT_GE(message, 0) << Dump(lines);
    // One reason, besides the stores' traces of files not found.
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const LogLine& l) {
                return l.level == 0 && l.text.rfind(u"--", 0) != 0;
              }), 1) << Dump(lines);
    const int version = IndexOfPrefix(lines, u"configuration_test");
    EXPECT_TRUE(version >= 0 && (c.components == 3 ? version < message : version > message)) << Dump(lines);
    // test_a was loaded and undone; test_c was never tried.
    EXPECT_EQ(RecordedCalls(), c.calls);
    ExpectFullyUnloaded();
  }
}

TEST_F(ConfigurationTest, LoadsInFileOrderAndUnloadsInNameOrder) {
  testing::WriteConfiguration({{u"test_c", W(ORLENDA_TEST_C_MODULE)},
                               {u"test_a", W(ORLENDA_TEST_A_MODULE)},
                               {u"test_b", W(ORLENDA_TEST_B_MODULE)}});
  ASSERT_TRUE(CConfiguration::Load());
  ASSERT_EQ(CConfiguration::components().size(), 3u);
  EXPECT_NE(CConfiguration::FindComponent(u"test_a"), nullptr);
  EXPECT_EQ(CConfiguration::FindComponent(u"test_d"), nullptr);
  EXPECT_EQ(CConfiguration::FindComponent(u"TEST_A"), nullptr);  // names compare exactly

  for (int round = 0; round < 2; ++round) {  // a second Unload finds nothing to do
    CConfiguration::Unload();
    ExpectFullyUnloaded();
    EXPECT_EQ(RecordedCalls(),
              u"test_c:init:0;test_a:init:0;test_b:init:0;"
              u"test_a:unload:0;test_b:unload:0;test_c:unload:0;");
  }
}

// ---- The host service table ----

class HostTableTest : public ConfigurationTest {
 protected:
  void SetUp() override {
    ConfigurationTest::SetUp();
    testing::WriteConfiguration({{u"test_a", W(ORLENDA_TEST_A_MODULE)}});
    ASSERT_TRUE(CConfiguration::Load());
    host_ = CConfiguration::host_table();
  }
  static SkString* S(const char16_t* text) { return ToSkString(text); }
  // The groups inside `path`, from a list handed back even when empty, which the caller frees.
  std::vector<WString> Groups(const char16_t* path) {
    SkStringList* list = nullptr;
    EXPECT_NE(host_->EnumerateGroups(S(path), &list), 0);
    std::vector<WString> names;
    for (uint32_t i = 0; list != nullptr && i < list->count; ++i) names.push_back(FromSkString(list->items[i]));
    if (list == nullptr) names.push_back(W(u"<no list>"));
    SkStringListFree(list);
    return names;
  }
  const SkHostTable* host_ = nullptr;
};

// Strings and numbers through the host table are what every test module reads and records; groups
// and deletion are checked here.
TEST_F(HostTableTest, GroupsAndDeletionWorkOnThePropertiesStore) {
  for (const char16_t* path : {u"/dev/a/baud", u"/dev/b/baud"}) EXPECT_NE(host_->SetNumber(S(path), 1), 0);
  // Groups come back in file order as a list the caller frees; a missing group is an empty list.
  EXPECT_EQ(Groups(u"/dev"), (std::vector<WString>{W(u"a"), W(u"b")}));
  EXPECT_EQ(Groups(u"/nowhere"), std::vector<WString>{});

  EXPECT_NE(host_->Delete(S(u"/dev/a")), 0);
  EXPECT_EQ(Groups(u"/dev"), std::vector<WString>{W(u"b")});
  uint32_t number = 0;
  EXPECT_EQ(host_->GetNumber(S(u"/dev/a/baud"), &number), 0);
  // None of it went to the configuration store.
  HeapVector<WString> groups;
  CConfiguration::WithConfiguration([&](CPropertyHandler& s) { return s.EnumerateGroups(u"/", &groups); });
  EXPECT_EQ(groups, HeapVector<WString>{W(u"components")});
}

// Port enumeration is off while "/EnumeratePort" is missing or 0; switched on, an empty value (or
// none) asks no port at all and is a yes. Driving a port is the configuration port's tests' part.
TEST_F(HostTableTest, EnumeratePortIsOffUnlessSwitchedOnAndAnEmptyValueAsksNothing) {
  EXPECT_EQ(host_->EnumeratePort(S(u"nosuch/dev1"), S(u"")), 0u);
  EXPECT_NE(host_->SetNumber(S(u"/EnumeratePort"), 0), 0);
  EXPECT_EQ(host_->EnumeratePort(S(u"nosuch/dev1"), S(u"")), 0u);
  EXPECT_NE(host_->SetNumber(S(u"/EnumeratePort"), 1), 0);
  EXPECT_EQ(host_->EnumeratePort(S(u"nosuch/dev1"), S(u"")), 1u);
  EXPECT_EQ(host_->EnumeratePort(S(u"nosuch/dev1"), nullptr), 1u);
}

TEST_F(HostTableTest, BlobReferencesBalance) {
  const uint8_t bytes[] = {1, 2, 3, 0, 255};
  const BlobRef mine = BlobRef::Adopt(BlobCopy(bytes, sizeof bytes));
  EXPECT_NE(host_->SetBinary(S(u"/dev/a/key"), ToSkBlob(BlobRef(mine).Release())), 0);  // a reference of its own
  EXPECT_EQ(mine.get()->references.load(), 1u);

  SkBlob* read = nullptr;
  ASSERT_NE(host_->GetBinary(S(u"/dev/a/key"), &read), 0);
  ASSERT_NE(read, nullptr);
  EXPECT_NE(read, ToSkBlob(mine.get()));
  EXPECT_EQ(read->references, 1);
  ASSERT_EQ(read->size, sizeof bytes);
  EXPECT_TRUE(std::equal(bytes, bytes + sizeof bytes, SkBlobData(read)));
  SkBlobRelease(read);

  // A null blob stores an empty value, which is found but hands back no blob.
  EXPECT_NE(host_->SetBinary(S(u"/dev/a/empty"), nullptr), 0);
  read = reinterpret_cast<SkBlob*>(1);
  EXPECT_NE(host_->GetBinary(S(u"/dev/a/empty"), &read), 0);
  EXPECT_EQ(read, nullptr);
  EXPECT_EQ(host_->GetBinary(S(u"/dev/a/none"), &read), 0);
  EXPECT_EQ(read, nullptr);
}

// ---- The settings schema resource ----

TEST_F(ConfigurationTest, LoadResourceXMLGivesTheSchemaOrASystemError) {
  const uint8_t* bytes = nullptr;
  std::size_t size = 0;
  ASSERT_TRUE(platform::FindModuleResource(platform::kResourceTypeHtml, 101, &bytes, &size));
  CConfiguration port;
  WString xml;
  ASSERT_EQ(port.LoadResourceXML(101, &xml), SKR_SUCCESS);
  // The whole document, decoded from UTF-8, and nothing after it.
  EXPECT_EQ(xml, Utf8ToWide(std::string_view(reinterpret_cast<const char*>(bytes), size)));

  LogCapture capture;
  EXPECT_EQ(port.LoadResourceXML(102, &xml), SKR_SYSTEM_ERROR);
  const std::vector<LogLine> lines = capture.Lines();
  const std::u16string prefix =
      u"-- CConfiguration::LoadResourceXML Win32API::FindResource(hModule, "
      u"MAKEINTRESOURCE(dwResourceID), RT_HTML) = <";
  const int at = IndexOfPrefix(lines, prefix);
  ASSERT_GE(at, 0) << Dump(lines);
  EXPECT_EQ(lines[at].level, 0u);
  // The system's error number, in decimal, closes the line.
  EXPECT_TRUE(std::regex_match(testing::Narrow(lines[at].text.substr(prefix.size())), std::regex("-?[0-9]+>")))
      << Dump(lines);
}

}  // namespace
}  // namespace orlenda
