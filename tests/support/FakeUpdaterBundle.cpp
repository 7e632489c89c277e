#include "support/FakeUpdaterBundle.h"

#include <plist/plist.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "support/TempDir.h"

namespace testing_support {

namespace {

namespace fs = std::filesystem;

using Clock = std::chrono::steady_clock;

// Info.plist in the form the options ask for (XML or binary), made by the same library that
// reads it.
std::string InfoPlist(const FakeUpdaterBundle::Options& options) {
  plist_t dict = plist_new_dict();
  plist_dict_set_item(dict, "CFBundleExecutable", plist_new_string(options.programName.c_str()));
  plist_dict_set_item(dict, "CFBundlePackageType", plist_new_string(options.packageType.c_str()));
  plist_dict_set_item(dict, "CFBundleSignature", plist_new_string(options.signature.c_str()));
  char* bytes = nullptr;
  uint32_t length = 0;
  if (options.binaryInfoPlist) {
    plist_to_bin(dict, &bytes, &length);
  } else {
    plist_to_xml(dict, &bytes, &length);
  }
  plist_free(dict);
  if (!bytes) throw std::runtime_error("cannot write a property list");
  std::string result(bytes, length);
  options.binaryInfoPlist ? plist_to_bin_free(bytes) : plist_to_xml_free(bytes);
  return result;
}

bool ParseReport(const std::string& path, FakeUpdaterReport& report) {
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("env:", 0) == 0) {
      const size_t equals = line.find('=', 4);
      if (equals != std::string::npos)
        report.environment[line.substr(4, equals - 4)] = line.substr(equals + 1);
    } else if (line.rfind("pid=", 0) == 0) {
      report.pid = std::stoi(line.substr(4));
    } else if (line.rfind("sid=", 0) == 0) {
      report.sessionId = std::stoi(line.substr(4));
    } else if (line.rfind("fd:", 0) == 0) {
      report.descriptors.push_back(std::atoi(line.c_str() + 3));
    } else if (line.rfind("stdin=", 0) == 0) {
      report.standardInput = line.substr(6);
    }
  }
  return report.pid > 0;
}

bool IsGoneOrZombie(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat;
  if (!std::getline(in, stat)) return true;
  const size_t close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'Z';
}

}  // namespace

FakeUpdaterBundle::FakeUpdaterBundle(const std::string& bundlePath)
    : FakeUpdaterBundle(bundlePath, Options()) {}

FakeUpdaterBundle::FakeUpdaterBundle(const std::string& bundlePath, const Options& options)
    : mPath(bundlePath), mContents(bundlePath + "/Contents") {
  AdoptOrphanedDescendants();
  fs::create_directories(mContents + "/MacOS");
  fs::create_directories(mContents + "/reports");
  WriteFile(mContents + "/Info.plist", InfoPlist(options));
  const std::string program = mContents + "/MacOS/" + options.programName;
  // A copy, not a link: the kernel reports a program by its resolved path, which must lie in
  // the bundle.
  fs::copy_file(FAKE_UPDATER_PROGRAM, program, fs::copy_options::overwrite_existing);
  fs::permissions(program, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                               fs::perms::others_read | fs::perms::others_exec);
}

FakeUpdaterBundle::~FakeUpdaterBundle() { Stop(); }

std::string FakeUpdaterBundle::InstalledPath(const std::string& root) {
  return root + "/opt/Vantu Utilities.localized/Vantu Updater5/Vantu Updater.app";
}

std::string FakeUpdaterBundle::programPath() const {
  for (const auto& entry : fs::directory_iterator(mContents + "/MacOS"))
    return entry.path().string();
  return std::string();
}

std::vector<FakeUpdaterReport> FakeUpdaterBundle::Reports() const {
  std::vector<std::pair<fs::file_time_type, FakeUpdaterReport>> found;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(mContents + "/reports", ignored)) {
    if (entry.path().extension() != ".report") continue;
    FakeUpdaterReport report;
    if (ParseReport(entry.path().string(), report))
      found.emplace_back(fs::last_write_time(entry.path(), ignored), report);
  }
  std::stable_sort(found.begin(), found.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<FakeUpdaterReport> reports;
  for (auto& item : found) reports.push_back(item.second);
  return reports;
}

std::vector<FakeUpdaterReport> FakeUpdaterBundle::WaitForReports(size_t count,
                                                                 int timeoutMs) const {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  std::vector<FakeUpdaterReport> reports = Reports();
  while (reports.size() < count && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    reports = Reports();
  }
  return reports;
}

int FakeUpdaterBundle::WaitForChildStatus(pid_t updater, int timeoutMs) const {
  const std::string path = mContents + "/reports/" + std::to_string(updater) + ".child";
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (Clock::now() < deadline) {
    std::ifstream in(path);
    int status = 0;
    if (in >> status) return status;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return -2;
}

bool FakeUpdaterBundle::Stop(int timeoutMs) {
  const std::string stop = mContents + "/stop";
  WriteFile(stop, "");
  bool allEnded = true;
  for (const FakeUpdaterReport& report : Reports())
    allEnded = WaitForProcessEnd(report.pid, timeoutMs) && allEnded;
  std::error_code ignored;
  fs::remove(stop, ignored);
  return allEnded;
}

void AdoptOrphanedDescendants() { prctl(PR_SET_CHILD_SUBREAPER, 1); }

bool WaitForProcessEnd(pid_t pid, int timeoutMs) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    int status = 0;
    const pid_t reaped = waitpid(pid, &status, WNOHANG);
    if (reaped == pid) return true;
    if (reaped < 0 && errno == ECHILD && IsGoneOrZombie(pid)) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

std::string UpdaterProbeProgram() { return UPDATER_PROBE_PROGRAM; }

}  // namespace testing_support
