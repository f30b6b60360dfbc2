#ifndef ORVIKLOG_CHECKS_H_
#define ORVIKLOG_CHECKS_H_

// Fatal checks for the inference engine and the kernels.  A failed check
// prints a framed report to stderr and aborts; there is no recoverable
// error path.  On the normal path a check costs one inline comparison: the
// report text is only built once the check has failed.

#include <sstream>
#include <string>

namespace rtc {

// printf-style output to stderr.  FatalMessage hands its report to it as
// an argument of "%s", so a '%' in a message prints as itself.
void PrintError(const char* format, ...);

// Prints nothing: there is no portable backtrace on the targets we ship to.
void DumpBacktrace();

template <class T1, class T2>
std::string* MakeCheckOpString(const T1& v1, const T2& v2, const char* names) {
  std::ostringstream ss;
  ss << names << " (" << v1 << " vs. " << v2 << ")";
  return new std::string(ss.str());
}

#define RTC_DEFINE_CHECK_OP_IMPL(name, op)                                               \
  template <class T1, class T2>                                                          \
  inline std::string* Check##name##Impl(const T1& v1, const T2& v2, const char* names) { \
    if (v1 op v2) return nullptr;                                                        \
    return MakeCheckOpString(v1, v2, names);                                             \
  }
RTC_DEFINE_CHECK_OP_IMPL(EQ, ==)
RTC_DEFINE_CHECK_OP_IMPL(NE, !=)
RTC_DEFINE_CHECK_OP_IMPL(LE, <=)
RTC_DEFINE_CHECK_OP_IMPL(LT, <)
RTC_DEFINE_CHECK_OP_IMPL(GE, >=)
RTC_DEFINE_CHECK_OP_IMPL(GT, >)
#undef RTC_DEFINE_CHECK_OP_IMPL

// Collects the report of a failed check; its destructor prints it and
// aborts, so no code after a failed check ever runs.
class FatalMessage {
 public:
  FatalMessage(const char* file, int line);
  // Takes ownership of `result`, the "a == b (1 vs. 2)" text of a
  // comparison check.
  FatalMessage(const char* file, int line, std::string* result);
  [[noreturn]] ~FatalMessage();

  std::ostream& stream() { return stream_; }

 private:
  void Init(const char* file, int line);

  std::ostringstream stream_;
};

}  // namespace rtc

// CHECK(cond) << "user text";
#define CHECK(condition) \
  while (!(condition))   \
  rtc::FatalMessage(__FILE__, __LINE__).stream() << "Check failed: " #condition "\n# "

// CHECK_EQ(a, b) << "user text";  both operands are evaluated once.
#define RTC_CHECK_OP(name, op, val1, val2)                                    \
  while (std::string* _rtc_check_result =                                     \
             rtc::Check##name##Impl((val1), (val2), #val1 " " #op " " #val2)) \
  rtc::FatalMessage(__FILE__, __LINE__, _rtc_check_result).stream()

#define CHECK_EQ(val1, val2) RTC_CHECK_OP(EQ, ==, val1, val2)
#define CHECK_NE(val1, val2) RTC_CHECK_OP(NE, !=, val1, val2)
#define CHECK_LE(val1, val2) RTC_CHECK_OP(LE, <=, val1, val2)
#define CHECK_LT(val1, val2) RTC_CHECK_OP(LT, <, val1, val2)
#define CHECK_GE(val1, val2) RTC_CHECK_OP(GE, >=, val1, val2)
#define CHECK_GT(val1, val2) RTC_CHECK_OP(GT, >, val1, val2)

#endif  // ORVIKLOG_CHECKS_H_
