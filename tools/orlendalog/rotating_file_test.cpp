#include "rotating_file.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/isolated_dirs.h"
#include "support/store_files.h"

namespace orlenda::logservice {
namespace {

using testing::ReadBytes;

std::filesystem::path FreshFolder(const char* name) {
  testing::UseIsolatedDirs();
  std::filesystem::path folder = std::filesystem::u8path(testing::DataDir()) / "rotating" / name;
  std::filesystem::remove_all(folder);
  return folder;
}

TEST(RotatingFile, RotatesAtTheLimitAndKeepsTheNewestLinesWhole) {
  const std::filesystem::path folder = FreshFolder("keep2");
  RotatingFile file;
  ASSERT_TRUE(file.Open(folder, "Test", 100, 2));
  // 30 lines of 20 bytes: five to a file, so the current file and two old ones hold the last 15.
  std::string expected;
  for (int i = 0; i < 30; ++i) {
    char line[32];
    ASSERT_EQ(std::snprintf(line, sizeof line, "line %03d ----------\n", i), 20);
    ASSERT_TRUE(file.Append(line));
    if (i >= 15) expected += line;
  }
  ASSERT_TRUE(file.Flush());
  EXPECT_FALSE(std::filesystem::exists(folder / "Test.3.log"));
  const std::string kept = ReadBytes(folder / "Test.2.log") + ReadBytes(folder / "Test.1.log") + ReadBytes(folder / "Test.log");
  EXPECT_EQ(kept, expected);
  for (const char* name : {"Test.log", "Test.1.log", "Test.2.log"}) {
    EXPECT_LE(std::filesystem::file_size(folder / name), 100u) << name;
  }
}

TEST(RotatingFile, AppendsToAnExistingFileAndGivesAnOversizedLineAFileOfItsOwn) {
  const std::filesystem::path folder = FreshFolder("reopen");
  {
    RotatingFile file;
    ASSERT_TRUE(file.Open(folder, "Test", 50, 1));
    ASSERT_TRUE(file.Append("first\n"));
  }
  RotatingFile file;
  ASSERT_TRUE(file.Open(folder, "Test", 50, 1));
  ASSERT_TRUE(file.Append("second\n"));
  // Lines wait in the buffer until the next flush.
  EXPECT_EQ(ReadBytes(folder / "Test.log"), "first\n");
  ASSERT_TRUE(file.Flush());
  EXPECT_EQ(ReadBytes(folder / "Test.log"), "first\nsecond\n");

  const std::string big(80, 'x');
  ASSERT_TRUE(file.Append(big + "\n"));
  ASSERT_TRUE(file.Flush());
  EXPECT_EQ(ReadBytes(folder / "Test.1.log"), "first\nsecond\n");
  EXPECT_EQ(ReadBytes(folder / "Test.log"), big + "\n");
  ASSERT_TRUE(file.Append("after\n"));
  ASSERT_TRUE(file.Flush());
  EXPECT_EQ(ReadBytes(folder / "Test.1.log"), big + "\n");
  EXPECT_EQ(ReadBytes(folder / "Test.log"), "after\n");
}

TEST(RotatingFile, KeepZeroStartsOver) {
  const std::filesystem::path folder = FreshFolder("keep0");
  RotatingFile file;
  ASSERT_TRUE(file.Open(folder, "Test", 10, 0));
  ASSERT_TRUE(file.Append("12345678\n"));
  ASSERT_TRUE(file.Append("abcdefgh\n"));
  ASSERT_TRUE(file.Flush());
  EXPECT_EQ(ReadBytes(folder / "Test.log"), "abcdefgh\n");
  EXPECT_FALSE(std::filesystem::exists(folder / "Test.1.log"));
}

}  // namespace
}  // namespace orlenda::logservice
