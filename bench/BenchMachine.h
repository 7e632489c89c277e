#ifndef BENCH_BENCHMACHINE_H
#define BENCH_BENCHMACHINE_H

// A private machine for benchmarks of the exported functions, in a fresh folder under a chosen
// file system: a relocated root and home answered by a TestEnv, which the benchmark installs with
// esd::ScopedEnv for as long as it calls the library. The folder goes with the object.

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/TestEnv.h"

namespace bench_support {

class BenchMachine {
 public:
  explicit BenchMachine(const std::string& baseDir) {
    std::string pattern = baseDir + "/vantu-bench-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (!::mkdtemp(buffer.data())) throw std::runtime_error("cannot create a folder in " + baseDir);
    mFolder = buffer.data();
    std::filesystem::create_directories(mFolder + "/root");
    std::filesystem::create_directories(mFolder + "/home");
    std::filesystem::create_directories(mFolder + "/work");
    mEnv.SetRoot(mFolder + "/root");
    mEnv.SetHome(mFolder + "/home");
  }
  ~BenchMachine() {
    std::error_code ignored;
    std::filesystem::remove_all(mFolder, ignored);
  }
  BenchMachine(const BenchMachine&) = delete;
  BenchMachine& operator=(const BenchMachine&) = delete;

  testing_support::TestEnv& env() { return mEnv; }
  std::string Root() const { return mFolder + "/root"; }
  std::string Home() const { return mFolder + "/home"; }
  // A folder on the same file system for the benchmark's own files.
  std::string WorkDir() const { return mFolder + "/work"; }
  // Where the library keeps its registered-applications store in this machine.
  std::string RegistryDir() const { return mFolder + "/root/var/lib/Vantu/Updater5"; }
  std::string RegistryFile() const { return RegistryDir() + "/VantuESDGlobalApps.xml"; }

 private:
  std::string mFolder;
  testing_support::TestEnv mEnv;
};

}  // namespace bench_support

#endif
