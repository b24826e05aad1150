// Small pieces the property store is built from: path splitting, decimal numbers, finding an
// element by attribute, and the content of a root element.
#pragma once

#include <cstdint>

#include "common/heap.h"
#include "common/wide_string.h"
#include "settings/xml_document.h"

namespace orlenda {

// Splits at every "/", ignoring empty components: "/a//b/" gives "a", "b".
HeapVector<WString> SplitPropertyPath(WStringView path);

// "<group>/<name>": a property path below a group.
WString JoinPropertyPath(WStringView group, WStringView name);

// Decimal digits up to the first other character; 0 when there are none; a value beyond 32 bits
// reads as 4294967295.
uint32_t ParseDecimal(WStringView text);
WString FormatDecimal(uint32_t value);

// Appends `component` to a folder path with the platform's separator (one, never doubled).
void AppendPathComponent(WString* path, WStringView component);

// From the start of the current level, moves to the first element `element` whose attribute
// `attribute` equals `value`. When there is none the main position is left on the level's last
// element of that name (or reset when there is none), which is where a new one belongs.
bool FindElementWith(XmlDocument* document, WStringView element, WStringView attribute, WStringView value);

// The text between the start and the end tag of `document`'s main element (empty for an
// empty-element tag).
WStringView RootContent(const XmlDocument& document);

}  // namespace orlenda
