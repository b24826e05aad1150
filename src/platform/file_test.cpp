// The file layer: whole reads and writes, replacement in one step, and the error numbers the
// settings store relies on.
#include "platform/file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "platform/errors.h"

namespace orlenda::platform {
namespace {

class FileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::random_device rd;
    for (int attempt = 0; attempt < 100 && dir_.empty(); ++attempt) {
      auto candidate =
          std::filesystem::temp_directory_path() / ("orf" + std::to_string(rd() % 1000000));
      if (std::filesystem::create_directory(candidate)) dir_ = candidate;
    }
    ASSERT_FALSE(dir_.empty());
  }
  void TearDown() override {
    std::error_code ignored;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
  }

  std::u16string PathOf(const std::filesystem::path& name) const { return (dir_ / name).u16string(); }
  std::string ReadBytes(const std::filesystem::path& name) const {
    std::ifstream in(dir_ / name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  void WriteBytes(const std::filesystem::path& name, const std::string& bytes) const {
    std::ofstream out(dir_ / name, std::ios::binary);
    out << bytes;
  }

  std::filesystem::path dir_;
};

std::string ReadAll(File* file) {
  std::string bytes;
  char buffer[7];  // small on purpose: several reads per file
  for (;;) {
    std::size_t got = 0;
    EXPECT_EQ(file->Read(buffer, sizeof(buffer), &got), kErrorSuccess);
    if (got == 0) return bytes;
    bytes.append(buffer, got);
  }
}

TEST_F(FileTest, WriteFlushReadBack) {
  const std::u16string path = PathOf("a.bin");
  const std::string data("line one\r\n\0\xFF tail", 17);
  {
    File file;
    ASSERT_EQ(file.CreateForWriting(path.c_str()), kErrorSuccess);
    EXPECT_EQ(file.Write(data.data(), data.size()), kErrorSuccess);
    EXPECT_EQ(file.FlushToDisk(), kErrorSuccess);
    EXPECT_EQ(file.Close(), kErrorSuccess);
    EXPECT_FALSE(file.is_open());
  }
  File file;
  ASSERT_EQ(file.OpenForReading(path.c_str()), kErrorSuccess);
  uint64_t size = 0;
  EXPECT_EQ(file.Size(&size), kErrorSuccess);
  EXPECT_EQ(size, data.size());
  // A move hands the open file over; the source is closed.
  File moved(std::move(file));
  EXPECT_FALSE(file.is_open());
  ASSERT_TRUE(moved.is_open());
  EXPECT_EQ(ReadAll(&moved), data);
  EXPECT_EQ(moved.Close(), kErrorSuccess);  // Windows lets no writer in while a reader has it

  // Creating again empties the file.
  File again;
  ASSERT_EQ(again.CreateForWriting(path.c_str()), kErrorSuccess);
  EXPECT_EQ(again.Write("x", 1), kErrorSuccess);
  EXPECT_EQ(again.Close(), kErrorSuccess);
  EXPECT_EQ(ReadBytes("a.bin"), "x");
}

TEST_F(FileTest, ReplaceOverExistingFile) {
  WriteBytes("target", std::string(1000, 'o'));
  WriteBytes("source", "new");
  EXPECT_EQ(ReplaceFileWith(PathOf("source").c_str(), PathOf("target").c_str()), kErrorSuccess);
  EXPECT_EQ(ReadBytes("target"), "new");
  EXPECT_FALSE(PathExists(PathOf("source").c_str()));

  // Also when nothing was there before.
  WriteBytes("source", "first");
  EXPECT_EQ(ReplaceFileWith(PathOf("source").c_str(), PathOf("fresh").c_str()), kErrorSuccess);
  EXPECT_EQ(ReadBytes("fresh"), "first");
}

TEST_F(FileTest, MissingFileErrors) {
  const std::u16string missing = PathOf("missing");
  File file;
  EXPECT_EQ(file.OpenForReading(missing.c_str()), kErrorFileNotFound);
  EXPECT_FALSE(file.is_open());
  EXPECT_EQ(RemoveFile(missing.c_str()), kErrorFileNotFound);
  EXPECT_EQ(ReplaceFileWith(missing.c_str(), PathOf("target").c_str()), kErrorFileNotFound);
  EXPECT_FALSE(PathExists(missing.c_str()));
  EXPECT_EQ(file.OpenForReading(u""), kErrorInvalidParameter);

  WriteBytes("present", "x");
  EXPECT_TRUE(PathExists(PathOf("present").c_str()));
  EXPECT_EQ(RemoveFile(PathOf("present").c_str()), kErrorSuccess);
  EXPECT_FALSE(PathExists(PathOf("present").c_str()));
}

TEST_F(FileTest, CreateFolderTwice) {
  const std::u16string folder = PathOf("sub");
  EXPECT_EQ(CreateFolder(folder.c_str()), kErrorSuccess);
  EXPECT_TRUE(PathExists(folder.c_str()));
  EXPECT_EQ(CreateFolder(folder.c_str()), kErrorAlreadyExists);
  // One folder only: a missing parent is an error, and not "already exists".
  const uint32_t error = CreateFolder(PathOf(std::filesystem::path("none") / "sub").c_str());
  EXPECT_NE(error, kErrorSuccess);
  EXPECT_NE(error, kErrorAlreadyExists);
}

TEST_F(FileTest, NonAsciiNames) {
  const std::filesystem::path name = std::filesystem::u8path("gr\xC3\xBC\xC3\x9F" "e-\xE2\x82\xAC");
  File file;
  ASSERT_EQ(file.CreateForWriting(PathOf(name).c_str()), kErrorSuccess);
  EXPECT_EQ(file.Write("ok", 2), kErrorSuccess);
  EXPECT_EQ(file.Close(), kErrorSuccess);
  EXPECT_TRUE(std::filesystem::exists(dir_ / name));  // the same name as the system spells it
  EXPECT_EQ(ReadBytes(name), "ok");
}

TEST(ErrorDescription, SystemTextWithoutLineBreak) {
  char16_t text[256];
  const std::size_t length = ErrorDescription(kErrorFileNotFound, text, 256);
  ASSERT_GT(length, 0u);
  EXPECT_EQ(text[length], 0);
  EXPECT_NE(text[length - 1], u'\n');
  EXPECT_NE(text[length - 1], u'\r');
  // The mapped number has the system's own text, not the fallback.
  EXPECT_NE(std::u16string(text, length).find(u"ile"), std::u16string::npos);
  const std::u16string full(text, length);
  EXPECT_NE(full, u"Error 2");
#ifndef _WIN32
  EXPECT_EQ(std::u16string(text, length), u"No such file or directory");
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
