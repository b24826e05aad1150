#include "settings/property_handler.h"

#include "common/log_format.h"
#include "logging/log.h"
#include "platform/file.h"
#include "platform/paths.h"
#include "settings/base64.h"
#include "settings/property_path.h"

namespace orlenda {

CPropertyHandler::CPropertyHandler(const WString& file_name) {
  Locate(file_name);
  Load();
}

CPropertyHandler::CPropertyHandler(const uint8_t* utf8, std::size_t size) {
  // Taken as it is: no check of the parse and no root added, unlike the other two forms.
  if (utf8 != nullptr && size != 0) {
    document_.ParseText(View(Utf8ToWide(std::string_view(reinterpret_cast<const char*>(utf8), size))));
  }
  EnterRoot();
}

CPropertyHandler::CPropertyHandler() { StartEmpty(); }

void CPropertyHandler::Locate(const WString& file_name) {
  char16_t folder[platform::kMaxPathChars];
  std::size_t length = 0;
  uint32_t result = platform::GetCommonAppDataFolder(platform::FolderVersion::kCurrent, folder,
                                                     platform::kMaxPathChars, &length);
  if (result != 0) {
    result = platform::GetCommonAppDataFolder(platform::FolderVersion::kDefault, folder,
                                              platform::kMaxPathChars, &length);
  }
  if (result != 0) {
    Log(0, u"-- CPropertyHandler::CPropertyHandler Win32::SHGetFolderPath(%s) <%d>", file_name, result);
    path_ = file_name.substr(0, kMaxPath);
    return;
  }
  WString path(folder, length);
  // An existing folder is no error; any other failure shows when the file is read or written.
  AppendPathComponent(&path, u"Morvane");
  platform::CreateFolder(path.c_str());
  AppendPathComponent(&path, u"Orlenda");
  platform::CreateFolder(path.c_str());
  AppendPathComponent(&path, View(file_name));
  path_ = path.substr(0, kMaxPath);
}

void CPropertyHandler::Load() {
  if (!document_.LoadFile(path_) || !document_.HasValidRoot()) {
    // The trace line holds kLogTextMax characters at most; a report of a file full of errors
    // is far longer, and only what the line can show is formatted.
    Log(0, u"-- CPropertyHandler::CPropertyHandle(%s) <%s>", path_,
        document_.GetReportHead(kLogTextMax));
    keep_unusable_file_ = platform::PathExists(path_.c_str());
    StartEmpty();
    return;
  }
  EnterRoot();
}

void CPropertyHandler::StartEmpty() {
  document_.ParseText(u"<xmlroot></xmlroot>");
  document_.set_flags(0);  // a new file is UTF-8 without a mark
  EnterRoot();
}

bool CPropertyHandler::Save() {
  if (path_.empty()) return true;
  // The file that could not be read goes aside before the first save writes over its name, and
  // back again when that save fails: a failed save leaves the disk as it was.
  const WString bad = path_ + u".bad";
  const bool set_aside =
      keep_unusable_file_ && platform::ReplaceFileWith(path_.c_str(), bad.c_str()) == 0;
  if (!document_.SaveFile(path_)) {
    if (set_aside) platform::ReplaceFileWith(bad.c_str(), path_.c_str());
    Log(0, u"-- CPropertyHandler::Save(%s) <%s>", path_, document_.GetReport());
    return false;
  }
  keep_unusable_file_ = false;
  return true;
}

template <class Edit>
bool CPropertyHandler::Change(Edit edit) {
  XmlDocument before;
  before.CopyFrom(document_);
  if (!edit()) {
    document_.CopyFrom(before);
    return false;
  }
  return Save();
}

bool CPropertyHandler::EnterRoot() {
  document_.ResetAll();
  return document_.FindSibling(u"") && document_.Descend();
}

bool CPropertyHandler::WalkGroups(const HeapVector<WString>& components, std::size_t count, bool create) {
  if (!EnterRoot()) return false;
  for (std::size_t i = 0; i < count; ++i) {
    if (!FindElementWith(&document_, u"type", u"value", View(components[i]))) {
      if (!create) return false;
      // The search stopped on the level's last group, if any: the new one goes after it.
      if (!document_.AppendElement(u"type", u"", 0) || !document_.SetAttribute(u"value", View(components[i]))) {
        return false;
      }
    }
    if (!document_.Descend()) return false;
  }
  return true;
}

bool CPropertyHandler::GetTyped(WStringView path, WStringView type, WString* value) {
  const HeapVector<WString> components = SplitPropertyPath(path);
  if (components.empty() || !WalkGroups(components, components.size() - 1, false)) return false;
  if (!FindElementWith(&document_, u"property", u"id", View(components.back()))) return false;
  if (document_.GetAttribute(u"type") != type) return false;
  *value = document_.GetAttribute(u"value");
  return true;
}

bool CPropertyHandler::SetTyped(WStringView path, WStringView type, WStringView value) {
  const HeapVector<WString> components = SplitPropertyPath(path);
  if (components.empty()) return false;
  return Change([&] {
    if (!WalkGroups(components, components.size() - 1, true)) return false;
    if (FindElementWith(&document_, u"property", u"id", View(components.back()))) {
      return document_.GetAttribute(u"type") == type && document_.SetAttribute(u"value", value);
    }
    // The search stopped on the level's last property, if any: the new one goes after it.
    return document_.AppendElement(u"property", u"", 0) &&
           document_.SetAttribute(u"id", View(components.back())) &&
           document_.SetAttribute(u"type", type) && document_.SetAttribute(u"value", value);
  });
}

bool CPropertyHandler::GetString(WStringView path, WString* text) { return GetTyped(path, kString, text); }

bool CPropertyHandler::GetNumber(WStringView path, uint32_t* number) {
  WString text;
  if (!GetTyped(path, kNumber, &text)) return false;
  *number = ParseDecimal(View(text));
  return true;
}

bool CPropertyHandler::SetNumber(WStringView path, uint32_t number) {
  return SetTyped(path, kNumber, View(FormatDecimal(number)));
}

bool CPropertyHandler::GetBinary(WStringView path, BlobRef* buffer) {
  WString text;
  if (!GetTyped(path, kBinary, &text)) return false;
  uint8_t bytes[kMaxBinaryBytes];
  const std::size_t count = DecodeBase64(View(text), bytes, sizeof bytes);
  *buffer = count == 0 ? BlobRef() : BlobRef::Adopt(BlobCopy(bytes, count));
  return true;
}

bool CPropertyHandler::SetBinary(WStringView path, const Blob* buffer) {
  const WString text = buffer == nullptr ? WString()
                                         : EncodeBase64(buffer->data(), static_cast<std::size_t>(buffer->size));
  return SetTyped(path, kBinary, View(text));
}

bool CPropertyHandler::EnumerateGroups(WStringView path, HeapVector<WString>* names) {
  const HeapVector<WString> components = SplitPropertyPath(path);
  if (!WalkGroups(components, components.size(), false)) return true;
  document_.ResetMain();
  while (document_.FindSibling(u"type")) names->push_back(document_.GetAttribute(u"value"));
  return true;
}

bool CPropertyHandler::Delete(WStringView path) {
  const HeapVector<WString> components = SplitPropertyPath(path);
  if (components.empty() || !WalkGroups(components, components.size() - 1, false)) return false;
  const WStringView name = View(components.back());
  return Change([&] {
    // A name that is both a property and a group names the property.
    return (FindElementWith(&document_, u"property", u"id", name) ||
            FindElementWith(&document_, u"type", u"value", name)) &&
           document_.RemoveElement();
  });
}

bool CPropertyHandler::ExportGroup(WStringView path, WString* xml) {
  *xml = u"<xmlroot>";
  const HeapVector<WString> components = SplitPropertyPath(path);
  if (WalkGroups(components, components.size(), false)) {
    document_.ResetMain();
    while (document_.FindSibling(u"property")) xml->append(document_.ExtractSubtree());
  }
  xml->append(u"</xmlroot>");
  return true;
}

bool CPropertyHandler::ReplaceGroup(WStringView path, WStringView xml) {
  const HeapVector<WString> components = SplitPropertyPath(path);
  if (components.empty()) {
    return Change([&] {
      document_.ParseText(xml);
      EnterRoot();
      return true;
    });
  }
  XmlDocument source;
  source.ParseText(xml);
  source.ResetAll();
  // Without a root element there is no content to take; the group is left as it is.
  if (!source.FindSibling(u"")) return false;
  const WString content(RootContent(source));
  return Change([&] {
    return WalkGroups(components, components.size(), true) && document_.Ascend() &&
           document_.SetContent(View(content));
  });
}

bool CPropertyHandler::ImportProperties(WStringView xml) {
  XmlDocument source;
  source.ParseText(xml);
  if (!source.HasValidRoot()) return false;
  source.ResetAll();
  if (!source.FindSibling(u"") || !source.Descend()) return false;
  WString target;
  if (FindElementWith(&source, u"property", u"id", u"ConfigurationPath")) {
    target = source.GetAttribute(u"value");
    source.RemoveElement();
  }
  const HeapVector<WString> components = SplitPropertyPath(View(target));
  return Change([&] {
    if (!WalkGroups(components, components.size(), true)) return false;
    source.ResetMain();
    while (source.FindSibling(u"property")) {
      const WString id = source.GetAttribute(u"id");
      const WString type = source.GetAttribute(u"type");
      // Every property of the group with the same id and type gives way to the imported one.
      for (bool removed = true; removed;) {
        removed = false;
        document_.ResetMain();
        while (document_.FindSibling(u"property")) {
          if (document_.GetAttribute(u"id") == id && document_.GetAttribute(u"type") == type) {
            removed = document_.RemoveElement();
            break;
          }
        }
      }
      document_.ResetMain();
      while (document_.FindSibling(u"property")) {
      }
      if (!document_.InsertSubtree(View(source.ExtractSubtree()))) return false;
    }
    return true;
  });
}

bool CPropertyHandler::FindPropertyInText(WStringView xml, WStringView id, WString* value) {
  XmlDocument document;
  document.ParseText(xml);
  document.ResetAll();
  if (!document.FindSibling(u"xmlroot") || !document.Descend()) return false;
  if (!FindElementWith(&document, u"property", u"id", id)) return false;
  *value = document.GetAttribute(u"value");
  return true;
}

bool CPropertyHandler::RemovePropertyFromText(WString* xml, WStringView id) {
  XmlDocument document;
  document.ParseText(View(*xml));
  document.ResetAll();
  if (!document.FindSibling(u"xmlroot") || !document.Descend()) return false;
  if (!FindElementWith(&document, u"property", u"id", id) || !document.RemoveElement()) return false;
  *xml = document.GetText();
  return true;
}

}  // namespace orlenda
