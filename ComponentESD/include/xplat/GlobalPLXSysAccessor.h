#ifndef ESD_XPLAT_GLOBALPLXSYSACCESSOR_H
#define ESD_XPLAT_GLOBALPLXSYSACCESSOR_H

#include "xplat/PLXSysAccessor.h"

namespace esd {

// The one accessor of the process, shared by every user of the C library table.
class GlobalPLXSysAccessor : public PLXSysAccessor {
 public:
  // Made on the first call (concurrent first calls construct it once) and destroyed at exit.
  // A failure to build the table reaches the caller as the accessor's exception, and the next
  // call tries again.
  static GlobalPLXSysAccessor& GetGlobalPLXSysAccessor();

  ~GlobalPLXSysAccessor() override;

 private:
  GlobalPLXSysAccessor() = default;
};

}  // namespace esd

#endif
