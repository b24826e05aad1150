// XmlDocument: construction, files, cursor navigation, names, attributes and element paths.
// The parse lives in xml_parser.cpp, the edits in xml_edit.cpp.
#include "settings/xml_document.h"

#include <new>

#include "common/log_format.h"
#include "settings/xml_escape.h"
#include "settings/xml_file.h"
#include "settings/xml_index.h"

namespace orlenda {

XmlDocument::XmlDocument() : impl_(HeapNew<Impl>()) {
  if (!impl_) throw std::bad_alloc();
  impl_->index.Reset(0);
}

XmlDocument::~XmlDocument() = default;

// --- Files ---

bool XmlDocument::LoadFile(const WString& path) {
  WString buffer;
  std::size_t size = 0;
  WString error_text;
  if (!ReadXmlFileBytes(path, &buffer, &size, &error_text)) {
    text_.clear();
    ParseCurrentText();  // an empty document, cursor reset
    report_.swap(error_text);
    return false;
  }
  return LoadBuffer(&buffer, size);
}

bool XmlDocument::LoadBytes(const uint8_t* bytes, std::size_t size) {
  WString buffer;
  PlaceXmlBytes(bytes, size, &buffer);
  return LoadBuffer(&buffer, size);
}

bool XmlDocument::LoadBuffer(WString* buffer, std::size_t size) {
  WString summary;
  DecodeXmlBuffer(buffer, size, &flags_, &summary);
  text_.swap(*buffer);
  const bool well_formed = ParseCurrentText();
  // The read summary comes first, the parse findings after it.
  if (!report_.empty()) summary.append(u", ").append(report_);
  report_.swap(summary);
  return well_formed;
}

bool XmlDocument::SaveFile(const WString& path) {
  WString summary;
  const bool saved = WriteXmlFile(path, View(text_), flags_, &summary);
  report_.swap(summary);
  return saved;
}

bool XmlDocument::HasValidRoot() const {
  const XmlElementIndex& index = impl_->index;
  const uint32_t root = index[0].first_child;
  return root != 0 && index[root].next_sibling == 0 &&
         (index[root].flags & kXmlElementIllFormed) == 0;
}

// --- Elements ---

WString XmlDocument::ElementName(ElementId element) const {
  if (!impl_->index.IsElement(element)) return WString();
  const XmlElementRecord& r = impl_->index[element];
  return text_.substr(r.offset + 1, r.name_length);
}

XmlRange XmlDocument::ElementRange(ElementId element) const {
  if (!impl_->index.IsElement(element)) return XmlRange();
  const XmlElementRecord& r = impl_->index[element];
  return XmlRange{r.offset, r.total_length};
}

XmlRange XmlDocument::StartTagRange(ElementId element) const {
  if (!impl_->index.IsElement(element)) return XmlRange();
  const XmlElementRecord& r = impl_->index[element];
  return XmlRange{r.offset, r.tag_length};
}

bool XmlDocument::IsIllFormed(ElementId element) const {
  return impl_->index.IsElement(element) &&
         (impl_->index[element].flags & kXmlElementIllFormed) != 0;
}

XmlDocument::ElementLinks XmlDocument::Links(ElementId element) const {
  ElementLinks links;
  if (element != 0 && !impl_->index.IsElement(element)) return links;
  const XmlElementRecord& r = impl_->index[element];
  links.parent = r.parent;
  links.first_child = r.first_child;
  links.next_sibling = r.next_sibling;
  links.prev_sibling = r.prev_sibling;
  return links;
}

// --- Navigation ---

namespace {

bool NameIs(const WString& text, const XmlElementRecord& r, WStringView name) {
  return name.empty() || WStringView(text.data() + r.offset + 1, r.name_length) == name;
}

bool IsPath(WStringView name) {
  return name.find_first_of(u" =/[]") != WStringView::npos;
}

// One step of a path: a name and the 1-based count of the element of that name to take.
bool ParseStep(WStringView step, WStringView* name, uint32_t* nth) {
  *nth = 1;
  const std::size_t bracket = step.find(u'[');
  if (bracket == WStringView::npos) {
    *name = step;
    return step.find_first_of(u" =]") == WStringView::npos;
  }
  *name = step.substr(0, bracket);
  if (step.back() != u']' || name->find_first_of(u" =") != WStringView::npos) return false;
  const WStringView digits = step.substr(bracket + 1, step.size() - bracket - 2);
  if (digits.empty() || digits.size() > 9) return false;
  uint32_t n = 0;
  for (WChar c : digits) {
    if (c < u'0' || c > u'9') return false;
    n = n * 10 + static_cast<uint32_t>(c - u'0');
  }
  *nth = n;
  return n != 0;
}

}  // namespace

bool XmlDocument::FindSibling(WStringView name) {
  const XmlElementIndex& index = impl_->index;
  if (!IsPath(name)) {
    uint32_t id = main_ == 0 ? index[parent_].first_child : index[main_].next_sibling;
    for (; id != 0; id = index[id].next_sibling) {
      if (NameIs(text_, index[id], name)) {
        main_ = id;
        child_ = 0;
        return true;
      }
    }
    return false;
  }
  // A path. Every step counts its "[n]" from the first element of its level, so a path names
  // the same element wherever the main position stands; a relative path starts at the current
  // level. Empty steps ("a//b", a trailing "/") are ignored.
  uint32_t level = name.front() == u'/' ? 0 : parent_;
  uint32_t found = 0;
  std::size_t pos = 0;
  while (pos <= name.size()) {
    std::size_t slash = name.find(u'/', pos);
    if (slash == WStringView::npos) slash = name.size();
    const WStringView step = name.substr(pos, slash - pos);
    pos = slash + 1;
    if (step.empty()) continue;
    if (found != 0) level = found;
    WStringView step_name;
    uint32_t nth = 0;
    if (!ParseStep(step, &step_name, &nth)) return false;
    found = 0;
    for (uint32_t id = index[level].first_child; id != 0; id = index[id].next_sibling) {
      if (NameIs(text_, index[id], step_name) && --nth == 0) {
        found = id;
        break;
      }
    }
    if (found == 0) return false;
  }
  if (found == 0) return false;
  parent_ = index[found].parent;
  main_ = found;
  child_ = 0;
  return true;
}

bool XmlDocument::Descend() {
  if (main_ == 0) return false;
  parent_ = main_;
  main_ = 0;
  child_ = 0;
  return true;
}

bool XmlDocument::Ascend() {
  if (parent_ == 0) return false;
  main_ = parent_;
  parent_ = impl_->index[parent_].parent;
  child_ = 0;
  return true;
}

void XmlDocument::ResetMain() {
  main_ = 0;
  child_ = 0;
}

void XmlDocument::ResetAll() {
  parent_ = 0;
  main_ = 0;
  child_ = 0;
}

WString XmlDocument::ElementPath(ElementId element) const {
  const XmlElementIndex& index = impl_->index;
  WString path;
  if (!index.IsElement(element)) return path;
  HeapVector<uint32_t> chain;  // the element and its ancestors, innermost first
  for (uint32_t id = element; id != 0; id = index[id].parent) chain.push_back(id);
  char16_t number[kLogBufferChars];
  for (auto step = chain.rbegin(); step != chain.rend(); ++step) {
    const XmlElementRecord& r = index[*step];
    const WStringView name(text_.data() + r.offset + 1, r.name_length);
    uint32_t nth = 1;
    for (uint32_t s = r.prev_sibling; s != 0; s = index[s].prev_sibling) {
      if (NameIs(text_, index[s], name)) ++nth;
    }
    path.append(u"/").append(name.data(), name.size());
    if (nth > 1) path.append(number, FormatLog(number, u"[%d]", nth));
  }
  return path;
}

// --- Attributes ---

bool NextXmlAttribute(const WString& text, const XmlElementRecord& element, uint32_t* pos,
                      XmlAttributeSpan* out) {
  const uint32_t tag_end = element.offset + element.tag_length - 1;  // the ">"
  uint32_t p = *pos == 0 ? element.offset + 1 + element.name_length : *pos;
  while (p < tag_end) {
    const WChar c = text[p];
    if (IsXmlSpace(c) || EndsXmlAttributeName(c)) {  // separators, a stray "=", "/" or "?"
      ++p;
      continue;
    }
    XmlAttributeSpan span;
    span.name_offset = p;
    while (p < tag_end && !EndsXmlAttributeName(text[p])) ++p;
    span.name_length = p - span.name_offset;
    span.end = p;
    uint32_t q = p;
    while (q < tag_end && IsXmlSpace(text[q])) ++q;
    if (q < tag_end && text[q] == u'=') {
      ++q;
      while (q < tag_end && IsXmlSpace(text[q])) ++q;
      if (q < tag_end && (text[q] == u'"' || text[q] == u'\'')) {
        const WChar quote = text[q];
        uint32_t close = q + 1;
        while (close < tag_end && text[close] != quote) ++close;
        span.value_offset = q + 1;
        span.value_length = close - q - 1;
        span.end = close < tag_end ? close + 1 : close;
      } else {
        // An unquoted value is read up to the next white space, leniently.
        uint32_t stop = q;
        while (stop < tag_end && !IsXmlSpace(text[stop]) && text[stop] != u'/') ++stop;
        span.value_offset = q;
        span.value_length = stop - q;
        span.end = stop;
      }
    } else {
      span.value_offset = span.end;
      span.value_length = 0;
    }
    *pos = span.end;
    *out = span;
    return true;
  }
  *pos = tag_end;
  return false;
}

bool XmlDocument::FindAttribute(WStringView name, XmlRange* value) const {
  const XmlElementIndex& index = impl_->index;
  if (!index.IsElement(main_) || name.empty()) return false;
  const XmlElementRecord& r = index[main_];
  uint32_t pos = 0;
  XmlAttributeSpan span;
  while (NextXmlAttribute(text_, r, &pos, &span)) {
    if (WStringView(text_.data() + span.name_offset, span.name_length) == name) {
      if (value != nullptr) *value = XmlRange{span.value_offset, span.value_length};
      return true;
    }
  }
  return false;
}

WString XmlDocument::GetAttribute(WStringView name) const {
  XmlRange value;
  if (!FindAttribute(name, &value)) return WString();
  return UnescapeXml(WStringView(text_.data() + value.offset, value.length));
}

WString XmlDocument::AttributeNameAt(ElementId element, std::size_t n) const {
  const XmlElementIndex& index = impl_->index;
  if (!index.IsElement(element)) return WString();
  const XmlElementRecord& r = index[element];
  uint32_t pos = 0;
  XmlAttributeSpan span;
  for (std::size_t i = 0; NextXmlAttribute(text_, r, &pos, &span); ++i) {
    if (i == n) return text_.substr(span.name_offset, span.name_length);
  }
  return WString();
}

}  // namespace orlenda
