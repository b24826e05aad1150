#include "rotating_file.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/scratch_names.h"
#include "support/store_files.h"

namespace orlenda::logservice {
namespace {

using testing::ReadBytes;
// Each test's files in a folder two levels below a fresh one: Open makes the missing folders.
using RotatingFileTest = testing::ScratchNameTest;

// Lines of 20 bytes, five to a file of 100: the current file and `keep` old ones hold the newest
// 5 * (keep + 1) lines, each file whole; with none kept the file starts over.
TEST_F(RotatingFileTest, RotatesAtTheLimitAndKeepsTheNewestLinesWhole) {
  for (int keep : {0, 2}) {
    const std::filesystem::path folder = dir_ / "rotating" / std::to_string(keep);
    RotatingFile file;
    ASSERT_TRUE(file.Open(folder, "Test", 100, keep));
    std::string expected;
    for (int i = 0; i < 30; ++i) {
      char line[32];
      ASSERT_EQ(std::snprintf(line, sizeof line, "line %03d ----------\n", i), 20);
      ASSERT_TRUE(file.Append(line));
      if (i >= 25 - 5 * keep) expected += line;
    }
    ASSERT_TRUE(file.Flush());
    std::string kept;
    for (int n = keep; n >= 0; --n) kept += ReadBytes(folder / (n ? "Test." + std::to_string(n) + ".log" : "Test.log"));
    EXPECT_EQ(kept, expected) << keep;
    EXPECT_FALSE(std::filesystem::exists(folder / ("Test." + std::to_string(keep + 1) + ".log"))) << keep;
  }
}

TEST_F(RotatingFileTest, AppendsToAnExistingFileAndGivesAnOversizedLineAFileOfItsOwn) {
  const std::filesystem::path folder = dir_ / "rotating" / "reopen";
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

}  // namespace
}  // namespace orlenda::logservice
