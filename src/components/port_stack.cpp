#include "components/port_stack.h"

#include "components/configuration.h"
#include "logging/log.h"
#include "ports/configuration_port.h"
#include "settings/property_handler.h"

namespace orlenda {
namespace {

constexpr char16_t kStackPath[] = u"/stack/";

WStringView TrimLeadingSlashes(WStringView text) {
  while (!text.empty() && text.front() == u'/') text.remove_prefix(1);
  return text;
}

WStringView TrimTrailingSlashes(WStringView text) {
  while (!text.empty() && text.back() == u'/') text.remove_suffix(1);
  return text;
}

WStringView StripSlashes(WStringView text) { return TrimTrailingSlashes(TrimLeadingSlashes(text)); }

WString StackGroup(WStringView stack) {
  WString path(kStackPath);
  path.append(stack.data(), stack.size());
  return path;
}

// The names listed under "/stack/<stack>", in stack order. False when there is no configuration
// store to read them from.
bool StackEntries(WStringView stack, HeapVector<WString>* names) {
  const WString group = StackGroup(stack);
  return CConfiguration::WithConfiguration(
      [&](CPropertyHandler& configuration) { return configuration.EnumerateGroups(View(group), names); });
}

// One string of the configuration store.
bool ConfigurationString(const WString& path, WString* value) {
  return CConfiguration::WithConfiguration(
      [&](CPropertyHandler& configuration) { return configuration.GetString(View(path), value); });
}

// Whether the stack entry `name` is part of the stack for `port_path`.
bool ConditionHolds(WStringView port_path, WStringView stack, const WString& name) {
  WString entry = StackGroup(stack);
  entry += u'/';
  entry += name;
  WString required_name;
  WString required_value;
  if (!ConfigurationString(entry + u"/requiredName", &required_name) ||
      !ConfigurationString(entry + u"/requiredValue", &required_value)) {
    return true;  // no complete condition: always part of the stack
  }
  WString property(port_path);
  property += u'/';
  property += required_name;
  WString value;
  if (!CConfiguration::WithProperties(
          [&](CPropertyHandler& store) { return store.GetString(View(property), &value); })) {
    return false;
  }
  return value == required_value;
}

}  // namespace

uint32_t SelectComponents(WStringView port_path, WStringView stack, ComponentList* list) {
  HeapVector<WString> names;
  if (!StackEntries(stack, &names)) return SKR_INVALID_SIZE;
  for (const WString& name : names) {
    CComponent* component = CConfiguration::FindComponent(View(name));
    if (component == nullptr) continue;  // not configured under "/components/": ignored
    if (ConditionHolds(port_path, stack, name)) list->push_back(component);
  }
  return SKR_SUCCESS;
}

uint32_t ListStackComponents(WStringView stack, ComponentList* list) {
  HeapVector<WString> names;
  if (!StackEntries(stack, &names)) {
    Log(0, u"invalid type('%s') in path", stack);
    return SKR_INVALID_SIZE;
  }
  const std::size_t before = list->size();
  for (const WString& name : names) {
    CComponent* component = CConfiguration::FindComponent(View(name));
    if (component != nullptr) list->push_back(component);
  }
  if (list->size() == before) {
    Log(0, u"no available components in path %s", stack);
    return kNoStackComponents;
  }
  return SKR_SUCCESS;
}

WStringView StackNameOf(WStringView port_path) {
  const WStringView path = StripSlashes(port_path);
  const std::size_t last = path.rfind(u'/');
  if (last == WStringView::npos) return WStringView();
  return TrimTrailingSlashes(path.substr(0, last));
}

uint32_t OpenStack(uint32_t port, WStringView port_path, SkComponentTable* table) {
  const WStringView path = StripSlashes(port_path);
  const WStringView stack = StackNameOf(path);
  if (stack.empty()) {
    // A name without "/" is the built-in configuration port, opened under that name; no stack is
    // consulted. On success entries 0-3 of `table` are its Open, Close, Write and Ioctl.
    return OpenConfigurationPort(port, path, table);
  }

  CComponent caller(table);
  ComponentList list;
  list.push_back(&caller);
  const uint32_t selected = SelectComponents(path, stack, &list);
  if (selected != SKR_SUCCESS) return selected;
  if (list.size() == 1) {
    Log(0, u"no components found for configuration");
    return SKR_TRUNCATED;
  }

  CComponent bottom;
  list.push_back(&bottom);
  const uint32_t opened = OpenComponents(port, path, list);
  if (opened != SKR_SUCCESS) return opened;
  list[1]->CopyDownward(table);
  return SKR_SUCCESS;
}

uint32_t OpenComponents(uint32_t port, WStringView path, const ComponentList& list) {
  // Position 0 is the caller, the last position the empty bottom.
  for (std::size_t at = 1; at + 1 < list.size(); ++at) {
    SkComponentTable layers{};
    list[at + 1]->CopyDownward(&layers);
    list[at - 1]->CopyUpward(&layers);
    const uint32_t result = list[at]->Open(port, path, &layers);
    if (result != SKR_SUCCESS) {
      for (std::size_t above = at - 1; above >= 1; --above) list[above]->Close(port);
      return result;
    }
  }
  return SKR_SUCCESS;
}

}  // namespace orlenda
