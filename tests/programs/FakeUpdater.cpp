// A stand-in for the updater in the launch and process tests, installed as the program of a test
// bundle, <bundle>/Contents/MacOS/<name>. It writes <bundle>/Contents/reports/<pid>.report
// (atomically): "pid=", "sid=", "stdin=" (the target of fd 0), "fd:N" per open descriptor above
// the standard three, "env:NAME=VALUE" per environment entry. With FAKE_UPDATER_EXIT=N it then
// exits with N. With FAKE_UPDATER_CHILD=PROGRAM it runs PROGRAM [FAKE_UPDATER_CHILD_ARG] as its
// child and writes its exit status to reports/<pid>.child. It runs until <bundle>/Contents/stop
// exists, at most a minute, so a test that dies leaves nothing behind.
#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

extern char** environ;

namespace {

std::string ReadLink(const char* link) {
  char buffer[4096];
  ssize_t length = readlink(link, buffer, sizeof buffer - 1);
  return length < 0 ? std::string() : std::string(buffer, static_cast<size_t>(length));
}

std::string Parent(const std::string& path) { return path.substr(0, path.rfind('/')); }

bool WriteAtomically(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".tmp";
  std::FILE* out = std::fopen(temporary.c_str(), "w");
  if (!out) return false;
  std::fputs(text.c_str(), out);
  if (std::fclose(out) != 0) return false;
  return std::rename(temporary.c_str(), path.c_str()) == 0;
}

}  // namespace

int main() {
  const std::string contents = Parent(Parent(ReadLink("/proc/self/exe")));
  const std::string reports = contents + "/reports";
  const std::string self = std::to_string(getpid());

  std::string report = "pid=" + self + "\nsid=" + std::to_string(getsid(0)) +
                       "\nstdin=" + ReadLink("/proc/self/fd/0") + "\n";
  if (DIR* fds = opendir("/proc/self/fd")) {
    while (dirent* entry = readdir(fds)) {
      const int fd = std::atoi(entry->d_name);
      if (fd > 2 && fd != dirfd(fds)) report += "fd:" + std::to_string(fd) + "\n";
    }
    closedir(fds);
  }
  for (char** entry = environ; *entry; ++entry) report += std::string("env:") + *entry + "\n";
  if (!WriteAtomically(reports + "/" + self + ".report", report)) return 90;

  if (const char* code = std::getenv("FAKE_UPDATER_EXIT")) return std::atoi(code);

  if (const char* child = std::getenv("FAKE_UPDATER_CHILD")) {
    const char* argument = std::getenv("FAKE_UPDATER_CHILD_ARG");
    pid_t pid = fork();
    if (pid == 0) {
      execl(child, child, argument ? argument : static_cast<char*>(nullptr),
            static_cast<char*>(nullptr));
      _exit(127);
    }
    int status = 0;
    if (pid > 0) waitpid(pid, &status, 0);
    const int exitCode = pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    WriteAtomically(reports + "/" + self + ".child", std::to_string(exitCode) + "\n");
  }

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (access((contents + "/stop").c_str(), F_OK) != 0 &&
         std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return 0;
}
