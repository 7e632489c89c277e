/*
 * A host written in C hands the library input that makes its steps fail inside: a component
 * version that does not parse, and a damaged preferences file it may not replace. Each call must
 * give its documented result with the host still alive, and a second process must then make the
 * same kind of call without waiting for a lock (a host that died holding it would make that
 * process wait out the lock's time-out).
 *
 * Call it as an ordinary administrator (not root, supplementary group root) in a private mount
 * namespace where /var/lib, /opt (no updater installed) and the locks are the sandbox's own. It
 * makes the home and runtime folders below sandboxRoot. Returns 0 when every answer is the
 * documented one.
 */
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <VantuUpdater/VantuUpdater.h>

#define APP_ID "org.example.HostileInput"

static int mismatches = 0;

static void Expect(const char* what, int32_t got, int32_t wanted) {
  if (got == wanted) return;
  fprintf(stderr, "%s: got %d, wanted %d\n", what, (int)got, (int)wanted);
  ++mismatches;
}

static double Seconds(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

static int32_t Download(const char* version) {
  ROZMissingComponent component = {(char*)"Dictionary", (char*)"Spelling", (char*)version};
  ROZMissingComponent* components[1] = {&component};
  ROZMissingComptList list = {1, components};
  return ROZDownloadMissingComponents(APP_ID, (const unsigned char*)"Hostile Input",
                                      (const unsigned char*)"/opt/hostile", "en_US", &list,
                                      kROZDownloadMissingCompTypeDefault, false);
}

static int32_t TriggerForEveryApplication(void) {
  return ROZTriggerUpdateCheck(NULL, (const unsigned char*)"Hostile Input",
                               (const unsigned char*)"/opt/hostile", "en_US", kROZTriggerManual,
                               false);
}

/* Runs `call` (0 requests a good component, 1 triggers a check) in a new process, which must get
 * the documented result well within the locks' time-outs of two and three seconds. */
static void ExpectOtherProcessAtOnce(const char* what, int call, int32_t wanted) {
  const double start = Seconds();
  const pid_t child = fork();
  if (child == 0) _exit((call == 0 ? Download("1.0.0.0") : TriggerForEveryApplication()) != wanted);
  int status = -1;
  if (child < 0 || waitpid(child, &status, 0) != child || status != 0 || Seconds() - start > 1.0) {
    fprintf(stderr, "%s: another process did not get %d at once\n", what, (int)wanted);
    ++mismatches;
  }
}

int RunHostileInputScenario(const char* sandboxRoot) {
  char home[4096], run[4096], data[4160], prefs[4200];
  snprintf(home, sizeof home, "%s/home", sandboxRoot);
  snprintf(run, sizeof run, "%s/run", sandboxRoot);
  snprintf(data, sizeof data, "%s/.local/share/Vantu/Updater5", home);
  snprintf(prefs, sizeof prefs, "%s/VantuUpdaterPrefs.dat", data);
  mkdir(home, 0700);
  mkdir(run, 0700);
  setenv("HOME", home, 1);
  setenv("XDG_RUNTIME_DIR", run, 1);
  unsetenv("XDG_DATA_HOME");

  /* No updater is installed: a recorded request answers 2. */
  Expect("a good request", Download("1.0.0.0"), kROZResultUpdaterUnavailable);
  Expect("a version that does not parse", Download("1..2"), kROZResultMissingCompsStoreFailed);
  ExpectOtherProcessAtOnce("requesting after it", 0, kROZResultUpdaterUnavailable);

  /* Preferences that do not parse, in a folder the host may not change: they can be neither read
   * nor replaced, and the check starts as it would without them. */
  FILE* file = fopen(prefs, "w");
  if (file == NULL || fputs("<?xml version=\"1.0\"?><Settings><unclosed>", file) < 0 ||
      fclose(file) != 0 || chmod(prefs, 0444) != 0 || chmod(data, 0555) != 0) {
    fprintf(stderr, "cannot plant the damaged preferences\n");
    return 1;
  }
  Expect("a check with damaged preferences", TriggerForEveryApplication(),
         kROZResultUpdaterUnavailable);
  ExpectOtherProcessAtOnce("checking after it", 1, kROZResultUpdaterUnavailable);
  chmod(data, 0700);

  if (mismatches == 0) printf("C host: hostile input answered as documented\n");
  return mismatches == 0 ? 0 : 1;
}
