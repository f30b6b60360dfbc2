#include "src/tovad_config.h"

#include <cstdio>
#include <cstring>

namespace Tovad_toolkit {

namespace {
const int kLineBufferSize = 512;
}  // namespace

ConfigMap load_conf(const char* path) {
  ConfigMap conf;
  FILE* fp = fopen(path, "r");
  if (fp == nullptr) {
    fprintf(stderr, "%s:%d ERROR: config file at path <%s> not found", "src/tovad_api", __LINE__,
            path);
    abort();
  }
  // The buffer lives across lines: a last line without a newline keeps the
  // EOF byte and whatever an earlier line left behind it.  One extra byte
  // stays NUL so that even such a line can't run past the buffer.
  char buffer[kLineBufferSize + 1];
  memset(buffer, 0, sizeof(buffer));
  while (!feof(fp)) {
    int i = 0;
    int value_start = -1;
    bool in_comment = false;
    while (true) {
      int c = fgetc(fp);
      buffer[i] = static_cast<char>(c);
      if (feof(fp)) break;
      if (c == '\n') {
        buffer[i] = '\0';
        break;
      }
      if (!in_comment && c == '#') {
        buffer[i] = '\0';
        ++i;
        in_comment = true;
      } else if (!in_comment && c == '=') {
        if (value_start == -1) {
          buffer[i] = '\0';
          value_start = i + 1;
        }
        ++i;
      } else if (!in_comment && c == ' ') {
        // Blanks are dropped, also inside keys and values.
      } else {
        ++i;
      }
      if (i >= kLineBufferSize) break;  // the rest reads as a new line
    }
    if (value_start == -1) continue;
    conf[std::string(buffer)] = std::string(buffer + value_start);
  }
  fclose(fp);
  return conf;
}

ConfigMap load_conf_with_prefix(const char* config_file, const char* config_path) {
  if (config_path == nullptr || config_path[0] == '\0') {
    ConfigMap conf = load_conf(config_file);
    fprintf(stderr, "INFO: using config_file <%s> and not use prefix config_path\n", config_file);
    return conf;
  }
  // One slash is always added, even behind a path that ends in one.
  const std::string prefix = std::string(config_path) + "/";
  fprintf(stderr, "INFO: using config_file <%s> and prefix config_path <%s>\n", config_file,
          config_path);
  ConfigMap conf = load_conf((prefix + config_file).c_str());
  for (const char* key : {"path_to_obm", "path_to_json", "path_to_param", "path_to_meanvar"}) {
    auto it = conf.find(key);
    if (it != conf.end()) it->second = prefix + it->second;
  }
  return conf;
}

const std::string* find_config(const ConfigMap& user, const ConfigMap& defaults,
                               const std::string& key) {
  auto it = user.find(key);
  if (it != user.end()) {
    fprintf(stderr, "INFO: use user`s value <%s> for key <%s>\n", it->second.c_str(), key.c_str());
    return &it->second;
  }
  it = defaults.find(key);
  if (it != defaults.end()) {
    fprintf(stderr, "INFO: use default value <%s> for key <%s>\n", it->second.c_str(), key.c_str());
    return &it->second;
  }
  return nullptr;
}

std::string lookup_config(const ConfigMap& user, const ConfigMap& defaults, const std::string& key,
                          const char* source, int line) {
  const std::string* value = find_config(user, defaults, key);
  if (value == nullptr) {
    fprintf(stderr, "%s:%d ERROR: can`t read value of key <%s>\n", source, line, key.c_str());
    abort();
  }
  return *value;
}

}  // namespace Tovad_toolkit
