#include "platform/resource.h"

#include <gtest/gtest.h>

#include <cstring>

namespace orlenda::platform {
namespace {

// The test executable carries the settings schema as RT_HTML 101, as the service does.
constexpr uint32_t kSchemaId = 101;

TEST(FindModuleResource, FindsTheEmbeddedDocumentInPlace) {
  const uint8_t* data = nullptr;
  std::size_t size = 0;
  ASSERT_TRUE(FindModuleResource(kResourceTypeHtml, kSchemaId, &data, &size));
  ASSERT_NE(data, nullptr);
  constexpr char kDeclaration[] = "<?xml";
  ASSERT_GT(size, sizeof(kDeclaration));
  EXPECT_EQ(std::memcmp(data, kDeclaration, sizeof(kDeclaration) - 1), 0);

  // The bytes live in the executable: a second lookup gives the very same bytes, not a copy.
  const uint8_t* again = nullptr;
  std::size_t again_size = 0;
  ASSERT_TRUE(FindModuleResource(kResourceTypeHtml, kSchemaId, &again, &again_size));
  EXPECT_EQ(again, data);
  EXPECT_EQ(again_size, size);
}

TEST(FindModuleResource, MissingResourcesClearTheResults) {
  constexpr uint32_t kRcData = 10;  // RT_RCDATA
  struct Case {
    uint32_t type;
    uint32_t id;
  } cases[] = {
      {kResourceTypeHtml, 102},               // unknown identifier
      {kRcData, kSchemaId},                   // right identifier, other type
      {kResourceTypeHtml, 0x10000 + kSchemaId},  // beyond 16 bits: must not alias 101
      {0x10000 + kResourceTypeHtml, kSchemaId},
      {kResourceTypeHtml, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "type " << c.type << " id " << c.id);
    uint8_t dummy = 0;
    const uint8_t* data = &dummy;
    std::size_t size = 12345;
    EXPECT_FALSE(FindModuleResource(c.type, c.id, &data, &size));
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(size, 0u);
  }
}

}  // namespace
}  // namespace orlenda::platform
