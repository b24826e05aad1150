// XmlDocument: the system's own XML class. One UTF-16 text is the document; an index of fixed-size
// element records says where every element lies in it. Navigation moves a cursor; edits splice the
// text and shift the offsets of everything behind the splice, so the layout a document was read
// with survives a save untouched.
//
// Accepted subset: start, end and empty-element tags with quoted attributes, comments, CDATA
// sections, processing instructions and a document type declaration (both skipped as units), and
// text with entity references. Parsing never stops on an error: each finding goes into the report
// (phrases joined by ", ") and the element concerned is flagged ill-formed.
//
// Element numbers: 0 is the document itself (the parent of the root) and also means "no element".
// Records live in segments of 65,536; the high 16 bits of a number select the segment.
//
// Not safe for use by several threads at once; owners serialise access.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/heap.h"
#include "common/wide_string.h"

namespace orlenda {

// Document flags, set by LoadFile and obeyed by SaveFile.
constexpr uint32_t kXmlFlagUtf16Bom = 0x1;  // the file was UTF-16LE with a byte-order mark
constexpr uint32_t kXmlFlagUtf8Bom = 0x4;   // the file was UTF-8 with a byte-order mark

// Flags of AppendElement.
constexpr uint32_t kXmlAppendBlankBeforeSlash = 0x4;  // write "<name />" instead of "<name/>"

// A stretch of the document text, in characters.
struct XmlRange {
  std::size_t offset = 0;
  std::size_t length = 0;
};

class XmlDocument {
 public:
  using ElementId = uint32_t;

  XmlDocument();
  ~XmlDocument();
  XmlDocument(const XmlDocument&) = delete;
  XmlDocument& operator=(const XmlDocument&) = delete;

  // Replaces the document by `text`, rebuilds the index, resets the cursor. True when well formed:
  // no parse error and a valid single root.
  bool ParseText(WStringView text);
  const WString& GetText() const { return text_; }

  // Reads a file (UTF-8 with or without a mark, UTF-16LE with a mark), then ParseText. The report
  // begins with the read summary. False when the file cannot be read (the report then holds the
  // system's description) or the document is not well formed.
  bool LoadFile(const WString& path);
  // What LoadFile does with the bytes it read: the mark decides the encoding and the flags, the
  // report begins with the read summary, then ParseText. True when well formed.
  bool LoadBytes(const uint8_t* bytes, std::size_t size);
  // Writes the text in the encoding the flags record, replacing the file in one step so that no
  // reader ever sees a half-written file.
  bool SaveFile(const WString& path);

  // Takes a copy of `other`'s whole state: text, index, cursor, flags and report. Lets an owner keep
  // the document as it was before a change and put it back when the change fails part-way.
  void CopyFrom(const XmlDocument& other);

  bool HasValidRoot() const;
  // The last operation's report. A parse keeps its findings as records; their phrases are
  // formatted on the first read, so a text full of errors costs little to parse.
  const WString& GetReport() const;
  // The first `max_chars` characters of the report, without formatting the rest of it.
  WString GetReportHead(std::size_t max_chars) const;
  uint32_t flags() const { return flags_; }
  void set_flags(uint32_t flags) { flags_ = flags; }

  // --- Cursor navigation (true when found; the cursor moves only then) ---
  // Next element at the current level named `name` (empty: any). A name holding blank, "=", "/",
  // "[" or "]" is a path: steps separated by "/", a leading "/" starts at document level, a step
  // may end in "[n]" to take the n-th element of that name (from 1).
  bool FindSibling(WStringView name);
  bool Descend();
  bool Ascend();
  void ResetMain();
  void ResetAll();

  ElementId parent_position() const { return parent_; }
  ElementId main_position() const { return main_; }
  ElementId child_position() const { return child_; }

  // The tag name of an element; empty for 0 or an unknown number.
  WString ElementName(ElementId element) const;
  // Where the element lies: from "<" of its start tag to the end of its end tag.
  XmlRange ElementRange(ElementId element) const;
  bool IsIllFormed(ElementId element) const;
  // The start tag (or empty-element tag) of an element, "<" to ">".
  XmlRange StartTagRange(ElementId element) const;
  // What lies between the start tag and the end tag of an element (up to its end when a parse error
  // left it without one); empty for an empty-element tag.
  XmlRange ContentRange(ElementId element) const;

  // The tree links of an element (0 where there is none); all zero for an unknown number. Lets a
  // caller walk the elements without moving the cursor. Links(0).first_child is the first element
  // at document level.
  struct ElementLinks {
    ElementId parent = 0;
    ElementId first_child = 0;
    ElementId next_sibling = 0;
    ElementId prev_sibling = 0;
  };
  ElementLinks Links(ElementId element) const;

  // --- Attributes of the main element ---
  WString GetAttribute(WStringView name) const;  // entity references decoded; empty when absent
  bool FindAttribute(WStringView name, XmlRange* value) const;  // the raw value's place in the text
  bool SetAttribute(WStringView name, WStringView value);
  // Name of the n-th attribute (from 0) of `element`; empty when it has fewer.
  WString AttributeNameAt(ElementId element, std::size_t n) const;

  // --- Edits at the main position ---
  // Adds an element after the main element (after the level's last one when the main position is
  // reset), on a line of its own ended by CR LF, and makes it the main element. `data` is text
  // content and is escaped; empty data writes an empty-element tag.
  bool AppendElement(WStringView name, WStringView data, uint32_t flags);
  bool RemoveElement();
  // Replaces everything between the main element's start and end tag by `text`, parsed and
  // indexed as child content.
  bool SetContent(WStringView text);
  // The main element with all its content, as a document text of its own.
  WString ExtractSubtree() const;
  // Parses `text` and inserts its root element, with content, after the main element; the
  // inserted element becomes the main element.
  bool InsertSubtree(WStringView text);
  // "/" and the name of each ancestor from the root down to `element`, with "[n]" after a step
  // that is the n-th of its name among its siblings, for n > 1.
  WString ElementPath(ElementId element) const;

 private:
  struct Impl;
  // Offsets in the index are 32-bit.
  static constexpr std::size_t kMaxTextLength = 0xFFFFFFF0u;

  // The part of LoadFile and LoadBytes after the bytes are in `buffer` (see xml_file.h): decode,
  // parse, report.
  bool LoadBuffer(WString* buffer, std::size_t size);
  // Parses text_ as it stands: rebuilds the index, resets the cursor, fills the report (after
  // `summary`, when one is given).
  bool ParseCurrentText(WStringView summary = WStringView());
  // Puts `element_text` (one element, starting at its "<") on a line of its own after the main
  // element, or after the level's last element when the main position is reset; returns the
  // offset where the element now begins.
  uint32_t PlaceAtCursor(WStringView element_text);
  // Whether PlaceAtCursor can put an element there: not behind an element that has no end tag.
  bool CanPlaceAtCursor() const;
  // Links element `id` (already indexed at its place) into the current level after the main
  // element, or after the level's last element, and makes it the main element.
  void LinkAtCursor(ElementId id);
  WString text_;
  uint32_t flags_ = 0;
  ElementId parent_ = 0;
  ElementId main_ = 0;
  ElementId child_ = 0;
  HeapUnique<Impl> impl_;
};

}  // namespace orlenda
