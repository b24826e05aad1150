#include "components/configuration.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/blob.h"
#include "logging/log.h"
#include "logging/log_record.h"
#include "platform/errors.h"
#include "platform/file.h"
#include "platform/pipe.h"
#include "platform/presence.h"
#include "platform/resource.h"
#include "platform/thread.h"
#include "support/isolated_dirs.h"
#include "support/log_capture.h"
#include "support/store_files.h"
#include "test_modules.h"

namespace orlenda {
namespace {

using testing::IndexOf;
using testing::IndexOfPrefix;
using testing::LogCapture;
using testing::Dump;
using testing::LogLine;
using testing::Narrow;
using testing::RemoveStoreFiles;
using testing::StorePath;


// ---- The two store files of this test process ----


// Components named in file order, each with the module file it loads (no file: the "filename"
// property is left out).
struct ComponentEntry {
  const char16_t* name;
  WString file;
};

void WriteConfiguration(const std::vector<ComponentEntry>& components) {
  CPropertyHandler store{WString(u"Orlenda.configuration")};
  for (const ComponentEntry& c : components) {
    const WString group = WString(u"/components/") + c.name;
    if (c.file.empty()) {
      ASSERT_TRUE(store.SetString(View(group + u"/description"), u"no file named"));
    } else {
      ASSERT_TRUE(store.SetString(View(group + u"/filename"), c.file));
    }
  }
}

// The properties as a fresh store reads them from the file.
std::u16string CallsOnFile() {
  CPropertyHandler store{WString(u"Orlenda.properties")};
  WString calls;
  store.GetString(u"/testmodule/calls", &calls);
  return std::u16string(calls.begin(), calls.end());
}

void SetPropertyOnFile(const char16_t* path, uint32_t value) {
  CPropertyHandler store{WString(u"Orlenda.properties")};
  ASSERT_TRUE(store.SetNumber(path, value));
}

bool HostTableIsEmpty() {
  const SkHostTable* t = CConfiguration::host_table();
  return t->EnumerateGroups == nullptr && t->GetBinary == nullptr && t->GetNumber == nullptr &&
         t->GetString == nullptr && t->Delete == nullptr && t->SetBinary == nullptr &&
         t->SetNumber == nullptr && t->SetString == nullptr && t->EnumeratePort == nullptr;
}

void ExpectFullyUnloaded() {
  EXPECT_TRUE(CConfiguration::components().empty());
  EXPECT_FALSE(CConfiguration::WithConfiguration([](CPropertyHandler&) { return true; }));
  EXPECT_TRUE(HostTableIsEmpty());
  // No properties store either: the locked access finds nothing to call.
  EXPECT_FALSE(CConfiguration::WithProperties([](CPropertyHandler&) { return true; }));
}

class ConfigurationTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { testing::UseIsolatedDirs(); }
  void SetUp() override { RemoveStoreFiles(); }
  void TearDown() override {
    CConfiguration::Unload();
    RemoveStoreFiles();
  }
};

// ---- Load and Unload ----

TEST_F(ConfigurationTest, NoComponentsLoadsNothing) {
  for (const bool group_exists : {true, false}) {
    SCOPED_TRACE(group_exists ? "empty /components/" : "no configuration file");
    RemoveStoreFiles();
    if (group_exists) {
      CPropertyHandler store{WString(u"Orlenda.configuration")};
      ASSERT_TRUE(store.SetString(u"/components/gone/filename", u"x"));
      ASSERT_TRUE(store.Delete(u"/components/gone"));
      HeapVector<WString> names;
      store.EnumerateGroups(u"/", &names);
      ASSERT_EQ(names.size(), 1u);
    }
    LogCapture capture;
    EXPECT_FALSE(CConfiguration::Load());
    const std::vector<LogLine> lines = capture.Lines();
    const int message = IndexOf(lines, u"No components configured in Orlenda.configuration");
    EXPECT_GE(message, 0) << Dump(lines);
    // The service's own version line follows the failure.
    EXPECT_GT(IndexOfPrefix(lines, u"configuration_test"), message) << Dump(lines);
    ExpectFullyUnloaded();
    EXPECT_EQ(CallsOnFile(), u"");
  }
}

TEST_F(ConfigurationTest, MissingFilenameStopsAtThatComponent) {
  WriteConfiguration({{u"test_a", WString(ORLENDA_TEST_A_MODULE)}, {u"test_b", WString()}, {u"test_c", WString(ORLENDA_TEST_C_MODULE)}});
  LogCapture capture;
  EXPECT_FALSE(CConfiguration::Load());
  const std::vector<LogLine> lines = capture.Lines();
  const int message = IndexOf(lines, u"filename property missing from component test_b");
  EXPECT_GE(message, 0) << Dump(lines);
  // The version of the service itself was reported before any component was tried.
  const int version = IndexOfPrefix(lines, u"configuration_test");
  EXPECT_GE(version, 0) << Dump(lines);
  EXPECT_LT(version, message);
  // test_a was loaded and undone; test_c was never tried.
  EXPECT_EQ(CallsOnFile(), u"test_a:init:0;test_a:unload:0;");
  ExpectFullyUnloaded();
}

TEST_F(ConfigurationTest, ComponentThatCannotConnectUndoesTheOnesBefore) {
  struct Case {
    const char* what;
    WString file;
    const char16_t* refuse;  // property that makes test_b refuse, or null
  };
  const Case cases[] = {
      {"missing file", WString(ORLENDA_TEST_MISSING_MODULE), nullptr},
      {"no entry point", WString(ORLENDA_TEST_NOEXPORT_MODULE), nullptr},
      {"initialisation refused", WString(ORLENDA_TEST_B_MODULE), u"/testmodule/test_b/refuseInit"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    RemoveStoreFiles();
    WriteConfiguration({{u"test_a", WString(ORLENDA_TEST_A_MODULE)}, {u"test_b", c.file}, {u"test_c", WString(ORLENDA_TEST_C_MODULE)}});
    if (c.refuse != nullptr) SetPropertyOnFile(c.refuse, 1);
    LogCapture capture;
    EXPECT_FALSE(CConfiguration::Load());
    const std::vector<LogLine> lines = capture.Lines();
    const std::u16string expected =
        u"unable to connect to component test_b with filename " + std::u16string(c.file.begin(), c.file.end());
    EXPECT_GE(IndexOf(lines, expected), 0) << Dump(lines);
    EXPECT_EQ(IndexOfPrefix(lines, u"unable to connect"), IndexOf(lines, expected)) << "only one such line";
    // The refusing module ran its initialisation; the others of test_b never ran.
    const std::u16string expected_calls = c.refuse != nullptr
                                              ? u"test_a:init:0;test_b:init:0;test_a:unload:0;"
                                              : u"test_a:init:0;test_a:unload:0;";
    EXPECT_EQ(CallsOnFile(), expected_calls);
    ExpectFullyUnloaded();
  }
}

TEST_F(ConfigurationTest, LoadsInFileOrderAndUnloadsInNameOrder) {
  WriteConfiguration({{u"test_c", WString(ORLENDA_TEST_C_MODULE)}, {u"test_a", WString(ORLENDA_TEST_A_MODULE)}, {u"test_b", WString(ORLENDA_TEST_B_MODULE)}});
  ASSERT_TRUE(CConfiguration::Load());

  ASSERT_EQ(CConfiguration::components().size(), 3u);
  for (const char16_t* name : {u"test_a", u"test_b", u"test_c"}) {
    const CComponent* component = CConfiguration::FindComponent(name);
    ASSERT_NE(component, nullptr);
    EXPECT_TRUE(component->IsLoaded());
  }
  EXPECT_EQ(CConfiguration::FindComponent(u"test_d"), nullptr);
  EXPECT_EQ(CConfiguration::FindComponent(u"TEST_A"), nullptr);  // names compare exactly
  EXPECT_TRUE(CConfiguration::WithConfiguration([](CPropertyHandler&) { return true; }));
  const SkHostTable* host = CConfiguration::host_table();
  EXPECT_NE(host->GetString, nullptr);
  EXPECT_NE(host->EnumeratePort, nullptr);

  CConfiguration::Unload();
  ExpectFullyUnloaded();
  EXPECT_EQ(CallsOnFile(),
            u"test_c:init:0;test_a:init:0;test_b:init:0;"
            u"test_a:unload:0;test_b:unload:0;test_c:unload:0;");
  // A second Unload finds nothing to do.
  CConfiguration::Unload();
  ExpectFullyUnloaded();
}

// ---- The host service table ----

class HostTableTest : public ConfigurationTest {
 protected:
  void SetUp() override {
    ConfigurationTest::SetUp();
    WriteConfiguration({{u"test_a", WString(ORLENDA_TEST_A_MODULE)}});
    ASSERT_TRUE(CConfiguration::Load());
    host_ = CConfiguration::host_table();
  }

  static SkString* S(const char16_t* text) {
    return ToSkString(text);
  }

  const SkHostTable* host_ = nullptr;
};

TEST_F(HostTableTest, TypedValuesRoundTripThroughThePropertiesStore) {
  EXPECT_NE(host_->SetString(S(u"/dev/a/name"), S(u"drawer \u00e9")), 0);
  SkString* text = nullptr;
  ASSERT_NE(host_->GetString(S(u"/dev/a/name"), &text), 0);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(FromSkString(text), u"drawer \u00e9");
  SkStringFree(text);

  EXPECT_NE(host_->SetNumber(S(u"/dev/a/baud"), 9600), 0);
  uint32_t number = 0;
  EXPECT_NE(host_->GetNumber(S(u"/dev/a/baud"), &number), 0);
  EXPECT_EQ(number, 9600u);

  // Groups come back in file order as a list the caller frees.
  EXPECT_NE(host_->SetNumber(S(u"/dev/b/baud"), 1), 0);
  SkStringList* names = nullptr;
  ASSERT_NE(host_->EnumerateGroups(S(u"/dev"), &names), 0);
  ASSERT_NE(names, nullptr);
  ASSERT_EQ(names->count, 2u);
  EXPECT_EQ(FromSkString(names->items[0]), u"a");
  EXPECT_EQ(FromSkString(names->items[1]), u"b");
  SkStringListFree(names);
  // A missing group is an empty list, still the caller's to free.
  names = nullptr;
  EXPECT_NE(host_->EnumerateGroups(S(u"/nowhere"), &names), 0);
  ASSERT_NE(names, nullptr);
  EXPECT_EQ(names->count, 0u);
  SkStringListFree(names);

  EXPECT_NE(host_->Delete(S(u"/dev/a")), 0);
  text = nullptr;
  EXPECT_EQ(host_->GetString(S(u"/dev/a/name"), &text), 0);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(host_->GetNumber(S(u"/dev/a/baud"), &number), 0);

  // Everything went to the properties store, none of it to the configuration store.
  WString value;
  EXPECT_TRUE(CConfiguration::WithProperties(
      [&](CPropertyHandler& store) { return store.GetString(u"/testmodule/calls", &value); }));
  EXPECT_EQ(value, u"test_a:init:0;");
  HeapVector<WString> groups;
  CConfiguration::WithConfiguration([&](CPropertyHandler& s) { return s.EnumerateGroups(u"/", &groups); });
  EXPECT_EQ(groups, HeapVector<WString>{WString(u"components")});
}

TEST_F(HostTableTest, BlobReferencesBalance) {
  const uint8_t bytes[] = {1, 2, 3, 0, 255};
  Blob* mine = BlobCopy(bytes, sizeof bytes);
  ASSERT_NE(mine, nullptr);
  BlobAddRef(mine);  // one reference stays with the test, one goes to the call
  EXPECT_NE(host_->SetBinary(S(u"/dev/a/key"), ToSkBlob(mine)), 0);
  EXPECT_EQ(mine->references.load(), 1u);

  SkBlob* read = nullptr;
  ASSERT_NE(host_->GetBinary(S(u"/dev/a/key"), &read), 0);
  ASSERT_NE(read, nullptr);
  EXPECT_NE(read, ToSkBlob(mine));
  EXPECT_EQ(read->references, 1);
  ASSERT_EQ(read->size, sizeof bytes);
  EXPECT_TRUE(std::equal(bytes, bytes + sizeof bytes, SkBlobData(read)));
  SkBlobRelease(read);
  BlobRelease(mine);

  // A null blob stores an empty value, which is found but hands back no blob.
  EXPECT_NE(host_->SetBinary(S(u"/dev/a/empty"), nullptr), 0);
  read = reinterpret_cast<SkBlob*>(1);
  EXPECT_NE(host_->GetBinary(S(u"/dev/a/empty"), &read), 0);
  EXPECT_EQ(read, nullptr);
  EXPECT_EQ(host_->GetBinary(S(u"/dev/a/none"), &read), 0);
  EXPECT_EQ(read, nullptr);
}

TEST_F(HostTableTest, EnumeratePortNeedsTheSwitch) {
  // Switched off while "/EnumeratePort" is missing or 0, whatever the value.
  EXPECT_EQ(host_->EnumeratePort(S(u"pos/dev1"), S(u"")), 0u);
  EXPECT_EQ(host_->EnumeratePort(S(u"pos/dev1"), S(u"abc")), 0u);
  EXPECT_NE(host_->SetNumber(S(u"/EnumeratePort"), 0), 0);
  EXPECT_EQ(host_->EnumeratePort(S(u"pos/dev1"), S(u"")), 0u);
  // Switched on, an empty value asks nothing of the port.
  EXPECT_NE(host_->SetNumber(S(u"/EnumeratePort"), 1), 0);
  EXPECT_EQ(host_->EnumeratePort(S(u"pos/dev1"), S(u"")), 1u);
  EXPECT_EQ(host_->EnumeratePort(S(u"pos/dev1"), nullptr), 1u);
}

TEST_F(HostTableTest, ConcurrentCallersAreSerialised) {
  // Each thread writes and reads back its own values while the others do the same; every store
  // call changes the one shared document, so an unserialised entry loses values (and shows under
  // ThreadSanitizer).
  constexpr int kThreads = 4;
  constexpr uint32_t kRounds = 25;
  std::vector<std::thread> threads;
  std::vector<int> mismatches(kThreads, 0);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t, &mismatches] {
      const WString base = u"/load/t" + WString(1, char16_t(u'0' + t)) + u"/v";
      for (uint32_t i = 0; i < kRounds; ++i) {
        const WString path = base + WString(1, char16_t(u'a' + i));
        host_->SetNumber(ToSkString(View(path)), i * 10 + t);
        uint32_t back = 0;
        if (!host_->GetNumber(ToSkString(View(path)), &back) || back != i * 10 + t) ++mismatches[t];
      }
    });
  }
  for (std::thread& t : threads) t.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(mismatches[t], 0) << "thread " << t;
  SkStringList* names = nullptr;
  ASSERT_NE(host_->EnumerateGroups(S(u"/load"), &names), 0);
  EXPECT_EQ(names->count, static_cast<uint32_t>(kThreads));
  SkStringListFree(names);
  uint32_t last = 0;
  EXPECT_NE(host_->GetNumber(S(u"/load/t3/vy"), &last), 0);
  EXPECT_EQ(last, 24 * 10 + 3u);
}

// ---- The settings schema resource ----

TEST_F(ConfigurationTest, LoadResourceXMLGivesTheSchemaAsWideText) {
  const uint8_t* bytes = nullptr;
  std::size_t size = 0;
  ASSERT_TRUE(platform::FindModuleResource(platform::kResourceTypeHtml, 101, &bytes, &size));

  CConfiguration port;
  WString xml;
  ASSERT_EQ(port.LoadResourceXML(101, &xml), SKR_SUCCESS);
  EXPECT_EQ(xml.rfind(u"<?xml", 0), 0u);
  // The whole document, decoded from UTF-8, and nothing after it.
  EXPECT_EQ(xml, Utf8ToWide(std::string_view(reinterpret_cast<const char*>(bytes), size)));
  EXPECT_EQ(xml.find(u'\xFFFD'), WString::npos);
}

TEST_F(ConfigurationTest, LoadResourceXMLWithoutSuchResourceIsASystemError) {
  LogCapture capture;
  CConfiguration port;
  WString xml = u"untouched";
  EXPECT_EQ(port.LoadResourceXML(102, &xml), SKR_SYSTEM_ERROR);
  const std::vector<LogLine> lines = capture.Lines();
  const std::u16string prefix =
      u"-- CConfiguration::LoadResourceXML Win32API::FindResource(hModule, "
      u"MAKEINTRESOURCE(dwResourceID), RT_HTML) = <";
  const int at = IndexOfPrefix(lines, prefix);
  ASSERT_GE(at, 0) << Dump(lines);
  EXPECT_EQ(lines[at].level, 0u);
  // The system's error number, in decimal, closes the line.
  const std::u16string rest = lines[at].text.substr(prefix.size());
  ASSERT_GE(rest.size(), 2u);
  EXPECT_EQ(rest.back(), u'>');
  EXPECT_TRUE(std::all_of(rest.begin(), rest.end() - 1, [](char16_t c) { return (c >= u'0' && c <= u'9') || c == u'-'; }))
      << Narrow(rest);
}

}  // namespace
}  // namespace orlenda
