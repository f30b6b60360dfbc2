// The tool's logic, run in-process against the test double of the toolkit
// interface (fake_toolkit.cpp): a level detector with hangovers of 2 frames
// to open and 5 to close and 3 frames of leading silence.  The test conf
// sets a score delay of 0, so segment bounds are exact frame times.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/tools/fake_toolkit.h"
#include "tests/tools/tool_test_util.h"
#include "tools/tovad/cli.h"
#include "tools/tovad/output.h"

namespace {

using tovad_test::FreshDir;
using tovad_test::JsonNumbers;
using tovad_test::JsonSpans;
using tovad_test::Spans;
using tovad_test::ToneBursts;
using tovad_test::ToolRun;
using tovad_test::WriteAudio;
using tovad_test::WriteBytes;

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

// Exit code 2, nothing on stdout, one line on stderr: "tovad: ..." holding `part`.
void ExpectOneLineError(const ToolRun& r, const std::string& part) {
  EXPECT_EQ(r.code, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err.rfind("tovad: ", 0), 0u) << r.err;
  EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "one line expected: " << r.err;
  EXPECT_NE(r.err.find(part), std::string::npos) << r.err;
}

// A model directory the checks accept: the fake never reads the files.
std::string MakeModelDir(const std::string& name, const std::string& conf_text = ConfText(),
                         int meanvar_numbers = 240) {
  const std::string dir = FreshDir(name);
  WriteBytes(dir + "/tovad.conf", conf_text);
  WriteBytes(dir + "/model.json", "{}");
  WriteBytes(dir + "/model.params", "params");
  std::ostringstream mv;
  for (int i = 0; i < meanvar_numbers; ++i) mv << (i % 7) * 0.5 << (i % 10 == 9 ? "\n" : " ");
  WriteBytes(dir + "/model.meanvar", mv.str());
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

// Each segment is counted from the reset after the one before.
TEST_F(TovadCliTest, OutputForms) {
  const struct {
    std::vector<std::string> args;
    int max_segment_frames;
    std::string want;
  } kCases[] = {
      {{}, 0, "1.000\t2.000\n3.000\t3.500\n"},
      // Open at frame 102 (3 voice frames), start 102 - 2 - 3 = 97; close at
      // frame 205 (6 silent frames), end 204; then open at 302 -> 297, close
      // at 355 -> 354.
      {{"--raw"}, 0, "0.970\t2.050\n2.970\t3.550\n"},
      {{"--format", "rttm"}, 0,
       "SPEAKER two 1 1.000 1.000 <NA> <NA> speech <NA> <NA>\n"
       "SPEAKER two 1 3.000 0.500 <NA> <NA> speech <NA> <NA>\n"},
      {{"-f", "audacity"}, 0, "1.000000\t2.000000\tspeech\n3.000000\t3.500000\tspeech\n"},
      // A cut 50 frames after the start (97): decided at frame 146, reported
      // at 147 as end 145, so speech ends at 1.46 s without the hangover
      // tail.  The burst opens again after the reset at 148 and is cut the
      // same way; the second burst is cut at 3.46 s and its last 2 frames
      // are too few to open another segment.
      {{}, 50, "1.000\t1.460\n1.480\t1.970\n3.000\t3.460\n"},
  };
  for (const auto& c : kCases) {
    fake_toolkit::g_state.max_segment_frames = c.max_segment_frames;
    std::vector<std::string> args = {"--conf", conf_, wav_};
    args.insert(args.begin(), c.args.begin(), c.args.end());
    ToolRun r = RunTool(args);
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, c.want);
  }
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
    const std::vector<int16_t> pcm = tovad_test::ReadAudio(out_dir + "/" + w.name);
    ASSERT_EQ(pcm.size(), w.frames * 160) << w.name;
    EXPECT_TRUE(std::equal(pcm.begin(), pcm.end(), two_bursts_.begin() + w.first_frame * 160))
        << w.name << " holds other audio than the input";
  }
}

// Each file of a run in its own object; one that ends inside a segment
// closes it at its end, one without voice gives an empty list.
TEST_F(TovadCliTest, JsonDescribesEveryFile) {
  const std::string open = dir_ + "/open \"name\".wav", quiet = dir_ + "/quiet.wav";
  ASSERT_TRUE(WriteAudio(open, SF_FORMAT_WAV, 16000, 1, ToneBursts(3.005, {{2.5, 3.005}})));
  ASSERT_TRUE(WriteAudio(quiet, SF_FORMAT_WAV, 16000, 1, ToneBursts(1.0, {})));
  ToolRun r = RunTool({"--conf", conf_, "--format", "json", wav_, open, quiet});
  ASSERT_EQ(r.code, 0) << r.err;
  auto file = [](const std::string& name, const char* rest) {
    return R"({"file": ")" + name + R"(", "sample_rate": 16000, "channels": 1, "duration": )" +
           rest + "]}";
  };
  EXPECT_EQ(r.out,
            R"({"files": [)" +
                file(wav_, R"(5.000, "segments": [{"start": 1.000, "end": 2.000}, )"
                           R"({"start": 3.000, "end": 3.500})") +
                ", " +
                file(dir_ + R"(/open \"name\".wav)",
                     R"(3.005, "segments": [{"start": 2.500, "end": 3.005, )"
                     R"("cut_by_end_of_input": true})") +
                ", " + file(quiet, R"(1.000, "segments": [)") + "]}\n");
}

// 2000 segments on two workers: the text of each file outgrows what its
// spool keeps in memory, so most of it goes out through the spool's
// temporary file, and waits there until printed in order.
TEST_F(TovadCliTest, LongStreamGivesEverySegmentInOrder) {
  constexpr int kBursts = 2000;  // 0.1 s of tone every 0.2 s
  Spans spans;
  for (int k = 0; k < kBursts; ++k) spans.push_back({0.2 * k + 0.1, 0.2 * k + 0.2});
  const std::string wav = dir_ + "/long.wav";
  ASSERT_TRUE(WriteAudio(wav, SF_FORMAT_WAV, 16000, 1, ToneBursts(0.2 * kBursts, spans)));

  std::string want_lines;
  for (const auto& [a, b] : spans) {
    char line[64];
    std::snprintf(line, sizeof(line), "\t%.3f\t%.3f\n", a, b);
    want_lines += wav + line;
  }
  want_lines += wav_ + "\t1.000\t2.000\n" + wav_ + "\t3.000\t3.500\n";
  ToolRun lines = RunTool({"--conf", conf_, "-j", "2", wav, wav_});
  EXPECT_EQ(lines.code, 0) << lines.err;
  EXPECT_TRUE(lines.out == want_lines) << lines.out.substr(0, 200);
}

// A spool holds at most about its limit in memory whatever goes through it,
// and gives back exactly what went in, pieces larger than the limit too.
TEST(TextSpoolTest, KeepsLittleInMemoryAndGivesBackEveryByte) {
  constexpr size_t kLimit = 256;
  tovad_cli::TextSpool spool(kLimit);
  std::string want;
  for (int i = 0; i < 5000; ++i) {
    const std::string piece = i % 997 == 0 ? std::string(3 * kLimit, static_cast<char>('a' + i % 26))
                                           : std::to_string(i) + (i % 7 == 0 ? "\n" : ", ");
    spool.Append(piece);
    want += piece;
    ASSERT_LT(spool.memory_bytes(), 2 * kLimit) << "after " << i << " pieces";
  }
  EXPECT_EQ(spool.size(), want.size());
  EXPECT_EQ(spool.back(), want.back());
  FILE* out = std::tmpfile();
  ASSERT_TRUE(spool.WriteTo(out));
  std::string got(static_cast<size_t>(std::ftell(out)), '\0');
  std::rewind(out);
  EXPECT_EQ(std::fread(&got[0], 1, got.size(), out), got.size());
  std::fclose(out);
  EXPECT_TRUE(got == want) << got.size() << " of " << want.size() << " bytes";
}

// A resampled stereo input, a lossy one too, may move a boundary by one
// frame, where the level crosses the detector's threshold.  (A lossless
// 16 kHz mono file of any kind takes the path of the fixture's WAV.)
TEST_F(TovadCliTest, OtherInputsGiveTheSegmentsOfThe16kMonoInput) {
  const struct {
    int sf_format;
    const char* extension;
    int rate;
  } kCases[] = {{SF_FORMAT_WAV, "wav", 44100}, {SF_FORMAT_WAV, "wav", 8000},
                {SF_FORMAT_OGG, "ogg", 48000}};
  for (const auto& c : kCases) {
    const std::string path = dir_ + "/input." + c.extension;
    SCOPED_TRACE(path + " at " + std::to_string(c.rate));
    ASSERT_TRUE(WriteAudio(path, c.sf_format, c.rate, 2,
                           tovad_test::ToStereoAtRate(two_bursts_, c.rate)));
    ToolRun r = RunTool({"--conf", conf_, "--format", "json", path});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(JsonNumbers(r.out, "sample_rate"), std::vector<double>{double(c.rate)});
    EXPECT_EQ(JsonNumbers(r.out, "channels"), std::vector<double>{2.0});
    EXPECT_NEAR(JsonNumbers(r.out, "duration").at(0), 5.0, 0.001);
    tovad_test::ExpectSpansNear(JsonSpans(r.out), {{1.0, 2.0}, {3.0, 3.5}}, 0.0101);
  }
}

TEST_F(TovadCliTest, RelativeModelPathsAreTakenFromTheConfDirectory) {
  RunTool({"--conf", conf_, wav_});
  EXPECT_EQ(fake_toolkit::g_state.init_file, "tovad.conf");
  EXPECT_EQ(fake_toolkit::g_state.init_dir, model_);

  const std::string conf = FreshDir("absolute") + "/abs.conf";
  std::string text = ConfText();
  for (const std::string f : {"model.json", "model.params", "model.meanvar"})
    text.replace(text.find(f), f.size(), model_ + "/" + f);
  WriteBytes(conf, text);
  ToolRun r = RunTool({"--conf", conf, wav_});
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(fake_toolkit::g_state.init_file, conf);
  EXPECT_EQ(fake_toolkit::g_state.init_dir, "(null)");
}

TEST_F(TovadCliTest, HelpAndVersion) {
  for (const auto& [option, head] : {std::pair{"--help", "Usage: tovad [OPTIONS] FILE...\n"},
                                     std::pair{"-V", "tovad "}}) {
    ToolRun r = RunTool({option});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out.rfind(head, 0), 0u) << r.out;
  }
  EXPECT_EQ(fake_toolkit::g_state.init_calls, 0);
}

// Each error is one line and exit code 2, found before the library is
// asked.  "@conf", "@wav" and "@dir" stand for the fixture's files;
// a conf_extra or a meanvar count makes a fresh model directory.
TEST_F(TovadCliTest, ErrorsAreOneLineBeforeTheLibraryIsAsked) {
  const struct {
    const char* args;
    const char* conf_extra;
    const char* message;
    int meanvar_numbers = 240;
  } kCases[] = {
      {"--conf @conf", "", "no input file"},
      {"--loud @wav", "", "unknown option '--loud'"},
      {"@wav --conf", "", "needs a value"},
      {"-f xml @wav", "", "unknown format 'xml'"},
      {"--conf @conf /nonexistent/a.wav", "", "cannot read '/nonexistent/a.wav'"},
      {"--conf @conf @dir", "", "cannot read '"},
      {"--conf /nonexistent/x.conf @wav", "", "cannot read conf '/nonexistent/x.conf'"},
      {"@wav", "", "no model found"},
      {"--model nope @wav", "", "/models/nope"},
      {"-m ../dense @wav", "", "bad model name '../dense'"},
      {"--conf @conf -w @wav @wav", "", "not a writable directory"},
      {"--conf @conf @wav", "path_to_json = gone.json\n", "cannot read path_to_json"},
      {"--conf @conf @wav", "path_to_obm = m.obm\n", "path_to_obm is not supported"},
      {"--conf @conf @wav", "path_to_param = /x/model.params\n", "all relative"},
      {"--conf @conf @wav", "", "holds 239 numbers, expected 240", 239},
      {"--conf @conf @wav", "compute_suspected_vad_end = 1\n",
       "missing key 'suspected_sil_to_voice_hangover'"},
      {"--conf @conf @wav", "feature_type = fbank\n", "feature_type 'fbank' is not supported"},
      {"--conf @conf @wav", "n_width = 64\n", "n_width must be 40 or 80"},
      {"--conf @conf @wav", "score_delay_frames = soon\n", "score_delay_frames"},
      {"--conf @conf -j 0 @wav", "", "bad job count '0'"},
      {"--conf @conf --jobs 2x @wav", "", "bad job count '2x'"},
      {"--conf @conf --raw-input --rate fast -", "", "bad rate 'fast'"},
      {"--conf @conf --raw-input --channels 0 -", "", "bad channel count '0'"},
      {"--conf @conf - -", "", "can be read only once"},
      {"--conf @conf --raw-input @wav", "", "--raw-input applies to standard input"},
      {"--conf @conf --rate 8000 -", "", "add --raw-input"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.args) + " " + c.conf_extra);
    fake_toolkit::g_state = fake_toolkit::State();
    std::string conf = conf_;
    if (*c.conf_extra != '\0' || c.meanvar_numbers != 240)
      conf = MakeModelDir("broken", ConfText(c.conf_extra), c.meanvar_numbers) + "/tovad.conf";
    const std::map<std::string, std::string> stand_ins = {
        {"@conf", conf}, {"@wav", wav_}, {"@dir", dir_}};
    std::vector<std::string> args;
    std::istringstream words(c.args);
    for (std::string w; words >> w;) args.push_back(stand_ins.count(w) ? stand_ins.at(w) : w);
    ExpectOneLineError(RunTool(args), c.message);
    EXPECT_EQ(fake_toolkit::g_state.init_calls, 0);
  }
}

}  // namespace
