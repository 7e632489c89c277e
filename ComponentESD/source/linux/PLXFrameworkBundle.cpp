#include "xplat/PLXFrameworkBundle.h"

#include <dlfcn.h>
#include <gnu/lib-names.h>

#include <cstring>
#include <stdexcept>

#include "xplat/ESDAssert.h"

namespace esd {

namespace {

// Linux has no framework folder; the framework that carries the C library is the C library.
const char* LibraryForFramework(const char* frameworkName) {
  if (frameworkName != nullptr && std::strcmp(frameworkName, "System.framework") == 0) {
    return LIBC_SO;
  }
  return frameworkName;
}

}  // namespace

PLXFrameworkBundle::PLXFrameworkBundle(const char* frameworkName) : mBundleRef(nullptr) {
  const char* library = LibraryForFramework(frameworkName);
  // A null or empty name would make dlopen hand back the main program, which is no bundle.
  if (library == nullptr || library[0] == '\0') throw std::runtime_error("unable to load bundle");
  // RTLD_LOCAL keeps a non-system library's names out of the process's global namespace.
  mBundleRef = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  if (mBundleRef == nullptr) throw std::runtime_error("unable to load bundle");
}

PLXFrameworkBundle::~PLXFrameworkBundle() {
  ESD_ASSERT(mBundleRef);
  dlclose(mBundleRef);
}

void* PLXFrameworkBundle::GetFunctionPointerForName(const char* inFunctionName) {
  ESD_ASSERT(inFunctionName);
  ESD_ASSERT(mBundleRef);
  return dlsym(mBundleRef, inFunctionName);
}

}  // namespace esd
