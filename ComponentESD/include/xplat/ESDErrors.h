#ifndef ESD_XPLAT_ESDERRORS_H
#define ESD_XPLAT_ESDERRORS_H

// Error codes that lower layers may format into messages; printed as their integer value.
enum ESD_error_code : int {
  kESDNoError = 0,
  kESDGenericError = -1,
};

#endif
