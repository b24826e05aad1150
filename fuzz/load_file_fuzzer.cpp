// Feeds arbitrary bytes to XmlDocument::LoadBytes (byte-order marks, UTF-16LE with an odd byte
// count, malformed UTF-8) and walks what was read. The same bytes read from a file by LoadFile must
// give the same document. Some inputs are then saved and loaded again: the second reading must give
// the same text and the same encoding flags. A save flushes to disk, which is slow, so only inputs
// whose length is a multiple of 8 take that round trip.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/xml_walk.h"
#include "settings/xml_document.h"

namespace {

// One scratch folder per fuzzing process, removed at exit.
struct Scratch {
  Scratch() {
    const char* tmp = std::getenv("TMPDIR");
    dir = std::string(tmp != nullptr && tmp[0] != 0 ? tmp : "/tmp") + "/orlenda-fuzz-XXXXXX";
    if (mkdtemp(&dir[0]) == nullptr) orlenda::fuzz::Fail("cannot create a scratch folder");
    input = dir + "/input.xml";
    saved = dir + "/saved.xml";
  }
  ~Scratch() {
    std::remove(input.c_str());
    std::remove(saved.c_str());
    rmdir(dir.c_str());
  }
  std::string dir, input, saved;
};

orlenda::WString WidePath(const std::string& path) { return orlenda::Utf8ToWide(path); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace orlenda;
  static Scratch scratch;

  FILE* file = std::fopen(scratch.input.c_str(), "wb");
  if (file == nullptr) fuzz::Fail("cannot write the input file");
  if (size > 0 && std::fwrite(data, 1, size, file) != size) fuzz::Fail("short write");
  std::fclose(file);

  XmlDocument doc;
  const bool well_formed = doc.LoadBytes(data, size);
  const WString report = doc.GetReport();
  fuzz::WalkAll(&doc, false);

  XmlDocument from_file;
  fuzz::Check(from_file.LoadFile(WidePath(scratch.input)) == well_formed, "file: same result");
  fuzz::Check(from_file.GetText() == doc.GetText(), "file: same text");
  fuzz::Check(from_file.GetReport() == report, "file: same report");
  fuzz::Check(from_file.flags() == doc.flags(), "file: same flags");
  if (size % 8 != 0) return 0;

  fuzz::Check(doc.SaveFile(WidePath(scratch.saved)), "save to the scratch folder");
  XmlDocument again;
  (void)again.LoadFile(WidePath(scratch.saved));
  fuzz::Check(again.GetText() == doc.GetText(), "a saved document reads back as the same text");
  fuzz::Check(again.flags() == doc.flags(), "a saved document keeps its encoding");
  return 0;
}
