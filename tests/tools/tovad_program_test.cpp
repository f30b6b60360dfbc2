// The tovad program run as a child process, on inputs that stop it before
// the library is asked: these need no model.
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

const std::string kConf = std::string(TOVAD_MODEL_DIR) + "/tovad.conf";

TEST(TovadProgramTest, UnreadableInputGivesExitCode2AndOneLine) {
  const std::string text = tovad_test::FreshDir("text") + "/not_audio.wav";
  std::ofstream(text) << "plain text\n";
  for (const std::string& f : {std::string("/nonexistent/input.wav"), text}) {
    SCOPED_TRACE(f);
    ExpectOneLineError(RunProgram({"--conf", kConf, f}), "tovad: cannot read '" + f + "'");
  }
}

TEST(TovadProgramTest, MissingModelGivesExitCode2AndOneLine) {
  const std::string dir = tovad_test::FreshDir("no_model");
  const std::string wav = dir + "/quiet.wav";
  ASSERT_TRUE(
      tovad_test::WriteAudio(wav, SF_FORMAT_WAV, 16000, 1, tovad_test::ToneBursts(1.0, {})));
  ExpectOneLineError(RunProgram({"--conf", dir + "/missing.conf", wav}), "cannot read conf");
  // A conf whose model files are not there.
  std::ofstream(dir + "/tovad.conf") << "path_to_json=net.json\npath_to_param=net.params\n"
                                        "path_to_meanvar=net.meanvar\nfeature_type=pcen\n"
                                        "n_batch=1\nn_chan=3\nn_height=8\nn_width=40\n"
                                        "n_classes=2\ntarget_class=1\nsil_to_voice_hangover=9\n"
                                        "voice_to_sil_hangover=29\nextra_leading_sil=20\n"
                                        "wakeup_threshold=0.5\ncutoff_n_frame_max_vad_length=0\n";
  ExpectOneLineError(RunProgram({"--conf", dir + "/tovad.conf", wav}), "cannot read path_to_json");
}

}  // namespace
