// XmlDocument: parse findings, navigation, attributes, edits and their effect on the index.
#include "settings/xml_document.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <unordered_map>
#include <vector>

#include "support/xml_document_order.h"

namespace orlenda {
namespace {

WString W(const char16_t* s) { return WString(s); }
std::string U8(const WString& s) { return std::string(WideToUtf8(View(s)).c_str()); }

// One element as the index sees it: offset, start tag and total length, ill-formed flag, then
// parent, first child, next and previous sibling as positions in document order (-1: none, -2: a
// link out of the tree), so that two indexes built in different ways can be compared.
using Snapshot = std::array<long long, 8>;

using testing::DocumentOrder;

std::vector<Snapshot> TakeSnapshot(const XmlDocument& doc) {
  const std::vector<XmlDocument::ElementId> order = DocumentOrder(doc);
  std::unordered_map<XmlDocument::ElementId, long long> position;
  for (std::size_t i = 0; i < order.size(); ++i) position[order[i]] = static_cast<long long>(i);
  auto ordinal = [&](XmlDocument::ElementId id) -> long long {
    if (id == 0) return -1;
    auto found = position.find(id);
    return found == position.end() ? -2 : found->second;
  };
  std::vector<Snapshot> out;
  for (XmlDocument::ElementId id : order) {
    const auto links = doc.Links(id);
    out.push_back({static_cast<long long>(doc.ElementRange(id).offset),
                   static_cast<long long>(doc.StartTagRange(id).length),
                   static_cast<long long>(doc.ElementRange(id).length), doc.IsIllFormed(id),
                   ordinal(links.parent), ordinal(links.first_child), ordinal(links.next_sibling),
                   ordinal(links.prev_sibling)});
  }
  return out;
}

// The edited document's index must be what a fresh parse of its text gives.
void ExpectSameAsReparse(const XmlDocument& doc, const std::string& step) {
  XmlDocument fresh;
  fresh.ParseText(View(doc.GetText()));
  EXPECT_TRUE(TakeSnapshot(doc) == TakeSnapshot(fresh)) << step << ":\n" << U8(doc.GetText());
}

// ---- parse findings ---------------------------------------------------------------------------

// Every prefix of one document, by ranges of prefix lengths that give the same report.
TEST(XmlParse, EveryTruncatedPrefix) {
  const WString doc =
      u"<?xml version=\"1.0\"?>\r\n<a x=\"1\"><!-- c --><b>t&amp;</b><![CDATA[z]]><c/></a>";
  const WString kA = u"Element 'a' at offset 23 not ended";
  const WString kB = u", Element 'b' at offset 42 not ended";
  struct Row {
    std::size_t from, to;
    WString report;
  };
  const std::vector<Row> rows = {
      {0, 0, u"Empty document"},
      {1, 1, u"tag at offset 0 unterminated, No root element"},
      {2, 20, u"Processing instruction at offset 0 unterminated, No root element"},
      {21, 23, u"No root element"},
      {24, 24, u"tag at offset 23 unterminated, No root element"},
      {25, 31, u"Element tag at offset 23 unterminated, No root element"},
      {32, 32, kA},
      {33, 34, u"tag at offset 32 unterminated, " + kA},
      {35, 41, u"Comment at offset 32 unterminated, " + kA},
      {42, 42, kA},
      {43, 43, u"tag at offset 42 unterminated, " + kA},
      {44, 44, u"Element tag at offset 42 unterminated, " + kA},
      {45, 51, kA + kB},
      {52, 52, u"tag at offset 51 unterminated, " + kA + kB},
      {53, 54, u"Element end tag at offset 51 unterminated, " + kA + kB},
      {55, 55, kA},
      {56, 57, u"tag at offset 55 unterminated, " + kA},
      {58, 67, u"CDATA Section at offset 55 unterminated, " + kA},
      {68, 68, kA},
      {69, 69, u"tag at offset 68 unterminated, " + kA},
      {70, 71, u"Element tag at offset 68 unterminated, " + kA},
      {72, 72, kA},
      {73, 73, u"tag at offset 72 unterminated, " + kA},
      {74, 75, u"Element end tag at offset 72 unterminated, " + kA},
      {76, 76, u""},
  };
  ASSERT_EQ(doc.size(), 76u);
  std::size_t covered = 0;
  for (const Row& row : rows) {
    ASSERT_EQ(row.from, covered);
    for (std::size_t n = row.from; n <= row.to; ++n, ++covered) {
      XmlDocument x;
      EXPECT_EQ(x.ParseText(WStringView(doc.data(), n)), n == doc.size()) << n;
      EXPECT_EQ(U8(x.GetReport()), U8(row.report)) << "prefix of " << n;
      // The root survives as far as it was read; it is valid only when complete.
      EXPECT_EQ(x.HasValidRoot(), n == doc.size()) << n;
    }
  }
  EXPECT_EQ(covered, doc.size() + 1);
}

TEST(XmlParse, FindingsWithOffsets) {
  const struct {
    const char16_t* text;
    const char16_t* report;
    bool valid_root;
  } cases[] = {
      {u"<a><1/></a>", u"Incorrect tag name character at offset 4", false},
      {u"<a>< b/></a>", u"Incorrect tag name character at offset 4", false},
      {u"<a><!x></a>", u"Incorrect ! tag at offset 3", false},
      {u"<a><![CDATX[ ]]></a>", u"Incorrect ! tag at offset 3", false},
      {u"<a><!-x--></a>", u"Incorrect comment tag at offset 3", false},
      {u"<a><b></a>", u"End tag 'a' at offset 6 does not match start tag 'b' at offset 3", true},
      {u"<a><b></c></b></a>", u"End tag 'c' at offset 6 does not match start tag 'b' at offset 3",
       true},
      {u"</x><a/>", u"No start tag for end tag 'x' at offset 0", true},
      // The end tag closes the nearest open element of its name, as it stands at that moment.
      {u"<a><b><a><c></b></a></a>",
       u"End tag 'b' at offset 12 does not match start tag 'c' at offset 9, "
       u"No start tag for end tag 'a' at offset 20",
       true},
      {u"<a><b></x><c></c></y></a>",
       u"End tag 'x' at offset 6 does not match start tag 'b' at offset 3, "
       u"End tag 'y' at offset 17 does not match start tag 'b' at offset 3, "
       u"End tag 'a' at offset 21 does not match start tag 'b' at offset 3",
       true},
      {u"<a><b><a></x></a><a><c></a></b></a>",
       u"End tag 'x' at offset 9 does not match start tag 'a' at offset 6, "
       u"End tag 'a' at offset 23 does not match start tag 'c' at offset 20",
       true},
      {u"<a><b>", u"Element 'a' at offset 0 not ended, Element 'b' at offset 3 not ended", false},
      {u"<a><!DOCTYPE", u"Doctype at offset 3 unterminated, Element 'a' at offset 0 not ended",
       false},
      {u"<!-- only a comment -->", u"No root element", false},
      {u"  text only  ", u"No root element", false},
      {u"<a/><b/>", u"Root element has sibling", false},
      {u"<a/><!-- c --><b></b>", u"Root element has sibling", false},
      // Accepted: ">" inside quotes, white space in end tags, a declaration with an internal
      // subset that holds ">", processing instructions, text and CDATA at any place.
      {u"<?xml version='1.0'?><!DOCTYPE a [<!ENTITY x '>'>]><a q='>' r=\"/>\">x<![CDATA[<]]></a >",
       u"", true},
  };
  for (const auto& c : cases) {
    XmlDocument doc;
    EXPECT_EQ(doc.ParseText(c.text), *c.report == 0) << U8(W(c.text));
    EXPECT_EQ(U8(doc.GetReport()), U8(W(c.report))) << U8(W(c.text));
    EXPECT_EQ(doc.HasValidRoot(), c.valid_root) << U8(W(c.text));
  }
}

TEST(XmlParse, RecoveryFlagsOnlyTheElementsConcerned) {
  XmlDocument doc;
  // "</a>" closes "b" (left open by mistake) where the end tag begins, then "a" itself.
  EXPECT_FALSE(doc.ParseText(u"<a><b><c/></a>"));
  ASSERT_TRUE(doc.FindSibling(u"a"));
  EXPECT_FALSE(doc.IsIllFormed(doc.main_position()));
  EXPECT_EQ(doc.ElementRange(doc.main_position()).length, 14u);
  ASSERT_TRUE(doc.Descend() && doc.FindSibling(u"b"));
  EXPECT_TRUE(doc.IsIllFormed(doc.main_position()));
  EXPECT_EQ(doc.ElementRange(doc.main_position()).offset, 3u);
  EXPECT_EQ(doc.ElementRange(doc.main_position()).length, 7u);  // "<b><c/>"
  ASSERT_TRUE(doc.Descend() && doc.FindSibling(u"c"));
  EXPECT_FALSE(doc.IsIllFormed(doc.main_position()));
  // A stray end tag that matches nothing open is skipped; the parse goes on.
  EXPECT_FALSE(doc.ParseText(u"<a><b></x></b><c/></a>"));
  EXPECT_TRUE(doc.FindSibling(u"/a/c"));
}

// ---- navigation -------------------------------------------------------------------------------

const char16_t kTree[] =
    u"<r>\r\n  <b n=\"1\"/>\r\n  <c/>\r\n  <b n=\"2\"><d/><B/><d k=\"x\"/></b>\r\n</r>";

TEST(XmlNavigate, CursorAndPaths) {
  XmlDocument doc;
  ASSERT_TRUE(doc.ParseText(kTree));
  EXPECT_FALSE(doc.Ascend());  // already at document level
  EXPECT_FALSE(doc.Descend());  // no main element yet
  EXPECT_FALSE(doc.FindSibling(u"b"));  // not at document level
  ASSERT_TRUE(doc.FindSibling(u"r"));
  const auto root = doc.main_position();
  ASSERT_TRUE(doc.Descend());
  EXPECT_EQ(doc.parent_position(), root);
  EXPECT_EQ(doc.main_position(), 0u);
  ASSERT_TRUE(doc.FindSibling(u"b"));
  EXPECT_EQ(doc.GetAttribute(u"n"), W(u"1"));
  ASSERT_TRUE(doc.FindSibling(u"b"));  // goes on from the main position
  EXPECT_EQ(doc.GetAttribute(u"n"), W(u"2"));
  const auto second_b = doc.main_position();
  EXPECT_FALSE(doc.FindSibling(u"b"));
  EXPECT_EQ(doc.main_position(), second_b);  // a failed find leaves the cursor alone
  doc.ResetMain();
  for (const char16_t* name : {u"b", u"c"}) {  // "" finds any element
    ASSERT_TRUE(doc.FindSibling(u""));
    EXPECT_EQ(doc.ElementName(doc.main_position()), W(name));
  }
  ASSERT_TRUE(doc.FindSibling(u"b") && doc.Descend());
  EXPECT_TRUE(doc.FindSibling(u"B"));  // names are case-sensitive: "B" is the second child
  EXPECT_EQ(doc.ElementRange(doc.main_position()).offset, 42u);
  EXPECT_FALSE(doc.Descend() && doc.FindSibling(u""));  // "B" is empty
  ASSERT_TRUE(doc.Ascend() && doc.Ascend());
  EXPECT_EQ(doc.main_position(), second_b);
  EXPECT_EQ(doc.parent_position(), root);
  doc.ResetAll();
  EXPECT_EQ(doc.parent_position() | doc.main_position() | doc.child_position(), 0u);
  // Paths: absolute, or relative to the current level; the cursor ends on the last step's element.
  ASSERT_TRUE(doc.FindSibling(u"/r/b[2]/d[2]"));
  EXPECT_EQ(doc.GetAttribute(u"k"), W(u"x"));
  EXPECT_EQ(doc.ElementName(doc.parent_position()), W(u"b"));
  doc.ResetAll();
  ASSERT_TRUE(doc.FindSibling(u"r") && doc.Descend() && doc.FindSibling(u"b[2]/B"));
  EXPECT_EQ(doc.ElementPath(doc.main_position()), W(u"/r/b[2]/B"));
  const auto before = doc.main_position();
  for (const char16_t* bad : {u"/r/b[3]", u"/r/b[0]", u"/r/b[x]", u"/r/b[", u"/x", u"/", u"r b"}) {
    EXPECT_FALSE(doc.FindSibling(bad)) << U8(W(bad));
    EXPECT_EQ(doc.main_position(), before);
  }
  // Every element's path leads back to it.
  doc.ResetAll();
  for (auto id : DocumentOrder(doc)) {
    const WString path = doc.ElementPath(id);
    ASSERT_TRUE(doc.FindSibling(path)) << U8(path);
    EXPECT_EQ(doc.main_position(), id) << U8(path);
  }
  EXPECT_EQ(doc.ElementPath(0), W(u""));
}

// ---- attributes -------------------------------------------------------------------------------

TEST(XmlAttributes, ReadDecodesReferences) {
  XmlDocument doc;
  ASSERT_TRUE(doc.ParseText(
      u"<a v=\"&#65;&#x41;&foo;&#0;&#12345678;&lt;&amp;&gt;&apos;&quot;\" s='it&apos;s \"x\"'"
      u" e=\"\" spaced = \"1\"/>"));
  EXPECT_EQ(doc.GetAttribute(u"v"), W(u""));  // no main element yet
  ASSERT_TRUE(doc.FindSibling(u"a"));
  EXPECT_EQ(doc.GetAttribute(u"v"), W(u"AA&foo;&#0;&#12345678;<&>'\""));
  EXPECT_EQ(doc.GetAttribute(u"s"), W(u"it's \"x\""));
  EXPECT_EQ(doc.GetAttribute(u"spaced"), W(u"1"));
  XmlRange range;
  ASSERT_TRUE(doc.FindAttribute(u"e", &range));
  EXPECT_EQ(range.length, 0u);
  EXPECT_EQ(doc.GetText()[range.offset], u'"');  // the closing quote
  EXPECT_FALSE(doc.FindAttribute(u"E", &range));
  EXPECT_FALSE(doc.FindAttribute(u"spac", &range));  // whole names only
  std::vector<WString> names;
  for (std::size_t i = 0; !doc.AttributeNameAt(doc.main_position(), i).empty(); ++i) {
    names.push_back(doc.AttributeNameAt(doc.main_position(), i));
  }
  EXPECT_EQ(names, (std::vector<WString>{u"v", u"s", u"e", u"spaced"}));
  EXPECT_EQ(doc.AttributeNameAt(0, 0), W(u""));
}

// Set replaces a value, whatever its quotes, or appends the attribute at the end of the start tag.
// A quote opens a quoted stretch wherever it stands in a tag, as the parse reads it; setting must
// pair quotes the same way, or an edit lands inside a stretch and breaks the tag.
TEST(XmlAttributes, SetReplacesOrAppends) {
  const struct {
    const char16_t* text;
    const char16_t* name;
    const char16_t* value;
    const char16_t* edited;
  } cases[] = {
      {u"<r x='1' y=\"2\" ><b/></r>", u"x", u"<\"&'>",
       u"<r x=\"&lt;&quot;&amp;&apos;&gt;\" y=\"2\" ><b/></r>"},
      {u"<r x='1' y=\"2\" />", u"y", u"", u"<r x='1' y=\"\" />"},
      {u"<r x='1' />", u"z", u"new", u"<r x='1' z=\"new\" />"},
      {u"<r><b/></r>", u"k", u"v", u"<r k=\"v\"><b/></r>"},
      {u"<r/>", u"k", u"v", u"<r k=\"v\"/>"},
      {u"<r a.\"/ v=\"x/>", u"n", u"1", u"<r a.\"/ v=\"x n=\"1\"/>"},
      {u"<r x\"k='1'\"/>", u"k", u"1", u"<r x k=\"1\"\"k='1'\"/>"},
      {u"<r a=b\"c d\"></r>", u"a", u"1", u"<r a=\"1\"\"c d\"></r>"},
  };
  for (const auto& c : cases) {
    XmlDocument doc;
    ASSERT_TRUE(doc.ParseText(c.text)) << U8(W(c.text));
    EXPECT_FALSE(doc.SetAttribute(c.name, c.value));  // no main element
    ASSERT_TRUE(doc.FindSibling(u"r") && doc.SetAttribute(c.name, c.value));
    EXPECT_EQ(U8(doc.GetText()), U8(W(c.edited)));
    EXPECT_EQ(doc.GetAttribute(c.name), W(c.value));
    ExpectSameAsReparse(doc, U8(W(c.text)));
    EXPECT_TRUE(XmlDocument().ParseText(View(doc.GetText()))) << U8(doc.GetText());
    EXPECT_FALSE(doc.SetAttribute(u"bad name", u"v"));
    EXPECT_FALSE(doc.SetAttribute(u"", u"v"));
  }
}

// ---- edits ------------------------------------------------------------------------------------

TEST(XmlEdit, AppendElementLayout) {
  XmlDocument doc;
  EXPECT_TRUE(doc.AppendElement(u"root", u"", 0));  // the first element of an empty document
  EXPECT_EQ(doc.GetText(), W(u"<root/>"));
  ASSERT_TRUE(doc.Descend() && doc.AppendElement(u"a", u"", 0));
  ASSERT_TRUE(doc.AppendElement(u"b", u"x<&>y", 0));
  doc.ResetMain();
  ASSERT_TRUE(doc.AppendElement(u"c", u"", kXmlAppendBlankBeforeSlash));  // after the last
  ASSERT_TRUE(doc.FindSibling(u"/root/a") && doc.AppendElement(u"d", u"", 0));  // right after "a"
  EXPECT_EQ(doc.GetText(),
            W(u"<root>\r\n  <a/>\r\n  <d/>\r\n  <b>x&lt;&amp;&gt;y</b>\r\n  <c />\r\n</root>"));
  ExpectSameAsReparse(doc, "appended");
  // Deeper levels take one more indentation step; a parent indented by tabs gives tabs.
  ASSERT_TRUE(doc.FindSibling(u"/root/b") && doc.Descend() && doc.AppendElement(u"e", u"", 0));
  EXPECT_EQ(doc.ElementPath(doc.main_position()), W(u"/root/b/e"));
  EXPECT_NE(doc.GetText().find(u"<b>x&lt;&amp;&gt;y\r\n    <e/>\r\n  </b>"), WString::npos);
  ExpectSameAsReparse(doc, "appended deeper");
  ASSERT_TRUE(doc.ParseText(u"<r>\r\n\t<p/>\r\n</r>"));
  ASSERT_TRUE(doc.FindSibling(u"/r/p") && doc.Descend() && doc.AppendElement(u"q", u"", 0));
  EXPECT_EQ(doc.GetText(), W(u"<r>\r\n\t<p>\r\n\t\t<q/>\r\n\t</p>\r\n</r>"));
  // Names that would not read back as the same element are refused.
  for (const char16_t* bad : {u"", u"a b", u"1a", u"a/b", u"a>", u"a=b"}) {
    EXPECT_FALSE(doc.AppendElement(bad, u"", 0)) << U8(W(bad));
  }
  // After a declaration and in a compact document each element still gets a line of its own.
  ASSERT_FALSE(doc.ParseText(u"<?xml version=\"1.0\"?>"));
  ASSERT_TRUE(doc.AppendElement(u"r", u"", 0));
  EXPECT_EQ(doc.GetText(), W(u"<?xml version=\"1.0\"?>\r\n<r/>"));
  ASSERT_TRUE(doc.ParseText(u"<r><a/><b/></r>"));
  ASSERT_TRUE(doc.FindSibling(u"/r/a") && doc.AppendElement(u"n", u"", 0));
  EXPECT_EQ(doc.GetText(), W(u"<r><a/>\r\n<n/>\r\n<b/></r>"));
  ExpectSameAsReparse(doc, "compact");
}

TEST(XmlEdit, RemoveElementTakesItsLine) {
  XmlDocument doc;
  ASSERT_TRUE(doc.ParseText(u"<r>\r\n  <p id=\"1\"/>\r\n  <q><p/></q>\r\n  <p id=\"2\"><x/></p>\r\n</r>"));
  EXPECT_FALSE(doc.RemoveElement());  // no main element
  ASSERT_TRUE(doc.FindSibling(u"r") && doc.Descend());
  int removed = 0;
  for (; doc.FindSibling(u"p"); ++removed) {  // find, remove, find the next
    ASSERT_TRUE(doc.RemoveElement());
    ExpectSameAsReparse(doc, "removed p");
  }
  EXPECT_EQ(removed, 2);
  EXPECT_EQ(doc.GetText(), W(u"<r>\r\n  <q><p/></q>\r\n</r>"));
  doc.ResetMain();
  ASSERT_TRUE(doc.FindSibling(u"q") && doc.Descend() && doc.FindSibling(u"p"));
  ASSERT_TRUE(doc.RemoveElement());  // not alone on its line: only the element goes
  EXPECT_EQ(doc.GetText(), W(u"<r>\r\n  <q></q>\r\n</r>"));
  EXPECT_EQ(doc.main_position(), 0u);
  ExpectSameAsReparse(doc, "removed inner p");
  ASSERT_TRUE(doc.AppendElement(u"n", u"", 0));  // into the now empty "q"
  EXPECT_EQ(doc.GetText(), W(u"<r>\r\n  <q>\r\n    <n/>\r\n  </q>\r\n</r>"));
  ExpectSameAsReparse(doc, "appended into emptied q");
}

TEST(XmlEdit, SetContent) {
  XmlDocument doc;
  ASSERT_TRUE(doc.ParseText(u"<r><a>old<o/></a><e/><z/></r>"));
  ASSERT_TRUE(doc.FindSibling(u"/r/a") && doc.SetContent(u"<n k='1'>t</n><m/>"));
  EXPECT_EQ(doc.GetText(), W(u"<r><a><n k='1'>t</n><m/></a><e/><z/></r>"));
  ExpectSameAsReparse(doc, "content of a");
  ASSERT_TRUE(doc.Descend() && doc.FindSibling(u"m") && doc.Ascend());
  // Content that would not stand on its own is refused and nothing changes.
  const WString before = doc.GetText();
  EXPECT_FALSE(doc.SetContent(u"<open>"));
  EXPECT_EQ(U8(doc.GetReport()), "Element 'open' at offset 0 not ended");
  EXPECT_FALSE(doc.SetContent(u"</a><a>"));
  EXPECT_EQ(doc.GetText(), before);
  // An empty-element tag opens up to take content; empty content leaves it alone.
  ASSERT_TRUE(doc.FindSibling(u"e") && doc.SetContent(u""));
  EXPECT_EQ(doc.ElementRange(doc.main_position()).length, 4u);
  ASSERT_TRUE(doc.SetContent(u"<x/>"));
  EXPECT_EQ(doc.GetText(), W(u"<r><a><n k='1'>t</n><m/></a><e><x/></e><z/></r>"));
  ExpectSameAsReparse(doc, "content of e");
  ASSERT_TRUE(doc.FindSibling(u"/r/a") && doc.SetContent(u""));
  EXPECT_EQ(doc.GetText(), W(u"<r><a></a><e><x/></e><z/></r>"));
  ExpectSameAsReparse(doc, "emptied a");
  // Found by fuzzing: "//>" ends an empty-element tag as well, and a tag left ending in "/"
  // would still be one.
  ASSERT_TRUE(doc.ParseText(u"<r><s k=v/ //></r>"));
  ASSERT_TRUE(doc.FindSibling(u"/r/s") && doc.SetContent(u"c"));
  EXPECT_EQ(doc.GetText(), W(u"<r><s k=v>c</s></r>"));
  EXPECT_EQ(U8(doc.GetAttribute(u"k")), "v");
  ExpectSameAsReparse(doc, "several slashes");
  // Found by fuzzing: an end tag may hold "<", in the name or behind it; content goes before it.
  const char16_t* odd_end_tags[][2] = {
      {u"<O</>", u"/O<"}, {u"<r><a<></a<></r>", u"/r/a<"}, {u"<r><a>1 > 0</a <b></r>", u"/r/a"}};
  for (const auto& c : odd_end_tags) {
    const std::string text = U8(W(c[0]));
    ASSERT_TRUE(doc.ParseText(c[0])) << U8(doc.GetReport());
    ASSERT_TRUE(doc.FindSibling(c[1]) && doc.SetContent(u"<c/>")) << text;
    ExpectSameAsReparse(doc, text + " content");
    ASSERT_TRUE(doc.Descend() && doc.AppendElement(u"d", u"", 0));
    ExpectSameAsReparse(doc, text + " append");
    EXPECT_TRUE(XmlDocument().ParseText(View(doc.GetText()))) << U8(doc.GetText());
  }
}

TEST(XmlEdit, ExtractAndInsertSubtree) {
  XmlDocument source;
  ASSERT_TRUE(source.ParseText(u"<s>\r\n  <g value=\"A\">\r\n    <p id=\"1\"/>\r\n  </g>\r\n</s>"));
  ASSERT_TRUE(source.FindSibling(u"/s/g"));
  const WString subtree = source.ExtractSubtree();
  EXPECT_EQ(subtree, W(u"<g value=\"A\">\r\n    <p id=\"1\"/>\r\n  </g>"));
  XmlDocument target;
  ASSERT_TRUE(target.ParseText(u"<t>\r\n  <h/>\r\n</t>"));
  ASSERT_TRUE(target.FindSibling(u"/t/h") && target.InsertSubtree(View(subtree)));
  EXPECT_EQ(target.ElementPath(target.main_position()), W(u"/t/g"));
  EXPECT_EQ(target.ExtractSubtree(), subtree);
  EXPECT_EQ(target.GetText(),
            W(u"<t>\r\n  <h/>\r\n  <g value=\"A\">\r\n    <p id=\"1\"/>\r\n  </g>\r\n</t>"));
  ExpectSameAsReparse(target, "inserted");
  // Only the root goes in; something that is not one clean element is refused.
  ASSERT_TRUE(target.InsertSubtree(u"<?xml version=\"1.0\"?><k/><!-- tail -->"));
  EXPECT_EQ(target.ExtractSubtree(), W(u"<k/>"));
  ExpectSameAsReparse(target, "inserted after declaration");
  const WString before = target.GetText();
  EXPECT_FALSE(target.InsertSubtree(u"<a/><b/>"));
  EXPECT_EQ(U8(target.GetReport()), "Root element has sibling");
  EXPECT_FALSE(target.InsertSubtree(u"<a>"));
  EXPECT_FALSE(target.InsertSubtree(u""));
  EXPECT_EQ(target.GetText(), before);
  // Inserting a document's own text into itself is safe.
  target.ResetAll();
  ASSERT_TRUE(target.FindSibling(u"/t/h") && target.InsertSubtree(View(target.GetText())));
  ExpectSameAsReparse(target, "inserted itself");
}

// A mix of edits at every level; the index must match a fresh parse after each one.
TEST(XmlEdit, EditSequencesKeepIndexEqualToReparse) {
  for (const char16_t* start :
       {u"<r/>", u"<r><a><b><c/></b></a><a/></r>",
        u"<?xml version=\"1.0\"?>\r\n<r>\r\n  <a x='1'>t<b/>u</a>\r\n  <!-- c -->\r\n  <c/>\r\n</r>\r\n"}) {
    XmlDocument doc;
    ASSERT_TRUE(doc.ParseText(start));
    for (int round = 0; round < 3; ++round) {
      doc.ResetAll();
      ASSERT_TRUE(doc.FindSibling(u"r") && doc.Descend());
      ASSERT_TRUE(doc.AppendElement(u"n", u"v", 0));
      ExpectSameAsReparse(doc, "append n");
      ASSERT_TRUE(doc.SetAttribute(u"i", u"'" + WString(round + 1, u'x') + u"'"));
      ExpectSameAsReparse(doc, "attribute i");
      ASSERT_TRUE(doc.Descend() && doc.AppendElement(u"m", u"", round % 2 ? 4 : 0));
      ExpectSameAsReparse(doc, "append m");
      ASSERT_TRUE(doc.InsertSubtree(u"<s><t/></s>"));
      ExpectSameAsReparse(doc, "insert s");
      ASSERT_TRUE(doc.Ascend());
      doc.ResetMain();
      ASSERT_TRUE(doc.FindSibling(u"") && doc.SetContent(u"<w/>text<w>&amp;</w>"));
      ExpectSameAsReparse(doc, "content");
      doc.ResetMain();
      ASSERT_TRUE(doc.FindSibling(u"n") && doc.RemoveElement());
      ExpectSameAsReparse(doc, "remove n");
    }
    EXPECT_TRUE(doc.ParseText(View(doc.GetText()))) << U8(doc.GetReport());
  }
}

// Elements left open by a parse error have no end tag: one open at the end of the text reaches to
// the end of the text, one closed by an enclosing end tag ends where that tag begins. Whatever is
// put at such an end belongs to the element, as a re-parse would have it; an element cannot be
// placed behind one at its own level, so those edits are refused and change nothing. The cases
// were found by fuzzing.
TEST(XmlEdit, ElementsWithoutEndTag) {
  {
    // The new element landed behind its parent's recorded end.
    XmlDocument doc;
    EXPECT_FALSE(doc.ParseText(u"<a> x"));
    ASSERT_TRUE(doc.FindSibling(u"a") && doc.Descend() && doc.AppendElement(u"b", u"", 0));
    EXPECT_EQ(U8(doc.GetText()), "<a> x\r\n  <b/>\r\n");
    EXPECT_EQ(doc.ElementRange(doc.parent_position()).length, doc.GetText().size());
    ExpectSameAsReparse(doc, "append into an open element");
    ASSERT_TRUE(doc.SetAttribute(u"k", u"v") && doc.AppendElement(u"c", u"t", 0));
    ExpectSameAsReparse(doc, "attribute and a sibling inside it");
    ASSERT_TRUE(doc.RemoveElement());
    ExpectSameAsReparse(doc, "remove the last child");
    ASSERT_TRUE(doc.InsertSubtree(u"<s><t/></s>"));
    ExpectSameAsReparse(doc, "insert a subtree");
    ASSERT_TRUE(doc.Ascend() && doc.SetContent(u"<w/>"));
    EXPECT_EQ(U8(doc.GetText()), "<a><w/>");
    ExpectSameAsReparse(doc, "replace its content");
  }
  // Open right behind its start tag: no empty-element tag to expand.
  for (const char16_t* text : {u"<a>", u"<r><a></r>"}) {
    XmlDocument doc;
    EXPECT_FALSE(doc.ParseText(text));
    ASSERT_TRUE(doc.FindSibling(u"/r/a") || doc.FindSibling(u"/a"));
    ASSERT_TRUE(doc.Descend() && doc.AppendElement(u"b", u"", 0)) << U8(W(text));
    ExpectSameAsReparse(doc, U8(W(text)) + " append");
    ASSERT_TRUE(doc.Ascend() && doc.SetContent(u"x<c/>"));
    ExpectSameAsReparse(doc, U8(W(text)) + " content");
  }
  {
    // A stray end tag inside an open element is content, not its end tag.
    XmlDocument doc;
    EXPECT_FALSE(doc.ParseText(u"<a>x</b>"));
    ASSERT_TRUE(doc.FindSibling(u"a") && doc.Descend() && doc.AppendElement(u"n", u"", 0));
    EXPECT_EQ(U8(doc.GetText()), "<a>x</b>\r\n  <n/>\r\n");
    ExpectSameAsReparse(doc, "stray end tag");
  }
  XmlDocument doc;
  const WString text(u"<r><a>x</r>");
  EXPECT_FALSE(doc.ParseText(View(text)));
  ASSERT_TRUE(doc.FindSibling(u"/r/a"));
  EXPECT_FALSE(doc.AppendElement(u"n", u"", 0));
  EXPECT_FALSE(doc.InsertSubtree(u"<n/>"));
  doc.ResetMain();
  EXPECT_FALSE(doc.AppendElement(u"n", u"", 0));
  EXPECT_EQ(doc.GetText(), text);
  EXPECT_EQ(doc.main_position(), 0u);
  ASSERT_TRUE(doc.FindSibling(u"a") && doc.Descend() && doc.AppendElement(u"n", u"", 0));
  ExpectSameAsReparse(doc, "append inside the element closed by its parent's end tag");
  doc.ResetAll();
  ASSERT_TRUE(doc.FindSibling(u"r") && doc.AppendElement(u"s", u"", 0));  // behind a whole element
  ExpectSameAsReparse(doc, "sibling of the root");
}

// ---- size -------------------------------------------------------------------------------------

TEST(XmlSize, DeepNestingNeedsNoStack) {
  constexpr std::size_t kDepth = 200000;
  WString text;
  for (std::size_t i = 0; i < kDepth; ++i) text.append(u"<a>");
  XmlDocument doc;
  EXPECT_FALSE(doc.ParseText(View(text)));  // all of them left open
  EXPECT_EQ(doc.GetReport().substr(0, 34), W(u"Element 'a' at offset 0 not ended,"));
  for (std::size_t i = 0; i < kDepth; ++i) text.append(u"</a>");
  ASSERT_TRUE(doc.ParseText(View(text)));
  std::size_t depth = 0;
  while (doc.FindSibling(u"a") && doc.Descend()) ++depth;
  EXPECT_EQ(depth, kDepth);
  ASSERT_TRUE(doc.Ascend());
  EXPECT_EQ(doc.ElementRange(doc.main_position()).offset, 3 * (kDepth - 1));
  ASSERT_TRUE(doc.AppendElement(u"b", u"", 0));
  doc.ResetAll();
  ASSERT_TRUE(doc.FindSibling(u"a") && doc.RemoveElement());
  EXPECT_TRUE(doc.GetText().empty());
  EXPECT_FALSE(doc.HasValidRoot());
}

// End tags that match no open element, each at the full depth: every one is reported and skipped,
// and the end tag that does match closes everything inside it. (Its cost is the benchmark's.)
TEST(XmlSize, UnmatchedEndTagsAtDepth) {
  constexpr std::size_t kDepth = 50000;
  WString text(u"<r>");
  for (std::size_t i = 0; i < kDepth; ++i) text.append(u"<e>");
  for (std::size_t i = 0; i < kDepth; ++i) text.append(u"</x>");
  text.append(u"</r>");
  XmlDocument doc;
  EXPECT_FALSE(doc.ParseText(View(text)));
  const WString& report = doc.GetReport();
  const std::string innermost = "start tag 'e' at offset " + std::to_string(3 * kDepth);
  EXPECT_EQ(U8(report.substr(0, report.find(u','))),
            "End tag 'x' at offset " + std::to_string(3 + 3 * kDepth) + " does not match " + innermost);
  EXPECT_EQ(U8(report.substr(report.rfind(u',') + 2)),
            "End tag 'r' at offset " + std::to_string(3 + 7 * kDepth) + " does not match " + innermost);
  EXPECT_EQ(std::count(report.begin(), report.end(), u','), static_cast<long>(kDepth));
  EXPECT_TRUE(doc.HasValidRoot());
  ASSERT_TRUE(doc.FindSibling(u"r") && doc.Descend());
  std::size_t depth = 0;
  while (doc.FindSibling(u"e") && doc.Descend()) ++depth;
  EXPECT_EQ(depth, kDepth);
}

TEST(XmlSize, MoreElementsThanOneSegment) {
  constexpr std::size_t kCount = 70000;
  WString text(u"<r>");
  for (std::size_t i = 0; i < kCount; ++i) text.append(u"<e/>");
  text.append(u"</r>");
  XmlDocument doc;
  ASSERT_TRUE(doc.ParseText(View(text)));
  ASSERT_TRUE(doc.FindSibling(u"/r/e[70000]"));
  const auto last = doc.main_position();
  EXPECT_EQ(last >> 16, 1u);  // in the second segment
  EXPECT_EQ(doc.ElementRange(last).offset, 3 + 4 * (kCount - 1));
  EXPECT_EQ(doc.Links(doc.Links(last).prev_sibling).next_sibling, last);
  EXPECT_FALSE(doc.FindSibling(u""));
  ASSERT_TRUE(doc.FindSibling(u"/r/e[65536]") && doc.SetAttribute(u"k", u"v"));
  EXPECT_EQ(doc.ElementRange(last).offset, 3 + 4 * (kCount - 1) + 6);
  std::size_t count = 0;
  doc.ResetAll();
  ASSERT_TRUE(doc.FindSibling(u"r") && doc.Descend());
  while (doc.FindSibling(u"e")) ++count;
  EXPECT_EQ(count, kCount);
  ExpectSameAsReparse(doc, "large");
}

// ---- loading bytes -----------------------------------------------------------------------------

// A large text is decoded a piece at a time; sequences, whole or broken, that straddle where a
// piece ends must read as they do in one piece.
TEST(XmlLoadBytes, PiecesOfALargeTextDecodeAsTheWhole) {
  constexpr std::size_t kPiece = 32768;
  const std::string sequences[] = {"\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xE2\x82",
                                   "\x80\x80\x80\x80\x80", "\xC3", "\xF0\x9F\x98\xC3\xA9"};
  for (const std::string& mark : {std::string(), std::string("\xEF\xBB\xBF")}) {
    for (const std::string& sequence : sequences) {
      for (std::size_t shift = 0; shift < 8; ++shift) {
        const std::string utf8 = "<r>" + std::string(kPiece - 7 + shift, 'a') + sequence +
                                 std::string(kPiece + 100, 'b') + "</r>";
        const std::string bytes = mark + utf8;
        XmlDocument doc;
        EXPECT_TRUE(doc.LoadBytes(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
        EXPECT_TRUE(doc.GetText() == Utf8ToWide(utf8)) << "shift " << shift;
      }
    }
  }
}

}  // namespace
}  // namespace orlenda
