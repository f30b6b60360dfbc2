#ifndef TESTS_FUZZ_FUZZ_SUPPORT_H_
#define TESTS_FUZZ_FUZZ_SUPPORT_H_

// Shared by the fuzz harnesses: running a load that may end in one of the
// library's own fatal reports, and handing bytes to readers that take a
// path.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace tovad_fuzz {

// Runs `load` with stderr captured.  Returns true when it returns, false
// when it ends in a fatal report of the library followed by abort(): that
// abort is caught and the allocations the load left behind are excluded
// from leak checking, since a process that aborts frees nothing.  An abort
// without such a report (an uncaught exception, a failed assertion) goes
// on to the fuzzer's own crash handler, as does every other signal.
bool RunCatchingFatal(const std::function<void()>& load);

// An anonymous in-memory file, named by a path any fopen() can open.
class MemFile {
 public:
  MemFile();
  ~MemFile();
  MemFile(const MemFile&) = delete;
  MemFile& operator=(const MemFile&) = delete;

  // Replaces the file's contents.
  void Set(const uint8_t* data, size_t size);
  const std::string& path() const { return path_; }

 private:
  int fd_ = -1;
  std::string path_;
};

}  // namespace tovad_fuzz

#endif  // TESTS_FUZZ_FUZZ_SUPPORT_H_
