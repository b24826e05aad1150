// Port stacks: the components that serve one port, chosen from the configuration and opened in
// order, each linked to the one below it (open, close, write, ioctl) and to the one above it
// (events).
//
// A port path is "<port name>/<member name>"; leading and trailing "/" are ignored. The text before
// the last "/" names the stack, whose entries are the children of "/stack/<stack>" in the
// configuration store, in stack order, each named after a loaded component. An entry may carry a
// condition, "requiredName" and "requiredValue": it is then taken only when the per-port property
// "<port path>/<requiredName>" in the properties store equals requiredValue exactly.
//
// Both stores are read under the configuration lock, one store call at a time (the configuration
// store never changes after loading, but its reads move a shared cursor); no lock is held while a
// component opens.
#pragma once

#include <cstdint>

#include "common/heap.h"
#include "common/wide_string.h"
#include "components/component.h"
#include "skein/component.h"

namespace orlenda {

// Components of a stack, top first. The components themselves belong to the component map (or,
// for the wrappers a stack is built with, to whoever made the list).
using ComponentList = HeapVector<CComponent*>;

// Result of ListStackComponents when the stack names no loaded component.
constexpr uint32_t kNoStackComponents = 0x80000008u;

// Appends the components of `stack` whose condition holds for `port_path`. SKR_SUCCESS, or
// SKR_INVALID_SIZE when the stack cannot be enumerated (no configuration is loaded).
uint32_t SelectComponents(WStringView port_path, WStringView stack, ComponentList* list);

// Appends every loaded component of `stack`, conditions ignored. SKR_SUCCESS; SKR_INVALID_SIZE when
// the stack cannot be enumerated; kNoStackComponents when it names no loaded component. Failures
// are traced.
uint32_t ListStackComponents(WStringView stack, ComponentList* list);

// The stack name of a port path: the path stripped of "/" at either end, then the text before its
// last "/", stripped of trailing "/"; empty when the path has no inner "/".
WStringView StackNameOf(WStringView port_path);

// Builds and opens the stack for port `port` at `port_path`. `table` is the caller's layer table:
// its event entry receives the events of the top component, and on success its entries 0-3 become
// the top component's. Returns SKR_SUCCESS, SKR_TRUNCATED when no component of the stack meets its
// condition, SKR_INVALID_SIZE when no configuration is loaded, or the result of the first component
// whose open failed (the components above it are closed again first).
//
// A path without an inner "/" names the built-in configuration port: it consults no stack, opens
// the configuration port (OpenConfigurationPort) and, on success, gets its entry points.
uint32_t OpenStack(uint32_t port, WStringView port_path, SkComponentTable* table);

// Opens the components of `list`, which holds the caller's wrapper first, then the selected
// components, then an empty wrapper standing for "no lower layer". Each component from position 1
// to the last real one gets a layer table made of the entries 0-3 of the element below it and the
// event entry of the element above it, and is opened; when an open fails, the components above it
// are closed from the nearest upwards and that open's result is returned. `path` is handed to
// every open. The part of OpenStack after selection.
uint32_t OpenComponents(uint32_t port, WStringView path, const ComponentList& list);

}  // namespace orlenda
