/*
 * A sample host application, written in C against the public header and linked against the
 * shared library like any host. It walks through every exported function once and shows, from
 * the updater's log, what the updater did in answer. Run by tools/demo/run-demo.sh in a sandbox
 * with the reference updater installed; run alone it would work on the real machine.
 *
 * usage: demo_host UPDATER-LOG
 * Exits 1 when a call gives another result than expected or the updater does not answer.
 */
#define _POSIX_C_SOURCE 200809L

#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "VantuUpdater/VantuUpdater.h"

static const char kAppID[] = "com.example.DemoHost";
static const unsigned char kName[] = "Demo Host";
static const unsigned char kPath[] = "/opt/DemoHost";
/* How long the updater may take for one piece of work, in seconds. */
static const int kUpdaterTimeout = 20;

static const char* gLogPath;
static long gLogOffset; /* what of the log has been shown */
static int gFailures;
static int gStep;

static const char* ResultName(int32_t code) {
  switch (code) {
    case kROZResultOK: return "kROZResultOK";
    case kROZResultMissingCompsStoreFailed: return "kROZResultMissingCompsStoreFailed";
    case kROZResultUpdaterUnavailable: return "kROZResultUpdaterUnavailable";
    case kROZResultInvalidArgument: return "kROZResultInvalidArgument";
    case kROZResultRegistryUnusable: return "kROZResultRegistryUnusable";
    case kROZResultRegistryNotUpdated: return "kROZResultRegistryNotUpdated";
    case kROZResultNotRegistered: return "kROZResultNotRegistered";
    case kROZResultUpdateCheckDisabled: return "kROZResultUpdateCheckDisabled";
    case kROZResultAnswerPending: return "kROZResultAnswerPending";
    case kROZResultAlreadyRequested: return "kROZResultAlreadyRequested";
    case kROZResultUpdaterRunning: return "kROZResultUpdaterRunning";
  }
  return "unknown result";
}

static void Step(const char* what) { printf("\n%d. %s\n", ++gStep, what); }

static void Expect(const char* call, int32_t code, int32_t expected) {
  printf("   %s -> %d %s\n", call, code, ResultName(code));
  if (code != expected) {
    printf("   UNEXPECTED: wanted %d %s\n", expected, ResultName(expected));
    ++gFailures;
  }
}

static void Sleep(long milliseconds) {
  struct timespec pause = {milliseconds / 1000, (milliseconds % 1000) * 1000000L};
  nanosleep(&pause, NULL);
}

/* Shows the updater's new log lines (the text after "]: ", leaving out its start and end) until
 * one contains `until` ("done": until a copy of the updater ended); false when none did within
 * the time-out. Only whole lines are read, so
 * a line being written is picked up on the next round. */
static bool ShowUpdaterUntil(const char* until) {
  char line[4096];
  for (int round = 0; round < kUpdaterTimeout * 20; ++round) {
    FILE* log = fopen(gLogPath, "r");
    if (log != NULL && fseek(log, gLogOffset, SEEK_SET) == 0) {
      while (fgets(line, sizeof line, log) != NULL && strchr(line, '\n') != NULL) {
        gLogOffset = ftell(log);
        const char* text = strstr(line, "]: ");
        text = text ? text + 3 : line;
        const bool found = strcmp(until, "done") == 0 ? strcmp(text, "done\n") == 0
                                                      : strstr(text, until) != NULL;
        if (strncmp(text, "started", 7) != 0 && strcmp(text, "done\n") != 0)
          printf("   updater: %s", text);
        if (found) {
          fclose(log);
          return true;
        }
      }
    }
    if (log != NULL) fclose(log);
    Sleep(50);
  }
  printf("   UNEXPECTED: the updater did not report \"%s\" within %d seconds\n", until,
         kUpdaterTimeout);
  ++gFailures;
  return false;
}

static void UpdaterRuns(void) { ShowUpdaterUntil("done"); }

static void RequestMissing(ROZMissingComponent* components, uint32_t count) {
  ROZMissingComponent* list[4];
  for (uint32_t i = 0; i < count; ++i) list[i] = &components[i];
  ROZMissingComptList request = {count, list};
  Expect("ROZDownloadMissingComponents(...)",
         ROZDownloadMissingComponents(kAppID, kName, kPath, "en_US", &request,
                                      kROZDownloadMissingCompTypeDefault, true),
         kROZResultOK);
}

static int Report(void) {
  if (gFailures != 0) {
    printf("\n%d unexpected result(s)\n", gFailures);
    return 1;
  }
  printf("\nEvery call gave the expected result.\n");
  return 0;
}

/* The same host run by a user outside the update group: the machine-wide store is not theirs
 * to change, and they are no administrator. */
static int RunOutsideTheGroup(void) {
  Step("Register with the updater, as a user outside the update group");
  Expect("ROZRegisterApplication(\"com.example.DemoHost\", \"Demo Host\", \"/opt/DemoHost\")",
         ROZRegisterApplication(kAppID, kName, kPath), kROZResultRegistryUnusable);
  printf("   (only members of the folder's group may change the registered applications)\n");
  Step("Are update checks enabled? (no: not an administrator)");
  const int32_t enabled = ROZIsUpdateCheckEnabled();
  printf("   ROZIsUpdateCheckEnabled() -> %d\n", enabled);
  if (enabled != 0) {
    printf("   UNEXPECTED: wanted 0\n");
    ++gFailures;
  }
  return Report();
}

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  if (argc == 2 && strcmp(argv[1], "--outside-group") == 0) return RunOutsideTheGroup();
  if (argc != 2) {
    fprintf(stderr, "usage: demo_host UPDATER-LOG | demo_host --outside-group\n");
    return 2;
  }
  gLogPath = argv[1];
  FILE* existing = fopen(gLogPath, "r");
  if (existing != NULL) {
    fseek(existing, 0, SEEK_END);
    gLogOffset = ftell(existing);
    fclose(existing);
  }

  const uint32_t version = (uint32_t)ROZGetVersion();
  printf("Demo Host, using the Vantu Updater library %u.%u.%u.%u (ROZGetVersion() = 0x%08X)\n",
         version >> 28, (version >> 24) & 0xF, (version >> 20) & 0xF, version & 0xFFFFF,
         version);

  Step("Register with the updater");
  Expect("ROZRegisterApplication(\"com.example.DemoHost\", \"Demo Host\", \"/opt/DemoHost\")",
         ROZRegisterApplication(kAppID, kName, kPath), kROZResultOK);

  Step("Are update checks enabled? (yes: the demo runs as an administrator)");
  const int32_t enabled = ROZIsUpdateCheckEnabled();
  printf("   ROZIsUpdateCheckEnabled() -> %d\n", enabled);
  if (enabled != 1) {
    printf("   UNEXPECTED: wanted 1\n");
    ++gFailures;
  }

  Step("Is an update available? The first question starts the updater to find out");
  bool available = false;
  Expect("ROZIsUpdateAvailable(..., request 1)",
         ROZIsUpdateAvailable(kAppID, kName, kPath, 1, &available, true), kROZResultAnswerPending);
  UpdaterRuns();

  Step("Ask again with the same request number: the updater's answer is read");
  available = false;
  Expect("ROZIsUpdateAvailable(..., request 1)",
         ROZIsUpdateAvailable(kAppID, kName, kPath, 1, &available, true), kROZResultOK);
  printf("   update available: %s\n", available ? "yes" : "no");
  if (!available) {
    printf("   UNEXPECTED: the catalogue lists an update for %s\n", kAppID);
    ++gFailures;
  }

  Step("Run the action the updater prepared (allowed: no update check was made this week)");
  Expect("ROZDoPluginAction(\"com.example.DemoHost\")", ROZDoPluginAction(kAppID), kROZResultOK);
  UpdaterRuns();

  Step("Two components are missing: the updater is started to fetch them");
  ROZMissingComponent first[] = {{"fonts", "Serif", "1.0"}, {"dictionaries", "en_GB", "2.1"}};
  RequestMissing(first, 2);
  ShowUpdaterUntil("listening for express downloads");

  Step("One more is missing while the updater runs: it is signalled instead (express download)");
  ROZMissingComponent second[] = {{"templates", "Letters", "3.0"}};
  RequestMissing(second, 1);
  ShowUpdaterUntil("express download:");
  printf("   (the updater stops after five quiet seconds)\n");
  UpdaterRuns();

  Step("A scheduled update check: due, since no check has been made yet");
  Expect("ROZTriggerUpdateCheck(..., kROZTriggerScheduled)",
         ROZTriggerUpdateCheck(kAppID, kName, kPath, "en_US", kROZTriggerScheduled, true),
         kROZResultOK);
  UpdaterRuns();

  Step("The user asks for an update check");
  Expect("ROZTriggerUpdateCheck(..., kROZTriggerManual)",
         ROZTriggerUpdateCheck(kAppID, kName, kPath, "en_US", kROZTriggerManual, true),
         kROZResultOK);
  UpdaterRuns();

  Step("Unregister: the last application gone, the updater is started to clean up");
  Expect("ROZUnRegisterApplication(\"com.example.DemoHost\")", ROZUnRegisterApplication(kAppID),
         kROZResultOK);
  UpdaterRuns();
  return Report();
}
