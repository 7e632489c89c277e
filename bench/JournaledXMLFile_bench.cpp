// What a durable save costs: the same store saved with and without the journal fsync and the
// folder sync, for a few store sizes. Pass --dir=FOLDER to choose the file system measured
// (default /var/tmp); compare a disk-backed folder with /dev/shm.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "xplat/DOMUtils.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/JournaledXMLFile.h"

namespace {

std::string gBaseDir = "/var/tmp";

// A folder of its own under gBaseDir, removed at the end.
class BenchDir {
 public:
  BenchDir() {
    std::string pattern = gBaseDir + "/esd-journal-bench-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data())) mPath = buffer.data();
  }
  ~BenchDir() {
    std::error_code ignored;
    if (!mPath.empty()) std::filesystem::remove_all(mPath, ignored);
  }
  const std::string& path() const { return mPath; }

 private:
  std::string mPath;
};

// A store shaped like the registered-applications file: one root and `entries` records with an
// attribute and two text children.
void FillStore(esd::XMLDocumentNode* doc, int entries) {
  auto* root = new esd::XMLDocumentNode("VantuUpdaterRegistrationManager");
  doc->AddChildNode(root);
  for (int i = 0; i < entries; ++i) {
    auto* app = new esd::XMLDocumentNode("Application");
    root->AddChildNode(app);
    app->SetAttributeData("appID", "com.example.application." + std::to_string(i));
    esd::DOMUtils::SetChildValue(app, "DisplayName", "Example Application " + std::to_string(i));
    esd::DOMUtils::SetChildValue(app, "InstallPath",
                                 "/opt/Example/Application " + std::to_string(i) + ".app");
  }
}

// Arguments: number of records, 1 for durable saves or 0 without the syncs.
void BM_Save(benchmark::State& state) {
  BenchDir dir;
  if (dir.path().empty()) {
    state.SkipWithError("cannot create a folder under the bench folder");
    return;
  }
  esd::ExpatDOMBuilder<esd::XMLDocumentNode> builder;
  JournaledXMLFile file(builder);
  file.SetPath(dir.path() + "/Store.xml");
  file.SetDurableSaves(state.range(1) != 0);
  if (!file.Load(nullptr)) {
    state.SkipWithError("load failed");
    return;
  }
  FillStore(builder.GetDocumentNode(), static_cast<int>(state.range(0)));
  if (!file.Save()) {
    state.SkipWithError("save failed");
    return;
  }
  const auto bytes = std::filesystem::file_size(dir.path() + "/Store.xml");
  for (auto _ : state) {
    if (!file.Save()) {
      state.SkipWithError("save failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
  state.counters["file_bytes"] = static_cast<double>(bytes);
}

BENCHMARK(BM_Save)
    ->ArgNames({"entries", "durable"})
    ->ArgsProduct({{1, 10, 100, 1000}, {0, 1}})
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

// Load of the same stores, for scale: what every store operation pays before it saves.
void BM_Load(benchmark::State& state) {
  BenchDir dir;
  esd::ExpatDOMBuilder<esd::XMLDocumentNode> builder;
  JournaledXMLFile file(builder);
  file.SetPath(dir.path() + "/Store.xml");
  if (dir.path().empty() || !file.Load(nullptr)) {
    state.SkipWithError("setup failed");
    return;
  }
  FillStore(builder.GetDocumentNode(), static_cast<int>(state.range(0)));
  file.Save();
  for (auto _ : state) {
    if (!file.Load(nullptr)) {
      state.SkipWithError("load failed");
      break;
    }
  }
}

BENCHMARK(BM_Load)->ArgName("entries")->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->Unit(
    benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> rest;
  for (int i = 0; i < argc; ++i) {
    if (std::strncmp(argv[i], "--dir=", 6) == 0) {
      gBaseDir = argv[i] + 6;
    } else {
      rest.push_back(argv[i]);
    }
  }
  int restCount = static_cast<int>(rest.size());
  benchmark::Initialize(&restCount, rest.data());
  if (benchmark::ReportUnrecognizedArguments(restCount, rest.data())) return 1;
  benchmark::AddCustomContext("bench_dir", gBaseDir);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
