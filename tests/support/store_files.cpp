#include "support/store_files.h"

#include <fstream>
#include <iterator>

#include "platform/file.h"
#include "settings/property_handler.h"

namespace orlenda::testing {

WString StorePath(const char16_t* name) {
  CPropertyHandler probe{WString(name)};
  return probe.file_path();
}

void RemoveStoreFiles() {
  for (const char16_t* name : {u"Orlenda.configuration", u"Orlenda.properties"}) {
    const WString path = StorePath(name);
    platform::RemoveFile(path.c_str());
    platform::RemoveFile((path + u".bad").c_str());
  }
}

std::string ReadBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteBytes(const std::filesystem::path& path, const std::string& bytes) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

}  // namespace orlenda::testing
