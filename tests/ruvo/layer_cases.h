#ifndef TESTS_RUVO_LAYER_CASES_H_
#define TESTS_RUVO_LAYER_CASES_H_

// A layer made through the registry, as the net makes it, and the table row
// of a layer that must abort while its attributes or shapes are checked.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ruvo/layer.h"

namespace ruvo_test {

inline std::unique_ptr<orvik::ruvo::Layer> MakeLayer(const std::string& op,
                                                     const orvik::ruvo::LayerAttrs& attrs) {
  std::unique_ptr<orvik::ruvo::Layer> layer(
      orvik::ruvo::create_layer(orvik::ruvo::layer_to_index(op.c_str())));
  EXPECT_NE(layer, nullptr) << op;
  if (layer) layer->Init(attrs);
  return layer;
}

struct FatalCase {
  const char* name;
  const char* op;
  orvik::ruvo::LayerAttrs attrs;
  std::vector<orvik::ruvo::TShape> in;  // empty: the failure is in Init
  std::string expected;
};

// Init, then InferShape on the row's inputs, must end in the row's report.
inline void ExpectBuildAborts(const FatalCase& fc) {
  std::vector<orvik::ruvo::TShape> in = fc.in, out(1), aux;
  EXPECT_DEATH(MakeLayer(fc.op, fc.attrs)->InferShape(in, out, aux), fc.expected);
}

inline std::string CaseName(const testing::TestParamInfo<FatalCase>& info) {
  return info.param.name;
}

}  // namespace ruvo_test

#endif  // TESTS_RUVO_LAYER_CASES_H_
