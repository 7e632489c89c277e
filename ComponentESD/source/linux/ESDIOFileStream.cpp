#include "xplat/ESDIOFileStream.h"

#include "xplat/ESDAssert.h"

ESDifstream::ESDifstream(const std::string& path, const char* cMode, std::ios::openmode mode)
    : mStream(new std::ifstream(path.c_str(), mode)), mMode(cMode != nullptr ? cMode : "") {}

ESDifstream::~ESDifstream() { delete mStream; }

std::ifstream& ESDifstream::GetStream() {
  ESD_ASSERT(mStream != NULL);
  return *mStream;
}

ESDofstream::ESDofstream(const std::string& path, const char* cMode, std::ios::openmode mode)
    : mStream(new std::ofstream(path.c_str(), mode)), mMode(cMode != nullptr ? cMode : "") {}

ESDofstream::~ESDofstream() { delete mStream; }

std::ofstream& ESDofstream::GetStream() {
  ESD_ASSERT(mStream != NULL);
  return *mStream;
}
