// XmlDocument edits. Every edit splices the text in one place and then brings the index in step:
// records behind the splice shift, the elements that enclose it grow or shrink, removed elements
// are marked and unlinked, and new elements get records of their own (at the end of the index,
// so element numbers the caller holds stay valid). A re-parse of the edited text gives the same
// tree with the same offsets.
#include <new>
#include <utility>

#include "settings/xml_document.h"
#include "settings/xml_escape.h"
#include "settings/xml_index.h"
#include "settings/xml_report.h"

namespace orlenda {
namespace {

bool IsBlank(WChar c) { return c == u' ' || c == u'\t'; }
bool IsLineBreak(WChar c) { return c == u'\r' || c == u'\n'; }

// Replaces `remove` characters at `pos` of the document's text by `insert` and keeps the index in
// step. Elements inside the replaced stretch must already be marked removed. A report whose
// findings name places in the text keeps the text as it was.
void Splice(WString* text, XmlReport* report, XmlElementIndex* index, uint32_t pos,
            uint32_t remove, WStringView insert) {
  report->DetachFrom(*text);
  text->replace(pos, remove, insert.data(), insert.size());
  const int64_t delta = static_cast<int64_t>(insert.size()) - static_cast<int64_t>(remove);
  const uint32_t behind = pos + remove;
  const uint32_t count = index->count();
  for (uint32_t id = 1; id < count && delta != 0; ++id) {
    XmlElementRecord& r = (*index)[id];
    if (r.flags & kXmlElementRemoved) continue;
    if (r.offset >= behind) {
      r.offset = static_cast<uint32_t>(r.offset + delta);
    } else if (r.offset < pos && (pos < r.end() || (pos == r.end() && remove == 0 &&
                                                   !r.has_end_tag()))) {
      // The splice lies inside this element: in its start tag, or in its content. Text put right
      // behind an element without an end tag is its content too.
      if (pos < r.offset + r.tag_length) r.tag_length = static_cast<uint32_t>(r.tag_length + delta);
      r.total_length = static_cast<uint32_t>(r.total_length + delta);
    }
  }
  (*index)[0].total_length = static_cast<uint32_t>(text->size());
}

// The blanks and tabs before the "<" at `offset` when they begin its line; empty when something
// else stands before it on the line.
WString LineIndent(const WString& text, uint32_t offset) {
  uint32_t start = offset;
  while (start > 0 && IsBlank(text[start - 1])) --start;
  if (start > 0 && !IsLineBreak(text[start - 1])) return WString();
  return text.substr(start, offset - start);
}

// Where the end tag of a non-empty element begins; the element's end when it has none (an
// element left open by a parse error, whose content may well end in a stray end tag). An end tag
// holds no ">" but its last character, yet it may hold "<" (in its name, or in what follows the
// name), so it is not simply the last "<": it is the first "</" behind the last ">" before it. An
// earlier "</" there would have been read as an end tag running to that same ">".
uint32_t EndTagStart(const WString& text, const XmlElementRecord& r) {
  if (r.is_empty_tag() || !r.has_end_tag()) return r.end();
  const uint32_t content_start = r.offset + r.tag_length;
  uint32_t from = r.end() - 1;  // the ">" of the end tag
  while (from > content_start && text[from - 1] != u'>') --from;
  for (uint32_t p = from; p + 1 < r.end(); ++p) {
    if (text[p] == u'<' && text[p + 1] == u'/') return p;
  }
  return r.end();
}

// "<name attributes/>" becomes "<name attributes></name>", so that the element can take content.
// Blanks and further slashes before the "/" go with it: "<name //>" is an empty-element tag too,
// and what is left must not end in "/".
void ExpandEmptyElement(WString* text, XmlReport* report, XmlElementIndex* index, uint32_t id) {
  const XmlElementRecord r = (*index)[id];
  const uint32_t tag_end = r.offset + r.tag_length;
  uint32_t slash = tag_end - 2;
  while (slash > r.offset + 1 + r.name_length &&
         (IsXmlSpace((*text)[slash - 1]) || (*text)[slash - 1] == u'/')) {
    --slash;
  }
  WString replacement(u"></");
  replacement.append(*text, r.offset + 1, r.name_length).append(u">");
  Splice(text, report, index, slash, tag_end - slash, View(replacement));
  XmlElementRecord& grown = (*index)[id];
  grown.tag_length = slash + 1 - r.offset;
  grown.total_length = grown.tag_length + 3 + r.name_length;
}

uint32_t LastChild(const XmlElementIndex& index, uint32_t parent) {
  uint32_t last = 0;
  for (uint32_t id = index[parent].first_child; id != 0; id = index[id].next_sibling) last = id;
  return last;
}

// Marks an element and everything inside it removed, walking the links without recursion.
void MarkSubtreeRemoved(XmlElementIndex* index, uint32_t top) {
  uint32_t id = top;
  while (true) {
    (*index)[id].flags |= kXmlElementRemoved;
    if ((*index)[id].first_child != 0) {
      id = (*index)[id].first_child;
      continue;
    }
    while (id != top && (*index)[id].next_sibling == 0) id = (*index)[id].parent;
    if (id == top) return;
    id = (*index)[id].next_sibling;
  }
}

// Copies the records [first, end) of a fragment's index into `index`, offsets moved by `shift`.
// Links inside the fragment are renumbered; elements at the fragment's top level get `parent`.
// Returns the number of the first copied record.
uint32_t ImportRecords(const XmlElementIndex& fragment, uint32_t first, uint32_t end,
                       int64_t shift, uint32_t parent, XmlElementIndex* index) {
  const uint32_t base = index->count();
  auto renumber = [&](uint32_t link) { return link == 0 ? 0 : base + (link - first); };
  for (uint32_t source = first; source < end; ++source) {
    const XmlElementRecord& from = fragment[source];
    XmlElementRecord& to = (*index)[index->Add()];
    to = from;
    to.offset = static_cast<uint32_t>(from.offset + shift);
    to.parent = from.parent == 0 ? parent : renumber(from.parent);
    to.first_child = renumber(from.first_child);
    to.next_sibling = renumber(from.next_sibling);
    to.prev_sibling = renumber(from.prev_sibling);
  }
  return base;
}

// Element names the edits write must read back as the same name.
bool IsWritableName(WStringView name) {
  if (name.empty() || !StartsXmlName(name[0])) return false;
  for (WChar c : name) {
    if (EndsXmlName(c) || c == u'<' || c == u'&' || c == u'"' || c == u'\'' || c == u'=' ||
        c == u'?') {
      return false;
    }
  }
  return true;
}

bool IsWritableAttributeName(WStringView name) {
  if (name.empty()) return false;
  for (WChar c : name) {
    if (EndsXmlAttributeName(c) || c == u'<' || c == u'&' || c == u'"' || c == u'\'') return false;
  }
  return true;
}

}  // namespace

XmlRange XmlDocument::ContentRange(ElementId element) const {
  if (!impl_->index.IsElement(element)) return XmlRange();
  const XmlElementRecord& r = impl_->index[element];
  const uint32_t start = r.offset + r.tag_length;
  return XmlRange{start, EndTagStart(text_, r) - start};
}

// Whatever follows an element without an end tag, up to where that element ends, is its content
// to a re-parse; so nothing can be placed behind it at its own level.
bool XmlDocument::CanPlaceAtCursor() const {
  const XmlElementIndex& index = impl_->index;
  const uint32_t after = main_ != 0 ? main_ : LastChild(index, parent_);
  return after == 0 || index[after].has_end_tag();
}

// Layout of added elements: each goes on a line of its own (CR LF), indented like the element it
// follows; the first element inside a parent is indented one step deeper than the parent (two
// blanks, or a tab when the parent is indented with tabs), and the parent's end tag moves to a
// line of its own. A user opening the file sees the usual one-element-per-line layout.
uint32_t XmlDocument::PlaceAtCursor(WStringView element_text) {
  XmlElementIndex& index = impl_->index;
  const uint32_t after = main_ != 0 ? main_ : LastChild(index, parent_);
  const WString parent_indent = parent_ != 0 ? LineIndent(text_, index[parent_].offset) : WString();
  WString insert;
  uint32_t pos = 0;
  uint32_t lead = 0;  // characters of `insert` before the element
  if (after != 0) {
    const WString indent = LineIndent(text_, index[after].offset);
    pos = index[after].end();
    insert.append(u"\r\n").append(indent);
    lead = static_cast<uint32_t>(insert.size());
    insert.append(element_text.data(), element_text.size());
    if (pos < text_.size() && !IsLineBreak(text_[pos])) {
      insert.append(u"\r\n").append(index[after].next_sibling != 0 ? indent : parent_indent);
    }
  } else if (parent_ != 0) {
    if (index[parent_].is_empty_tag()) {
      ExpandEmptyElement(&text_, &impl_->report, &index, parent_);
    }
    const XmlElementRecord& parent = index[parent_];
    WString indent = parent_indent;
    indent.append(parent_indent.find(u'\t') != WString::npos ? u"\t" : u"  ");
    const uint32_t content_start = parent.offset + parent.tag_length;
    pos = EndTagStart(text_, parent);
    uint32_t line_start = pos;
    while (line_start > content_start && IsBlank(text_[line_start - 1])) --line_start;
    if (line_start > content_start && text_[line_start - 1] == u'\n') {
      // The end tag already stands on a line of its own: the element goes on a line before it.
      pos = line_start;
      insert.append(indent);
      lead = static_cast<uint32_t>(insert.size());
      insert.append(element_text.data(), element_text.size()).append(u"\r\n");
    } else {
      insert.append(u"\r\n").append(indent);
      lead = static_cast<uint32_t>(insert.size());
      insert.append(element_text.data(), element_text.size());
      insert.append(u"\r\n").append(parent_indent);
    }
  } else {
    // The first element of the document goes at the end of whatever is there (a declaration, a
    // comment), on a line of its own.
    pos = static_cast<uint32_t>(text_.size());
    if (pos > 0 && text_[pos - 1] != u'\n') insert.append(u"\r\n");
    lead = static_cast<uint32_t>(insert.size());
    insert.append(element_text.data(), element_text.size());
  }
  Splice(&text_, &impl_->report, &index, pos, 0, View(insert));
  return pos + lead;
}

void XmlDocument::LinkAtCursor(ElementId id) {
  XmlElementIndex& index = impl_->index;
  const uint32_t after = main_ != 0 ? main_ : LastChild(index, parent_);
  XmlElementRecord& r = index[id];
  r.parent = parent_;
  r.prev_sibling = after;
  if (after != 0) {
    r.next_sibling = index[after].next_sibling;
    if (r.next_sibling != 0) index[r.next_sibling].prev_sibling = id;
    index[after].next_sibling = id;
  } else {
    r.next_sibling = 0;
    index[parent_].first_child = id;
  }
  main_ = id;
  child_ = 0;
}

bool XmlDocument::AppendElement(WStringView name, WStringView data, uint32_t flags) {
  if (!IsWritableName(name) || text_.size() >= kMaxTextLength || !CanPlaceAtCursor()) {
    return false;
  }
  WString element(u"<");
  element.append(name.data(), name.size());
  uint32_t tag_length = 0;
  if (data.empty()) {
    element.append((flags & kXmlAppendBlankBeforeSlash) != 0 ? u" />" : u"/>");
    tag_length = static_cast<uint32_t>(element.size());
  } else {
    element.append(u">");
    tag_length = static_cast<uint32_t>(element.size());
    element.append(EscapeXml(data, 0)).append(u"</").append(name.data(), name.size()).append(u">");
  }
  const uint32_t offset = PlaceAtCursor(View(element));
  XmlElementIndex& index = impl_->index;
  const uint32_t id = index.Add();
  XmlElementRecord& r = index[id];
  r.offset = offset;
  r.tag_length = tag_length;
  r.total_length = static_cast<uint32_t>(element.size());
  r.name_length = static_cast<uint32_t>(name.size());
  LinkAtCursor(id);
  return true;
}

bool XmlDocument::SetAttribute(WStringView name, WStringView value) {
  XmlElementIndex& index = impl_->index;
  if (!index.IsElement(main_) || !IsWritableAttributeName(name)) return false;
  WString quoted(u"\"");
  quoted.append(EscapeXml(value, kEscapeAttribute)).append(u"\"");
  uint32_t pos = 0;
  uint32_t insert_at = index[main_].offset + 1 + index[main_].name_length;
  XmlAttributeSpan span;
  while (NextXmlAttribute(text_, index[main_], &pos, &span)) {
    if (WStringView(text_.data() + span.name_offset, span.name_length) == name) {
      // The old value, quotes and all, gives way to the new one in double quotes.
      const uint32_t name_end = span.name_offset + span.name_length;
      const bool quoted_value = span.value_offset > name_end &&
                                (text_[span.value_offset - 1] == u'"' ||
                                 text_[span.value_offset - 1] == u'\'');
      if (quoted_value) {
        Splice(&text_, &impl_->report, &index, span.value_offset - 1,
               span.end - span.value_offset + 1, View(quoted));
      } else {
        quoted.insert(0, u"=");
        Splice(&text_, &impl_->report, &index, name_end, span.end - name_end, View(quoted));
      }
      return true;
    }
    insert_at = span.end;
  }
  WString attribute(u" ");
  attribute.append(name.data(), name.size()).append(u"=").append(quoted);
  Splice(&text_, &impl_->report, &index, insert_at, 0, View(attribute));
  return true;
}

// The element goes together with its line when nothing else stands on that line, so that no
// blank line is left behind. The main position moves to the element before it (reset when there
// is none), so a following FindSibling goes on with the element that came after it.
bool XmlDocument::RemoveElement() {
  XmlElementIndex& index = impl_->index;
  if (!index.IsElement(main_)) return false;
  const XmlElementRecord r = index[main_];
  uint32_t start = r.offset;
  uint32_t stop = r.end();
  uint32_t line_start = start;
  while (line_start > 0 && IsBlank(text_[line_start - 1])) --line_start;
  uint32_t line_end = stop;
  while (line_end < text_.size() && IsBlank(text_[line_end])) ++line_end;
  if ((line_end == text_.size() || IsLineBreak(text_[line_end])) && line_start > 0 &&
      text_[line_start - 1] == u'\n') {
    start = line_start - 1;
    if (start > 0 && text_[start - 1] == u'\r') --start;
    stop = line_end;
  }
  MarkSubtreeRemoved(&index, main_);
  if (r.prev_sibling != 0) {
    index[r.prev_sibling].next_sibling = r.next_sibling;
  } else {
    index[r.parent].first_child = r.next_sibling;
  }
  if (r.next_sibling != 0) index[r.next_sibling].prev_sibling = r.prev_sibling;
  Splice(&text_, &impl_->report, &index, start, stop - start, WStringView());
  main_ = r.prev_sibling;
  child_ = 0;
  return true;
}

// Content that does not parse cleanly on its own (an unclosed element, a stray end tag) is
// refused: it would take the element's own end tag with it.
bool XmlDocument::SetContent(WStringView text) {
  XmlElementIndex& index = impl_->index;
  if (!index.IsElement(main_)) return false;
  WString content(text.data(), text.size());  // `text` may be a view of text_
  if (text_.size() + content.size() >= kMaxTextLength) return false;
  XmlElementIndex fragment;
  fragment.Reset(content.size());
  XmlReport& report = impl_->report;
  report.Clear();
  if (ParseXmlElements(View(content), &fragment, &report) != 0) {
    report.KeepSource(std::move(content));
    return false;
  }
  for (uint32_t id = index[main_].first_child; id != 0; id = index[id].next_sibling) {
    MarkSubtreeRemoved(&index, id);
  }
  index[main_].first_child = 0;
  if (index[main_].is_empty_tag()) {
    if (content.empty()) return true;
    ExpandEmptyElement(&text_, &impl_->report, &index, main_);
  }
  const uint32_t content_start = index[main_].offset + index[main_].tag_length;
  const uint32_t content_end = EndTagStart(text_, index[main_]);
  Splice(&text_, &impl_->report, &index, content_start, content_end - content_start,
         View(content));
  const uint32_t first = ImportRecords(fragment, 1, fragment.count(), content_start, main_, &index);
  if (fragment[0].first_child != 0) {
    index[main_].first_child = first + (fragment[0].first_child - 1);
  }
  return true;
}

WString XmlDocument::ExtractSubtree() const {
  const XmlRange range = ElementRange(main_);
  return text_.substr(range.offset, range.length);
}

bool XmlDocument::InsertSubtree(WStringView text) {
  if (!CanPlaceAtCursor()) return false;
  WString subtree(text.data(), text.size());  // `text` may be a view of text_
  if (text_.size() + subtree.size() + 4 >= kMaxTextLength) return false;
  XmlElementIndex fragment;
  fragment.Reset(subtree.size());
  XmlReport& report = impl_->report;
  report.Clear();
  const std::size_t errors = ParseXmlElements(View(subtree), &fragment, &report);
  const char16_t* root_finding = RootFinding(fragment, subtree.empty());
  if (root_finding != nullptr) report.AddPhrase(root_finding);
  if (errors != 0 || root_finding != nullptr) {
    report.KeepSource(std::move(subtree));
    return false;
  }
  const uint32_t root = fragment[0].first_child;
  // Only the root element is taken; a declaration or comments around it stay behind.
  const XmlElementRecord& top = fragment[root];
  const uint32_t offset =
      PlaceAtCursor(WStringView(subtree.data() + top.offset, top.total_length));
  const int64_t shift = static_cast<int64_t>(offset) - static_cast<int64_t>(top.offset);
  const uint32_t id =
      ImportRecords(fragment, root, fragment.count(), shift, parent_, &impl_->index);
  LinkAtCursor(id);
  return true;
}

}  // namespace orlenda
