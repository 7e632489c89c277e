/* A host application written in C: includes the public header, links libVantuUpdater.so and
 * calls every export with an argument it refuses before touching any file (it runs against the
 * real machine). Exits 0 when every answer is the documented one. */
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>

#include <VantuUpdater/VantuUpdater.h>

int main(void) {
  const unsigned char* name = (const unsigned char*)"C Host";
  const unsigned char* path = (const unsigned char*)"/opt/c-host";
  bool available = false;
  ROZMissingComptList list = {0, NULL};
  const int32_t enabled = ROZIsUpdateCheckEnabled();
  /* Requests that first ask whether checks are enabled answer 7 when they are not. */
  const int32_t gated = enabled ? kROZResultInvalidArgument : kROZResultUpdateCheckDisabled;
  /* The plug-in action asks whether the updater runs before it checks its argument. */
  const int32_t action = ROZDoPluginAction("");
  const struct {
    const char* what;
    int32_t got, wanted;
  } answers[] = {
      {"ROZGetVersion", ROZGetVersion(), 0x51000006},
      {"ROZIsUpdateCheckEnabled is 0 or 1", enabled == 0 || enabled == 1, 1},
      {"ROZRegisterApplication", ROZRegisterApplication(NULL, name, path),
       kROZResultInvalidArgument},
      {"ROZUnRegisterApplication", ROZUnRegisterApplication(""), kROZResultInvalidArgument},
      {"ROZIsUpdateAvailable", ROZIsUpdateAvailable("org.example.CHost", NULL, path, 1UL,
                                                    &available, false), gated},
      {"ROZTriggerUpdateCheck", ROZTriggerUpdateCheck("org.example.CHost", name,
                                                      (const unsigned char*)"", "en_US",
                                                      kROZTriggerManual, false), gated},
      {"ROZDownloadMissingComponents",
       ROZDownloadMissingComponents("org.example.CHost", NULL, path, "en_US", &list,
                                    kROZDownloadMissingCompTypeDefault, false), gated},
      {"ROZDoPluginAction", enabled && action == kROZResultUpdaterRunning ? gated : action, gated},
  };
  int failures = 0;
  for (size_t i = 0; i < sizeof answers / sizeof answers[0]; ++i) {
    if (answers[i].got == answers[i].wanted) continue;
    fprintf(stderr, "%s: got %d, wanted %d\n", answers[i].what, (int)answers[i].got,
            (int)answers[i].wanted);
    ++failures;
  }
  if (failures == 0) printf("C host: every export answered as documented\n");
  return failures == 0 ? 0 : 1;
}
