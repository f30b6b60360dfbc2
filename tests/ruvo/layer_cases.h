#ifndef TESTS_RUVO_LAYER_CASES_H_
#define TESTS_RUVO_LAYER_CASES_H_

// A layer made through the registry, as the net makes it, and the table row
// of a layer that must abort while its attributes or shapes are checked.

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

// One build that must abort: attributes as "key=value ...", input shapes as
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

// Init, then InferShape on the row's inputs, must end in the row's report.
inline void ExpectBuildAborts(const FatalCase& fc) {
  orvik::ruvo::LayerAttrs attrs;
  std::istringstream words(fc.attrs);
  for (std::string w; words >> w;) attrs[w.substr(0, w.find('='))] = w.substr(w.find('=') + 1);
  std::vector<orvik::ruvo::TShape> in, out(1), aux;
  std::istringstream shapes(fc.in);
  for (orvik::ruvo::TShape s; shapes >> s; s = orvik::ruvo::TShape()) in.push_back(s);
  EXPECT_DEATH(MakeLayer(fc.op, attrs)->InferShape(in, out, aux), Fatal(fc.check, fc.message));
}

inline std::string CaseName(const testing::TestParamInfo<FatalCase>& info) {
  return info.param.name;
}

}  // namespace ruvo_test

#endif  // TESTS_RUVO_LAYER_CASES_H_
