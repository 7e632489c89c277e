#ifndef ESD_LINUX_FILESYSTEMUTILSLINUX_H
#define ESD_LINUX_FILESYSTEMUTILSLINUX_H

// Internals of the Linux file system utilities that the reliability tests drive directly.

#include <functional>
#include <string>

namespace FileSystemUtils {
namespace internal {

// The swap by three renames, used by ExchangeFiles when the kernel cannot exchange two names
// atomically (old kernels, file systems without the exchange, two different file systems).
// a goes to a free "TempSwap.N" in a's folder, b to a, the temporary to b. Both must exist.
// A failed step is undone in reverse; the temporary is only ever removed by being moved into
// place, so no content is lost whatever fails.
bool ExchangeFilesByRenaming(const std::string& a, const std::string& b);

// Moves `from` to `to`, which must not exist (an object that appears there meanwhile is never
// overwritten). Across file systems: copies a file or link, syncs the copy, then deletes the
// source (a folder is not moved across file systems); when the source cannot be deleted the copy
// is removed again and the move fails, so a move either happens wholly or not at all.
bool MoveObject(const std::string& from, const std::string& to);

// The file system operations the exchange makes, and the syncs of SyncFile and SyncDirectory
// (`from` is the path synced, `to` empty), as seen by the fault hook.
enum class FsOp { Exchange, Rename, Copy, Unlink, Sync };

// Test seam: when set, called before each operation above; a non-zero result is taken as the
// errno of that operation, which then is not performed (EXDEV on Rename makes a move take the
// copy path, EINVAL on Exchange makes ExchangeFiles fall back to the renames, EIO on Sync makes
// the sync fail as a failing disk would). Not thread-safe.
using FaultHook =
    std::function<int(FsOp op, const std::string& from, const std::string& to)>;
void SetFaultHookForTesting(FaultHook hook);

}  // namespace internal
}  // namespace FileSystemUtils

#endif
