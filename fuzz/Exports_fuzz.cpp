// Fuzzes the eight exported functions the way a host calls them: each input plants the files a
// machine may hold (the registered-applications store and its journal, the missing-components
// store, the preferences, the administrator policy, an availability answer) in a sandboxed
// machine, then makes one to four calls with arguments it picks (identifiers, names, paths,
// versions, language codes, request numbers, trigger types, component lists with NULLs).
//
// Checked after every call: the host is still alive (an exception or an abort leaving an export
// ends the run), the result is a documented code (7 wherever update checks are off), every lock
// the library uses is free for another process at once, and every store file the call wrote
// parses. A registration with good arguments succeeds whatever a writable store held, and one
// repeated on a store nobody changed since leaves the file alone. Checked after the calls:
// nothing outside the library's data folders changed, and the files of an application the calls
// never named are byte-identical.
//
// Nothing is ever started: launches and shell commands answer as the input says without running,
// and the process table shows this process alone.

#include <fuzzer/FuzzedDataProvider.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "FuzzSandbox.h"
#include "VantuUpdater/VantuUpdater.h"
#include "support/TempDir.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/FolderFinder.h"
#include "xplat/JournaledXMLFile.h"
#include "xplat/ResourceLocker.h"
#include "xplat/VantuUpdaterMissingCompsManager.h"
#include "xplat/VantuUpdaterNotifyWorkflowLocker.h"
#include "xplat/VantuUpdaterRegistrationManager.h"
#include "xplat/VantuUpdaterUtils.h"

namespace fs = std::filesystem;

namespace {

using fuzzing::Check;
using Builder = esd::ExpatDOMBuilder<esd::XMLDocumentNode>;

// The application the inputs work with, and one they never name, whose files must survive.
const char kAppID[] = "com.example.Fuzz";
const char kOtherAppID[] = "com.example.Other";
const char kGoodName[] = "Fuzz App";
const char kGoodPath[] = "/opt/Fuzz App";
// The resource name of the preferences lock, shared by every process of the user.
const char kPrefsLock[] = "VantuUpdater";
// How long the other process waits for a lock: far shorter than any caller's time-out, long
// enough for a holder that is still finishing its own release.
const unsigned long kLockProbeMs = 20;
const std::size_t kMaxFileBytes = 1 << 21;
const std::size_t kMaxArgumentBytes = 600;

const char kUpdaterInfoPlist[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
    "<key>CFBundleExecutable</key><string>Vantu Updater</string>"
    "<key>CFBundlePackageType</key><string>APPL</string>"
    "<key>CFBundleSignature</key><string>ROZ5</string></dict></plist>\n";
const char kAnswerYes[] = "<UpdateInfo><Result>1</Result></UpdateInfo>";

// The real system, except that nothing is started and only this process runs.
class FuzzEnv : public testing_support::TestEnv {
 public:
  void SetLaunchesWork(bool launchesWork) { mLaunchesWork = launchesWork; }

  bool ListProcessIds(std::vector<pid_t>& pids) override {
    pids.assign(1, getpid());
    return true;
  }
  bool StartDetachedProcess(const std::string&, const std::vector<std::string>&,
                            const EnvironmentList&) override {
    return mLaunchesWork;
  }
  int RunShellCommand(const std::string&, const EnvironmentList&) override {
    return mLaunchesWork ? 0 : 1 << 8;
  }
  bool PostSessionBusSignal(const std::string&, const std::string&, const std::string&,
                            const std::vector<std::string>&) override {
    return mLaunchesWork;
  }

 private:
  bool mLaunchesWork = true;
};

// Another process that tries each lock it is sent for kLockProbeMs and answers with the index of
// the first one it could not take (or -1). One process serves every input: forking per check
// would cost more than the calls themselves. A request is one packet of NUL-terminated names
// (no name holds a NUL: they are paths and C strings).
class LockProbe {
 public:
  LockProbe() {
    int ends[2];
    Check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "a socket pair");
    const pid_t child = fork();
    Check(child >= 0, "the lock probe can be forked");
    if (child == 0) {
      close(ends[0]);
      Serve(ends[1]);
    }
    close(ends[1]);
    mSocket = ends[0];
  }

  // The first of `names` that another process cannot take at once, or nullptr.
  const std::string* FirstHeld(const std::vector<std::string>& names) {
    std::string request;
    for (const std::string& name : names) request.append(name).push_back('\0');
    Check(Transfer(write, mSocket, request.data(), request.size()) ==
              static_cast<ssize_t>(request.size()),
          "the lock probe takes a request");
    int32_t held = -1;
    Check(Transfer(read, mSocket, &held, sizeof held) == sizeof held, "the lock probe answers");
    return held < 0 ? nullptr : &names.at(static_cast<std::size_t>(held));
  }

 private:
  [[noreturn]] static void Serve(int socket) {
    std::vector<char> request(1 << 20);
    for (;;) {
      const ssize_t size = Transfer(read, socket, request.data(), request.size());
      if (size <= 0) _exit(0);
      int32_t held = -1;
      int32_t index = 0;
      for (const char* name = request.data(); name < request.data() + size; ++index) {
        const std::string text(name);
        name += text.size() + 1;
        if (held < 0 && !TryLock(text)) held = index;
      }
      if (Transfer(write, socket, &held, sizeof held) != sizeof held) _exit(0);
    }
  }

  static bool TryLock(const std::string& name) {
    try {
      esd::ResourceLocker locker(name, kLockProbeMs);
      return locker.Lock();
    } catch (const std::exception&) {
      return false;
    }
  }

  // read or write, again after a signal: libFuzzer's time-out alarm interrupts the wait.
  template <class Call, class Buffer>
  static ssize_t Transfer(Call call, int fd, Buffer data, std::size_t size) {
    ssize_t done;
    do done = call(fd, data, size);
    while (done < 0 && errno == EINTR);
    return done;
  }

  int mSocket = -1;
};

// The files an input may plant, in the order the input gives them; the stores come first.
enum Planted {
  kRegistry, kRegistryJournal, kMissingComps, kPrefs, kPolicy, kAnswer, kPlantedCount
};

// What an input puts in a file's place: nothing, the file, the file on a read-only mount (in a
// private mount namespace only; a plain file otherwise), or a folder, which the library can
// neither read nor replace.
struct PlantedFile {
  enum Kind : uint8_t { kNothing, kFile, kReadOnlyFile, kFolder } kind = kNothing;
  std::string bytes;
};

// A private machine for the whole run, with the library's locations found through the library.
struct Machine {
  Machine() {
    env.SetRoot(temp / "root");
    env.SetHome(temp / "home");
    env.SetVariable("XDG_RUNTIME_DIR", temp / "run");
    // The user's download folder is made by the first call that reads the preferences.
    for (const char* folder :
         {"root/etc", "root/opt", "home/.local", "home/Documents/Updater5", "run", "tmp"})
      fs::create_directories(temp / folder);
    // A runtime folder counts only as the user's own with mode 0700; without one the library
    // would fall back to the temporary folder, which stays inside the sandbox too.
    fs::permissions(temp / "run", fs::perms::owner_all);
    env.SetVariable("TMPDIR", temp / "tmp");

    std::string folder;
    Check(VantuUpdaterUtils::GetVantuUpdaterAllUserDataDir(folder), "the machine's data folder");
    dataFolders.push_back(folder);
    Check(VantuUpdaterUtils::GetVantuUpdaterDataDir(folder), "the user's data folder");
    dataFolders.push_back(folder);
    Check(VantuUpdaterUtils::VantuUpdaterNotifyWorkflowLocker::GetIPCLockFileParentFolder(folder),
          "the workflow markers' folder");
    const std::string markers = folder;
    // The runtime folder holds the markers and the lock files of the per-user locks.
    dataFolders.push_back(temp / "run");
    for (const std::string& data : dataFolders) fs::create_directories(data);

    files[kRegistry] = fuzzing::StorePath<VantuUpdaterRegistrationManager>();
    JournaledXMLFile::GetJournalPath(files[kRegistry], files[kRegistryJournal]);
    files[kMissingComps] = fuzzing::StorePath<VantuUpdaterMissingCompsManager>();
    files[kPrefs] = FileSystemUtils::AppendPathElement(dataFolders[1], "VantuUpdaterPrefs.dat");
    Check(esd::FolderFinder::GetLocalPreferencesFolderPath(folder), "the policy folder");
    files[kPolicy] =
        FileSystemUtils::AppendPathElement(folder, "com.vantu.VantuUpdater.Admin.plist");
    Check(VantuUpdaterUtils::GetVantuUpdaterCacheDataDir(cacheData), "the cache-data folder");
    files[kAnswer] = RequestFolder(kAppID) + "/1.xml";
    Check(VantuUpdaterUtils::GetUpdaterLocation(updater), "the updater's location");

    // What a call for kOtherAppID, and only such a call, may change; and a file an identifier
    // climbing out of the cache folder would reach.
    otherFiles = {cacheData + "/" + kOtherAppID + ".rzp.xml",
                  RequestFolder(kOtherAppID) + "/7.xml",
                  markers + "/locked/lock." + kOtherAppID};
    outsideFile = temp / "home/.local/esc.rzp.xml";
  }

  std::string RequestFolder(const std::string& appID) const {
    return cacheData + "/UpdateAvailable/" + appID;
  }

  // Back to an empty machine with the planted files; also removes what the last input made.
  void Reset(const PlantedFile (&planted)[kPlantedCount], bool updaterInstalled) {
    for (const std::string& mounted : readOnly) umount2(mounted.c_str(), MNT_DETACH);
    readOnly.clear();
    for (const std::string& data : dataFolders) {
      fs::remove_all(data);
      fs::create_directories(data);
    }
    fs::permissions(temp / "run", fs::perms::owner_all);  // counts only as the user's own 0700
    fs::remove_all(updater);
    if (updaterInstalled) {
      fs::create_directories(updater + "/Contents/MacOS");
      testing_support::WriteFile(updater + "/Contents/Info.plist", kUpdaterInfoPlist);
      testing_support::WriteFile(updater + "/Contents/MacOS/Vantu Updater", "#!/bin/false\n");
    }
    for (const std::string& file : otherFiles) Plant(file, kAnswerYes);
    Plant(outsideFile, kAnswerYes);
    for (int which = 0; which < kPlantedCount; ++which) {
      const PlantedFile& plant = planted[which];
      fs::remove_all(files[which]);
      if (plant.kind == PlantedFile::kFolder) fs::create_directories(files[which]);
      if (plant.kind != PlantedFile::kFile && plant.kind != PlantedFile::kReadOnlyFile) continue;
      Plant(files[which], plant.bytes);
      std::string why;
      if (plant.kind == PlantedFile::kReadOnlyFile && canMount &&
          testing_support::MountReadOnly(files[which], why))
        readOnly.push_back(files[which]);
    }
  }

  static void Plant(const std::string& path, const std::string& bytes) {
    fs::create_directories(fs::path(path).parent_path());
    testing_support::WriteFile(path, bytes);
  }

  // Every entry below the sandbox outside the data folders, with the content of each file.
  std::map<std::string, std::string> Outside() const {
    std::map<std::string, std::string> seen;
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(temp.path(), error);
         it != fs::recursive_directory_iterator(); it.increment(error)) {
      const std::string path = it->path().string();
      bool data = false;
      for (const std::string& folder : dataFolders) data = data || path == folder;
      if (data) {
        it.disable_recursion_pending();
        continue;
      }
      if (it->is_symlink()) seen[path] = "symlink to " + fs::read_symlink(it->path()).string();
      else if (it->is_directory()) seen[path] = "folder";
      else seen[path] = fuzzing::ReadIfPresent(path).value_or("unreadable");
    }
    return seen;
  }

  testing_support::TempDir temp;
  FuzzEnv env;
  esd::ScopedEnv scope{&env};
  std::vector<std::string> dataFolders;  // machine-wide, per user, the runtime folder
  std::string files[kPlantedCount];
  std::string cacheData;
  std::string updater;
  std::vector<std::string> otherFiles;
  std::string outsideFile;
  bool canMount = false;
  std::vector<std::string> readOnly;  // planted files mounted read-only
};

Machine* gMachine = nullptr;
LockProbe* gProbe = nullptr;

// One call's text arguments: NULL, one of the values a host would pass, or bytes from the input.
// The texts live until the input is done.
class Arguments {
 public:
  explicit Arguments(FuzzedDataProvider& input) : mInput(input) {}

  const char* Text(std::initializer_list<const char*> usual) {
    const std::size_t choice = mInput.ConsumeIntegralInRange<std::size_t>(0, usual.size() + 1);
    if (choice == 0) return nullptr;
    if (choice <= usual.size()) return usual.begin()[choice - 1];
    mTexts.push_back(mInput.ConsumeRandomLengthString(kMaxArgumentBytes));
    return mTexts.back().c_str();
  }
  const unsigned char* Bytes(std::initializer_list<const char*> usual) {
    return reinterpret_cast<const unsigned char*>(Text(usual));
  }
  const char* AppID() {
    const char* id = Text({kAppID, "..", "../../../../esc"});
    if (id) mAppIDs.insert(id);
    return id;
  }
  const unsigned char* Name() { return Bytes({kGoodName}); }
  const unsigned char* Path() { return Bytes({kGoodPath}); }
  const char* Language() { return Text({"en_US"}); }

  // Every identifier passed so far.
  const std::set<std::string>& AppIDs() const { return mAppIDs; }

  // A list of up to four components, each NULL or with fields picked like the other texts.
  const ROZMissingComptList* Components() {
    if (mInput.ConsumeIntegralInRange<uint8_t>(0, 7) == 0) return nullptr;
    mLists.emplace_back();
    List& list = mLists.back();
    const uint8_t count = mInput.ConsumeIntegralInRange<uint8_t>(0, 4);
    for (uint8_t i = 0; i < count; ++i) {
      list.components.push_back(ROZMissingComponent{const_cast<char*>(Text({"Fonts"})),
                                                    const_cast<char*>(Text({"Serif"})),
                                                    const_cast<char*>(Text({"1.2.0.0", "1..2"}))});
    }
    for (ROZMissingComponent& component : list.components)
      list.pointers.push_back(mInput.ConsumeIntegralInRange<uint8_t>(0, 7) ? &component : nullptr);
    list.list.count = count;
    list.list.components = count ? list.pointers.data() : nullptr;
    return &list.list;
  }

 private:
  struct List {
    std::vector<ROZMissingComponent> components;
    std::vector<ROZMissingComponent*> pointers;
    ROZMissingComptList list{};
  };
  FuzzedDataProvider& mInput;
  std::deque<std::string> mTexts;
  std::deque<List> mLists;
  std::set<std::string> mAppIDs;
};

// 0, 1, or any 32-bit value, as a C host may pass: both enumerations span the whole range.
template <class Enum>
Enum PickType(FuzzedDataProvider& input) {
  const uint8_t choice = input.ConsumeIntegralInRange<uint8_t>(0, 2);
  return static_cast<Enum>(choice < 2 ? choice : input.ConsumeIntegral<int32_t>());
}

bool IsResultCode(int32_t result) {
  return (result >= kROZResultOK && result <= kROZResultAlreadyRequested) ||
         result == kROZResultUpdaterRunning;
}

const char* AsText(const unsigned char* text) { return reinterpret_cast<const char*>(text); }

// A registration repeated with the same arguments on a store nobody changed since leaves the
// file alone: same bytes, same inode. A call that answered 7 or 3 stopped before its
// registration step (update checks disabled, or an argument refused), so the next one is the
// first to register and may rightly replace an empty or damaged store.
class RepeatedRegistration {
 public:
  void Before(const char* id, const unsigned char* name, const unsigned char* path) {
    mKey.reset();
    if (!id || !name || !path) return;
    mKey = {id, AsText(name), AsText(path)};
    mRepeat = mKey == mLast && Stamp() == mStamp;
  }
  void After(int32_t result) {
    if (!mKey) return;
    if (mRepeat) Check(Stamp() == mStamp, "a repeated registration leaves the store alone");
    const bool stoppedBefore =
        result == kROZResultUpdateCheckDisabled || result == kROZResultInvalidArgument;
    mLast = stoppedBefore ? std::nullopt : mKey;
    mStamp = Stamp();
  }

 private:
  using Key = std::array<std::string, 3>;
  static std::optional<std::pair<ino_t, std::string>> Stamp() {
    struct stat status;
    if (stat(gMachine->files[kRegistry].c_str(), &status) != 0) return std::nullopt;
    return std::make_pair(status.st_ino,
                          fuzzing::ReadIfPresent(gMachine->files[kRegistry]).value_or(""));
  }
  std::optional<Key> mKey;
  std::optional<Key> mLast;
  bool mRepeat = false;
  std::optional<std::pair<ino_t, std::string>> mStamp;
};

// What the machine of an input decides about results.
struct Expected {
  // Whether update checks are enabled: yes for an administrator without a policy, no for
  // anybody else, not known here for an administrator with a policy.
  std::optional<bool> enabled;
  // Whether the store and its journal are files the library may replace.
  bool registryWritable;
};

// Makes the call the input picks and checks its result: a documented code, and the one the
// machine decides.
void CallOne(FuzzedDataProvider& input, Arguments& args, const Expected& expected,
             RepeatedRegistration& repeated) {
  static const int32_t version = ROZGetVersion();
  const std::optional<bool>& enabled = expected.enabled;
  int32_t result = 0;
  const uint8_t which = input.ConsumeIntegralInRange<uint8_t>(0, 7);
  switch (which) {
    case 0:
      Check(version != 0 && ROZGetVersion() == version, "the version is the same every time");
      return;
    case 1:
      result = ROZIsUpdateCheckEnabled();
      Check(result == 0 || result == 1, "update checks are enabled or not");
      Check(!enabled || result == *enabled, "update checks are enabled for administrators only");
      return;
    case 2: {
      const char* id = args.AppID();
      const unsigned char* name = args.Name();
      const unsigned char* path = args.Path();
      repeated.Before(id, name, path);
      result = ROZRegisterApplication(id, name, path);
      repeated.After(result);
      // Whatever the store held, a host with good arguments (the usual values, compared by
      // address) gets registered.
      if (expected.registryWritable && id == kAppID && AsText(name) == kGoodName &&
          AsText(path) == kGoodPath)
        Check(result == kROZResultOK || result == kROZResultRegistryNotUpdated,
              "a good registration succeeds on a writable store");
      break;
    }
    case 3:
      result = ROZUnRegisterApplication(args.AppID());
      break;
    case 4: {
      const char* id = args.AppID();
      const unsigned char* name = args.Name();
      const unsigned char* path = args.Path();
      const unsigned long request =
          input.ConsumeBool() ? 1 : input.ConsumeIntegral<unsigned long>();
      bool available = false;
      bool* answer = input.ConsumeBool() ? &available : nullptr;
      const bool registerFirst = input.ConsumeBool();
      repeated.Before(registerFirst ? id : nullptr, name, path);
      result = ROZIsUpdateAvailable(id, name, path, request, answer, registerFirst);
      repeated.After(result);
      break;
    }
    case 5: {
      const char* id = args.AppID();
      const unsigned char* name = args.Name();
      const unsigned char* path = args.Path();
      const char* language = args.Language();
      const ROZTriggerType type = PickType<ROZTriggerType>(input);
      const bool registerFirst = input.ConsumeBool();
      repeated.Before(registerFirst ? id : nullptr, name, path);
      result = ROZTriggerUpdateCheck(id, name, path, language, type, registerFirst);
      repeated.After(result);
      break;
    }
    case 6:
      result = ROZDoPluginAction(args.AppID());
      break;
    default: {
      const char* id = args.AppID();
      const unsigned char* name = args.Name();
      const unsigned char* path = args.Path();
      const char* language = args.Language();
      const ROZMissingComptList* list = args.Components();
      const ROZDownloadMissingCompType type = PickType<ROZDownloadMissingCompType>(input);
      const bool registerFirst = input.ConsumeBool();
      repeated.Before(registerFirst ? id : nullptr, name, path);
      result = ROZDownloadMissingComponents(id, name, path, language, list, type, registerFirst);
      repeated.After(result);
      break;
    }
  }
  Check(IsResultCode(result), "an export answers with a documented result");
  // Registering and unregistering work whether or not checks are enabled; the rest do not.
  if (which >= 4 && enabled == false)
    Check(result == kROZResultUpdateCheckDisabled, "a disabled machine refuses the request");
}

// Every lock a call may have taken: both stores, the preferences, and the workflow of each
// application named.
std::vector<std::string> LockNames(const Arguments& args) {
  std::vector<std::string> names = {gMachine->files[kRegistry], gMachine->files[kMissingComps],
                                    kPrefsLock, kAppID};
  for (const std::string& id : args.AppIDs()) {
    if (!id.empty()) names.push_back(id);
  }
  return names;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Locks of this run are nobody else's, and none outlives it, when the kernel allows a private
  // /dev/shm (as root); otherwise they share the machine's, and the probe's wait covers other
  // processes holding a lock for a moment. Done here, while the process has one thread.
  std::string why;
  const bool privateLocks = testing_support::EnterPrivateMountNamespace(why) &&
                            testing_support::UsePrivateSemaphores(why);
  if (!privateLocks)
    std::fprintf(stderr, "Exports_fuzz: locks shared with the machine (%s)\n", why.c_str());
  // The sandbox goes to the private tmpfs too: the stores and the preferences sync every save,
  // which costs a disk far more than the input costs the code.
  const char* tmpdir = std::getenv("TMPDIR");
  const std::optional<std::string> callerTmpdir =
      tmpdir ? std::optional<std::string>(tmpdir) : std::nullopt;
  if (privateLocks) setenv("TMPDIR", "/dev/shm", 1);
  static Machine machine;
  gMachine = &machine;
  machine.canMount = privateLocks;
  if (callerTmpdir) setenv("TMPDIR", callerTmpdir->c_str(), 1);
  else unsetenv("TMPDIR");
  gProbe = new LockProbe();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);

  const uint8_t groups = input.ConsumeIntegralInRange<uint8_t>(0, 7);
  if (groups == 7) gMachine->env.SetGroups({"users"});
  else if (groups == 6) gMachine->env.SetGroups({});
  else gMachine->env.SetGroups({"staff", "admin"});
  const bool admin = groups < 6;
  const bool updaterInstalled = input.ConsumeBool();
  gMachine->env.SetLaunchesWork(input.ConsumeBool());
  PlantedFile planted[kPlantedCount];
  for (PlantedFile& file : planted) {
    file.kind = static_cast<PlantedFile::Kind>(input.ConsumeIntegralInRange<uint8_t>(0, 3));
    if (file.kind == PlantedFile::kFile || file.kind == PlantedFile::kReadOnlyFile)
      file.bytes = input.ConsumeRandomLengthString(kMaxFileBytes);
  }
  gMachine->Reset(planted, updaterInstalled);
  const std::map<std::string, std::string> outside = gMachine->Outside();

  Arguments args(input);
  RepeatedRegistration repeated;
  Expected expected;
  if (!admin || !planted[kPolicy].kind) expected.enabled = admin;
  expected.registryWritable = true;
  for (const Planted file : {kRegistry, kRegistryJournal}) {
    expected.registryWritable = expected.registryWritable &&
                                planted[file].kind != PlantedFile::kReadOnlyFile &&
                                planted[file].kind != PlantedFile::kFolder;
  }
  const uint8_t calls = input.ConsumeIntegralInRange<uint8_t>(1, 4);
  for (uint8_t call = 0; call < calls; ++call) {
    std::optional<std::string> stores[kPolicy];
    for (int which = 0; which < kPolicy; ++which)
      stores[which] = fuzzing::ReadIfPresent(gMachine->files[which]);

    CallOne(input, args, expected, repeated);

    const std::vector<std::string> locks = LockNames(args);
    if (const std::string* held = gProbe->FirstHeld(locks)) {
      std::fprintf(stderr, "lock left held: %s\n", held->c_str());
      Check(false, "no lock is left held after a call");
    }
    for (int which = 0; which < kPolicy; ++which) {
      const std::optional<std::string> now = fuzzing::ReadIfPresent(gMachine->files[which]);
      if (now && now != stores[which])
        Check(Builder::IsWellFormed(now->data(), now->size()), "a store the call wrote parses");
    }
  }

  const std::map<std::string, std::string> after = gMachine->Outside();
  for (const auto& [path, content] : outside) {
    const auto now = after.find(path);
    if (now == after.end() || now->second != content)
      std::fprintf(stderr, "changed outside the data folders: %s\n", path.c_str());
  }
  for (const auto& [path, content] : after) {
    if (!outside.count(path))
      std::fprintf(stderr, "made outside the data folders: %s\n", path.c_str());
  }
  Check(after == outside, "nothing outside the data folders changes");
  if (!args.AppIDs().count(kOtherAppID)) {
    for (const std::string& file : gMachine->otherFiles) {
      if (fuzzing::ReadIfPresent(file) == std::string(kAnswerYes)) continue;
      std::fprintf(stderr, "%s changed by calls for:", file.c_str());
      for (const std::string& id : args.AppIDs()) std::fprintf(stderr, " \"%s\"", id.c_str());
      std::fprintf(stderr, "\n");
      Check(false, "another application's files are left alone");
    }
  }
  return 0;
}
