// The reliability harnesses, short: the concurrency torture for a few seconds (`make torture`
// runs it for thirty) as one user and as three administrators sharing the machine-wide store,
// and the crash harness at its full count of kills (under a minute on a disk with a few
// milliseconds per sync). Each prints its figures and fails on any call that gave another
// result than expected, a lock time-out or a lock left held, and any returned change the files
// no longer hold.

#include <iostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/RunProgram.h"

namespace {

void ExpectPasses(const std::vector<std::string>& argv) {
  testing_support::RunOptions options;
  options.timeoutMs = 600000;
  const testing_support::ProgramResult run = testing_support::RunProgram(argv, options);
  if (run.exitStatus == 77) GTEST_SKIP() << "several users need root";
  EXPECT_EQ(0, run.exitStatus) << run.out << run.err;
  EXPECT_NE(std::string::npos, run.out.find("PASS")) << run.out;
  std::cout << run.out;
}

TEST(Reliability, Torture) {
  ExpectPasses({TORTURE_HARNESS, "--processes", "16", "--seconds", "4"});
}

TEST(Reliability, TortureAsThreeUsers) {
  ExpectPasses({TORTURE_HARNESS, "--processes", "16", "--seconds", "4", "--users", "3"});
}

TEST(Reliability, Crash) { ExpectPasses({CRASH_HARNESS, "--kills", "1000"}); }

}  // namespace
