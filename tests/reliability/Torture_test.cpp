// The concurrency torture, short: sixteen host processes for a few seconds (`make torture` runs
// it for thirty), as one user and as three administrators sharing the machine-wide store. It
// fails on any call that gave another result than its process expected, on a lock time-out, and
// on any change a successful call made that the files no longer hold.

#include <iostream>
#include <string>

#include <gtest/gtest.h>

#include "support/RunProgram.h"

namespace {

TEST(Torture, SixteenProcessesLoseNoUpdateAndNeverTimeOut) {
  for (const char* users : {"1", "3"}) {
    testing_support::RunOptions options;
    options.timeoutMs = 300000;
    const testing_support::ProgramResult run = testing_support::RunProgram(
        {TORTURE_HARNESS, "--processes", "16", "--seconds", "4", "--users", users}, options);
    if (run.exitStatus == 77) continue;  // several users need root
    EXPECT_EQ(0, run.exitStatus) << run.out << run.err;
    EXPECT_NE(std::string::npos, run.out.find("PASS")) << run.out;
    std::cout << run.out;
  }
}

}  // namespace
