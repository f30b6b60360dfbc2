#ifndef TOVAD_CONFIG_H_
#define TOVAD_CONFIG_H_

// The conf file and the key lookup every configurable class repeats.
//
// A configurable class keeps a `default_config` map and a private
//   std::string get_config(const ConfigMap& user, std::string key) {
//     return lookup_config(user, default_config, key, "src/<unit>", __LINE__);
//   }
// so each read is logged to stderr and a missing key aborts with the
// unit's name and line.

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

namespace Tovad_toolkit {

typedef std::map<std::string, std::string> ConfigMap;

// Reads `key=value` lines.  Blanks vanish everywhere outside a comment,
// the first '=' splits, '#' starts a comment, a line without '=' is
// skipped.  Aborts if the file can't be opened.
ConfigMap load_conf(const char* path);

// Loads `config_file`, or `config_path`/`config_file` when a path is
// given; in the latter case the model path keys are prefixed the same way.
ConfigMap load_conf_with_prefix(const char* config_file, const char* config_path);

// Looks `key` up in `user`, then in `defaults`, printing which one gave the
// value.  Returns nullptr (after printing nothing) if neither has it.
const std::string* find_config(const ConfigMap& user, const ConfigMap& defaults,
                               const std::string& key);

// find_config, or the failure line "<source>:<line> ERROR: can`t read value
// of key <key>" and abort().
std::string lookup_config(const ConfigMap& user, const ConfigMap& defaults, const std::string& key,
                          const char* source, int line);

// Conversions are deliberately unchecked: a non-number reads as 0, and the
// long/double result is narrowed to the field's width.
inline int32_t config_to_int(const std::string& value) {
  return static_cast<int32_t>(strtol(value.c_str(), nullptr, 10));
}
inline float config_to_float(const std::string& value) {
  return static_cast<float>(strtod(value.c_str(), nullptr));
}

}  // namespace Tovad_toolkit

#endif  // TOVAD_CONFIG_H_
