#ifndef VANTUUPDATERLIB_CONTAINED_H
#define VANTUUPDATERLIB_CONTAINED_H

#include <cxxabi.h>

#include <utility>

// Runs `call` and gives `failure` when it throws (memory running out, a file a step could not
// use). Hosts are mostly written in C, where an exception reaching a C frame ends the process
// without unwinding and leaves every lock it held behind; caught here, the lock scopes inside
// release them on the way out. A thread being cancelled still unwinds.
template <class Call>
auto Contained(decltype(std::declval<Call&>()()) failure, Call call) -> decltype(call()) {
  try {
    return call();
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (...) {
    return failure;
  }
}

#endif
