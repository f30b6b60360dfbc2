// The meanvar file, read by a whole handle start-up around a fixed small
// model, then one frame of audio through the handle.
#include <cstddef>
#include <cstdint>
#include <string>

#include "tovadmod/tovad_api.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static tovad_fuzz::MemFile meanvar;
  static tovad_fuzz::MemFile conf;
  static bool conf_written = false;
  if (!conf_written) {
    // The small toolkit model of the tests: 3 x 40 features, so the file
    // should hold 240 numbers.
    const std::string dir = TOVAD_TEST_DATA_DIR "/toolkit/";
    const std::string text = "path_to_json=" + dir + "tone_model.json\n" + "path_to_param=" +
                             dir + "tone_model.params\n" + "path_to_meanvar=" + meanvar.path() +
                             "\nfeature_type=pcen\n" +
                             "n_batch=1\nn_chan=3\nn_height=5\nn_width=40\nn_classes=2\n" +
                             "target_class=1\n";
    conf.Set(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    conf_written = true;
  }
  meanvar.Set(data, size);
  tovad_fuzz::RunCatchingFatal([&] {
    void* vad = Tovad_toolkit_init(conf.path().c_str(), nullptr);
    short pcm[160];
    for (int i = 0; i < 160; ++i) pcm[i] = static_cast<short>((i * 97) % 2001 - 1000);
    int start = -1, end = -1;
    Tovad_toolkit_predict(vad, 160, pcm, &start, &end);
    Tovad_toolkit_destory(vad);
  });
  return 0;
}
