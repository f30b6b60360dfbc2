#ifndef TESTS_RUVO_LAYER_CASES_H_
#define TESTS_RUVO_LAYER_CASES_H_

// A layer made through the registry, as the net makes it, and the table row
// of a layer that must abort while its attributes or shapes are checked or
// at its first run.

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ruvo/layer.h"
#include "tests/ruvo/death_text.h"

namespace ruvo_test {

inline std::unique_ptr<orvik::ruvo::Layer> MakeLayer(const std::string& op,
                                                     const orvik::ruvo::LayerAttrs& attrs) {
  std::unique_ptr<orvik::ruvo::Layer> layer(
      orvik::ruvo::create_layer(orvik::ruvo::layer_to_index(op.c_str())));
  EXPECT_NE(layer, nullptr) << op;
  if (layer) layer->Init(attrs);
  return layer;
}

// One layer that must abort: attributes as "key=value ...", input shapes as
// "(2,3) () (4,5)" (none: the failure is in Init), and the failed check and
// its message as printed.
struct FatalCase {
  const char* name;
  const char* op;
  const char* attrs;
  const char* in;
  const char* check;
  const char* message = "";  // none: the report's message is empty
};

// Init, InferShape on the row's inputs, then a Forward on float inputs and
// outputs of the inferred shapes and types (no aux states), must end in the
// row's report; an InferShape that returns false ends the run without it.
inline void ExpectAborts(const FatalCase& fc) {
  using orvik::ruvo::NDArray;
  using orvik::ruvo::TShape;
  orvik::ruvo::LayerAttrs attrs;
  std::istringstream words(fc.attrs);
  for (std::string w; words >> w;) attrs[w.substr(0, w.find('='))] = w.substr(w.find('=') + 1);
  std::vector<TShape> in, out(1), aux;
  std::istringstream shapes(fc.in);
  for (TShape s; shapes >> s; s = TShape()) in.push_back(s);
  auto run = [&] {
    auto layer = MakeLayer(fc.op, attrs);
    if (!layer->InferShape(in, out, aux)) return;  // no death: the test fails
    std::vector<int> types(in.size(), orvik::ruvo::kFloat32), out_types, aux_types;
    layer->InferType(types, out_types, aux_types);
    types.insert(types.end(), out_types.begin(), out_types.end());
    std::vector<NDArray> arrays;
    for (size_t i = 0; i < in.size() + out.size(); ++i) {
      arrays.emplace_back(i < in.size() ? in[i] : out[i - in.size()], types.at(i));
    }
    std::vector<NDArray*> bottoms, tops, auxes;
    for (size_t i = 0; i < arrays.size(); ++i) {
      (i < in.size() ? bottoms : tops).push_back(&arrays[i]);
    }
    orvik::ruvo::Resource resource;
    layer->resource_ = &resource;
    layer->Forward(bottoms, tops, auxes);
  };
  EXPECT_DEATH(run(), Fatal(fc.check, fc.message));
}

inline std::string CaseName(const testing::TestParamInfo<FatalCase>& info) {
  return info.param.name;
}

}  // namespace ruvo_test

#endif  // TESTS_RUVO_LAYER_CASES_H_
