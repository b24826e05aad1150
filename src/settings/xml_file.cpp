#include "settings/xml_file.h"

#include <cstddef>

#include "common/heap.h"
#include "common/log_format.h"
#include "platform/errors.h"
#include "platform/file.h"
#include "settings/xml_document.h"

namespace orlenda {
namespace {

constexpr unsigned char kUtf8Mark[] = {0xEF, 0xBB, 0xBF};
constexpr unsigned char kUtf16Mark[] = {0xFF, 0xFE};
constexpr WStringView kTemporarySuffix = u".tmp";

WString Summary(const char16_t* format, const LogArg& a, const LogArg& b = LogArg(),
                const LogArg& c = LogArg()) {
  char16_t buffer[kLogBufferChars];
  const LogArg args[] = {a, b, c};
  std::size_t length = FormatLogV(buffer, format, args, 3);
  return WString(buffer, length);
}

WString SystemText(uint32_t error) {
  char16_t buffer[kLogBufferChars];
  std::size_t length = platform::ErrorDescription(error, buffer, kLogBufferChars);
  return WString(buffer, length);
}

bool StartsWith(const HeapString& bytes, const unsigned char* mark, std::size_t length) {
  if (bytes.size() < length) return false;
  for (std::size_t i = 0; i < length; ++i) {
    if (static_cast<unsigned char>(bytes[i]) != mark[i]) return false;
  }
  return true;
}

// Reads the whole file. The size is only a hint for the first allocation: reading goes on to the
// end, so a file that grows meanwhile is still read whole.
uint32_t ReadWholeFile(const WString& path, HeapString* bytes) {
  platform::File file;
  uint32_t error = file.OpenForReading(path.c_str());
  if (error != platform::kErrorSuccess) return error;
  uint64_t size = 0;
  error = file.Size(&size);
  if (error != platform::kErrorSuccess) return error;
  bytes->resize(static_cast<std::size_t>(size) + 1);
  std::size_t used = 0;
  for (;;) {
    if (used == bytes->size()) bytes->resize(bytes->size() * 2);
    std::size_t got = 0;
    error = file.Read(&(*bytes)[used], bytes->size() - used, &got);
    if (error != platform::kErrorSuccess) return error;
    if (got == 0) break;
    used += got;
  }
  bytes->resize(used);
  return platform::kErrorSuccess;
}

// The text as the file's bytes, mark included, in the encoding the flags choose.
HeapString EncodeText(WStringView text, uint32_t flags, WString* summary) {
  HeapString bytes;
  if ((flags & kXmlFlagUtf16Bom) != 0) {
    bytes.reserve(sizeof(kUtf16Mark) + text.size() * 2);
    bytes.append(reinterpret_cast<const char*>(kUtf16Mark), sizeof(kUtf16Mark));
    for (WChar c : text) {  // little-endian whatever the machine
      bytes.push_back(static_cast<char>(c & 0xFF));
      bytes.push_back(static_cast<char>(c >> 8));
    }
    *summary = Summary(u"%s%d wide chars", u"UTF-16LE BOM + ", text.size());
    return bytes;
  }
  const bool mark = (flags & kXmlFlagUtf8Bom) != 0;
  HeapString utf8 = WideToUtf8(text);
  // The byte count leaves the mark out, as the read summary does.
  *summary = Summary(u"%d wide chars to %s%d bytes", text.size(), mark ? u"UTF-8 BOM + " : u"",
                     utf8.size());
  if (!mark) return utf8;
  bytes.reserve(sizeof(kUtf8Mark) + utf8.size());
  bytes.append(reinterpret_cast<const char*>(kUtf8Mark), sizeof(kUtf8Mark));
  bytes.append(utf8);
  return bytes;
}

// Writes `bytes` to a new file at `path` and makes them durable before it is closed.
uint32_t WriteDurably(const WString& path, const HeapString& bytes) {
  platform::File file;
  uint32_t error = file.CreateForWriting(path.c_str());
  if (error == platform::kErrorSuccess) error = file.Write(bytes.data(), bytes.size());
  if (error == platform::kErrorSuccess) error = file.FlushToDisk();
  uint32_t close_error = file.Close();
  return error != platform::kErrorSuccess ? error : close_error;
}

}  // namespace

bool ReadXmlFile(const WString& path, WString* text, uint32_t* flags, WString* summary) {
  text->clear();
  HeapString bytes;
  uint32_t error = ReadWholeFile(path, &bytes);
  if (error != platform::kErrorSuccess) {
    *summary = SystemText(error);
    return false;
  }
  *flags &= ~(kXmlFlagUtf16Bom | kXmlFlagUtf8Bom);
  if (StartsWith(bytes, kUtf8Mark, sizeof(kUtf8Mark))) {
    *flags |= kXmlFlagUtf8Bom;
    std::string_view rest(bytes.data() + sizeof(kUtf8Mark), bytes.size() - sizeof(kUtf8Mark));
    *text = Utf8ToWide(rest);
    *summary = Summary(u"%s%d bytes to %d wide chars", u"UTF-8 BOM + ", rest.size(), text->size());
  } else if (StartsWith(bytes, kUtf16Mark, sizeof(kUtf16Mark))) {
    *flags |= kXmlFlagUtf16Bom;
    // An odd last byte is half a character: it is dropped.
    const std::size_t count = (bytes.size() - sizeof(kUtf16Mark)) / 2;
    text->resize(count);
    const auto* units = reinterpret_cast<const unsigned char*>(bytes.data() + sizeof(kUtf16Mark));
    for (std::size_t i = 0; i < count; ++i) {
      (*text)[i] = static_cast<WChar>(units[2 * i] | (units[2 * i + 1] << 8));
    }
    *summary = Summary(u"%s%d wide chars", u"UTF-16LE BOM + ", count);
  } else {
    *text = Utf8ToWide(std::string_view(bytes.data(), bytes.size()));
    *summary = Summary(u"%s%d bytes to %d wide chars", u"", bytes.size(), text->size());
  }
  return true;
}

bool WriteXmlFile(const WString& path, WStringView text, uint32_t flags, WString* summary,
                  BeforeReplaceHook before_replace) {
  WString encoded_summary;
  const HeapString bytes = EncodeText(text, flags, &encoded_summary);

  // The temporary file sits next to the target so that the replacement stays on one volume and
  // can be a single rename.
  WString temporary = path;
  temporary.append(kTemporarySuffix);
  uint32_t error = WriteDurably(temporary, bytes);
  if (error != platform::kErrorSuccess) {
    platform::RemoveFile(temporary.c_str());
    *summary = SystemText(error);
    return false;
  }
  if (before_replace != nullptr && !before_replace(temporary)) {
    platform::RemoveFile(temporary.c_str());
    *summary = WString(u"Save abandoned before replacing the file");
    return false;
  }
  error = platform::ReplaceFileWith(temporary.c_str(), path.c_str());
  if (error != platform::kErrorSuccess) {
    platform::RemoveFile(temporary.c_str());
    *summary = SystemText(error);
    return false;
  }
  *summary = encoded_summary;
  return true;
}

}  // namespace orlenda
