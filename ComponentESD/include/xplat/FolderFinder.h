#ifndef ESD_XPLAT_FOLDERFINDER_H
#define ESD_XPLAT_FOLDERFINDER_H

#include <string>

namespace esd {

// The standard folders of the desktop, per user and machine-wide. Per-user folders follow the
// freedesktop base-directory and user-dirs conventions under the user's home; machine-wide
// folders lie under the Env's root ("/" on a real system). All lookups go through
// Env::Default().
class FolderFinder {
 public:
  enum FolderID {
    kChewableItems = 0,            // ${TMPDIR:-/tmp}
    kUserTemporaryItems = 1,       // $XDG_RUNTIME_DIR, else ${TMPDIR:-/tmp}/TemporaryItems-<uid>
    kUserDesktop = 2,              // XDG_DESKTOP_DIR of user-dirs.dirs, else HOME/Desktop
    kUserDocuments = 3,            // XDG_DOCUMENTS_DIR of user-dirs.dirs, else HOME/Documents
    kUserCaches = 4,               // ${XDG_CACHE_HOME:-HOME/.cache}
    kUserPreferences = 5,          // ${XDG_CONFIG_HOME:-HOME/.config}
    kUserApplicationSupport = 6,   // ${XDG_DATA_HOME:-HOME/.local/share}
    kLocalApplicationSupport = 7,  // ROOT/var/lib
    kAllUsersApplicationSupport = 8,  // ROOT/var/lib, the same folder as 7
    kLocalFonts = 9,               // ROOT/usr/local/share/fonts
    kSystemFolder = 10,            // ROOT/usr
    kUtilities = 11,               // ROOT/opt
    kFileSystemRoot = 12,          // "/", no lookup
  };

  // The folder's absolute path. With `create`, a missing folder is created with its missing
  // parents (each inheriting its parent's permissions); without, a missing folder fails.
  // False also when the folder cannot be determined (no home folder) or is unsafe (a temporary
  // items folder that is a symbolic link or belongs to someone else). An identifier above 12 is
  // a programming error and stops the process.
  static bool GetFolderPath(FolderID id, std::string& path, bool create);

  // ROOT/etc, where the administrator's machine-wide settings live. Never created.
  static bool GetLocalPreferencesFolderPath(std::string& path);

  // ROOT/Applications. Stock Linux has none: an administrator creates it to decide who may
  // install updates, so a missing folder is an ordinary failure. Never created.
  static bool GetLocalApplicationsFolderPath(std::string& path);
};

}  // namespace esd

#endif
