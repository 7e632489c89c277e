#ifndef FUZZ_FUZZSANDBOX_H
#define FUZZ_FUZZSANDBOX_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "support/TempDir.h"
#include "support/TestEnv.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/ScopedEnv.h"

namespace fuzzing {

// A private machine shared by every input of one fuzzing process: a relocated root and home in
// a temporary folder, installed as the library's Env until the process exits, so that the
// stores, the preferences and the policy read and write only below it.
class FuzzSandbox {
 public:
  // Made on first use; the folder is removed at exit (not after a crash, which leaves it for
  // the post-mortem).
  static FuzzSandbox& Get();

  const std::string& Root() const { return mRoot; }
  const std::string& Home() const { return mHome; }
  testing_support::TestEnv& Env() { return mEnv; }

  FuzzSandbox(const FuzzSandbox&) = delete;
  FuzzSandbox& operator=(const FuzzSandbox&) = delete;

 private:
  FuzzSandbox();

  testing_support::TempDir mTemp;
  const std::string mRoot;
  const std::string mHome;
  testing_support::TestEnv mEnv;
  esd::ScopedEnv mScope;
};

// The input as text.
inline std::string AsText(const uint8_t* data, std::size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

// Builds a tree from bytes in memory, in one final chunk, as a fresh Create of `builder`. False
// when the bytes are not a well-formed document.
bool ParseBytes(esd::ExpatDOMBuilder<esd::XMLDocumentNode>& builder, const std::string& bytes);

// The whole content of `path`, or nullopt when it cannot be opened.
std::optional<std::string> ReadIfPresent(const std::string& path);

// A store planted from fuzz input: the bytes up to the first NUL are the store file; the bytes
// after it, when there is one, a journal left by a save cut short. A NUL never occurs in XML, so
// every input still reaches the parser whole when it has none.
struct StoreInput {
  std::string file;
  std::optional<std::string> journal;
  // The text a load works from: a well-formed journal wins over the file.
  std::string effective;
};

// Writes the store file at `path` and its journal (or removes a journal left by the previous
// input).
StoreInput PlantStore(const uint8_t* data, std::size_t size, const std::string& path);

// What text reads back as after the writer has put it out raw and a parser has read it again: a
// carriage return (alone or before a line feed) becomes a line feed in element text, and in an
// attribute value the tab, line feed and carriage return become blanks (a CR LF pair one blank).
// Values loaded from a file that spelled these as character references change so on the next
// save; the stores refuse such values from callers.
std::string AsReadBackText(const std::string& text);
std::string AsReadBackAttribute(const std::string& value);

// Stops the run with a libFuzzer-visible crash and `what` on stderr when `condition` is false:
// the property checks of the targets must fail loudly, not through a test framework.
void Check(bool condition, const char* what);

// The file path a store of type Store works on inside the sandbox, found once.
template <class Store>
const std::string& StorePath() {
  static const std::string path = [] {
    Store store;
    std::string found;
    Check(store.GetXMLFileFullPath(found), "the store has a path");
    return found;
  }();
  return path;
}

}  // namespace fuzzing

#endif
