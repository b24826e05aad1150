// The report of the XML document is formatted when it is first read: what it reads must not depend
// on when that is, nor on the edits, copies and partial reads that come before it.
#include <gtest/gtest.h>

#include <string>

#include "common/log_format.h"
#include "settings/xml_document.h"

namespace orlenda {
namespace {

std::string U8(const WString& s) { return std::string(WideToUtf8(View(s)).c_str()); }

// Edits a document that has elements: one gains an attribute and a sibling, one goes.
void EditEverywhere(XmlDocument* doc) {
  doc->ResetAll();
  if (doc->FindSibling(u"")) {
    EXPECT_TRUE(doc->SetAttribute(u"k", u"v"));
    doc->AppendElement(u"n", u"", 0);
  }
  doc->ResetAll();
  if (doc->FindSibling(u"")) {
    EXPECT_TRUE(doc->RemoveElement());
  }
}

TEST(XmlReport, ReadLaterReadsAsReadAtOnce) {
  const WString long_name(66000, u'n');  // far longer than one phrase can show
  const WString texts[] = {
      u"<r><b></x></r>",
      u"</x><r><a><1/><!x><!-x><![CDATX[",
      u"<r><a><b></a><c></r>",
      u"<" + long_name + u"></x></" + long_name + u"x>",
      u"<a/><b/>",
      u"",
  };
  for (const WString& text : texts) {
    XmlDocument at_once;
    at_once.ParseText(View(text));
    const WString expected = at_once.GetReport();
    XmlDocument later;
    later.ParseText(View(text));
    XmlDocument copy;
    copy.CopyFrom(later);
    EditEverywhere(&later);
    for (std::size_t n : {std::size_t{0}, std::size_t{9}, expected.size(), expected.size() + 1}) {
      EXPECT_EQ(U8(later.GetReportHead(n)), U8(expected.substr(0, n))) << n;
    }
    EXPECT_EQ(U8(later.GetReport()), U8(expected));
    EXPECT_EQ(U8(later.GetReportHead(9)), U8(expected.substr(0, 9)));
    EXPECT_EQ(U8(copy.GetReport()), U8(expected));
  }
  // A phrase is cut where the trace formatter cuts it, whichever name runs past the cut.
  XmlDocument doc;
  doc.ParseText(View(texts[3]));
  const WString phrases[] = {u"End tag 'x' at offset 66002 does not match start tag '" + long_name,
                             u"End tag '" + long_name, u"Element '" + long_name};
  EXPECT_EQ(U8(doc.GetReport()), U8(phrases[0].substr(0, kLogTextMax) + u", " +
                                    phrases[1].substr(0, kLogTextMax) + u", " +
                                    phrases[2].substr(0, kLogTextMax)));
}

// A fragment that is refused names its own text, which the document never holds.
TEST(XmlReport, RefusedFragmentsReportTheirOwnText) {
  XmlDocument doc;
  ASSERT_TRUE(doc.ParseText(u"<r><a/></r>"));
  ASSERT_TRUE(doc.FindSibling(u"/r/a"));
  EXPECT_FALSE(doc.InsertSubtree(u"<frag></x>"));
  EditEverywhere(&doc);
  EXPECT_EQ(U8(doc.GetReport()),
            "End tag 'x' at offset 6 does not match start tag 'frag' at offset 0, "
            "Element 'frag' at offset 0 not ended");
  ASSERT_TRUE(doc.ParseText(u"<r><a/></r>") && doc.FindSibling(u"/r/a"));
  EXPECT_FALSE(doc.SetContent(u"</stray>"));
  EditEverywhere(&doc);
  EXPECT_EQ(U8(doc.GetReport()), "No start tag for end tag 'stray' at offset 0");
}

}  // namespace
}  // namespace orlenda
