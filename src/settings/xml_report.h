// The report of XmlDocument (private): the last operation's findings, read as one text of phrases
// joined by ", ".
//
// A parse of a text full of errors finds one thing every few characters. Formatting each finding
// as it is found would cost more than the parse itself and write a report several times the size
// of the text, which most callers never read. So a finding is kept as a compact record (what was
// found, where, and where the names it quotes stand in the text) and the phrases are formatted
// when the report is first read, exactly as they would have been at the time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/heap.h"
#include "common/wide_string.h"

namespace orlenda {

enum class XmlFinding : uint8_t {
  kPhrase,              // ready-made text, kept in the report itself
  kIncorrectNameStart,  // "Incorrect tag name character at offset %d"
  kIncorrectBang,       // "Incorrect ! tag at offset %d"
  kIncorrectComment,    // "Incorrect comment tag at offset %d"
  kUnterminatedTag,     // "%s at offset %d unterminated", with the construct's name
  kUnterminatedElementTag,
  kUnterminatedEndTag,
  kUnterminatedCdata,
  kUnterminatedInstruction,
  kUnterminatedComment,
  kUnterminatedDoctype,
  kNoStartTag,  // end tag at `at`, its name at `at` + 2
  kMismatch,    // end tag at `at`, its name at `at` + 2; the open element at `other`, its name at
                // `other` + 1
  kNotEnded,    // element at `at`, its name at `at` + 1
};

class XmlReport {
 public:
  // Empties the report. Findings added after it name stretches of the document's own text.
  void Clear();
  // The findings, those added so far and any added later, name stretches of `text`, which the
  // report keeps, rather than of the document's text (a fragment parsed on its own).
  void KeepSource(WString&& text);
  // Before the document's text changes: the report takes a copy of the text its findings name,
  // unless it has none or has already been read.
  void DetachFrom(const WString& document_text);

  void AddPhrase(WStringView phrase);
  // `name_length` and `other_name_length` are the lengths of the names a finding quotes.
  void Add(XmlFinding kind, uint32_t at, uint32_t name_length = 0, uint32_t other = 0,
           uint32_t other_name_length = 0);

  // Room for `count` more records.
  void Reserve(std::size_t count) { pending_.reserve(pending_.size() + count); }

  // The report text, formatted on the first read after a change.
  const WString& Text(const WString& document_text) const;
  // The first `max_chars` characters of the text, formatting no more than those need.
  WString Head(const WString& document_text, std::size_t max_chars) const;

 private:
  struct Record {
    uint32_t at;
    uint32_t other;
    // Names are cut to what one formatted phrase can hold, so a record stays small.
    uint16_t name_length;
    uint16_t other_name_length;
    XmlFinding kind;
  };
  // Appends the phrase of `r` to `out`, after ", " when `out` is not empty.
  void Format(const Record& r, WStringView source, WString* out) const;
  WStringView Source(const WString& document_text) const;

  // Reading formats the pending records into text_ and lets go of what only they needed; the
  // report reads the same before and after, hence mutable.
  mutable WString text_;                // the phrases formatted so far
  mutable HeapVector<Record> pending_;  // the records still to be formatted behind them
  mutable WString phrases_;  // the text of kPhrase records: `at` is the offset, `other` the length
  mutable WString source_;   // the text the findings name, when it is not the document's
  mutable bool own_source_ = false;      // the findings name source_
  mutable bool names_document_ = false;  // some pending record names the document's text
};

}  // namespace orlenda
