#ifndef TESTS_TOOLS_FAKE_TOOLKIT_H_
#define TESTS_TOOLS_FAKE_TOOLKIT_H_

#include <string>

namespace fake_toolkit {

constexpr int kFrame = 160;
// Mean absolute sample above which a frame is voice.
constexpr long kLevel = 1000;
constexpr int kSilToVoice = 2;
constexpr int kVoiceToSil = 5;
constexpr int kLeadingSil = 3;

// What the tests read back or set.
struct State {
  std::string init_file;
  std::string init_dir;
  int init_calls = 0;
  int live_handles = 0;
  int max_segment_frames = 0;  // > 0: cut an open segment at this length
};
extern State g_state;

}  // namespace fake_toolkit

#endif  // TESTS_TOOLS_FAKE_TOOLKIT_H_
