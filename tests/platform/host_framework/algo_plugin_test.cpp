// The layouts and the order of slots that a host's build relies on.
#include <IAlgoPlugin.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace {

// Tells by name which operation a call through the base class reached.
class RecordingPlugin : public IAlgoPlugin {
 public:
  ~RecordingPlugin() override { last() = "destructor"; }
  std::vector<AlgoOutput> init(const Pictures&, const BBox&, bool*) override { return answer("init"); }
  std::vector<AlgoOutputDeclaration> getOutputDeclarations() const override {
    last() = "getOutputDeclarations";
    return {};
  }
  std::vector<AlgoOutput> update(const Pictures&, bool*) override { return answer("update"); }
  bool isAlive() override { return note("isAlive"); }
  std::string getName() const override { return last() = "getName"; }
  std::string getUuid() override { return last() = "getUuid"; }
  bool isDynamic() const override { return note("isDynamic"); }
  void changePerformance(int) override { last() = "changePerformance"; }
  void enableDebug(bool) override { last() = "enableDebug"; }
  std::string getConfigList() override { return last() = "getConfigList"; }
  void setConfig(std::string) override { last() = "setConfig"; }
  std::string getPropertyList() override { return last() = "getPropertyList"; }
  void setProperty(std::string, std::string) override { last() = "setProperty"; }
  std::string property(std::string) override { return last() = "property"; }

  static std::string& last() {
    static std::string name;
    return name;
  }

 private:
  static bool note(const char* name) {
    last() = name;
    return true;
  }
  static std::vector<AlgoOutput> answer(const char* name) {
    last() = name;
    return {};
  }
};

// Itanium C++ ABI: a pointer to a virtual member function holds 1 + the offset of its slot in bytes.
template <typename Operation>
std::ptrdiff_t slot_of(Operation operation) {
  std::ptrdiff_t word = 0;
  std::memcpy(&word, &operation, sizeof word);
  return (word - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

TEST(AlgoPlugin, KeepsItsOperationsInTheOrderOfTheHost) {
  // The virtual destructor takes slots 0 (complete object) and 1 (deleting).
  std::ptrdiff_t slot = 2;
  EXPECT_EQ(slot_of(&IAlgoPlugin::init), slot++);
  EXPECT_EQ(slot_of(&IAlgoPlugin::getOutputDeclarations), slot++);
  EXPECT_EQ(slot_of(&IAlgoPlugin::update), slot++);
  EXPECT_EQ(slot_of(&IAlgoPlugin::isAlive), slot++);
  EXPECT_EQ(slot_of(&IAlgoPlugin::getName), slot++);
  EXPECT_EQ(slot_of(&IAlgoPlugin::getUuid), slot++);
  EXPECT_EQ(slot_of(&IAlgoPlugin::isDynamic), slot++);
  EXPECT_EQ(slot_of(&IAlgoPlugin::changePerformance), slot++);
  EXPECT_EQ(slot_of(&IAlgoPlugin::enableDebug), slot++);
  EXPECT_EQ(slot_of(&IAlgoPlugin::getConfigList), slot++);
  EXPECT_EQ(slot_of(&IAlgoPlugin::setConfig), slot++);
  EXPECT_EQ(slot_of(&IAlgoPlugin::getPropertyList), slot++);
  EXPECT_EQ(slot_of(&IAlgoPlugin::setProperty), slot++);
  EXPECT_EQ(slot_of(&IAlgoPlugin::property), slot++);
}

TEST(AlgoPlugin, DestroysThePluginThroughItsBase) {
  std::unique_ptr<IAlgoPlugin> plugin = std::make_unique<RecordingPlugin>();
  EXPECT_EQ(plugin->getName(), "getName");
  plugin.reset();
  EXPECT_EQ(RecordingPlugin::last(), "destructor");
}

TEST(AlgoValue, NumbersItsAlternativesAsTheHostReadsThem) {
  EXPECT_EQ(AlgoValue(true).value.index(), 0u);
  EXPECT_EQ(AlgoValue(std::int64_t{-1}).value.index(), 1u);
  EXPECT_EQ(AlgoValue(0.5).value.index(), 2u);
  EXPECT_EQ(AlgoValue(std::string("text")).value.index(), 3u);
  EXPECT_EQ(AlgoValue("literal").value.index(), 3u);
  EXPECT_EQ(AlgoValue(AlgoValue::Object{}).value.index(), 4u);
  EXPECT_EQ(AlgoValue(AlgoValue::Array{}).value.index(), 5u);
}

TEST(AlgoValue, KeepsTheOrderOfMembersAndRepeatedKeys) {
  const AlgoValue value(AlgoValue::Object{{"z", std::int64_t{1}}, {"a", 2.0}, {"z", "again"}});
  const auto& members = std::get<4>(value.value);
  ASSERT_EQ(members.size(), 3u);
  EXPECT_EQ(members[0].first, "z");
  EXPECT_EQ(members[1].first, "a");
  EXPECT_EQ(std::get<std::string>(members[2].second.value), "again");
}

TEST(BBox, IsFourSigned32BitIntegersInOrder) {
  static_assert(sizeof(BBox) == 16 && std::is_standard_layout_v<BBox>);
  EXPECT_EQ(offsetof(BBox, x), 0u);
  EXPECT_EQ(offsetof(BBox, y), 4u);
  EXPECT_EQ(offsetof(BBox, w), 8u);
  EXPECT_EQ(offsetof(BBox, h), 12u);
}

}  // namespace
