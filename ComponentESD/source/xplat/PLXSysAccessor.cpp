#include "xplat/PLXSysAccessor.h"

#include <stdexcept>

#include "xplat/GlobalPLXSysAccessor.h"

namespace esd {

namespace {

// Looks one function up; a null result aborts the whole table.
template <typename Fn>
Fn Require(PLXFrameworkBundle& bundle, const char* name) {
  void* address = bundle.GetFunctionPointerForName(name);
  if (address == nullptr) throw std::runtime_error("missing symbol");
  return reinterpret_cast<Fn>(address);
}

}  // namespace

PLXSysAccessor::PLXSysAccessor() : PLXSysAccessor("System.framework") {}

// Members are initialised in declaration order, which is the order of the lookups.
PLXSysAccessor::PLXSysAccessor(const char* frameworkName)
    : mBundle(frameworkName),
      mSystem(Require<SystemFn>(mBundle, "system")),
      mGetenv(Require<GetenvFn>(mBundle, "getenv")),
      mSetenv(Require<SetenvFn>(mBundle, "setenv")),
      mUnsetenv(Require<UnsetenvFn>(mBundle, "unsetenv")),
      mSocket(Require<SocketFn>(mBundle, "socket")),
      mIoctl(Require<IoctlFn>(mBundle, "ioctl")),
      mGetprotobyname(Require<GetprotobynameFn>(mBundle, "getprotobyname")),
      mPopen(Require<PopenFn>(mBundle, "popen")),
      mPclose(Require<PcloseFn>(mBundle, "pclose")),
      mFread(Require<FreadFn>(mBundle, "fread")),
      mFseek(Require<FseekFn>(mBundle, "fseek")),
      mFtell(Require<FtellFn>(mBundle, "ftell")),
      mFtok(Require<FtokFn>(mBundle, "ftok")),
      mSemget(Require<SemgetFn>(mBundle, "semget")),
      mSemop(Require<SemopFn>(mBundle, "semop")),
      mSignal(Require<SignalFn>(mBundle, "signal")),
      mUalarm(Require<UalarmFn>(mBundle, "ualarm")),
      mSemOpen(Require<SemOpenFn>(mBundle, "sem_open")),
      mSemClose(Require<SemCloseFn>(mBundle, "sem_close")),
      mSemUnlink(Require<SemUnlinkFn>(mBundle, "sem_unlink")),
      mNice(Require<NiceFn>(mBundle, "nice")),
      mAccess(Require<AccessFn>(mBundle, "access")) {}

PLXSysAccessor::~PLXSysAccessor() = default;

GlobalPLXSysAccessor& GlobalPLXSysAccessor::GetGlobalPLXSysAccessor() {
  static GlobalPLXSysAccessor instance;
  return instance;
}

GlobalPLXSysAccessor::~GlobalPLXSysAccessor() = default;

}  // namespace esd
