/* A host written in C that meets one scenario of damaged files or hostile arguments:
 * ScenarioHost NAME SANDBOX_ROOT (see RunInSandbox.sh). Exits 0 when every answer was the
 * documented one. */
#include <string.h>

int RunDamagedStoreScenario(const char* sandboxRoot);
int RunHostileInputScenario(const char* sandboxRoot);

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  if (strcmp(argv[1], "damaged-store") == 0) return RunDamagedStoreScenario(argv[2]);
  if (strcmp(argv[1], "hostile-input") == 0) return RunHostileInputScenario(argv[2]);
  return 2;
}
