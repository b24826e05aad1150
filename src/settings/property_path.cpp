#include "settings/property_path.h"

#include "platform/paths.h"

namespace orlenda {

HeapVector<WString> SplitPropertyPath(WStringView path) {
  HeapVector<WString> components;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find(u'/', start);
    if (end == WStringView::npos) end = path.size();
    if (end > start) components.emplace_back(path.substr(start, end - start));
    start = end + 1;
  }
  return components;
}

WString JoinPropertyPath(WStringView group, WStringView name) {
  WString path(group);
  path += u'/';
  path += name;
  return path;
}

uint32_t ParseDecimal(WStringView text) {
  uint64_t value = 0;
  for (char16_t c : text) {
    if (c < u'0' || c > u'9') break;
    value = value * 10 + static_cast<uint64_t>(c - u'0');
    if (value > 0xFFFFFFFFull) return 0xFFFFFFFFu;
  }
  return static_cast<uint32_t>(value);
}

WString FormatDecimal(uint32_t value) {
  char16_t digits[10];
  std::size_t n = 0;
  do {
    digits[n++] = static_cast<char16_t>(u'0' + value % 10);
    value /= 10;
  } while (value != 0);
  WString text;
  while (n > 0) text.push_back(digits[--n]);
  return text;
}

void AppendPathComponent(WString* path, WStringView component) {
  const char16_t separator = platform::PathSeparator();
  if (!path->empty() && path->back() != separator && path->back() != u'/') path->push_back(separator);
  path->append(component);
}

bool FindElementWith(XmlDocument* document, WStringView element, WStringView attribute, WStringView value) {
  document->ResetMain();
  while (document->FindSibling(element)) {
    if (document->GetAttribute(attribute) == value) return true;
  }
  return false;
}

WStringView RootContent(const XmlDocument& document) {
  const XmlRange content = document.ContentRange(document.main_position());
  return WStringView(document.GetText()).substr(content.offset, content.length);
}

}  // namespace orlenda
