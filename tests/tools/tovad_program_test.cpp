// The tovad program as a user drives it, with the dense bundled model on
// the sample recording under tests/data, whose speech spans were written by
// the script that made it (training/make_sample.py): the model found by
// name, quiet by default, standard input (whole and live), and a library
// abort at start-up.  Headerless input is little-endian and the samples
// are sent in host order: a little-endian host is assumed.
#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "tests/tools/tool_test_util.h"

namespace {

using tovad_test::ReadBytes;
using tovad_test::ToolRun;

const std::string kSample = std::string(TOVAD_TEST_DATA_DIR) + "/tovad_sample.wav";
const std::string kConf = std::string(TOVAD_MODEL_DIR) + "/tovad.conf";

// Runs the program with `args` and standard input from `input`.
ToolRun RunProgram(const std::vector<std::string>& args, const std::string& input = "/dev/null") {
  const std::string base = testing::TempDir() + "/tovad_" + std::to_string(getpid());
  std::string cmd = std::string("'") + TOVAD_PROGRAM + "'";
  for (const std::string& a : args) cmd += " '" + a + "'";
  cmd += " <'" + input + "' >'" + base + "_out' 2>'" + base + "_err'";
  const int status = std::system(cmd.c_str());
  ToolRun r;
  if (WIFEXITED(status)) r.code = WEXITSTATUS(status);
  r.out = ReadBytes(base + "_out");
  r.err = ReadBytes(base + "_err");
  return r;
}

TEST(TovadProgramTest, SegmentsOfTheSampleMatchItsLabels) {
  tovad_test::Spans labels;  // one "start end" line each, in seconds
  std::istringstream in(ReadBytes(std::string(TOVAD_TEST_DATA_DIR) + "/tovad_sample.lab"));
  for (double a, b; in >> a >> b;) labels.emplace_back(a, b);
  ASSERT_FALSE(labels.empty());
  ToolRun r = RunProgram({"--format", "json", "--model", TOVAD_MODEL_NAME, kSample});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.err, "") << "quiet by default";
  tovad_test::ExpectSpansNear(tovad_test::JsonSpans(r.out), labels, 0.05);
}

TEST(TovadProgramTest, LibraryAbortAtStartUpShowsItsReportAndOneLineOfOurs) {
  const std::string dir = tovad_test::FreshDir("abort");
  for (const char* name : {"tovad.conf", "tovad.params", "tovad.meanvar"})
    tovad_test::WriteBytes(dir + "/" + name, ReadBytes(std::string(TOVAD_MODEL_DIR) + "/" + name));
  tovad_test::WriteBytes(dir + "/tovad.json", "{\"nodes\": [");  // the tool does not parse the graph
  ToolRun r = RunProgram({"--conf", dir + "/tovad.conf", kSample});
  EXPECT_EQ(r.code, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("Check failed"), std::string::npos) << r.err;
  const std::string last = "tovad: the library could not start with '" + dir +
                           "/tovad.conf' (its report is above)\n";
  ASSERT_GE(r.err.size(), last.size());
  EXPECT_EQ(r.err.substr(r.err.size() - last.size()), last) << r.err;
}

// Standard input gives what the same audio gives as a file: a WAV whole,
// and headerless 8 kHz stereo live, each segment printed as soon as it
// closes while the input is still open; the end of input closes one that
// is still open.  Verbose adds only the library's start-up (of -v and
// --quiet the last one counts).
TEST(TovadProgramTest, StandardInputMatchesTheFile) {
  ToolRun file = RunProgram({"--conf", kConf, kSample, "-v", "--quiet"});
  ToolRun loud = RunProgram({"--conf", kConf, kSample, "-v"});
  ToolRun piped = RunProgram({"--conf", kConf, "-"}, kSample);
  EXPECT_EQ(file.out, "0.820\t3.290\n4.580\t6.280\n7.640\t8.830\n");
  EXPECT_EQ(file.err, "");
  EXPECT_NE(loud.err.find("INFO"), std::string::npos) << loud.err;
  EXPECT_EQ(loud.out, file.out);
  EXPECT_EQ(piped.err, "");
  EXPECT_EQ(piped.out, file.out);

  std::vector<int16_t> pcm = tovad_test::ToStereoAtRate(tovad_test::ReadAudio(kSample), 8000);
  const size_t first_part = 2 * 5 * 8000;  // past the first segment's close
  pcm.resize(2 * 8 * 8000);                // ends inside the last segment
  const std::string dir = tovad_test::FreshDir("live"), out = dir + "/out";
  ASSERT_TRUE(tovad_test::WriteAudio(dir + "/cut.wav", SF_FORMAT_WAV, 8000, 2, pcm));
  const std::string whole = RunProgram({"--conf", kConf, dir + "/cut.wav"}).out;
  EXPECT_TRUE(whole.size() > 7 && whole.substr(whole.size() - 7) == "\t8.000\n") << whole;
  const std::string cmd = std::string("'") + TOVAD_PROGRAM + "' --conf '" + kConf +
                          "' --raw-input --rate 8000 --channels 2 - >'" + out + "'";
  signal(SIGPIPE, SIG_IGN);
  FILE* in = popen(cmd.c_str(), "w");
  ASSERT_NE(in, nullptr);
  ASSERT_EQ(fwrite(pcm.data(), 2, first_part, in), first_part);
  fflush(in);
  std::string early;  // the first line, or nothing after 20 s
  for (int i = 0; i < 200 && early.find('\n') == std::string::npos; ++i) {
    usleep(100000);
    std::ifstream f(out);
    early.assign(std::istreambuf_iterator<char>(f), {});
  }
  fwrite(pcm.data() + first_part, 2, pcm.size() - first_part, in);
  EXPECT_EQ(pclose(in), 0);
  EXPECT_EQ(early, whole.substr(0, whole.find('\n') + 1)) << "before the input ended";
  EXPECT_EQ(ReadBytes(out), whole);
}

}  // namespace
