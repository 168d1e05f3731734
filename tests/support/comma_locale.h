#pragma once

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <string>

namespace ostrel_test {

/// While it lives, the C library reads and writes a comma for the decimal point, as after a host's
/// setlocale(LC_ALL, "de_DE.UTF-8"). The locale lies in the test data, since a machine may have none like it.
class CommaLocale {
 public:
  CommaLocale() : before_(std::setlocale(LC_NUMERIC, nullptr)) {
    setenv("LOCPATH", OSTREL_TEST_DATA "/locale", 1);
    EXPECT_NE(std::setlocale(LC_NUMERIC, "comma"), nullptr);
    EXPECT_STREQ(std::localeconv()->decimal_point, ",");
    unsetenv("LOCPATH");
  }
  ~CommaLocale() { std::setlocale(LC_NUMERIC, before_.c_str()); }
  CommaLocale(const CommaLocale&) = delete;
  CommaLocale& operator=(const CommaLocale&) = delete;

 private:
  std::string before_;
};

}  // namespace ostrel_test
