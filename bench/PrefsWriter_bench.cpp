// What one preference access costs a host under the inter-process lock: a read of an unchanged
// file (lock, time check, unlock), a read right after another writer's set (lock, reload), and a
// set (lock, whole-file save through a synced temporary file and a rename). Pass --dir=FOLDER to
// choose the file system measured (default /var/tmp).
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "xplat/PrefsWriter.h"
#include "xplat/ResourceLocker.h"

namespace {

std::string gBaseDir = "/var/tmp";

// A folder and a lock of their own, both removed at the end.
class BenchFile {
 public:
  BenchFile() {
    std::string pattern = gBaseDir + "/esd-prefs-bench-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data())) mDir = buffer.data();
    mPath = mDir + "/prefs.dat";
    mLockName = mPath;
  }
  ~BenchFile() {
    esd::ResourceLocker(mLockName, 0).Unlock(true);  // lock files stay in place otherwise
    std::error_code ignored;
    if (!mDir.empty()) std::filesystem::remove_all(mDir, ignored);
  }
  const std::string& path() const { return mPath; }
  const std::string& lockName() const { return mLockName; }

 private:
  std::string mDir;
  std::string mPath;
  std::string mLockName;
};

// A writer of the settings file with a lock of its own, as each process has.
struct LockedWriter {
  explicit LockedWriter(const BenchFile& file) : lock(file.lockName(), 3000), writer("", "Root") {
    writer.SetLockPolicy(&lock);
    writer.SetPrefsPath(file.path());
  }
  esd::ResourceLocker lock;
  esd::PrefsWriter writer;
};

// A settings file of the updater's size: about twenty keys.
void Fill(esd::PrefsWriter& writer) {
  for (int i = 0; i < 20; ++i)
    writer.SetPref<std::string>("Key" + std::to_string(i), "value number " + std::to_string(i));
}

void BM_GetUnchanged(benchmark::State& state) {
  BenchFile file;
  LockedWriter locked(file);
  esd::PrefsWriter& writer = locked.writer;
  Fill(writer);
  std::string value;
  for (auto _ : state) {
    if (!writer.GetPref<std::string>("Key7", value, "")) state.SkipWithError("get failed");
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_GetUnchanged);

void BM_GetAfterOtherWritersSet(benchmark::State& state) {
  BenchFile file;
  LockedWriter lockedA(file);
  LockedWriter lockedB(file);
  esd::PrefsWriter& a = lockedA.writer;
  esd::PrefsWriter& b = lockedB.writer;
  Fill(a);
  int counter = 0;
  int seen = 0;
  for (auto _ : state) {
    state.PauseTiming();
    a.SetPref<int>("Counter", ++counter);
    state.ResumeTiming();
    if (!b.GetPref<int>("Counter", seen, 0) || seen != counter) state.SkipWithError("stale read");
  }
}
BENCHMARK(BM_GetAfterOtherWritersSet);

void BM_Set(benchmark::State& state) {
  BenchFile file;
  LockedWriter locked(file);
  esd::PrefsWriter& writer = locked.writer;
  Fill(writer);
  int counter = 0;
  for (auto _ : state) {
    if (!writer.SetPref<int>("Counter", ++counter)) state.SkipWithError("set failed");
  }
}
BENCHMARK(BM_Set);

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> rest;
  for (int i = 0; i < argc; ++i) {
    if (i > 0 && std::strncmp(argv[i], "--dir=", 6) == 0)
      gBaseDir = argv[i] + 6;
    else
      rest.push_back(argv[i]);
  }
  int count = static_cast<int>(rest.size());
  benchmark::Initialize(&count, rest.data());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
