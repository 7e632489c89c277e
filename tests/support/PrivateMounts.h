#ifndef TESTS_SUPPORT_PRIVATEMOUNTS_H
#define TESTS_SUPPORT_PRIVATEMOUNTS_H

#include <string>

namespace testing_support {

// Mounts only the calling process and its later children see, gone with the namespace's last
// process. Enter from a single-threaded process: as root it unshares the mount namespace,
// otherwise it tries a user namespace that keeps the caller's ids. False with `why` filled when
// the kernel allows neither (callers then skip).
bool EnterPrivateMountNamespace(std::string& why);

// A fresh tmpfs at the existing `folder`, with options such as "size=64k" or "nr_inodes=8".
bool MountTmpfs(const std::string& folder, const std::string& options, std::string& why);

// `folder` and everything below read-only (EROFS even for root).
bool MountReadOnly(const std::string& folder, std::string& why);

// An empty /dev/shm of the namespace's own.
bool UsePrivateSemaphores(std::string& why);

}  // namespace testing_support

#endif
