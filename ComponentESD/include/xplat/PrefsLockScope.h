#ifndef ESD_XPLAT_PREFSLOCKSCOPE_H
#define ESD_XPLAT_PREFSLOCKSCOPE_H

namespace esd {

class PrefsWriter;

// The lock rule of one preference operation, as a scope: when the writer has a lock that is not
// held yet, it is taken (through PrefsWriter::LockPrefs, which also reloads a changed file) and
// released when the scope ends; a lock the caller already holds is neither taken nor released,
// so a caller may hold it across several operations. Without a lock installed the operation runs
// unguarded. Also usable by callers for a read-modify-write:
//
//   esd::PrefsLockScope lock(prefs);
//   if (lock.IsHeld()) { ...several gets and sets as one... }
class PrefsLockScope {
 public:
  explicit PrefsLockScope(PrefsWriter& writer);
  // Releases the lock if this scope took it; never throws.
  ~PrefsLockScope();

  PrefsLockScope(const PrefsLockScope&) = delete;
  PrefsLockScope& operator=(const PrefsLockScope&) = delete;

  // Whether the operation may go on: no lock is installed, or it is held.
  bool IsHeld() const { return mHeld; }
  // Whether this scope took the lock (and so will release it).
  bool TookLock() const { return mTook; }

  // Releases now a lock this scope took and returns whether the release succeeded; true when the
  // scope took nothing. The destructor then does nothing.
  bool Release();

 private:
  PrefsWriter& mWriter;
  bool mTook;
  bool mHeld;
};

}  // namespace esd

#endif
