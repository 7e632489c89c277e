// The two record stores through their managers: the machine's registered applications and the
// user's missing-component requests, each in a sandboxed machine.
#include <array>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "support/TempDir.h"
#include "support/UpdaterSandbox.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/VantuUpdaterMissingCompsManager.h"
#include "xplat/VantuUpdaterRegistrationManager.h"

namespace {

using Reg = VantuUpdaterRegistrationManager;
using Manager = VantuUpdaterMissingCompsManager;
constexpr unsigned kAdded = Manager::kAdded;
constexpr unsigned kFailed = Manager::kUpdateFailed;
using testing_support::ReadFile;
using testing_support::WriteFile;

// A sandboxed machine with the folders of the store that `Store` manages.
template <class Store>
class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override { Store makesFolders; }
  bool StoreExists() const { return FileSystemUtils::DoesPathExist(mStorePath); }
  // The file holding `entries`, as the manager writes it.
  static std::string Text(const std::string& entries) {
    const std::string root = Store::GetNodeRootName();
    return "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<" + root + ">\n" + entries + "</" +
           root + ">\n";
  }

  testing_support::UpdaterSandbox mSandbox;
  const std::string mStorePath =
      std::is_same_v<Store, Reg> ? mSandbox.RegistryFile() : mSandbox.MissingCompsFile();
  testing_support::LockFileGuard mLockGuard{mStorePath};
};
using RegistrationStore = StoreTest<Reg>;
using MissingCompsStore = StoreTest<Manager>;

VantuUpdaterRegisteredApp MakeApp(const std::string& id, const std::string& name,
                                  const std::string& path) {
  VantuUpdaterRegisteredApp app(id);
  app.SetDisplayName(name);
  app.SetInstallPath(path);
  return app;
}

std::string Entry(const std::string& id, const std::string& name, const std::string& path) {
  return "<Application appID=\"" + id + "\">\n<DisplayName>" + name +
         "</DisplayName>\n<InstallPath>" + path + "</InstallPath>\n</Application>\n";
}

unsigned Insert(const std::string& id, const std::string& name, const std::string& path) {
  VantuUpdaterRegisteredApp app = MakeApp(id, name, path);
  return Reg().InsertOrUpdateRegisteredApp(app);
}

unsigned Unregister(const std::string& id) { return Reg().UnregisterApp(id); }

// Exact text, no journal. An unchanged or incomplete record changes nothing; a changed one is
// replaced and moved last; identifiers compare exactly. The updater's own identifier is never
// removed, a miss changes nothing, the last removal deletes the file. No data folder, no store.
// (Escaping is the fuzzer's, the mode the multi-user tests', unchanged timestamps the exports'.)
TEST_F(RegistrationStore, ResultsRecordsAndRefusals) {
  EXPECT_EQ(Reg::kUnregisterFailed, Unregister("A"));
  EXPECT_EQ(Reg::kInserted, Insert("W", "Writer", "/opt/Writer Pro"));
  EXPECT_FALSE(FileSystemUtils::DoesPathExist(mStorePath + "_"));
  for (const char* id : {"A", "B"}) ASSERT_EQ(Reg::kInserted, Insert(id, id, "/opt"));
  const std::string before = ReadFile(mStorePath);
  EXPECT_EQ(Reg::kUnchanged, Insert("A", "A", "/opt"));
  const char* const incomplete[][3] = {{"", "N", "/p"}, {"X", "", "/p"}, {"X", "N", ""}};
  for (const auto& a : incomplete) EXPECT_EQ(Reg::kInsertFailed, Insert(a[0], a[1], a[2]));
  EXPECT_EQ(Reg::kUnregisterFailed, Unregister("VantuUpdater"));
  EXPECT_EQ(Reg::kNotFound, Unregister("a"));
  EXPECT_EQ(before, ReadFile(mStorePath));

  EXPECT_EQ(Reg::kReplaced, Insert("A", "A", "/opt/a2"));
  EXPECT_EQ(Reg::kInserted, Insert("a", "a", "/opt"));
  EXPECT_EQ(Reg::kRemoved, Unregister("W"));
  EXPECT_EQ(Text(Entry("B", "B", "/opt") + Entry("A", "A", "/opt/a2") + Entry("a", "a", "/opt")),
            ReadFile(mStorePath));
  for (const char* id : {"A", "B", "a"}) EXPECT_EQ(Reg::kRemoved, Unregister(id));
  EXPECT_FALSE(StoreExists());

  // Records handed out are private copies: they outlive the manager's tree, and a caller's change
  // never reaches the file; a failed lookup leaves the caller's pointer alone. Markup or a blank
  // that would read back as a space in an identifier is refused (the entry, not the store), and
  // nothing is written. An unparsable file is refused by every operation and kept, also after an
  // earlier good load (whose tree the manager must let go).
  ASSERT_EQ(Reg::kInserted, Insert("A", "Alpha", "/opt/a"));
  std::list<VantuUpdaterRegisteredApp> all;
  std::unique_ptr<VantuUpdaterRegisteredApp> found;
  {
    Reg store;
    ASSERT_TRUE(store.GetRegisteredApps(all) && store.GetRegisteredApplicationByAppID("A", found));
  }
  all.front().SetDisplayName("Changed by caller");
  found->SetInstallPath("/changed/by/caller");
  for (const char* id : {"a\"b", "a<b", "a&b", "a\tb", "a\nb", "a\rb"})
    EXPECT_EQ(Reg::kRefused, Insert(id, "Name", "/opt/x")) << id;
  Reg store;
  VantuUpdaterRegisteredApp b = MakeApp("B", "Beta", "/opt/b");
  ASSERT_EQ(Reg::kInserted, store.InsertOrUpdateRegisteredApp(b));
  EXPECT_EQ(Text(Entry("A", "Alpha", "/opt/a") + Entry("B", "Beta", "/opt/b")),
            ReadFile(mStorePath));
  VantuUpdaterRegisteredApp* previous = found.get();
  EXPECT_FALSE(store.GetRegisteredApplicationByAppID("Unknown", found));
  EXPECT_EQ(previous, found.get());

  const std::string damaged = "<?xml version=\"1.0\"?>\n<VantuUpdaterRegistrationManager>\n<Ap";
  WriteFile(mStorePath, damaged);
  EXPECT_EQ(Reg::kInsertFailed, store.InsertOrUpdateRegisteredApp(b));
  EXPECT_EQ(Reg::kUnregisterFailed, store.UnregisterApp("A"));
  EXPECT_FALSE(store.GetRegisteredApps(all));
  EXPECT_FALSE(store.GetRegisteredApplicationByAppID("A", found));
  EXPECT_EQ(0u, store.DeleteVantuUpdaterRegisteredAppIf(Reg::RegisteredAppMatcher("A")));
  EXPECT_EQ(damaged, ReadFile(mStorePath));

  WriteFile(mSandbox.home() + "/plain-file", "x");
  mSandbox.env().SetRoot(mSandbox.home() + "/plain-file");
  EXPECT_THROW(Reg(), std::runtime_error);
}

// One request (identifier, name, path, component, category, version) through a manager of its
// own, as the download workflow makes it; a null text argument is passed on as null.
using Args = std::array<const char*, 6>;
unsigned Request(const Args& a) {
  std::string c(a[3] ? a[3] : ""), k(a[4] ? a[4] : ""), v(a[5] ? a[5] : "");
  const auto text = [](const char* p) { return reinterpret_cast<const unsigned char*>(p); };
  return Manager().UpdateWithAppAndCompData(a[0], text(a[1]), text(a[2]), 1,
                                            a[3] ? &c[0] : nullptr, a[4] ? &k[0] : nullptr,
                                            a[5] ? &v[0] : nullptr);
}

// Null arguments, markup or blanks in (unescaped) attributes, incomplete entries, an unparsable
// version or store: failure, and nothing written.
TEST_F(MissingCompsStore, BadRequestsFailAndWriteNothing) {
  const Args good = {"A", "Alpha", "/opt/a", "Spelling", "Dictionary", "1.0"};
  ASSERT_EQ(kAdded, Request(good));
  const std::string before = ReadFile(mStorePath);
  for (size_t i = 0; i < good.size(); ++i) {
    Args args = {"A", "Alpha", "/opt/a", "Fonts", "Extras", "1.0"};
    args[i] = nullptr;
    EXPECT_EQ(kFailed, Request(args)) << i;
  }
  // A tab, line feed or carriage return in an attribute would read back as a blank: the entry or
  // component would never be found again, and every request would add it once more.
  for (const char* bad : {"B\"", "B<", "B&", "B\tb", "B\nb", "B\rb"}) {
    for (const size_t i : {0, 3, 4}) {
      Args args = good;
      args[i] = bad;
      EXPECT_EQ(kFailed, Request(args)) << bad << " as argument " << i;
    }
  }
  EXPECT_EQ(kFailed, Request({"A", "Renamed", "/opt/a", "Spelling", "Dictionary", ".1"}));
  VantuUpdaterMissingCompsApp complete("A", 1), noName("A", 1), noPath("A", 1), noID("", 1);
  for (auto* entry : {&complete, &noPath, &noID}) entry->SetDisplayName("Alpha");
  for (auto* entry : {&complete, &noName, &noID}) entry->SetInstallPath("/opt/a");
  for (auto* entry : {&noName, &noPath, &noID})
    EXPECT_EQ(kFailed, Manager().InsertMissingCompsApp(*entry));
  EXPECT_EQ(before, ReadFile(mStorePath));
  WriteFile(mStorePath, "<VantuUpdaterMissingCompsManager><Vantu");
  EXPECT_EQ(kFailed, Manager().InsertMissingCompsApp(complete));
}

}  // namespace
