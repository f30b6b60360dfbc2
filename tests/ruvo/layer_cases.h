#ifndef TESTS_RUVO_LAYER_CASES_H_
#define TESTS_RUVO_LAYER_CASES_H_

// A layer made through the registry, as the net makes it, the table row of a
// layer that must abort while its attributes or shapes are checked, and a
// fixture net run directly, where the blobs (and their shifts) show.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ruvo/layer.h"
#include "ruvo/src/net.h"
#include "tests/ruvo/death_text.h"
#include "tests/ruvo/net_fixture.h"

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

// Configures `net` from `m` with the input shapes of `c`, sets its one input
// "data" and runs it once.  False (a failed check) if it does not configure.
inline bool RunNet(const net_test::Model& m, const net_test::IoCase& c,
                   orvik::ruvo::DefaultNet* net) {
  net_test::InputShapes s = net_test::ShapesOf(c);
  const int ret = net->Config(m.json.c_str(), m.params.data(), m.params.size(), 1, s.keys.data(),
                              s.indptr.data(), s.data.data(), 0, nullptr);
  if (ret != 0) return false;
  net->SetInput("data", c.inputs[0].second.values.data(),
                static_cast<uint32_t>(c.inputs[0].second.values.size()));
  net->Forward();
  return true;
}

// Head i of `net` equals the case's output heads[i] exactly (8-bit values
// widened), and an 8-bit head's shift_ equals its output "<head>.shift".
inline void ExpectHeadsExact(const orvik::ruvo::DefaultNet& net, const net_test::IoCase& c,
                             const std::vector<std::string>& heads, const std::string& net_name) {
  for (uint32_t i = 0; i < heads.size(); ++i) {
    const std::string what = net_name + "/" + c.name + "/" + heads[i];
    const orvik::ruvo::NDArray& blob = net.blobs()[net.outs_blobs_index()[i]];
    const std::vector<float>& want = c.outputs.at(heads[i]).values;
    ASSERT_EQ(blob.Size(), want.size()) << what;
    std::vector<float> got(want.size());
    if (blob.dtype() == orvik::ruvo::kFloat32) {
      std::copy(blob.dptr<float>(), blob.dptr<float>() + got.size(), got.begin());
    } else {
      std::copy(blob.dptr<signed char>(), blob.dptr<signed char>() + got.size(), got.begin());
      ASSERT_EQ(c.outputs.count(heads[i] + ".shift"), 1u) << what;
      EXPECT_EQ(blob.shift_, c.outputs.at(heads[i] + ".shift").values[0]) << what;
    }
    EXPECT_EQ(got, want) << what;
  }
}

}  // namespace ruvo_test

#endif  // TESTS_RUVO_LAYER_CASES_H_
