#include "platform/resource.h"

#include <gtest/gtest.h>

namespace orlenda::platform {
namespace {

// The test executable carries the settings schema as RT_HTML 101, as the service does.
constexpr uint32_t kSchemaId = 101;

// What the document holds is compared byte for byte with its source file where the settings schema
// loads it. Here: the bytes live in the executable, so a second lookup gives the very same bytes,
// not a copy.
TEST(FindModuleResource, FindsTheEmbeddedDocumentInPlace) {
  const uint8_t* data[2] = {};
  std::size_t size[2] = {};
  for (int i = 0; i < 2; ++i) ASSERT_TRUE(FindModuleResource(kResourceTypeHtml, kSchemaId, &data[i], &size[i]));
  ASSERT_NE(data[0], nullptr);
  EXPECT_EQ(data[1], data[0]);
  EXPECT_EQ(size[1], size[0]);
}

TEST(FindModuleResource, MissingResourcesClearTheResults) {
  constexpr uint32_t kRcData = 10;  // RT_RCDATA
  const std::pair<uint32_t, uint32_t> cases[] = {  // type, identifier
      {kResourceTypeHtml, 102},               // unknown identifier
      {kRcData, kSchemaId},                   // right identifier, other type
      {kResourceTypeHtml, 0x10000 + kSchemaId},  // beyond 16 bits: must not alias 101
      {0x10000 + kResourceTypeHtml, kSchemaId},
      {kResourceTypeHtml, 0},
  };
  for (const auto& [type, id] : cases) {
    SCOPED_TRACE(testing::Message() << "type " << type << " id " << id);
    uint8_t dummy = 0;
    const uint8_t* data = &dummy;
    std::size_t size = 12345;
    EXPECT_FALSE(FindModuleResource(type, id, &data, &size));
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(size, 0u);
  }
}

}  // namespace
}  // namespace orlenda::platform
