// The built shared library as hosts see it: its dynamic symbol table and its soname. (The C
// host is built and run against the installed copy by InstallCheck.sh.)

#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <sstream>
#include <string>

namespace {

// The standard output of a shell command; `status` gets its exit status.
std::string RunCommand(const std::string& command, int& status) {
  std::string output;
  FILE* pipe = ::popen(command.c_str(), "r");
  for (int c; pipe != nullptr && (c = std::fgetc(pipe)) != EOF;) output += static_cast<char>(c);
  status = pipe != nullptr ? ::pclose(pipe) : -1;
  return output;
}

// Nothing but the eight functions may be visible to hosts: any other symbol would become part
// of the interface (and could clash with a host's own).
TEST(SharedLibrary, ExportsExactlyTheEightFunctionsUnderAVersionedSoname) {
  int status = -1;
  const std::string library = std::string("'") + VANTU_SHARED_LIBRARY + "'";
  const std::string table = RunCommand("nm -D --defined-only -P " + library + " 2>&1", status);
  ASSERT_EQ(0, status) << table;
  std::set<std::string> names;
  std::istringstream lines(table);
  for (std::string name, type, rest; lines >> name >> type && std::getline(lines, rest);) {
    names.insert(name);
    EXPECT_EQ("T", type) << name;
  }
  EXPECT_EQ(std::set<std::string>({"ROZGetVersion", "ROZIsUpdateCheckEnabled",
                                   "ROZRegisterApplication", "ROZUnRegisterApplication",
                                   "ROZIsUpdateAvailable", "ROZTriggerUpdateCheck",
                                   "ROZDoPluginAction", "ROZDownloadMissingComponents"}),
            names)
      << table;
  const std::string dynamic = RunCommand("readelf -d " + library, status);
  ASSERT_EQ(0, status);
  EXPECT_NE(std::string::npos, dynamic.find("Library soname: [libVantuUpdater.so.5]")) << dynamic;
}

}  // namespace
