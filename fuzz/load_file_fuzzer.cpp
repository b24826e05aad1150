// Feeds arbitrary bytes to XmlDocument::LoadBytes (byte-order marks, UTF-16LE with an odd byte
// count, malformed UTF-8) and walks what was read. The same bytes read from a file by LoadFile must
// give the same document. Some inputs are then saved and loaded again: the second reading must give
// the same text and the same encoding flags. A save flushes to disk, which is slow, so only inputs
// whose length is a multiple of 8 take that round trip.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "fuzz/xml_walk.h"
#include "settings/xml_document.h"

namespace {

// One scratch folder per fuzzing process (below $TMPDIR), removed at exit.
struct Scratch {
  Scratch() : dir(std::filesystem::temp_directory_path() / ("orlenda-fuzz-" + std::to_string(getpid()))) {
    std::filesystem::create_directories(dir);
  }
  ~Scratch() {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
  orlenda::WString Path(const char* name) const { return orlenda::Utf8ToWide((dir / name).string()); }
  std::filesystem::path dir;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace orlenda;
  static Scratch scratch;

  if (!std::ofstream(scratch.dir / "input.xml", std::ios::binary).write(reinterpret_cast<const char*>(data), size)) {
    fuzz::Fail("cannot write the input file");
  }

  XmlDocument doc;
  const bool well_formed = doc.LoadBytes(data, size);
  const WString report = doc.GetReport();
  fuzz::WalkAll(&doc, false);

  XmlDocument from_file;
  fuzz::Check(from_file.LoadFile(scratch.Path("input.xml")) == well_formed, "file: same result");
  fuzz::Check(from_file.GetText() == doc.GetText(), "file: same text");
  fuzz::Check(from_file.GetReport() == report, "file: same report");
  fuzz::Check(from_file.flags() == doc.flags(), "file: same flags");
  if (size % 8 != 0) return 0;

  fuzz::Check(doc.SaveFile(scratch.Path("saved.xml")), "save to the scratch folder");
  XmlDocument again;
  (void)again.LoadFile(scratch.Path("saved.xml"));
  fuzz::Check(again.GetText() == doc.GetText(), "a saved document reads back as the same text");
  fuzz::Check(again.flags() == doc.flags(), "a saved document keeps its encoding");
  return 0;
}
