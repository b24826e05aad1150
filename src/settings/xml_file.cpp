#include "settings/xml_file.h"

#include <cstddef>
#include <cstring>
#include <new>

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
// A file is read into a text buffer of as many units as it has bytes.
constexpr std::size_t kMaxReadBytes = static_cast<std::size_t>(-1) / 4;

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

bool StartsWith(const uint8_t* bytes, std::size_t size, const unsigned char* mark,
                std::size_t length) {
  if (size < length) return false;
  for (std::size_t i = 0; i < length; ++i) {
    if (bytes[i] != mark[i]) return false;
  }
  return true;
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

namespace {

// Makes `buffer` `units` long. The units are appended a zero block at a time: copying a block is
// much faster than the unit-by-unit fill of resize, and a file's buffer is large.
void SetBufferLength(WString* buffer, std::size_t units) {
  static const WChar kZeros[2048] = {};
  buffer->clear();
  buffer->reserve(units);
  while (buffer->size() < units) {
    const std::size_t missing = units - buffer->size();
    buffer->append(kZeros, missing < 2048 ? missing : 2048);
  }
}

// A buffer for `size` bytes has `size` units and a few more, and the bytes begin at the first
// 64-byte boundary at or behind byte offset `size`. A read into memory aligned like that is
// several times faster than one into an odd address.
constexpr std::size_t kAlignBytes = 64;
std::size_t BufferUnits(std::size_t size) { return size + kAlignBytes / 2; }
std::size_t BytesOffset(std::size_t size) { return (size + kAlignBytes - 1) & ~(kAlignBytes - 1); }

uint8_t* UpperHalf(WString* buffer, std::size_t size) {
  return reinterpret_cast<uint8_t*>(&(*buffer)[0]) + BytesOffset(size);
}

bool IsContinuation(uint8_t b) { return (b & 0xC0) == 0x80; }

// UTF-8 in place, a piece at a time. Each piece ends where no sequence can be cut in two: before
// a byte that is not a continuation byte, or after three continuation bytes in a row, which no
// lead byte can reach across. A piece's units never reach beyond its own bytes (units <= bytes,
// and the bytes start at a byte offset of at least their count), so writing them destroys only
// bytes already decoded.
std::size_t DecodeUtf8InPlace(WChar* units, const uint8_t* bytes, std::size_t size) {
  constexpr std::size_t kPiece = 32768;
  std::size_t written = 0;
  std::size_t pos = 0;
  while (pos < size) {
    std::size_t cut = size - pos > kPiece ? pos + kPiece : size;
    if (cut < size) {
      const std::size_t stop = cut;
      for (int back = 0; back < 3 && IsContinuation(bytes[cut]); ++back) --cut;
      if (IsContinuation(bytes[cut])) cut = stop;
    }
    const WString piece =
        Utf8ToWide(std::string_view(reinterpret_cast<const char*>(bytes) + pos, cut - pos));
    std::memcpy(units + written, piece.data(), piece.size() * sizeof(WChar));
    written += piece.size();
    pos = cut;
  }
  return written;
}

// One block of the file's size, filled by one read. The size is only a hint, though: reading goes
// on to the end, so a file that grows meanwhile is still read whole.
uint32_t ReadWhole(const WString& path, WString* buffer, std::size_t* size) {
  buffer->clear();
  *size = 0;
  platform::File file;
  uint32_t error = file.OpenForReading(path.c_str());
  if (error != platform::kErrorSuccess) return error;
  uint64_t hint = 0;
  error = file.Size(&hint);
  if (error != platform::kErrorSuccess) return error;
  if (hint >= static_cast<uint64_t>(kMaxReadBytes)) throw std::bad_alloc();
  const std::size_t expected = static_cast<std::size_t>(hint);
  SetBufferLength(buffer, BufferUnits(expected));
  uint8_t* upper = UpperHalf(buffer, expected);
  std::size_t used = 0;
  while (used < expected) {
    std::size_t got = 0;
    error = file.Read(upper + used, expected - used, &got);
    if (error != platform::kErrorSuccess) return error;
    if (got == 0) break;
    used += got;
  }
  if (used < expected) {
    // The file shrank meanwhile: its bytes move to where a buffer for their number has them.
    HeapString all(reinterpret_cast<const char*>(upper), used);
    PlaceXmlBytes(reinterpret_cast<const uint8_t*>(all.data()), all.size(), buffer);
  } else {
    HeapString more;  // what was added to the file since its size was taken
    char chunk[4096];
    for (;;) {
      std::size_t got = 0;
      error = file.Read(chunk, sizeof(chunk), &got);
      if (error != platform::kErrorSuccess) return error;
      if (got == 0) break;
      more.append(chunk, got);
    }
    if (!more.empty()) {
      HeapString all(reinterpret_cast<const char*>(upper), used);
      all.append(more);
      PlaceXmlBytes(reinterpret_cast<const uint8_t*>(all.data()), all.size(), buffer);
      used = all.size();
    }
  }
  *size = used;
  return platform::kErrorSuccess;
}

}  // namespace

void PlaceXmlBytes(const uint8_t* bytes, std::size_t size, WString* buffer) {
  SetBufferLength(buffer, BufferUnits(size));
  if (size != 0) std::memcpy(UpperHalf(buffer, size), bytes, size);
}

bool ReadXmlFileBytes(const WString& path, WString* buffer, std::size_t* size,
                      WString* error_text) {
  const uint32_t error = ReadWhole(path, buffer, size);
  if (error == platform::kErrorSuccess) return true;
  buffer->clear();
  *size = 0;
  *error_text = SystemText(error);
  return false;
}

void DecodeXmlBuffer(WString* buffer, std::size_t size, uint32_t* flags, WString* summary) {
  WChar* units = &(*buffer)[0];
  const uint8_t* bytes = UpperHalf(buffer, size);
  std::size_t count = 0;
  *flags &= ~(kXmlFlagUtf16Bom | kXmlFlagUtf8Bom);
  if (StartsWith(bytes, size, kUtf8Mark, sizeof(kUtf8Mark))) {
    *flags |= kXmlFlagUtf8Bom;
    const std::size_t rest = size - sizeof(kUtf8Mark);
    count = DecodeUtf8InPlace(units, bytes + sizeof(kUtf8Mark), rest);
    *summary = Summary(u"%s%d bytes to %d wide chars", u"UTF-8 BOM + ", rest, count);
  } else if (StartsWith(bytes, size, kUtf16Mark, sizeof(kUtf16Mark))) {
    *flags |= kXmlFlagUtf16Bom;
    // An odd last byte is half a character: it is dropped.
    count = (size - sizeof(kUtf16Mark)) / 2;
    const uint8_t* in = bytes + sizeof(kUtf16Mark);
    for (std::size_t i = 0; i < count; ++i) {  // little-endian whatever the machine
      units[i] = static_cast<WChar>(in[2 * i] | (in[2 * i + 1] << 8));
    }
    *summary = Summary(u"%s%d wide chars", u"UTF-16LE BOM + ", count);
  } else {
    count = DecodeUtf8InPlace(units, bytes, size);
    *summary = Summary(u"%s%d bytes to %d wide chars", u"", size, count);
  }
  buffer->resize(count);
}

bool ReadXmlFile(const WString& path, WString* text, uint32_t* flags, WString* summary) {
  std::size_t size = 0;
  if (!ReadXmlFileBytes(path, text, &size, summary)) return false;
  DecodeXmlBuffer(text, size, flags, summary);
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
