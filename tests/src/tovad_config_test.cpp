#include "src/tovad_config.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace Tovad_toolkit {
namespace {

// Writes `text` to a fresh file in the test's temporary directory.
std::string WriteFile(const std::string& name, const std::string& text) {
  // Per process: CTest runs the cases of this file in parallel.
  const std::string path = testing::TempDir() + "/" + std::to_string(getpid()) + "_" + name;
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

ConfigMap LoadText(const std::string& text) {
  testing::internal::CaptureStderr();
  ConfigMap m = load_conf(WriteFile("conf_case.conf", text).c_str());
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
  };
  for (const auto& c : cases) EXPECT_EQ(LoadText(c.text), c.expected) << c.text;
}

TEST(LoadConfTest, MissingFinalNewlineKeepsTheEofByte) {
  // The EOF byte (0xFF) stays behind the value, followed by what the line
  // before left in the buffer up to its terminator.
  ConfigMap m = LoadText("abc=123\nb=2");
  ASSERT_EQ(m.count("b"), 1u);
  EXPECT_EQ(m["b"], std::string("2\xFF"
                                "123"));
  EXPECT_EQ(m["abc"], "123");
  EXPECT_EQ(config_to_int(m["b"]), 2);
}

TEST(LoadConfTest, LongLinesSplitAt512Bytes) {
  const std::string exact = std::string("k=") + std::string(509, 'v') + "\n";
  ConfigMap m = LoadText(exact);
  EXPECT_EQ(m["k"].size(), 509u);

  // 600 bytes: the first 512 form one line without terminator; the rest
  // starts a new line of its own.
  const std::string over = std::string("k=") + std::string(510, 'v') + "x=tail\n";
  m = LoadText(over);
  EXPECT_EQ(m["x"], "tail");
  EXPECT_EQ(m["k"].substr(0, 510), std::string(510, 'v'));
}

TEST(ConfigConversionTest, UncheckedConversions) {
  EXPECT_EQ(config_to_int("42"), 42);
  EXPECT_EQ(config_to_int("-7x"), -7);
  EXPECT_EQ(config_to_int("abc"), 0);
  EXPECT_EQ(config_to_int("4294967297"), 1);  // truncated to 32 bits
  EXPECT_FLOAT_EQ(config_to_float("0.35"), 0.35f);
  EXPECT_EQ(config_to_float("none"), 0.0f);
}

TEST(LoadConfWithPrefixTest, PrefixesOnlyModelPathsAndAlwaysAddsASlash) {
  const std::string dir = testing::TempDir() + "/prefix_case_" + std::to_string(getpid());
  ASSERT_EQ(system(("mkdir -p " + dir).c_str()), 0);
  std::ofstream(dir + "/vad.conf") << "path_to_json=m.json\npath_to_param=/abs/m.params\n"
                                      "path_to_meanvar=\nrt_log_path=log.txt\n";
  for (const std::string& path : {dir, dir + "/"}) {
    testing::internal::CaptureStderr();
    ConfigMap m = load_conf_with_prefix("vad.conf", path.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "INFO: using config_file <vad.conf> and prefix config_path <" + path + ">\n");
    const std::string prefix = path + "/";
    EXPECT_EQ(m["path_to_json"], prefix + "m.json");
    EXPECT_EQ(m["path_to_param"], prefix + "/abs/m.params");
    EXPECT_EQ(m["path_to_meanvar"], prefix);
    EXPECT_EQ(m["rt_log_path"], "log.txt");
    EXPECT_EQ(m.count("path_to_obm"), 0u);
  }
}

TEST(LoadConfWithPrefixTest, NoPrefixForNullOrEmptyPath) {
  const std::string file = WriteFile("plain.conf", "path_to_json=m.json\n");
  for (const char* path : {static_cast<const char*>(nullptr), ""}) {
    testing::internal::CaptureStderr();
    ConfigMap m = load_conf_with_prefix(file.c_str(), path);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "INFO: using config_file <" + file + "> and not use prefix config_path\n");
    EXPECT_EQ(m["path_to_json"], "m.json");
  }
}

TEST(LookupConfigTest, UserValueThenDefaultEachLogged) {
  const ConfigMap user = {{"n_batch", "1"}};
  const ConfigMap defaults = {{"n_batch", "4"}, {"am_skip_num", "0"}};
  testing::internal::CaptureStderr();
  EXPECT_EQ(lookup_config(user, defaults, "n_batch", "src/test", 1), "1");
  EXPECT_EQ(lookup_config(user, defaults, "am_skip_num", "src/test", 2), "0");
  EXPECT_EQ(find_config(user, defaults, "absent"), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "INFO: use user`s value <1> for key <n_batch>\n"
            "INFO: use default value <0> for key <am_skip_num>\n");
}

TEST(LoadConfDeathTest, MissingKeyAndUnopenableFileAbort) {
  EXPECT_DEATH(lookup_config({}, {}, "target_class", "src/post_process", 77),
               "^src/post_process:77 ERROR: can`t read value of key <target_class>\n$");
  EXPECT_DEATH(load_conf("/nonexistent/dir/vad.conf"),
               "^src/tovad_api:[0-9]+ ERROR: config file at path "
               "<\\/nonexistent\\/dir\\/vad\\.conf> not found$");
}

}  // namespace
}  // namespace Tovad_toolkit
