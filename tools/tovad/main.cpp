#include "tools/tovad/cli.h"

int main(int argc, char** argv) { return tovad_cli::RunTovad(argc, argv); }
