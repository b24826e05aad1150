// Open names, the shared port table, Close, Write and Ioctl with their traces, the router's access
// rule, and power transitions.
#include "ports/port_table.h"

#include "support/port_test_fixture.h"

namespace orlenda {
namespace {

using namespace orlenda::port_testing;  // NOLINT: the fixture helpers

// ---- Names ----

TEST(ParsePortName, TakesKeysAndSlashesApart) {
  const struct {
    const char16_t *requested, *name, *port, *member, *key;
  } cases[] = {
      {u"NAVPRT001?key=abc", u"NAVPRT001", u"NAVPRT001", u"", u"abc"},
      {u"//NAVPRT001//", u"NAVPRT001", u"NAVPRT001", u"", u""},
      {u"///", u"", u"", u"", u""},
      {u"", u"", u"", u"", u""},
      {u"/loop/dev1/?a=b=c", u"loop/dev1", u"loop", u"dev1", u"b=c"},  // the key after the first '='
      {u"loop/dev1?x?y", u"loop/dev1", u"loop", u"dev1", u"x?y"},      // the name before the first '?'; no '='
      {u"loop//dev1", u"loop//dev1", u"loop", u"/dev1", u""},
      {u"loop/dev1?", u"loop/dev1", u"loop", u"dev1", u""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Narrow(c.requested));
    const PortName parsed = ParsePortName(c.requested);
    EXPECT_EQ(parsed.name, WString(c.name));
    EXPECT_EQ(parsed.port, WString(c.port));
    EXPECT_EQ(parsed.member, WString(c.member));
    EXPECT_EQ(parsed.key, WString(c.key));
  }
}

// ---- Open and Close ----

TEST_F(PortTest, MembersAreCheckedAgainstTheStoreCaseSensitively) {
  ASSERT_TRUE(SetNumberProperty(u"/testmodule/test_component/openResult", 0x80001234u));
  LocalConnection c;
  const std::pair<const char16_t*, uint32_t> cases[] = {
      {u"loop/nosuch", SKR_INVALID_SIZE}, {u"loop/Dev1", SKR_INVALID_SIZE},   {u"nosuch/dev1", SKR_INVALID_SIZE},
      {u"loop/dev1/x", SKR_INVALID_SIZE}, {u"plain/dev1", 0x80001234u},  // a stack that fails to open
  };
  for (const auto& [name, result] : cases) {
    EXPECT_EQ(OpenName(c, name), result) << testing::Narrow(name);
    EXPECT_EQ(c.port_number(), 0u);
  }

  WString name(u"//loop/dev1//?user=k1");
  ASSERT_EQ(c.Open(&name), SKR_SUCCESS);
  EXPECT_TRUE(name.empty());  // consumed
  EXPECT_EQ(c.port_number(), 1u);
  EXPECT_EQ(c.access_key(), WString(u"k1"));
  EXPECT_EQ(c.member_name(), WString(u"dev1"));
  EXPECT_EQ(c.Close(), SKR_SUCCESS);
  EXPECT_TRUE(c.access_key().empty());
  EXPECT_TRUE(c.member_name().empty());
}

// Numbers are the smallest free: a number given back is the next one handed out.
TEST_F(PortTest, ConnectionsOfOneNameShareOneStackInstanceAndNumbersAreReused) {
  LocalConnection a, b, c, again;
  ASSERT_EQ(OpenName(a, u"plain/dev1"), SKR_SUCCESS);
  ASSERT_EQ(OpenName(b, u"/plain/dev1?key"), SKR_SUCCESS);  // the key is not part of the name
  ASSERT_EQ(OpenName(c, u"plain/dev2"), SKR_SUCCESS);
  EXPECT_EQ(b.port_number(), 1u);
  EXPECT_EQ(c.port_number(), 2u);

  EXPECT_EQ(CountOf(testing::RecordedCalls(), u"test_component:open:1;"), 1u);
  EXPECT_EQ(a.Close(), SKR_SUCCESS);
  EXPECT_EQ(CountOf(testing::RecordedCalls(), u"test_component:close:1;"), 0u);
  EXPECT_EQ(b.Close(), SKR_SUCCESS);
  EXPECT_EQ(CountOf(testing::RecordedCalls(), u"test_component:close:1;"), 1u);
  EXPECT_EQ(PortTable::Size(), 1u);
  // The reused number reaches a new stack instance.
  ASSERT_EQ(OpenName(again, u"plain/dev1"), SKR_SUCCESS);
  EXPECT_EQ(again.port_number(), 1u);
  EXPECT_EQ(CountOf(testing::RecordedCalls(), u"test_component:open:1;"), 2u);
}

// ---- Write and Ioctl ----

TEST_F(PortTest, WriteNeedsTheLockASecondOpenFailsAndRequestsAreTraced) {
  LogCapture capture;
  LocalConnection c;
  uint32_t written = 99;
  EXPECT_EQ(WriteText(c, "x", &written), SKR_INVALID_HANDLE);  // no port
  EXPECT_EQ(written, 0u);
  ASSERT_EQ(OpenName(c, u"loop/dev1"), SKR_SUCCESS);
  WString second(u"loop/dev2");
  EXPECT_EQ(c.Open(&second), SKR_INVALID_HANDLE);  // and the first port stays
  EXPECT_TRUE(second.empty());
  EXPECT_EQ(c.port_number(), 1u);
  // Bit 30 clear: straight to the stack, no lock needed. The loopback answers its lock state.
  BlobRef output;
  EXPECT_EQ(c.Ioctl(SK_LOCK_STATE & ~0x40000000u, BlobRef(), &output), SKR_INVALID_PARAMETER);
  EXPECT_EQ(c.Ioctl(SK_LOCK_STATE, Bytes("xyz"), &output), SKR_SUCCESS);
  EXPECT_EQ(Text(output), std::string(4, '\0'));
  EXPECT_EQ(WriteText(c, "abc"), SKR_NOT_LOCKED);
  ASSERT_EQ(Lock(c), SKR_SUCCESS);
  EXPECT_EQ(WriteText(c, "abcd!", &written), SKR_SUCCESS);
  EXPECT_EQ(written, 5u);
  ASSERT_EQ(c.Close(), SKR_SUCCESS);
  EXPECT_EQ(c.Close(), SKR_INVALID_HANDLE);  // nothing open any more

  const std::vector<LogLine> lines = capture.Lines();
  int previous = -1;  // in this order; '%' stands for the connection's trace id
  for (std::u16string line :
       {u"-> %::Write(0)", u"<- %::Write(0, 0) <80000001>", u"-> %::Open(0, loop/dev1)",
        u"<- %::Open(1, loop/dev1) <00000000>", u"<- %::Open(1, loop/dev2) <SKR_INVALID_HANDLE>",
        u"-> %::Ioctl(1, 10060009)", u"<- %::Ioctl(1, 10060009) <80000004>", u"-> %::Ioctl(1, 50060009)",
        u"<- %::Ioctl(1, 50060009, 00000000) <00000000>", u"<- %::Write(1, 0) <80010000>",
        u"-> %::Ioctl(1, 40010001, 00000001)", u"<- %::Ioctl(1, 40010001) <00000000>", u"<- %::Write(1, 5) <00000000>",
        u"-> %::Close(1)", u"<- %::Close(1) <00000000>", u"<- %::Close(0) <80000001>"}) {
    line.replace(line.find(u'%'), 1, TraceId(c));
    const int at = IndexOf(lines, line, 4);
    EXPECT_GT(at, previous) << testing::Narrow(line) << "\n" << Dump(lines);
    previous = at;
  }
}

TEST_F(PortTest, RouterChecksTheAccessBitsAndPropertySetsTellTheStack) {
  LocalConnection c;
  BlobRef output;
  ASSERT_EQ(OpenName(c, u"plain/dev1"), SKR_SUCCESS);
  // The module writes its answer without looking for a slot: the caller's lack of one is covered.
  EXPECT_EQ(c.Ioctl(kTestHeldWrites, BlobRef(), nullptr), SKR_SUCCESS);
  testing::ClearRecordedCalls();
  // Bits 30 and 29 set: refused before the stack without the lock.
  EXPECT_EQ(c.Ioctl(0x60001234u, BlobRef(), &output), SKR_NOT_LOCKED);
  EXPECT_EQ(testing::RecordedCalls(), u"");
  // Bit 30 only, and bit 30 clear: no lock needed; the bottom component refuses unknown codes.
  EXPECT_EQ(c.Ioctl(0x40001234u, BlobRef(), &output), SKR_INVALID_PARAMETER);
  EXPECT_EQ(c.Ioctl(0x00001234u, BlobRef(), &output), SKR_INVALID_PARAMETER);
  EXPECT_EQ(CountOf(testing::RecordedCalls(), u"test_component:ioctl:1;"), 2u);

  // A property set is a bits-30-and-29 code: it needs the lock. The bottom component refuses
  // SK_PORT_LOCK, and a refused admission grants the lock all the same.
  EXPECT_EQ(Lock(c), SKR_INVALID_PARAMETER);
  testing::ClearRecordedCalls();
  EXPECT_EQ(c.Ioctl(0x6007000eu, Utf16({u"speed\0", 6}, {"\x80\x25\0\0", 4}), &output), SKR_SUCCESS);
  uint32_t stored = 0;
  EXPECT_TRUE(CConfiguration::WithProperties(
      [&](CPropertyHandler& s) { return s.GetNumber(u"plain/dev1/speed", &stored); }));
  EXPECT_EQ(stored, 9600u);
  // The stack heard SK_CONFIG_APPLY (and nothing else).
  EXPECT_EQ(testing::RecordedCalls(), u"test_component:ioctl:1;");
}

// ---- Power ----

TEST_F(PortTest, SuspendStopsWritesAndLocksAndRepeatedResumesAreDropped) {
  LocalConnection member, stranger;
  ASSERT_EQ(OpenName(member, u"plain/dev1"), SKR_SUCCESS);
  ASSERT_EQ(OpenName(stranger, u"plain/dev2"), SKR_SUCCESS);
  testing::ClearRecordedCalls();

  PortTable::PowerTransition(4);
  PortTable::PowerTransition(4);
  // Two suspends, two SK_POWER_STATE per port.
  EXPECT_EQ(CountOf(testing::RecordedCalls(), u"test_component:ioctl:1;"), 2u);
  EXPECT_EQ(WriteText(member, "x"), SKR_SUSPENDED);
  EXPECT_EQ(Lock(member), SKR_SUSPENDED);
  EXPECT_EQ(member.Ioctl(0x50010005u, BlobRef(), nullptr), SKR_SUSPENDED);

  PortTable::PowerTransition(7);
  PortTable::PowerTransition(18);  // a second resume in a row is not passed on
  PortTable::PowerTransition(10);  // nor is an event that is neither
  EXPECT_EQ(CountOf(testing::RecordedCalls(), u"test_component:ioctl:1;"), 3u);
  EXPECT_EQ(WriteText(member, "x"), SKR_NOT_LOCKED);
  EXPECT_EQ(Lock(member), SKR_INVALID_PARAMETER);  // refused by the stack, but not suspended

  PortTable::PowerTransition(4);
  PortTable::PowerTransition(6);
  EXPECT_EQ(CountOf(testing::RecordedCalls(), u"test_component:ioctl:1;"), 6u);
  EXPECT_EQ(member.Close(), SKR_SUCCESS);
  EXPECT_EQ(stranger.Close(), SKR_SUCCESS);
}

}  // namespace
}  // namespace orlenda
