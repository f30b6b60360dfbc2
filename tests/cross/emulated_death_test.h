#ifndef TESTS_CROSS_EMULATED_DEATH_TEST_H_
#define TESTS_CROSS_EMULATED_DEATH_TEST_H_

// Force-included into the tests of a build that runs under qemu-user: the
// emulator reports a child killed by a signal with a line of its own on the
// child's standard error.  Death tests match what the child itself wrote.

#include <gtest/gtest.h>

#include <ostream>
#include <string>

namespace emulated_death {

class ChildOutput : public ::testing::MatcherInterface<const std::string&> {
 public:
  explicit ChildOutput(::testing::Matcher<const std::string&> inner) : inner_(inner) {}
  bool MatchAndExplain(const std::string& err,
                       ::testing::MatchResultListener* listener) const override {
    // The emulator's line ends the output; it follows the child's last
    // byte, which need not be a newline.
    const size_t at = err.rfind("qemu: uncaught target signal ");
    const bool own = at != std::string::npos && err.find('\n', at) + 1 == err.size();
    return inner_.MatchAndExplain(own ? err.substr(0, at) : err, listener);
  }
  void DescribeTo(std::ostream* os) const override { inner_.DescribeTo(os); }

 private:
  ::testing::Matcher<const std::string&> inner_;
};

inline ::testing::Matcher<const std::string&> Of(::testing::Matcher<const std::string&> inner) {
  return ::testing::MakeMatcher(new ChildOutput(inner));
}

}  // namespace emulated_death

#undef EXPECT_DEATH
#undef ASSERT_DEATH
#define EXPECT_DEATH(statement, matcher)                            \
  EXPECT_EXIT(statement, ::testing::internal::ExitedUnsuccessfully, \
              ::emulated_death::Of(::testing::internal::MakeDeathTestMatcher(matcher)))
#define ASSERT_DEATH(statement, matcher)                            \
  ASSERT_EXIT(statement, ::testing::internal::ExitedUnsuccessfully, \
              ::emulated_death::Of(::testing::internal::MakeDeathTestMatcher(matcher)))

#endif  // TESTS_CROSS_EMULATED_DEATH_TEST_H_
