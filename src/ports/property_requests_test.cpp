#include "ports/property_requests.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "components/configuration.h"
#include "ports/configuration_requests.h"
#include "support/isolated_dirs.h"
#include "support/log_capture.h"
#include "support/store_files.h"
#include "test_modules.h"

namespace orlenda {
namespace {

using testing::Dump;
using testing::IndexOf;
using testing::LogCapture;
using testing::LogLine;

constexpr char16_t kPort[] = u"NAVPRT001/dev1";

// Input bytes: the UTF-16 units of `text` (NULs included as written), then `tail`.
BlobRef Input(std::u16string_view text, std::vector<uint8_t> tail = {}) {
  std::vector<uint8_t> bytes(text.size() * 2);
  if (!text.empty()) std::memcpy(bytes.data(), text.data(), bytes.size());
  bytes.insert(bytes.end(), tail.begin(), tail.end());
  return BlobRef::Adopt(BlobCopy(bytes.data(), bytes.size()));
}

std::vector<uint8_t> Bytes(const BlobRef& blob) { return std::vector<uint8_t>(blob.data(), blob.data() + blob.size()); }

class PropertyRequestsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { testing::UseIsolatedDirs(); }
  void SetUp() override {
    testing::RemoveStoreFiles();
    {
      CPropertyHandler store{WString(u"Orlenda.configuration")};
      ASSERT_TRUE(store.SetString(u"/components/test_a/filename", ORLENDA_TEST_A_MODULE));
    }
    ASSERT_TRUE(CConfiguration::Load());
  }
  void TearDown() override {
    CConfiguration::Unload();
    testing::RemoveStoreFiles();
  }

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
  LogCapture capture;
  ASSERT_EQ(Serve(SK_CONFIG_SET_STRING_PROPERTY, Input(std::u16string(u"Model\0X1\0", 9))), SKR_SUCCESS);
  EXPECT_TRUE(changed_);
  WString stored;
  EXPECT_TRUE(CConfiguration::WithProperties(
      [&](CPropertyHandler& s) { return s.GetString(u"NAVPRT001/dev1/Model", &stored); }));
  EXPECT_EQ(stored, u"X1");
  BlobRef out;
  ASSERT_EQ(Serve(SK_CONFIG_GET_STRING_PROPERTY, Input(std::u16string(u"Model\0", 6)), &out), SKR_SUCCESS);
  EXPECT_FALSE(changed_);
  EXPECT_EQ(Bytes(out), Bytes(Input(std::u16string(u"X1\0", 3))));  // twice the length plus 2

  ASSERT_EQ(Serve(SK_CONFIG_SET_NUMBER_PROPERTY, Input(std::u16string(u"Baud\0", 5), {0x80, 0x25, 0, 0})), SKR_SUCCESS);
  ASSERT_EQ(Serve(SK_CONFIG_GET_NUMBER_PROPERTY, Input(u"Baud"), &out), SKR_SUCCESS);  // NUL optional on a get
  EXPECT_EQ(Bytes(out), (std::vector<uint8_t>{0x80, 0x25, 0, 0}));

  const std::vector<uint8_t> data{0, 1, 0xFF, 0, 7};
  ASSERT_EQ(Serve(SK_CONFIG_SET_DATA_PROPERTY, Input(std::u16string(u"Logo\0", 5), data)), SKR_SUCCESS);
  ASSERT_EQ(Serve(SK_CONFIG_GET_DATA_PROPERTY, Input(std::u16string(u"Logo\0", 5)), &out), SKR_SUCCESS);
  EXPECT_EQ(Bytes(out), data);

  const std::vector<LogLine> lines = capture.Lines();
  EXPECT_GE(IndexOf(lines, u"-- Ioctl(NAVPRT001/dev1, SK_CONFIG_SET_STRING_PROPERTY, Model, X1)", 4), 0) << Dump(lines);
  EXPECT_GE(IndexOf(lines, u"-- Ioctl(NAVPRT001/dev1, SK_CONFIG_SET_NUMBER_PROPERTY, Baud, 9600)", 4), 0);
  EXPECT_GE(IndexOf(lines, u"-- Ioctl(NAVPRT001/dev1, SK_CONFIG_SET_DATA_PROPERTY, Logo)", 4), 0);
}

TEST_F(PropertyRequestsTest, NameAndTerminatorAloneStoreAnEmptyStringOrData) {
  BlobRef out;
  ASSERT_EQ(Serve(SK_CONFIG_SET_STRING_PROPERTY, Input(std::u16string(u"Note\0", 5))), SKR_SUCCESS);
  ASSERT_EQ(Serve(SK_CONFIG_GET_STRING_PROPERTY, Input(std::u16string(u"Note\0", 5)), &out), SKR_SUCCESS);
  EXPECT_EQ(Bytes(out), (std::vector<uint8_t>{0, 0}));
  ASSERT_EQ(Serve(SK_CONFIG_SET_DATA_PROPERTY, Input(std::u16string(u"Blob\0", 5))), SKR_SUCCESS);
  ASSERT_EQ(Serve(SK_CONFIG_GET_DATA_PROPERTY, Input(std::u16string(u"Blob\0", 5)), &out), SKR_SUCCESS);
  ASSERT_TRUE(out);
  EXPECT_EQ(out.size(), 0u);
}

TEST_F(PropertyRequestsTest, ShortOddAndMissingInputsChangeNothing) {
  ASSERT_EQ(Serve(SK_CONFIG_SET_NUMBER_PROPERTY, Input(std::u16string(u"Baud\0", 5), {1, 0, 0, 0})), SKR_SUCCESS);
  const struct {
    uint32_t code;
    BlobRef input;
    uint32_t result;
  } cases[] = {
      {SK_CONFIG_GET_STRING_PROPERTY, BlobRef(), SKR_INVALID_SIZE},
      {SK_CONFIG_GET_NUMBER_PROPERTY, Input(u""), SKR_INVALID_SIZE},
      {SK_CONFIG_GET_STRING_PROPERTY, Input(std::u16string(u"Nothing\0", 8)), SKR_FAILED},
      {SK_CONFIG_GET_STRING_PROPERTY, Input(std::u16string(u"Baud\0", 5)), SKR_FAILED},  // of another type
      {SK_CONFIG_SET_STRING_PROPERTY, BlobRef(), SKR_INVALID_SIZE},
      {SK_CONFIG_SET_DATA_PROPERTY, Input(u"Baud"), SKR_INVALID_SIZE},        // no terminator
      {SK_CONFIG_SET_DATA_PROPERTY, Input(u"", {'B'}), SKR_INVALID_SIZE},    // one byte
      {SK_CONFIG_SET_NUMBER_PROPERTY, Input(std::u16string(u"Baud\0", 5)), SKR_INVALID_SIZE},
      {SK_CONFIG_SET_NUMBER_PROPERTY, Input(std::u16string(u"Baud\0", 5), {2, 0}), SKR_INVALID_SIZE},
      {SK_CONFIG_SET_NUMBER_PROPERTY, Input(std::u16string(u"Baud\0", 5), {2, 0, 0, 0, 0}), SKR_INVALID_SIZE},
      {SK_CONFIG_SET_STRING_PROPERTY, Input(std::u16string(u"Baud\0", 5), {'x'}), SKR_INVALID_SIZE},  // half a unit
      {SK_CONFIG_SET_STRING_PROPERTY, Input(std::u16string(u"Baud\0x", 6)), SKR_FAILED},  // the type stays
      {SK_CONFIG_SET_STRING_PROPERTY, Input(std::u16string(u"\0x", 2)), SKR_INVALID_PARAMETER},  // no name
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << std::hex << c.code << " with " << std::dec << c.input.size() << " bytes");
    EXPECT_EQ(Serve(c.code, c.input), c.result);
    EXPECT_FALSE(changed_);
  }
  BlobRef out;
  ASSERT_EQ(Serve(SK_CONFIG_GET_NUMBER_PROPERTY, Input(u"Baud"), &out), SKR_SUCCESS);
  EXPECT_EQ(Bytes(out), (std::vector<uint8_t>{1, 0, 0, 0}));
  EXPECT_EQ(ServePropertyRequest(kPort, SK_CONFIG_GET_NUMBER_PROPERTY, Input(u"Baud"), nullptr, &changed_),
            SKR_INVALID_SIZE);
}

}  // namespace
}  // namespace orlenda
