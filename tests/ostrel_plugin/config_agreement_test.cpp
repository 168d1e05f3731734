// Schema text, record and application agree, setting by setting: everything expected here is read out of the
// schema text.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "ostrel_plugin/config_documents.h"
#include "ostrel_plugin/config_members.h"
#include "ostrel_plugin/src/ostrel_config.h"
#include "ostrel_plugin/src/ostrel_config_io.h"

namespace {

using nlohmann::ordered_json;
using ostrel_cfg::apply;
using ostrel_test::ConfigMember;
using ostrel_test::document_text;
using ostrel_test::kConfigMembers;
using ostrel_test::NamedMember;
using ostrel_test::parsed_document;
using ostrel_test::SameMember;
using ostrel_test::schema_settings;
using ostrel_test::SchemaSetting;

// How the schema calls the type of a member.
struct TypeName {
  std::string operator()(std::string OstrelConfig::* /*member*/) const { return "string"; }
  std::string operator()(float OstrelConfig::* /*member*/) const { return "number"; }
  std::string operator()(std::int32_t OstrelConfig::* /*member*/) const { return "integer"; }
  std::string operator()(bool OstrelConfig::* /*member*/) const { return "boolean"; }
  std::string operator()(std::vector<float> OstrelConfig::* /*member*/) const { return "array"; }
};

// Whether the member holds the value of the schema, in its own precision.
struct Holds {
  const OstrelConfig& config;
  const ordered_json& value;
  template <typename T>
  bool operator()(T OstrelConfig::*member) const {
    return config.*member == value.get<T>();
  }
};

bool holds(const OstrelConfig& config, const ConfigMember& member, const ordered_json& value) {
  return std::visit(Holds{config, value}, member);
}

struct MemberAddress {
  const OstrelConfig& config;
  template <typename T>
  const void* operator()(T OstrelConfig::*member) const {
    return &(config.*member);
  }
};

// A value within the range of a setting that no default has.
ordered_json other_value(const SchemaSetting& setting) {
  if (setting.type == "string") return "another text";
  if (setting.type == "boolean") return !setting.default_value.get<bool>();
  if (setting.type == "array") return ordered_json::array({0.5, 2});
  if (setting.type == "integer") {
    const int minimum = setting.minimum.get<int>();
    return minimum + (setting.maximum.get<int>() - minimum) / 3 + 1;
  }
  const double minimum = setting.minimum.get<double>();
  return minimum + (setting.maximum.get<double>() - minimum) * 0.37;
}

// The record after a document that sets one path.
OstrelConfig applied(const SchemaSetting& setting, const ordered_json& value, bool* changed) {
  OstrelConfig config;
  *changed = apply(parsed_document(document_text(setting.path, value)), config);
  return config;
}

void expect_other_members_untouched(const OstrelConfig& config, const std::string& path) {
  const OstrelConfig defaults;
  for (const NamedMember& other : kConfigMembers) {
    if (other.path == path) continue;
    EXPECT_TRUE(std::visit(SameMember{config, defaults}, other.member)) << other.path;
  }
}

// Sets the value and finds `stored` in the member, and every other member as it was.
void expect_stored(const SchemaSetting& setting, const ConfigMember& member, const ordered_json& value,
                   const ordered_json& stored) {
  bool changed = false;
  const OstrelConfig config = applied(setting, value, &changed);
  EXPECT_TRUE(holds(config, member, stored)) << value << " instead of " << stored;
  EXPECT_EQ(changed, !holds(OstrelConfig(), member, stored)) << value;
  expect_other_members_untouched(config, setting.path);
}

class ConfigAgreement : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(settings_.size(), kConfigMembers.size()); }

  const std::vector<SchemaSetting> settings_ = schema_settings();
};

TEST_F(ConfigAgreement, HoldsInNameTypeAndOrder) {
  const OstrelConfig config;
  const void* previous = nullptr;
  for (std::size_t i = 0; i < settings_.size(); ++i) {
    SCOPED_TRACE(settings_[i].path);
    EXPECT_EQ(kConfigMembers[i].path, settings_[i].path);
    EXPECT_EQ(std::visit(TypeName(), kConfigMembers[i].member), settings_[i].type);
    const void* address = std::visit(MemberAddress{config}, kConfigMembers[i].member);
    EXPECT_LT(previous, address);
    previous = address;
  }
}

TEST_F(ConfigAgreement, HoldsInEveryDefault) {
  for (std::size_t i = 0; i < settings_.size(); ++i) {
    EXPECT_TRUE(holds(OstrelConfig(), kConfigMembers[i].member, settings_[i].default_value))
        << settings_[i].path;
  }
}

TEST_F(ConfigAgreement, GivesARangeToNumbersAndIntegersAlone) {
  for (const SchemaSetting& setting : settings_) {
    const bool ranged = setting.type == "number" || setting.type == "integer";
    EXPECT_EQ(!setting.minimum.is_null(), ranged) << setting.path;
    EXPECT_EQ(!setting.maximum.is_null(), ranged) << setting.path;
    if (!ranged) continue;
    EXPECT_LE(setting.minimum.get<double>(), setting.default_value.get<double>()) << setting.path;
    EXPECT_LE(setting.default_value.get<double>(), setting.maximum.get<double>()) << setting.path;
  }
}

TEST_F(ConfigAgreement, HoldsWhereAPathWritesItsMemberAndNoOther) {
  for (std::size_t i = 0; i < settings_.size(); ++i) {
    SCOPED_TRACE(settings_[i].path);
    const ordered_json value = other_value(settings_[i]);
    ASSERT_FALSE(holds(OstrelConfig(), kConfigMembers[i].member, value));
    expect_stored(settings_[i], kConfigMembers[i].member, value, value);
  }
}

TEST_F(ConfigAgreement, HoldsAtBothEndsOfEveryRange) {
  for (std::size_t i = 0; i < settings_.size(); ++i) {
    const SchemaSetting& setting = settings_[i];
    if (setting.minimum.is_null()) continue;
    SCOPED_TRACE(setting.path);
    const ConfigMember& member = kConfigMembers[i].member;
    expect_stored(setting, member, setting.minimum, setting.minimum);
    expect_stored(setting, member, setting.maximum, setting.maximum);
  }
}

TEST_F(ConfigAgreement, HoldsWhereAValueIsClamped) {
  for (std::size_t i = 0; i < settings_.size(); ++i) {
    const SchemaSetting& setting = settings_[i];
    if (setting.minimum.is_null()) continue;
    SCOPED_TRACE(setting.path);
    const ConfigMember& member = kConfigMembers[i].member;
    const double minimum = setting.minimum.get<double>();
    const double maximum = setting.maximum.get<double>();
    for (double beyond : {1.0, 1e12}) {
      expect_stored(setting, member, minimum - beyond, setting.minimum);
      expect_stored(setting, member, maximum + beyond, setting.maximum);
    }
    if (setting.type != "integer") continue;
    expect_stored(setting, member, setting.minimum.get<int>() - 1, setting.minimum);
    expect_stored(setting, member, setting.maximum.get<int>() + 1, setting.maximum);
  }
}

TEST_F(ConfigAgreement, LetsADocumentOfAllDefaultsChangeNothing) {
  ordered_json document;
  for (const SchemaSetting& setting : settings_) {
    const std::size_t slash = setting.path.find('/');
    document[setting.path.substr(0, slash)][setting.path.substr(slash + 1)] = setting.default_value;
  }
  OstrelConfig config;
  EXPECT_FALSE(apply(parsed_document(document.dump()), config));
  expect_other_members_untouched(config, "");
}

TEST_F(ConfigAgreement, LetsADocumentThatRepeatsEveryValueChangeNothing) {
  ordered_json document;
  for (const SchemaSetting& setting : settings_) {
    const std::size_t slash = setting.path.find('/');
    document[setting.path.substr(0, slash)][setting.path.substr(slash + 1)] = other_value(setting);
  }
  OstrelConfig config;
  EXPECT_TRUE(apply(parsed_document(document.dump()), config));
  EXPECT_FALSE(apply(parsed_document(document.dump()), config));
}

TEST_F(ConfigAgreement, HoldsInTheExampleOfThePage) {
  const ordered_json example = ordered_json::parse(ostrel_test::documented_example());
  OstrelConfig config;
  EXPECT_TRUE(apply(parsed_document(example.dump()), config));
  std::size_t found = 0;
  for (std::size_t i = 0; i < settings_.size(); ++i) {
    const ordered_json::json_pointer path("/" + settings_[i].path);
    if (!example.contains(path)) continue;
    EXPECT_TRUE(holds(config, kConfigMembers[i].member, example.at(path))) << settings_[i].path;
    ++found;
  }
  std::size_t named = 0;
  for (const ordered_json& group : example) named += group.size();
  EXPECT_EQ(found, named);  // no key that is none
  EXPECT_GT(found, 0U);
}

TEST(OstrelConfig, HoldsSearchScalesByTheirBits) {
  const OstrelConfig config;
  ASSERT_EQ(config.search_scales.size(), 3U);
  std::vector<std::uint32_t> bits(config.search_scales.size());
  std::memcpy(bits.data(), config.search_scales.data(), bits.size() * sizeof(float));
  EXPECT_EQ(bits, (std::vector<std::uint32_t>{0x3F734CE4, 0x3F800000, 0x3F866666}));
}

}  // namespace
