#include "xplat/XMLWriteCheck.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>

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
// writing agrees, and writes the bytes of operator<<. (Bytes in texts, values and names are the
// tables below.)
TEST(XMLWriteCheck, VouchesForOrdinaryTreesOnly) {
  const std::pair<const char*, std::function<void(Store&)>> kUnvouched[] = {
      {"name starting with a digit", [](Store& s) { s.record->SetAttributeData("1a", "v"); }},
      {"empty name", [](Store& s) { s.root->AddChildNode(new XMLDocumentNode("")); }},
      {"second root", [](Store& s) { s.document.AddChildNode(new XMLDocumentNode("Other")); }},
      {"no root", [](Store& s) { s.document.DeleteChildNode(s.root); }},
      {"version 1.1", [](Store& s) { s.document.SetAttributeData("version", "1.1"); }},
      {"other declaration attribute",
       [](Store& s) { s.document.SetAttributeData("standalone", "yes"); }},
      {"document node inside the tree",
       [](Store& s) { s.root->AddChildNode(new XMLDocumentNode()); }},
  };
  Store plain;
  EXPECT_TRUE(WritesWellFormed(plain.document));
  EXPECT_TRUE(Parses(Write(plain.document)));
  EXPECT_FALSE(WritesWellFormed(*plain.root));  // only a document node can be vouched for
  for (const auto& [what, change] : kUnvouched) {
    Store store;
    change(store);
    EXPECT_FALSE(WritesWellFormed(store.document)) << what;
    std::ostringstream written;
    EXPECT_FALSE(WriteVouched(written, store.document)) << what;
    EXPECT_EQ(Write(store.document), written.str()) << what;
  }
}

// Long texts are judged and escaped in blocks: a byte of every kind at every place of texts
// around and across those blocks' edges is escaped and judged as it would be alone. Valid but
// unusual characters (C1 controls) are left to a parse.
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
      {"\r", "\r", true, true},            {"\n", "\n", true, true},
      {"\x01", "\x01", false, false},      {"\x7F", "\x7F", false, false},
      {"\xC3\xA9", "\xC3\xA9", true, true}, {"\xE2\x82\xAC", "\xE2\x82\xAC", true, true},
      {"\xC3", "\xC3", false, false},      {"\xEF\xBF\xBE", "\xEF\xBF\xBE", false, false},
      {"\xC0\xAF", "\xC0\xAF", false, false}, {"\xED\xA0\x80", "\xED\xA0\x80", false, false},
      {"\xF4\x90\x80\x80", "\xF4\x90\x80\x80", false, false},
      {"\xC2\x85", "\xC2\x85", false, false},
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
        EXPECT_TRUE(!piece.plainInText || Parses(written.str())) << what;

        store.field->SetElementData("");
        store.record->SetAttributeData("appID", before + piece.bytes + after);
        EXPECT_EQ(piece.plainInValue, WritesWellFormed(store.document)) << what;
        EXPECT_TRUE(!piece.plainInValue || Parses(Write(store.document))) << what;
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
