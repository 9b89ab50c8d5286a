/// Registered as a test that must fail: a harness that overlooks a wrong byte proves nothing.

#include "tests/support/Harness.h"

TEST(MustFail, WrongByteInATranscriptIsNoticed) {
  EXPECT_EQ(RunProgram({FwpushProgram(), "-v"}).output, Golden("wrong-version.console"));
}
