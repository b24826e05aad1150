// What both fuzz targets do with a document once it is parsed: visit every element through the
// cursor, read everything the element offers, and check the index against the text. A broken
// invariant aborts, so libFuzzer keeps the input that caused it.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include "settings/xml_document.h"

namespace orlenda::fuzz {

[[noreturn]] inline void Fail(const char* what) {
  std::fprintf(stderr, "invariant broken: %s\n", what);
  std::abort();
}

inline void Check(bool condition, const char* what) {
  if (!condition) Fail(what);
}

inline bool RangeInText(const XmlRange& range, const WString& text) {
  return range.offset <= text.size() && range.length <= text.size() - range.offset;
}

// Reads the main element: name, place, attributes by index and by name, its path, and its
// subtree parsed as a document of its own.
inline void VisitMain(XmlDocument* doc, bool extract) {
  const WString& text = doc->GetText();
  XmlDocument::ElementId element = doc->main_position();
  Check(element != 0, "a found element has a number");
  WString name = doc->ElementName(element);
  XmlRange range = doc->ElementRange(element);
  Check(RangeInText(range, text), "element range inside the text");
  Check(range.length > 0 && text[range.offset] == u'<', "an element starts at '<'");
  Check(text.compare(range.offset + 1, name.size(), name) == 0, "the name follows '<'");
  (void)doc->IsIllFormed(element);
  for (std::size_t n = 0; n < range.length; ++n) {
    WString attribute = doc->AttributeNameAt(element, n);
    if (attribute.empty()) break;
    XmlRange value;
    if (doc->FindAttribute(View(attribute), &value)) {
      Check(RangeInText(value, text), "attribute value inside the text");
      Check(value.offset > range.offset &&
                value.offset + value.length <= range.offset + range.length,
            "attribute value inside its element");
    }
    (void)doc->GetAttribute(View(attribute));
  }
  (void)doc->ElementPath(element);
  if (extract) {
    WString subtree = doc->ExtractSubtree();
    XmlDocument part;
    (void)part.ParseText(View(subtree));
  }
}

// Every element, depth first, each one visited exactly once. Returns the number of elements.
// Subtrees are extracted and parsed for the first few elements only, which keeps deeply nested
// inputs from costing the square of their length.
inline std::size_t WalkAll(XmlDocument* doc, bool extract) {
  constexpr std::size_t kExtracted = 32;
  const WString& text = doc->GetText();
  // Each element owns a distinct "<", so there can be no more elements than that.
  std::size_t limit = 0;
  for (WChar c : text) limit += c == u'<';
  std::size_t visited = 0;
  std::size_t depth = 0;
  doc->ResetAll();
  for (;;) {
    if (doc->FindSibling(WStringView())) {
      if (++visited > limit) Fail("more elements than '<' in the text");
      VisitMain(doc, extract && visited <= kExtracted);
      Check(doc->Descend(), "descend into a found element");
      Check(doc->main_position() == 0, "descend resets the main position");
      ++depth;
    } else {
      if (depth == 0) break;
      Check(doc->Ascend(), "ascend from a level that was descended into");
      --depth;
    }
  }
  Check(!doc->Ascend(), "no ascent above document level");
  return visited;
}

inline bool PlainName(const WString& name) { return name.find_first_of(u" =/[]") == WString::npos; }

// Takes paths back to their elements: from document level, ElementPath of an element leads to that
// element, and the first element's name to an element of that name, unless names hold path
// characters.
inline void FindByPaths(XmlDocument* doc) {
  doc->ResetAll();
  if (!doc->FindSibling(WStringView())) return;
  const WString root = doc->ElementName(doc->main_position());
  if (doc->Descend() && doc->FindSibling(WStringView())) {
    const auto child = doc->main_position();
    const bool plain = PlainName(root) && PlainName(doc->ElementName(child));
    const WString path = doc->ElementPath(child);
    doc->ResetAll();
    const bool found = doc->FindSibling(View(path));
    if (plain) Check(found && doc->main_position() == child, "a path leads back to its element");
  }
  doc->ResetAll();
  const bool found = doc->FindSibling(View(root));
  if (PlainName(root)) Check(found && doc->ElementName(doc->main_position()) == root, "a name finds its element");
}

}  // namespace orlenda::fuzz
