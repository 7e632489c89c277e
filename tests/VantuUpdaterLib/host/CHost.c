/* A host application written in C: includes the public header, links libVantuUpdater.so and
 * calls every export with answers the library gives before touching any file (it runs against
 * the real machine). Exits 0 when every answer is the documented one. */
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <VantuUpdater/VantuUpdater.h>

static int failures = 0;

static void Expect(const char* what, int32_t got, int32_t wanted) {
  if (got == wanted) return;
  fprintf(stderr, "%s: got %d, wanted %d\n", what, (int)got, (int)wanted);
  ++failures;
}

int main(void) {
  static unsigned char longName[514]; /* one byte over the limit */
  const unsigned char* name = (const unsigned char*)"C Host";
  const unsigned char* path = (const unsigned char*)"/opt/c-host";
  bool available = false;
  ROZMissingComponent component = {(char*)"fonts", (char*)"Serif", (char*)"1.0.0.0"};
  ROZMissingComponent* components[1] = {&component};
  ROZMissingComptList list = {1, components};
  const int32_t enabled = ROZIsUpdateCheckEnabled();
  /* Requests that first ask whether checks are enabled answer 7 when they are not. */
  const int32_t gated = enabled ? kROZResultInvalidArgument : kROZResultUpdateCheckDisabled;
  int32_t action;

  memset(longName, 'n', 513);
  Expect("ROZGetVersion", ROZGetVersion(), 0x51000006);
  Expect("ROZIsUpdateCheckEnabled is 0 or 1", enabled == 0 || enabled == 1, 1);
  Expect("ROZRegisterApplication", ROZRegisterApplication(NULL, name, path),
         kROZResultInvalidArgument);
  Expect("ROZUnRegisterApplication", ROZUnRegisterApplication(""), kROZResultInvalidArgument);
  Expect("ROZIsUpdateAvailable",
         ROZIsUpdateAvailable("org.example.CHost", longName, path, 1UL, &available, false), gated);
  Expect("ROZTriggerUpdateCheck",
         ROZTriggerUpdateCheck("org.example.CHost", name, (const unsigned char*)"", "en_US",
                               kROZTriggerManual, false),
         gated);
  Expect("ROZDownloadMissingComponents",
         ROZDownloadMissingComponents("org.example.CHost", NULL, path, "en_US", &list,
                                      kROZDownloadMissingCompTypeDefault, false),
         gated);
  /* The plug-in action asks whether the updater runs before it checks its argument. */
  action = ROZDoPluginAction("");
  Expect("ROZDoPluginAction", enabled && action == kROZResultUpdaterRunning ? gated : action,
         gated);

  if (failures == 0) printf("C host: every export answered as documented\n");
  return failures == 0 ? 0 : 1;
}
