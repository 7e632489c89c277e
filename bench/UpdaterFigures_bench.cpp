// The figures a host application meets when it registers itself, each measured side by side with
// what it is compared against, on every file system given with --dir=FOLDER (repeatable; default
// /var/tmp and /dev/shm: a disk shows what the syncs cost, tmpfs the CPU):
//   1. ROZRegisterApplication replacing one entry of a store of 10 to 10,000 entries, against the
//      floor of a whole-file store: reading the bytes, Expat parsing them with empty handlers, and
//      writing them to a new file that is synced, renamed over the old one, and the folder synced;
//   2. the same replacement kept in SQLite, opened per call, one INSERT OR REPLACE in a
//      transaction, journal_mode DELETE, synchronous FULL;
//   3. a call rejected for a bad argument;
//   4. building the tree of a 1.6 MB store against Expat alone parsing the same file (and, apart,
//      what freeing that tree costs);
//   5. eight processes registering 100 applications each at once, against one process making
//      the same 800 registrations, with the longest single call against the mean;
//   6. the peak memory of a process registering into a 10,000-entry store, above its baseline.
// Every benchmark runs repeatedly (random interleaving of the repetitions, so that compared
// benchmarks share the machine's moods) and the table at the end shows medians and ratios of
// medians.
#include <benchmark/benchmark.h>
#include <expat.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "BenchMachine.h"
#include "FigureTable.h"
#include "VantuUpdater/VantuUpdater.h"
#include "xplat/DOMUtils.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/ResourceLocker.h"
#include "xplat/ScopedEnv.h"
#include "xplat/XMLDocumentNode.h"

namespace {

using bench_support::BenchMachine;
using bench_support::FigureTable;
using Cell = FigureTable::Cell;

struct Column {
  std::string label;  // names the file system in benchmark names
  std::string dir;
};
std::vector<Column> gColumns;

const int kStoreSizes[] = {10, 100, 1000, 10000};
const size_t kLargeStoreBytes = 1600 * 1000;
const int kContendingProcesses = 8;
const int kRegistrationsPerProcess = 100;
const int kMemoryStoreEntries = 10000;

// ---------------------------------------------------------------------------------------------
// Store content

std::string AppID(int i) { return "com.example.application." + std::to_string(i); }
std::string DisplayName(int i) { return "Example Application " + std::to_string(i); }
// Two paths of one length, so a replacement does not change the store's size.
std::string InstallPath(int i, bool moved) {
  return "/opt/Example/Application " + std::to_string(i) + (moved ? ".apq" : ".app");
}

const unsigned char* U(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.c_str());
}

// Writes a registered-applications store of `entries` records with the library's own writer, so
// that its bytes are those a save of the library produces. Returns its size.
size_t WriteStore(const std::string& path, int entries) {
  esd::XMLDocumentNode document;
  document.SetAttributeData("version", "1.0");
  document.SetAttributeData("encoding", "UTF-8");
  auto* root = new esd::XMLDocumentNode("VantuUpdaterRegistrationManager");
  document.AddChildNode(root);
  for (int i = 0; i < entries; ++i) {
    auto* app = new esd::XMLDocumentNode("Application");
    root->AddChildNode(app);
    app->SetAttributeData("appID", AppID(i));
    esd::DOMUtils::SetChildValue(app, "DisplayName", DisplayName(i));
    esd::DOMUtils::SetChildValue(app, "InstallPath", InstallPath(i, false));
  }
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << document;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + path);
  return std::filesystem::file_size(path);
}

// The entries a benchmark replaces, in a fixed pseudo-random order over the whole store, each
// time with the path it does not hold now.
class Replacements {
 public:
  explicit Replacements(int entries) : mMoved(entries, false), mRandom(12345), mPick(0, entries - 1) {
    for (int i = 0; i < entries; ++i) {
      mIDs.push_back(AppID(i));
      mNames.push_back(DisplayName(i));
      mPaths[0].push_back(InstallPath(i, false));
      mPaths[1].push_back(InstallPath(i, true));
    }
  }
  struct Entry {
    const std::string* appID;
    const std::string* name;
    const std::string* path;
  };
  Entry Next() {
    const int i = mPick(mRandom);
    mMoved[i] = !mMoved[i];
    return Entry{&mIDs[i], &mNames[i], &mPaths[mMoved[i] ? 1 : 0][i]};
  }

 private:
  std::vector<std::string> mIDs, mNames, mPaths[2];
  std::vector<bool> mMoved;
  std::minstd_rand mRandom;
  std::uniform_int_distribution<int> mPick;
};

// ---------------------------------------------------------------------------------------------
// The floor: what any whole-file store pays to replace its file durably

bool ReadWhole(const std::string& path, std::vector<char>& bytes) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  bool ok = ::fstat(fd, &st) == 0;
  if (ok) bytes.resize(static_cast<size_t>(st.st_size));
  size_t done = 0;
  while (ok && done < bytes.size()) {
    const ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) done += static_cast<size_t>(n);
  }
  ::close(fd);
  return ok;
}

void XMLCALL EmptyStart(void*, const XML_Char*, const XML_Char**) {}
void XMLCALL EmptyEnd(void*, const XML_Char*) {}
void XMLCALL EmptyText(void*, const XML_Char*, int) {}

XML_Parser EmptyHandlerParser() {
  XML_Parser parser = XML_ParserCreate(nullptr);
  if (parser) {
    XML_SetElementHandler(parser, EmptyStart, EmptyEnd);
    XML_SetCharacterDataHandler(parser, EmptyText);
  }
  return parser;
}

bool ParseWithEmptyHandlers(const std::vector<char>& bytes) {
  XML_Parser parser = EmptyHandlerParser();
  if (!parser) return false;
  const bool ok = XML_Parse(parser, bytes.data(), static_cast<int>(bytes.size()), XML_TRUE) ==
                  XML_STATUS_OK;
  XML_ParserFree(parser);
  return ok;
}

bool SyncAndClose(int fd) {
  const bool synced = ::fsync(fd) == 0 || errno == EINVAL;
  return ::close(fd) == 0 && synced;
}

bool ReplaceDurably(const std::string& path, const std::string& temp,
                    const std::vector<char>& bytes) {
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ::close(fd);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  if (!SyncAndClose(fd)) return false;
  if (::rename(temp.c_str(), path.c_str()) != 0) return false;
  const int folder =
      ::open(std::filesystem::path(path).parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  return folder >= 0 && SyncAndClose(folder);
}

// ---------------------------------------------------------------------------------------------
// 1 and 2: one replacement

void RegisterReplace(benchmark::State& state, const Column& column, int entries) {
  BenchMachine machine(column.dir);
  esd::ScopedEnv scope(&machine.env());
  const size_t bytes = WriteStore(machine.RegistryFile(), entries);
  Replacements replacements(entries);
  for (auto _ : state) {
    const Replacements::Entry entry = replacements.Next();
    if (ROZRegisterApplication(entry.appID->c_str(), U(*entry.name), U(*entry.path)) !=
        kROZResultOK) {
      state.SkipWithError("registration failed");
      break;
    }
  }
  state.counters["file_bytes"] = static_cast<double>(bytes);
}

void FloorReplace(benchmark::State& state, const Column& column, int entries) {
  BenchMachine machine(column.dir);
  // Beside where the library keeps its store, so that both pay the same path lookups.
  const std::string path = machine.RegistryDir() + "/Floor.xml";
  const std::string temp = path + ".new";
  const size_t size = WriteStore(path, entries);
  std::vector<char> bytes;
  for (auto _ : state) {
    if (!ReadWhole(path, bytes) || !ParseWithEmptyHandlers(bytes) ||
        !ReplaceDurably(path, temp, bytes)) {
      state.SkipWithError("floor replacement failed");
      break;
    }
  }
  state.counters["file_bytes"] = static_cast<double>(size);
}

struct Database {
  sqlite3* handle = nullptr;
  ~Database() { sqlite3_close(handle); }
};

bool Exec(sqlite3* db, const char* sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

const char kInsertOrReplace[] =
    "INSERT OR REPLACE INTO Application (appID, DisplayName, InstallPath) VALUES (?1, ?2, ?3)";

bool CreateDatabase(const std::string& path, int entries) {
  Database db;
  if (sqlite3_open(path.c_str(), &db.handle) != SQLITE_OK) return false;
  if (!Exec(db.handle,
            "CREATE TABLE Application (appID TEXT PRIMARY KEY, DisplayName TEXT NOT NULL, "
            "InstallPath TEXT NOT NULL); BEGIN"))
    return false;
  sqlite3_stmt* insert = nullptr;
  if (sqlite3_prepare_v2(db.handle, kInsertOrReplace, -1, &insert, nullptr) != SQLITE_OK)
    return false;
  bool ok = true;
  for (int i = 0; i < entries && ok; ++i) {
    const std::string id = AppID(i), name = DisplayName(i), path = InstallPath(i, false);
    sqlite3_bind_text(insert, 1, id.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(insert, 2, name.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(insert, 3, path.c_str(), -1, SQLITE_TRANSIENT);
    ok = sqlite3_step(insert) == SQLITE_DONE && sqlite3_reset(insert) == SQLITE_OK;
  }
  sqlite3_finalize(insert);
  return ok && Exec(db.handle, "COMMIT");
}

// What a developer might write instead of a whole-file store: the database opened for the call.
bool SqliteRegister(const std::string& path, const Replacements::Entry& entry) {
  Database db;
  if (sqlite3_open_v2(path.c_str(), &db.handle, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK)
    return false;
  if (!Exec(db.handle, "PRAGMA journal_mode=DELETE; PRAGMA synchronous=FULL; BEGIN")) return false;
  sqlite3_stmt* insert = nullptr;
  if (sqlite3_prepare_v2(db.handle, kInsertOrReplace, -1, &insert, nullptr) != SQLITE_OK)
    return false;
  sqlite3_bind_text(insert, 1, entry.appID->c_str(), -1, SQLITE_STATIC);
  sqlite3_bind_text(insert, 2, entry.name->c_str(), -1, SQLITE_STATIC);
  sqlite3_bind_text(insert, 3, entry.path->c_str(), -1, SQLITE_STATIC);
  const bool stepped = sqlite3_step(insert) == SQLITE_DONE;
  sqlite3_finalize(insert);
  return stepped && Exec(db.handle, "COMMIT");
}

void SqliteReplace(benchmark::State& state, const Column& column, int entries) {
  BenchMachine machine(column.dir);
  std::filesystem::create_directories(machine.RegistryDir());
  const std::string path = machine.RegistryDir() + "/Applications.db";
  if (!CreateDatabase(path, entries)) {
    state.SkipWithError("cannot create the database");
    return;
  }
  Replacements replacements(entries);
  for (auto _ : state) {
    if (!SqliteRegister(path, replacements.Next())) {
      state.SkipWithError("SQLite registration failed");
      break;
    }
  }
}

// What every store operation pays for the lock between processes, whatever the store's size:
// opening the lock file, taking and releasing its lock. Reported beside figure 1, which the
// floor does not include.
void LockCycle(benchmark::State& state) {
  char name[64];
  std::snprintf(name, sizeof name, "vantu-bench-lock-%d", static_cast<int>(::getpid()));
  esd::ResourceLocker lock(name, 1000);
  for (auto _ : state) {
    if (!lock.Lock() || !lock.Unlock(false)) {
      state.SkipWithError("lock cycle failed");
      break;
    }
  }
  lock.Unlock(true);  // the lock file stays between cycles; not after the run
}

// ---------------------------------------------------------------------------------------------
// 3: rejected calls

// The first check fails.
void RejectNullAppID(benchmark::State& state) {
  for (auto _ : state) {
    const int32_t result = ROZRegisterApplication(nullptr, U("Example"), U("/opt/Example"));
    benchmark::DoNotOptimize(result);
    if (result != kROZResultInvalidArgument) state.SkipWithError("not rejected");
  }
}

// Every check but the last passes on the longest texts allowed: a 256-byte identifier, a
// 512-byte name of multi-byte characters, and a 256-byte path, one byte too long.
void RejectLongestPath(benchmark::State& state) {
  const std::string appID(256, 'a');
  std::string name;
  while (name.size() + 2 <= 512) name += "\xC3\xA9";
  const std::string path = "/" + std::string(255, 'p');
  for (auto _ : state) {
    const int32_t result = ROZRegisterApplication(appID.c_str(), U(name), U(path));
    benchmark::DoNotOptimize(result);
    if (result != kROZResultInvalidArgument) state.SkipWithError("not rejected");
  }
}

// ---------------------------------------------------------------------------------------------
// 4: building the tree

// A store of at least kLargeStoreBytes, written at `path`; returns its size.
size_t WriteLargeStore(const std::string& path) {
  const size_t perThousand = WriteStore(path, 1000);
  const int entries = static_cast<int>(kLargeStoreBytes * 1000 / perThousand) + 1;
  return WriteStore(path, entries);
}

void BuildTree(benchmark::State& state, const Column& column) {
  BenchMachine machine(column.dir);
  const std::string path = machine.WorkDir() + "/Store.xml";
  const size_t bytes = WriteLargeStore(path);
  esd::ExpatDOMBuilder<esd::XMLDocumentNode> builder;
  for (auto _ : state) {
    // The previous tree is freed outside the measure (FreeTree measures that).
    state.PauseTiming();
    builder.Clear();
    state.ResumeTiming();
    if (!builder.Create(nullptr, nullptr) || !builder.ParseFile(path, false)) {
      state.SkipWithError("load failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
  state.counters["file_bytes"] = static_cast<double>(bytes);
}

// What every store operation pays after the build: freeing the tree of the same store.
void FreeTree(benchmark::State& state, const Column& column) {
  BenchMachine machine(column.dir);
  const std::string path = machine.WorkDir() + "/Store.xml";
  WriteLargeStore(path);
  esd::ExpatDOMBuilder<esd::XMLDocumentNode> builder;
  for (auto _ : state) {
    state.PauseTiming();
    const bool built = builder.Create(nullptr, nullptr) && builder.ParseFile(path, false);
    state.ResumeTiming();
    if (!built) {
      state.SkipWithError("load failed");
      break;
    }
    builder.Clear();
  }
}

void ExpatAlone(benchmark::State& state, const Column& column) {
  BenchMachine machine(column.dir);
  const std::string path = machine.WorkDir() + "/Store.xml";
  const size_t bytes = WriteLargeStore(path);
  // Expat at its fastest: the whole file read into the parser's buffer and parsed as one final
  // buffer (between buffers Expat walks the bytes again to count lines).
  std::vector<char> whole;
  for (auto _ : state) {
    if (!ReadWhole(path, whole) || !ParseWithEmptyHandlers(whole)) {
      state.SkipWithError("parse failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
  state.counters["file_bytes"] = static_cast<double>(bytes);
}

// ---------------------------------------------------------------------------------------------
// 5: processes registering at once

double Now() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

bool WriteAllTo(int fd, const void* data, size_t size) {
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t n = ::write(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool ReadAllFrom(int fd, std::vector<char>& out) {
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    out.insert(out.end(), buffer, buffer + n);
  }
}

// What one registering process reports: how long each call took, how many failed, when it ended.
struct WorkerReport {
  std::vector<double> calls;
  int failures = 0;
  double finished = 0;
};

// Registers the applications of `owners` (kRegistrationsPerProcess each), round-robin across the
// owners, once `go` reaches end of file; writes the report to `out`. Runs in a child.
void RegisterAsWorker(const std::vector<int>& owners, int go, int out) {
  char ignored;
  while (::read(go, &ignored, 1) < 0 && errno == EINTR) {
  }
  std::vector<double> calls;
  int failures = 0;
  for (int i = 0; i < kRegistrationsPerProcess; ++i) {
    for (int owner : owners) {
      const std::string id = "com.example.p" + std::to_string(owner) + ".app" + std::to_string(i);
      const std::string path = "/opt/Example/" + id;
      const double start = Now();
      const int32_t result = ROZRegisterApplication(id.c_str(), U("Example " + id), U(path));
      calls.push_back(Now() - start);
      if (result != kROZResultOK) ++failures;
    }
  }
  const double finished = Now();
  const uint32_t count = static_cast<uint32_t>(calls.size());
  WriteAllTo(out, &count, sizeof count);
  WriteAllTo(out, calls.data(), calls.size() * sizeof(double));
  WriteAllTo(out, &failures, sizeof failures);
  WriteAllTo(out, &finished, sizeof finished);
}

// Starts `processes` children sharing the kContendingProcesses * kRegistrationsPerProcess
// registrations, lets them go at once, and collects their reports. `total` is the time from the
// start signal to the end of the last call.
bool RunWorkers(int processes, std::vector<WorkerReport>& reports, double& total) {
  int go[2];
  if (::pipe2(go, O_CLOEXEC) != 0) return false;
  std::vector<std::pair<pid_t, int>> children;
  bool ok = true;
  for (int p = 0; p < processes && ok; ++p) {
    std::vector<int> owners;
    for (int owner = p; owner < kContendingProcesses; owner += processes) owners.push_back(owner);
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
      ok = false;
      break;
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::close(go[1]);
      ::close(out[0]);
      RegisterAsWorker(owners, go[0], out[1]);
      ::_exit(0);
    }
    ::close(out[1]);
    if (pid < 0) {
      ::close(out[0]);
      ok = false;
      break;
    }
    children.emplace_back(pid, out[0]);
  }
  ::close(go[0]);
  const double start = Now();
  ::close(go[1]);
  double last = start;
  for (const auto& child : children) {
    std::vector<char> bytes;
    ok = ReadAllFrom(child.second, bytes) && ok;
    ::close(child.second);
    int status = 0;
    ::waitpid(child.first, &status, 0);
    ok = ok && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    WorkerReport report;
    uint32_t count = 0;
    const size_t fixed = sizeof count + sizeof report.failures + sizeof report.finished;
    if (!ok || bytes.size() < fixed) {
      ok = false;
      continue;
    }
    std::memcpy(&count, bytes.data(), sizeof count);
    if (bytes.size() != fixed + count * sizeof(double)) {
      ok = false;
      continue;
    }
    report.calls.resize(count);
    const char* p = bytes.data() + sizeof count;
    std::memcpy(report.calls.data(), p, count * sizeof(double));
    p += count * sizeof(double);
    std::memcpy(&report.failures, p, sizeof report.failures);
    std::memcpy(&report.finished, p + sizeof report.failures, sizeof report.finished);
    last = std::max(last, report.finished);
    reports.push_back(std::move(report));
  }
  total = last - start;
  return ok;
}

void RegisterAtOnce(benchmark::State& state, const Column& column, int processes) {
  for (auto _ : state) {
    BenchMachine machine(column.dir);
    esd::ScopedEnv scope(&machine.env());
    std::vector<WorkerReport> reports;
    double total = 0;
    if (!RunWorkers(processes, reports, total)) {
      state.SkipWithError("a registering process failed");
      break;
    }
    std::vector<double> calls;
    int failures = 0;
    for (const WorkerReport& report : reports) {
      calls.insert(calls.end(), report.calls.begin(), report.calls.end());
      failures += report.failures;
    }
    state.SetIterationTime(total);
    const double mean = std::accumulate(calls.begin(), calls.end(), 0.0) / calls.size();
    const double longest = *std::max_element(calls.begin(), calls.end());
    state.counters["calls"] = static_cast<double>(calls.size());
    state.counters["failed"] = failures;
    state.counters["mean_call_s"] = mean;
    state.counters["longest_call_s"] = longest;
    state.counters["longest_over_mean"] = longest / mean;
  }
}

// ---------------------------------------------------------------------------------------------
// 6: peak memory

const char kMemoryProbe[] = "--memory-probe";

// The process's peak resident size so far, in bytes (VmHWM), or -1.
long PeakResidentBytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, 6, "VmHWM:") == 0) return std::stol(line.substr(6)) * 1024;
  }
  return -1;
}

// In a fresh process (this program started again): replaces one entry of the store of the
// machine rooted at `root` and prints the peak resident size before and after the call.
int MemoryProbe(const std::string& root, const std::string& home, bool moved) {
  testing_support::TestEnv env;
  env.SetRoot(root);
  env.SetHome(home);
  esd::ScopedEnv scope(&env);
  const int entry = kMemoryStoreEntries / 2;
  const std::string id = AppID(entry), name = DisplayName(entry), path = InstallPath(entry, moved);
  const long before = PeakResidentBytes();
  const int32_t result = ROZRegisterApplication(id.c_str(), U(name), U(path));
  const long after = PeakResidentBytes();
  struct rusage usage;
  ::getrusage(RUSAGE_SELF, &usage);
  std::printf("%ld %ld %ld\n", before, after, usage.ru_maxrss * 1024);
  return result == kROZResultOK ? 0 : 1;
}

bool RunMemoryProbe(BenchMachine& machine, bool moved, long& before, long& after) {
  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) return false;
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(out[1], STDOUT_FILENO);
    const std::string root = machine.Root();
    const std::string home = machine.Home();
    const char* args[] = {"/proc/self/exe", kMemoryProbe, root.c_str(), home.c_str(),
                          moved ? "1" : "0", nullptr};
    ::execv(args[0], const_cast<char* const*>(args));
    ::_exit(127);
  }
  ::close(out[1]);
  std::vector<char> bytes;
  const bool read = pid > 0 && ReadAllFrom(out[0], bytes);
  ::close(out[0]);
  int status = 0;
  if (pid > 0) ::waitpid(pid, &status, 0);
  if (!read || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return false;
  bytes.push_back('\0');
  long rusagePeak = 0;
  return std::sscanf(bytes.data(), "%ld %ld %ld", &before, &after, &rusagePeak) == 3;
}

void PeakMemory(benchmark::State& state, const Column& column) {
  BenchMachine machine(column.dir);
  const size_t bytes = WriteStore(machine.RegistryFile(), kMemoryStoreEntries);
  bool moved = false;
  for (auto _ : state) {
    moved = !moved;
    long before = 0, after = 0;
    const double start = Now();
    if (!RunMemoryProbe(machine, moved, before, after)) {
      state.SkipWithError("the probe process failed");
      break;
    }
    state.SetIterationTime(Now() - start);
    state.counters["file_bytes"] = static_cast<double>(bytes);
    state.counters["baseline_bytes"] = static_cast<double>(before);
    state.counters["above_baseline_bytes"] = static_cast<double>(after - before);
    state.counters["above_baseline_over_file"] = static_cast<double>(after - before) / bytes;
  }
}

// ---------------------------------------------------------------------------------------------
// Registration and the table

std::string FileSystemName(const std::string& dir) {
  struct statfs info;
  if (::statfs(dir.c_str(), &info) != 0) return "unknown";
  switch (static_cast<unsigned long>(info.f_type)) {
    case 0x01021994UL:
      return "tmpfs";
    case 0xEF53UL:
      return "ext4";
    case 0x58465342UL:
      return "xfs";
    case 0x9123683EUL:
      return "btrfs";
    case 0x794C7630UL:
      return "overlay";
  }
  char text[32];
  std::snprintf(text, sizeof text, "fs-%lx", static_cast<unsigned long>(info.f_type));
  return text;
}

double Largest(const std::vector<double>& values) {
  return *std::max_element(values.begin(), values.end());
}

template <class Fn>
void Register(const std::string& name, Fn fn, bool manualTime = false, int iterations = 0) {
  benchmark::internal::Benchmark* b = benchmark::RegisterBenchmark(name.c_str(), fn);
  b->Unit(benchmark::kMicrosecond);
  b->ComputeStatistics("max", Largest);
  if (manualTime)
    b->UseManualTime();
  else
    b->UseRealTime();
  if (iterations) b->Iterations(iterations);
}

void RegisterAll() {
  for (const Column& column : gColumns) {
    for (int entries : kStoreSizes) {
      const std::string size = std::to_string(entries);
      Register("Register/" + column.label + "/" + size,
               [column, entries](benchmark::State& s) { RegisterReplace(s, column, entries); });
      Register("Floor/" + column.label + "/" + size,
               [column, entries](benchmark::State& s) { FloorReplace(s, column, entries); });
      Register("SQLite/" + column.label + "/" + size,
               [column, entries](benchmark::State& s) { SqliteReplace(s, column, entries); });
    }
    Register("BuildTree/" + column.label,
             [column](benchmark::State& s) { BuildTree(s, column); });
    Register("ExpatAlone/" + column.label,
             [column](benchmark::State& s) { ExpatAlone(s, column); });
    Register("FreeTree/" + column.label, [column](benchmark::State& s) { FreeTree(s, column); });
    Register("Contending/" + column.label,
             [column](benchmark::State& s) { RegisterAtOnce(s, column, kContendingProcesses); },
             true, 1);
    Register("Alone/" + column.label,
             [column](benchmark::State& s) { RegisterAtOnce(s, column, 1); }, true, 1);
    Register("PeakMemory/" + column.label,
             [column](benchmark::State& s) { PeakMemory(s, column); }, true, 1);
  }
  Register("LockCycle", LockCycle);
  Register("Reject/null-appID", RejectNullAppID);
  Register("Reject/longest", RejectLongestPath);
}

// A benchmark left out by --benchmark_filter, or one that failed (its error is in the report).
const char kNotRun[] = "not run";

Cell TimeCell(const FigureTable& t, const std::string& name, const std::string& column) {
  const FigureTable::Median* m = t.Find(name, column);
  if (!m) return Cell{kNotRun, Cell::kUnmeasured};
  return Cell{FigureTable::Duration(m->seconds)};
}

// a / b of the median times; `limit` > 0 makes it a target of at most `limit` (or, with
// atLeast, at least `limit`).
FigureTable::CellMaker Ratio(const std::string& a, const std::string& b, double limit,
                             bool atLeast = false) {
  return [=](const FigureTable& t, const std::string& column) {
    const FigureTable::Median* x = t.Find(a, column);
    const FigureTable::Median* y = t.Find(b, column);
    if (!x || !y || y->seconds <= 0) return Cell{kNotRun, Cell::kUnmeasured};
    const double ratio = x->seconds / y->seconds;
    Cell cell{FigureTable::Number(ratio) + "x"};
    if (limit > 0)
      cell.verdict = (atLeast ? ratio >= limit : ratio <= limit) ? Cell::kMet : Cell::kMissed;
    return cell;
  };
}

FigureTable::CellMaker Time(const std::string& name, double atMostSeconds = 0) {
  return [=](const FigureTable& t, const std::string& column) {
    Cell cell = TimeCell(t, name, column);
    const FigureTable::Median* m = t.Find(name, column);
    if (m && atMostSeconds > 0)
      cell.verdict = m && m->seconds <= atMostSeconds ? Cell::kMet : Cell::kMissed;
    return cell;
  };
}

// A counter of the median (or of another aggregate), scaled and formatted.
FigureTable::CellMaker Counter(const std::string& name, const std::string& counter, double scale,
                               const char* format, double atMost = 0,
                               const std::string& aggregate = "median") {
  return [=](const FigureTable& t, const std::string& column) {
    const FigureTable::Median* m = t.Find(name, column, aggregate);
    if (!m || !m->counters.count(counter)) return Cell{kNotRun, Cell::kUnmeasured};
    const double value = m->counters.at(counter) * scale;
    Cell cell{FigureTable::Number(value, format)};
    if (atMost > 0) cell.verdict = value <= atMost ? Cell::kMet : Cell::kMissed;
    return cell;
  };
}

FigureTable::CellMaker Throughput(const std::string& name) {
  return [=](const FigureTable& t, const std::string& column) {
    const FigureTable::Median* m = t.Find(name, column);
    if (!m || !m->counters.count("file_bytes") || m->seconds <= 0) return Cell{kNotRun, Cell::kUnmeasured};
    return Cell{FigureTable::Number(m->counters.at("file_bytes") / m->seconds / 1e6, "%.0f") +
                " MB/s"};
  };
}

void FillTable(FigureTable& table) {
  table.AddSection("1. Replace one entry: ROZRegisterApplication vs floor");
  for (int entries : kStoreSizes) {
    const std::string n = std::to_string(entries);
    table.AddRow("  register, " + n + " entries", "", Time("Register/{fs}/" + n));
    table.AddRow("  floor (read+Expat+write+fsync+rename+fsync dir)", "", Time("Floor/{fs}/" + n));
    table.AddRow("  register / floor, " + n + " entries", "<= 1.5x",
                 Ratio("Register/{fs}/" + n, "Floor/{fs}/" + n, 1.5));
  }
  table.AddRow("  of which the lock between processes (take + release)", "", Time("LockCycle"));
  table.AddSection("2. Same replacement in SQLite (open per call, DELETE, FULL)");
  for (int entries : kStoreSizes) {
    const std::string n = std::to_string(entries);
    const bool target = entries <= 100;
    table.AddRow("  SQLite, " + n + " entries", "", Time("SQLite/{fs}/" + n));
    table.AddRow("  register / SQLite, " + n + " entries", target ? "< 1x" : "(reported)",
                 Ratio("Register/{fs}/" + n, "SQLite/{fs}/" + n, target ? 0.9999 : 0));
  }
  table.AddSection("3. Call rejected for a bad argument");
  table.AddRow("  null appID (first check)", "< 1 us", Time("Reject/null-appID", 1e-6));
  table.AddRow("  longest texts, path 1 byte too long (last check)", "< 1 us",
               Time("Reject/longest", 1e-6));
  table.AddSection("4. Tree of a 1.6 MB store vs Expat alone, same file");
  table.AddRow("  store size (bytes)", "", Counter("BuildTree/{fs}", "file_bytes", 1, "%.0f"));
  table.AddRow("  build the tree (ExpatDOMBuilder::ParseFile)", "", Throughput("BuildTree/{fs}"));
  table.AddRow("  Expat alone, empty handlers", "", Throughput("ExpatAlone/{fs}"));
  table.AddRow("  tree throughput / Expat throughput", ">= 0.65x",
               Ratio("ExpatAlone/{fs}", "BuildTree/{fs}", 0.65, true));
  table.AddRow("  freeing that tree afterwards", "", Time("FreeTree/{fs}"));
  table.AddSection("5. 8 processes x 100 registrations vs 1 process x 800");
  table.AddRow("  8 processes at once, total", "", Time("Contending/{fs}"));
  table.AddRow("  1 process, total", "", Time("Alone/{fs}"));
  table.AddRow("  8 processes / 1 process", "<= 1.3x", Ratio("Contending/{fs}", "Alone/{fs}", 1.3));
  table.AddRow("  8 processes: mean call (ms)", "",
               Counter("Contending/{fs}", "mean_call_s", 1e3, "%.3f"));
  table.AddRow("  8 processes: longest call (ms, worst run)", "",
               Counter("Contending/{fs}", "longest_call_s", 1e3, "%.3f", 0, "max"));
  table.AddRow("  8 processes: longest call / mean (worst run)", "<= 10",
               Counter("Contending/{fs}", "longest_over_mean", 1, "%.1f", 10, "max"));
  table.AddRow("  failed calls (worst run, 8 and 1 processes)", "0",
               [](const FigureTable& t, const std::string& column) {
                 const FigureTable::Median* a = t.Find("Contending/{fs}", column, "max");
                 const FigureTable::Median* b = t.Find("Alone/{fs}", column, "max");
                 if (!a || !b) return Cell{kNotRun, Cell::kUnmeasured};
                 const double failed = a->counters.at("failed") + b->counters.at("failed");
                 return Cell{FigureTable::Number(failed, "%.0f"),
                             failed == 0 ? Cell::kMet : Cell::kMissed};
               });
  table.AddSection("6. Peak memory registering into a 10,000-entry store");
  table.AddRow("  store size (bytes)", "", Counter("PeakMemory/{fs}", "file_bytes", 1, "%.0f"));
  table.AddRow("  peak above baseline (bytes)", "",
               Counter("PeakMemory/{fs}", "above_baseline_bytes", 1, "%.0f"));
  table.AddRow("  peak above baseline / file size (worst run)", "<= 10x",
               Counter("PeakMemory/{fs}", "above_baseline_over_file", 1, "%.2f", 10, "max"));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 5 && std::strcmp(argv[1], kMemoryProbe) == 0)
    return MemoryProbe(argv[2], argv[3], std::strcmp(argv[4], "1") == 0);

  // Repetitions, interleaved, and only their aggregates reported; the command line may override.
  std::vector<std::string> defaults{"--benchmark_repetitions=5",
                                    "--benchmark_enable_random_interleaving=true",
                                    "--benchmark_report_aggregates_only=true"};
  std::vector<char*> args{argv[0]};
  for (std::string& flag : defaults) args.push_back(&flag[0]);
  std::vector<std::string> dirs;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--dir=", 6) == 0)
      dirs.push_back(argv[i] + 6);
    else
      args.push_back(argv[i]);
  }
  if (dirs.empty()) dirs = {"/var/tmp", "/dev/shm"};

  std::vector<std::string> labels, headers;
  for (const std::string& dir : dirs) {
    std::string label = FileSystemName(dir);
    while (std::find(labels.begin(), labels.end(), label) != labels.end()) label += "+";
    gColumns.push_back(Column{label, dir});
    labels.push_back(label);
    headers.push_back(dir + " (" + label + ")");
    benchmark::AddCustomContext("dir " + label, dir);
  }

  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
  RegisterAll();
  FigureTable table(labels, headers);
  benchmark::RunSpecifiedBenchmarks(&table);
  FillTable(table);
  table.Print(std::cout);
  benchmark::Shutdown();
  return 0;
}
