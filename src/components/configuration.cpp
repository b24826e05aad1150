#include "components/configuration.h"

#include <algorithm>
#include <cstring>

#include "logging/log.h"
#include "platform/errors.h"
#include "platform/heap.h"
#include "platform/resource.h"
#include "ports/port_table.h"

namespace orlenda {

std::optional<platform::CriticalSection> CConfiguration::lock_;
CPropertyHandler* CConfiguration::properties_ = nullptr;
CPropertyHandler* CConfiguration::configuration_ = nullptr;
CConfiguration::ComponentMap CConfiguration::components_;
SkHostTable CConfiguration::host_table_{};

namespace {

constexpr char16_t kPropertiesFile[] = u"Orlenda.properties";
constexpr char16_t kConfigurationFile[] = u"Orlenda.configuration";
constexpr char16_t kComponentsPath[] = u"/components/";

}  // namespace

bool CConfiguration::Load() {
  bool ok = true;

  // 1. The configuration lock, then the port-table lock of the port handle layer.
  lock_.emplace();
  PortTable::CreateLock();

  // 2. The properties store. A file that cannot be used only gives an empty store, so the one
  // failure here is the allocation. The "%s" has no argument on purpose: the message is kept as
  // operators know it.
  properties_ = HeapNew<CPropertyHandler>(WString(kPropertiesFile));
  if (properties_ == nullptr) {
    Log(0, u"Error allocating PropertyHandler from %sOrlenda.properties");
    ok = false;
  } else {
    // 3. Modules may use the host table from their initialisation on, so it is filled before any
    // module loads.
    FillHostTable(&host_table_);
    configuration_ = HeapNew<CPropertyHandler>(WString(kConfigurationFile));
    if (configuration_ == nullptr) {
      Log(0, u"Error allocating PropertyHandler from Orlenda.configuration");
      ok = false;
    }
  }

  // 4. The component names, in file order.
  HeapVector<WString> names;
  if (ok) {
    configuration_->EnumerateGroups(kComponentsPath, &names);
    if (names.empty()) {
      Log(0, u"No components configured in Orlenda.configuration");
      ok = false;
    }
  }

  // 5. The service's own version line comes whatever happened so far.
  ReportModuleVersion(nullptr);

  // 6. Each component once, in order, until one fails.
  for (const WString& name : names) {
    if (!ok) break;
    // A name listed twice is loaded once.
    if (components_.find(name) != components_.end()) continue;

    WString path(kComponentsPath);
    path += name;
    path += u"/filename";
    WString file_name;
    if (!configuration_->GetString(View(path), &file_name)) {
      Log(0, u"filename property missing from component %s", name);
      ok = false;
      break;
    }

    HeapUnique<CComponent> component(HeapNew<CComponent>(file_name, &host_table_));
    if (component == nullptr || !component->IsLoaded()) {
      Log(0, u"unable to connect to component %s with filename %s", name, file_name);
      if (component != nullptr) component->Unload();
      ok = false;
      break;
    }
    components_.emplace(name, std::move(component));
  }

  // 7. A failed load leaves nothing behind.
  if (!ok) Unload();
  return ok;
}

void CConfiguration::Unload() {
  // 1. Components, lowest name first. A module may still use the host table while it unloads, so
  // the stores outlive every module.
  while (!components_.empty()) {
    auto first = components_.begin();
    first->second->Unload();
    first->second.reset();
    components_.erase(first);
  }

  // 2. The properties store, then the configuration store.
  HeapDelete(properties_);
  properties_ = nullptr;
  HeapDelete(configuration_);
  configuration_ = nullptr;

  // 3. The host table.
  host_table_ = SkHostTable{};

  // 4. The port-table lock, then the configuration lock.
  PortTable::DeleteLock();
  lock_.reset();
}

CComponent* CConfiguration::FindComponent(WStringView name) {
  auto found = components_.find(name);
  return found == components_.end() ? nullptr : found->second.get();
}

uint32_t CConfiguration::LoadResourceXML(uint32_t id, WString* xml) {
  const uint8_t* data = nullptr;
  std::size_t size = 0;
  // The platform finds, loads and locks the resource in one step; a failure of any of them is the
  // resource's absence for this executable.
  if (!platform::FindModuleResource(platform::kResourceTypeHtml, id, &data, &size)) {
    Log(0,
        u"-- CConfiguration::LoadResourceXML Win32API::FindResource(hModule, "
        u"MAKEINTRESOURCE(dwResourceID), RT_HTML) = <%d>",
        platform::LastError());
    return SKR_SYSTEM_ERROR;
  }
  if (size == 0) return SKR_FAILED;

  // Room for every unit the bytes can decode to (never more units than bytes) and a terminator.
  const std::size_t capacity = size + 1;
  auto* buffer = static_cast<char16_t*>(platform::HeapAllocZero(capacity * sizeof(char16_t)));
  if (buffer == nullptr) return SKR_OUT_OF_MEMORY;

  const WString wide = Utf8ToWide(std::string_view(reinterpret_cast<const char*>(data), size));
  if (wide.empty()) {
    platform::HeapFreeBlock(buffer);
    Log(0,
        u"-- CConfiguration::LoadResourceXML Win32API::MultiByteToWideChar(CP_UTF8, 0, pszData, "
        u"dwSize, pszXml, dwSize + 1) = <%d>",
        platform::LastError());
    return SKR_SYSTEM_ERROR;
  }
  const std::size_t units = std::min(wide.size(), capacity - 1);
  std::memcpy(buffer, wide.data(), units * sizeof(char16_t));

  // The text ends at its first NUL, as the bytes of a resource may carry one.
  xml->assign(buffer);
  platform::HeapFreeBlock(buffer);
  return SKR_SUCCESS;
}

}  // namespace orlenda
