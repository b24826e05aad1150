// The file layer: the error numbers and texts the settings store relies on. Writing, reading and
// replacing are exercised through the settings files' loads and saves.
#include "platform/file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "platform/errors.h"
#include "support/scratch_names.h"

namespace orlenda::platform {
namespace {

using FileTest = testing::ScratchNameTest;

TEST_F(FileTest, ErrorNumbersForMissingAndPresentNames) {
  const std::u16string missing = PathOf("missing");
  File file;
  EXPECT_EQ(file.OpenForReading(missing.c_str()), kErrorFileNotFound);
  EXPECT_FALSE(file.is_open());
  EXPECT_EQ(RemoveFile(missing.c_str()), kErrorFileNotFound);
  EXPECT_EQ(ReplaceFileWith(missing.c_str(), PathOf("target").c_str()), kErrorFileNotFound);
  EXPECT_EQ(file.OpenForReading(u""), kErrorInvalidParameter);
  std::ofstream(dir_ / "present") << "x";
  EXPECT_TRUE(PathExists(PathOf("present").c_str()));
  EXPECT_EQ(RemoveFile(PathOf("present").c_str()), kErrorSuccess);
  EXPECT_FALSE(PathExists(PathOf("present").c_str()));
  // Folders: one at a time; a second creation is "already exists" (so the first made it), a missing
  // parent is not.
  const std::u16string folder = PathOf("sub");
  EXPECT_EQ(CreateFolder(folder.c_str()), kErrorSuccess);
  EXPECT_EQ(CreateFolder(folder.c_str()), kErrorAlreadyExists);
  const uint32_t error = CreateFolder(PathOf(std::filesystem::path("none") / "sub").c_str());
  EXPECT_NE(error, kErrorSuccess);
  EXPECT_NE(error, kErrorAlreadyExists);
}

TEST(ErrorDescription, SystemTextWithoutLineBreak) {
  char16_t text[256];
  const std::size_t length = ErrorDescription(kErrorFileNotFound, text, 256);
  ASSERT_GT(length, 0u);
  EXPECT_EQ(text[length], 0);
  const std::u16string full(text, length);
  EXPECT_EQ(full.find_first_of(u"\r\n"), std::u16string::npos);
  // The mapped number has the system's own text, not the fallback.
  EXPECT_NE(full.find(u"ile"), std::u16string::npos);
#ifndef _WIN32
  EXPECT_EQ(full, u"No such file or directory");
  const std::size_t raw = ErrorDescription(kErrorPosixBase + ENOSPC, text, 256);
  EXPECT_EQ(std::u16string(text, raw), u"No space left on device");
#endif
  // Cut to the buffer, still terminated.
  char16_t small[5];
  EXPECT_EQ(ErrorDescription(kErrorFileNotFound, small, 5), 4u);
  EXPECT_EQ(small[4], 0);
  EXPECT_EQ(std::u16string(small, 4), full.substr(0, 4));
}

}  // namespace
}  // namespace orlenda::platform
