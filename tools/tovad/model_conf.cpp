#include "tools/tovad/model_conf.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#ifndef TOVAD_INSTALL_DATA_DIR
#define TOVAD_INSTALL_DATA_DIR "/usr/local/share/tovadmod"
#endif

namespace tovad_cli {
namespace {

bool ReadFile(const std::string& path, std::string* text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream ss;
  ss << in.rdbuf();
  *text = ss.str();
  return !in.bad();
}

std::string DirName(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string BaseName(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// A readable regular file; otherwise a reason.
bool CheckRegularFile(const std::string& path, std::string* why) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    *why = std::strerror(errno);
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    *why = "not a regular file";
    return false;
  }
  if (access(path.c_str(), R_OK) != 0) {
    *why = std::strerror(errno);
    return false;
  }
  return true;
}

bool ToInt(const std::string& s, long* v) {
  if (s.empty()) return false;
  char* end = nullptr;
  errno = 0;
  *v = std::strtol(s.c_str(), &end, 10);
  return errno == 0 && *end == '\0';
}

// Counts the numbers of a meanvar text; false at the first non-number.
bool CountNumbers(const std::string& text, long* count) {
  std::istringstream in(text);
  std::string word;
  *count = 0;
  while (in >> word) {
    char* end = nullptr;
    std::strtof(word.c_str(), &end);
    if (end == word.c_str() || *end != '\0') return false;
    ++*count;
  }
  return true;
}

}  // namespace

std::map<std::string, std::string> ParseConfText(const std::string& text) {
  std::map<std::string, std::string> m;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t eol = text.find('\n', pos);
    if (eol == std::string::npos) eol = text.size();
    std::string key, value;
    bool has_eq = false;
    for (size_t i = pos; i < eol; ++i) {
      const char c = text[i];
      if (c == '#') break;
      if (c == ' ') continue;
      if (c == '=' && !has_eq) {
        has_eq = true;
        continue;
      }
      (has_eq ? value : key) += c;
    }
    if (has_eq) m[key] = value;
    pos = eol + 1;
  }
  return m;
}

bool LoadModelConf(const std::string& conf_path, ModelConf* out, std::string* error) {
  std::string why;
  std::string text;
  if (!CheckRegularFile(conf_path, &why) || !ReadFile(conf_path, &text)) {
    *error = "cannot read conf '" + conf_path + "': " + (why.empty() ? "read error" : why);
    return false;
  }
  const std::map<std::string, std::string> conf = ParseConfText(text);
  auto fail = [&](const std::string& what) {
    *error = "conf '" + conf_path + "': " + what;
    return false;
  };
  auto has = [&](const char* k) { return conf.count(k) != 0; };

  std::vector<const char*> required = {"path_to_json",
                                       "path_to_param",
                                       "path_to_meanvar",
                                       "feature_type",
                                       "n_batch",
                                       "n_chan",
                                       "n_height",
                                       "n_width",
                                       "n_classes",
                                       "target_class",
                                       "sil_to_voice_hangover",
                                       "voice_to_sil_hangover",
                                       "extra_leading_sil",
                                       "wakeup_threshold",
                                       "cutoff_n_frame_max_vad_length"};
  long cutoff_max = 0;
  if (has("cutoff_n_frame_max_vad_length") &&
      ToInt(conf.at("cutoff_n_frame_max_vad_length"), &cutoff_max) && cutoff_max >= 51) {
    for (const char* k :
         {"cutoff_n_frame_min_vad_length", "cutoff_n_frame_judging", "cutoff_threshold"})
      required.push_back(k);
  }
  if (has("compute_suspected_vad_end") && conf.at("compute_suspected_vad_end") == "1") {
    for (const char* k :
         {"suspected_sil_to_voice_hangover", "suspected_voice_to_sil_hangover",
          "suspected_extra_leading_sil", "suspected_wakeup_threshold",
          "suspected_first_vad_seg_trigger_threshold", "suspected_first_vad_seg_extra_tailing_sil"})
      required.push_back(k);
  }
  for (const char* k : required)
    if (!has(k)) return fail(std::string("missing key '") + k + "'");

  const std::string& ft = conf.at("feature_type");
  if (ft != "pcen" && ft != "vad")
    return fail("feature_type '" + ft + "' is not supported (use pcen or vad)");
  long n_batch = 0, n_chan = 0, n_width = 0, n_height = 0;
  if (!ToInt(conf.at("n_batch"), &n_batch) || n_batch != 1) return fail("n_batch must be 1");
  if (!ToInt(conf.at("n_chan"), &n_chan) || !ToInt(conf.at("n_width"), &n_width) ||
      !ToInt(conf.at("n_height"), &n_height) || n_chan < 1 || n_width < 1 || n_height < 1)
    return fail("n_chan, n_height and n_width must be positive integers");
  if (ft == "pcen" && n_width != 40 && n_width != 80)
    return fail("n_width must be 40 or 80 for pcen features");
  if (has("score_delay_frames")) {
    long d = 0;
    if (!ToInt(conf.at("score_delay_frames"), &d) || d < 0 || d > 1000)
      return fail("score_delay_frames must be an integer from 0 to 1000");
    out->score_delay_frames = static_cast<int>(d);
  } else {
    out->score_delay_frames = kDefaultScoreDelayFrames;
  }

  // The library prefixes every model path with the conf's directory when
  // it is given one, absolute paths too; so relative paths are prefixed and
  // absolute ones are passed as they are, never both at once.
  const char* path_keys[] = {"path_to_obm", "path_to_json", "path_to_param", "path_to_meanvar"};
  int n_abs = 0, n_rel = 0;
  for (const char* k : path_keys) {
    if (!has(k) || conf.at(k).empty()) continue;
    (conf.at(k)[0] == '/' ? n_abs : n_rel) += 1;
  }
  if (n_abs > 0 && n_rel > 0)
    return fail("model paths must be all relative (to the conf) or all absolute");
  const bool prefixed = n_abs == 0;
  if (has("path_to_obm") && (prefixed || !conf.at("path_to_obm").empty()))
    return fail("path_to_obm is not supported; remove the key");

  const std::string dir = DirName(conf_path);
  auto resolve = [&](const std::string& p) { return prefixed ? dir + "/" + p : p; };
  for (const char* k : {"path_to_json", "path_to_param", "path_to_meanvar"}) {
    if (conf.at(k).empty()) return fail(std::string("key '") + k + "' is empty");
    const std::string p = resolve(conf.at(k));
    if (!CheckRegularFile(p, &why))
      return fail(std::string("cannot read ") + k + " '" + p + "': " + why);
  }
  std::string meanvar;
  const std::string mv_path = resolve(conf.at("path_to_meanvar"));
  if (!ReadFile(mv_path, &meanvar)) return fail("cannot read meanvar '" + mv_path + "'");
  long count = 0;
  if (!CountNumbers(meanvar, &count))
    return fail("meanvar '" + mv_path + "' holds something that is not a number");
  if (count != 2 * n_chan * n_width)
    return fail("meanvar '" + mv_path + "' holds " + std::to_string(count) + " numbers, expected " +
                std::to_string(2 * n_chan * n_width) + " (2 x n_chan x n_width)");

  out->conf_path = conf_path;
  if (prefixed) {
    out->init_file = BaseName(conf_path);
    out->init_dir = dir;
  } else {
    out->init_file = conf_path;
    out->init_dir.clear();
  }
  return true;
}

std::string ExecutableDir() {
  char buf[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  if (n <= 0) return ".";
  buf[n] = '\0';
  return DirName(buf);
}

bool IsModelName(const std::string& name) {
  if (name.empty()) return false;
  for (const char c : name) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '-' || c == '_';
    if (!ok) return false;
  }
  return true;
}

std::vector<std::string> BundledModelDirs(const std::string& exe_dir, const std::string& name) {
  const std::string sub = "/models/" + name;
  return {exe_dir + sub, exe_dir + "/../share/tovadmod" + sub,
          std::string(TOVAD_INSTALL_DATA_DIR) + sub};
}

}  // namespace tovad_cli
