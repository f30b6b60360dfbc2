// Hostile model files: thousands of mutated parameter and symbol files, each
// loaded in a child process.  A load may succeed or end in the fatal report
// of a check (SIGABRT after "# Fatal error in"); anything else -- a
// sanitizer report, another signal, a hang -- fails.  The mutations come
// from a fixed seed, so a failure reproduces; the offending file is saved
// and its path printed.

#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "ruvo/io.h"
#include "ruvo/json_load.h"
#include "ruvo/ndarray.h"

#if defined(__SANITIZE_ADDRESS__)
#define RUVO_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define RUVO_TEST_ASAN 1
#endif
#endif
#ifndef RUVO_TEST_ASAN
#define RUVO_TEST_ASAN 0
#endif

// Outside the sanitizer build, allocations in a child are capped: a reader
// that sizes something from a length field before the stream has shown the
// bytes exist allocates far beyond any seed file and ends the child with a
// distinct status.  (The sanitizer build has its own allocator; there the
// test looks for memory errors instead.)
#if !RUVO_TEST_ASAN
extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* ptr, size_t size);

static size_t g_alloc_cap = SIZE_MAX;

[[noreturn]] static void OverCap(size_t size) {
  char msg[80];
  int len = snprintf(msg, sizeof(msg), "allocation of %zu bytes\n", size);
  if (len > 0 && write(2, msg, static_cast<size_t>(len)) < 0) _exit(6);
  _exit(6);
}

extern "C" void* malloc(size_t size) {
  if (size > g_alloc_cap) OverCap(size);
  return __libc_malloc(size);
}
extern "C" void* calloc(size_t count, size_t size) {
  if (size != 0 && count > g_alloc_cap / size) OverCap(count * size);
  return __libc_calloc(count, size);
}
extern "C" void* realloc(void* ptr, size_t size) {
  if (size > g_alloc_cap) OverCap(size);
  return __libc_realloc(ptr, size);
}

static void CapAllocations() { g_alloc_cap = size_t{64} << 20; }
#else
static void CapAllocations() {}
#endif

namespace orvik {
namespace ruvo {
namespace {

constexpr bool kSanitized = RUVO_TEST_ASAN;

// Mutated files per kind.  The sanitizer build forks a heavier process and
// runs slower code; fewer files keep the whole test well under a minute
// there.
// TOVAD_TEST_MUTATIONS, when set, lowers it for emulated runs.
const int kMutations = std::getenv("TOVAD_TEST_MUTATIONS") != nullptr
                           ? std::atoi(std::getenv("TOVAD_TEST_MUTATIONS"))
                           : (kSanitized ? 2000 : 3000);
constexpr uint32_t kSeed = 20261122;
// A child that runs longer than this is taken as a hang.
constexpr unsigned kChildSeconds = 20;

std::string ReadDataFile(const std::string& name) {
  std::ifstream in(std::string(TOVAD_TEST_DATA_DIR) + "/ruvo/" + name, std::ios::binary);
  EXPECT_TRUE(in.good()) << "missing test data " << name;
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Uniform enough for mutation choices, and the same on every platform
// (the standard distributions are not).
size_t Below(std::mt19937& rng, size_t n) { return n == 0 ? 0 : rng() % n; }

void PutWord(std::string* s, size_t pos, const void* value, size_t width) {
  if (s->size() < width) return;
  pos = std::min(pos, s->size() - width);
  memcpy(&(*s)[pos], value, width);
}

// Byte-level mutations, biased towards the values that make length and
// count fields interesting.
void MutateBytes(std::string* s, std::mt19937& rng) {
  static const uint32_t kWords[] = {0,     1,          2,          4,          5,
                                    7,     16,         255,        65536,      0x7FFFFFFF,
                                    1u << 31, 0xFFFFFFFF, 0xFFFFFFFE, 0xF993FAC8, 0xF993FAC9};
  // Pairs of 32-bit dimensions whose product wraps in 32 bits, too.
  static const uint64_t kLongs[] = {
      0,         1,           0x112,      0x113,      1ull << 32,         1ull << 62,        ~0ull,
      ~0ull - 7, 0x100000003, 1ull << 31, 1000000000, 0x0001000000010000, 0x0000800000020000};
  switch (Below(rng, 8)) {
    case 0:  // flip a bit
      if (!s->empty()) (*s)[Below(rng, s->size())] ^= static_cast<char>(1u << Below(rng, 8));
      break;
    case 1:  // a random byte
      if (!s->empty()) (*s)[Below(rng, s->size())] = static_cast<char>(rng());
      break;
    case 2: {  // an interesting 32-bit word at a 4-byte boundary
      uint32_t w = kWords[Below(rng, sizeof(kWords) / sizeof(kWords[0]))];
      PutWord(s, Below(rng, s->size() / 4 + 1) * 4, &w, 4);
      break;
    }
    case 3: {  // an interesting 64-bit word anywhere
      uint64_t w = kLongs[Below(rng, sizeof(kLongs) / sizeof(kLongs[0]))];
      size_t pos = Below(rng, s->size() + 1);
      if (Below(rng, 2) == 0) pos &= ~size_t{3};
      PutWord(s, pos, &w, 8);
      break;
    }
    case 4:  // truncate
      s->resize(Below(rng, s->size() + 1));
      break;
    case 5: {  // delete a range
      size_t pos = Below(rng, s->size() + 1);
      s->erase(pos, Below(rng, 32) + 1);
      break;
    }
    case 6: {  // duplicate a range
      size_t pos = Below(rng, s->size() + 1);
      std::string part = s->substr(pos, Below(rng, 64) + 1);
      s->insert(Below(rng, s->size() + 1), part);
      break;
    }
    case 7: {  // insert random bytes
      std::string junk(Below(rng, 8) + 1, '\0');
      for (char& c : junk) c = static_cast<char>(rng());
      s->insert(Below(rng, s->size() + 1), junk);
      break;
    }
  }
}

template <typename T>
T Get(const std::string& s, size_t pos) {
  T v;
  memcpy(&v, s.data() + pos, sizeof(v));
  return v;
}

// Where the count and length fields of a well-formed parameter file lie,
// so that mutations can aim at them instead of hoping to hit them.
struct Field {
  size_t pos, width;
};
struct ParamLayout {
  std::vector<Field> fields;             // counts, ndims, dimensions, type flags, name lengths
  std::vector<std::vector<Field>> dims;  // the dimensions of each array
};

ParamLayout LayoutOf(const std::string& file) {
  ParamLayout layout;
  size_t pos = 16;
  layout.fields.push_back({pos, 8});
  const uint64_t count = Get<uint64_t>(file, pos);
  pos += 8;
  for (uint64_t k = 0; k < count; ++k) {
    const bool modern = Get<uint32_t>(file, pos) == 0xF993FAC8;
    const size_t ndim_pos = modern ? pos + 4 : pos, width = modern ? 8 : 4;
    layout.fields.push_back({ndim_pos, 4});
    const uint32_t ndim = Get<uint32_t>(file, ndim_pos);
    pos = ndim_pos + 4;
    uint64_t size = 1;
    layout.dims.emplace_back();
    for (uint32_t d = 0; d < ndim; ++d, pos += width) {
      layout.fields.push_back({pos, width});
      layout.dims.back().push_back({pos, width});
      size *= Get<uint32_t>(file, pos);
    }
    if (ndim != 0) {
      layout.fields.push_back({pos + 8, 4});  // the type flag
      pos += 12 + size * orvik_sizeof(Get<int32_t>(file, pos + 8));
    }
  }
  layout.fields.push_back({pos, 8});
  const uint64_t names = Get<uint64_t>(file, pos);
  pos += 8;
  for (uint64_t k = 0; k < names; ++k) {
    layout.fields.push_back({pos, 8});
    pos += 8 + Get<uint64_t>(file, pos);
  }
  EXPECT_EQ(pos, file.size()) << "seed file layout";
  return layout;
}

// Sets one field of a pristine file to an interesting value or one off its
// own, or every dimension of one array to 65536 (the element count wraps to
// 0 in 32 bits).  Of a 64-bit dimension only the low 32 bits are kept.
void MutateField(std::string* s, const ParamLayout& layout, std::mt19937& rng) {
  static const uint64_t kValues[] = {0,          1,          2,           3,         4,
                                     5,          6,          7,           65536,     0x7FFFFFFF,
                                     0x80000000, 0xFFFFFFFF, 0x100000003, 1ull << 33, 1ull << 40,
                                     ~0ull - 3,  ~0ull};
  if (Below(rng, 5) == 0 && !layout.dims.empty()) {
    for (const Field& f : layout.dims[Below(rng, layout.dims.size())]) {
      const uint64_t v = 65536;
      PutWord(s, f.pos, &v, f.width);
    }
    return;
  }
  const Field& f = layout.fields[Below(rng, layout.fields.size())];
  uint64_t v = kValues[Below(rng, sizeof(kValues) / sizeof(kValues[0]))];
  if (Below(rng, 2) == 0) {
    v = (f.width == 8 ? Get<uint64_t>(*s, f.pos) : Get<uint32_t>(*s, f.pos)) + (Below(rng, 2) ? 1 : -1);
  }
  PutWord(s, f.pos, &v, f.width);  // little-endian: a 4-byte field takes the low half
}

// Mutations that keep a JSON text parseable most of the time, so that the
// reader's checks, not only the parser, see wrong types and wrong ids: a
// number becomes another value, or a byte-level change.
void MutateJson(std::string* s, std::mt19937& rng) {
  static const char* const kValues[] = {
      "-1", "0", "1", "2", "900", "901", "2147483647", "-2147483648", "1e300", "1.5",
      "99999999999", "null", "true", "[]", "{}", "[0]", "[0,0]", "[9,0]", "[-1,0,0]", "\"\"",
      "\"int\"", "\"null\"", "\"True\"", "{\"k\":1}", "[\"int\"]", "[\"int\",900]"};
  std::vector<std::pair<size_t, size_t>> numbers;
  for (size_t i = 0; i < s->size();) {
    const size_t len = strspn(s->c_str() + i, "-0123456789");
    if (len > 0) numbers.emplace_back(i, len);
    i += len > 0 ? len : 1;
  }
  if (numbers.empty() || Below(rng, 3) == 0) {
    MutateBytes(s, rng);
    return;
  }
  const auto t = numbers[Below(rng, numbers.size())];
  s->replace(t.first, t.second, kValues[Below(rng, sizeof(kValues) / sizeof(kValues[0]))]);
}

enum class Outcome { kClean, kFatal, kOther };

// Runs `load` in a child process with stderr captured.
Outcome RunInChild(const std::function<void()>& load, std::string* report, int* status_out) {
  int fds[2];
  fflush(stdout);
  fflush(stderr);
  pid_t pid = pipe(fds) == 0 ? fork() : -1;
  if (pid < 0) {
    *report = "pipe or fork failed";
    return Outcome::kOther;
  }
  if (pid == 0) {
    close(fds[0]);
    dup2(fds[1], 2);
    close(fds[1]);
    alarm(kChildSeconds);
    CapAllocations();
    // An exception must not unwind into the test framework's copy in this
    // process: it would go on running the suite.
    try {
      load();
    } catch (...) {
      fputs("exception\n", stderr);
      _exit(3);
    }
    _exit(0);  // no exit handlers: the parent's state is not ours to finish
  }
  close(fds[1]);
  report->clear();
  char buf[4096];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof(buf))) > 0) report->append(buf, n);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  *status_out = status;
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return Outcome::kClean;
  if (WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT &&
      report->find("# Fatal error in") != std::string::npos) {
    return Outcome::kFatal;
  }
  return Outcome::kOther;
}

void LoadParams(const std::string& bytes) {
  // An exact-size copy: any read past the end is a heap overflow that the
  // sanitizer build reports.
  std::vector<char> block(bytes.begin(), bytes.end());
  io::MemoryFixedSizeStream fi(block.data(), block.size());
  std::vector<NDArray> data;
  std::vector<std::string> names;
  NDArray::Load(&fi, data, names);
  // Every loaded array must own as many bytes as its shape and type claim,
  // counted without 32-bit wrap-around.
  for (const NDArray& a : data) {
    if (a.is_none()) continue;
    uint64_t count = 1;
    for (index_t d : a.shape()) {
      count = (d != 0 && count > UINT64_MAX / d) ? UINT64_MAX : count * d;
    }
    const size_t elem = orvik_sizeof(a.dtype());
    if (count > UINT64_MAX / elem || count * elem != a.chunk_->bytes_) {
      fprintf(stderr, "array of %zu bytes for a shape of %llu elements\n", a.chunk_->bytes_,
              static_cast<unsigned long long>(count));
      _exit(4);
    }
    std::vector<char> out(static_cast<size_t>(a.Size()) * orvik_sizeof(a.dtype()));
    a.SyncCopyTo(out.data(), a.Size());
  }
}

void LoadSymbol(const std::string& text) {
  cJSON* root = cJSON_Parse(text.c_str());
  JSONGraph graph;
  graph.Load(root);
  cJSON_Delete(root);
  // Every id the reader let through names a node.
  size_t n = 0;
  for (const JSONNode& node : graph.nodes) {
    for (const JSONNode::Entry& e : node.inputs) n += graph.nodes.at(e.node_id).inputs.size();
  }
  for (uint32_t id : graph.arg_nodes) n += graph.nodes.at(id).name.size();
  for (const JSONNode::Entry& e : graph.heads) n += graph.nodes.at(e.node_id).name.size();
  if (n == SIZE_MAX) fputs("unreachable", stderr);
}

struct Corpus {
  const char* name;
  std::vector<std::string> seeds;
  // Aimed mutations of a pristine seed (seed index, file), then blind ones.
  std::function<void(size_t, std::string*, std::mt19937&)> aim;
  std::function<void(std::string*, std::mt19937&)> mutate;
  std::function<void(const std::string&)> load;
};

void RunCorpus(const Corpus& corpus) {
  std::mt19937 rng(kSeed);
  int clean = 0, fatal = 0, other = 0;
  for (int i = 0; i < kMutations; ++i) {
    const size_t seed = i % corpus.seeds.size();
    std::string file = corpus.seeds[seed];
    const int aimed = corpus.aim ? static_cast<int>(Below(rng, 3)) : 0;
    for (int k = 0; k < aimed; ++k) corpus.aim(seed, &file, rng);
    const int blind = (aimed == 0 ? 1 : 0) + static_cast<int>(Below(rng, 3));
    for (int k = 0; k < blind; ++k) corpus.mutate(&file, rng);
    std::string report;
    int status = 0;
    const Outcome outcome = RunInChild([&] { corpus.load(file); }, &report, &status);
    clean += outcome == Outcome::kClean;
    fatal += outcome == Outcome::kFatal;
    if (outcome == Outcome::kOther && ++other <= 5) {  // the first few are enough to go on
      const std::string path =
          ::testing::TempDir() + "ruvo_mutation_" + corpus.name + "_" + std::to_string(i);
      std::ofstream(path, std::ios::binary) << file;
      ADD_FAILURE() << corpus.name << " mutation " << i << " (saved as " << path
                    << "): wait status " << status << ", stderr:\n"
                    << report.substr(0, 3000);
    }
  }
  EXPECT_EQ(other, 0);
  // Both outcomes must be common, or the mutations are too timid (all
  // loads clean) or too blunt (nothing gets past the first check).
  EXPECT_GT(clean, kMutations / 20) << "clean loads";
  EXPECT_GT(fatal, kMutations / 20) << "fatal reports";
  printf("%s: %d mutated files, %d clean loads, %d fatal reports, %d other\n", corpus.name,
         kMutations, clean, fatal, other);
}

TEST(MutationTest, ParameterFiles) {
  const std::vector<std::string> seeds = {
      ReadDataFile("params_modern.params"), ReadDataFile("params_legacy.params"),
      ReadDataFile("params_ten_nine.params"), ReadDataFile("params_empty.params")};
  std::vector<ParamLayout> layouts;
  for (const std::string& seed : seeds) layouts.push_back(LayoutOf(seed));
  RunCorpus({"params", seeds,
             [&](size_t seed, std::string* file, std::mt19937& rng) {
               MutateField(file, layouts[seed], rng);
             },
             MutateBytes, LoadParams});
}

TEST(MutationTest, SymbolFiles) {
  RunCorpus({"symbol",
             {ReadDataFile("symbol_new.json"), ReadDataFile("symbol_old.json")},
             nullptr,
             MutateJson,
             LoadSymbol});
}

}  // namespace
}  // namespace ruvo
}  // namespace orvik
