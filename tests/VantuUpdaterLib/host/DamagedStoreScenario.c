/*
 * A host written in C meets stores damaged by hand: an "Application" without its identifier in
 * the registered-applications store, an entry without "AppID" in the missing-components store.
 * Each call must give its documented result with the host still alive, and a second process must
 * then get each store's lock at once (a host that died holding it would make that process wait
 * out the time-out and fail).
 *
 * Call it as an administrator (supplementary group root), in a private mount namespace where
 * /var/lib, /opt (no updater installed) and the locks are the sandbox's own. It makes the home
 * and runtime folders below sandboxRoot. Returns 0 when every answer is the documented one.
 */
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <VantuUpdater/VantuUpdater.h>

#define STORE_HEAD "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n"
#define GOOD_ID "org.example.DamagedStore"

static int mismatches = 0;

static void Expect(const char* what, int32_t got, int32_t wanted) {
  if (got == wanted) return;
  fprintf(stderr, "%s: got %d, wanted %d\n", what, (int)got, (int)wanted);
  ++mismatches;
}

static bool Plant(const char* path, const char* text) {
  FILE* file = fopen(path, "w");
  return file != NULL && (fputs(text, file) >= 0) + (fclose(file) == 0) == 2;
}

static double Seconds(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

static int32_t Download(const char* appID) {
  ROZMissingComponent component = {(char*)"Dictionary", (char*)"Spelling", (char*)"1.0.0.0"};
  ROZMissingComponent* components[1] = {&component};
  ROZMissingComptList list = {1, components};
  return ROZDownloadMissingComponents(appID, (const unsigned char*)"Damaged Store",
                                      (const unsigned char*)"/opt/damaged", "en_US", &list,
                                      kROZDownloadMissingCompTypeDefault, false);
}

/* Runs `call` (0 registers, 1 requests a component) in a new process, which must get the
 * documented result well within the store's lock time-out of two seconds. */
static void ExpectOtherProcessAtOnce(const char* what, int call, int32_t wanted) {
  const double start = Seconds();
  const pid_t child = fork();
  if (child == 0)
    _exit((call == 0 ? ROZRegisterApplication("org.example.Other", (const unsigned char*)"Other",
                                              (const unsigned char*)"/opt/other")
                     : Download("org.example.Other")) != wanted);
  int status = -1;
  if (child < 0 || waitpid(child, &status, 0) != child || status != 0 || Seconds() - start > 1.0) {
    fprintf(stderr, "%s: another process did not get %d at once\n", what, (int)wanted);
    ++mismatches;
  }
}

int RunDamagedStoreScenario(const char* sandboxRoot) {
  char home[4096], run[4096], missing[4160];
  const char* registry = "/var/lib/Vantu/Updater5/VantuESDGlobalApps.xml";
  snprintf(home, sizeof home, "%s/home", sandboxRoot);
  snprintf(run, sizeof run, "%s/run", sandboxRoot);
  snprintf(missing, sizeof missing, "%s/.local/share/Vantu/Updater5/VantuMissingComps.xml", home);
  mkdir(home, 0700);
  mkdir(run, 0700);
  setenv("HOME", home, 1);
  setenv("XDG_RUNTIME_DIR", run, 1);
  unsetenv("XDG_DATA_HOME");

  /* Good calls first make the folders and the stores, as a machine in use has them. */
  Expect("first registration", ROZRegisterApplication(GOOD_ID, (const unsigned char*)"Good",
                                                      (const unsigned char*)"/opt/good"),
         kROZResultOK);
  Expect("first request", Download(GOOD_ID), kROZResultUpdaterUnavailable);

  if (!Plant(registry, STORE_HEAD "<VantuUpdaterRegistrationManager>\n<Application>\n"
                       "<DisplayName>No identifier</DisplayName>\n<InstallPath>/opt/x</InstallPath>\n"
                       "</Application>\n</VantuUpdaterRegistrationManager>\n") ||
      !Plant(missing, STORE_HEAD "<VantuUpdaterMissingCompsManager>\n"
                      "<VantuUpdaterMissingCompsApp OperationType=\"0\" RedoCFU=\"1\">\n"
                      "<DisplayName>No identifier</DisplayName>\n<InstallPath>/opt/x</InstallPath>\n"
                      "</VantuUpdaterMissingCompsApp>\n</VantuUpdaterMissingCompsManager>\n")) {
    fprintf(stderr, "cannot plant the damaged stores\n");
    return 1;
  }
  Expect("unregistering from a damaged store", ROZUnRegisterApplication(GOOD_ID),
         kROZResultNotRegistered);
  ExpectOtherProcessAtOnce("registering after it", 0, kROZResultOK);
  Expect("requesting from a damaged store", Download(GOOD_ID), kROZResultUpdaterUnavailable);
  ExpectOtherProcessAtOnce("requesting after it", 1, kROZResultUpdaterUnavailable);

  if (mismatches == 0) printf("C host: damaged stores answered as documented\n");
  return mismatches == 0 ? 0 : 1;
}
