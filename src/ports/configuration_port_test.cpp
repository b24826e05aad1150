#include "ports/configuration_port.h"

#include <algorithm>

#include "components/port_stack.h"
#include "ports/configuration_requests.h"
#include "ports/port_numbering.h"
#include "support/port_test_fixture.h"
#include "ports/settings_notice.h"

namespace orlenda {
namespace {

using namespace orlenda::port_testing;  // NOLINT: the fixture helpers

// ---- Numbering ----

using Names = HeapVector<WString>;

Names AllNumbersTaken() {
  HeapVector<WString> names;
  for (int n = 1; n <= 999; ++n) {
    const char16_t digits[] = {char16_t(u'0' + n / 100), char16_t(u'0' + n / 10 % 10), char16_t(u'0' + n % 10), 0};
    names.push_back(WString(u"NAVPRT") + digits);
  }
  return names;
}

TEST(PortNumbering, SearchesTheDigitsInsideEveryName) {
  EXPECT_EQ(NewPortKey({}), u"/NAVPRT001");
  EXPECT_EQ(NewPortKey(Names{u"NAVPRT001", u"NAVPRT003"}), u"/NAVPRT002");
  // 0020 holds 002 (and 020): not a comparison of numbers.
  EXPECT_EQ(NewPortKey(Names{u"NAVPRT001", u"COM0020"}), u"/NAVPRT003");
  // 001 to 009 are there, and so is 010, across "001" and "002".
  EXPECT_EQ(FreePortNumber(Names{u"x001002003004005006007008009"}), 11u);
  EXPECT_EQ(NewPortKey(Names{u"1001", u"1002", u"1003", u"1004", u"1005", u"1006", u"1007", u"1008", u"1009"}),
            u"/NAVPRT010");

  HeapVector<WString> names = AllNumbersTaken();
  EXPECT_EQ(NewPortKey(names), u"");
  names.erase(names.begin() + 499);  // NAVPRT500
  EXPECT_EQ(NewPortKey(names), u"/NAVPRT500");
}

// ---- Requests, driven through the entries OpenConfigurationPort fills ----

// A text blob as the requests take it: the units and a NUL.
BlobRef Wide(std::u16string_view text) { return BlobRef::Adopt(TextBlob(text)); }

HeapVector<WString> RootGroups() {
  HeapVector<WString> names;
  CConfiguration::WithProperties([&](CPropertyHandler& s) { return s.EnumerateGroups(u"", &names); });
  return names;
}

// What the layer below test_a / test_b receives (both opened on the test's configuration port).
struct Below {
  std::vector<std::pair<uint32_t, std::u16string>> seen;
  std::u16string answer_a, answer_b;
} g_below;

template <char N>
uint32_t SKEIN_CALL BelowIoctl(uint32_t, uint32_t code, SkBlob* input, SkBlob** output) {
  const BlobRef in = BlobRef::Adopt(FromSkBlob(input));
  g_below.seen.emplace_back(code, Units(in));
  const std::u16string& answer = N == 'a' ? g_below.answer_a : g_below.answer_b;
  if (output != nullptr) *output = ToSkBlob(TextBlob(answer));
  return SKR_SUCCESS;
}

class ConfigurationPortTest : public StoreTest {
 protected:
  ConfigurationPortTest()
      : StoreTest({{u"/components/test_a/filename", ORLENDA_TEST_A_MODULE},
                   {u"/components/test_b/filename", ORLENDA_TEST_B_MODULE},
                   {u"/components/test_c/filename", ORLENDA_TEST_C_MODULE},
                   {u"/stack/NAVPRT001/test_a/n", u""}, {u"/stack/NAVPRT001/test_b/n", u""},
                   {u"/stack/NAVPRT001/test_c/n", u""}, {u"/stack/NAVPRT/test_a/n", u""}}) {}
  void SetUp() override {
    StoreTest::SetUp();
    if (HasFatalFailure()) return;
    CConfiguration::WithProperties([](CPropertyHandler& s) { return s.Delete(u"testmodule"); });
    for (const auto& entry : Entries{{u"NAVPRT001/PortType", u"NAVPRT"}, {u"NAVPRT001/PortName", u"Receipt"},
                                     {u"NAVPRT001/dev1/Model", u"X1"}, {u"NAVPRT003/PortType", u"NAVPRT"},
                                     {u"TCP_NOTE", u"a flat setting"}}) {
      ASSERT_TRUE(SetProperty(entry.first, entry.second));
    }
    ASSERT_EQ(OpenConfigurationPort(kPort, u"", &table_), SKR_SUCCESS);
  }
  void TearDown() override {
    table_.Close(kPort);
    StoreTest::TearDown();
  }

  uint32_t Ioctl(uint32_t code, BlobRef input, BlobRef* output, uint32_t port = kPort) {
    Blob* raw = nullptr;
    const uint32_t result = table_.Ioctl(port, code, ToSkBlob(input.Release()), output ? ToSkBlobSlot(&raw) : nullptr);
    if (output != nullptr) *output = BlobRef::Adopt(raw);
    return result;
  }
  static SkBlob** ToSkBlobSlot(Blob** blob) { return reinterpret_cast<SkBlob**>(blob); }

  static constexpr uint32_t kPort = 7;
  SkComponentTable table_{};
};

int g_notices = 0;
void CountNotice() { ++g_notices; }

TEST_F(ConfigurationPortTest, EntriesFindTheObjectByPortNumber) {
  SkComponentTable again{};
  EXPECT_EQ(OpenConfigurationPort(kPort, u"other", &again), SKR_INVALID_PARAMETER);  // number in use
  EXPECT_EQ(again.Ioctl, nullptr);

  // Every request gives up the input reference it was handed, the failing ones included.
  Blob* input = TextBlob(u"NAVPRT001");
  BlobRef out;
  for (uint32_t port : {kPort, 99u}) {
    for (uint32_t code : {SK_CONFIG_ENUM_PORTS, SK_CONFIG_GET, SK_CONFIG_ADD_PORT, SK_CONFIG_SET, 0x12345678u}) {
      BlobAddRef(input);
      const uint32_t result = Ioctl(code, BlobRef::Adopt(input), &out, port);
      EXPECT_EQ(input->references.load(), 1u) << std::hex << code << " on port " << port;
      if (port == 99u) { EXPECT_EQ(result, SKR_INVALID_HANDLE); }
    }
  }
  BlobRelease(input);
  EXPECT_EQ(Ioctl(0x12345678u, BlobRef(), &out), SKR_INVALID_PARAMETER);
  // SK_CONFIG_APPLY tells the settings listener, when there is one, once.
  g_notices = 0;
  SetSettingsListener(&CountNotice);
  for (uint32_t code : {SK_PORT_LOCK, SK_CONFIG_APPLY, SK_CONFIG_REQUEST_11, SK_CONFIG_REQUEST_12}) {
    out = BlobRef();
    EXPECT_EQ(Ioctl(code, Wide(u"x"), &out), SKR_SUCCESS) << std::hex << code;
    EXPECT_FALSE(out);
  }
  SetSettingsListener(nullptr);
  EXPECT_EQ(Ioctl(SK_CONFIG_APPLY, BlobRef(), &out), SKR_SUCCESS);
  EXPECT_EQ(g_notices, 1);
  uint32_t written = 5;
  EXPECT_EQ(table_.Write(kPort, ToSkBlob(TextBlob(u"data")), &written), SKR_INVALID_PARAMETER);
  EXPECT_EQ(written, 0u);

  // The Open entry makes a second object; Close forgets exactly the one of its number.
  EXPECT_EQ(table_.Open(8, ToSkString(u"NAVPRT001"), nullptr), SKR_SUCCESS);
  EXPECT_EQ(Ioctl(SK_CONFIG_ENUM_PORTS, BlobRef(), &out, 8), SKR_SUCCESS);
  EXPECT_EQ(Units(out), std::u16string(u"dev1\0\0", 6));
  EXPECT_EQ(table_.Close(8), SKR_SUCCESS);
  EXPECT_EQ(table_.Close(8), SKR_INVALID_HANDLE);
  EXPECT_EQ(Ioctl(SK_CONFIG_ENUM_PORTS, BlobRef(), &out), SKR_SUCCESS);

  // A port path without a slash opens a configuration port through the stack as well.
  SkComponentTable table{};
  ASSERT_EQ(OpenStack(9, u"//NAVPRT001/", &table), SKR_SUCCESS);
  EXPECT_EQ(table.Ioctl, table_.Ioctl);
  EXPECT_EQ(Ioctl(SK_CONFIG_GET, Wide(u"dev1"), &out, 9), SKR_SUCCESS);  // NAVPRT001/dev1
  EXPECT_EQ(testing::RecordedCalls(), u"");  // no component was consulted
  WString model;
  EXPECT_TRUE(CPropertyHandler::FindPropertyInText(View(BlobText(out)), u"Model", &model));
  EXPECT_EQ(model, u"X1");
  EXPECT_EQ(table.Close(9), SKR_SUCCESS);
}

TEST_F(ConfigurationPortTest, EnumPortsAndGet) {
  LogCapture capture;
  BlobRef out;
  EXPECT_EQ(Ioctl(SK_CONFIG_ENUM_PORTS, BlobRef(), nullptr), SKR_INVALID_SIZE);
  EXPECT_EQ(Ioctl(SK_CONFIG_GET, Wide(u"NAVPRT001"), nullptr), SKR_INVALID_SIZE);

  ASSERT_EQ(Ioctl(SK_CONFIG_ENUM_PORTS, BlobRef(), &out), SKR_SUCCESS);
  EXPECT_EQ(Units(out), std::u16string(u"NAVPRT001\0NAVPRT003\0\0", 21));
  ASSERT_EQ(Ioctl(SK_CONFIG_ENUM_PORTS, Wide(u"NAVPRT003"), &out), SKR_SUCCESS);
  EXPECT_EQ(Units(out), std::u16string(u"\0", 1));

  ASSERT_EQ(Ioctl(SK_CONFIG_GET, Wide(u"NAVPRT001"), &out), SKR_SUCCESS);
  WString value;
  EXPECT_TRUE(CPropertyHandler::FindPropertyInText(View(BlobText(out)), u"PortName", &value));
  EXPECT_EQ(value, u"Receipt");
  EXPECT_FALSE(CPropertyHandler::FindPropertyInText(View(BlobText(out)), u"Model", &value));  // sub-groups stay out
  ASSERT_EQ(Ioctl(SK_CONFIG_GET, Wide(u"none"), &out), SKR_SUCCESS);
  EXPECT_EQ(Units(out), std::u16string(u"<xmlroot></xmlroot>\0", 20));

  const std::vector<LogLine> lines = capture.Lines();
  EXPECT_GE(IndexOf(lines, u"-- Ioctl( , SK_CONFIG_ENUM_PORTS, ) NAVPRT001 NAVPRT003", 4), 0) << Dump(lines);
  EXPECT_GE(IndexOf(lines, u"-- Ioctl( , SK_CONFIG_ENUM_PORTS, NAVPRT003)", 4), 0) << Dump(lines);
}

TEST_F(ConfigurationPortTest, GetSettingsReturnsTheSchemaOrTheMergedComponentDocuments) {
  BlobRef out;
  EXPECT_EQ(Ioctl(SK_CONFIG_GET_SETTINGS, BlobRef(), nullptr), SKR_INVALID_SIZE);
  ASSERT_EQ(Ioctl(SK_CONFIG_GET_SETTINGS, BlobRef(), &out), SKR_SUCCESS);
  WString schema;
  ASSERT_EQ(CConfiguration().LoadResourceXML(101, &schema), SKR_SUCCESS);
  EXPECT_EQ(Units(out), std::u16string(View(schema)) + u'\0');
  EXPECT_NE(schema.find(u"SK_TCP_COMMUNICATION"), WString::npos);

  // test_a and test_b are open on this port above layers that answer; test_c is not open here
  // and answers SKR_INVALID_HANDLE, which adds nothing.
  g_below = Below{};
  g_below.answer_a = u"<xmlroot><ui language=\"en\" label=\"A\"/><choice id=\"one\"/></xmlroot>";
  g_below.answer_b = u"<xmlroot><ui language=\"en\" label=\"B\" tooltip=\"tb\"/><range id=\"two\"/></xmlroot>";
  SkComponentTable layers_a{nullptr, nullptr, nullptr, BelowIoctl<'a'>, nullptr};
  SkComponentTable layers_b{nullptr, nullptr, nullptr, BelowIoctl<'b'>, nullptr};
  ASSERT_EQ(CConfiguration::FindComponent(u"test_a")->Open(kPort, u"p", &layers_a), SKR_SUCCESS);
  ASSERT_EQ(CConfiguration::FindComponent(u"test_b")->Open(kPort, u"p", &layers_b), SKR_SUCCESS);

  for (uint32_t code : {SK_CONFIG_GET_SETTINGS, SK_CONFIG_GET_SETTINGS_ALL}) {
    SCOPED_TRACE(code);
    g_below.seen.clear();
    ASSERT_EQ(Ioctl(code, Wide(u"NAVPRT001"), &out), SKR_SUCCESS);
    const std::pair<uint32_t, std::u16string> asked{0x4007000cu, std::u16string(u"NAVPRT001\0", 10)};
    EXPECT_EQ(g_below.seen, (std::vector<std::pair<uint32_t, std::u16string>>{asked, asked}));
    const WString merged = BlobText(out);
    for (const char16_t* part : {u"label=\"A\"", u"tooltip=\"tb\"", u"id=\"one\"", u"id=\"two\""}) {
      EXPECT_NE(merged.find(part), WString::npos) << testing::Narrow(View(merged));
    }
    EXPECT_EQ(merged.find(u"label=\"B\""), WString::npos);
  }
  // A path naming no stack: the stack's components cannot be listed, while _ALL asks them all.
  g_below.seen.clear();
  EXPECT_EQ(Ioctl(SK_CONFIG_GET_SETTINGS, Wide(u"NAVPRT003"), &out), SKR_FAILED);
  EXPECT_TRUE(g_below.seen.empty());
  ASSERT_EQ(Ioctl(SK_CONFIG_GET_SETTINGS_ALL, BlobRef(), &out), SKR_SUCCESS);
  EXPECT_EQ(g_below.seen.size(), 2u);
  EXPECT_EQ(g_below.seen[0].second, std::u16string(u"\0", 1));
  CConfiguration::FindComponent(u"test_a")->Close(kPort);
  CConfiguration::FindComponent(u"test_b")->Close(kPort);
}

std::u16string Definition(const char16_t* path, const char16_t* name = u"Kitchen") {
  std::u16string text = u"<xmlroot>";
  if (path != nullptr) text += u"<property id=\"ConfigurationPath\" type=\"string\" value=\"" + std::u16string(path) + u"\"/>";
  text += u"<property id=\"PortType\" type=\"string\" value=\"NAVPRT\"/><property id=\"PortName\" type=\"string\" value=\"";
  text += name;
  text += u"\"/><property id=\"Baud\" type=\"number\" value=\"9600\"/></xmlroot>";
  return text;
}

TEST_F(ConfigurationPortTest, AddPortNamesStoresAndPassesOnTheNewPort) {
  LogCapture capture;
  g_below = Below{};
  SkComponentTable layers_a{nullptr, nullptr, nullptr, BelowIoctl<'a'>, nullptr};
  ASSERT_EQ(CConfiguration::FindComponent(u"test_a")->Open(kPort, u"p", &layers_a), SKR_SUCCESS);

  BlobRef out;
  ASSERT_EQ(Ioctl(SK_CONFIG_ADD_PORT, Wide(Definition(nullptr)), &out), SKR_SUCCESS);
  EXPECT_EQ(Units(out), std::u16string(u"/NAVPRT002\0", 11));
  EXPECT_EQ(GetProperty(u"NAVPRT002/PortName"), u"Kitchen");
  EXPECT_EQ(GetProperty(u"NAVPRT002/PortType"), u"NAVPRT");
  uint32_t baud = 0;
  EXPECT_TRUE(CConfiguration::WithProperties([&](CPropertyHandler& s) { return s.GetNumber(u"NAVPRT002/Baud", &baud); }));
  EXPECT_EQ(baud, 9600u);
  // The stack named after the type got the request as it came.
  const std::vector<std::pair<uint32_t, std::u16string>> passed{{SK_CONFIG_ADD_PORT, Definition(nullptr) + u'\0'}};
  EXPECT_EQ(g_below.seen, passed);
  CConfiguration::FindComponent(u"test_a")->Close(kPort);

  // A path with the prefix is used as it is; one without it gives way to a new name.
  ASSERT_EQ(Ioctl(SK_CONFIG_ADD_PORT, Wide(Definition(u"NAVPRT050")), &out), SKR_SUCCESS);
  EXPECT_EQ(Units(out), std::u16string(u"NAVPRT050\0", 10));
  ASSERT_EQ(Ioctl(SK_CONFIG_ADD_PORT, Wide(Definition(u"COM1", u"Bar")), &out), SKR_SUCCESS);
  EXPECT_EQ(Units(out), std::u16string(u"/NAVPRT004\0", 11));  // 001, 002, 003 taken
  EXPECT_EQ(GetProperty(u"NAVPRT004/PortName"), u"Bar");
  EXPECT_EQ(GetProperty(u"NAVPRT004/ConfigurationPath"), u"<missing>");

  // An existing port: its path is the answer, and nothing changes.
  ASSERT_EQ(Ioctl(SK_CONFIG_ADD_PORT, Wide(Definition(u"NAVPRT001", u"Other")), &out), SKR_FAILED);
  EXPECT_EQ(Units(out), std::u16string(u"NAVPRT001\0", 10));
  EXPECT_EQ(GetProperty(u"NAVPRT001/PortName"), u"Receipt");

  out = BlobRef();
  EXPECT_EQ(Ioctl(SK_CONFIG_ADD_PORT, BlobRef(), &out), SKR_INVALID_SIZE);
  EXPECT_EQ(Ioctl(SK_CONFIG_ADD_PORT, Wide(Definition(nullptr)), nullptr), SKR_INVALID_SIZE);
  EXPECT_EQ(Ioctl(SK_CONFIG_ADD_PORT, Wide(u"PortName=x"), &out), SKR_INVALID_PARAMETER);
  EXPECT_FALSE(out);

  const std::vector<LogLine> lines = capture.Lines();
  EXPECT_GE(IndexOf(lines, u"-- Ioctl(, SK_CONFIG_ADD_PORT, /NAVPRT002)\n" + Definition(nullptr), 4), 0) << Dump(lines);
  EXPECT_GE(IndexOf(lines, u"-- Ioctl(, SK_CONFIG_ADD_PORT, NAVPRT050)\n" + Definition(u"NAVPRT050"), 4), 0);

  // With all 999 numbers taken nothing is added.
  std::u16string xml = u"<xmlroot>";
  for (const WString& name : AllNumbersTaken()) xml += u"<type value=\"" + std::u16string(View(name)) + u"\"/>";
  xml += u"</xmlroot>";
  ASSERT_TRUE(CConfiguration::WithProperties([&](CPropertyHandler& s) { return s.ReplaceGroup(u"", xml); }));
  EXPECT_EQ(Ioctl(SK_CONFIG_ADD_PORT, Wide(Definition(nullptr)), &out), SKR_FAILED);
  EXPECT_EQ(Units(out), std::u16string(u"\0", 1));
  EXPECT_EQ(RootGroups().size(), 999u);
}

TEST_F(ConfigurationPortTest, ConcurrentAddsNeverShareANumber) {
  SkComponentTable second{};
  ASSERT_EQ(OpenConfigurationPort(kPort + 1, u"", &second), SKR_SUCCESS);
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 5; ++i) {
        BlobRef out;
        EXPECT_EQ(Ioctl(SK_CONFIG_ADD_PORT, Wide(Definition(nullptr)), &out, kPort + t), SKR_SUCCESS);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  // Every add succeeded, and each made a group of its own.
  EXPECT_EQ(RootGroups().size(), 13u);  // NAVPRT001, NAVPRT003, the ten new ones and test_a's record
  second.Close(kPort + 1);
}

TEST_F(ConfigurationPortTest, DeletePortAndSet) {
  LogCapture capture;
  BlobRef out;
  const std::u16string set = u"<xmlroot><property id=\"ConfigurationPath\" type=\"string\" value=\"NAVPRT001\"/>"
                             u"<property id=\"PortName\" type=\"string\" value=\"Front\"/></xmlroot>";
  ASSERT_EQ(Ioctl(SK_CONFIG_SET, Wide(set), &out), SKR_SUCCESS);
  EXPECT_EQ(GetProperty(u"NAVPRT001/PortName"), u"Front");
  EXPECT_EQ(GetProperty(u"NAVPRT001/ConfigurationPath"), u"<missing>");
  std::u16string unknown_type = set;
  unknown_type.replace(unknown_type.rfind(u"string"), 6, u"float");
  EXPECT_EQ(Ioctl(SK_CONFIG_SET, Wide(unknown_type), &out), SKR_INVALID_PARAMETER);
  EXPECT_EQ(Ioctl(SK_CONFIG_SET, Wide(u"<xmlroot><property id=\"A\" type=\"string\" value=\"1\"/></xmlroot>"), &out),
            SKR_INVALID_PARAMETER);  // names no port
  std::u16string unconfigured = set;
  unconfigured.replace(unconfigured.find(u"NAVPRT001"), 9, u"NAVPRT009");
  EXPECT_EQ(Ioctl(SK_CONFIG_SET, Wide(unconfigured), &out), SKR_FAILED);
  EXPECT_EQ(GetProperty(u"NAVPRT009/PortName"), u"<missing>");
  EXPECT_EQ(GetProperty(u"NAVPRT001/PortName"), u"Front");

  EXPECT_EQ(Ioctl(SK_CONFIG_DELETE_PORT, BlobRef(), &out), SKR_INVALID_SIZE);
  EXPECT_EQ(Ioctl(SK_CONFIG_DELETE_PORT, Wide(u"/"), &out), SKR_INVALID_PARAMETER);
  EXPECT_EQ(Ioctl(SK_CONFIG_DELETE_PORT, Wide(u"TCP_NOTE"), &out), SKR_FAILED);  // a setting, not a port
  EXPECT_EQ(GetProperty(u"TCP_NOTE"), u"a flat setting");
  EXPECT_EQ(Ioctl(SK_CONFIG_DELETE_PORT, Wide(u"NAVPRT001"), &out), SKR_SUCCESS);
  EXPECT_EQ(RootGroups(), HeapVector<WString>{WString(u"NAVPRT003")});
  EXPECT_EQ(Ioctl(SK_CONFIG_DELETE_PORT, Wide(u"NAVPRT001"), &out), SKR_FAILED);

  const std::vector<LogLine> lines = capture.Lines();
  EXPECT_GE(IndexOf(lines, u"-- Ioctl(, SK_CONFIG_SET, NAVPRT001)\n" + set, 4), 0) << Dump(lines);
  EXPECT_EQ(IndexOf(lines, u"-- Ioctl(, SK_CONFIG_SET, NAVPRT009)\n" + unconfigured, 4), -1);
  const std::u16string deleted = u"-- Ioctl(, SK_CONFIG_DELETE_PORT, NAVPRT001)";
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [&](const LogLine& l) { return l.text == deleted; }), 1)
      << Dump(lines);
}

// ---- Port enumeration (host table entry 8), which drives a port through the port layer ----

// (The switch and an empty value are the host table's own tests; a port that refuses the lock or
// the value is the port isolation test's.)
TEST_F(ConfigurationPortTest, EnumeratePortAddsTheValueAsAPortDefinition) {
  ASSERT_TRUE(SetNumberProperty(u"/EnumeratePort", 1));
  // The configuration port takes the lock, the value as a port definition and the follow-up.
  EXPECT_EQ(CConfiguration::host_table()->EnumeratePort(ToSkString(u"config"), ToSkString(Definition(nullptr))), 1u);
  EXPECT_EQ(GetProperty(u"NAVPRT002/PortName"), u"Kitchen");
}

}  // namespace
}  // namespace orlenda
