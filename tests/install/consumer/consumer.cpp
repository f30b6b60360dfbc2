// A program outside the tree: finds the voice segments of a 16 kHz mono
// 16-bit WAV through the installed library and prints them in frames.
#include <tovadmod/tovad_api.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: consumer MODEL_DIR CONF_NAME FILE.wav\n");
    return 2;
  }
  std::ifstream in(argv[3], std::ios::binary);
  char riff[12];
  if (!in.read(riff, 12) || std::memcmp(riff, "RIFF", 4) != 0) return 2;
  std::vector<short> pcm;
  char head[8];
  while (in.read(head, 8)) {  // walk the chunks to "data"
    uint32_t size;
    std::memcpy(&size, head + 4, 4);
    if (std::memcmp(head, "data", 4) != 0) {
      in.seekg(size + (size & 1), std::ios::cur);
      continue;
    }
    pcm.resize(size / 2);
    in.read(reinterpret_cast<char*>(pcm.data()), static_cast<std::streamsize>(pcm.size() * 2));
    break;
  }
  if (pcm.empty()) return 2;
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
