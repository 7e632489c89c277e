// The built shared library as hosts see it: its dynamic symbol table, its soname, loading it at
// run time, and a host written in C. These use the library with the real machine, so they only
// make calls that are answered before any file is touched.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "VantuUpdater/VantuUpdater.h"
#include "support/TempDir.h"

namespace {

// The standard output of a shell command, and its exit status.
std::string RunCommand(const std::string& command, int* status = nullptr) {
  std::string output;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return output;
  char buffer[4096];
  size_t got = 0;
  while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, got);
  const int result = ::pclose(pipe);
  if (status != nullptr) *status = result;
  return output;
}

std::string Quoted(const std::string& path) { return "'" + path + "'"; }

const std::set<std::string> kExports = {"ROZGetVersion",          "ROZIsUpdateCheckEnabled",
                                        "ROZRegisterApplication", "ROZUnRegisterApplication",
                                        "ROZIsUpdateAvailable",   "ROZTriggerUpdateCheck",
                                        "ROZDoPluginAction",      "ROZDownloadMissingComponents"};

// Nothing but the eight functions may be visible to hosts: any other symbol would become part
// of the interface (and could clash with a host's own).
TEST(SharedLibrary, ExportsExactlyTheEightFunctions) {
  int status = -1;
  const std::string table =
      RunCommand("nm -D --defined-only " + Quoted(VANTU_SHARED_LIBRARY) + " 2>&1", &status);
  ASSERT_EQ(0, status) << table;
  std::set<std::string> names;
  std::istringstream lines(table);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string address, type, name;
    fields >> address >> type >> name;
    if (name.empty()) {  // absolute symbols have no address column
      name = type;
      type = address;
    }
    names.insert(name);
    EXPECT_EQ("T", type) << line;
  }
  EXPECT_EQ(kExports, names) << table;
}

TEST(SharedLibrary, HasAVersionedSoname) {
  int status = -1;
  const std::string dynamic = RunCommand("readelf -d " + Quoted(VANTU_SHARED_LIBRARY), &status);
  ASSERT_EQ(0, status);
  EXPECT_NE(std::string::npos, dynamic.find("Library soname: [libVantuUpdater.so.5]")) << dynamic;
}

// A host written in C builds against the public header, links the shared library and gets the
// documented answer from every export. Its home is a temporary folder.
TEST(SharedLibrary, CHostCallsEveryExport) {
  testing_support::TempDir home;
  int status = -1;
  const std::string output =
      RunCommand("env HOME=" + Quoted(home.path()) + " XDG_RUNTIME_DIR=" + Quoted(home.path()) +
                     " " + Quoted(C_HOST) + " 2>&1",
                 &status);
  EXPECT_EQ(0, status) << output;
  EXPECT_NE(std::string::npos, output.find("every export answered as documented")) << output;
}

}  // namespace
