// What both fuzz targets do with a document once it is parsed: visit every element through the
// cursor, read everything the element offers, and check the index against the text. A broken
// invariant aborts, so libFuzzer keeps the input that caused it.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "settings/xml_document.h"
#include "tests/support/xml_document_order.h"

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

// Reads the main element: its place, attributes by index and by name, its path, and its subtree
// parsed as a document of its own. Its name and place in the text are checked by CheckIndex.
inline void VisitMain(XmlDocument* doc, bool extract) {
  const WString& text = doc->GetText();
  XmlDocument::ElementId element = doc->main_position();
  Check(element != 0, "a found element has a number");
  XmlRange range = doc->ElementRange(element);
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

// Every element reachable from the document, in document order; an index whose links loop
// shows as more elements than the text has characters.
inline std::vector<XmlDocument::ElementId> DocumentOrder(const XmlDocument& doc) {
  const std::size_t limit = doc.GetText().size();
  std::vector<XmlDocument::ElementId> order = testing::DocumentOrder(doc, limit);
  Check(order.size() <= limit, "more elements than characters: the links loop");
  return order;
}

// The index against the text: every element starts at "<" and its name, its start tag ends in
// ">" inside it, it lies in its parent's content behind its previous sibling, and the links agree
// both ways.
inline void CheckIndex(const XmlDocument& doc) {
  const WString& text = doc.GetText();
  for (XmlDocument::ElementId id : DocumentOrder(doc)) {
    const XmlRange range = doc.ElementRange(id);
    const XmlRange tag = doc.StartTagRange(id);
    const WString name = doc.ElementName(id);
    const XmlDocument::ElementLinks links = doc.Links(id);
    Check(RangeInText(range, text), "element inside the text");
    Check(tag.offset == range.offset && tag.length <= range.length, "start tag inside its element");
    Check(tag.length >= name.size() + 2, "start tag holds its name");
    Check(text[range.offset] == u'<' && text.compare(range.offset + 1, name.size(), name) == 0,
          "element starts with '<' and its name");
    Check(text[tag.offset + tag.length - 1] == u'>', "start tag ends with '>'");
    if (!doc.IsIllFormed(id) && range.length > tag.length) {
      Check(text[range.offset + range.length - 1] == u'>', "a sound element ends with its end tag");
    }
    if (links.parent != 0) {
      const XmlRange parent = doc.ElementRange(links.parent);
      const XmlRange parent_tag = doc.StartTagRange(links.parent);
      Check(range.offset >= parent_tag.offset + parent_tag.length &&
                range.offset + range.length <= parent.offset + parent.length,
            "element inside its parent's content");
    }
    if (links.prev_sibling != 0) {
      const XmlRange previous = doc.ElementRange(links.prev_sibling);
      Check(doc.Links(links.prev_sibling).next_sibling == id, "sibling links agree");
      Check(previous.offset + previous.length <= range.offset, "siblings in order, apart");
    } else {
      Check(doc.Links(links.parent).first_child == id, "a first sibling is its parent's first");
    }
    if (links.next_sibling != 0) Check(doc.Links(links.next_sibling).prev_sibling == id, "sibling links agree");
    if (links.first_child != 0) Check(doc.Links(links.first_child).parent == id, "a first child names its parent");
  }
}

// Every element, depth first, each one visited exactly once, then the index checked against the
// text. Returns the number of elements.
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
  CheckIndex(*doc);
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
