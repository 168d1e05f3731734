#include <calibration.h>
#include <trunk_writer.h>

#include <algorithm>
#include <cmath>

#include "platform/tensorrt_onednn/engine_fixture.h"
#include "support/temporary_folder.h"

namespace ostrel::backbone {
namespace {

using ostrel::testing::LoadedEngine;
using ostrel::testing::shape_of;

// FNV-1a, 64 bits.
std::uint64_t fingerprint(const std::string& bytes) {
  std::uint64_t hash = 14695981039346656037ULL;
  for (const char byte : bytes) hash = (hash ^ static_cast<unsigned char>(byte)) * 1099511628211ULL;
  return hash;
}

TrunkOptions tiny(std::uint32_t seed) {
  TrunkOptions options;
  options.tiny = true;
  options.seed = seed;
  return options;
}

// The recorded fingerprints hold on every machine and in every build; a change of the writer changes them.
TEST(RandomTrunk, IsTheSameForASeedOnEveryMachine) {
  TrunkOptions full;
  full.seed = 1;
  EXPECT_EQ(fingerprint(trunk_bytes(full)), 0x433514b9c9c8953fULL);
  EXPECT_EQ(fingerprint(trunk_bytes(tiny(1))), 0x4707609758708d35ULL);
}

TEST(RandomTrunk, DiffersFromSeedToSeed) {
  EXPECT_EQ(trunk_bytes(tiny(4)), trunk_bytes(tiny(4)));
  EXPECT_NE(trunk_bytes(tiny(4)), trunk_bytes(tiny(5)));
}

// On the picture that it was calibrated on a stage has the wanted value; on others "about" it.
TEST(RandomTrunk, GivesOutputsOfTheWantedSize) {
  const TrunkNetwork network = make_random_trunk(false, 1);
  const auto calibrated = run_trunk(network, calibration_picture(kFullInputSize, 1));
  const auto another = run_trunk(network, calibration_picture(kFullInputSize, 1001));
  ASSERT_EQ(calibrated.size(), 3U);
  for (const std::size_t stage : {1U, 2U}) {
    EXPECT_NEAR(root_mean_square(calibrated[stage]), kOutputRms, 1e-3);
    EXPECT_NEAR(root_mean_square(another[stage]), kOutputRms, 0.1);
  }
}

TEST(RandomTrunk, HasNoDeadChannel) {
  for (const bool is_tiny : {true, false}) {
    const int side = is_tiny ? kTinyInputSize : kFullInputSize;
    for (const FeaturePlanes& stage :
         run_trunk(make_random_trunk(is_tiny, 1), calibration_picture(side, 9))) {
      for (int channel = 0; channel < stage.channels; ++channel) {
        const double* values = stage.plane(channel);
        EXPECT_GT(*std::max_element(values, values + stage.plane_size()), 0.0) << "channel " << channel;
      }
    }
  }
}

// A picture and the same picture some pixels aside give features that differ: places can be told apart.
TEST(RandomTrunk, TellsPlacesApart) {
  const TrunkNetwork network = make_random_trunk(false, 1);
  const auto planes = run_trunk(network, calibration_picture(kFullInputSize, 3)).back();
  double correlation = 0.0;
  double here = 0.0;
  double there = 0.0;
  for (int channel = 0; channel < planes.channels; ++channel) {
    const double a = planes.plane(channel)[4 * planes.width + 4];
    const double b = planes.plane(channel)[8 * planes.width + 8];
    correlation += a * b;
    here += a * a;
    there += b * b;
  }
  EXPECT_LT(correlation / std::sqrt(here * there), 0.9);
}

struct ShapeCase {
  const char* reason;
  TrunkOptions options;
  testing::Shape input;
  std::vector<std::pair<std::string, testing::Shape>> outputs;
};

TrunkOptions with(void (*change)(TrunkOptions*)) {
  TrunkOptions options;
  change(&options);
  return options;
}

TEST(TrunkModel, HasTheShapesThatWereAskedFor) {
  const ShapeCase cases[] = {
      {"the default", {}, {-1, 3, 192, 192}, {{"layer2", {-1, 128, 24, 24}}, {"layer3", {-1, 256, 12, 12}}}},
      {"tiny", tiny(1), {-1, 3, 32, 32}, {{"layer2", {-1, 8, 16, 16}}, {"layer3", {-1, 16, 8, 8}}}},
      {"one output of stride 8",
       with([](TrunkOptions* o) { o->outputs = TrunkOutputs::kLayer2; }),
       {-1, 3, 192, 192},
       {{"layer2", {-1, 128, 24, 24}}}},
      {"the last output alone",
       with([](TrunkOptions* o) { o->tiny = true, o->outputs = TrunkOutputs::kLayer3; }),
       {-1, 3, 32, 32},
       {{"layer3", {-1, 16, 8, 8}}}},
      {"a fixed batch",
       with([](TrunkOptions* o) { o->tiny = true, o->batch = 4; }),
       {4, 3, 32, 32},
       {{"layer2", {4, 8, 16, 16}}, {"layer3", {4, 16, 8, 8}}}},
      {"another size",
       with([](TrunkOptions* o) { o->tiny = true, o->input_size = 64; }),
       {-1, 3, 64, 64},
       {{"layer2", {-1, 8, 32, 32}}, {"layer3", {-1, 16, 16, 16}}}},
      {"a size of the moment",
       with([](TrunkOptions* o) { o->tiny = true, o->dynamic_spatial = true; }),
       {-1, 3, -1, -1},
       {{"layer2", {-1, 8, -1, -1}}, {"layer3", {-1, 16, -1, -1}}}},
  };
  for (const ShapeCase& test : cases) {
    SCOPED_TRACE(test.reason);
    const LoadedEngine loaded(trunk_bytes(test.options));
    ASSERT_NE(loaded.engine, nullptr) << loaded.logger.errors();
    EXPECT_EQ(shape_of(loaded.engine->getTensorShape("input")), test.input);
    ASSERT_EQ(loaded.engine->getNbIOTensors(), static_cast<int>(test.outputs.size()) + 1);
    for (std::size_t i = 0; i < test.outputs.size(); ++i) {
      EXPECT_EQ(loaded.engine->getIOTensorName(static_cast<int>(i) + 1), test.outputs[i].first);
      EXPECT_EQ(shape_of(loaded.engine->getTensorShape(test.outputs[i].first.c_str())),
                test.outputs[i].second);
    }
  }
}

struct RefusedOptions {
  TrunkOptions options;
  const char* text;
};

TEST(TrunkModel, IsRefusedWithAReason) {
  const RefusedOptions cases[] = {
      {with([](TrunkOptions* o) { o->input_size = 176; }),
       "odd map sides: input 176 gives layer3 maps of 11 x 11"},
      {with([](TrunkOptions* o) { o->input_size = 200; }),
       "odd map sides: input 200 gives layer2 maps of 25 x 25"},
      {with([](TrunkOptions* o) { o->input_size = 193; }),
       "odd map sides: input 193 gives layer2 maps of 25 x 25"},
      {with([](TrunkOptions* o) { o->tiny = true, o->input_size = 36; }),
       "odd map sides: input 36 gives layer3 maps of 9 x 9"},
      {with([](TrunkOptions* o) { o->input_size = 15; }), "input size 15 is outside 16 to 1024"},
      {with([](TrunkOptions* o) { o->input_size = 1025; }), "input size 1025 is outside 16 to 1024"},
      {with([](TrunkOptions* o) { o->input_size = -192; }), "input size -192 is outside 16 to 1024"},
      {with([](TrunkOptions* o) { o->batch = -1; }), "batch -1 is negative"},
  };
  const ostrel_test::TemporaryFolder folder;
  for (const RefusedOptions& test : cases) {
    std::string error;
    EXPECT_EQ(trunk_bytes(test.options, &error), "");
    EXPECT_EQ(error, test.text);
    error.clear();
    EXPECT_FALSE(write_trunk(test.options, folder.path("refused.onnx"), &error));
    EXPECT_EQ(error, test.text);
    EXPECT_FALSE(write_trunk(test.options, folder.path("refused.onnx")));  // a caller without a text
  }
}

// An odd map that is not an output does no harm.
TEST(TrunkModel, TakesASizeWhoseOddMapIsNoOutput) {
  TrunkOptions options;
  options.input_size = 176;
  options.outputs = TrunkOutputs::kLayer2;
  EXPECT_TRUE(check_trunk_options(options, nullptr));
}

TEST(TrunkModel, IsWrittenWhole) {
  const ostrel_test::TemporaryFolder folder;
  const std::string path = folder.path("tiny_trunk.onnx");
  std::string error;
  ASSERT_TRUE(write_trunk(tiny(2), path, &error)) << error;
  EXPECT_EQ(ostrel_test::content_of(path), trunk_bytes(tiny(2)));
  EXPECT_FALSE(write_trunk(tiny(2), "/nowhere/at/all.onnx", &error));
  EXPECT_EQ(error, "cannot write /nowhere/at/all.onnx: No such file or directory");
}

}  // namespace
}  // namespace ostrel::backbone
