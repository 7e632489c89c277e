#include "xplat/FileSystemUtils.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <ostream>
#include <streambuf>
#include <system_error>
#include <vector>

#include "linux/UniqueFd.h"
#include "xplat/Env.h"
#include "xplat/ESDAssert.h"

namespace FileSystemUtils {

path_invalid_error::path_invalid_error(const std::string& message, const std::string& path)
    : std::runtime_error(message), mPath(path) {}

path_invalid_error::~path_invalid_error() = default;

std::string path_invalid_error::GetPath() const { return mPath; }

namespace {

using esd::UniqueFd;
using RenameMode = esd::Env::RenameMode;

esd::Env* Os() { return esd::Env::Default(); }

// Opens through the seam; -1 with errno set on failure, like open(2). Always close-on-exec.
int OpenAt(int folder, const std::string& name, int flags, mode_t mode = 0) {
  const int fd = Os()->OpenFileAt(folder, name, flags, mode);
  if (fd >= 0) return fd;
  errno = -fd;
  return -1;
}

int Open(const std::string& path, int flags, mode_t mode = 0) {
  return OpenAt(AT_FDCWD, path, flags, mode);
}

// The folder a path lives in, usable in system calls ("." for a bare name).
std::string FolderOf(const std::string& path) {
  const std::string parent = GetParentPath(path);
  return parent.empty() ? "." : parent;
}

// Whether a user other than the caller (and root, who is trusted anyway) could add, rename or
// remove entries of a folder, and so swap one of them for a symbolic link.
bool OthersMayChange(const struct stat& folder) {
  if (folder.st_uid != 0 && folder.st_uid != ::geteuid()) return true;
  return (folder.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

// How OpenFolder treats components that are missing.
enum class Missing {
  Fail,     // the open fails
  Inherit,  // created with the parent's permission bits, owner and group
  Private,  // like Inherit, except that the last one gets exactly `lastMode`
};

// Opens the folder `path` (absolute, or relative to the working folder) one component at a time.
// A symbolic link is followed only in a folder nobody but the caller and root can change; in any
// other folder a link is refused, so another user cannot redirect the walk. Folders created here
// are made closed (0700), opened without following links, checked to be the caller's own and
// only then given their bits and owner through the descriptor. Returns the descriptor
// (close-on-exec), or -1 with errno set.
int OpenFolder(const std::string& path, Missing missing, mode_t lastMode = 0700) {
  UniqueFd current(Open(path.compare(0, 1, "/") == 0 ? "/" : ".", O_RDONLY | O_DIRECTORY));
  if (!current.valid()) return -1;
  std::vector<std::string> names;
  for (size_t start = 0; start <= path.size();) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    const std::string name = path.substr(start, end - start);
    if (!name.empty() && name != ".") names.push_back(name);
    start = end + 1;
  }
  for (size_t i = 0; i < names.size(); ++i) {
    struct stat parent;
    if (::fstat(current.get(), &parent) != 0) return -1;
    const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (OthersMayChange(parent) ? O_NOFOLLOW : 0);
    int next = OpenAt(current.get(), names[i], flags);
    if (next < 0 && errno == ENOENT && missing != Missing::Fail) {
      const bool exact = missing == Missing::Private && i + 1 == names.size();
      const bool made = ::mkdirat(current.get(), names[i].c_str(), S_IRWXU) == 0;
      if (!made && errno != EEXIST) return -1;
      next = OpenAt(current.get(), names[i], flags | O_NOFOLLOW);
      if (next >= 0 && made) {
        UniqueFd created(next);
        struct stat st;
        // Someone may have put a folder of their own there meanwhile: never adopt it.
        if (::fstat(next, &st) != 0 || st.st_uid != ::geteuid()) {
          errno = EPERM;
          return -1;
        }
        const mode_t mode = exact ? lastMode & 07777 : parent.st_mode & 07777;
        if (::fchown(next, parent.st_uid, parent.st_gid) != 0 && errno == EPERM) {
          // Not allowed to give the folder away; the parent's group is still possible for a
          // member. Otherwise the folder keeps the caller's identity and is usable.
          if (::fchown(next, static_cast<uid_t>(-1), parent.st_gid) != 0) {
          }
        }
        // After the change of owner, which may clear setgid.
        ::fchmod(next, mode);
        created.Release();
      }
    }
    if (next < 0) return -1;
    ::close(current.Release());
    current.Reset(next);
  }
  return current.Release();
}

// Opens the folder holding `path` as OpenFolder does (nothing created) and gives the last
// component; false when the folder cannot be opened or the path names no entry in it.
bool OpenEntryFolder(const std::string& path, UniqueFd& folder, std::string& name) {
  name = GetPathLastComponent(path);
  if (name.empty() || name == "." || name == "..") return false;
  folder.Reset(OpenFolder(FolderOf(path), Missing::Fail));
  return folder.valid();
}

// ENOTDIR counts as missing: "file/x" names nothing.
bool IsMissing(int err) { return err == ENOENT || err == ENOTDIR; }

// Returns 0 or the errno of the lstat.
int LStat(const std::string& path, struct stat& st) {
  return ::lstat(path.c_str(), &st) == 0 ? 0 : errno;
}

// The object's own write bit for the effective user: owner, else group, else other. Only the
// effective ids count, and root gets no exemption: the bits are the file's own protection.
bool CallerHasWriteBit(const struct stat& st) {
  if (::geteuid() == st.st_uid) return (st.st_mode & S_IWUSR) != 0;
  if (::getegid() == st.st_gid) return (st.st_mode & S_IWGRP) != 0;
  return (st.st_mode & S_IWOTH) != 0;
}

bool WriteAll(int fd, const char* data, size_t size) {
  const int err = Os()->WriteFile(fd, data, size);
  errno = err;
  return err == 0;
}

bool Sync(int fd) {
  const int err = Os()->SyncFile(fd);
  errno = err;
  return err == 0;
}

bool CopyBytes(int in, int out) {
  std::vector<char> buffer(64 * 1024);
  for (;;) {
    const ssize_t n = ::read(in, buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) return true;
    if (!WriteAll(out, buffer.data(), static_cast<size_t>(n))) return false;
  }
}

// Deletes a folder tree without following links. A tree that is already gone counts as deleted.
bool RemoveTree(const std::string& path) {
  std::error_code ec;
  std::filesystem::remove_all(path, ec);
  return !ec;
}

// rename that never replaces an existing `to`. File systems without the kernel's no-replace
// flag get a check followed by a plain rename; the window between them is accepted there.
int RenameNoReplace(const std::string& from, const std::string& to) {
  const int err = Os()->RenameFile(from, to, RenameMode::kNoReplace);
  if (err != EINVAL && err != ENOSYS) return err;
  struct stat st;
  const int statErr = LStat(to, st);
  if (statErr == 0) return EEXIST;
  if (!IsMissing(statErr)) return statErr;
  return Os()->RenameFile(from, to, RenameMode::kReplace);
}

// Copies a regular file or a symbolic link to the new name `to` for a move across file systems:
// content, ownership (where permitted), mode and times, synced before the caller deletes the
// source. Folders are refused: a tree copy cannot be undone without risk once its source is
// partly deleted. On failure nothing is left at `to`.
bool CopyForMove(const std::string& from, const std::string& to) {
  struct stat st;
  if (LStat(from, st) != 0) return false;

  if (S_ISLNK(st.st_mode)) {
    std::vector<char> target(PATH_MAX + 1);
    const ssize_t n = ::readlink(from.c_str(), target.data(), PATH_MAX);
    if (n < 0 || n >= PATH_MAX) return false;
    target[static_cast<size_t>(n)] = '\0';
    if (::symlink(target.data(), to.c_str()) != 0) return false;
    if (::lchown(to.c_str(), st.st_uid, st.st_gid) != 0) {
      // Keeping the caller as owner is the best a non-root mover can do.
    }
    return true;
  }
  if (!S_ISREG(st.st_mode)) return false;

  UniqueFd in(Open(from, O_RDONLY | O_NOFOLLOW));
  if (!in.valid()) return false;
  UniqueFd out(Open(to, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (!out.valid()) return false;
  bool ok = CopyBytes(in.get(), out.get());
  if (ok && ::fchown(out.get(), st.st_uid, st.st_gid) != 0) {
    // As above: ownership is kept where permitted, the content is what must not be lost.
  }
  // After fchown, which may clear setuid and setgid.
  ok = ok && ::fchmod(out.get(), st.st_mode & 07777) == 0;
  const struct timespec times[2] = {st.st_atim, st.st_mtim};
  ok = ok && ::futimens(out.get(), times) == 0;
  ok = ok && Sync(out.get());
  ok = out.Close() && ok;
  if (!ok) Os()->RemoveFile(to);
  return ok;
}

bool RemoveObject(const std::string& path) {
  struct stat st;
  const int err = LStat(path, st);
  if (err != 0) return IsMissing(err);
  if (S_ISDIR(st.st_mode)) return ::rmdir(path.c_str()) == 0;
  errno = Os()->RemoveFile(path);
  return errno == 0;
}

// MoveObject with its errno: 0 on success.
int Move(const std::string& from, const std::string& to) {
  int err = RenameNoReplace(from, to);
  if (err != EXDEV) return err;

  errno = 0;
  if (!CopyForMove(from, to)) return errno != 0 ? errno : EIO;
  SyncDirectory(FolderOf(to));
  errno = 0;
  err = RemoveObject(from) ? 0 : errno != 0 ? errno : EIO;
  if (err != 0) {
    // The source stays whole, so the copy goes: a move happens entirely or not at all.
    RemoveObject(to);
    return err;
  }
  SyncDirectory(FolderOf(from));
  return 0;
}

bool MoveObject(const std::string& from, const std::string& to) { return Move(from, to) == 0; }

// The swap by three renames, for when the kernel cannot exchange two names atomically (old
// kernels, file systems without the exchange, two different file systems). a goes to a free
// "TempSwap.N" in a's folder, b to a, the temporary to b. A failed step is undone in reverse; the
// temporary is only ever removed by being moved into place, so no content is lost whatever fails.
bool ExchangeFilesByRenaming(const std::string& a, const std::string& b) {
  const std::string folder = FolderOf(a);
  std::string temp;
  bool parked = false;
  for (int n = 0; n < 32 && !parked; ++n) {
    temp = AppendPathElement(folder, "TempSwap." + std::to_string(n));
    struct stat st;
    const int statErr = LStat(temp, st);
    if (statErr == 0) continue;
    if (!IsMissing(statErr)) return false;
    const int err = Move(a, temp);
    if (err == 0) {
      parked = true;
    } else if (err != EEXIST) {
      return false;  // another process may have taken the name; anything else is final
    }
  }
  if (!parked) return false;

  if (!MoveObject(b, a)) {
    // If even this fails, a's content waits under the temporary name.
    MoveObject(temp, a);
    return false;
  }
  if (!MoveObject(temp, b)) {
    if (MoveObject(a, b)) MoveObject(temp, a);
    return false;
  }
  return true;
}

}  // namespace

bool DoesPathExist(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

std::string GetPathDelimiter() { return "/"; }

std::string GetParentPath(const std::string& path) {
  const std::string::size_type pos = path.rfind('/');
  if (pos == std::string::npos) return std::string();
  if (pos == 0) return "/";
  return path.substr(0, pos);
}

std::string GetPathLastComponent(const std::string& path) {
  const std::string::size_type pos = path.rfind('/');
  if (pos == std::string::npos) return path;
  return path.substr(pos + 1);
}

std::string AppendPathElement(const std::string& sPath, const std::string& sAppend) {
  ESD_ASSERT(!sPath.empty());
  ESD_ASSERT(!sAppend.empty());
  std::string result = sPath;
  if (result.back() != '/') result += '/';
  result.append(sAppend, sAppend.front() == '/' ? 1 : 0, std::string::npos);
  return result;
}

bool GetFileLastModifiedTime(const std::string& path, uint64_t& timeNs) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return false;
  if (st.st_mtim.tv_sec < 0) return false;
  const uint64_t seconds = static_cast<uint64_t>(st.st_mtim.tv_sec);
  if (seconds > (UINT64_MAX - 999999999u) / 1000000000u) return false;
  timeNs = seconds * 1000000000u + static_cast<uint64_t>(st.st_mtim.tv_nsec);
  return true;
}

bool SetFileLastModifiedTime(const std::string& path, uint64_t timeNs) {
  const struct timespec times[2] = {
      {0, UTIME_OMIT},
      {static_cast<time_t>(timeNs / 1000000000u), static_cast<long>(timeNs % 1000000000u)}};
  return ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
}

bool ListDirectory(const std::string& dir, std::vector<std::string>& names) {
  names.clear();
  DIR* folder = ::opendir(dir.c_str());
  if (folder == nullptr) return false;
  while (const struct dirent* entry = ::readdir(folder)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  ::closedir(folder);
  return true;
}

bool GetFilePermission(const std::string& path, uint16_t& mode) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return false;
  mode = static_cast<uint16_t>(st.st_mode & 07777);
  return true;
}

bool SetFilePermission(const std::string& path, uint16_t mode) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return false;
  const mode_t wanted = (st.st_mode & 07777) | (mode & 07777);
  return ::chmod(path.c_str(), wanted) == 0;
}

bool SetRestrictedFilePermission(const std::string& path) {
  struct stat st;
  const bool isFolder = ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  return ::chmod(path.c_str(), isFolder ? 0775 : 0664) == 0;
}

bool DeleteDirectory(const std::string& path, bool recursive) {
  struct stat st;
  if (LStat(path, st) != 0 || !S_ISDIR(st.st_mode)) return false;
  if (recursive) return RemoveTree(path);
  return ::rmdir(path.c_str()) == 0 || errno == ENOENT;
}

bool DeleteLocalFile(const std::string& path) {
  struct stat st;
  const int err = LStat(path, st);
  if (err != 0) return IsMissing(err);
  if (S_ISDIR(st.st_mode)) return RemoveTree(path);
  // A link's own bits mean nothing; removing it leaves its target alone.
  if (!S_ISLNK(st.st_mode) && !CallerHasWriteBit(st)) return false;
  const int removed = Os()->RemoveFile(path);
  return removed == 0 || removed == ENOENT;
}

bool CreateLocalDirectory(const std::string& sDir) {
  if (sDir.empty()) return false;
  struct stat st;
  if (::stat(sDir.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  UniqueFd folder(OpenFolder(sDir, Missing::Inherit));
  return folder.valid();
}

bool CreateLocalDirectoryWithMode(const std::string& dir, uint16_t mode) {
  if (dir.empty()) return false;
  UniqueFd folder(OpenFolder(dir, Missing::Private, mode));
  return folder.valid();
}

bool WriteLocalFile(const std::string& path, const std::string& bytes, uint16_t mode) {
  UniqueFd folder(-1);
  std::string name;
  if (!OpenEntryFolder(path, folder, name)) return false;
  // Non-blocking, so that a named pipe at the name is refused rather than waited on.
  UniqueFd file(OpenAt(folder.get(), name, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK,
                       S_IRUSR | S_IWUSR));
  if (!file.valid()) return false;
  struct stat st;
  if (::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  bool ok = ::fchmod(file.get(), mode & 07777) == 0;
  ok = ok && WriteAll(file.get(), bytes.data(), bytes.size());
  return file.Close() && ok;
}

bool CreateDirectoryOwnedBy(const std::string& path, uid_t owner, gid_t group, uint16_t mode) {
  const std::string name = GetPathLastComponent(path);
  if (name.empty() || name == "." || name == "..") return false;
  UniqueFd parent(Open(FolderOf(path), O_RDONLY | O_DIRECTORY));
  if (!parent.valid()) return false;
  const bool made = ::mkdirat(parent.get(), name.c_str(), S_IRWXU) == 0;
  if (!made && errno != EEXIST) return false;
  UniqueFd folder(OpenAt(parent.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
  if (!made) return folder.valid();
  // The owner first: a change of owner clears the set-group-ID bit the mode may ask for.
  const bool ok = folder.valid() && ::fchown(folder.get(), owner, group) == 0 &&
                  ::fchmod(folder.get(), mode & 07777) == 0;
  if (!ok) ::unlinkat(parent.get(), name.c_str(), AT_REMOVEDIR);
  return ok;
}

bool CopyLocalFile(const std::string& src, const std::string& dst) {
  const std::string name = GetPathLastComponent(dst);
  if (name.empty()) return false;
  const std::string folder = FolderOf(dst);
  struct stat st;
  if (::stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
  // An existing destination obeys the same write-bit rule as DeleteLocalFile, which it
  // effectively is; a folder is never replaced.
  if (::lstat(dst.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return false;
    if (!S_ISLNK(st.st_mode) && !CallerHasWriteBit(st)) return false;
  }

  UniqueFd in(Open(src, O_RDONLY));
  if (!in.valid()) return false;
  if (::fstat(in.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;

  // Hidden beside dst, so the final rename stays on one file system and is atomic.
  std::string temp = AppendPathElement(folder, "." + name.substr(0, 200) + ".XXXXXX");
  std::vector<char> templ(temp.begin(), temp.end());
  templ.push_back('\0');
  UniqueFd out(::mkostemp(templ.data(), O_CLOEXEC));
  if (!out.valid()) return false;
  temp = templ.data();

  bool ok = CopyBytes(in.get(), out.get());
  ok = ok && ::fchmod(out.get(), st.st_mode & 0777) == 0;
  ok = ok && Sync(out.get());
  ok = out.Close() && ok;
  if (ok && Os()->RenameFile(temp, dst, RenameMode::kReplace) == 0) return true;
  Os()->RemoveFile(temp);
  return false;
}

bool ExchangeFiles(const std::string& a, const std::string& b) {
  // Every save ends here with both names present, so the kernel's exchange is tried before the
  // names are examined; what it refuses is sorted out below.
  const int exchangeErr = Os()->RenameFile(a, b, RenameMode::kExchange);
  if (exchangeErr == 0) return true;

  struct stat stA;
  struct stat stB;
  const int errA = LStat(a, stA);
  if (errA != 0 && !IsMissing(errA)) return false;
  const int errB = LStat(b, stB);
  if (errB != 0 && !IsMissing(errB)) return false;
  const bool hasA = errA == 0;
  const bool hasB = errB == 0;
  if (!hasA && !hasB) return false;

  if (hasA && hasB) {
    // Two names of one file: swapping them changes nothing.
    if (stA.st_dev == stB.st_dev && stA.st_ino == stB.st_ino) return true;
    const int err = exchangeErr;
    if (err != EINVAL && err != ENOSYS && err != EXDEV && err != EOPNOTSUPP) return false;
    return ExchangeFilesByRenaming(a, b);
  }

  const std::string& from = hasA ? a : b;
  const std::string& to = hasA ? b : a;
  const std::string parent = GetParentPath(to);
  if (!parent.empty() && !DoesPathExist(parent) && !CreateLocalDirectory(parent)) return false;
  return MoveObject(from, to);
}

namespace {

// An unbuffered stream buffer over a descriptor: the writers hand over large blocks, so a buffer
// of its own would only copy them once more. A failed write makes the stream fail.
class DescriptorBuf : public std::streambuf {
 public:
  explicit DescriptorBuf(int fd) : mFd(fd) {}

 protected:
  std::streamsize xsputn(const char* data, std::streamsize size) override {
    return WriteAll(mFd, data, static_cast<size_t>(size)) ? size : 0;
  }
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    const char byte = traits_type::to_char_type(c);
    return WriteAll(mFd, &byte, 1) ? c : traits_type::eof();
  }

 private:
  int mFd;
};

}  // namespace

bool CreateFileWith(const std::string& path, uint16_t mode, bool sync,
                    const std::function<bool(std::ostream&)>& write) {
  UniqueFd folder(-1);
  std::string name;
  if (!OpenEntryFolder(path, folder, name)) return false;
  UniqueFd fd(OpenAt(folder.get(), name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (!fd.valid()) return false;
  bool ok = false;
  try {
    DescriptorBuf buffer(fd.get());
    std::ostream out(&buffer);
    ok = write(out) && out.flush() && !out.fail();
  } catch (...) {
    ok = false;
  }
  ok = ok && ::fchmod(fd.get(), mode & 07777) == 0;
  if (ok && sync) ok = Sync(fd.get());
  ok = fd.Close() && ok;
  if (!ok) ::unlinkat(folder.get(), name.c_str(), 0);
  return ok;
}

bool RemoveName(const std::string& path) {
  const int err = Os()->RemoveFile(path);
  if (err == 0 || err == ENOENT) return true;
  return DeleteLocalFile(path) || !DoesPathExist(path);
}

bool ReplaceFileWith(const std::string& path, const std::string& sideFile, uint16_t mode,
                     bool durable, const std::function<bool(std::ostream&)>& write,
                     const std::function<bool(const std::string&)>& prepare) {
  // A side file adjusted after writing is synced after the adjustment, by a second open.
  if (!CreateFileWith(sideFile, mode, durable && !prepare, write)) return false;
  if (prepare && (!prepare(sideFile) || (durable && !SyncFile(sideFile)))) {
    RemoveName(sideFile);
    return false;
  }
  const bool hadFile = DoesPathExist(path);
  const bool exchanged = ExchangeFiles(path, sideFile);
  const bool fileLost = !exchanged && hadFile && !DoesPathExist(path);
  if (!fileLost) RemoveName(sideFile);
  if (!exchanged) return false;
  // Makes the exchange and the side file's removal durable together.
  return !durable || SyncDirectory(FolderOf(path));
}

bool SyncFile(const std::string& path) {
  UniqueFd fd(Open(path, O_RDONLY));
  if (!fd.valid()) return false;
  return Sync(fd.get());
}

bool SyncDirectory(const std::string& dir) {
  UniqueFd fd(Open(dir, O_RDONLY | O_DIRECTORY));
  if (!fd.valid()) return false;
  // EINVAL: a file system that keeps nothing to flush for folders.
  const int err = Os()->SyncFile(fd.get());
  return err == 0 || err == EINVAL;
}

}  // namespace FileSystemUtils
