#ifndef TOOLS_TOVAD_CLI_H_
#define TOOLS_TOVAD_CLI_H_

namespace tovad_cli {

// Exit codes of the program.
constexpr int kExitOk = 0;
// Bad usage, unreadable input, missing or broken conf or model.
constexpr int kExitInputError = 2;

// The whole program: parses `argv`, checks the inputs and the model, runs
// the library over each file and prints the segments on stdout.  Returns
// the exit code.
int RunTovad(int argc, char** argv);

}  // namespace tovad_cli

#endif  // TOOLS_TOVAD_CLI_H_
