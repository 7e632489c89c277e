#include "xplat/XMLDocumentNode.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/TempDir.h"
#include "xplat/DOMUtils.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/SearchResults.h"
#include "xplat/XMLEscaping.h"

namespace {

using esd::XMLDocumentNode;
using Builder = esd::ExpatDOMBuilder<XMLDocumentNode>;
using testing_support::ReadFile;
using testing_support::TempDir;
using testing_support::WriteFile;

const std::string kDecl = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n";

std::string Write(const XMLDocumentNode& node) {
  std::ostringstream out;
  out << node;
  return out.str();
}

// Parses `bytes` from a real file, as the stores do, and returns the parse result.
bool ParseBytes(Builder& builder, const TempDir& dir, const std::string& bytes) {
  const std::string path = dir / "doc.xml";
  WriteFile(path, bytes);
  EXPECT_TRUE(builder.Create(nullptr, nullptr));
  return builder.ParseFile(path, false);
}

// Parses `bytes` and writes the tree back.
std::string Rewrite(const TempDir& dir, const std::string& bytes) {
  Builder builder;
  EXPECT_TRUE(ParseBytes(builder, dir, bytes)) << bytes;
  return builder.GetDocumentNode() ? Write(*builder.GetDocumentNode()) : std::string();
}

TEST(ExpatDOMBuilder, KeepsTextBeforeTheFirstChildAndDropsTextAfterChildren) {
  TempDir dir;
  Builder builder;
  ASSERT_TRUE(ParseBytes(builder, dir, "<a x=\"1\" b=\"2\">hi<c/>tail</a>"));
  XMLDocumentNode* doc = builder.GetDocumentNode();
  ASSERT_TRUE(doc->IsDocumentNode());
  ASSERT_EQ(1u, doc->GetChildNodes().size());
  XMLDocumentNode* a = doc->GetChildNodes()[0];
  EXPECT_FALSE(a->IsDocumentNode());
  EXPECT_EQ("a", a->GetElementName());
  const XMLDocumentNode::AttributeList expected{{"b", "2"}, {"x", "1"}};
  EXPECT_EQ(expected, a->GetAllAttrs());
  EXPECT_EQ("hi", a->GetData());
  ASSERT_EQ(1u, a->GetChildNodes().size());
  EXPECT_EQ("c", a->GetChildNodes()[0]->GetElementName());
  EXPECT_EQ("", a->GetChildNodes()[0]->GetData());

  EXPECT_EQ(kDecl + "<a b=\"2\" x=\"1\">hi<c></c>\n</a>\n", Write(*doc));
}

TEST(XMLEscaping, FiveEntitiesInTextAttributeValuesRaw) {
  EXPECT_EQ("&lt;&amp;&gt;&apos;&quot;", [] {
    const std::string text = "<&>'\"";
    return esd::XMLEscaping::EscapeXML(text.begin(), text.end());
  }());
  const char bytes[] = "a\tb\n\r\xc3\xa9\x7f";
  EXPECT_EQ(std::string(bytes), esd::XMLEscaping::EscapeXML(bytes, bytes + sizeof bytes - 1));

  XMLDocumentNode doc;
  doc.SetAttributeData("version", "1.0");
  doc.SetAttributeData("encoding", "UTF-8");
  auto* e = new XMLDocumentNode("e");
  e->SetAttributeData("q", "say \"<hi>\"");
  e->SetElementData("<&>'\"");
  doc.AddChildNode(e);
  EXPECT_EQ(kDecl + "<e q=\"say \"<hi>\"\">&lt;&amp;&gt;&apos;&quot;</e>\n", Write(doc));
}

TEST(XMLDocumentNode, DocumentVersionIsNotAnAttribute) {
  XMLDocumentNode doc;
  EXPECT_TRUE(doc.IsDocumentNode());
  doc.SetAttributeData("version", "1.1");
  doc.SetAttributeData("version", "1.0");
  doc.SetAttributeData("encoding", "UTF-8");
  std::string out;
  EXPECT_FALSE(doc.GetAttrValue("version", out));
  EXPECT_EQ("1.0", doc.GetVersion());
  EXPECT_EQ(kDecl, Write(doc));

  // On an element "version" is an ordinary attribute, and setting it again replaces it.
  XMLDocumentNode element("e");
  element.SetAttributeData("version", "1");
  element.SetAttributeData("version", "2");
  ASSERT_TRUE(element.GetAttrValue("version", out));
  EXPECT_EQ("2", out);
  EXPECT_EQ("<e version=\"2\"></e>", Write(element));

  out = "untouched";
  EXPECT_FALSE(element.GetAttrValue("missing", out));
  EXPECT_EQ("untouched", out);
}

struct RoundTripCase {
  const char* name;
  std::string input;
  std::string written;  // what the library writes for it, byte for byte
};

class RoundTrip : public ::testing::TestWithParam<RoundTripCase> {};

// Reading a document gives the written form; reading the written form gives the same bytes again.
TEST_P(RoundTrip, WritesExactBytesAndRereadsToTheSameBytes) {
  TempDir dir;
  const std::string first = Rewrite(dir, GetParam().input);
  EXPECT_EQ(GetParam().written, first);
  EXPECT_EQ(first, Rewrite(dir, first));
}

std::string Utf16LE(const std::string& ascii) {
  std::string out = "\xff\xfe";
  for (char c : ascii) {
    out += c;
    out += '\0';
  }
  return out;
}

std::string LongDocument() {
  // Several 1024-byte parser chunks, with two-byte characters straddling chunk boundaries.
  std::string body;
  for (int i = 0; i < 300; ++i) body += "<i n=\"" + std::to_string(i) + "\">\xc3\xa9t\xc3\xa9</i>\n";
  return body;
}

const RoundTripCase kRoundTripCases[] = {
    {"NoDeclaration", "<r/>", kDecl + "<r></r>\n"},
    {"AttributesInByteOrder", "<r b=\"1\" B=\"2\" a=\"3\" _=\"4\" a-b=\"5\"/>",
     kDecl + "<r B=\"2\" _=\"4\" a=\"3\" a-b=\"5\" b=\"1\"></r>\n"},
    {"EntitiesAndCharacterReferences", "<r>&lt;a&gt; &amp; &apos;b&quot; &#x41;&#66;</r>",
     kDecl + "<r>&lt;a&gt; &amp; &apos;b&quot; AB</r>\n"},
    {"CDataAndComments", "<r>x<!-- note --><![CDATA[<y>&]]><?pi data?>z</r>",
     kDecl + "<r>x&lt;y&gt;&amp;z</r>\n"},
    {"NestedChildren", "<r><a><b><c k=\"v\">deep</c></b></a><d/></r>",
     kDecl + "<r>\n<a>\n<b>\n<c k=\"v\">deep</c>\n</b>\n</a>\n<d></d>\n</r>\n"},
    {"TextBeforeAndAfterChildren", "<r>before<c>in</c>between<d>x</d>after</r>",
     kDecl + "<r>before<c>in</c>\n<d>x</d>\n</r>\n"},
    {"IndentedDocumentKeepsLeadingWhiteSpace",
     "<?xml version=\"1.0\"?>\n<r>\n  <c a=\"1\">x</c>\n  <d/>\n</r>\n",
     kDecl + "<r>\n  <c a=\"1\">x</c>\n<d></d>\n</r>\n"},
    {"LineEndsNormalised", "<r>a\r\nb\rc</r>", kDecl + "<r>a\nb\nc</r>\n"},
    {"Latin1Declared",
     "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><r n=\"caf\xe9\">caf\xe9</r>",
     kDecl + "<r n=\"caf\xc3\xa9\">caf\xc3\xa9</r>\n"},
    {"Utf16WithByteOrderMark",
     Utf16LE("<?xml version=\"1.0\" encoding=\"UTF-16\"?><r a=\"v\">x</r>"),
     kDecl + "<r a=\"v\">x</r>\n"},
    {"Version11AndStandaloneDropped",
     "<?xml version=\"1.1\" encoding=\"utf-8\" standalone=\"yes\"?><r/>",
     "<?xml version=\"1.1\" encoding=\"UTF-8\" ?>\n<r></r>\n"},
    {"Utf8ByteOrderMark", "\xef\xbb\xbf<r>\xe2\x82\xac</r>", kDecl + "<r>\xe2\x82\xac</r>\n"},
    {"InternalEntityExpanded", "<!DOCTYPE r [<!ENTITY e \"ent&#38;#38;ity\">]><r>&e;</r>",
     kDecl + "<r>ent&amp;ity</r>\n"},
    {"NamespacePrefixesKeptAsWritten", "<x:r xmlns:x=\"urn:a\" x:k=\"v\"/>",
     kDecl + "<x:r x:k=\"v\" xmlns:x=\"urn:a\"></x:r>\n"},
    {"ManyChunks", "<r>" + LongDocument() + "</r>",
     [] {
       std::string out = kDecl + "<r>\n";
       for (int i = 0; i < 300; ++i)
         out += "<i n=\"" + std::to_string(i) + "\">\xc3\xa9t\xc3\xa9</i>\n";
       return out + "</r>\n";
     }()},
};

INSTANTIATE_TEST_SUITE_P(Documents, RoundTrip, ::testing::ValuesIn(kRoundTripCases),
                         [](const ::testing::TestParamInfo<RoundTripCase>& info) {
                           return std::string(info.param.name);
                         });

TEST(ExpatDOMBuilder, EmptyOrMissingFileGivesTheCallersResult) {
  TempDir dir;
  const std::string empty = dir / "empty.xml";
  WriteFile(empty, "");
  for (const std::string& path : {empty, dir / "missing.xml", dir.path()}) {
    for (bool resultIfEmpty : {true, false}) {
      Builder builder;
      ASSERT_TRUE(builder.Create(nullptr, nullptr));
      EXPECT_EQ(resultIfEmpty && path != dir.path(), builder.ParseFile(path, resultIfEmpty))
          << path;
      // Whatever happened, the document is still the one Create made.
      EXPECT_EQ(kDecl, Write(*builder.GetDocumentNode())) << path;
    }
  }
}

TEST(ExpatDOMBuilder, MalformedDocumentsFailWithoutHarm) {
  TempDir dir;
  const std::vector<std::string> bad = {
      "<r>",
      "<r><a></r>",
      "<r/><s/>",
      "text only",
      "<r a=\"1\" a=\"2\"/>",
      "<r>&undefined;</r>",
      "<r>&#0;</r>",
      std::string("<r>\0</r>", 8),
      "<r>\xff\xfe</r>",
      "<?xml version=\"1.0\" encoding=\"no-such-encoding\"?><r/>",
      "<r a=1/>",
      "<" + std::string(3000, 'r') + "><" + std::string(10, 'x'),
      "<!DOCTYPE r [<!ENTITY a \"&b;\"><!ENTITY b \"&a;\">]><r>&a;</r>",
  };
  for (const std::string& bytes : bad) {
    Builder builder;
    EXPECT_FALSE(ParseBytes(builder, dir, bytes)) << bytes;
    // The partial tree can still be written and destroyed.
    ASSERT_NE(nullptr, builder.GetDocumentNode());
    (void)Write(*builder.GetDocumentNode());
  }
}

TEST(ExpatDOMBuilder, WellFormedCheckAgreesWithParsingAFile) {
  TempDir dir;
  // Longer than one check chunk, with a two-byte character across the chunk boundary.
  const std::string text = "<r>" + std::string(64 * 1024 - 4, 'x') + "\xc3\xa9</r>";
  std::vector<std::string> samples = {text, text.substr(0, text.size() - 1), "", "<a/>",
                                      "<a/><b/>", "<a x=\"\"\"/>", kDecl};
  for (const std::string& sample : samples) {
    Builder builder;
    EXPECT_EQ(ParseBytes(builder, dir, sample) && !sample.empty(),
              Builder::IsWellFormed(sample.data(), sample.size()))
        << sample.substr(0, 40);
  }
  EXPECT_TRUE(Builder::IsWellFormed(text.data(), text.size()));
}

TEST(ExpatDOMBuilder, VeryDeepTreesParseWriteAndDieWithoutRecursion) {
  TempDir dir;
  const int kDepth = 200000;  // far deeper than any call stack could follow
  std::string bytes;
  bytes.reserve(kDepth * 8);
  for (int i = 0; i < kDepth; ++i) bytes += "<d>";
  bytes += "x";
  for (int i = 0; i < kDepth; ++i) bytes += "</d>";

  Builder builder;
  ASSERT_TRUE(ParseBytes(builder, dir, bytes));
  const std::string written = Write(*builder.GetDocumentNode());
  EXPECT_EQ(kDecl.size() + kDepth * (3 + 1 + 4 + 1) - 1 + 1, written.size());
  std::unique_ptr<XMLDocumentNode> copy(XMLDocumentNode::Duplicate(builder.GetDocumentNode()));
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(written, Write(*copy));
  builder.Clear();
  EXPECT_EQ(nullptr, builder.GetDocumentNode());
}

TEST(ExpatDOMBuilder, CreateDiscardsTheEarlierTree) {
  TempDir dir;
  Builder builder;
  ASSERT_TRUE(ParseBytes(builder, dir, "<?xml version=\"1.1\"?><r/>"));
  ASSERT_TRUE(builder.Create(nullptr, nullptr));
  EXPECT_EQ(kDecl, Write(*builder.GetDocumentNode()));
  // A parse after a failed one needs a new Create; with it the builder works again.
  EXPECT_FALSE(ParseBytes(builder, dir, "<r>"));
  EXPECT_TRUE(ParseBytes(builder, dir, "<s/>"));
  EXPECT_EQ(kDecl + "<s></s>\n", Write(*builder.GetDocumentNode()));
}

TEST(SearchResult, ChildrenLooksOneLevelInDocumentOrder) {
  TempDir dir;
  Builder builder;
  ASSERT_TRUE(ParseBytes(builder, dir,
                         "<r><app id=\"1\"/><other id=\"1\"/><app id=\"2\"><app id=\"3\"/></app>"
                         "<App id=\"4\"/><app/></r>"));
  esd::SearchResult<XMLDocumentNode> root(builder.GetDocumentNode());
  esd::SearchResult<XMLDocumentNode> top = root.Children(esd::NodeName("r"));
  ASSERT_EQ(1u, top.size());
  XMLDocumentNode* r = top.GetSingleMatch();

  const auto apps = top.Children(esd::NodeName("app"));
  ASSERT_EQ(3u, apps.size());  // not the nested one, not "App"
  std::string id;
  EXPECT_TRUE(apps.GetFirst()->GetAttrValue("id", id));
  EXPECT_EQ("1", id);
  EXPECT_EQ(r->GetChildNodes()[2], apps.GetResultSet()[1]);

  EXPECT_EQ(1u, top.Children(esd::NodeBoth(esd::NodeName("app"), esd::NodeAttr("id", "2"))).size());
  EXPECT_EQ(0u, top.Children(esd::NodeBoth(esd::NodeName("other"), esd::NodeAttr("id", "2"))).size());
  EXPECT_EQ(2u, top.Children(esd::NodeAttr("id", "1")).size());
  // A missing attribute never matches, not even an empty wanted value.
  EXPECT_EQ(0u, top.Children(esd::NodeAttr("id", "")).size());
  XMLDocumentNode emptyAttr("e");
  emptyAttr.SetAttributeData("id", "");
  EXPECT_TRUE(esd::NodeAttr("id", "")(&emptyAttr));

  // Narrowing a set of several nodes keeps set order, then document order.
  const auto grandChildren = apps.Children(esd::NodeName("app"));
  ASSERT_EQ(1u, grandChildren.size());
  EXPECT_TRUE(grandChildren.GetFirst()->GetAttrValue("id", id));
  EXPECT_EQ("3", id);
  EXPECT_TRUE(esd::SearchResult<XMLDocumentNode>().Children(esd::NodeName("r")).empty());
}

TEST(DOMUtils, ChildValuesNeedAUniqueChild) {
  XMLDocumentNode parent("p");
  std::string value = "untouched";
  EXPECT_FALSE(esd::DOMUtils::GetChildValue(&parent, "Name", value));
  EXPECT_EQ("untouched", value);

  EXPECT_TRUE(esd::DOMUtils::SetChildValue(&parent, "Name", std::string("first value")));
  EXPECT_TRUE(esd::DOMUtils::SetChildValue(&parent, "Name", std::string("second value")));
  ASSERT_EQ(1u, parent.GetChildNodes().size());
  EXPECT_TRUE(esd::DOMUtils::GetChildValue(&parent, "Name", value));
  EXPECT_EQ("second value", value);  // whole text, blanks and all

  EXPECT_TRUE(esd::DOMUtils::SetChildValue(&parent, "Count", 42));
  int count = 0;
  EXPECT_TRUE(esd::DOMUtils::GetChildValue(&parent, "Count", count));
  EXPECT_EQ(42, count);
  EXPECT_FALSE(esd::DOMUtils::GetChildValue(&parent, "Name", count));

  // With two same-named children the name is not unique: reads fail and a write adds a third.
  parent.AddChildNode(new XMLDocumentNode("Name"));
  EXPECT_FALSE(esd::DOMUtils::GetChildValue(&parent, "Name", value));
  XMLDocumentNode* found = nullptr;
  EXPECT_FALSE(esd::DOMUtils::FindUniqueChildByName(&parent, "Name", found));
  EXPECT_EQ(nullptr, found);
  EXPECT_TRUE(esd::DOMUtils::SetChildValue(&parent, "Name", std::string("third")));
  EXPECT_EQ(4u, parent.GetChildNodes().size());
  EXPECT_EQ("third", parent.GetChildNodes().back()->GetData());
}

TEST(XMLDocumentNode, DeleteChildNodeRemovesOnlyDirectChildren) {
  XMLDocumentNode root("r");
  auto* a = new XMLDocumentNode("a");
  auto* b = new XMLDocumentNode("b");
  auto* grandChild = new XMLDocumentNode("g");
  a->AddChildNode(grandChild);
  root.AddChildNode(a);
  root.AddChildNode(b);
  XMLDocumentNode stranger("s");

  EXPECT_FALSE(root.DeleteChildNode(grandChild));
  EXPECT_FALSE(root.DeleteChildNode(&stranger));
  EXPECT_FALSE(root.DeleteChildNode(nullptr));
  ASSERT_EQ(1u, a->GetChildNodes().size());
  EXPECT_EQ("g", a->GetChildNodes()[0]->GetElementName());  // still alive and in place

  EXPECT_TRUE(root.DeleteChildNode(a));
  ASSERT_EQ(1u, root.GetChildNodes().size());
  EXPECT_EQ(b, root.GetChildNodes()[0]);
  EXPECT_FALSE(root.DeleteChildNode(a));
}

TEST(XMLDocumentNode, DuplicatesAreDeepAndIndependent) {
  TempDir dir;
  Builder builder;
  ASSERT_TRUE(ParseBytes(builder, dir, "<r k=\"v\">t<a x=\"1\">u<b/></a><c/></r>"));
  XMLDocumentNode* r = builder.GetDocumentNode()->GetChildNodes()[0];
  const std::string before = Write(*r);

  std::unique_ptr<XMLDocumentNode> copy(XMLDocumentNode::Duplicate(r));
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(before, Write(*copy));
  copy->SetAttributeData("k", "changed");
  copy->GetChildNodes()[0]->SetElementData("changed");
  EXPECT_EQ(before, Write(*r));

  std::unique_ptr<XMLDocumentNode> shallow(XMLDocumentNode::DuplicateNode(r));
  EXPECT_TRUE(shallow->GetChildNodes().empty());
  EXPECT_EQ("t", shallow->GetData());
  EXPECT_FALSE(shallow->IsDocumentNode());

  std::unique_ptr<XMLDocumentNode> docCopy(XMLDocumentNode::Duplicate(builder.GetDocumentNode()));
  EXPECT_TRUE(docCopy->IsDocumentNode());
  EXPECT_EQ(Write(*builder.GetDocumentNode()), Write(*docCopy));

  // Copying a node into its own subtree copies the subtree as it was and stops.
  XMLDocumentNode* a = r->GetChildNodes()[0];
  XMLDocumentNode* attached = XMLDocumentNode::DuplicateAndAttach(r, a);
  ASSERT_EQ(a->GetChildNodes().back(), attached);
  EXPECT_EQ(before, Write(*attached));
}

TEST(XMLDocumentNodeDeathTest, ProgrammingErrorsNameTheCondition) {
  XMLDocumentNode node("n");
  EXPECT_DEATH(node.AddChildNode(nullptr), "failed assertion `pNode != NULL'");
  Builder builder;
  EXPECT_DEATH(builder.GetBuffer(10), "failed assertion `m_pExpatParser != NULL'");
  esd::SearchResult<XMLDocumentNode> none;
  EXPECT_DEATH(none.GetFirst(), "failed assertion `!mResultSet.empty\\(\\)'");
}

}  // namespace
