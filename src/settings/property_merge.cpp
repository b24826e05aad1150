// Merging settings documents: the built-in settings schema and the documents components return are
// combined level by level, matching elements by a key attribute. The first document always wins a
// conflict; the second can only add elements, attributes and content.
#include "logging/log.h"
#include "settings/property_handler.h"

namespace orlenda {
namespace {

struct MergeRow {
  const char16_t* element;
  const char16_t* key;
};

// The element kinds merged at every level, in this order, each with its identifying attribute.
constexpr MergeRow kMergeRows[] = {
    {u"ui", u"language"}, {u"property", u"id"}, {u"choice", u"id"},
    {u"option", u"value"}, {u"range", u"id"},    {u"value", u"id"},
};
constexpr std::size_t kMergeRowCount = sizeof kMergeRows / sizeof kMergeRows[0];

// Merges the level `second` is at into the level `first` is at. Matched elements are merged one
// level deeper; the levels are kept on a heap stack, so deep documents cannot exhaust the thread's
// stack.
void MergeLevels(XmlDocument* first, XmlDocument* second) {
  HeapVector<std::size_t> rows;  // per open level: the row being worked through
  rows.push_back(0);
  second->ResetMain();
  while (!rows.empty()) {
    std::size_t& row = rows.back();
    if (row == kMergeRowCount) {
      rows.pop_back();
      if (!rows.empty()) {
        first->Ascend();
        second->Ascend();
      }
      continue;
    }
    const MergeRow& kind = kMergeRows[row];
    if (!second->FindSibling(kind.element)) {
      ++row;
      second->ResetMain();
      continue;
    }
    if (CPropertyHandler::Match(kind.element, kind.key, first, second)) {
      if (first->Descend() && second->Descend()) {
        rows.push_back(0);
      }
      continue;
    }
    // Not in the first document: copied with all its content, after the first document's last
    // element of the same name (or at the end of the level when it has none).
    first->InsertSubtree(View(second->ExtractSubtree()));
  }
}

bool EnterXmlRoot(XmlDocument* document) {
  document->ResetAll();
  return document->FindSibling(u"xmlroot") && document->Descend();
}

}  // namespace

bool CPropertyHandler::MergeDocuments(WString* first, WStringView second) {
  if (first->empty()) {
    *first = WString(second);
    return true;
  }
  XmlDocument target;
  XmlDocument source;
  target.ParseText(View(*first));
  source.ParseText(second);
  // A document without its root merges as an empty one.
  if (EnterXmlRoot(&target) && EnterXmlRoot(&source)) MergeLevels(&target, &source);
  *first = target.GetText();
  return true;
}

bool CPropertyHandler::Match(WStringView name, WStringView key, XmlDocument* first, XmlDocument* second) {
  const WString wanted = second->GetAttribute(key);
  first->ResetMain();
  while (first->FindSibling(name)) {
    if (first->GetAttribute(key) != wanted) continue;
    const XmlDocument::ElementId element = second->main_position();
    for (std::size_t i = 0;; ++i) {
      const WString attribute = second->AttributeNameAt(element, i);
      if (attribute.empty()) break;
      const WString value = second->GetAttribute(View(attribute));
      XmlRange existing;
      if (!first->FindAttribute(View(attribute), &existing)) {
        first->SetAttribute(View(attribute), View(value));
      } else {
        const WString kept = first->GetAttribute(View(attribute));
        if (kept != value) {
          Log(0, u"-- CPropertyHandler::Match %s(%s = %s and %s)", name, attribute, value, kept);
        }
      }
    }
    return true;
  }
  return false;
}

}  // namespace orlenda
