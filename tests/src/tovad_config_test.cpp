#include "src/tovad_config.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace Tovad_toolkit {
namespace {

// Loads `text` from a per-process file (CTest runs the cases in parallel).
ConfigMap LoadText(const std::string& text) {
  const std::string path = testing::TempDir() + "/" + std::to_string(getpid()) + "_case.conf";
  std::ofstream(path, std::ios::binary) << text;
  testing::internal::CaptureStderr();
  ConfigMap m = load_conf(path.c_str());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "load_conf prints nothing";
  return m;
}

TEST(LoadConfTest, Grammar) {
  const struct {
    const char* text;
    ConfigMap expected;
  } cases[] = {
      {"a = 1 # note\n", {{"a", "1"}}},
      {"a=b c\n key x = y z \n", {{"a", "bc"}, {"keyx", "yz"}}},
      {"a=1=2\nb=c=d=\n", {{"a", "1=2"}, {"b", "c=d="}}},  // later '=' stay in the value
      {"#a=1\na#b=1\n#\n", {}},
      {"a=1#=2\n", {{"a", "1"}}},
      {"k=1\nk=2\n", {{"k", "2"}}},
      {"=x\ny=\n", {{"", "x"}, {"y", ""}}},
      {"just words\n\n\n", {}},
      {"a=1\r\nb\t=2\r\n", {{"a", "1\r"}, {"b\t", "2\r"}}},
      {"", {}},
      // Without a final newline the EOF byte (0xFF, \377) stays behind the
      // value, followed by what the line before left in the buffer.
      {"abc=123\nb=2", {{"abc", "123"}, {"b", "2\377123"}}},
  };
  for (const auto& c : cases) EXPECT_EQ(LoadText(c.text), c.expected) << c.text;
}

TEST(LoadConfTest, LongLinesSplitAt512Bytes) {
  ConfigMap m = LoadText("k=" + std::string(509, 'v') + "\n");
  EXPECT_EQ(m["k"].size(), 509u);
  // The first 512 bytes form one line without terminator; the rest starts
  // a new line of its own.
  m = LoadText("k=" + std::string(510, 'v') + "x=tail\n");
  EXPECT_EQ(m["x"], "tail");
  EXPECT_EQ(m["k"].substr(0, 510), std::string(510, 'v'));
}

TEST(ConfigConversionTest, UncheckedConversions) {
  EXPECT_EQ(config_to_int("42"), 42);
  EXPECT_EQ(config_to_int("-7x"), -7);
  EXPECT_EQ(config_to_int("abc"), 0);
  EXPECT_EQ(config_to_int("4294967297"), 1);  // truncated to 32 bits
  EXPECT_EQ(config_to_int("2\377123"), 2);
  EXPECT_FLOAT_EQ(config_to_float("0.35"), 0.35f);
  EXPECT_EQ(config_to_float("none"), 0.0f);
}

// The prefix goes before the model paths only, always with a slash (also
// before an absolute path or none); a null or empty prefix adds nothing.
TEST(LoadConfWithPrefixTest, PrefixesOnlyModelPaths) {
  const std::string dir = testing::TempDir() + "/prefix_case_" + std::to_string(getpid());
  ASSERT_EQ(system(("mkdir -p " + dir).c_str()), 0);
  const std::string file = dir + "/vad.conf";
  std::ofstream(file) << "path_to_json=m.json\npath_to_param=/abs/m.params\n"
                         "path_to_meanvar=\nrt_log_path=log.txt\n";
  const std::string slashed = dir + "/";
  for (const char* path : {dir.c_str(), slashed.c_str(), static_cast<const char*>(nullptr), ""}) {
    const bool prefixed = path != nullptr && *path != '\0';
    ConfigMap m = load_conf_with_prefix(prefixed ? "vad.conf" : file.c_str(), path);
    const std::string prefix = prefixed ? std::string(path) + "/" : "";
    EXPECT_EQ(m["path_to_json"], prefix + "m.json");
    EXPECT_EQ(m["path_to_param"], prefix + "/abs/m.params");
    EXPECT_EQ(m["path_to_meanvar"], prefix);
    EXPECT_EQ(m["rt_log_path"], "log.txt");
  }
}

}  // namespace
}  // namespace Tovad_toolkit
