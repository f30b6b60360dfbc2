// The conf file reader, alone and with a path prefix.
#include <cstddef>
#include <cstdint>

#include "src/tovad_config.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static tovad_fuzz::MemFile file;
  file.Set(data, size);
  tovad_fuzz::RunCatchingFatal([&] {
    Tovad_toolkit::load_conf(file.path().c_str());
    // The prefixed form reads "<prefix>/<name>": a prefix of "/" names
    // the same file.
    Tovad_toolkit::load_conf_with_prefix(file.path().c_str() + 1, "/");
  });
  return 0;
}
