// The tovad program as a user drives it, with the dense bundled model on
// the sample recording under tests/data, whose speech spans were written by
// the script that made it (training/make_sample.py): quiet by default,
// standard input (whole and live), several files on several threads, and
// errors in one line.
#include <gtest/gtest.h>
#include <poll.h>
#include <sndfile.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <sstream>
#include <string>
#include <vector>

#include "tests/tools/tool_test_util.h"

namespace {

using tovad_test::ReadBytes;
using tovad_test::RunProgram;
using tovad_test::ToolRun;

const std::string kSample = std::string(TOVAD_TEST_DATA_DIR) + "/tovad_sample.wav";
const std::string kConf = std::string(TOVAD_MODEL_DIR) + "/tovad.conf";

TEST(TovadProgramTest, SegmentsOfTheSampleMatchItsLabels) {
  tovad_test::Spans labels;  // one "start end" line each, in seconds
  std::istringstream in(ReadBytes(std::string(TOVAD_TEST_DATA_DIR) + "/tovad_sample.lab"));
  for (double a, b; in >> a >> b;) labels.emplace_back(a, b);
  ASSERT_FALSE(labels.empty());
  ToolRun r = RunProgram({"--format", "json", "--conf", kConf, kSample});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.err, "") << "quiet by default";
  const auto files = tovad_test::ParseJson(r.out);
  ASSERT_EQ(files.size(), 1u);
  tovad_test::ExpectSpansNear(files[0].segments, labels, 0.05);
}

TEST(TovadProgramTest, LibraryStartUpShowsOnlyWhenVerbose) {
  ToolRun loud = RunProgram({"--conf", kConf, kSample, "-v"});
  ASSERT_EQ(loud.code, 0);
  EXPECT_NE(loud.err.find("INFO"), std::string::npos) << loud.err;
  EXPECT_NE(loud.out, "");
  ToolRun quiet = RunProgram({"--conf", kConf, kSample, "-v", "--quiet"});  // the last one counts
  ASSERT_EQ(quiet.code, 0) << quiet.err;
  EXPECT_EQ(quiet.err, "");
  EXPECT_EQ(quiet.out, loud.out);
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

// Standard input gives what the same audio gives as a file.
TEST(TovadProgramTest, StandardInputMatchesTheFile) {
  const std::vector<int16_t> sample = tovad_test::ReadAudio(kSample);
  const struct {
    int rate, channels;
    bool raw;
  } kCases[] = {{16000, 1, false}, {44100, 2, false}, {16000, 1, true}, {8000, 2, true}};
  for (const auto& c : kCases) {
    const std::string dir = tovad_test::FreshDir("stdin"), wav = dir + "/in.wav";
    SCOPED_TRACE(std::to_string(c.rate) + (c.raw ? " raw" : " wav"));
    const std::vector<int16_t> pcm =
        c.channels == 1 ? sample : tovad_test::ToStereoAtRate(sample, c.rate);
    ASSERT_TRUE(tovad_test::WriteAudio(wav, SF_FORMAT_WAV, c.rate, c.channels, pcm));
    ToolRun file = RunProgram({"--conf", kConf, wav});
    ASSERT_EQ(file.code, 0) << file.err;
    ASSERT_NE(file.out, "");
    std::string input = wav;
    std::vector<std::string> args = {"--conf", kConf};
    if (c.raw) {
      std::string bytes;  // little-endian whatever the host
      for (int16_t s : pcm) bytes += {static_cast<char>(s & 0xff), static_cast<char>(s >> 8 & 0xff)};
      input = dir + "/in.raw";
      tovad_test::WriteBytes(input, bytes);
      args.insert(args.end(), {"--raw-input", "--rate", std::to_string(c.rate), "--channels",
                               std::to_string(c.channels)});
    }
    args.push_back("-");
    ToolRun piped = RunProgram(args, input);
    EXPECT_EQ(piped.code, 0) << piped.err;
    EXPECT_EQ(piped.err, "");
    EXPECT_EQ(piped.out, file.out);
  }
}

// A segment is printed as soon as it closes, while the input is still open;
// the end of input closes one that is still open.
TEST(TovadProgramTest, LiveInputPrintsEachSegmentWhenItCloses) {
  std::vector<int16_t> pcm = tovad_test::ReadAudio(kSample);
  const size_t first_part = 5 * 16000;  // past the first segment's close
  pcm.resize(8 * 16000);                // ends inside the last segment
  int in[2], out[2];
  ASSERT_EQ(pipe(in) | pipe(out), 0);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    dup2(in[0], STDIN_FILENO), dup2(out[1], STDOUT_FILENO);
    close(in[0]), close(in[1]), close(out[0]), close(out[1]);
    execl(TOVAD_PROGRAM, TOVAD_PROGRAM, "--conf", kConf.c_str(), "--raw-input", "-",
          static_cast<char*>(nullptr));
    _exit(127);
  }
  close(in[0]), close(out[1]);
  signal(SIGPIPE, SIG_IGN);
  auto send = [&](size_t from, size_t to) {  // a pipe takes it whole or fails
    const size_t bytes = (to - from) * 2;
    for (size_t done = 0; done < bytes;) {
      const ssize_t n = write(in[1], reinterpret_cast<const char*>(pcm.data() + from) + done,
                              bytes - done);
      ASSERT_GT(n, 0);
      done += static_cast<size_t>(n);
    }
  };
  auto read_line = [&] {  // up to a newline, or nothing after 20 s
    std::string text;
    pollfd pfd = {out[0], POLLIN, 0};
    char c;
    while (poll(&pfd, 1, 20000) > 0 && read(out[0], &c, 1) == 1 && (text += c, c != '\n')) {
    }
    return text;
  };
  send(0, first_part);
  const std::string early = read_line();
  send(first_part, pcm.size());
  close(in[1]);
  const std::string second = read_line(), last = read_line();
  close(out[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(early, "0.820\t3.290\n") << "before the input ended";
  EXPECT_EQ(second, "4.580\t6.280\n");
  EXPECT_EQ(last, "7.640\t8.000\n") << "cut by the end of input";
}

// The parallel run names the bundled model rather than its conf: both find
// the same model.
TEST(TovadProgramTest, JobsKeepArgumentOrderAndResults) {
  const std::string dir = tovad_test::FreshDir("jobs");
  const std::vector<int16_t> pcm = tovad_test::ReadAudio(kSample);
  const std::vector<std::string> files = {kSample, dir + "/tail.wav", dir + "/stereo.flac",
                                          dir + "/silence.wav"};
  ASSERT_TRUE(tovad_test::WriteAudio(files[1], SF_FORMAT_WAV, 16000, 1,
                                     {pcm.begin() + static_cast<long>(pcm.size() / 2), pcm.end()}));
  ASSERT_TRUE(tovad_test::WriteAudio(files[2], SF_FORMAT_FLAC, 22050, 2,
                                     tovad_test::ToStereoAtRate(pcm, 22050)));
  ASSERT_TRUE(tovad_test::WriteAudio(files[3], SF_FORMAT_WAV, 16000, 1,
                                     std::vector<int16_t>(16000, 0)));
  std::vector<std::string> one = {"--conf", kConf}, three = {"--model", TOVAD_MODEL_NAME, "-j", "3"};
  one.insert(one.end(), files.begin(), files.end());
  three.insert(three.end(), files.begin(), files.end());
  ToolRun a = RunProgram(one), b = RunProgram(three);
  ASSERT_EQ(a.code, 0) << a.err;
  EXPECT_EQ(b.code, 0) << b.err;
  EXPECT_EQ(b.err, "") << "no progress line off a terminal";
  EXPECT_EQ(b.out, a.out);
  EXPECT_EQ(a.out.rfind(kSample + "\t0.820\t3.290\n", 0), 0u) << a.out;
}

TEST(TovadProgramTest, BadInputsFailInOneLine) {
  const std::pair<const char*, const char*> kCases[] = {
      {"/nonexistent/input.wav", "cannot read '/nonexistent/input.wav'"},
      {"-j 0 @sample", "bad job count '0'"},
      {"--jobs 2x @sample", "bad job count '2x'"},
      {"--raw-input --rate fast -", "bad rate 'fast'"},
      {"--raw-input --channels 0 -", "bad channel count '0'"},
      {"- -", "can be read only once"},
      {"--raw-input @sample", "--raw-input applies to standard input"},
      {"--rate 8000 -", "add --raw-input"},
  };
  for (const auto& [words, message] : kCases) {
    SCOPED_TRACE(words);
    std::vector<std::string> args = {"--conf", kConf};
    std::istringstream in(words);
    for (std::string w; in >> w;) args.push_back(w == "@sample" ? kSample : w);
    tovad_test::ExpectOneLineError(RunProgram(args), message);
  }
}

}  // namespace
