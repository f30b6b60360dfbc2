#ifndef TOOLS_TOVAD_MODEL_CONF_H_
#define TOOLS_TOVAD_MODEL_CONF_H_

#include <map>
#include <string>
#include <vector>

namespace tovad_cli {

// Name of the conf file inside a model directory.
constexpr const char* kConfName = "tovad.conf";

// Frames between the audio a score describes and the frame at which the
// library reports it, when the conf does not say (delta context 4, median
// filter 3).  A conf may state its own in `score_delay_frames`, a key the
// library ignores.
constexpr int kDefaultScoreDelayFrames = 7;

// How to hand a checked conf to Tovad_toolkit_init.
struct ModelConf {
  std::string conf_path;  // the file as named by the user or the lookup
  std::string init_file;  // first argument of Tovad_toolkit_init
  std::string init_dir;   // second argument; empty means none
  int score_delay_frames = kDefaultScoreDelayFrames;
};

// The conf grammar of the library: `key=value` lines, `#` starts a comment,
// blanks are dropped everywhere outside comments, the first `=` splits.
std::map<std::string, std::string> ParseConfText(const std::string& text);

// Reads and checks `conf_path` and every file it names, so that the
// library, which aborts on such faults, is asked only with a usable model.
// Relative model paths are taken relative to the conf's directory.  On
// failure returns false and sets `error` to one line.
bool LoadModelConf(const std::string& conf_path, ModelConf* out, std::string* error);

// The bundled model used when none is named.
constexpr const char* kDefaultModelName = "default";

// A name that can only be a directory of models/: letters, digits, '-' and
// '_' (so no path can be smuggled in).
bool IsModelName(const std::string& name);

// Directories searched for the bundled model `name`, in order: next to the
// program, the data directory relative to it, the installed data directory.
std::vector<std::string> BundledModelDirs(const std::string& exe_dir, const std::string& name);

// Directory of the running program (from /proc/self/exe).
std::string ExecutableDir();

}  // namespace tovad_cli

#endif  // TOOLS_TOVAD_MODEL_CONF_H_
