#include "xplat/FileSystemVersion.h"

#include <functional>
#include <istream>
#include <ostream>
#include <stdexcept>

#include "xplat/ChangeDiffType.h"

static_assert(sizeof(int) == sizeof(std::int32_t), "components are parsed as int");

FileSystemVersion::FileSystemVersion(const std::string& text) : versionComps(4, 0) {
  if (!ParseVersionString(text, *this)) throw std::runtime_error("Unable to parse version");
}

bool FileSystemVersion::ParseVersionString(const std::string& text, FileSystemVersion& outVersion) {
  ESD_ASSERT(4 == outVersion.versionComps.size());
  for (std::int32_t& component : outVersion.versionComps) component = 0;

  std::size_t position = 0;
  std::size_t index = 0;
  for (;;) {
    const std::size_t delimiter = text.find_first_of(kFileVersionDelims, position);
    int value = 0;
    if (delimiter == std::string::npos) {
      if (!esd::ChangeDiffTypeImpl<std::string, int>::ChangeType(text.substr(position), value))
        return true;
      if (index >= 4) return false;
      outVersion.versionComps[index] = value;
      return true;
    }
    if (!esd::ChangeDiffTypeImpl<std::string, int>::ChangeType(
            text.substr(position, delimiter - position), value))
      return false;
    if (index >= 4) return false;
    outVersion.versionComps[index++] = value;
    position = delimiter + 1;
  }
}

std::string FileSystemVersion::ToString() const {
  ESD_ASSERT(4 == versionComps.size());
  std::string text;
  for (std::size_t i = 0; i < 4; ++i) {
    if (i != 0) text += '.';
    text += std::to_string(versionComps[i]);
  }
  return text;
}

bool FileSystemVersion::operator==(const FileSystemVersion& other) const {
  return Compare(*this, other, std::equal_to<int>());
}

std::ostream& operator<<(std::ostream& stream, const FileSystemVersion& version) {
  return stream << version.ToString();
}

std::istream& operator>>(std::istream& stream, FileSystemVersion& version) {
  std::string word;
  if (stream >> word) FileSystemVersion::ParseVersionString(word, version);
  return stream;
}
