#include "tests/fuzz/fuzz_support.h"

#include <sanitizer/allocator_interface.h>
#include <sanitizer/lsan_interface.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tovad_fuzz {
namespace {

// The beginnings of the library's fatal reports: the engine's checks, the
// toolkit's start-up errors and its model errors.
const char* const kReportMarks[] = {"# Fatal error in", " ERROR: ", "致命错误"};

sigjmp_buf g_jump;
volatile sig_atomic_t g_active = 0;
struct sigaction g_previous;
bool g_installed = false;

FILE* g_real_stderr = nullptr;
FILE* g_capture = nullptr;
char* g_capture_buf = nullptr;
size_t g_capture_len = 0;

// Every block allocated while a load runs, so that the ones an aborted load
// leaves behind can be told to the leak checker.  A load that allocates
// more than this is far outside anything a model needs.
constexpr size_t kMaxTracked = size_t{1} << 20;
const volatile void** g_allocs = nullptr;
size_t g_n_allocs = 0;
bool g_overflow = false;

void OnMalloc(const volatile void* ptr, size_t) {
  if (!g_active) return;
  if (g_n_allocs == kMaxTracked) {
    g_overflow = true;
    return;
  }
  g_allocs[g_n_allocs++] = ptr;
}

void OnFree(const volatile void*) {}

bool CapturedReport() {
  fflush(g_capture);
  for (const char* mark : kReportMarks) {
    if (g_capture_buf != nullptr && memmem(g_capture_buf, g_capture_len, mark, strlen(mark))) {
      return true;
    }
  }
  return false;
}

void EndCapture(bool show) {
  stderr = g_real_stderr;
  fflush(g_capture);
  if (show && g_capture_len > 0) {
    // Straight to the descriptor: the stream may be the reason we are here.
    ssize_t ignored = write(2, g_capture_buf, g_capture_len);
    (void)ignored;
  }
  fclose(g_capture);
  free(g_capture_buf);
  g_capture = nullptr;
  g_capture_buf = nullptr;
  g_capture_len = 0;
}

// abort() raises SIGABRT synchronously in the aborting thread, so the
// handler may use the stream functions and jump back to the load's caller.
void OnAbort(int sig, siginfo_t* info, void* context) {
  if (g_active) {
    g_active = 0;
    if (CapturedReport()) {
      for (size_t i = 0; i < g_n_allocs; ++i) {
        const void* p = const_cast<const void*>(g_allocs[i]);
        if (__sanitizer_get_ownership(p)) __lsan_ignore_object(p);
      }
      siglongjmp(g_jump, 1);
    }
    EndCapture(true);
    fprintf(stderr, "abort() without a fatal report of the library\n");
  }
  if (g_previous.sa_flags & SA_SIGINFO) {
    g_previous.sa_sigaction(sig, info, context);
  } else if (g_previous.sa_handler != SIG_DFL && g_previous.sa_handler != SIG_IGN) {
    g_previous.sa_handler(sig);
  }
  signal(SIGABRT, SIG_DFL);
  raise(SIGABRT);
}

void Install() {
  if (g_installed) return;
  g_installed = true;
  g_allocs = static_cast<const volatile void**>(calloc(kMaxTracked, sizeof(void*)));
  __sanitizer_install_malloc_and_free_hooks(OnMalloc, OnFree);
  struct sigaction act;
  memset(&act, 0, sizeof(act));
  act.sa_sigaction = OnAbort;
  act.sa_flags = SA_SIGINFO | SA_NODEFER;
  sigemptyset(&act.sa_mask);
  sigaction(SIGABRT, &act, &g_previous);
}

}  // namespace

bool RunCatchingFatal(const std::function<void()>& load) {
  Install();
  g_real_stderr = stderr;
  g_capture = open_memstream(&g_capture_buf, &g_capture_len);
  // The start-up path writes a line per setting; keeping it off the
  // terminal is most of the speed of a run.
  stderr = g_capture;
  g_n_allocs = 0;
  g_overflow = false;
  if (sigsetjmp(g_jump, 1) != 0) {
    if (g_overflow) {
      fprintf(g_real_stderr, "more than %zu allocations in one load\n", kMaxTracked);
      abort();
    }
    EndCapture(getenv("TOVAD_FUZZ_VERBOSE") != nullptr);
    return false;
  }
  g_active = 1;
  load();
  g_active = 0;
  EndCapture(getenv("TOVAD_FUZZ_VERBOSE") != nullptr);
  return true;
}

MemFile::MemFile() {
  fd_ = memfd_create("tovad_fuzz", 0);
  if (fd_ < 0) {
    perror("memfd_create");
    abort();
  }
  path_ = "/proc/self/fd/" + std::to_string(fd_);
}

MemFile::~MemFile() { close(fd_); }

void MemFile::Set(const uint8_t* data, size_t size) {
  if (ftruncate(fd_, 0) != 0 || pwrite(fd_, data, size, 0) != static_cast<ssize_t>(size)) {
    perror("memfd write");
    abort();
  }
}

}  // namespace tovad_fuzz
