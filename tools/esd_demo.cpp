// Shows what the library can do so far.
#include <cstdio>
#include <string>

#include "xplat/FormatString.h"

int main() {
  std::string line;
  esd::FormatString(line, "%0 %1.%2.%3", std::string("Vantu Updater"), 5, 0, 0);
  std::printf("%s\n", line.c_str());
  return 0;
}
