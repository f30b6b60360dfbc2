// A program outside the tree: finds the voice segments of a 16 kHz mono
// 16-bit WAV with the plain 44-byte header through the installed library
// and prints them in frames.
#include <tovadmod/tovad_api.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: consumer MODEL_DIR CONF_NAME FILE.wav\n");
    return 2;
  }
  std::ifstream in(argv[3], std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
  if (bytes.size() <= 44) return 2;
  std::vector<short> pcm((bytes.size() - 44) / 2);
  std::copy(bytes.begin() + 44, bytes.begin() + 44 + pcm.size() * 2,
            reinterpret_cast<char*>(pcm.data()));
  void* vad = Tovad_toolkit_init(argv[2], argv[1]);
  int base = 0, segments = 0;
  for (size_t i = 0; i + 160 <= pcm.size(); i += 160) {
    int start = -1, end = -1;
    Tovad_toolkit_predict(vad, 160, pcm.data() + i, &start, &end);
    if (end < 0) continue;
    std::printf("%d %d\n", base + start, base + end);
    ++segments;
    base = static_cast<int>(i / 160) + 1;  // positions count from the reset
    Tovad_toolkit_reset(vad, false);
  }
  Tovad_toolkit_destory(vad);
  return segments > 0 ? 0 : 1;
}
