// Feeds arbitrary input to XmlDocument::ParseText, read two ways: the bytes as UTF-16LE code units
// (unpaired surrogates and all), and the bytes decoded as UTF-8. Every element of what was parsed
// is then visited and read; the document is edited, well formed or not, and after every edit the
// index must still describe the text (a well-formed document must moreover index exactly as a
// fresh parse of its edited text does). The input is also spliced into a sound document as a
// subtree and as content. Nothing may crash.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "fuzz/xml_walk.h"
#include "settings/xml_document.h"
#include "tests/support/xml_document_order.h"

namespace orlenda::fuzz {
namespace {

// After an edit, taken or refused, the index must still describe the text; a well-formed document
// stays one, and its index is the one a fresh parse gives (the caller has checked that its links
// do not loop; a fresh parse's are bounded here).
void AfterEdit(const XmlDocument& doc, bool well_formed) {
  CheckIndex(doc);
  if (!well_formed) return;
  XmlDocument fresh;
  Check(fresh.ParseText(View(doc.GetText())), "an edited well-formed document stays well formed");
  (void)DocumentOrder(fresh);
  Check(testing::Snapshot(doc) == testing::Snapshot(fresh), "elements and links where a fresh parse has them");
}

// Puts the cursor on `target`: each ancestor is found at its level and descended into.
void MoveTo(XmlDocument* doc, XmlDocument::ElementId target) {
  std::vector<XmlDocument::ElementId> chain;
  for (XmlDocument::ElementId id = target; id != 0; id = doc->Links(id).parent) chain.push_back(id);
  doc->ResetAll();
  for (std::size_t i = chain.size(); i-- > 0;) {
    while (doc->main_position() != chain[i]) {
      Check(doc->FindSibling(WStringView()), "every linked element is found at its level");
    }
    if (i > 0) Check(doc->Descend(), "descend into an ancestor");
  }
}

// Edits as the property store makes them, on the element the cursor is on: its attributes, new
// elements inside it, one removed, its content replaced.
void EditAt(XmlDocument* doc, bool well_formed) {
  auto after = [&](bool) { AfterEdit(*doc, well_formed); };
  after(doc->SetAttribute(u"fz", u"a<&>'\"b"));
  after(doc->SetAttribute(u"fz", u""));
  if (doc->Descend()) {
    after(doc->AppendElement(u"added", u"x&y", 0));
    after(doc->AppendElement(u"empty", WStringView(), kXmlAppendBlankBeforeSlash));
    after(doc->InsertSubtree(u"<in a='1'><b/></in>"));
    doc->ResetMain();
    after(doc->FindSibling(WStringView()) && doc->RemoveElement());
    doc->ResetMain();
    after(doc->FindSibling(WStringView()) && doc->SetContent(u"<c/>text<d>e</d>"));
    (void)doc->Ascend();
  }
  // A sibling behind it; at document level that would be a second root, which a well-formed
  // document must not get.
  if (!well_formed || doc->parent_position() != 0) after(doc->AppendElement(u"next", WStringView(), 0));
}

// The root (or the first element at document level), then the last element in document order,
// which in a broken document is often one left open at the end of the text.
void Edit(XmlDocument* doc, bool well_formed) {
  doc->ResetAll();
  if (!doc->FindSibling(WStringView())) return;
  EditAt(doc, well_formed);
  WalkAll(doc, false);
  const std::vector<XmlDocument::ElementId> order = DocumentOrder(*doc);
  if (order.empty()) return;
  MoveTo(doc, order.back());
  EditAt(doc, well_formed);
  WalkAll(doc, false);
}

// Arbitrary text spliced into a sound document, as a group's content is replaced by what a
// client sent.
void Splice(WStringView text) {
  constexpr WStringView kHost =
      u"<xmlroot>\r\n<type value=\"a\"/>\r\n<type value=\"b\"></type>\r\n</xmlroot>";
  XmlDocument doc;
  Check(doc.ParseText(kHost), "the host document parses");
  Check(doc.FindSibling(u"xmlroot") && doc.Descend(), "enter the host's root");
  Check(doc.FindSibling(u"type"), "first group of the host");
  (void)doc.InsertSubtree(text);
  WalkAll(&doc, false);
  doc.ResetAll();
  Check(doc.FindSibling(u"/xmlroot/type[2]") || doc.FindSibling(u"/xmlroot/type"), "a group stays");
  (void)doc.SetContent(text);
  WalkAll(&doc, false);
}

void Exercise(WStringView text) {
  XmlDocument doc;
  bool well_formed = doc.ParseText(text);
  Check(doc.GetText() == text, "the document is the text it was given");
  Check(!well_formed || doc.HasValidRoot(), "a well-formed document has a valid root");
  (void)doc.GetReport();
  std::size_t elements = WalkAll(&doc, true);
  Check(!doc.HasValidRoot() || elements > 0, "a valid root is an element");
  FindByPaths(&doc);
  Edit(&doc, well_formed);
  Splice(text);
}

// UTF-8 decoded one byte at a time, the plain way, to hold the converter's fast paths to.
WString ReferenceUtf8ToWide(const uint8_t* bytes, std::size_t size) {
  WString out;
  for (std::size_t pos = 0; pos < size;) {
    const uint8_t b = bytes[pos];
    // How many continuation bytes follow (-1: b cannot begin a sequence), and the bounds of the
    // first one, which rule out overlong forms, surrogates and code points above U+10FFFF.
    const int more = b < 0x80 ? 0 : b < 0xC2 ? -1 : b < 0xE0 ? 1 : b < 0xF0 ? 2 : b <= 0xF4 ? 3 : -1;
    uint8_t low = b == 0xE0 ? 0xA0 : b == 0xF0 ? 0x90 : 0x80;
    uint8_t high = b == 0xED ? 0x9F : b == 0xF4 ? 0x8F : 0xBF;
    uint32_t cp = more == 0 ? b : b & (0x7Fu >> (more + 1));
    std::size_t taken = 1;
    bool complete = more >= 0;
    for (int i = 0; complete && i < more; ++i, low = 0x80, high = 0xBF) {
      complete = pos + taken < size && bytes[pos + taken] >= low && bytes[pos + taken] <= high;
      if (complete) cp = (cp << 6) | (bytes[pos + taken++] & 0x3Fu);
    }
    if (!complete) {
      out.push_back(0xFFFD);
    } else if (cp < 0x10000) {
      out.push_back(static_cast<WChar>(cp));
    } else {
      out.push_back(static_cast<WChar>(0xD800 + ((cp - 0x10000) >> 10)));
      out.push_back(static_cast<WChar>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
    }
    pos += taken;
  }
  return out;
}

}  // namespace
}  // namespace orlenda::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace orlenda;
  WString units(size / 2, 0);
  if (!units.empty()) std::memcpy(&units[0], data, units.size() * sizeof(WChar));
  fuzz::Exercise(View(units));
  const WString decoded = Utf8ToWide(std::string_view(reinterpret_cast<const char*>(data), size));
  fuzz::Check(decoded == fuzz::ReferenceUtf8ToWide(data, size), "UTF-8 decodes the plain way");
  fuzz::Exercise(View(decoded));
  return 0;
}
