// The tool's logic, run in-process against the test double of the toolkit
// interface (fake_toolkit.cpp): a level detector with hangovers of 2 frames
// to open and 5 to close and 3 frames of leading silence.  The test conf
// sets a score delay of 0, so segment bounds are exact frame times.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <sndfile.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/tools/fake_toolkit.h"
#include "tests/tools/test_audio.h"
#include "tools/tovad/cli.h"
#include "tools/tovad/output.h"

namespace {

using tovad_test::FreshDir;
using tovad_test::ToneBursts;
using tovad_test::WriteAudio;

struct ToolRun {
  int code;
  std::string out;
  std::string err;
};

ToolRun RunTool(std::vector<std::string> args) {
  args.insert(args.begin(), "tovad");
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  ToolRun r;
  r.code = tovad_cli::RunTovad(static_cast<int>(args.size()), argv.data());
  r.out = testing::internal::GetCapturedStdout();
  r.err = testing::internal::GetCapturedStderr();
  return r;
}

void WriteText(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::string ConfText(const std::string& extra = "") {
  return "# test model\n"
         "path_to_json = model.json\npath_to_param = model.params\n"
         "path_to_meanvar = model.meanvar\nfeature_type = pcen\n"
         "n_batch = 1\nn_chan = 3\nn_height = 4\nn_width = 40\nn_classes = 2\n"
         "target_class = 1\nsil_to_voice_hangover = 2\nvoice_to_sil_hangover = 5\n"
         "extra_leading_sil = 3\nwakeup_threshold = 0.5\n"
         "cutoff_n_frame_max_vad_length = 0\nscore_delay_frames = 0\n" +
         extra;
}

// A model directory the checks accept: the fake never reads the files.
std::string MakeModelDir(const std::string& name, const std::string& conf_text = ConfText(),
                         int meanvar_numbers = 240) {
  const std::string dir = FreshDir(name);
  WriteText(dir + "/tovad.conf", conf_text);
  WriteText(dir + "/model.json", "{}");
  WriteText(dir + "/model.params", "params");
  std::ostringstream mv;
  for (int i = 0; i < meanvar_numbers; ++i) mv << (i % 7) * 0.5 << (i % 10 == 9 ? "\n" : " ");
  WriteText(dir + "/model.meanvar", mv.str());
  return dir;
}

class TovadCliTest : public testing::Test {
 protected:
  void SetUp() override {
    fake_toolkit::g_state = fake_toolkit::State();
    model_ = MakeModelDir("model");
    conf_ = model_ + "/tovad.conf";
    dir_ = FreshDir("audio");
    two_bursts_ = ToneBursts(5.0, {{1.0, 2.0}, {3.0, 3.5}});
    wav_ = dir_ + "/two.wav";
    ASSERT_TRUE(WriteAudio(wav_, SF_FORMAT_WAV, 16000, 1, two_bursts_));
  }
  void TearDown() override { EXPECT_EQ(fake_toolkit::g_state.live_handles, 0); }

  std::string model_, conf_, dir_, wav_;
  std::vector<int16_t> two_bursts_;
};

TEST_F(TovadCliTest, FindsEverySegmentOfAFile) {
  ToolRun r = RunTool({"--conf", conf_, wav_});
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "1.000\t2.000\n3.000\t3.500\n");
  // One full reset to begin the file, one partial reset after each end.
  EXPECT_EQ(fake_toolkit::g_state.full_resets, 1);
  EXPECT_EQ(fake_toolkit::g_state.partial_resets, 2);
  EXPECT_EQ(fake_toolkit::g_state.predict_calls, 500) << "one call per frame";
}

TEST_F(TovadCliTest, RawPrintsTheLibrarysOwnPositions) {
  // Open at frame 102 (3 voice frames), start 102 - 2 - 3 = 97; close at
  // frame 205 (6 silent frames), end 204.  The second segment is counted
  // from the reset after frame 205: open at 302 -> 297, close at 355 -> 354.
  ToolRun r = RunTool({"--conf", conf_, "--raw", wav_});
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "0.970\t2.050\n2.970\t3.550\n");
}

TEST_F(TovadCliTest, SegmentOpenAtTheEndClosesAtTheEndOfInput) {
  const std::string wav = dir_ + "/open.wav";
  ASSERT_TRUE(WriteAudio(wav, SF_FORMAT_WAV, 16000, 1, ToneBursts(3.005, {{2.5, 3.005}})));
  ToolRun r = RunTool({"--conf", conf_, "--format", "json", wav});
  EXPECT_EQ(r.code, 0) << r.err;
  cJSON* doc = cJSON_Parse(r.out.c_str());
  ASSERT_NE(doc, nullptr) << r.out;
  cJSON* seg = cJSON_GetArrayItem(
      cJSON_GetObjectItem(cJSON_GetArrayItem(cJSON_GetObjectItem(doc, "files"), 0), "segments"), 0);
  ASSERT_NE(seg, nullptr) << r.out;
  EXPECT_DOUBLE_EQ(cJSON_GetObjectItem(seg, "start")->valuedouble, 2.5);
  EXPECT_DOUBLE_EQ(cJSON_GetObjectItem(seg, "end")->valuedouble, 3.005);
  EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItem(seg, "cut_by_end_of_input")));
  cJSON_Delete(doc);
}

TEST_F(TovadCliTest, ForcedCutoffEndsWithoutTheHangoverTail) {
  // The double cuts a segment 50 frames after its start (97): decided at
  // frame 146, reported at 147 as end 145, so speech ends at 1.46 s.  The
  // rest of the burst opens again after the reset at 148.
  fake_toolkit::g_state.max_segment_frames = 50;
  ToolRun r = RunTool({"--conf", conf_, wav_});
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out.rfind("1.000\t1.460\n1.480\t1.970\n", 0), 0u) << r.out;
}

TEST_F(TovadCliTest, WritesEachSegmentAsAWav) {
  const std::string out_dir = dir_ + "/segs";  // created by the tool
  ToolRun r = RunTool({"--conf", conf_, "-w", out_dir, wav_});
  ASSERT_EQ(r.code, 0) << r.err;
  // The library's positions, in frames of the file: 97..204 and 297..354.
  const struct {
    const char* name;
    size_t first_frame, frames;
  } want[] = {{"two_001.wav", 97, 108}, {"two_002.wav", 297, 58}};
  for (const auto& w : want) {
    int rate = 0, channels = 0;
    std::vector<int16_t> pcm;
    ASSERT_TRUE(tovad_test::ReadAudio(out_dir + "/" + w.name, &rate, &channels, &pcm)) << w.name;
    EXPECT_EQ(rate, 16000);
    EXPECT_EQ(channels, 1);
    ASSERT_EQ(pcm.size(), w.frames * 160) << w.name;
    EXPECT_TRUE(std::equal(pcm.begin(), pcm.end(), two_bursts_.begin() + w.first_frame * 160))
        << w.name << " holds other audio than the input";
  }
}

TEST_F(TovadCliTest, PrintsTheOtherFormats) {
  EXPECT_EQ(RunTool({"--conf", conf_, "--format", "rttm", wav_}).out,
            "SPEAKER two 1 1.000 1.000 <NA> <NA> speech <NA> <NA>\n"
            "SPEAKER two 1 3.000 0.500 <NA> <NA> speech <NA> <NA>\n");
  EXPECT_EQ(RunTool({"--conf", conf_, "-f", "audacity", wav_}).out,
            "1.000000\t2.000000\tspeech\n3.000000\t3.500000\tspeech\n");
}

TEST_F(TovadCliTest, JsonDescribesEveryFile) {
  const std::string quiet = dir_ + "/quiet \"name\".wav";
  ASSERT_TRUE(WriteAudio(quiet, SF_FORMAT_WAV, 16000, 1, ToneBursts(1.0, {})));
  ToolRun r = RunTool({"--conf", conf_, "--format", "json", wav_, quiet});
  ASSERT_EQ(r.code, 0) << r.err;
  cJSON* doc = cJSON_Parse(r.out.c_str());
  ASSERT_NE(doc, nullptr) << r.out;
  cJSON* files = cJSON_GetObjectItem(doc, "files");
  ASSERT_EQ(cJSON_GetArraySize(files), 2);
  cJSON* f0 = cJSON_GetArrayItem(files, 0);
  EXPECT_STREQ(cJSON_GetObjectItem(f0, "file")->valuestring, wav_.c_str());
  EXPECT_EQ(cJSON_GetObjectItem(f0, "sample_rate")->valueint, 16000);
  EXPECT_EQ(cJSON_GetObjectItem(f0, "channels")->valueint, 1);
  EXPECT_DOUBLE_EQ(cJSON_GetObjectItem(f0, "duration")->valuedouble, 5.0);
  cJSON* segs = cJSON_GetObjectItem(f0, "segments");
  ASSERT_EQ(cJSON_GetArraySize(segs), 2);
  EXPECT_DOUBLE_EQ(cJSON_GetObjectItem(cJSON_GetArrayItem(segs, 1), "end")->valuedouble, 3.5);
  EXPECT_EQ(cJSON_GetObjectItem(cJSON_GetArrayItem(segs, 1), "cut_by_end_of_input"), nullptr);
  cJSON* f1 = cJSON_GetArrayItem(files, 1);
  EXPECT_STREQ(cJSON_GetObjectItem(f1, "file")->valuestring, quiet.c_str());
  EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(f1, "segments")), 0);
  cJSON_Delete(doc);
}

TEST_F(TovadCliTest, SeveralFilesAreNamedAndStartFresh) {
  const std::string later = dir_ + "/later.wav";
  ASSERT_TRUE(WriteAudio(later, SF_FORMAT_WAV, 16000, 1, ToneBursts(2.0, {{0.5, 1.2}})));
  ToolRun r = RunTool({"--conf", conf_, wav_, later});
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out,
            wav_ + "\t1.000\t2.000\n" + wav_ + "\t3.000\t3.500\n" + later + "\t0.500\t1.200\n");
  EXPECT_EQ(fake_toolkit::g_state.full_resets, 2);
}

// 2000 segments: the text of each file outgrows what its spool keeps in
// memory, so most of it goes out through the spool's temporary file.
TEST_F(TovadCliTest, LongStreamGivesEverySegmentInOrder) {
  constexpr int kBursts = 2000;  // 0.1 s of tone every 0.2 s
  std::vector<std::pair<double, double>> spans;
  for (int k = 0; k < kBursts; ++k) spans.push_back({0.2 * k + 0.1, 0.2 * k + 0.2});
  const std::string wav = dir_ + "/long.wav";
  ASSERT_TRUE(WriteAudio(wav, SF_FORMAT_WAV, 16000, 1, ToneBursts(0.2 * kBursts, spans)));

  ToolRun json = RunTool({"--conf", conf_, "-f", "json", wav});
  ASSERT_EQ(json.code, 0) << json.err;
  cJSON* doc = cJSON_Parse(json.out.c_str());
  ASSERT_NE(doc, nullptr) << json.out.substr(0, 200);
  cJSON* segs =
      cJSON_GetObjectItem(cJSON_GetArrayItem(cJSON_GetObjectItem(doc, "files"), 0), "segments");
  ASSERT_EQ(cJSON_GetArraySize(segs), kBursts);
  std::string want_lines;
  for (int k = 0; k < kBursts; ++k) {
    cJSON* s = cJSON_GetArrayItem(segs, k);
    EXPECT_NEAR(cJSON_GetObjectItem(s, "start")->valuedouble, spans[k].first, 1e-9) << k;
    EXPECT_NEAR(cJSON_GetObjectItem(s, "end")->valuedouble, spans[k].second, 1e-9) << k;
    char line[64];
    std::snprintf(line, sizeof(line), "\t%.3f\t%.3f\n", spans[k].first, spans[k].second);
    want_lines += wav + line;
  }
  cJSON_Delete(doc);

  // Two workers: each file's lines wait in its spool until printed in order.
  ToolRun lines = RunTool({"--conf", conf_, "-j", "2", wav, wav});
  EXPECT_EQ(lines.code, 0) << lines.err;
  EXPECT_TRUE(lines.out == want_lines + want_lines) << lines.out.substr(0, 200);
}

// A spool holds at most about its limit in memory whatever goes through it,
// and gives back exactly what went in, pieces larger than the limit too.
TEST(TextSpoolTest, KeepsLittleInMemoryAndGivesBackEveryByte) {
  constexpr size_t kLimit = 256;
  tovad_cli::TextSpool spool(kLimit);
  for (int round = 0; round < 2; ++round) {  // a spool is used again once written out
    std::string want;
    for (int i = 0; i < 5000; ++i) {
      const std::string piece = i % 997 == 0
                                    ? std::string(3 * kLimit, static_cast<char>('a' + i % 26))
                                    : std::to_string(i) + (i % 7 == 0 ? "\n" : ", ");
      spool.Append(piece);
      want += piece;
      ASSERT_LT(spool.memory_bytes(), 2 * kLimit) << "after " << i << " pieces";
    }
    EXPECT_EQ(spool.size(), want.size());
    EXPECT_EQ(spool.back(), want.back());
    FILE* out = std::tmpfile();
    ASSERT_NE(out, nullptr);
    ASSERT_TRUE(spool.WriteTo(out));
    EXPECT_EQ(spool.size(), 0u);
    std::string got(static_cast<size_t>(std::ftell(out)), '\0');
    std::rewind(out);
    EXPECT_EQ(std::fread(&got[0], 1, got.size(), out), got.size());
    std::fclose(out);
    EXPECT_TRUE(got == want) << "round " << round << ": " << got.size() << " of " << want.size();
  }
}

struct InputCase {
  const char* name;
  int sf_format;
  int rate;
  bool stereo;
  double tolerance;  // seconds
};

class TovadInputTest : public TovadCliTest, public testing::WithParamInterface<InputCase> {};

TEST_P(TovadInputTest, GivesTheSegmentsOfThe16kMonoInput) {
  const InputCase& c = GetParam();
  const std::string path = dir_ + "/input." +
                           (c.sf_format == SF_FORMAT_FLAC  ? "flac"
                            : c.sf_format == SF_FORMAT_OGG ? "ogg"
                                                           : "wav");
  const std::vector<int16_t> pcm =
      c.stereo || c.rate != 16000 ? tovad_test::ToStereoAtRate(two_bursts_, c.rate) : two_bursts_;
  ASSERT_TRUE(WriteAudio(path, c.sf_format, c.rate, c.stereo ? 2 : 1, pcm));
  ToolRun r = RunTool({"--conf", conf_, "--format", "json", path});
  ASSERT_EQ(r.code, 0) << r.err;
  cJSON* doc = cJSON_Parse(r.out.c_str());
  ASSERT_NE(doc, nullptr) << r.out;
  cJSON* file = cJSON_GetArrayItem(cJSON_GetObjectItem(doc, "files"), 0);
  EXPECT_EQ(cJSON_GetObjectItem(file, "sample_rate")->valueint, c.rate);
  EXPECT_EQ(cJSON_GetObjectItem(file, "channels")->valueint, c.stereo ? 2 : 1);
  EXPECT_NEAR(cJSON_GetObjectItem(file, "duration")->valuedouble, 5.0, 0.001);
  cJSON* segs = cJSON_GetObjectItem(file, "segments");
  const double want[2][2] = {{1.0, 2.0}, {3.0, 3.5}};
  ASSERT_EQ(cJSON_GetArraySize(segs), 2) << r.out;
  for (int i = 0; i < 2; ++i) {
    cJSON* s = cJSON_GetArrayItem(segs, i);
    EXPECT_NEAR(cJSON_GetObjectItem(s, "start")->valuedouble, want[i][0], c.tolerance) << i;
    EXPECT_NEAR(cJSON_GetObjectItem(s, "end")->valuedouble, want[i][1], c.tolerance) << i;
  }
  cJSON_Delete(doc);
}

// Lossless 16 kHz mono is bit-exact; a resampled or lossy input may move a
// boundary by one frame, where the level crosses the detector's threshold.
INSTANTIATE_TEST_SUITE_P(
    Inputs, TovadInputTest,
    testing::Values(InputCase{"Flac16kMono", SF_FORMAT_FLAC, 16000, false, 0.0},
                    InputCase{"Wav44kStereo", SF_FORMAT_WAV, 44100, true, 0.0101},
                    InputCase{"Wav8kStereo", SF_FORMAT_WAV, 8000, true, 0.0101},
                    InputCase{"Ogg48kStereo", SF_FORMAT_OGG, 48000, true, 0.0101}),
    [](const testing::TestParamInfo<InputCase>& info) { return info.param.name; });

TEST_F(TovadCliTest, QuietSilencesTheLibraryStartUp) {
  ToolRun loud = RunTool({"--conf", conf_, "-v", wav_});
  EXPECT_NE(loud.err.find("INFO: fake toolkit starting"), std::string::npos) << loud.err;
  ToolRun quiet = RunTool({"--conf", conf_, "--quiet", wav_});
  EXPECT_EQ(quiet.code, 0);
  EXPECT_EQ(quiet.err, "");
  EXPECT_EQ(quiet.out, loud.out);
}

TEST_F(TovadCliTest, RelativeModelPathsAreTakenFromTheConfDirectory) {
  RunTool({"--conf", conf_, wav_});
  EXPECT_EQ(fake_toolkit::g_state.init_file, "tovad.conf");
  EXPECT_EQ(fake_toolkit::g_state.init_dir, model_);

  const std::string abs_dir = FreshDir("absolute");
  const std::string conf = abs_dir + "/abs.conf";
  std::string text = ConfText();
  for (const char* f : {"model.json", "model.params", "model.meanvar"})
    text.replace(text.find(f), std::string(f).size(), model_ + "/" + f);
  WriteText(conf, text);
  ToolRun r = RunTool({"--conf", conf, wav_});
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(fake_toolkit::g_state.init_file, conf);
  EXPECT_EQ(fake_toolkit::g_state.init_dir, "(null)");
}

TEST_F(TovadCliTest, HelpAndVersion) {
  ToolRun help = RunTool({"--help"});
  EXPECT_EQ(help.code, 0);
  EXPECT_EQ(help.out.rfind("Usage: tovad [OPTIONS] FILE...\n", 0), 0u) << help.out;
  ToolRun version = RunTool({"-V"});
  EXPECT_EQ(version.code, 0);
  EXPECT_EQ(version.out.rfind("tovad ", 0), 0u) << version.out;
  EXPECT_EQ(fake_toolkit::g_state.init_calls, 0);
}

struct ErrorCase {
  const char* name;
  // Arguments; "@conf", "@wav" and "@dir" stand for the fixture's files.
  std::vector<std::string> args;
  std::string conf_extra;  // appended to a fresh conf when not empty
  std::string message_part;
  int meanvar_numbers = 240;
};

class TovadErrorTest : public TovadCliTest, public testing::WithParamInterface<ErrorCase> {};

TEST_P(TovadErrorTest, OneLineAndExitCode2BeforeTheLibraryIsAsked) {
  const ErrorCase& c = GetParam();
  std::string conf = conf_;
  if (!c.conf_extra.empty() || c.meanvar_numbers != 240)
    conf = MakeModelDir("broken", ConfText(c.conf_extra), c.meanvar_numbers) + "/tovad.conf";
  const std::string not_audio = dir_ + "/text.wav";
  WriteText(not_audio, "this is not a sound file\n");
  const std::map<std::string, std::string> stand_ins = {
      {"@conf", conf}, {"@wav", wav_}, {"@text", not_audio}, {"@dir", dir_}};
  std::vector<std::string> args;
  for (const std::string& a : c.args) args.push_back(stand_ins.count(a) ? stand_ins.at(a) : a);
  ToolRun r = RunTool(args);
  EXPECT_EQ(r.code, 2);
  EXPECT_EQ(r.out, "");
  ASSERT_FALSE(r.err.empty());
  EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "one line: " << r.err;
  EXPECT_EQ(r.err.rfind("tovad: ", 0), 0u) << r.err;
  EXPECT_NE(r.err.find(c.message_part), std::string::npos) << r.err;
  EXPECT_EQ(fake_toolkit::g_state.init_calls, 0);
}

const std::vector<std::string> kConfWav = {"--conf", "@conf", "@wav"};

INSTANTIATE_TEST_SUITE_P(
    Errors, TovadErrorTest,
    testing::Values(
        ErrorCase{"NoFile", {"--conf", "@conf"}, "", "no input file"},
        ErrorCase{"UnknownOption", {"--loud", "@wav"}, "", "unknown option '--loud'"},
        ErrorCase{"MissingValue", {"@wav", "--conf"}, "", "needs a value"},
        ErrorCase{"BadFormat", {"-f", "xml", "@wav"}, "", "unknown format 'xml'"},
        ErrorCase{"MissingFile",
                  {"--conf", "@conf", "/nonexistent/a.wav"},
                  "",
                  "cannot read '/nonexistent/a.wav'"},
        ErrorCase{"NotAudio", {"--conf", "@conf", "@text"}, "", "cannot read '"},
        ErrorCase{"Directory", {"--conf", "@conf", "@dir"}, "", "cannot read '"},
        ErrorCase{"MissingConf",
                  {"--conf", "/nonexistent/x.conf", "@wav"},
                  "",
                  "cannot read conf '/nonexistent/x.conf'"},
        ErrorCase{"NoBundledModel", {"@wav"}, "", "no model found"},
        ErrorCase{"UnknownModel", {"--model", "nope", "@wav"}, "", "/models/nope"},
        ErrorCase{"PathAsModelName", {"-m", "../dense", "@wav"}, "", "bad model name '../dense'"},
        ErrorCase{"MissingJson", kConfWav, "path_to_json = gone.json\n",
                  "cannot read path_to_json"},
        ErrorCase{"ObmModel", kConfWav, "path_to_obm = m.obm\n", "path_to_obm is not supported"},
        ErrorCase{"MixedPaths", kConfWav, "path_to_param = /x/model.params\n", "all relative"},
        ErrorCase{"MeanvarTooShort", kConfWav, "", "holds 239 numbers, expected 240", 239},
        ErrorCase{"MissingKey", kConfWav, "compute_suspected_vad_end = 1\n",
                  "missing key 'suspected_sil_to_voice_hangover'"},
        ErrorCase{"BadFeatureType", kConfWav, "feature_type = fbank\n",
                  "feature_type 'fbank' is not supported"},
        ErrorCase{"BadWidth", kConfWav, "n_width = 64\n", "n_width must be 40 or 80"},
        ErrorCase{"BadDelay", kConfWav, "score_delay_frames = soon\n", "score_delay_frames"},
        ErrorCase{"SegmentDirIsAFile",
                  {"--conf", "@conf", "-w", "@wav", "@wav"},
                  "",
                  "not a writable directory"}),
    [](const testing::TestParamInfo<ErrorCase>& info) { return info.param.name; });

}  // namespace
