#include "tools/tovad/startup_log.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace tovad_cli {
namespace {

// Read by the signal handler, so plain values set before it is installed.
int g_saved_fd = -1;
int g_held_fd = -1;
const char* g_abort_line = nullptr;
int g_abort_code = 1;

void CopyHeld(int from, int to) {
  char buf[4096];
  if (lseek(from, 0, SEEK_SET) < 0) return;
  for (;;) {
    const ssize_t n = read(from, buf, sizeof(buf));
    if (n <= 0) return;
    ssize_t done = 0;
    while (done < n) {
      const ssize_t w = write(to, buf + done, static_cast<size_t>(n - done));
      if (w <= 0) return;
      done += w;
    }
  }
}

// Only async-signal-safe calls from here on.
extern "C" void OnAbort(int) {
  CopyHeld(g_held_fd, g_saved_fd);
  // The library's reports need not end in a newline.
  const char nl = '\n';
  if (write(g_saved_fd, &nl, 1) < 0) _exit(g_abort_code);
  if (write(g_saved_fd, g_abort_line, strlen(g_abort_line)) < 0) _exit(g_abort_code);
  _exit(g_abort_code);
}

int OpenHeldFile() {
  const char* dir = std::getenv("TMPDIR");
  std::string tmpl = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/tovad.XXXXXX";
  const int fd = mkstemp(&tmpl[0]);
  if (fd >= 0) unlink(tmpl.c_str());
  return fd;
}

}  // namespace

StartupLog::StartupLog(const char* abort_line, int abort_code) {
  std::fflush(stderr);
  held_fd_ = OpenHeldFile();
  saved_fd_ = dup(STDERR_FILENO);
  if (held_fd_ < 0 || saved_fd_ < 0 || dup2(held_fd_, STDERR_FILENO) < 0) {
    // Nothing to hold the text in: let it through rather than lose it.
    if (held_fd_ >= 0) close(held_fd_);
    if (saved_fd_ >= 0) close(saved_fd_);
    held_fd_ = saved_fd_ = -1;
    return;
  }
  g_saved_fd = saved_fd_;
  g_held_fd = held_fd_;
  g_abort_line = abort_line;
  g_abort_code = abort_code;
  std::signal(SIGABRT, OnAbort);
}

void StartupLog::Release(bool show) {
  if (saved_fd_ < 0) return;
  std::fflush(stderr);
  std::signal(SIGABRT, SIG_DFL);
  dup2(saved_fd_, STDERR_FILENO);
  if (show) CopyHeld(held_fd_, STDERR_FILENO);
  close(saved_fd_);
  close(held_fd_);
  saved_fd_ = held_fd_ = -1;
}

}  // namespace tovad_cli
