#ifndef TESTS_RUVO_DEATH_TEXT_H_
#define TESTS_RUVO_DEATH_TEXT_H_

// Regular expressions for the report of a failed check, built from the
// plain texts so that a test states the words exactly as printed.

#include <string>

namespace ruvo_test {

inline std::string RegexEscape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) {
      out += '\\';
    }
    out += c;
  }
  return out;
}

// The whole report "# Check failed: <check>\n# <message>\n#", anchored: the
// check as printed, "(a vs. b)" included, and the message, possibly empty.
inline std::string Fatal(const std::string& check, const std::string& message) {
  return "\n" + RegexEscape("# Check failed: " + check + "\n# " + message) + "\n#\n$";
}

}  // namespace ruvo_test

#endif  // TESTS_RUVO_DEATH_TEXT_H_
