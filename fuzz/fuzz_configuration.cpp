// Reads any text as a configuration document and applies it to a default record. Whatever it says: every member
// stays within the range that the schema text gives it, or is a NaN that the document spelt out; the answer tells
// whether the record changed; and the document applied once more changes nothing, but for such a NaN, which
// equals nothing.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <variant>
#include <vector>

#include "json_core/sw_json_document.h"
#include "ostrel_plugin/config_members.h"
#include "ostrel_plugin/src/ostrel_config.h"
#include "ostrel_plugin/src/ostrel_config_io.h"
#include "ostrel_plugin/src/swcfg.h"

namespace {

using ostrel_test::kConfigMembers;
using ostrel_test::NamedMember;
using ostrel_test::SameMember;

struct Range {
  double min = -std::numeric_limits<double>::infinity();
  double max = std::numeric_limits<double>::infinity();
};

void require(bool condition) {
  if (!condition) std::abort();
}

SwJsonDocument parsed(const std::string& text, std::size_t* index, SwString* error) {
  return SwJsonDocument(SwJsonDocument().parseJson(text, *index, "", *error));
}

// What the schema text says of one member.
Range range_of(const SwJsonDocument& schema, const std::string& path) {
  const std::size_t slash = path.find('/');
  const std::string leaf =
      "properties/" + path.substr(0, slash) + "/properties/" + path.substr(slash + 1) + "/";
  SwJsonValue type;
  require(swcfg::getValue(schema, leaf + "type", type));
  Range range;
  if (type.string_value != "number" && type.string_value != "integer") return range;
  require(swcfg::assignDouble(schema, leaf + "minimum", range.min, -1e9, 1e9));
  require(swcfg::assignDouble(schema, leaf + "maximum", range.max, -1e9, 1e9));
  return range;
}

std::vector<Range> schema_ranges() {
  std::size_t index = 0;
  SwString error;
  const SwJsonDocument schema = parsed(ostrel_cfg::schema(), &index, &error);
  require(error.empty());
  std::vector<Range> ranges;
  for (const NamedMember& member : kConfigMembers) ranges.push_back(range_of(schema, member.path));
  return ranges;
}

// Only a text can bring a NaN.
bool spelt_out(const SwJsonDocument& document, const char* path) {
  SwJsonValue value;
  return swcfg::getValue(document, path, value) && value.kind == SwJsonValue::Kind::String;
}

struct CheckMember {
  const OstrelConfig& config;
  const SwJsonDocument& document;
  const char* path;
  const Range& range;

  void operator()(float OstrelConfig::*member) const {
    const float value = config.*member;
    if (std::isnan(value)) {
      require(spelt_out(document, path));
    } else {
      require(static_cast<float>(range.min) <= value && value <= static_cast<float>(range.max));
    }
  }
  void operator()(std::int32_t OstrelConfig::*member) const {
    require(range.min <= config.*member && config.*member <= range.max);
  }
  void operator()(std::vector<float> OstrelConfig::*member) const { require(!(config.*member).empty()); }
  template <typename T>
  void operator()(T OstrelConfig::* /*member*/) const {}
};

struct HasNan {
  const OstrelConfig& config;
  bool operator()(float OstrelConfig::*member) const { return std::isnan(config.*member); }
  bool operator()(std::vector<float> OstrelConfig::*member) const {
    for (const float value : config.*member) {
      if (std::isnan(value)) return true;
    }
    return false;
  }
  template <typename T>
  bool operator()(T OstrelConfig::* /*member*/) const {
    return false;
  }
};

bool has_nan(const OstrelConfig& config) {
  for (const NamedMember& member : kConfigMembers) {
    if (std::visit(HasNan{config}, member.member)) return true;
  }
  return false;
}

bool same_record(const OstrelConfig& left, const OstrelConfig& right) {
  for (const NamedMember& member : kConfigMembers) {
    if (!std::visit(SameMember{left, right}, member.member)) return false;
  }
  return true;
}

void check_record(const OstrelConfig& config, const SwJsonDocument& document) {
  static const std::vector<Range> ranges = schema_ranges();
  for (std::size_t i = 0; i < kConfigMembers.size(); ++i) {
    std::visit(CheckMember{config, document, kConfigMembers[i].path, ranges[i]}, kConfigMembers[i].member);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::size_t index = 0;
  SwString error;
  const SwJsonDocument document =
      parsed(std::string(reinterpret_cast<const char*>(data), size), &index, &error);
  OstrelConfig config;
  const bool changed = ostrel_cfg::apply(document, config);
  require(changed == !same_record(config, OstrelConfig()));
  require(!changed || (error.empty() && document.root.kind == SwJsonValue::Kind::Object));
  check_record(config, document);

  OstrelConfig again = config;
  require(ostrel_cfg::apply(document, again) == has_nan(config));
  require(has_nan(config) ? has_nan(again) : same_record(config, again));
  check_record(again, document);
  return 0;
}
