#ifndef ESD_XPLAT_ESDASSERT_H
#define ESD_XPLAT_ESDASSERT_H

// Programming errors end the process with a fixed, greppable line on standard error:
//   <source file>:<line>: failed assertion `<condition text>'
// The condition text is the asserted expression exactly as written, so the expressions in the
// code are part of the contract and must not be reworded.

namespace esd {

[[noreturn]] void AssertionFailed(const char* file, unsigned line, const char* condition);

}  // namespace esd

#define ESD_ASSERT(cond) \
  ((cond) ? static_cast<void>(0) : ::esd::AssertionFailed(__FILE__, __LINE__, #cond))

// For an unconditional failure whose text is given literally.
#define ESD_ASSERT_FAIL(text) ::esd::AssertionFailed(__FILE__, __LINE__, text)

#endif
