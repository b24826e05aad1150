// XmlDocument: construction, files, cursor navigation, names, attributes and element paths.
// The parse lives in xml_parser.cpp, the edits in xml_edit.cpp.
#include "settings/xml_document.h"

#include <new>

#include "common/log_format.h"
#include "settings/xml_escape.h"
#include "settings/xml_file.h"
#include "settings/xml_index.h"
#include "settings/xml_scan.h"

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
    impl_->report.Clear();
    impl_->report.AddPhrase(View(error_text));
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
  return ParseCurrentText(View(summary));  // the read summary first, the parse findings after it
}

bool XmlDocument::SaveFile(const WString& path) {
  WString summary;
  const bool saved = WriteXmlFile(path, View(text_), flags_, &summary);
  impl_->report.Clear();
  impl_->report.AddPhrase(View(summary));
  return saved;
}

void XmlDocument::CopyFrom(const XmlDocument& other) {
  if (this == &other) return;
  text_ = other.text_;
  flags_ = other.flags_;
  parent_ = other.parent_;
  main_ = other.main_;
  child_ = other.child_;
  impl_->index = other.impl_->index;
  impl_->report = other.impl_->report;
}

const WString& XmlDocument::GetReport() const { return impl_->report.Text(text_); }

WString XmlDocument::GetReportHead(std::size_t max_chars) const {
  return impl_->report.Head(text_, max_chars);
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

// The tag grammar of xml_scan.h: every quote met outside a name or value opens a stretch that is
// stepped over whole, as the parse stepped over it, so that no edit can split a stretch the parse
// paired.
bool NextXmlAttribute(const WString& text, const XmlElementRecord& element, uint32_t* pos,
                      XmlAttributeSpan* out) {
  const WChar* const base = text.data();
  const WChar* const tag_end = base + element.offset + element.tag_length - 1;  // the ">"
  auto offset = [base](const WChar* p) { return static_cast<uint32_t>(p - base); };
  // Behind the stretch that the quote at `p` opens.
  auto behind_quoted = [tag_end](const WChar* p) {
    const WChar* close = FindXmlQuoteClose(p, tag_end);
    return close < tag_end ? close + 1 : tag_end;
  };
  const WChar* p = base + (*pos == 0 ? element.offset + 1 + element.name_length : *pos);
  while (p < tag_end) {
    if (IsXmlQuote(*p)) {  // a quoted stretch that is no attribute's value
      p = behind_quoted(p);
      continue;
    }
    if (EndsXmlAttributeName(*p)) {  // separators, a stray "=", "/" or "?"
      ++p;
      continue;
    }
    XmlAttributeSpan span;
    span.name_offset = offset(p);
    while (p < tag_end && !EndsXmlAttributeName(*p) && !IsXmlQuote(*p)) ++p;
    span.name_length = offset(p) - span.name_offset;
    span.value_offset = span.end = offset(p);
    const WChar* q = p;
    while (q < tag_end && IsXmlSpace(*q)) ++q;
    if (q < tag_end && *q == u'=') {
      ++q;
      while (q < tag_end && IsXmlSpace(*q)) ++q;
      const WChar* stop = q;
      if (q < tag_end && IsXmlQuote(*q)) {
        const WChar* close = FindXmlQuoteClose(q, tag_end);
        span.value_offset = offset(q + 1);
        span.value_length = offset(close) - span.value_offset;
        stop = close < tag_end ? close + 1 : tag_end;
      } else {
        // An unquoted value is read up to the next white space, "/" or quote, leniently.
        while (stop < tag_end && !IsXmlSpace(*stop) && *stop != u'/' && !IsXmlQuote(*stop)) ++stop;
        span.value_offset = offset(q);
        span.value_length = offset(stop) - span.value_offset;
      }
      span.end = offset(stop);
    }
    *pos = span.end;
    *out = span;
    return true;
  }
  *pos = offset(tag_end);
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
