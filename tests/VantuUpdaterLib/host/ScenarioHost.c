/* A host written in C meets damaged files and hostile arguments: ScenarioHost NAME SANDBOX_ROOT,
 * run by RunInSandbox.sh in a private mount namespace (/var/lib, /opt without updater, and the
 * locks are the sandbox's own). Each call must give its documented result with the host alive,
 * and a second process must then make a call needing the same lock without waiting out its
 * time-out (as it would after a host that died holding it). Exits 0 when every answer was right.
 *   damaged-store  (root) registered-applications and missing-components entries without their
 *                  identifiers
 *   hostile-input  (an ordinary administrator, for whom read-only files are read-only) a version
 *                  that does not parse, and damaged preferences that can be neither read nor
 *                  replaced */
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
#define APP_ID "org.example.Scenario"

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

static int32_t Register(void) {
  return ROZRegisterApplication("org.example.Other", (const unsigned char*)"Other",
                                (const unsigned char*)"/opt/other");
}

static int32_t DownloadVersion(const char* appID, const char* version) {
  ROZMissingComponent component = {(char*)"Dictionary", (char*)"Spelling", (char*)version};
  ROZMissingComponent* components[1] = {&component};
  ROZMissingComptList list = {1, components};
  return ROZDownloadMissingComponents(appID, (const unsigned char*)"Scenario",
                                      (const unsigned char*)"/opt/scenario", "en_US", &list,
                                      kROZDownloadMissingCompTypeDefault, false);
}

static int32_t DownloadForOther(void) { return DownloadVersion("org.example.Other", "1.0.0.0"); }

static int32_t TriggerForEveryApplication(void) {
  return ROZTriggerUpdateCheck(NULL, (const unsigned char*)"Scenario",
                               (const unsigned char*)"/opt/scenario", "en_US", kROZTriggerManual,
                               false);
}

/* Runs `call` in a new process, which must get `wanted` well within the locks' time-outs of two
 * and three seconds. */
static void ExpectOtherProcessAtOnce(const char* what, int32_t (*call)(void), int32_t wanted) {
  const double start = Seconds();
  const pid_t child = fork();
  if (child == 0) _exit(call() != wanted);
  int status = -1;
  if (child < 0 || waitpid(child, &status, 0) != child || status != 0 || Seconds() - start > 1.0) {
    fprintf(stderr, "%s: another process did not get %d at once\n", what, (int)wanted);
    ++mismatches;
  }
}

static int DamagedStores(const char* home) {
  char missing[4160];
  snprintf(missing, sizeof missing, "%s/.local/share/Vantu/Updater5/VantuMissingComps.xml", home);
  /* Good calls first make the folders and the stores, as a machine in use has them. */
  Expect("first registration", ROZRegisterApplication(APP_ID, (const unsigned char*)"Good",
                                                      (const unsigned char*)"/opt/good"),
         kROZResultOK);
  Expect("first request", DownloadVersion(APP_ID, "1.0.0.0"), kROZResultUpdaterUnavailable);

  if (!Plant("/var/lib/Vantu/Updater5/VantuESDGlobalApps.xml",
             STORE_HEAD "<VantuUpdaterRegistrationManager>\n<Application>\n"
                        "<DisplayName>No identifier</DisplayName>\n<InstallPath>/opt/x</InstallPath>\n"
                        "</Application>\n</VantuUpdaterRegistrationManager>\n") ||
      !Plant(missing, STORE_HEAD "<VantuUpdaterMissingCompsManager>\n"
                      "<VantuUpdaterMissingCompsApp OperationType=\"0\" RedoCFU=\"1\">\n"
                      "<DisplayName>No identifier</DisplayName>\n<InstallPath>/opt/x</InstallPath>\n"
                      "</VantuUpdaterMissingCompsApp>\n</VantuUpdaterMissingCompsManager>\n")) {
    fprintf(stderr, "cannot plant the damaged stores\n");
    return 1;
  }
  Expect("unregistering from a damaged store", ROZUnRegisterApplication(APP_ID),
         kROZResultNotRegistered);
  ExpectOtherProcessAtOnce("registering after it", Register, kROZResultOK);
  Expect("requesting from a damaged store", DownloadVersion(APP_ID, "1.0.0.0"),
         kROZResultUpdaterUnavailable);
  ExpectOtherProcessAtOnce("requesting after it", DownloadForOther, kROZResultUpdaterUnavailable);
  return 0;
}

static int HostileInput(const char* home) {
  char data[4160], prefs[4200];
  snprintf(data, sizeof data, "%s/.local/share/Vantu/Updater5", home);
  snprintf(prefs, sizeof prefs, "%s/VantuUpdaterPrefs.dat", data);
  /* No updater is installed: a recorded request answers 2. */
  Expect("a good request", DownloadVersion(APP_ID, "1.0.0.0"), kROZResultUpdaterUnavailable);
  Expect("a version that does not parse", DownloadVersion(APP_ID, "1..2"),
         kROZResultMissingCompsStoreFailed);
  ExpectOtherProcessAtOnce("requesting after it", DownloadForOther, kROZResultUpdaterUnavailable);

  if (!Plant(prefs, "<?xml version=\"1.0\"?><Settings><unclosed>") || chmod(prefs, 0444) != 0 ||
      chmod(data, 0555) != 0) {
    fprintf(stderr, "cannot plant the damaged preferences\n");
    return 1;
  }
  Expect("a check with damaged preferences", TriggerForEveryApplication(),
         kROZResultUpdaterUnavailable);
  ExpectOtherProcessAtOnce("checking after it", TriggerForEveryApplication,
                           kROZResultUpdaterUnavailable);
  chmod(data, 0700);
  return 0;
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  int (*scenario)(const char*) = strcmp(argv[1], "damaged-store") == 0   ? DamagedStores
                                 : strcmp(argv[1], "hostile-input") == 0 ? HostileInput
                                                                         : NULL;
  if (scenario == NULL) return 2;
  char home[4096], run[4096];
  snprintf(home, sizeof home, "%s/home", argv[2]);
  snprintf(run, sizeof run, "%s/run", argv[2]);
  mkdir(home, 0700);
  mkdir(run, 0700);
  setenv("HOME", home, 1);
  setenv("XDG_RUNTIME_DIR", run, 1);
  unsetenv("XDG_DATA_HOME");
  if (scenario(home) != 0) return 1;
  if (mismatches == 0) printf("C host: %s answered as documented\n", argv[1]);
  return mismatches == 0 ? 0 : 1;
}
