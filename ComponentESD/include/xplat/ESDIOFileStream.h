#ifndef ESD_XPLAT_ESDIOFILESTREAM_H
#define ESD_XPLAT_ESDIOFILESTREAM_H

// File streams owned through a heap pointer, so that a class can hold one whose type does not
// depend on how it was opened. The C mode string ("rb", "wb") travels with the open mode for the
// record only; the open mode decides. A stream that failed to open still exists: check
// GetStream().is_open() (or the stream state) before reading or writing.

#include <fstream>
#include <ios>
#include <string>

class ESDifstream {
 public:
  ESDifstream(const std::string& path, const char* cMode = "rb",
              std::ios::openmode mode = std::ios::in | std::ios::binary);
  virtual ~ESDifstream();
  ESDifstream(const ESDifstream&) = delete;
  ESDifstream& operator=(const ESDifstream&) = delete;

  // The open stream; asserts that it exists.
  std::ifstream& GetStream();
  const std::string& GetMode() const { return mMode; }

 private:
  std::ifstream* mStream;
  std::string mMode;
};

class ESDofstream {
 public:
  ESDofstream(const std::string& path, const char* cMode = "wb",
              std::ios::openmode mode = std::ios::out | std::ios::trunc | std::ios::binary);
  // Closes (flushes) the stream; whether that write succeeded is lost here, so callers that must
  // know close through GetStream().close() and check the state first.
  virtual ~ESDofstream();
  ESDofstream(const ESDofstream&) = delete;
  ESDofstream& operator=(const ESDofstream&) = delete;

  std::ofstream& GetStream();
  const std::string& GetMode() const { return mMode; }

 private:
  std::ofstream* mStream;
  std::string mMode;
};

#endif
