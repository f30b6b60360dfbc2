#ifndef TESTS_TOOLS_PROGRAM_RUNNER_H_
#define TESTS_TOOLS_PROGRAM_RUNNER_H_

#include <string>
#include <vector>

namespace tovad_test {

struct ToolRun {
  int code = -1;  // exit code, -1 if the program did not exit normally
  std::string out;
  std::string err;
};

std::string ReadText(const std::string& path);

// Runs the tovad program with `args`, stdin from /dev/null.
ToolRun RunProgram(const std::vector<std::string>& args);

// Exit code 2, nothing on stdout, exactly one line on stderr holding `part`.
void ExpectOneLineError(const ToolRun& r, const std::string& part);

}  // namespace tovad_test

#endif  // TESTS_TOOLS_PROGRAM_RUNNER_H_
