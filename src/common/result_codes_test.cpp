#include "common/result_codes.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>

namespace orlenda {
namespace {

TEST(ResultName, NamesEveryListedCodeAndNothingElse) {
  // Written out by hand, so a code paired with the wrong name in the list shows up here.
  const struct {
    uint32_t code;
    const char16_t* name;
  } known[] = {
      {0x00000000u, u"SKR_SUCCESS"},         {0x80000001u, u"SKR_INVALID_HANDLE"},
      {0x80000002u, u"SKR_FAILED"},          {0x80000003u, u"SKR_INVALID_SIZE"},
      {0x80000004u, u"SKR_INVALID_PARAMETER"}, {0x80000005u, u"SKR_SYSTEM_ERROR"},
      {0x80000006u, u"SKR_OUT_OF_MEMORY"},   {0x80000007u, u"SKR_TRUNCATED"},
      {0x80010000u, u"SKR_NOT_LOCKED"},      {0x80010001u, u"SKR_SUSPENDED"},
      {0x80010003u, u"SKR_LOCK_PENDING"},    {0x80010004u, u"SKR_LOCKED_BY_OTHER"},
  };
  for (const auto& k : known) {
    const char16_t* name = ResultName(k.code);
    ASSERT_NE(name, nullptr) << std::hex << k.code;
    EXPECT_EQ(std::u16string(name), k.name);
  }
  // A code added to the list must be added above as well.
#define ORLENDA_COUNT_RESULT(name, value) +1
  EXPECT_EQ(std::size(known), 0u ORLENDA_RESULT_CODES(ORLENDA_COUNT_RESULT));
#undef ORLENDA_COUNT_RESULT

  for (uint32_t unknown : {0x00000001u, 0x80000000u, 0x80000008u, 0x80010002u, 0xFFFFFFFFu}) {
    EXPECT_EQ(ResultName(unknown), nullptr) << std::hex << unknown;
  }
  EXPECT_TRUE(Succeeded(SKR_SUCCESS));
  EXPECT_FALSE(Succeeded(SKR_NOT_LOCKED));
}

}  // namespace
}  // namespace orlenda
