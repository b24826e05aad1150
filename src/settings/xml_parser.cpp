// The one-pass parse of XmlDocument: a single left-to-right scan with a stack of open elements
// that fills the element index. No strings are built: names are compared in place, and findings
// go into the report as records that name places in the text. Nothing here recurses, so nesting
// depth is bounded by memory only.
#include <chrono>
#include <cstring>
#include <functional>
#include <unordered_map>

#include "common/heap.h"
#include "settings/xml_document.h"
#include "settings/xml_index.h"
#include "settings/xml_report.h"
#include "settings/xml_scan.h"

namespace orlenda {

void XmlElementIndex::Reset(std::size_t text_length) {
  segments_.clear();
  count_ = 0;
  estimate_ = text_length / 64 + 8;
  Add();  // record 0: the document
}

uint32_t XmlElementIndex::Add() {
  const uint32_t in_segment = count_ & (kSegmentSize - 1);
  if (in_segment == 0) {
    // A new segment, sized for what the estimate still expects; it grows (never beyond one
    // segment's records) only when the estimate was short.
    segments_.emplace_back();
    const std::size_t remaining = estimate_ > count_ ? estimate_ - count_ : 1024;
    segments_.back().reserve(remaining < kSegmentSize ? remaining : kSegmentSize);
  }
  HeapVector<XmlElementRecord>& segment = segments_.back();
  if (segment.size() == segment.capacity()) {
    const std::size_t doubled = segment.capacity() * 2;
    segment.reserve(doubled < kSegmentSize ? doubled : kSegmentSize);
  }
  segment.emplace_back();
  return count_++;
}

namespace {

uint64_t NameHashSeed() {
  static const char anchor = 0;
  const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
  return static_cast<uint64_t>(now) ^
         (static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&anchor)) * 0x9E3779B97F4A7C15ull);
}

// Where the open elements of each name stand on the stack of open elements, so that an end tag
// that does not close the innermost element finds the nearest enclosing one of its name without
// walking the stack (thousands of stray end tags at depth would cost the square of the text's
// length). A well-formed text never needs it, so it is filled lazily: it covers a bottom part of
// the stack, brought up to date only when a mismatched end tag asks. Every stack entry goes in and
// out at most once, which keeps the parse linear in the text.
class OpenNameIndex {
 public:
  static constexpr uint32_t kNone = 0xFFFFFFFFu;

  // Covers the bottom `depth` entries of the stack; `name_of(entry)` names the element there.
  template <class NameOf>
  void Cover(std::size_t depth, const NameOf& name_of) {
    while (below_.size() < depth) {
      const uint32_t entry = static_cast<uint32_t>(below_.size());
      const WStringView name = name_of(entry);
      auto found = top_.find(name);
      if (found == top_.end()) {
        below_.push_back(kNone);
        top_.emplace(name, entry);
      } else {
        below_.push_back(found->second);
        found->second = entry;
      }
    }
  }
  // The covered stack entry nearest the top that is named `name`, or kNone.
  uint32_t Nearest(WStringView name) const {
    auto found = top_.find(name);
    return found == top_.end() ? kNone : found->second;
  }
  // The top entry of the stack, `entry`, named `name`, is popped.
  void Pop(std::size_t entry, WStringView name) {
    if (entry >= below_.size()) return;  // not covered
    const uint32_t next = below_.back();
    below_.pop_back();
    if (next == kNone) {
      top_.erase(name);
    } else {
      top_.find(name)->second = next;
    }
  }

 private:
  // Hashed with a seed of this process, so that no text can be written to make its names collide
  // and turn the look-ups back into walks.
  struct SeededHash {
    std::size_t operator()(WStringView name) const {
      static const uint64_t seed = NameHashSeed();
      uint64_t h = seed;
      for (WChar c : name) h = (h ^ c) * 0x100000001B3ull;
      h ^= h >> 29;
      h *= 0xBF58476D1CE4E5B9ull;
      return static_cast<std::size_t>(h ^ (h >> 32));
    }
  };
  // Name -> its covered entry nearest the top.
  std::unordered_map<WStringView, uint32_t, SeededHash, std::equal_to<WStringView>,
                     HeapAllocator<std::pair<const WStringView, uint32_t>>>
      top_;
  HeapVector<uint32_t> below_;  // per covered entry: the next lower entry of the same name
};

class Parser {
 public:
  Parser(WStringView text, XmlElementIndex* index, XmlReport* report)
      : begin_(text.data()), end_(text.data() + text.size()), index_(*index), report_(report) {}

  std::size_t Run();

 private:
  uint32_t OffsetOf(const WChar* p) const { return static_cast<uint32_t>(p - begin_); }
  uint32_t Innermost() const { return open_.empty() ? 0 : open_.back(); }
  WStringView NameOf(uint32_t id) const {
    const XmlElementRecord& r = index_[id];
    return WStringView(begin_ + r.offset + 1, r.name_length);
  }
  // The innermost open element is the one a finding inside its content concerns.
  void FlagInnermost() {
    if (!open_.empty()) index_[open_.back()].flags |= kXmlElementIllFormed;
  }
  template <class... A>
  void Finding(XmlFinding kind, const A&... args) {
    report_->Add(kind, args...);
    ++findings_;
  }
  void Unterminated(XmlFinding construct, const WChar* at) {
    Finding(construct, OffsetOf(at));
    FlagInnermost();
  }
  // Position of the first `pattern` at or after `from`, or end_.
  const WChar* Find(const WChar* from, const char16_t* pattern, std::size_t length) const {
    for (const WChar* p = FindChar(from, end_, pattern[0]);
         end_ - p >= static_cast<std::ptrdiff_t>(length); p = FindChar(p + 1, end_, pattern[0])) {
      if (std::memcmp(p, pattern, length * sizeof(WChar)) == 0) return p;
    }
    return end_;
  }

  // Each returns the position to go on from, or nullptr when the text ended inside the construct.
  const WChar* StartTag(const WChar* lt);
  const WChar* EndTag(const WChar* lt);
  const WChar* Bang(const WChar* lt);
  void Close(uint32_t id, uint32_t end_offset) {
    index_[id].total_length = end_offset - index_[id].offset;
    by_name_.Pop(open_.size() - 1, NameOf(id));
    open_.pop_back();
    last_child_.pop_back();
  }

  const WChar* const begin_;
  const WChar* const end_;
  XmlElementIndex& index_;
  XmlReport* report_;
  std::size_t findings_ = 0;
  HeapVector<uint32_t> open_;        // open elements, innermost last
  OpenNameIndex by_name_;
  HeapVector<uint32_t> last_child_;  // last child so far of the document and of each open element
};

std::size_t Parser::Run() {
  last_child_.push_back(0);
  const WChar* p = begin_;
  while (true) {
    p = FindChar(p, end_, u'<');
    if (p == end_) break;
    const WChar* lt = p;
    if (end_ - lt < 2) {
      Unterminated(XmlFinding::kUnterminatedTag, lt);
      break;
    }
    const WChar c = lt[1];
    if (c == u'/') {
      p = EndTag(lt);
    } else if (c == u'!') {
      p = Bang(lt);
    } else if (c == u'?') {
      const WChar* close = Find(lt + 2, u"?>", 2);
      if (close == end_) {
        Unterminated(XmlFinding::kUnterminatedInstruction, lt);
        p = nullptr;
      } else {
        p = close + 2;
      }
    } else if (StartsXmlName(c)) {
      p = StartTag(lt);
    } else {
      // The "<" is taken as text and the scan goes on behind it.
      Finding(XmlFinding::kIncorrectNameStart, OffsetOf(lt + 1));
      FlagInnermost();
      p = lt + 1;
    }
    if (p == nullptr) break;
  }
  // Whatever is still open runs to the end of the text; reported outermost first, in the order
  // the elements appear.
  const uint32_t text_end = OffsetOf(end_);
  report_->Reserve(open_.size());
  for (uint32_t id : open_) {
    XmlElementRecord& r = index_[id];
    r.total_length = text_end - r.offset;
    r.flags |= kXmlElementIllFormed | kXmlElementNoEndTag;
    Finding(XmlFinding::kNotEnded, r.offset, r.name_length);
  }
  return findings_;
}

const WChar* Parser::StartTag(const WChar* lt) {
  const WChar* q = lt + 1;
  while (q < end_ && !EndsXmlName(*q)) ++q;
  const uint32_t name_length = static_cast<uint32_t>(q - lt - 1);
  // Attributes are not looked at here, only stepped over: quoted values may hold ">".
  q = FindXmlTagEnd(q, end_);
  if (q == end_) {
    Unterminated(XmlFinding::kUnterminatedElementTag, lt);
    return nullptr;
  }
  const bool empty = q[-1] == u'/';
  const uint32_t parent = Innermost();
  const uint32_t id = index_.Add();
  XmlElementRecord& r = index_[id];
  r.offset = OffsetOf(lt);
  r.tag_length = static_cast<uint32_t>(q + 1 - lt);
  r.name_length = name_length;
  r.parent = parent;
  const uint32_t previous = last_child_.back();
  r.prev_sibling = previous;
  if (empty) r.total_length = r.tag_length;
  if (previous != 0) {
    index_[previous].next_sibling = id;
  } else {
    index_[parent].first_child = id;
  }
  last_child_.back() = id;
  if (!empty) {
    open_.push_back(id);
    last_child_.push_back(0);
  }
  return q + 1;
}

const WChar* Parser::EndTag(const WChar* lt) {
  const WChar* name = lt + 2;
  const WChar* q = name;
  while (q < end_ && !IsXmlSpace(*q) && *q != u'>') ++q;
  const WStringView end_name(name, static_cast<std::size_t>(q - name));
  q = FindChar(q, end_, u'>');
  if (q == end_) {
    Unterminated(XmlFinding::kUnterminatedEndTag, lt);
    return nullptr;
  }
  const uint32_t at = OffsetOf(lt);
  const uint32_t after = OffsetOf(q + 1);
  if (open_.empty()) {
    Finding(XmlFinding::kNoStartTag, at, static_cast<uint32_t>(end_name.size()));
    return q + 1;
  }
  const uint32_t innermost = open_.back();
  if (NameOf(innermost) == end_name) {
    Close(innermost, after);
    return q + 1;
  }
  Finding(XmlFinding::kMismatch, at, static_cast<uint32_t>(end_name.size()),
          index_[innermost].offset, index_[innermost].name_length);
  // Recovery: when an enclosing element has this name, the elements inside it were left open by
  // mistake; they end where this end tag begins and the named one closes normally. Otherwise the
  // end tag is a stray and is skipped.
  index_[innermost].flags |= kXmlElementIllFormed;
  by_name_.Cover(open_.size() - 1, [this](uint32_t entry) { return NameOf(open_[entry]); });
  const uint32_t nearest = by_name_.Nearest(end_name);
  if (nearest == OpenNameIndex::kNone) return q + 1;
  while (open_.size() > nearest + 1) {
    index_[open_.back()].flags |= kXmlElementIllFormed | kXmlElementNoEndTag;
    Close(open_.back(), at);
  }
  Close(open_.back(), after);
  return q + 1;
}

// "<!": comment, CDATA section or document type declaration.
const WChar* Parser::Bang(const WChar* lt) {
  if (end_ - lt < 3) {
    Unterminated(XmlFinding::kUnterminatedTag, lt);
    return nullptr;
  }
  const WChar kind = lt[2];
  if (kind == u'-') {
    if (end_ - lt < 4) {
      Unterminated(XmlFinding::kUnterminatedComment, lt);
      return nullptr;
    }
    if (lt[3] != u'-') {
      Finding(XmlFinding::kIncorrectComment, OffsetOf(lt));
      FlagInnermost();
      return lt + 1;
    }
    const WChar* close = Find(lt + 4, u"-->", 3);
    if (close == end_) {
      Unterminated(XmlFinding::kUnterminatedComment, lt);
      return nullptr;
    }
    return close + 3;
  }
  if (kind == u'[') {
    static const char16_t kOpen[] = u"<![CDATA[";
    constexpr std::ptrdiff_t kOpenLength = 9;
    for (std::ptrdiff_t i = 3; i < kOpenLength; ++i) {
      if (lt + i == end_) {
        Unterminated(XmlFinding::kUnterminatedCdata, lt);
        return nullptr;
      }
      if (lt[i] != kOpen[i]) {
        Finding(XmlFinding::kIncorrectBang, OffsetOf(lt));
        FlagInnermost();
        return lt + 1;
      }
    }
    const WChar* close = Find(lt + kOpenLength, u"]]>", 3);
    if (close == end_) {
      Unterminated(XmlFinding::kUnterminatedCdata, lt);
      return nullptr;
    }
    return close + 3;
  }
  if (kind == u'D') {
    // Skipped as a unit; an internal subset in brackets may hold ">".
    int depth = 0;
    for (const WChar* q = lt + 3; q < end_; ++q) {
      if (*q == u'[') {
        ++depth;
      } else if (*q == u']') {
        if (depth > 0) --depth;
      } else if (*q == u'>' && depth == 0) {
        return q + 1;
      }
    }
    Unterminated(XmlFinding::kUnterminatedDoctype, lt);
    return nullptr;
  }
  Finding(XmlFinding::kIncorrectBang, OffsetOf(lt));
  FlagInnermost();
  return lt + 1;
}

}  // namespace

std::size_t ParseXmlElements(WStringView text, XmlElementIndex* index, XmlReport* report) {
  Parser parser(text, index, report);
  const std::size_t findings = parser.Run();
  (*index)[0].total_length = static_cast<uint32_t>(text.size());
  return findings;
}

const char16_t* RootFinding(const XmlElementIndex& index, bool empty_text) {
  if (empty_text) return u"Empty document";
  const uint32_t root = index[0].first_child;
  if (root == 0) return u"No root element";
  if (index[root].next_sibling != 0) return u"Root element has sibling";
  return nullptr;
}

bool XmlDocument::ParseCurrentText(WStringView summary) {
  parent_ = main_ = child_ = 0;
  XmlReport& report = impl_->report;
  report.Clear();
  if (!summary.empty()) report.AddPhrase(summary);
  XmlElementIndex& index = impl_->index;
  index.Reset(text_.size());
  if (text_.size() >= kMaxTextLength) {
    // Offsets are 32-bit; a text this long is refused rather than mis-indexed.
    report.AddPhrase(u"Document too large");
    text_.clear();
    return false;
  }
  const std::size_t findings = ParseXmlElements(View(text_), &index, &report);
  const char16_t* root_finding = RootFinding(index, text_.empty());
  if (root_finding != nullptr) report.AddPhrase(root_finding);
  return findings == 0 && root_finding == nullptr;
}

bool XmlDocument::ParseText(WStringView text) {
  WString copy(text.data(), text.size());  // `text` may be a view of text_ itself
  text_.swap(copy);
  return ParseCurrentText();
}

}  // namespace orlenda
