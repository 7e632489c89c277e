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
  virtual ~Record() = default;

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

TEST(XMLBoundObject, NewRecordOwnsAnEmptyElementOfItsName) {
  Record record;
  XMLDocumentNode* root = record.GetObjectRoot();
  ASSERT_NE(nullptr, root);
  EXPECT_EQ("Record", root->GetElementName());
  EXPECT_FALSE(root->IsDocumentNode());
  EXPECT_TRUE(root->GetAllAttrs().empty());
  EXPECT_TRUE(root->GetChildNodes().empty());
  EXPECT_EQ("<Record></Record>", Write(root));
  EXPECT_NE(Record().GetObjectRoot(), root);  // every new record has its own element
}

TEST(XMLBoundObject, FieldsLiveInTheElement) {
  Record record;
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
  EXPECT_TRUE(record.GetappID(text));
  EXPECT_EQ("com.example app", text);  // whole text, not one word
  EXPECT_TRUE(record.GetCount(count));
  EXPECT_EQ(-12, count);
  EXPECT_TRUE(record.GetEnabled(enabled));
  EXPECT_TRUE(enabled);
  EXPECT_TRUE(record.Getversion(version));
  EXPECT_EQ("5.1.0.0", version.ToString());
  EXPECT_TRUE(record.GetDisplayName(text));
  EXPECT_EQ("Example <App> & more", text);

  // Missing fields report false and leave the output alone; bad numbers report false.
  Record bare;
  text = "kept";
  count = 7;
  EXPECT_FALSE(bare.GetappID(text));
  EXPECT_FALSE(bare.GetCount(count));
  EXPECT_FALSE(bare.GetDisplayName(text));
  EXPECT_EQ("kept", text);
  EXPECT_EQ(7, count);
  bare.GetObjectRoot()->SetAttributeData("count", "12abc");
  bare.GetObjectRoot()->SetAttributeData("enabled", "true");
  EXPECT_FALSE(bare.GetCount(count));
  EXPECT_FALSE(bare.GetEnabled(enabled));
}

TEST(XMLBoundObject, CopiesShareOneElement) {
  Record original;
  Record copy(original);
  Record assigned;
  assigned = original;
  EXPECT_EQ(original.GetObjectRoot(), copy.GetObjectRoot());
  EXPECT_EQ(original.GetObjectRoot(), assigned.GetObjectRoot());

  EXPECT_TRUE(assigned.SetappID("shared"));
  std::string id;
  EXPECT_TRUE(original.GetappID(id));
  EXPECT_EQ("shared", id);

  // The shared element outlives the record that made it.
  std::unique_ptr<Record> maker(new Record);
  Record survivor(*maker);
  maker->SetDisplayName("still here");
  maker.reset();
  EXPECT_TRUE(survivor.GetDisplayName(id));
  EXPECT_EQ("still here", id);

  // Copies of a bound record write into the document.
  XMLDocumentNode document("Store");
  auto* element = new XMLDocumentNode("Record");
  document.AddChildNode(element);
  Record bound(element);
  Record boundCopy = bound;
  EXPECT_TRUE(boundCopy.SetCount(3));
  EXPECT_EQ("<Store>\n<Record count=\"3\"></Record>\n</Store>", Write(&document));
}

TEST(XMLBoundObject, DetachMakesAPrivateCopyOnce) {
  Record fresh;
  EXPECT_FALSE(fresh.Detach());  // already owns its element

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
  EXPECT_NE(element, record.GetObjectRoot());
  EXPECT_EQ(Write(element), Write(record.GetObjectRoot()));  // a deep copy

  EXPECT_TRUE(record.SetappID("b"));
  EXPECT_TRUE(record.SetDisplayName("private"));
  EXPECT_EQ(before, Write(&document));
  std::string id;
  EXPECT_TRUE(sharer.GetappID(id));  // a copy taken before detaching stays bound
  EXPECT_EQ("a", id);

  Record empty(element);
  empty.SetObjectRoot(nullptr);
  EXPECT_FALSE(empty.Detach());
  EXPECT_EQ(nullptr, empty.GetObjectRoot());
  EXPECT_FALSE(empty.SetappID("x"));
  EXPECT_FALSE(empty.GetappID(id));
  EXPECT_FALSE(empty.SetDisplayName("x"));
  EXPECT_FALSE(empty.GetDisplayName(id));
}

TEST(XMLBoundObject, SetObjectRootReturnsThePreviousRootAndDropsOwnership) {
  Record owner;
  Record keeper(owner);  // keeps the owned element alive after owner lets go
  XMLDocumentNode* ownedElement = owner.GetObjectRoot();
  XMLDocumentNode other("Record");

  EXPECT_EQ(ownedElement, owner.SetObjectRoot(&other));
  EXPECT_EQ(&other, owner.GetObjectRoot());
  EXPECT_TRUE(owner.SetappID("on other"));
  std::string id;
  EXPECT_TRUE(other.GetAttrValue("appID", id));
  EXPECT_FALSE(keeper.GetappID(id));  // the old element did not get the write
  EXPECT_EQ(ownedElement, keeper.GetObjectRoot());

  // A detached record that is rebound works on the new node, not on its copy.
  Record bound(&other);
  ASSERT_TRUE(bound.Detach());
  XMLDocumentNode third("Record");
  XMLDocumentNode* copy = bound.GetObjectRoot();
  EXPECT_EQ(copy, bound.SetObjectRoot(&third));
  EXPECT_EQ(&third, bound.GetObjectRoot());
}

TEST(XMLBoundObjectUtils, ChildrenAsTypeTakesExactNamesInDocumentOrder) {
  XMLDocumentNode store("Store");
  for (const char* name : {"Record", "record", "Other", "Record", "RecordX", "Record"}) {
    auto* child = new XMLDocumentNode(name);
    child->SetAttributeData("appID", std::to_string(store.GetChildNodes().size()));
    store.AddChildNode(child);
  }
  auto* nested = new XMLDocumentNode("Record");
  store.GetChildNodes()[2]->AddChildNode(nested);

  std::vector<Record> records(2);  // cleared first
  ASSERT_TRUE(XMLBoundObjectUtils::GetNodeChildrenAsType(&store, "Record", records));
  ASSERT_EQ(3u, records.size());
  std::vector<std::string> ids;
  for (const Record& record : records) {
    std::string id;
    EXPECT_TRUE(record.GetappID(id));
    ids.push_back(id);
  }
  EXPECT_EQ((std::vector<std::string>{"0", "3", "5"}), ids);

  // The records are bound: they write into the store.
  EXPECT_TRUE(records[1].SetCount(9));
  std::string count;
  EXPECT_TRUE(store.GetChildNodes()[3]->GetAttrValue("count", count));
  EXPECT_EQ("9", count);

  EXPECT_TRUE(XMLBoundObjectUtils::GetNodeChildrenAsType(&store, "Missing", records));
  EXPECT_TRUE(records.empty());
}

TEST(XMLBoundObjectDeathTest, NullNodesAreProgrammingErrors) {
  EXPECT_DEATH(Record(static_cast<XMLDocumentNode*>(nullptr)), "failed assertion `inRootNode'");
  std::vector<Record> records;
  EXPECT_DEATH(XMLBoundObjectUtils::GetNodeChildrenAsType<Record>(nullptr, "Record", records),
               "failed assertion `inParent'");
}

}  // namespace
