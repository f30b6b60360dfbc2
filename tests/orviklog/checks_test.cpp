#include "orviklog/src/checks.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace {

int g_evaluations = 0;
int Counted(int v) {
  ++g_evaluations;
  return v;
}

TEST(ChecksTest, PassingChecksEvaluateOperandsOnce) {
  g_evaluations = 0;
  CHECK(Counted(1) == 1) << "never printed";
  CHECK_EQ(Counted(2), 2) << "never printed";
  CHECK_LT(Counted(1), Counted(3));
  CHECK_GE(Counted(3), 3);
  EXPECT_EQ(g_evaluations, 5);
}

// The report frame: blank lines, "#", the file and line, errno at the time
// of failure, the check text (with both values of a comparison), the user
// text, "#".
TEST(ChecksDeathTest, ReportFrameAndAbort) {
  EXPECT_DEATH(
      {
        errno = 0;
        int inited_ = 0;
        CHECK(inited_) << "not ready";
      },
      "\n\n#\n# Fatal error in .*checks_test\\.cpp, line [0-9]+\n"
      "# last system error: 0\n"
      "# Check failed: inited_\n"
      "# not ready\n#\n");
  EXPECT_DEATH(
      {
        unsigned long a = 6;
        unsigned int b = 7;
        CHECK_EQ(a, b) << "sizes differ";
      },
      "# Check failed: a == b \\(6 vs\\. 7\\)\n# sizes differ\n#\n");
  EXPECT_DEATH(
      {
        std::string x = "relu";
        std::string y = "tanh";
        CHECK_EQ(x, y);
      },
      "# Check failed: x == y \\(relu vs\\. tanh\\)\n# \n#\n");
  EXPECT_DEATH(
      {
        errno = ENOENT;
        CHECK_GT(1, 2);
      },
      "# last system error: 2\n# Check failed: 1 > 2 \\(1 vs\\. 2\\)");
}

}  // namespace
