// The XML tree: reading and writing it, the check a tree passes before it is written, and
// records bound to its elements.
#include "xplat/XMLDocumentNode.h"

#include <gtest/gtest.h>

#include <cctype>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/TempDir.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/JournaledXMLFile.h"
#include "xplat/SearchResults.h"
#include "xplat/XMLBoundObject.h"
#include "xplat/XMLBoundObjectUtils.h"
#include "xplat/XMLWriteCheck.h"

namespace {

using esd::XMLDocumentNode;
using esd::XMLWriteCheck::WritesWellFormed;
using esd::XMLWriteCheck::WriteVouched;
using Builder = esd::ExpatDOMBuilder<XMLDocumentNode>;
using namespace testing_support;

const std::string kDecl = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n";

std::string Write(const XMLDocumentNode& node) {
  std::ostringstream out;
  out << node;
  return out.str();
}

// Parses `bytes` from a real file, as the stores do, and returns the parse result.
template <typename AnyBuilder>
bool ParseBytes(AnyBuilder& builder, const std::string& bytes) {
  static const TempDir dir;
  WriteFile(dir / "doc.xml", bytes);
  EXPECT_TRUE(builder.Create(nullptr, nullptr));
  return builder.ParseFile(dir / "doc.xml", false);
}

// Parses `bytes` and writes the tree back.
std::string Rewrite(const std::string& bytes) {
  Builder builder;
  EXPECT_TRUE(ParseBytes(builder, bytes)) << bytes;
  return builder.GetDocumentNode() ? Write(*builder.GetDocumentNode()) : std::string();
}

// One document per feature of reading or writing (text before the first child kept, after a
// child dropped; attributes sorted; text escaped): exact bytes, which read back to the same.
TEST(ExpatDOMBuilder, RoundTripWritesExactBytes) {
  std::string utf16 = "\xff\xfe";
  for (char c : std::string("<?xml version=\"1.0\" encoding=\"UTF-16\"?><r a=\"v\">x</r>"))
    utf16 += std::string{c, '\0'};

  const std::pair<std::string, std::string> kCases[] = {
      {"<r/>", kDecl + "<r></r>\n"},
      {"<r b=\"1\" B=\"2\" a=\"3\" _=\"4\"/>", kDecl + "<r B=\"2\" _=\"4\" a=\"3\" b=\"1\"></r>\n"},
      {"<r>&lt;a&gt; &amp; &apos;b&quot; &#x41;&#66;</r>",
       kDecl + "<r>&lt;a&gt; &amp; &apos;b&quot; AB</r>\n"},
      {"<r>x<!-- note --><![CDATA[<y>&]]><?pi data?>z</r>", kDecl + "<r>x&lt;y&gt;&amp;z</r>\n"},
      {"<r>before<c>in</c>between<d><e/></d>after</r>",
       kDecl + "<r>before<c>in</c>\n<d>\n<e></e>\n</d>\n</r>\n"},
      {"<?xml version=\"1.0\"?>\n<r>\n  <c a=\"1\">x</c>\n  <d/>\n</r>\n",
       kDecl + "<r>\n  <c a=\"1\">x</c>\n<d></d>\n</r>\n"},
      {"<r>a\r\nb\rc</r>", kDecl + "<r>a\nb\nc</r>\n"},
      {"<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><r n=\"caf\xe9\">caf\xe9</r>",
       kDecl + "<r n=\"caf\xc3\xa9\">caf\xc3\xa9</r>\n"},
      {utf16, kDecl + "<r a=\"v\">x</r>\n"},
      {"<?xml version=\"1.1\" encoding=\"utf-8\" standalone=\"yes\"?><r/>",
       "<?xml version=\"1.1\" encoding=\"UTF-8\" ?>\n<r></r>\n"},
  };
  for (const auto& [input, written] : kCases) {
    const std::string first = Rewrite(input);
    EXPECT_EQ(written, first) << input.substr(0, 60);
    EXPECT_EQ(first, Rewrite(first)) << input.substr(0, 60);
  }
}

// An empty, missing or unreadable file gives the caller's result and a new document: Create
// discards the earlier tree. (A parse after a failed one is the large documents' test's.)
TEST(ExpatDOMBuilder, EmptyOrMissingFileGivesTheCallersResult) {
  TempDir dir;
  WriteFile(dir / "empty.xml", "");
  Builder builder;
  for (const std::string& path : {dir / "empty.xml", dir / "missing.xml", dir.path()}) {
    for (bool resultIfEmpty : {true, false}) {
      ASSERT_TRUE(ParseBytes(builder, "<?xml version=\"1.1\"?><r/>"));
      ASSERT_TRUE(builder.Create(nullptr, nullptr));
      EXPECT_EQ(resultIfEmpty && path != dir.path(), builder.ParseFile(path, resultIfEmpty))
          << path;
      EXPECT_EQ(kDecl, Write(*builder.GetDocumentNode())) << path;
    }
  }
}

// Past the size read as one buffer, the file and the text go to the parser in chunks; a
// two-byte character across the edge of the first chunk must survive. (Smaller texts are the
// fuzzer's, which compares the check with the builder.)
TEST(ExpatDOMBuilder, LargeAndDeepDocumentsParseWhole) {
  std::string large = "<r>" + std::string(64 * 1024 - 4, 'x') + "\xc3\xa9";
  while (large.size() < 17 * 1024 * 1024) large += "<i n=\"1\">t</i>\n";
  large += "</r>";
  Builder builder;
  ASSERT_TRUE(ParseBytes(builder, large));
  const std::string& data = builder.GetDocumentNode()->GetChildNodes().at(0)->ElementData();
  EXPECT_EQ(64u * 1024 - 2, data.size());
  EXPECT_EQ("\xc3\xa9", data.substr(data.size() - 2));
  EXPECT_TRUE(Builder::IsWellFormed(large.data(), large.size()));
  EXPECT_FALSE(ParseBytes(builder, large.substr(0, large.size() - 1)));
  EXPECT_FALSE(Builder::IsWellFormed(large.data(), large.size() - 1));

  // Far deeper than a call stack could follow: parse, write, copy and free must not recurse; the
  // builder is usable again after the failed parse above.
  const int kDepth = 200000;
  std::string bytes;
  for (int i = 0; i < kDepth; ++i) bytes += "<d>";
  bytes += "x";
  for (int i = 0; i < kDepth; ++i) bytes += "</d>";
  ASSERT_TRUE(ParseBytes(builder, bytes));
  const std::string written = Write(*builder.GetDocumentNode());
  EXPECT_EQ(kDecl.size() + kDepth * (3 + 1 + 4 + 1), written.size());
  std::unique_ptr<XMLDocumentNode> copy(XMLDocumentNode::Duplicate(builder.GetDocumentNode()));
  EXPECT_EQ(written, Write(*copy));
  builder.Clear();
  EXPECT_EQ(nullptr, builder.GetDocumentNode());
}

// A node type of its own that rewrites what it is given: the builder must hand it every text and
// attribute through the virtual setters, never around them.
class UpperNode : public XMLDocumentNode {
 public:
  UpperNode() = default;
  explicit UpperNode(const std::string& name) : XMLDocumentNode(Upper(name)) {}
  void AppendElementData(const std::string& data) override {
    XMLDocumentNode::AppendElementData(Upper(data));
  }
  void SetAttributeData(const std::string& name, const std::string& value) override {
    XMLDocumentNode::SetAttributeData(name, Upper(value));
  }

 private:
  static std::string Upper(std::string text) {
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
  }
};

TEST(ExpatDOMBuilder, DerivedNodesAreGivenEverythingThroughTheirSetters) {
  esd::ExpatDOMBuilder<UpperNode> derived;
  ASSERT_TRUE(ParseBytes(derived, "<r b=\"two\" a=\"one\">text &amp; more<c x=\"y\">in</c></r>"));
  EXPECT_EQ(kDecl + "<R a=\"ONE\" b=\"TWO\">TEXT &amp; MORE<C x=\"Y\">IN</C>\n</R>\n",
            Write(*derived.GetDocumentNode()));

  // The plain nodes' own setter keeps what the virtual one promises: a repeated name takes the
  // new value, and "version" on the document node is the declaration's, not an attribute.
  XMLDocumentNode element("e"), document;
  element.AddAttribute("k", "1");
  element.AddAttribute("k", "2");
  EXPECT_EQ((XMLDocumentNode::AttributeList{{"k", "2"}}), element.GetAllAttrs());
  document.AddAttribute("version", "1.1");
  EXPECT_EQ("1.1", document.GetVersion());
  EXPECT_TRUE(document.GetAttributeMap().empty());
}

TEST(XMLDocumentNodeDeathTest, ProgrammingErrorsNameTheCondition) {
  XMLDocumentNode node("n");
  EXPECT_DEATH(node.AddChildNode(nullptr), "failed assertion `pNode != NULL'");
  Builder builder;
  EXPECT_DEATH(builder.GetBuffer(10), "failed assertion `m_pExpatParser != NULL'");
  esd::SearchResult<XMLDocumentNode> none;
  EXPECT_DEATH(none.GetFirst(), "failed assertion `!mResultSet.empty\\(\\)'");
}

// What the fuzzer does not make: another version or declaration attribute, a bad attribute name,
// no root, a second root, a document node inside the tree, an element in place of the document.
// The writer's check agrees, and writes the bytes of operator<<.
TEST(XMLWriteCheck, VouchesOnlyForAPlainDocumentWithOneRoot) {
  const std::function<void(XMLDocumentNode&)> kChanges[] = {
      [](XMLDocumentNode& doc) { doc.SetAttributeData("version", "1.1"); },
      [](XMLDocumentNode& doc) { doc.GetChildNodes()[0]->SetAttributeData("1", "v"); },
      [](XMLDocumentNode& doc) { doc.SetAttributeData("standalone", "yes"); },
      [](XMLDocumentNode& doc) { doc.DeleteChildNode(doc.GetChildNodes()[0]); },
      [](XMLDocumentNode& doc) { doc.AddChildNode(new XMLDocumentNode("Other")); },
      [](XMLDocumentNode& doc) { doc.GetChildNodes()[0]->AddChildNode(new XMLDocumentNode()); },
  };
  for (const auto& change : kChanges) {
    Builder builder;
    ASSERT_TRUE(ParseBytes(builder, "<r a=\"v\">t</r>"));
    XMLDocumentNode& document = *builder.GetDocumentNode();
    ASSERT_TRUE(WritesWellFormed(document));
    EXPECT_FALSE(WritesWellFormed(*document.GetChildNodes()[0]));
    change(document);
    std::ostringstream written;
    EXPECT_FALSE(WriteVouched(written, document));
    EXPECT_FALSE(WritesWellFormed(document));
    EXPECT_EQ(Write(document), written.str());
  }
}

// A save writes what the check vouches for without parsing it first, and still writes unusual
// but loadable trees after parsing them; broken ones never reach the file.
TEST(XMLWriteCheck, SaveWritesUnusualTreesThatParseAndRefusesBrokenOnes) {
  TempDir dir;
  const std::string path = dir / "Store.xml";
  Builder builder;
  JournaledXMLFile file(builder);
  ASSERT_TRUE(file.SetPath(path));
  ASSERT_TRUE(file.Load(nullptr));
  auto* root = new XMLDocumentNode("Store");
  builder.GetDocumentNode()->AddChildNode(root);
  root->SetAttributeData("note", "a&amp;b");     // not vouched for, but parses
  root->AddChildNode(new XMLDocumentNode("\xC3\xA9t\xC3\xA9"));  // likewise
  ASSERT_FALSE(WritesWellFormed(*builder.GetDocumentNode()));
  ASSERT_TRUE(file.Save());
  const std::string saved = Write(*builder.GetDocumentNode());
  EXPECT_EQ(saved, ReadFile(path));

  root->SetAttributeData("note", "a<b");
  EXPECT_FALSE(file.Save());
  EXPECT_EQ(saved, ReadFile(path));
}

// A record type, for binding records to the children a search finds.
class Record : public XMLBoundObject<Record> {
 public:
  Record() = default;
  explicit Record(XMLDocumentNode* node) : XMLBoundObject<Record>(node) {}
  static std::string GetNodeRootName() { return "Record"; }
};

// Children looks one level down, by exact name, in document order; a missing attribute never
// matches, not even an empty wanted value. Records are bound to the children so found.
TEST(SearchResult, ChildrenLooksOneLevelInDocumentOrderAndCopiesAttach) {
  Builder builder;
  ASSERT_TRUE(ParseBytes(builder,
                         "<r><app id=\"1\"/><other id=\"1\"/><app id=\"2\"><app id=\"3\"/></app>"
                         "<App id=\"4\"/><app/></r>"));
  const auto top = esd::SearchResult<XMLDocumentNode>(builder.GetDocumentNode())
                       .Children(esd::NodeName("r"));
  ASSERT_EQ(1u, top.size());
  const auto apps = top.Children(esd::NodeName("app"));
  ASSERT_EQ(3u, apps.size());
  EXPECT_EQ(top.GetSingleMatch()->GetChildNodes()[2], apps.GetResultSet()[1]);
  EXPECT_EQ(1u, top.Children(esd::NodeBoth(esd::NodeName("app"), esd::NodeAttr("id", "2"))).size());
  EXPECT_EQ(2u, top.Children(esd::NodeAttr("id", "1")).size());
  EXPECT_EQ(0u, top.Children(esd::NodeAttr("id", "")).size());
  XMLDocumentNode emptyAttr("e");
  emptyAttr.SetAttributeData("id", "");
  EXPECT_TRUE(esd::NodeAttr("id", "")(&emptyAttr));

  const auto grandChildren = apps.Children(esd::NodeName("app"));
  ASSERT_EQ(1u, grandChildren.size());
  EXPECT_EQ("3", grandChildren.GetFirst()->GetAttributeMap().at("id"));

  std::vector<Record> records(2);  // cleared first
  ASSERT_TRUE(XMLBoundObjectUtils::GetNodeChildrenAsType(top.GetFirst(), "app", records));
  ASSERT_EQ(3u, records.size());
  EXPECT_EQ(apps.GetResultSet()[2], records[2].GetObjectRoot());
  EXPECT_TRUE(XMLBoundObjectUtils::GetNodeChildrenAsType(top.GetFirst(), "Missing", records));
  EXPECT_TRUE(records.empty());

  // A copy attached inside the subtree it copies is that subtree as it was. (Deep copies and
  // deletes are the stores' and the fuzzer's.)
  XMLDocumentNode* r = top.GetFirst();
  const std::string before = Write(*r);
  XMLDocumentNode* attached = XMLDocumentNode::DuplicateAndAttach(r, r->GetChildNodes()[2]);
  ASSERT_EQ(r->GetChildNodes()[2]->GetChildNodes().back(), attached);
  EXPECT_EQ(before, Write(*attached));
}

}  // namespace
