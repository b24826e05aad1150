// Feeds arbitrary input to XmlDocument::ParseText, read two ways: the bytes as UTF-16LE code units
// (unpaired surrogates and all), and the bytes decoded as UTF-8. Every element of what was parsed
// is then visited and read; a well-formed document is edited and walked again, and the input is
// also spliced into a sound document as a subtree and as content. Nothing may crash, and the
// index must stay within the text.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "fuzz/xml_walk.h"
#include "settings/xml_document.h"

namespace orlenda::fuzz {
namespace {

// Edits as the property store makes them, on a document that parsed well formed (the store
// replaces any other by a fresh one before it changes anything).
void Edit(XmlDocument* doc) {
  doc->ResetAll();
  if (!doc->FindSibling(WStringView())) return;
  (void)doc->SetAttribute(u"fz", u"a<&>'\"b");
  (void)doc->SetAttribute(u"fz", u"");
  if (doc->Descend()) {
    (void)doc->AppendElement(u"added", u"x&y", 0);
    (void)doc->AppendElement(u"empty", WStringView(), kXmlAppendBlankBeforeSlash);
    (void)doc->InsertSubtree(u"<in a='1'><b/></in>");
    doc->ResetMain();
    if (doc->FindSibling(WStringView())) (void)doc->RemoveElement();
    doc->ResetMain();
    if (doc->FindSibling(WStringView())) (void)doc->SetContent(u"<c/>text<d>e</d>");
    (void)doc->Ascend();
  }
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
  if (well_formed) Edit(&doc);
  Splice(text);
}

}  // namespace
}  // namespace orlenda::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace orlenda;
  WString units(size / 2, 0);
  if (!units.empty()) std::memcpy(&units[0], data, units.size() * sizeof(WChar));
  fuzz::Exercise(View(units));
  fuzz::Exercise(View(Utf8ToWide(std::string_view(reinterpret_cast<const char*>(data), size))));
  return 0;
}
