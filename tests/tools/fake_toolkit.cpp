// A test double of the part of the toolkit interface the tool calls: a
// level detector that keeps the interface's contract (positions in frames since the last reset, frozen
// after an end until a reset, hangovers counted as the real decision stage
// counts them, raw audio from the start to the newest frame), so the
// tool's segment loop can be checked without a model.
#include "tests/tools/fake_toolkit.h"

#include <cstdlib>
#include <vector>

#include "tovadmod/tovad_api.h"

namespace fake_toolkit {

State g_state;

namespace {

struct Handle {
  std::vector<short> frame;
  std::vector<short> history;
  int frame_cnt = 0;
  int n_voice = 0;
  int n_sil = 0;
  int vad_start = -1;
  int vad_end = -1;
  bool cut_pending = false;
};

Handle* H(void* h) { return static_cast<Handle*>(h); }

void RunFrame(Handle* h, int* vad_start, int* vad_end) {
  const int index = h->frame_cnt++;
  h->history.insert(h->history.end(), h->frame.begin(), h->frame.end());
  long sum = 0;
  for (short s : h->frame) sum += std::labs(s);
  const bool voice = sum / kFrame > kLevel;
  h->n_voice = voice ? h->n_voice + 1 : 0;
  h->n_sil = voice ? 0 : h->n_sil + 1;
  // A cut decided on the previous frame shows up now, as the real one does.
  if (h->cut_pending) {
    h->cut_pending = false;
    h->vad_end = index - 2;
  } else if (h->vad_start < 0) {
    if (h->n_voice > kSilToVoice) {
      h->vad_start = index - kSilToVoice - kLeadingSil;
      if (h->vad_start < 0) h->vad_start = 0;
    }
  } else if (h->vad_end < 0) {
    if (h->n_sil > kVoiceToSil) {
      h->vad_end = index - 1;
    } else if (g_state.max_segment_frames > 0 &&
               index - h->vad_start + 1 >= g_state.max_segment_frames) {
      h->cut_pending = true;
    }
  }
  *vad_start = h->vad_start;
  *vad_end = h->vad_end;
}

}  // namespace

}  // namespace fake_toolkit

using fake_toolkit::g_state;
using fake_toolkit::H;

void* Tovad_toolkit_init(const char* config_file, const char* config_path) {
  g_state.init_file = config_file;
  g_state.init_dir = config_path == nullptr ? "(null)" : config_path;
  ++g_state.init_calls;
  ++g_state.live_handles;
  return new fake_toolkit::Handle;
}

int Tovad_toolkit_predict(void* handle, int n_samples, const short* pcm, int* vad_start,
                          int* vad_end) {
  auto* h = H(handle);
  for (int i = 0; i < n_samples; ++i) {
    h->frame.push_back(pcm[i]);
    if (static_cast<int>(h->frame.size()) == fake_toolkit::kFrame) {
      fake_toolkit::RunFrame(h, vad_start, vad_end);
      h->frame.clear();
    }
  }
  return 0;
}

int Tovad_toolkit_reset(void* handle, bool) {
  auto* h = H(handle);
  h->frame.clear();
  h->history.clear();
  h->frame_cnt = 0;
  h->vad_start = h->vad_end = -1;
  h->cut_pending = false;
  h->n_voice = h->n_sil = 0;
  return 0;
}

int Tovad_toolkit_destory(void* handle) {
  delete H(handle);
  --g_state.live_handles;
  return 0;
}

int Tovad_toolkit_get_vad_segment_raw_data(void* handle, int* n_samples, short** data) {
  auto* h = H(handle);
  if (h->vad_start < 0) {
    *n_samples = 0;
    *data = nullptr;
    return 0;
  }
  const int len = h->frame_cnt - h->vad_start;
  *data = h->history.data() + static_cast<size_t>(h->vad_start) * fake_toolkit::kFrame;
  *n_samples = len * fake_toolkit::kFrame;
  return 0;
}

int Tovad_toolkit_get_voice_to_sil_th(void*) { return fake_toolkit::kVoiceToSil; }
int Tovad_toolkit_get_sil_to_voice_th(void*) { return fake_toolkit::kSilToVoice; }
