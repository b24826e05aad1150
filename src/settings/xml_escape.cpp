#include "settings/xml_escape.h"

#include <cstddef>

namespace orlenda {
namespace {

bool IsAsciiLetter(WChar c) { return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z'); }
bool IsDigit(WChar c) { return c >= u'0' && c <= u'9'; }

int HexValue(WChar c) {
  if (IsDigit(c)) return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

// Whether text[at] == '&' begins a reference: "&", then "#", "_", ":" or a letter, then letters,
// digits, "_", ":", "-", "." , then ";". Every character above 127 counts as a letter, so names
// in any script pass.
bool BeginsReference(WStringView text, std::size_t at) {
  std::size_t i = at + 1;
  if (i >= text.size()) return false;
  WChar first = text[i];
  if (!(first == u'#' || first == u'_' || first == u':' || IsAsciiLetter(first) || first > 127)) {
    return false;
  }
  for (++i; i < text.size(); ++i) {
    WChar c = text[i];
    if (c == u';') return true;
    if (!(IsAsciiLetter(c) || IsDigit(c) || c == u'_' || c == u':' || c == u'-' || c == u'.' ||
          c > 127)) {
      return false;
    }
  }
  return false;
}

// The named entities, without their "&".
struct NamedEntity {
  WStringView name;
  WChar value;
};
constexpr NamedEntity kNamedEntities[] = {
    {u"lt;", u'<'}, {u"amp;", u'&'}, {u"gt;", u'>'}, {u"apos;", u'\''}, {u"quot;", u'"'},
};

// The ";" of a numeric reference must come within this many characters after "&#" (or "&#x"),
// so at most six digits are read.
constexpr std::size_t kNumericReferenceReach = 7;

// Reads "&#N;" or "&#xH;" at text[at] == '&'. Returns the number of characters the reference
// spans and stores its code point, or returns 0 when it is not a numeric reference this decoder
// accepts.
std::size_t ReadNumericReference(WStringView text, std::size_t at, uint32_t* code) {
  std::size_t i = at + 1;
  if (i >= text.size() || text[i] != u'#') return 0;
  ++i;
  bool hex = i < text.size() && text[i] == u'x';
  if (hex) ++i;
  const std::size_t digits_start = i;
  const std::size_t reach_end = digits_start + kNumericReferenceReach;
  uint32_t value = 0;
  for (; i < text.size() && i < reach_end; ++i) {
    WChar c = text[i];
    if (c == u';') break;
    int digit = hex ? HexValue(c) : (IsDigit(c) ? c - u'0' : -1);
    if (digit < 0) return 0;
    value = value * (hex ? 16 : 10) + static_cast<uint32_t>(digit);  // six digits cannot overflow
  }
  if (i >= text.size() || i >= reach_end || text[i] != u';') return 0;
  *code = value;
  return i + 1 - at;
}

void AppendCodePoint(WString* out, uint32_t code) {
  if (code > 0xFFFF) {
    code -= 0x10000;
    out->push_back(static_cast<WChar>(0xD800 + (code >> 10)));
    out->push_back(static_cast<WChar>(0xDC00 + (code & 0x3FF)));
  } else {
    out->push_back(static_cast<WChar>(code));
  }
}

}  // namespace

WString EscapeXml(WStringView text, uint32_t flags) {
  WString out;
  out.reserve(text.size() + text.size() / 10 + 7);
  const bool attribute = (flags & kEscapeAttribute) != 0;
  const bool keep_references = (flags & kEscapeKeepReferences) != 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    WChar c = text[i];
    switch (c) {
      case u'<': out.append(u"&lt;"); break;
      case u'>': out.append(u"&gt;"); break;
      case u'&':
        if (keep_references && BeginsReference(text, i)) {
          out.push_back(c);
        } else {
          out.append(u"&amp;");
        }
        break;
      case u'\'':
        if (attribute) out.append(u"&apos;");
        else out.push_back(c);
        break;
      case u'"':
        if (attribute) out.append(u"&quot;");
        else out.push_back(c);
        break;
      default: out.push_back(c);
    }
  }
  return out;
}

WString UnescapeXml(WStringView text) {
  WString out;
  out.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    WChar c = text[i];
    if (c != u'&') {
      out.push_back(c);
      ++i;
      continue;
    }
    WStringView rest = text.substr(i + 1);
    bool named = false;
    for (const NamedEntity& entity : kNamedEntities) {
      if (rest.substr(0, entity.name.size()) == entity.name) {
        out.push_back(entity.value);
        i += 1 + entity.name.size();
        named = true;
        break;
      }
    }
    if (named) continue;

    // A numeric reference decodes only to a character UTF-16 can hold: a value of 0, a surrogate
    // value (U+D800..U+DFFF) or one above U+10FFFF leaves the "&" literal like any other unknown
    // reference. Values above U+FFFF become a surrogate pair.
    uint32_t code = 0;
    std::size_t span = ReadNumericReference(text, i, &code);
    if (span != 0 && code != 0 && code <= 0x10FFFF && !(code >= 0xD800 && code <= 0xDFFF)) {
      AppendCodePoint(&out, code);
      i += span;
      continue;
    }
    out.push_back(c);  // keep the "&" and go on with the character after it
    ++i;
  }
  return out;
}

WString CdataSection(WStringView text) {
  static constexpr WStringView kOpen = u"<![CDATA[";
  static constexpr WStringView kClose = u"]]>";
  WString out;
  out.reserve(text.size() + kOpen.size() + kClose.size());
  out.append(kOpen);
  // A "]]>" inside the text would end the section early: close the section after its "]]" and
  // open a new one before its ">".
  std::size_t from = 0;
  for (std::size_t at = text.find(kClose); at != WStringView::npos;
       at = text.find(kClose, from)) {
    out.append(text.substr(from, at - from));
    out.append(u"]]]]><![CDATA[>");
    from = at + kClose.size();
  }
  out.append(text.substr(from));
  out.append(kClose);
  return out;
}

WString CommentText(WStringView text) {
  WString out;
  out.reserve(text.size() + 7);
  out.append(u"<!--");
  out.append(text);
  out.append(u"-->");
  return out;
}

}  // namespace orlenda
