#ifndef ESD_XPLAT_PLXFRAMEWORKBUNDLE_H
#define ESD_XPLAT_PLXFRAMEWORKBUNDLE_H

namespace esd {

// One code library loaded at run time, from which functions are looked up by name. The name
// "System.framework" stands for the system C library; any other name is handed to the dynamic
// loader as a library name or path. The library stays loaded for the life of the object.
class PLXFrameworkBundle {
 public:
  // Loads the library; throws std::runtime_error "unable to load bundle" when it cannot.
  explicit PLXFrameworkBundle(const char* frameworkName);
  // Drops this object's reference to the library (the loader unloads it when it was the last).
  virtual ~PLXFrameworkBundle();

  PLXFrameworkBundle(const PLXFrameworkBundle&) = delete;
  PLXFrameworkBundle& operator=(const PLXFrameworkBundle&) = delete;

  // The address of the named function, or null when the library (or a library it depends on)
  // exports no such name. A null name is a programming error.
  void* GetFunctionPointerForName(const char* inFunctionName);

 private:
  void* mBundleRef;  // the loader's handle, never null once constructed
};

}  // namespace esd

#endif
