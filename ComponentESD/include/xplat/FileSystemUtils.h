#ifndef ESD_XPLAT_FILESYSTEMUTILS_H
#define ESD_XPLAT_FILESYSTEMUTILS_H

// Path and file operations shared by the stores, the preference engine and the updater folders.
// Paths are POSIX paths in UTF-8 with "/" as the delimiter. Every operation reports an ordinary
// failure by returning false and prints nothing; none throws. Symbolic links are followed when a
// path is resolved (DoesPathExist, times, permissions, copy source) but are never followed when
// something is deleted or renamed: the link itself is what goes.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace FileSystemUtils {

// Thrown by callers that cannot go on without a valid path; carries the offending path.
class path_invalid_error : public std::runtime_error {
 public:
  path_invalid_error(const std::string& message, const std::string& path);
  ~path_invalid_error() override;
  virtual std::string GetPath() const;

 private:
  std::string mPath;
};

// True when the path names an existing file system object (a dangling link does not count).
bool DoesPathExist(const std::string& path);

// "/".
std::string GetPathDelimiter();

// The text before the last "/"; "/" when the only "/" is the first character; empty when the
// path holds no "/". "/x/" gives "/x" (the trailing delimiter is the last one).
std::string GetParentPath(const std::string& path);

// The text after the last "/"; the whole path when it holds none; empty when it ends in "/".
std::string GetPathLastComponent(const std::string& path);

// sPath joined with sAppend by exactly one "/": one leading "/" of sAppend is dropped, and no "/"
// is inserted when sPath already ends with one. Both must be non-empty (asserted).
std::string AppendPathElement(const std::string& sPath, const std::string& sAppend);

// The content-modification time of the object the path resolves to, as nanoseconds since
// 1970-01-01 00:00:00 UTC. Nanoseconds, so that two saves within the same second give two
// different values on file systems that keep them. False when the path does not resolve or the
// time lies before 1970 (it has no honest value in this encoding).
bool GetFileLastModifiedTime(const std::string& path, uint64_t& timeNs);

// Sets the content-modification time of the object the path names itself (a link is not
// followed) to `timeNs` nanoseconds since 1970; the access time is left as it is.
bool SetFileLastModifiedTime(const std::string& path, uint64_t timeNs);

// The names of the entries of the folder `dir`, without "." and "..", in no particular order.
bool ListDirectory(const std::string& dir, std::vector<std::string>& names);

// The permission bits (st_mode & 07777: rwx for owner/group/other plus setuid, setgid, sticky);
// the file-type bits are not included.
bool GetFilePermission(const std::string& path, uint16_t& mode);

// ORs `mode` (07777 bits) into the object's permission bits: bits are only ever added, never
// removed, so a caller that wants a file shared cannot make it less usable for anyone else.
bool SetFilePermission(const std::string& path, uint16_t mode);

// Sets the permission bits to exactly 0775 for a folder and 0664 for anything else (also when
// the object cannot be examined; then the chmod decides).
bool SetRestrictedFilePermission(const std::string& path);

// Deletes a folder: with `recursive` the whole tree, else only the folder itself, which must be
// empty. False when the path does not exist or is not a folder (a link to a folder is not one).
// True also when the folder vanished under us (someone else deleted it).
bool DeleteDirectory(const std::string& path, bool recursive);

// Deletes a file, or a whole folder tree. A missing path is true (nothing to delete). A file is
// refused (false) unless its own write bit for the caller is set: the owner bit when the
// effective user owns it, else the group bit when the effective group is its group, else the
// other bit. This is deliberately stricter than the system (which only asks for a writable
// folder) and holds by the bits alone, for root too: a read-only file is never deleted here.
// A symbolic link is removed itself, never its target.
bool DeleteLocalFile(const std::string& path);

// Creates sDir and any missing parents. Each folder created gets its parent's permission bits
// (set after mkdir, so the umask does not narrow them), then its parent's owner and group.
// Changing ownership needs privileges a normal user lacks; when the folder's owner or group
// cannot be changed (EPERM) the folder is kept with the caller's identity, because the folder
// itself is what the caller asked for and the caller can use it. True when sDir is a folder
// afterwards (also when it already was). False when a path component is a file.
// The path is walked by descriptors: a symbolic link is followed only in a folder that no user
// but the caller and root can change, so another user cannot redirect the creation by swapping
// a component; every new folder is checked to be the caller's before its bits and owner are set
// through its descriptor.
bool CreateLocalDirectory(const std::string& sDir);

// Creates the one folder `path` (its parent must exist) owned by `owner` and `group` with exactly
// the bits `mode` (07777, setgid included), set on the new folder's descriptor, so neither the
// umask nor the parent's bits have a say. An existing folder, also one another process made
// meanwhile, is left exactly as it is (true). False, with nothing left behind, when the folder
// cannot be made or given away (giving it to another owner needs root), or when the name holds
// anything but a folder (a symbolic link is never followed).
bool CreateDirectoryOwnedBy(const std::string& path, uid_t owner, gid_t group, uint16_t mode);

// As CreateLocalDirectory, except that `dir` itself, when it is created, gets exactly the bits
// `mode`, whatever the umask or the parent's bits (its owner and group are the parent's where
// the caller may give them). An existing folder is left as it is. False when `dir` is not a
// folder afterwards.
bool CreateLocalDirectoryWithMode(const std::string& dir, uint16_t mode);

// Writes `bytes` as the whole content of the file `path`, creating it when missing, with the
// permission bits `mode`. Never through a symbolic link: neither at `path` itself nor, in a
// folder another user can change, anywhere on the way to it. False when the file cannot be
// opened, is not a regular file, or a write fails.
bool WriteLocalFile(const std::string& path, const std::string& bytes, uint16_t mode);

// Copies the bytes and rwx permission bits of the file src resolves to into dst (setuid, setgid
// and sticky are not carried over to a copy the caller now owns). src must exist and
// be a regular file, and dst's parent folder must exist; else false and nothing is created.
// An existing dst is replaced atomically: the copy is written and synced to a hidden temporary
// file beside dst and renamed over it only once complete, so dst is always either the old file
// or the whole new one. Replacing deletes the old dst, so the write-bit rule of DeleteLocalFile
// applies to it: a read-only dst is refused (false), as is a folder. On any failure the partial
// copy is deleted and dst is untouched.
bool CopyLocalFile(const std::string& src, const std::string& dst);

// Afterwards the content that was at `a` is at `b` and the reverse. When only one exists it is
// renamed to the other name (the missing name's parent folder is created if needed). False when
// neither exists, or when the swap failed. A failure never loses a content: each is back under
// its original name, or, when even the undo failed or the process died between steps, one of
// them waits under "TempSwap.N" in a's folder.
// Both present: an atomic kernel exchange where the file system supports it; otherwise a is
// renamed to a free "TempSwap.N" (N = 0..31) in a's folder, b moved to a, the temporary moved to
// b, with moves across file systems done as copy-then-delete (false when all 32 temporary names
// exist).
bool ExchangeFiles(const std::string& a, const std::string& b);

// Creates the file `path`, which must not exist yet (any object at that name, a link included,
// makes it fail; links on the way are treated as by WriteLocalFile), with exactly the permission bits `mode`, and hands `write` a stream that writes
// straight to it. With `sync` the data reaches stable storage before the file is closed, as
// SyncFile would make it. False, with the new file removed again, when it cannot be created,
// when `write` returns false or throws, or when a write, the sync or the close fails. One open
// descriptor serves the whole file, so a save pays no second open to sync or to set the bits.
bool CreateFileWith(const std::string& path, uint16_t mode, bool sync,
                    const std::function<bool(std::ostream&)>& write);

// Removes the name `path` whatever the bits of the file it names (removing a name needs only the
// folder's permission); a folder at the name is deleted as DeleteLocalFile would. True when
// nothing is left at the name. For side files whose previous owner may have been another user.
bool RemoveName(const std::string& path);

// The one way a whole file is saved. `write` fills the new file `sideFile` (made as CreateFileWith
// makes it, with the bits `mode`), `prepare`, when given, may adjust it by its path (false
// abandons the save), and ExchangeFiles trades it with `path`, so `path` is at every moment its
// old text or the whole new one. With `durable` the side file reaches stable storage before the
// exchange and the folder after it. The side file, which then holds the old text, is removed; so
// is the unused new text after a failed exchange, unless `path` was lost in it (its old text waits
// under a temporary name): then the side file is the one complete text left at a known name and
// stays. False when any step fails.
bool ReplaceFileWith(const std::string& path, const std::string& sideFile, uint16_t mode,
                     bool durable, const std::function<bool(std::ostream&)>& write,
                     const std::function<bool(const std::string&)>& prepare = nullptr);

// Flushes a file's data to stable storage (fsync). Needed before a rename that must not expose
// an empty or partial file after a power loss.
bool SyncFile(const std::string& path);

// Flushes a folder (fsync on the folder), which makes creations, renames and deletions of its
// entries durable.
bool SyncDirectory(const std::string& dir);

}  // namespace FileSystemUtils

#endif
