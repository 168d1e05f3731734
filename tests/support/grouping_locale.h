#pragma once

#include <locale>
#include <string>

namespace ostrel_test {

/// While it lives, the process has a locale that writes a comma for the decimal point and groups digits: what a
/// host may have set.
class GroupingLocale {
 public:
  GroupingLocale() : before_(std::locale::global(std::locale(std::locale(), new Grouping))) {}
  ~GroupingLocale() { std::locale::global(before_); }
  GroupingLocale(const GroupingLocale&) = delete;
  GroupingLocale& operator=(const GroupingLocale&) = delete;

 private:
  struct Grouping : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
  };

  std::locale before_;
};

}  // namespace ostrel_test
