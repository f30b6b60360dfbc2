// A whole predictor from a (symbol, parameters) pair, then one forward
// pass.  Input layout: a first line "NAME D0 [D1 [D2 [D3]]]" giving the
// input and its shape, the symbol JSON, a NUL byte, the parameter bytes.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "tovadmod/c_predict_api.h"
#include "tests/fuzz/fuzz_support.h"

// Larger inputs only cost time: shapes come from the harness's caller
// side, not from the model files under test.
constexpr uint32_t kMaxInputElements = 1 << 16;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* begin = reinterpret_cast<const char*>(data);
  const char* line_end = static_cast<const char*>(memchr(begin, '\n', size));
  if (line_end == nullptr) return 0;
  std::istringstream line(std::string(begin, line_end));
  std::string name;
  std::vector<uint32_t> shape;
  uint64_t elements = 1;
  line >> name;
  for (uint32_t dim = 0; shape.size() < 4 && line >> dim;) {
    if (dim == 0 || elements * dim > kMaxInputElements) return 0;
    elements *= dim;
    shape.push_back(dim);
  }
  if (name.empty() || shape.empty()) return 0;

  const char* json_begin = line_end + 1;
  const size_t rest = size - static_cast<size_t>(json_begin - begin);
  const char* nul = static_cast<const char*>(memchr(json_begin, '\0', rest));
  if (nul == nullptr) return 0;
  const std::string json(json_begin, nul);
  // Exactly the parameter bytes, so that a read past them is caught.
  const std::vector<uint8_t> params(reinterpret_cast<const uint8_t*>(nul) + 1, data + size);

  tovad_fuzz::RunCatchingFatal([&] {
    const char* keys[] = {name.c_str()};
    const uint32_t indptr[] = {0, static_cast<uint32_t>(shape.size())};
    PredictorHandle pred = nullptr;
    if (MXPredCreate(json.c_str(), params.data(), static_cast<int>(params.size()), 1, 0, 1, keys,
                     indptr, shape.data(), &pred) != 0) {
      return;
    }
    std::vector<float> input(elements);
    for (size_t i = 0; i < input.size(); ++i) input[i] = static_cast<float>(i % 17) * 0.25f - 2.0f;
    MXPredSetInput(pred, name.c_str(), input.data(), static_cast<uint32_t>(input.size()));
    MXPredForward(pred);
    uint32_t* out_shape = nullptr;
    uint32_t out_ndim = 0;
    MXPredGetOutputShape(pred, 0, &out_shape, &out_ndim);
    uint64_t out_size = 1;
    for (uint32_t i = 0; i < out_ndim; ++i) out_size *= out_shape[i];
    std::vector<float> output(std::min<uint64_t>(out_size, kMaxInputElements * 16));
    if (output.size() == out_size)
      MXPredGetOutput(pred, 0, output.data(), static_cast<uint32_t>(out_size));
    MXPredFree(pred);
  });
  return 0;
}
