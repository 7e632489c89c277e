#include "xplat/XMLBoundObject.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "xplat/FileSystemVersion.h"
#include "xplat/XMLBoundObjectUtils.h"
#include "xplat/XMLDocumentNode.h"

namespace {

using esd::XMLDocumentNode;

// A record with one field of each storage kind and type the stores use.
class Record : public XMLBoundObject<Record> {
 public:
  Record() = default;
  explicit Record(XMLDocumentNode* node) : XMLBoundObject<Record>(node) {}
  static std::string GetNodeRootName() { return "Record"; }

  bool GetappID(std::string& out) const { return GetAttributeField("appID", out); }
  bool SetappID(const std::string& value) { return SetAttributeField("appID", value); }
  bool GetCount(int& out) const { return GetAttributeField("count", out); }
  bool SetCount(int value) { return SetAttributeField("count", value); }
  bool GetEnabled(bool& out) const { return GetAttributeField("enabled", out); }
  bool SetEnabled(bool value) { return SetAttributeField("enabled", value); }
  bool Getversion(FileSystemVersion& out) const { return GetAttributeField("version", out); }
  bool Setversion(const FileSystemVersion& value) { return SetAttributeField("version", value); }
  bool GetDisplayName(std::string& out) const { return GetChildValue("DisplayName", out); }
  bool SetDisplayName(const std::string& value) { return SetChildValue("DisplayName", value); }
};

std::string Write(const XMLDocumentNode* node) {
  std::ostringstream out;
  out << *node;
  return out.str();
}

std::string AppID(const Record& record) {
  std::string id;
  return record.GetappID(id) ? id : "<none>";
}

// A new record owns an empty element of its own; fields are stored in their text forms and read
// back through the conversions; missing fields read as false and leave the output alone.
TEST(XMLBoundObject, FieldsLiveInTheElement) {
  Record record;
  EXPECT_EQ("<Record></Record>", Write(record.GetObjectRoot()));
  EXPECT_NE(Record().GetObjectRoot(), record.GetObjectRoot());
  EXPECT_TRUE(record.SetappID("com.example app"));
  EXPECT_TRUE(record.SetCount(-12));
  EXPECT_TRUE(record.SetEnabled(true));
  EXPECT_TRUE(record.Setversion(FileSystemVersion("5,1")));
  EXPECT_TRUE(record.SetDisplayName("Example <App> & more"));
  EXPECT_EQ(
      "<Record appID=\"com.example app\" count=\"-12\" enabled=\"1\" version=\"5.1.0.0\">\n"
      "<DisplayName>Example &lt;App&gt; &amp; more</DisplayName>\n</Record>",
      Write(record.GetObjectRoot()));

  std::string text;
  int count = 0;
  bool enabled = false;
  FileSystemVersion version(FileSystemVersion::kInvalidVersion);
  EXPECT_EQ("com.example app", AppID(record));  // whole text, not one word
  EXPECT_TRUE(record.GetCount(count) && count == -12);
  EXPECT_TRUE(record.GetEnabled(enabled) && enabled);
  EXPECT_TRUE(record.Getversion(version) && version.ToString() == "5.1.0.0");
  EXPECT_TRUE(record.GetDisplayName(text) && text == "Example <App> & more");

  Record bare;
  text = "kept";
  count = 7;
  EXPECT_FALSE(bare.GetCount(count) || bare.GetDisplayName(text));
  EXPECT_EQ("kept", text);
  EXPECT_EQ(7, count);
}

// Copies share one element, which outlives the record that made it. Detach gives a bound record
// a private deep copy once; copies taken before stay bound; an empty record has no fields.
TEST(XMLBoundObject, CopiesShareOneElementUntilDetached) {
  std::unique_ptr<Record> maker(new Record);
  Record copy(*maker);
  Record assigned;
  assigned = copy;
  EXPECT_TRUE(assigned.SetappID("shared"));
  maker.reset();
  EXPECT_EQ("shared", AppID(copy));
  EXPECT_FALSE(copy.Detach());  // already owns its element

  XMLDocumentNode document("Store");
  auto* element = new XMLDocumentNode("Record");
  element->SetAttributeData("appID", "a");
  element->AddChildNode(new XMLDocumentNode("DisplayName"));
  document.AddChildNode(element);
  const std::string before = Write(&document);
  Record record(element);
  Record sharer(record);
  ASSERT_TRUE(record.Detach());
  EXPECT_FALSE(record.Detach());
  EXPECT_EQ(Write(element), Write(record.GetObjectRoot()));
  EXPECT_TRUE(record.SetappID("b"));
  EXPECT_TRUE(record.SetDisplayName("private"));
  EXPECT_EQ(before, Write(&document));
  EXPECT_EQ("a", AppID(sharer));

  // Rebinding drops the private copy: writes go to the new node.
  XMLDocumentNode* privateCopy = record.GetObjectRoot();
  EXPECT_EQ(privateCopy, record.SetObjectRoot(element));
  EXPECT_TRUE(record.SetappID("c"));
  EXPECT_EQ("c", AppID(sharer));

  record.SetObjectRoot(nullptr);
  EXPECT_FALSE(record.Detach() || record.SetappID("x") || record.SetDisplayName("x"));
  EXPECT_EQ("<none>", AppID(record));
}

// Only children of exactly the record's name, in document order, bound to the store.
TEST(XMLBoundObjectUtils, ChildrenAsTypeTakesExactNamesInDocumentOrder) {
  XMLDocumentNode store("Store");
  for (const char* name : {"Record", "record", "Other", "Record"}) {
    auto* child = new XMLDocumentNode(name);
    child->SetAttributeData("appID", std::to_string(store.GetChildNodes().size()));
    store.AddChildNode(child);
  }
  std::vector<Record> records(2);  // cleared first
  ASSERT_TRUE(XMLBoundObjectUtils::GetNodeChildrenAsType(&store, "Record", records));
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ("0", AppID(records[0]));
  EXPECT_EQ(store.GetChildNodes()[3], records[1].GetObjectRoot());
  EXPECT_TRUE(XMLBoundObjectUtils::GetNodeChildrenAsType(&store, "Missing", records));
  EXPECT_TRUE(records.empty());
}

}  // namespace
