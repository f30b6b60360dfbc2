// The parameter file reader over a block of bytes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ruvo/io.h"
#include "ruvo/ndarray.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A copy of exactly the input's size, so that a read past its end is
  // seen by the address checker.
  std::vector<uint8_t> bytes(data, data + size);
  tovad_fuzz::RunCatchingFatal([&] {
    std::vector<orvik::ruvo::NDArray> arrays;
    std::vector<std::string> names;
    orvik::ruvo::io::MemoryFixedSizeStream stream(bytes.data(), bytes.size());
    orvik::ruvo::NDArray::Load(&stream, arrays, names);
  });
  return 0;
}
