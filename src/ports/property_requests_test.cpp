#include "ports/property_requests.h"

#include "support/port_test_fixture.h"

namespace orlenda {
namespace {

using namespace orlenda::port_testing;  // NOLINT: the fixture helpers

constexpr char16_t kPort[] = u"NAVPRT001/dev1";

class PropertyRequestsTest : public StoreTest {
 protected:
  PropertyRequestsTest() : StoreTest({{u"/components/test_a/filename", ORLENDA_TEST_A_MODULE}}) {}

  uint32_t Serve(uint32_t code, const BlobRef& input, BlobRef* output = nullptr) {
    changed_ = true;  // must come back false from every request that changes nothing
    BlobRef ignored;
    return ServePropertyRequest(kPort, code, input, output ? output : &ignored, &changed_);
  }
  bool changed_ = false;
};

TEST(PropertyRequestCodes, AreTheSixTypedGetsAndSets) {
  for (uint32_t code : {0x40070009u, 0x4007000au, 0x4007000bu, 0x6007000du, 0x6007000eu, 0x6007000fu}) {
    EXPECT_TRUE(IsPropertyRequest(code)) << std::hex << code;
  }
  for (uint32_t code : {0x40070008u, 0x4007000cu, 0x6007000cu, 0x60070010u, 0x50070010u, 0x0007000bu}) {
    EXPECT_FALSE(IsPropertyRequest(code)) << std::hex << code;
  }
}

TEST_F(PropertyRequestsTest, SetsStoreUnderTheOpenNameAndGetsReadBack) {
  testing::LogCapture capture;
  const struct {
    uint32_t set, get;
    std::u16string name;  // as a set sends it, with its NUL
    std::string value;    // the bytes after the name, and what the get answers
  } cases[] = {
      {SK_CONFIG_SET_STRING_PROPERTY, SK_CONFIG_GET_STRING_PROPERTY, {u"Model\0", 6}, Text(Utf16({u"X1\0", 3}))},
      {SK_CONFIG_SET_STRING_PROPERTY, SK_CONFIG_GET_STRING_PROPERTY, {u"Note\0", 5}, {}},  // empty: one NUL back
      {SK_CONFIG_SET_NUMBER_PROPERTY, SK_CONFIG_GET_NUMBER_PROPERTY, {u"Baud\0", 5}, {"\x80\x25\0\0", 4}},
      {SK_CONFIG_SET_DATA_PROPERTY, SK_CONFIG_GET_DATA_PROPERTY, {u"Logo\0", 5}, {"\0\x01\xFF\0\x07", 5}},
      {SK_CONFIG_SET_DATA_PROPERTY, SK_CONFIG_GET_DATA_PROPERTY, {u"Blob\0", 5}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Narrow(c.name));
    ASSERT_EQ(Serve(c.set, Utf16(c.name, c.value)), SKR_SUCCESS);
    EXPECT_TRUE(changed_);
    BlobRef out;
    ASSERT_EQ(Serve(c.get, Utf16(c.name), &out), SKR_SUCCESS);
    EXPECT_FALSE(changed_);
    ASSERT_TRUE(out);
    EXPECT_EQ(Text(out), c.value.empty() && c.set == SK_CONFIG_SET_STRING_PROPERTY ? std::string(2, '\0') : c.value);
  }
  EXPECT_EQ(GetProperty(u"NAVPRT001/dev1/Model"), u"X1");
  BlobRef out;
  ASSERT_EQ(Serve(SK_CONFIG_GET_NUMBER_PROPERTY, Utf16(u"Baud"), &out), SKR_SUCCESS);  // NUL optional on a get
  EXPECT_EQ(Text(out), std::string("\x80\x25\0\0", 4));

  const std::vector<testing::LogLine> lines = capture.Lines();
  for (const char16_t* line : {u"-- Ioctl(NAVPRT001/dev1, SK_CONFIG_SET_STRING_PROPERTY, Model, X1)",
                               u"-- Ioctl(NAVPRT001/dev1, SK_CONFIG_SET_NUMBER_PROPERTY, Baud, 9600)",
                               u"-- Ioctl(NAVPRT001/dev1, SK_CONFIG_SET_DATA_PROPERTY, Logo)"}) {
    EXPECT_GE(testing::IndexOf(lines, line, 4), 0) << testing::Dump(lines);
  }
}

TEST_F(PropertyRequestsTest, ShortOddAndMissingInputsChangeNothing) {
  ASSERT_EQ(Serve(SK_CONFIG_SET_NUMBER_PROPERTY, Utf16({u"Baud\0", 5}, {"\x01\0\0\0", 4})), SKR_SUCCESS);
  const std::u16string baud(u"Baud\0", 5);
  const struct {
    uint32_t code;
    BlobRef input;
    uint32_t result;
  } cases[] = {
      {SK_CONFIG_GET_STRING_PROPERTY, BlobRef(), SKR_INVALID_SIZE},
      {SK_CONFIG_GET_NUMBER_PROPERTY, Utf16(u""), SKR_INVALID_SIZE},
      {SK_CONFIG_GET_STRING_PROPERTY, Utf16({u"Nothing\0", 8}), SKR_FAILED},
      {SK_CONFIG_GET_STRING_PROPERTY, Utf16(baud), SKR_FAILED},  // of another type
      {SK_CONFIG_SET_STRING_PROPERTY, BlobRef(), SKR_INVALID_SIZE},
      {SK_CONFIG_SET_DATA_PROPERTY, Utf16(u"Baud"), SKR_INVALID_SIZE},  // no terminator
      {SK_CONFIG_SET_DATA_PROPERTY, Bytes("B"), SKR_INVALID_SIZE},      // one byte
      {SK_CONFIG_SET_NUMBER_PROPERTY, Utf16(baud), SKR_INVALID_SIZE},
      {SK_CONFIG_SET_NUMBER_PROPERTY, Utf16(baud, {"\x02\0", 2}), SKR_INVALID_SIZE},
      {SK_CONFIG_SET_NUMBER_PROPERTY, Utf16(baud, {"\x02\0\0\0\0", 5}), SKR_INVALID_SIZE},
      {SK_CONFIG_SET_STRING_PROPERTY, Utf16(baud, "x"), SKR_INVALID_SIZE},               // half a unit
      {SK_CONFIG_SET_STRING_PROPERTY, Utf16({u"Baud\0x", 6}), SKR_FAILED},               // the type stays
      {SK_CONFIG_SET_STRING_PROPERTY, Utf16({u"\0x", 2}), SKR_INVALID_PARAMETER},        // no name
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << std::hex << c.code << " with " << std::dec << c.input.size() << " bytes");
    EXPECT_EQ(Serve(c.code, c.input), c.result);
    EXPECT_FALSE(changed_);
  }
  BlobRef out;
  ASSERT_EQ(Serve(SK_CONFIG_GET_NUMBER_PROPERTY, Utf16(u"Baud"), &out), SKR_SUCCESS);
  EXPECT_EQ(Text(out), std::string("\x01\0\0\0", 4));
  EXPECT_EQ(ServePropertyRequest(kPort, SK_CONFIG_GET_NUMBER_PROPERTY, Utf16(u"Baud"), nullptr, &changed_),
            SKR_INVALID_SIZE);
}

}  // namespace
}  // namespace orlenda
