#include "service/service_data.h"

#include "default_service_data.h"  // generated from config/ at configure time
#include "platform/errors.h"
#include "platform/file.h"
#include "platform/paths.h"
#include "logging/log.h"
#include "service/service_host.h"

namespace orlenda {
namespace {

constexpr const char16_t* kFiles[] = {u"Orlenda.properties", u"Orlenda.configuration"};

void Append(WString* path, WStringView component) {
  if (!path->empty() && path->back() != platform::PathSeparator()) path->push_back(platform::PathSeparator());
  path->append(component.data(), component.size());
}

uint32_t WriteIfMissing(const WString& path, const char* text, std::size_t size) {
  if (platform::PathExists(path.c_str())) return 0;
  platform::File file;
  uint32_t error = file.CreateForWriting(path.c_str());
  if (error == 0) error = file.Write(text, size);
  if (error == 0) error = file.FlushToDisk();
  const uint32_t closed = file.Close();
  return error != 0 ? error : closed;
}

}  // namespace

bool ServiceDataFolder(ServiceHost& host, WString* folder) {
  char16_t buffer[platform::kMaxPathChars];
  std::size_t length = 0;
  uint32_t result = platform::GetCommonAppDataFolder(platform::FolderVersion::kCurrent, buffer,
                                                     platform::kMaxPathChars, &length);
  if (result != 0) {
    result = platform::GetCommonAppDataFolder(platform::FolderVersion::kDefault, buffer, platform::kMaxPathChars,
                                              &length);
  }
  folder->clear();
  if (result != 0) {
    host.Say(host.Message(u"Unable to read CSIDL_COMMON_APPDATA"), 0);
  } else {
    folder->assign(buffer, length);
  }
  Append(folder, u"Morvane");
  Append(folder, u"Orlenda");
  return result == 0;
}

uint32_t RemoveServiceData(ServiceHost& host) {
  WString folder;
  ServiceDataFolder(host, &folder);
  for (const char16_t* name : kFiles) {
    WString path = folder;
    Append(&path, name);
    platform::RemoveFile(path.c_str());
  }
  platform::RemoveEmptyFolder(folder.c_str());  // Orlenda, then Morvane, each when empty
  const std::size_t parent = folder.rfind(platform::PathSeparator());
  if (parent != WString::npos && parent > 0) platform::RemoveEmptyFolder(folder.substr(0, parent).c_str());
  return 0;
}

namespace {

// The data folder, made when missing, with its permissions set.
bool MakeDataFolder(ServiceHost& host, WString* folder) {
  if (!ServiceDataFolder(host, folder)) return false;
  const std::size_t parent = folder->rfind(platform::PathSeparator());
  if (parent != WString::npos) platform::CreateFolder(folder->substr(0, parent).c_str());
  platform::CreateFolder(folder->c_str());
  const uint32_t error = platform::RestrictFolder(folder->c_str());
  if (error != 0) Log(0, u"-- ServiceData: the permissions of %s could not be set <%d>", *folder, error);
  return true;
}

}  // namespace

bool SecureServiceData(ServiceHost& host, WString* refusal) {
  WString folder;
  if (!MakeDataFolder(host, &folder)) return true;  // no folder to check: the load reports it
  for (const char16_t* name : {static_cast<const char16_t*>(nullptr), kFiles[0], kFiles[1]}) {
    WString path = folder;
    if (name != nullptr) Append(&path, name);
    bool trusted = true;
    if (platform::OnlyTrustedMayChange(path.c_str(), &trusted) != 0 || trusted) continue;  // absent, or safe
    *refusal = host.Message(path + u" may be changed by users other than the administrators: the configuration "
                                   u"is refused (let only the administrators write it, and its folder)");
    return false;
  }
  return true;
}

uint32_t WriteDefaultServiceData(ServiceHost& host) {
  WString folder;
  if (!MakeDataFolder(host, &folder)) return platform::kErrorFileNotFound;
  WString configuration = folder;
  Append(&configuration, u"Orlenda.configuration");
  WString properties = folder;
  Append(&properties, u"Orlenda.properties");
  uint32_t error = WriteIfMissing(configuration, kDefaultConfiguration, sizeof(kDefaultConfiguration) - 1);
  if (error == 0) error = WriteIfMissing(properties, kDefaultProperties, sizeof(kDefaultProperties) - 1);
  if (error != 0) host.Say(host.Message(u"Unable to write the default configuration"), 0);
  return error;
}

}  // namespace orlenda
