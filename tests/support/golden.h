#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

namespace ostrel_test {

/// One array of a golden case. Values are kept as doubles, which hold every f32, f64, i32 and u8 exactly.
struct GoldenArray {
  std::vector<std::size_t> shape;
  std::vector<double> values;
  double absolute_tolerance = 0.0;
  double relative_tolerance = 0.0;
};

/// One case of a golden folder: its parameters, input and output arrays, and texts. A name that the case
/// lacks throws std::runtime_error, which fails the test.
class GoldenCase {
 public:
  const std::string& name() const { return name_; }
  bool has(const std::string& parameter) const { return parameters_.count(parameter) != 0; }

  int i32(const std::string& parameter) const;
  std::uint32_t u32(const std::string& parameter) const;
  float f32(const std::string& parameter) const;
  bool boolean(const std::string& parameter) const;
  const std::string& text(const std::string& parameter) const;

  const GoldenArray& input(const std::string& name) const;
  const GoldenArray& output(const std::string& name) const;
  /// The lines of a text file of the case, without line ends.
  const std::vector<std::string>& lines(const std::string& name) const;

  /// An input array as values of T.
  template <typename T>
  std::vector<T> input_as(const std::string& name) const {
    return cast<T>(input(name).values);
  }
  /// An output array as values of T.
  template <typename T>
  std::vector<T> output_as(const std::string& name) const {
    return cast<T>(output(name).values);
  }

 private:
  friend class GoldenReader;

  template <typename T>
  static std::vector<T> cast(const std::vector<double>& values) {
    std::vector<T> result(values.size());
    std::transform(values.begin(), values.end(), result.begin(),
                   [](double value) { return static_cast<T>(value); });
    return result;
  }

  std::string name_;
  std::map<std::string, std::string> parameters_;
  std::map<std::string, GoldenArray> inputs_;
  std::map<std::string, GoldenArray> outputs_;
  std::map<std::string, std::vector<std::string>> texts_;
};

/// The cases of tests/data/golden/`folder`. Throws std::runtime_error when a file is missing, short or
/// malformed.
std::vector<GoldenCase> load_golden(const std::string& folder);

/// The one case called `name` of a folder.
GoldenCase load_golden_case(const std::string& folder, const std::string& name);

/// Whether every value lies within the array's own tolerances, |x - g| <= absolute + relative * |g|, and is
/// not a number exactly where the array is not. The message names the first few values that differ.
::testing::AssertionResult matches_golden(const GoldenArray& expected, const std::vector<double>& actual);

/// The same for a container of any arithmetic type.
template <typename Container>
::testing::AssertionResult matches_golden(const GoldenArray& expected, const Container& actual) {
  static_assert(!std::is_same_v<typename Container::value_type, bool>, "compare bits as integers");
  std::vector<double> widened(actual.size());
  std::transform(actual.begin(), actual.end(), widened.begin(),
                 [](auto value) { return static_cast<double>(value); });
  return matches_golden(expected, widened);
}

}  // namespace ostrel_test
