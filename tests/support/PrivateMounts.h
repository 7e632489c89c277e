#ifndef TESTS_SUPPORT_PRIVATEMOUNTS_H
#define TESTS_SUPPORT_PRIVATEMOUNTS_H

#include <string>

namespace testing_support {

// Mounts that only the calling process and its later children see, for tests that need a file
// system of their own: a tiny one that fills up, a read-only one that even root cannot write,
// or a private /dev/shm so that files planted there are nobody else's.
//
// EnterPrivateMountNamespace must be called by a single-threaded process (a freshly forked
// child, or a program's main before it starts threads). As root it unshares the mount
// namespace; otherwise it tries a user namespace that maps the caller to itself, so the
// effective ids stay what they were. False with `why` filled when the kernel allows neither:
// callers then skip. Afterwards nothing mounted here reaches the rest of the system, and it
// all disappears with the last process of the namespace.
bool EnterPrivateMountNamespace(std::string& why);

// A fresh tmpfs at `folder` (which must exist) with the given mount options, for instance
// "size=64k" or "nr_inodes=8". Only inside a private mount namespace.
bool MountTmpfs(const std::string& folder, const std::string& options, std::string& why);

// Makes `folder` (and everything below it) read-only by a bind mount onto itself: writes fail
// with EROFS whoever the caller is, root included.
bool MountReadOnly(const std::string& folder, std::string& why);

// Gives the namespace an empty /dev/shm of its own: files made there (an attacker's planted at
// the names older versions gave their semaphore locks) are invisible to the rest of the system
// and vanish with the namespace.
bool UsePrivateSemaphores(std::string& why);

}  // namespace testing_support

#endif
