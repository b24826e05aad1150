// The element index of XmlDocument, shared by its parser, navigation and edit code (private).
//
// One fixed-size record per element, addressed by element number. Records live in segments of
// 65,536: the high 16 bits of a number select the segment, the low 16 bits the record in it, so
// an element number is also the element's ordinal in the order records were made. Record 0 is the
// document (parent of the root element); 0 in a link means "no element".
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/heap.h"
#include "common/wide_string.h"
#include "settings/xml_document.h"
#include "settings/xml_report.h"

namespace orlenda {

// Record flags.
constexpr uint32_t kXmlElementIllFormed = 0x1;  // the element had a parse error
constexpr uint32_t kXmlElementRemoved = 0x2;    // removed by an edit; linked from nowhere
// Left open by a parse error: the element has no end tag of its own and ends where the text ends
// or where the end tag of an enclosing element begins. Its last character is therefore not part
// of it, and text put exactly at its end goes into it: a re-parse would take it in.
constexpr uint32_t kXmlElementNoEndTag = 0x4;

struct XmlElementRecord {
  uint32_t offset = 0;        // "<" of the start tag
  uint32_t tag_length = 0;    // start tag (or empty-element tag), "<" to ">"
  uint32_t total_length = 0;  // "<" of the start tag to the end of the end tag
  uint32_t name_length = 0;   // the tag name, which starts at offset + 1
  uint32_t flags = 0;
  uint32_t parent = 0;
  uint32_t first_child = 0;
  uint32_t next_sibling = 0;
  uint32_t prev_sibling = 0;

  uint32_t end() const { return offset + total_length; }
  bool has_end_tag() const { return (flags & kXmlElementNoEndTag) == 0; }
  // "<name/>": nothing but its tag, and no end tag to follow. An element left open right behind
  // its start tag is not one.
  bool is_empty_tag() const { return tag_length == total_length && has_end_tag(); }
};

class XmlElementIndex {
 public:
  static constexpr uint32_t kSegmentBits = 16;
  static constexpr uint32_t kSegmentSize = 1u << kSegmentBits;

  // Drops every record and starts again with record 0 alone, reserving room for
  // text_length / 64 + 8 records.
  void Reset(std::size_t text_length);

  // A new zeroed record at the end; its number is returned.
  uint32_t Add();

  XmlElementRecord& operator[](uint32_t id) {
    return segments_[id >> kSegmentBits][id & (kSegmentSize - 1)];
  }
  const XmlElementRecord& operator[](uint32_t id) const {
    return segments_[id >> kSegmentBits][id & (kSegmentSize - 1)];
  }

  uint32_t count() const { return count_; }  // records, record 0 included
  // A live element (not the document, not removed, not out of range).
  bool IsElement(uint32_t id) const {
    return id != 0 && id < count_ && ((*this)[id].flags & kXmlElementRemoved) == 0;
  }

 private:
  HeapVector<HeapVector<XmlElementRecord>> segments_;
  uint32_t count_ = 0;
  std::size_t estimate_ = 0;
};

struct XmlDocument::Impl {
  XmlElementIndex index;
  XmlReport report;
};

// The one-pass parse. Fills `index` (which must have been Reset for `text`) with every element of
// `text` and adds each finding to `report`, naming places in `text`. Returns the number of
// findings. The document-level checks (empty text, root count) are the caller's.
std::size_t ParseXmlElements(WStringView text, XmlElementIndex* index, XmlReport* report);

// The document-level finding of a parsed text, or nullptr when it has one root element and
// nothing beside it: "Empty document", "No root element" or "Root element has sibling".
const char16_t* RootFinding(const XmlElementIndex& index, bool empty_text);

// One attribute inside a start tag, as offsets into the text.
struct XmlAttributeSpan {
  uint32_t name_offset = 0;
  uint32_t name_length = 0;
  uint32_t value_offset = 0;  // the raw value, inside its quotes
  uint32_t value_length = 0;
  uint32_t end = 0;  // just behind the attribute (behind the closing quote)
};

// Steps through the attributes of `element`'s start tag. `*pos` starts at 0 and is advanced;
// false when there are no more.
bool NextXmlAttribute(const WString& text, const XmlElementRecord& element, uint32_t* pos,
                      XmlAttributeSpan* out);

// Characters of the tag grammar. The sets below ASCII 64 are tested as bits of one word, which
// the parser's inner loops like better than a chain of comparisons.
constexpr uint64_t kXmlSpaceBits = (1ull << ' ') | (1ull << '\t') | (1ull << '\n') | (1ull << '\r');
constexpr uint64_t kXmlNameEndBits = kXmlSpaceBits | (1ull << '/') | (1ull << '>');
inline bool IsXmlSpace(WChar c) { return c < 64 && ((kXmlSpaceBits >> c) & 1) != 0; }
// A name runs until one of blank, tab, LF, CR, "/" or ">".
inline bool EndsXmlName(WChar c) { return c < 64 && ((kXmlNameEndBits >> c) & 1) != 0; }
inline bool EndsXmlAttributeName(WChar c) {
  return c == u'=' || IsXmlSpace(c) || c == u'>' || c == u'/' || c == u'?';
}
// A tag name begins with a letter, "_", ":" or any character above 127.
inline bool StartsXmlName(WChar c) {
  return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || c == u'_' || c == u':' ||
         c > 127;
}

}  // namespace orlenda
