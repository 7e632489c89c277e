/* Runs the damaged-store scenario on its own: DamagedStoreHost SANDBOX_ROOT (see RunInSandbox.sh). */
int RunDamagedStoreScenario(const char* sandboxRoot);

int main(int argc, char** argv) { return argc == 2 ? RunDamagedStoreScenario(argv[1]) : 2; }
