#ifndef ROZCTL_LOCKINSPECTION_H
#define ROZCTL_LOCKINSPECTION_H

#include <string>
#include <vector>

namespace rozctl {

// One lock as `rozctl locks` sees it, for the doctor.
struct LockState {
  std::string label;     // the name break-lock takes
  bool held = false;     // someone holds it now
  std::string holder;    // who, when that can be told; else empty
  std::string leftover;  // a lock object of an older version's kind still present; else empty
};

// Every lock `rozctl locks` lists, without taking any.
std::vector<LockState> InspectLocks();

}  // namespace rozctl

#endif
