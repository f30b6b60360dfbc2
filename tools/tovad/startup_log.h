#ifndef TOOLS_TOVAD_STARTUP_LOG_H_
#define TOOLS_TOVAD_STARTUP_LOG_H_

namespace tovad_cli {

// Holds back what the library writes to fd 2 while it starts or stops (its
// conf store logs every key it reads).  The text goes into an unlinked
// temporary file; Release() shows it when asked to.  Should the library
// abort meanwhile, the held text is shown after all, followed by
// `abort_line`, and the process exits with `abort_code`: its fatal report
// must reach the user, and scripts still see the tool's own exit code.
// One at a time per process.
class StartupLog {
 public:
  StartupLog(const char* abort_line, int abort_code);
  ~StartupLog() { Release(false); }
  StartupLog(const StartupLog&) = delete;
  StartupLog& operator=(const StartupLog&) = delete;

  // Gives fd 2 back; with `show`, copies the held text to it first.
  void Release(bool show);

 private:
  int saved_fd_ = -1;
  int held_fd_ = -1;
};

}  // namespace tovad_cli

#endif  // TOOLS_TOVAD_STARTUP_LOG_H_
