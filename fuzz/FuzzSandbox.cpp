#include "FuzzSandbox.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "xplat/JournaledXMLFile.h"

namespace fuzzing {

FuzzSandbox& FuzzSandbox::Get() {
  static FuzzSandbox sandbox;
  return sandbox;
}

FuzzSandbox::FuzzSandbox() : mRoot(mTemp / "root"), mHome(mTemp / "home"), mScope(&mEnv) {
  mEnv.SetRoot(mRoot);
  mEnv.SetHome(mHome);
  // The folders a machine always has; the library makes the rest itself when it needs them.
  for (const std::string& folder : {mRoot, mRoot + "/etc", mHome})
    Check(mkdir(folder.c_str(), 0755) == 0, "the sandbox folders can be made");
  // The user's runtime folder, where the per-user locks live: the user's own, mode 0700.
  const std::string runtime = mTemp / "run";
  Check(mkdir(runtime.c_str(), 0700) == 0, "the runtime folder can be made");
  mEnv.SetVariable("XDG_RUNTIME_DIR", runtime);
}

bool ParseBytes(esd::ExpatDOMBuilder<esd::XMLDocumentNode>& builder, const std::string& bytes) {
  Check(builder.Create(nullptr, nullptr), "a parser can be made");
  void* buffer = builder.GetBuffer(static_cast<int>(bytes.size()));
  if (!buffer) return false;
  if (!bytes.empty()) std::memcpy(buffer, bytes.data(), bytes.size());
  return builder.ParseBuffer(static_cast<int>(bytes.size()), true);
}

std::optional<std::string> ReadIfPresent(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

StoreInput PlantStore(const uint8_t* data, std::size_t size, const std::string& path) {
  std::string journalPath;
  JournaledXMLFile::GetJournalPath(path, journalPath);
  StoreInput input;
  const std::string bytes = AsText(data, size);
  const std::size_t split = bytes.find('\0');
  input.file = bytes.substr(0, split);
  if (split != std::string::npos) input.journal = bytes.substr(split + 1);
  testing_support::WriteFile(path, input.file);
  std::remove(journalPath.c_str());
  if (input.journal) testing_support::WriteFile(journalPath, *input.journal);
  const bool journalWins =
      input.journal && esd::ExpatDOMBuilder<esd::XMLDocumentNode>::IsWellFormed(
                           input.journal->data(), input.journal->size());
  input.effective = journalWins ? *input.journal : input.file;
  return input;
}

std::string AsReadBackText(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\r') {
      out += text[i];
    } else {
      out += '\n';
      if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
    }
  }
  return out;
}

std::string AsReadBackAttribute(const std::string& value) {
  std::string out = AsReadBackText(value);
  for (char& c : out) {
    if (c == '\t' || c == '\n') c = ' ';
  }
  return out;
}

void Check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "fuzz property violated: %s\n", what);
  std::abort();
}

}  // namespace fuzzing
