// The tovad program with a bundled model (models/dense) on the sample
// recording under tests/data, whose speech spans were written by the script
// that made it (training/make_sample.py).
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <sndfile.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/tools/program_runner.h"
#include "tests/tools/test_audio.h"

namespace {

using tovad_test::ExpectOneLineError;
using tovad_test::ReadText;
using tovad_test::RunProgram;
using tovad_test::ToolRun;

const std::string kSample = std::string(TOVAD_TEST_DATA_DIR) + "/tovad_sample.wav";
const std::string kLabels = std::string(TOVAD_TEST_DATA_DIR) + "/tovad_sample.lab";
const std::string kConf = std::string(TOVAD_MODEL_DIR) + "/tovad.conf";

// Speech spans of the sample, one "start end" line each, in seconds.
std::vector<std::pair<double, double>> ReadLabels() {
  std::vector<std::pair<double, double>> spans;
  std::istringstream in(ReadText(kLabels));
  double a, b;
  while (in >> a >> b) spans.emplace_back(a, b);
  return spans;
}

std::vector<std::pair<double, double>> JsonSegments(const std::string& json) {
  std::vector<std::pair<double, double>> segs;
  cJSON* doc = cJSON_Parse(json.c_str());
  EXPECT_NE(doc, nullptr) << "not JSON: " << json;
  if (doc == nullptr) return segs;
  cJSON* file = cJSON_GetArrayItem(cJSON_GetObjectItem(doc, "files"), 0);
  cJSON* list = cJSON_GetObjectItem(file, "segments");
  EXPECT_TRUE(cJSON_IsArray(list)) << json;
  for (int i = 0; i < cJSON_GetArraySize(list); ++i) {
    cJSON* s = cJSON_GetArrayItem(list, i);
    segs.emplace_back(cJSON_GetObjectItem(s, "start")->valuedouble,
                      cJSON_GetObjectItem(s, "end")->valuedouble);
  }
  cJSON_Delete(doc);
  return segs;
}

TEST(TovadModelTest, SegmentsOfTheSampleMatchItsLabels) {
  const auto labels = ReadLabels();
  ASSERT_FALSE(labels.empty()) << "no labels in " << kLabels;
  ToolRun r = RunProgram({"--quiet", "--format", "json", "--conf", kConf, kSample});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.err, "") << "--quiet leaves stderr empty";
  const auto segs = JsonSegments(r.out);
  ASSERT_EQ(segs.size(), labels.size()) << r.out;
  for (size_t i = 0; i < labels.size(); ++i) {
    EXPECT_NEAR(segs[i].first, labels[i].first, 0.05) << "start of segment " << i;
    EXPECT_NEAR(segs[i].second, labels[i].second, 0.05) << "end of segment " << i;
  }
}

TEST(TovadModelTest, StereoAt44kGivesTheSegmentsOf16kMono) {
  int rate = 0, channels = 0;
  std::vector<int16_t> mono;
  ASSERT_TRUE(tovad_test::ReadAudio(kSample, &rate, &channels, &mono));
  ASSERT_EQ(rate, 16000);
  ASSERT_EQ(channels, 1);
  const std::string dir = tovad_test::FreshDir("stereo44k");
  const std::string wav = dir + "/sample44k.wav";
  ASSERT_TRUE(tovad_test::WriteAudio(wav, SF_FORMAT_WAV, 44100, 2,
                                     tovad_test::ToStereoAtRate(mono, 44100)));
  ToolRun a = RunProgram({"--quiet", "--format", "json", "--conf", kConf, kSample});
  ToolRun b = RunProgram({"--quiet", "--format", "json", "--conf", kConf, wav});
  ASSERT_EQ(a.code, 0) << a.err;
  ASSERT_EQ(b.code, 0) << b.err;
  const auto sa = JsonSegments(a.out), sb = JsonSegments(b.out);
  ASSERT_EQ(sa.size(), sb.size()) << a.out << "\n" << b.out;
  ASSERT_FALSE(sa.empty());
  for (size_t i = 0; i < sa.size(); ++i) {
    // One frame, plus room for the printed rounding.
    EXPECT_NEAR(sa[i].first, sb[i].first, 0.0101) << i;
    EXPECT_NEAR(sa[i].second, sb[i].second, 0.0101) << i;
  }
}

TEST(TovadModelTest, BundledModelIsFoundWithoutConf) {
  ToolRun with = RunProgram({"--quiet", "--conf", kConf, kSample});
  ToolRun without = RunProgram({"--quiet", "--model", TOVAD_MODEL_NAME, kSample});
  ASSERT_EQ(without.code, 0) << without.err;
  EXPECT_EQ(without.out, with.out);
}

}  // namespace
