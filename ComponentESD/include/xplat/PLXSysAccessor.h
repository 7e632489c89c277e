#ifndef ESD_XPLAT_PLXSYSACCESSOR_H
#define ESD_XPLAT_PLXSYSACCESSOR_H

#include <semaphore.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdio>

#include "xplat/PLXFrameworkBundle.h"

struct protoent;
struct sembuf;

namespace esd {

// The C library functions the component reaches through a library loaded at run time rather
// than through the link: each is looked up by name once and then called through its pointer.
// The table is all or nothing, so a caller never meets a missing function halfway through.
// Read-only after construction, hence safe to share between threads.
class PLXSysAccessor {
 public:
  using SignalHandler = void (*)(int);

  using SystemFn = int (*)(const char*);
  using GetenvFn = char* (*)(const char*);
  using SetenvFn = int (*)(const char*, const char*, int);
  using UnsetenvFn = int (*)(const char*);
  using SocketFn = int (*)(int, int, int);
  using IoctlFn = int (*)(int, unsigned long, ...);
  using GetprotobynameFn = protoent* (*)(const char*);
  using PopenFn = FILE* (*)(const char*, const char*);
  using PcloseFn = int (*)(FILE*);
  using FreadFn = size_t (*)(void*, size_t, size_t, FILE*);
  using FseekFn = int (*)(FILE*, long, int);
  using FtellFn = long (*)(FILE*);
  using FtokFn = key_t (*)(const char*, int);
  using SemgetFn = int (*)(key_t, int, int);
  using SemopFn = int (*)(int, sembuf*, size_t);
  using SignalFn = SignalHandler (*)(int, SignalHandler);
  using UalarmFn = useconds_t (*)(useconds_t, useconds_t);
  using SemOpenFn = sem_t* (*)(const char*, int, ...);
  using SemCloseFn = int (*)(sem_t*);
  using SemUnlinkFn = int (*)(const char*);
  using NiceFn = int (*)(int);
  using AccessFn = int (*)(const char*, int);

  // Loads the system C library and looks up all 22 functions. Throws std::runtime_error
  // "unable to load bundle" when the library cannot be loaded and "missing symbol" when any
  // one of the functions cannot be found.
  PLXSysAccessor();
  virtual ~PLXSysAccessor();

  PLXSysAccessor(const PLXSysAccessor&) = delete;
  PLXSysAccessor& operator=(const PLXSysAccessor&) = delete;

  // Each forwards to the C library function of the same name and returns its result unchanged;
  // failures are reported as that function reports them (result and errno).
  int system(const char* command) const { return mSystem(command); }
  char* getenv(const char* name) const { return mGetenv(name); }
  int setenv(const char* name, const char* value, int overwrite) const {
    return mSetenv(name, value, overwrite);
  }
  int unsetenv(const char* name) const { return mUnsetenv(name); }
  int socket(int domain, int type, int protocol) const { return mSocket(domain, type, protocol); }
  int ioctl(int fd, unsigned long request, void* argument) const {
    return mIoctl(fd, request, argument);
  }
  protoent* getprotobyname(const char* name) const { return mGetprotobyname(name); }
  FILE* popen(const char* command, const char* type) const { return mPopen(command, type); }
  int pclose(FILE* stream) const { return mPclose(stream); }
  size_t fread(void* buffer, size_t size, size_t count, FILE* stream) const {
    return mFread(buffer, size, count, stream);
  }
  int fseek(FILE* stream, long offset, int whence) const { return mFseek(stream, offset, whence); }
  long ftell(FILE* stream) const { return mFtell(stream); }
  key_t ftok(const char* path, int projectId) const { return mFtok(path, projectId); }
  int semget(key_t key, int count, int flags) const { return mSemget(key, count, flags); }
  int semop(int id, sembuf* operations, size_t count) const {
    return mSemop(id, operations, count);
  }
  SignalHandler signal(int signalNumber, SignalHandler handler) const {
    return mSignal(signalNumber, handler);
  }
  useconds_t ualarm(useconds_t value, useconds_t interval) const {
    return mUalarm(value, interval);
  }
  // The mode travels through the variadic C call as a mode_t, as the C library reads it.
  sem_t* sem_open(const char* name, int oflag, unsigned short mode, unsigned int value) const {
    return mSemOpen(name, oflag, static_cast<mode_t>(mode), value);
  }
  int sem_close(sem_t* semaphore) const { return mSemClose(semaphore); }
  int sem_unlink(const char* name) const { return mSemUnlink(name); }
  int nice(int increment) const { return mNice(increment); }
  int access(const char* path, int mode) const { return mAccess(path, mode); }

 protected:
  // The same table taken from another library; lets a test show the all-or-nothing rule on a
  // real library that lacks some of the functions.
  explicit PLXSysAccessor(const char* frameworkName);

 private:
  PLXFrameworkBundle mBundle;
  SystemFn mSystem;
  GetenvFn mGetenv;
  SetenvFn mSetenv;
  UnsetenvFn mUnsetenv;
  SocketFn mSocket;
  IoctlFn mIoctl;
  GetprotobynameFn mGetprotobyname;
  PopenFn mPopen;
  PcloseFn mPclose;
  FreadFn mFread;
  FseekFn mFseek;
  FtellFn mFtell;
  FtokFn mFtok;
  SemgetFn mSemget;
  SemopFn mSemop;
  SignalFn mSignal;
  UalarmFn mUalarm;
  SemOpenFn mSemOpen;
  SemCloseFn mSemClose;
  SemUnlinkFn mSemUnlink;
  NiceFn mNice;
  AccessFn mAccess;
};

}  // namespace esd

#endif
