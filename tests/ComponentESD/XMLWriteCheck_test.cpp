#include "xplat/XMLWriteCheck.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "support/TempDir.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/JournaledXMLFile.h"
#include "xplat/XMLDocumentNode.h"

namespace {

using esd::XMLDocumentNode;
using esd::XMLWriteCheck::WritesWellFormed;
using esd::XMLWriteCheck::WriteVouched;
using Builder = esd::ExpatDOMBuilder<XMLDocumentNode>;

std::string Write(const XMLDocumentNode& node) {
  std::ostringstream out;
  out << node;
  return out.str();
}

bool Parses(const std::string& text) { return Builder::IsWellFormed(text.data(), text.size()); }

// A document as the builder makes it, with one store root holding one record.
struct Store {
  XMLDocumentNode document;
  XMLDocumentNode* root;
  XMLDocumentNode* record;
  XMLDocumentNode* field;
  Store() {
    document.SetAttributeData("version", "1.0");
    document.SetAttributeData("encoding", "UTF-8");
    root = new XMLDocumentNode("Store");
    document.AddChildNode(root);
    record = new XMLDocumentNode("Application");
    root->AddChildNode(record);
    record->SetAttributeData("appID", "org.example.Host");
    field = new XMLDocumentNode("InstallPath");
    record->AddChildNode(field);
    field->SetElementData("/opt/Example Host");
  }
};

// The check vouches for ordinary trees and for nothing whose text fails to parse; what it does not
// vouch for is either broken or merely unusual (then a parse decides). The writer's check while
// writing agrees, and writes the bytes of operator<<.
TEST(XMLWriteCheck, VouchesForOrdinaryTreesOnly) {
  struct Case {
    const char* what;
    std::function<void(Store&)> change;
    bool vouched;
  };
  const std::vector<Case> cases = {
      {"plain store", [](Store&) {}, true},
      {"markup and quotes in text", [](Store& s) { s.field->SetElementData("<&>\"' ]]>"); }, true},
      {"'>' and apostrophe in a value", [](Store& s) { s.record->SetAttributeData("a", "x>'y"); },
       true},
      {"tab, line feed, return", [](Store& s) { s.field->SetElementData("a\tb\nc\rd"); }, true},
      {"UTF-8 of two, three, four bytes",
       [](Store& s) { s.field->SetElementData("\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"); }, true},
      {"names with digits, dots, dashes, colons",
       [](Store& s) { s.record->SetAttributeData("x:a-1.b", "v"); }, true},
      {"'<' in a value", [](Store& s) { s.record->SetAttributeData("a", "x<y"); }, false},
      {"'&' in a value", [](Store& s) { s.record->SetAttributeData("a", "x&amp;y"); }, false},
      {"'\"' in a value", [](Store& s) { s.record->SetAttributeData("a", "x\"y"); }, false},
      {"control character", [](Store& s) { s.field->SetElementData("a\x01"); }, false},
      {"DEL", [](Store& s) { s.field->SetElementData("a\x7F"); }, false},
      {"truncated UTF-8", [](Store& s) { s.field->SetElementData("a\xC3"); }, false},
      {"overlong UTF-8", [](Store& s) { s.field->SetElementData("\xC0\xAF"); }, false},
      {"encoded surrogate", [](Store& s) { s.field->SetElementData("\xED\xA0\x80"); }, false},
      {"U+FFFE", [](Store& s) { s.field->SetElementData("\xEF\xBF\xBE"); }, false},
      {"beyond U+10FFFF", [](Store& s) { s.field->SetElementData("\xF4\x90\x80\x80"); }, false},
      {"C1 control (valid, left to a parse)",
       [](Store& s) { s.field->SetElementData("\xC2\x85"); }, false},
      {"name starting with a digit", [](Store& s) { s.record->SetAttributeData("1a", "v"); },
       false},
      {"name with a blank",
       [](Store& s) { s.root->AddChildNode(new XMLDocumentNode("a b")); }, false},
      {"empty name", [](Store& s) { s.root->AddChildNode(new XMLDocumentNode("")); }, false},
      {"non-ASCII name (valid, left to a parse)",
       [](Store& s) { s.root->AddChildNode(new XMLDocumentNode("\xC3\xA9t\xC3\xA9")); }, false},
      {"second root",
       [](Store& s) { s.document.AddChildNode(new XMLDocumentNode("Other")); }, false},
      {"no root",
       [](Store& s) { s.document.DeleteChildNode(s.root); }, false},
      {"version 1.1", [](Store& s) { s.document.SetAttributeData("version", "1.1"); }, false},
      {"other declaration attribute",
       [](Store& s) { s.document.SetAttributeData("standalone", "yes"); }, false},
      {"document node inside the tree",
       [](Store& s) { s.root->AddChildNode(new XMLDocumentNode()); }, false},
  };
  for (const Case& c : cases) {
    Store store;
    c.change(store);
    const bool vouched = WritesWellFormed(store.document);
    EXPECT_EQ(c.vouched, vouched) << c.what;
    std::ostringstream written;
    EXPECT_EQ(vouched, WriteVouched(written, store.document)) << c.what;
    EXPECT_EQ(Write(store.document), written.str()) << c.what;
    if (vouched) {
      EXPECT_TRUE(Parses(Write(store.document))) << c.what;
    }
  }
  // Only a document node can be vouched for.
  Store store;
  EXPECT_FALSE(WritesWellFormed(*store.root));
}

// Long texts are judged and escaped in blocks: a byte of every kind at every place of texts
// around and across those blocks' edges is escaped and judged as it would be alone.
TEST(XMLWriteCheck, EveryPlaceInALongTextIsJudgedAndEscaped) {
  struct Piece {
    const char* bytes;
    const char* escaped;
    bool plainInText;
    bool plainInValue;
  };
  const Piece kPieces[] = {
      {"<", "&lt;", true, false},          {"&", "&amp;", true, false},
      {"\"", "&quot;", true, false},       {"'", "&apos;", true, true},
      {">", "&gt;", true, true},           {"\t", "\t", true, true},
      {"\r", "\r", true, true},            {"\x01", "\x01", false, false},
      {"\x7F", "\x7F", false, false},      {"\xC3\xA9", "\xC3\xA9", true, true},
      {"\xC3", "\xC3", false, false},      {"\xEF\xBF\xBE", "\xEF\xBF\xBE", false, false},
      {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80", true, true},
  };
  for (const Piece& piece : kPieces) {
    for (size_t length : {15u, 16u, 17u, 31u, 32u, 33u, 47u}) {
      for (size_t at = 0; at <= length; ++at) {
        const std::string before(at, 'a'), after(length - at, 'b');
        Store store;
        store.field->SetElementData(before + piece.bytes + after);
        std::ostringstream written;
        const std::string what = std::string("text of ") + std::to_string(length) + " at " +
                                 std::to_string(at) + ": " + piece.escaped;
        EXPECT_EQ(piece.plainInText, WriteVouched(written, store.document)) << what;
        EXPECT_EQ(piece.plainInText, WritesWellFormed(store.document)) << what;
        EXPECT_NE(std::string::npos,
                  written.str().find(">" + before + piece.escaped + after + "</InstallPath>"))
            << what;

        store.field->SetElementData("");
        store.record->SetAttributeData("appID", before + piece.bytes + after);
        EXPECT_EQ(piece.plainInValue, WritesWellFormed(store.document)) << what;
      }
    }
  }
}

// Names are judged several bytes at a time: a byte on either side of every range of name
// characters, at every place of names of every length up to past two blocks, is judged as it
// would be alone, in element and attribute names alike.
TEST(XMLWriteCheck, EveryPlaceInALongNameIsJudged) {
  const std::string kBytes = std::string("AZaz09:-._/;@[`{,^ ") + "\x7F\x80\xC3\xFF";
  auto nameChar = [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           c == '_' || c == ':' || c == '-' || c == '.';
  };
  for (size_t length = 2; length <= 40; ++length) {
    for (size_t at = 1; at < length; ++at) {
      for (const char c : kBytes) {
        std::string name(length, 'n');
        name[at] = c;
        Store store;
        store.root->AddChildNode(new XMLDocumentNode(name));
        EXPECT_EQ(nameChar(c), WritesWellFormed(store.document)) << name;
        std::ostringstream written;
        EXPECT_EQ(nameChar(c), WriteVouched(written, store.document)) << name;

        Store attributed;
        attributed.record->SetAttributeData(name, "v");
        EXPECT_EQ(nameChar(c), WritesWellFormed(attributed.document)) << name;
      }
    }
  }
}

// A save writes what the check vouches for without parsing it first, and still writes unusual
// but loadable trees after parsing them; broken ones never reach the file.
TEST(XMLWriteCheck, SaveWritesUnusualTreesThatParseAndRefusesBrokenOnes) {
  testing_support::TempDir dir;
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
  EXPECT_EQ(saved, testing_support::ReadFile(path));

  root->SetAttributeData("note", "a<b");
  EXPECT_FALSE(file.Save());
  EXPECT_EQ(saved, testing_support::ReadFile(path));
}

}  // namespace
