#include "support/SemaphoreGuard.h"

#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <utility>

#include "xplat/ResourceLocker.h"

namespace testing_support {

SemaphoreGuard::SemaphoreGuard(std::string resourceName) : mResourceName(std::move(resourceName)) {}

SemaphoreGuard::~SemaphoreGuard() {
  sem_unlink(esd::ResourceLocker::GetSemaphoreName(mResourceName).c_str());
}

std::string UniqueResourceName(const std::string& tag) {
  static std::atomic<unsigned> counter{0};
  return "/tmp/esd-lock-test/" + std::to_string(getpid()) + "-" + std::to_string(++counter) +
         "/" + tag;
}

std::string SemaphoreFilePath(const std::string& resourceName) {
  return "/dev/shm/sem." + esd::ResourceLocker::GetSemaphoreName(resourceName).substr(1);
}

bool SemaphoreExists(const std::string& resourceName) {
  struct stat info {};
  return stat(SemaphoreFilePath(resourceName).c_str(), &info) == 0;
}

}  // namespace testing_support
