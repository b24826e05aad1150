// The requests of the configuration port (configuration_requests.h gives their layouts).
#include "ports/configuration_requests.h"

#include <cstring>

#include "common/heap.h"
#include "components/port_stack.h"
#include "logging/log.h"
#include "platform/sync.h"
#include "ports/port_numbering.h"
#include "ports/settings_notice.h"
#include "settings/property_handler.h"
#include "settings/property_path.h"
#include "settings/xml_document.h"
#include "skein/protocol.h"

namespace orlenda {
namespace {

constexpr uint32_t kSettingsSchemaResource = 101;
constexpr char16_t kConfigurationPath[] = u"ConfigurationPath";
constexpr char16_t kPortName[] = u"PortName";
constexpr char16_t kPortType[] = u"PortType";

// Serialises the changing requests of every open of the configuration port: choosing a number
// and storing the new port must be one step, or two opens could give out the same name.
platform::CriticalSection& ChangeLock() {
  static platform::CriticalSection* lock = HeapNew<platform::CriticalSection>();
  return *lock;
}

WStringView StripSlashes(WStringView text) {
  while (!text.empty() && text.front() == u'/') text.remove_prefix(1);
  while (!text.empty() && text.back() == u'/') text.remove_suffix(1);
  return text;
}

bool StoreString(const WString& path, WString* value) {
  return CConfiguration::WithProperties([&](CPropertyHandler& store) { return store.GetString(View(path), value); });
}

bool StoreGroups(WStringView path, HeapVector<WString>* names) {
  return CConfiguration::WithProperties([&](CPropertyHandler& store) { return store.EnumerateGroups(path, names); });
}

// Whether the store holds a group (not merely a property) at `path`.
bool GroupExists(WStringView path) {
  const WStringView stripped = StripSlashes(path);
  if (stripped.empty()) return false;
  const std::size_t last = stripped.rfind(u'/');
  const WStringView parent = last == WStringView::npos ? WStringView() : stripped.substr(0, last);
  const WStringView leaf = last == WStringView::npos ? stripped : stripped.substr(last + 1);
  HeapVector<WString> names;
  if (!StoreGroups(parent, &names)) return false;
  for (const WString& name : names) {
    if (View(name) == leaf) return true;
  }
  return false;
}

// A property text the requests accept: an `xmlroot` document whose properties all carry one of
// the store's three types. Anything else is a value the configuration cannot hold.
bool IsPropertyText(WStringView text) {
  XmlDocument document;
  document.ParseText(text);
  if (!document.HasValidRoot()) return false;
  document.ResetAll();
  if (!document.FindSibling(u"xmlroot") || !document.Descend()) return false;
  while (document.FindSibling(u"property")) {
    const WString type = document.GetAttribute(u"type");
    if (type != u"string" && type != u"number" && type != u"binary") return false;
  }
  return true;
}

// `text` (an accepted property text) with a "ConfigurationPath" property naming `target`, the
// form the store imports.
WString ImportText(WStringView text, WStringView target) {
  XmlDocument document;
  document.ParseText(text);
  document.ResetAll();
  document.FindSibling(u"xmlroot");
  document.Descend();
  document.ResetMain();
  document.AppendElement(u"property", u"", 0);
  document.SetAttribute(u"id", kConfigurationPath);
  document.SetAttribute(u"type", u"string");
  document.SetAttribute(u"value", target);
  return document.GetText();
}

// The components listed under "/stack/<stack>" that are loaded, read without tracing (a port
// without a stack of its own is an ordinary case here).
ComponentList StackMembers(WStringView stack) {
  ComponentList list;
  const WString group = JoinPropertyPath(u"/stack", stack);
  HeapVector<WString> names;
  if (!CConfiguration::WithConfiguration(
          [&](CPropertyHandler& configuration) { return configuration.EnumerateGroups(View(group), &names); })) {
    return list;
  }
  for (const WString& name : names) {
    if (CComponent* component = CConfiguration::FindComponent(View(name))) list.push_back(component);
  }
  return list;
}

uint32_t Output(Blob** output, WStringView text) {
  Blob* blob = TextBlob(text);
  if (blob == nullptr) return SKR_OUT_OF_MEMORY;
  *output = blob;
  return SKR_SUCCESS;
}

}  // namespace

WString BlobText(const BlobRef& blob) {
  const std::size_t units = static_cast<std::size_t>(blob.size() / 2);
  WString text(units, u'\0');
  if (units != 0) std::memcpy(&text[0], blob.data(), units * sizeof(char16_t));
  const std::size_t end = text.find(u'\0');
  if (end != WString::npos) text.resize(end);
  return text;
}

Blob* TextBlob(WStringView text) {
  Blob* blob = BlobCreate((static_cast<uint64_t>(text.size()) + 1) * sizeof(char16_t));
  if (blob != nullptr && !text.empty()) std::memcpy(blob->data(), text.data(), text.size() * sizeof(char16_t));
  return blob;  // zero-filled: the terminator is there already
}

uint32_t ConfigurationObject::Request(uint32_t code, const BlobRef& input, Blob** output) {
  // Compared in this order on purpose: the codes up to SK_CONFIG_APPLY first, then the rest.
  if (code == SK_CONFIG_APPLY) {
    NotifySettingsChanged();
    return SKR_SUCCESS;
  }
  if (code == SK_PORT_LOCK) return SKR_SUCCESS;  // the configuration can always be locked
  if (code == SK_CONFIG_ENUM_PORTS) return EnumPorts(input, output);
  if (code == SK_CONFIG_GET) return Get(input, output);
  if (code == SK_CONFIG_GET_SETTINGS) return GetSettings(input, output, 0);
  if (code == SK_CONFIG_GET_SETTINGS_ALL) return GetSettings(input, output, 1);
  // 0x50070011 and 0x50070012 are the follow-ups a port's serving component gets after an
  // ADD_PORT (the port enumeration sends 0x50070012 with ADD_PORT's output). The configuration
  // port has nothing left to do at that point: both are accepted, change nothing and give no
  // output, so a client may send them to any port alike.
  if (code == SK_CONFIG_REQUEST_11) return SKR_SUCCESS;
  if (code == SK_CONFIG_REQUEST_12) return SKR_SUCCESS;
  if (code == SK_CONFIG_ADD_PORT) return AddPort(input, output);
  if (code == SK_CONFIG_DELETE_PORT) return DeletePort(input);
  if (code == SK_CONFIG_SET) return Set(input);
  return SKR_INVALID_PARAMETER;
}

uint32_t ConfigurationObject::EnumPorts(const BlobRef& input, Blob** output) {
  if (output == nullptr) return SKR_INVALID_SIZE;
  const WString text = BlobText(input);
  WString key = name_;
  if (!text.empty()) key = JoinPropertyPath(View(key), View(text));
  HeapVector<WString> names;
  if (!StoreGroups(View(key), &names)) return SKR_FAILED;

  WString list;  // each name with its NUL, then the empty name closing the list
  WString traced;
  for (const WString& name : names) {
    list += name;
    list += u'\0';
    traced += u' ';
    traced += name;
  }
  // TextBlob adds the closing NUL.
  const uint32_t result = Output(output, View(list));
  if (result != SKR_SUCCESS) return result;
  Log(4, u"-- Ioctl(%s , SK_CONFIG_ENUM_PORTS, %s)%s", name_, text, traced);
  return SKR_SUCCESS;
}

uint32_t ConfigurationObject::Get(const BlobRef& input, Blob** output) {
  if (output == nullptr) return SKR_INVALID_SIZE;
  const WString key = JoinPropertyPath(View(name_), View(BlobText(input)));
  WString xml;
  if (!CConfiguration::WithProperties([&](CPropertyHandler& store) { return store.ExportGroup(View(key), &xml); })) {
    return SKR_FAILED;
  }
  return Output(output, View(xml));
}

WString ConfigurationObject::SettingsPath(WStringView text) const {
  WString path = name_;
  if (!name_.empty() && !text.empty()) path += u'/';
  path += text;
  return path;
}

uint32_t ConfigurationObject::GetSettings(const BlobRef& input, Blob** output, int mode) {
  if (output == nullptr) return SKR_INVALID_SIZE;
  const WString path = SettingsPath(View(BlobText(input)));
  WString document;
  if (path.empty() && mode == 0) {
    // The service's own settings, as they stand in the executable.
    const uint32_t loaded = configuration_.LoadResourceXML(kSettingsSchemaResource, &document);
    if (loaded != SKR_SUCCESS) return loaded;
  } else {
    const uint32_t collected = CollectSettings(View(path), mode, &document);
    if (collected != SKR_SUCCESS) return collected;
  }
  return Output(output, View(document));
}

// Mode 0 asks the components of the stack that the path names ("/stack/<path>", the path
// stripped of "/" at either end): the settings of one port. Mode 1 asks every loaded component,
// in the component map's order, whatever the path: all the settings there are, for a settings
// editor that shows everything at once. Either way each component gets the path, so that it can
// answer for the port concerned; a component that fails or does not know the request adds
// nothing. The documents are merged in order, the first one winning every conflict. No lock is
// held while the components run.
uint32_t ConfigurationObject::CollectSettings(WStringView path, int mode, WString* merged) {
  ComponentList components;
  if (mode == 0) {
    if (ListStackComponents(StripSlashes(path), &components) != SKR_SUCCESS) return SKR_FAILED;
  } else {
    for (const auto& entry : CConfiguration::components()) components.push_back(entry.second.get());
  }
  for (CComponent* component : components) {
    Blob* request = TextBlob(path);
    if (request == nullptr) return SKR_OUT_OF_MEMORY;
    Blob* answer = nullptr;
    const uint32_t result = component->Ioctl(port_, SK_COMPONENT_GET_SETTINGS, request, &answer);
    const BlobRef document = BlobRef::Adopt(answer);
    if (result != SKR_SUCCESS) continue;
    CPropertyHandler::MergeDocuments(merged, View(BlobText(document)));
  }
  return SKR_SUCCESS;
}

// The new port's definition is a property text. Its "ConfigurationPath" names the port's group
// when it holds the port-type prefix; otherwise a new name is chosen. The definition's other
// properties are stored in that group (so a definition can bring a port's settings along), then
// "PortName" and "PortType" are set as strings from the definition. The request then goes to the
// components that serve the port: those of the port's own stack ("/stack/<port>") when it lists
// any, else those of the stack named after its type ("/stack/<PortType>"). They get the request as
// it came, on this port's number; the entry is stored by then, so their answers do not change the
// result.
uint32_t ConfigurationObject::AddPort(const BlobRef& input, Blob** output) {
  if (input.size() == 0 || output == nullptr) return SKR_INVALID_SIZE;
  const WString definition = BlobText(input);
  if (!IsPropertyText(View(definition))) return SKR_INVALID_PARAMETER;
  WString path;
  WString type;
  WString name;
  CPropertyHandler::FindPropertyInText(View(definition), kConfigurationPath, &path);
  CPropertyHandler::FindPropertyInText(View(definition), kPortType, &type);
  CPropertyHandler::FindPropertyInText(View(definition), kPortName, &name);
  WString settings = definition;
  CPropertyHandler::RemovePropertyFromText(&settings, kConfigurationPath);

  WString key;
  {
    platform::ScopedLock hold(ChangeLock());
    if (path.size() >= 6 && path.find(kPortTypePrefix) != WString::npos) {
      WString ignored;
      if (StoreString(JoinPropertyPath(View(path), kPortType), &ignored) || StoreString(JoinPropertyPath(View(path), kPortName), &ignored)) {
        const uint32_t written = Output(output, View(path));
        return written != SKR_SUCCESS ? written : SKR_FAILED;  // the port exists: its path is the answer
      }
      key = path;
    } else {
      // The ports configured so far: the groups at the store's root, where ports live, and those
      // under this configuration port's name.
      HeapVector<WString> ports;
      StoreGroups(WStringView(), &ports);
      if (!name_.empty()) StoreGroups(View(name_), &ports);
      key = NewPortKey(ports);
    }
    const uint32_t written = Output(output, View(key));
    if (written != SKR_SUCCESS) return written;
    if (key.empty()) return SKR_FAILED;  // all 999 numbers are taken

    const bool existed = GroupExists(View(key));
    const WString imported = ImportText(View(settings), View(key));
    const bool stored = CConfiguration::WithProperties([&](CPropertyHandler& store) {
      return store.ImportProperties(View(imported)) && store.SetString(JoinPropertyPath(View(key), kPortName), name) &&
             store.SetString(JoinPropertyPath(View(key), kPortType), type);
    });
    if (!stored) {
      // A group this request made goes again; one that was there keeps what could be stored.
      if (!existed) {
        CConfiguration::WithProperties([&](CPropertyHandler& store) { return store.Delete(View(key)); });
      }
      return SKR_FAILED;
    }
  }
  Log(4, u"-- Ioctl(%s, SK_CONFIG_ADD_PORT, %s)\n%s", name_, key, definition);

  ComponentList components = StackMembers(StripSlashes(View(key)));
  if (components.empty() && !type.empty()) components = StackMembers(View(type));
  for (CComponent* component : components) {
    Blob* answer = nullptr;
    component->Ioctl(port_, SK_CONFIG_ADD_PORT, BlobRef(input).Release(), &answer);
    BlobRelease(answer);
  }
  return SKR_SUCCESS;
}

// The input is the port's store path ("NAVPRT001"); the port's group goes with everything in it.
// Only a group can be deleted this way: a name that is merely a property (a flat setting) is not
// a port, and the removal fails.
uint32_t ConfigurationObject::DeletePort(const BlobRef& input) {
  if (input.size() == 0) return SKR_INVALID_SIZE;
  const WString port = BlobText(input);
  if (StripSlashes(View(port)).empty()) return SKR_INVALID_PARAMETER;  // would name the whole store
  {
    platform::ScopedLock hold(ChangeLock());
    if (!GroupExists(View(port))) return SKR_FAILED;
    if (!CConfiguration::WithProperties([&](CPropertyHandler& store) { return store.Delete(View(port)); })) {
      return SKR_FAILED;
    }
  }
  Log(4, u"-- Ioctl(%s, SK_CONFIG_DELETE_PORT, %s)", name_, port);
  return SKR_SUCCESS;
}

// The input is a property text whose "ConfigurationPath" names a configured port (one that has a
// "PortType"); its other properties replace the port's properties of the same id and type and
// are added where the port has none (the store's import). A text that is no property text, names
// no port, or holds a property of a type the store does not know is an unsupported value; a port
// that is not configured, or a store that cannot take the change, is a failure.
uint32_t ConfigurationObject::Set(const BlobRef& input) {
  if (input.size() == 0) return SKR_INVALID_SIZE;
  const WString settings = BlobText(input);
  if (!IsPropertyText(View(settings))) return SKR_INVALID_PARAMETER;
  WString port;
  if (!CPropertyHandler::FindPropertyInText(View(settings), kConfigurationPath, &port) ||
      StripSlashes(View(port)).empty()) {
    return SKR_INVALID_PARAMETER;
  }
  {
    platform::ScopedLock hold(ChangeLock());
    WString type;
    if (!StoreString(JoinPropertyPath(View(port), kPortType), &type)) return SKR_FAILED;
    if (!CConfiguration::WithProperties(
            [&](CPropertyHandler& store) { return store.ImportProperties(View(settings)); })) {
      return SKR_FAILED;
    }
  }
  Log(4, u"-- Ioctl(%s, SK_CONFIG_SET, %s)\n%s", name_, port, settings);
  return SKR_SUCCESS;
}

}  // namespace orlenda
