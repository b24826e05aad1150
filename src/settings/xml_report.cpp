#include "settings/xml_report.h"

#include <utility>

#include "common/log_format.h"

namespace orlenda {
namespace {

// One phrase holds at most kLogTextMax characters, so no more of a name can show in it.
static_assert(kLogTextMax <= 0xFFFF, "a name cut to one phrase fits a record");
uint16_t CutName(uint32_t length) {
  return static_cast<uint16_t>(length < kLogTextMax ? length : kLogTextMax);
}

void AppendPhrase(WString* out, WStringView phrase) {
  if (!out->empty()) out->append(u", ");
  out->append(phrase.data(), phrase.size());
}

// A stretch of the source; never beyond its end, whatever a record says.
WStringView Stretch(WStringView source, uint32_t at, uint32_t length) {
  return at > source.size() ? WStringView() : source.substr(at, length);
}

const char16_t* IncorrectWhat(XmlFinding kind) {
  switch (kind) {
    case XmlFinding::kIncorrectNameStart:
      return u"tag name character";
    case XmlFinding::kIncorrectBang:
      return u"! tag";
    default:
      return u"comment tag";
  }
}

const char16_t* ConstructName(XmlFinding kind) {
  switch (kind) {
    case XmlFinding::kUnterminatedElementTag:
      return u"Element tag";
    case XmlFinding::kUnterminatedEndTag:
      return u"Element end tag";
    case XmlFinding::kUnterminatedCdata:
      return u"CDATA Section";
    case XmlFinding::kUnterminatedInstruction:
      return u"Processing instruction";
    case XmlFinding::kUnterminatedComment:
      return u"Comment";
    case XmlFinding::kUnterminatedDoctype:
      return u"Doctype";
    default:
      return u"tag";
  }
}

}  // namespace

void XmlReport::Clear() {
  text_.clear();
  pending_.clear();
  phrases_.clear();
  source_.clear();
  own_source_ = false;
  names_document_ = false;
}

void XmlReport::KeepSource(WString&& text) {
  source_ = std::move(text);
  own_source_ = true;
  names_document_ = false;
}

void XmlReport::DetachFrom(const WString& document_text) {
  if (!names_document_) return;
  source_ = document_text;
  own_source_ = true;
  names_document_ = false;
}

void XmlReport::AddPhrase(WStringView phrase) {
  pending_.push_back(Record{static_cast<uint32_t>(phrases_.size()),
                            static_cast<uint32_t>(phrase.size()), 0, 0, XmlFinding::kPhrase});
  phrases_.append(phrase.data(), phrase.size());
}

void XmlReport::Add(XmlFinding kind, uint32_t at, uint32_t name_length, uint32_t other,
                    uint32_t other_name_length) {
  pending_.push_back(Record{at, other, CutName(name_length), CutName(other_name_length), kind});
  if (!own_source_) names_document_ = true;
}

WStringView XmlReport::Source(const WString& document_text) const {
  return View(own_source_ ? source_ : document_text);
}

void XmlReport::Format(const Record& r, WStringView source, WString* out) const {
  char16_t buffer[kLogBufferChars];
  std::size_t length = 0;
  switch (r.kind) {
    case XmlFinding::kPhrase:
      AppendPhrase(out, View(phrases_).substr(r.at, r.other));
      return;
    case XmlFinding::kIncorrectNameStart:
    case XmlFinding::kIncorrectBang:
    case XmlFinding::kIncorrectComment:
      length = FormatLog(buffer, u"Incorrect %s at offset %d", IncorrectWhat(r.kind), r.at);
      break;
    case XmlFinding::kNoStartTag:
      length = FormatLog(buffer, u"No start tag for end tag '%s' at offset %d",
                         Stretch(source, r.at + 2, r.name_length), r.at);
      break;
    case XmlFinding::kMismatch:
      length =
          FormatLog(buffer, u"End tag '%s' at offset %d does not match start tag '%s' at offset %d",
                    Stretch(source, r.at + 2, r.name_length), r.at,
                    Stretch(source, r.other + 1, r.other_name_length), r.other);
      break;
    case XmlFinding::kNotEnded:
      length = FormatLog(buffer, u"Element '%s' at offset %d not ended",
                         Stretch(source, r.at + 1, r.name_length), r.at);
      break;
    default:
      length = FormatLog(buffer, u"%s at offset %d unterminated", ConstructName(r.kind), r.at);
      break;
  }
  AppendPhrase(out, WStringView(buffer, length));
}

const WString& XmlReport::Text(const WString& document_text) const {
  if (pending_.empty()) return text_;
  // One allocation for the whole text rather than a series of ever larger ones: a phrase is no
  // longer than its format's own text (60 characters at most), its names and two numbers (11
  // characters each at most).
  std::size_t bound = text_.size();
  for (const Record& r : pending_) {
    const std::size_t phrase =
        r.kind == XmlFinding::kPhrase ? r.other : 82u + r.name_length + r.other_name_length;
    bound += 2 + (phrase < kLogTextMax ? phrase : kLogTextMax);
  }
  text_.reserve(bound);
  const WStringView source = Source(document_text);
  for (const Record& r : pending_) Format(r, source, &text_);
  // Formatted: the records, their phrases and the text they named are no longer needed.
  HeapVector<Record>().swap(pending_);
  WString().swap(phrases_);
  WString().swap(source_);
  own_source_ = false;
  names_document_ = false;
  return text_;
}

WString XmlReport::Head(const WString& document_text, std::size_t max_chars) const {
  WString head = text_.substr(0, max_chars);
  const WStringView source = Source(document_text);
  for (std::size_t i = 0; i < pending_.size() && head.size() < max_chars; ++i) {
    Format(pending_[i], source, &head);
  }
  if (head.size() > max_chars) head.resize(max_chars);
  return head;
}

}  // namespace orlenda
