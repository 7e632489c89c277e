#ifndef VANTU_XPLAT_VANTUUPDATERADMINPREFS_H
#define VANTU_XPLAT_VANTUUPDATERADMINPREFS_H

#include "xplat/PropertyList.h"

// The administrator's policy file, ROOT/etc/com.vantu.VantuUpdater.Admin.plist (XML or binary
// property list), parsed afresh: an empty result when the file is missing, unreadable or not a
// property list. The folder is never created.
esd::PropertyList CreateVantuUpdaterAdminPrefsPropListRef();

// Answers whether the administrator's policy enables update checks. Holds nothing: the file is
// read on every question, so an administrator's edit counts from the next call on.
class VantuUpdaterAdminPrefs {
 public:
  // The one instance, made on first use and destroyed at exit.
  static VantuUpdaterAdminPrefs& GetVantuUpdaterAdminPrefs();

  virtual ~VantuUpdaterAdminPrefs();
  VantuUpdaterAdminPrefs(const VantuUpdaterAdminPrefs&) = delete;
  VantuUpdaterAdminPrefs& operator=(const VantuUpdaterAdminPrefs&) = delete;

  // True when the policy answers: its root dictionary holds the boolean "Disable.Update", and
  // `enabled` is then its negation. False, with `enabled` untouched, for no file, a file that
  // is not a dictionary, no such key or a value of another type (the string "true", the
  // number 1): the caller's default stands.
  bool GetUpdateCheckEnabled(bool& enabled);

 private:
  VantuUpdaterAdminPrefs() = default;
};

#endif
