// The symbol file: JSON text parsed and read into the graph structures.
#include <cjson/cJSON.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "ruvo/json_load.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  tovad_fuzz::RunCatchingFatal([&] {
    orvik::ruvo::JSONGraph graph;
    cJSON* root = cJSON_Parse(text.c_str());
    graph.Load(root);
    cJSON_Delete(root);
  });
  return 0;
}
