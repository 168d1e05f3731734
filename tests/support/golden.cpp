#include "support/golden.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace ostrel_test {
namespace {

template <typename Map>
const typename Map::mapped_type& find(const Map& map, const std::string& name, const std::string& case_name) {
  const auto found = map.find(name);
  if (found == map.end()) throw std::runtime_error("golden case " + case_name + " has no '" + name + "'");
  return found->second;
}

template <typename T>
std::vector<double> widen(const std::vector<char>& bytes, std::size_t count) {
  std::vector<T> raw(count);
  if (count != 0) std::memcpy(raw.data(), bytes.data(), count * sizeof(T));
  return std::vector<double>(raw.begin(), raw.end());
}

std::size_t bytes_of(const std::string& dtype) {
  if (dtype == "f64") return 8;
  if (dtype == "f32" || dtype == "i32") return 4;
  if (dtype == "u8") return 1;
  throw std::runtime_error("golden array of unknown type '" + dtype + "'");
}

std::vector<double> decode(const std::string& dtype, const std::vector<char>& bytes, std::size_t count) {
  if (dtype == "f64") return widen<double>(bytes, count);
  if (dtype == "f32") return widen<float>(bytes, count);
  if (dtype == "i32") return widen<std::int32_t>(bytes, count);
  return widen<std::uint8_t>(bytes, count);
}

std::vector<char> read_bytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path);
  return std::vector<char>(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

std::vector<std::string> read_lines(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot read " + path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
}

bool within_tolerance(const GoldenArray& expected, double golden, double actual) {
  if (std::isnan(golden) || std::isnan(actual)) return std::isnan(golden) && std::isnan(actual);
  if (golden == actual) return true;
  return std::abs(actual - golden) <=
         expected.absolute_tolerance + expected.relative_tolerance * std::abs(golden);
}

// OSTREL_TEST_DATA in the environment names the data of tests that run beside no checkout.
std::string test_data() {
  const char* moved = std::getenv("OSTREL_TEST_DATA");
  return moved != nullptr ? moved : OSTREL_TEST_DATA;
}

}  // namespace

/// Reads one manifest, line by line, into cases.
class GoldenReader {
 public:
  explicit GoldenReader(const std::string& folder) : folder_(test_data() + "/golden/" + folder + "/") {}

  std::vector<GoldenCase> read() {
    std::ifstream manifest(folder_ + "manifest.txt");
    if (!manifest) throw std::runtime_error("cannot read " + folder_ + "manifest.txt");
    for (std::string line; std::getline(manifest, line);) read_line(line);
    if (cases_.empty()) throw std::runtime_error(folder_ + "manifest.txt holds no case");
    return std::move(cases_);
  }

 private:
  void read_line(const std::string& line) {
    std::istringstream words(line);
    std::string kind;
    if (!(words >> kind)) return;
    if (kind == "case") {
      cases_.emplace_back();
      words >> cases_.back().name_;
    } else if (kind == "p") {
      read_parameter(words);
    } else if (kind == "a") {
      read_array(words);
    } else if (kind == "t") {
      read_text(words);
    } else if (kind != "end" && kind != "note") {
      throw std::runtime_error(folder_ + "manifest.txt: unknown line '" + line + "'");
    }
  }

  GoldenCase& current() {
    if (cases_.empty()) throw std::runtime_error(folder_ + "manifest.txt: a line before the first case");
    return cases_.back();
  }

  void read_parameter(std::istringstream& words) {
    std::string name, type, value;
    words >> name >> type >> value;
    current().parameters_[name] = value;
  }

  void read_text(std::istringstream& words) {
    std::string direction, name, file;
    words >> direction >> name >> file;
    current().texts_[name] = read_lines(folder_ + file);
  }

  void read_array(std::istringstream& words) {
    std::string direction, name, dtype, file;
    std::size_t dimensions = 0;
    words >> direction >> name >> dtype >> dimensions;
    GoldenArray array;
    std::size_t count = 1;
    for (std::size_t i = 0; i < dimensions; ++i) {
      array.shape.push_back(0);
      words >> array.shape.back();
      count *= array.shape.back();
    }
    words >> file >> array.absolute_tolerance >> array.relative_tolerance;
    if (!words) throw std::runtime_error(folder_ + "manifest.txt: malformed array " + name);
    const std::vector<char> bytes = read_bytes(folder_ + file);
    if (bytes.size() != count * bytes_of(dtype))
      throw std::runtime_error(folder_ + file + " has another size");
    array.values = decode(dtype, bytes, count);
    (direction == "in" ? current().inputs_ : current().outputs_)[name] = std::move(array);
  }

  std::string folder_;
  std::vector<GoldenCase> cases_;
};

int GoldenCase::i32(const std::string& parameter) const {
  return std::stoi(find(parameters_, parameter, name_));
}

std::uint32_t GoldenCase::u32(const std::string& parameter) const {
  return static_cast<std::uint32_t>(std::stoul(find(parameters_, parameter, name_)));
}

float GoldenCase::f32(const std::string& parameter) const {
  return std::stof(find(parameters_, parameter, name_));
}

bool GoldenCase::boolean(const std::string& parameter) const {
  return i32(parameter) != 0;
}

const std::string& GoldenCase::text(const std::string& parameter) const {
  return find(parameters_, parameter, name_);
}

const GoldenArray& GoldenCase::input(const std::string& name) const {
  return find(inputs_, name, name_);
}

const GoldenArray& GoldenCase::output(const std::string& name) const {
  return find(outputs_, name, name_);
}

const std::vector<std::string>& GoldenCase::lines(const std::string& name) const {
  return find(texts_, name, name_);
}

std::vector<GoldenCase> load_golden(const std::string& folder) {
  return GoldenReader(folder).read();
}

GoldenCase load_golden_case(const std::string& folder, const std::string& name) {
  for (GoldenCase& golden : load_golden(folder)) {
    if (golden.name() == name) return std::move(golden);
  }
  throw std::runtime_error("golden folder " + folder + " has no case " + name);
}

::testing::AssertionResult matches_golden(const GoldenArray& expected, const std::vector<double>& actual) {
  if (actual.size() != expected.values.size()) {
    return ::testing::AssertionFailure() << actual.size() << " values instead of " << expected.values.size();
  }
  std::size_t failures = 0;
  std::ostringstream message;
  for (std::size_t i = 0; i < actual.size(); ++i) {
    if (within_tolerance(expected, expected.values[i], actual[i])) continue;
    if (++failures <= 5) message << "\n  [" << i << "] " << actual[i] << " instead of " << expected.values[i];
  }
  if (failures == 0) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << failures << " of " << actual.size() << " values differ" << message.str();
}

}  // namespace ostrel_test
