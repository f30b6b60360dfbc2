#include "tests/tools/program_runner.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace tovad_test {

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

ToolRun RunProgram(const std::vector<std::string>& args) {
  const std::string base = testing::TempDir() + "/tovad_" + std::to_string(getpid());
  const std::string out = base + "_stdout.txt";
  const std::string err = base + "_stderr.txt";
  std::string cmd = std::string("'") + TOVAD_PROGRAM + "'";
  for (const std::string& a : args) cmd += " '" + a + "'";
  cmd += " >'" + out + "' 2>'" + err + "' </dev/null";
  const int status = std::system(cmd.c_str());
  ToolRun r;
  if (WIFEXITED(status)) r.code = WEXITSTATUS(status);
  r.out = ReadText(out);
  r.err = ReadText(err);
  return r;
}

void ExpectOneLineError(const ToolRun& r, const std::string& part) {
  EXPECT_EQ(r.code, 2);
  EXPECT_EQ(r.out, "");
  ASSERT_FALSE(r.err.empty());
  EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "one line expected: " << r.err;
  EXPECT_NE(r.err.find(part), std::string::npos) << r.err;
}

}  // namespace tovad_test
