// The pieces behind a plan: where buffers lie, what is joined, what contexts share.
#include <host_cuda/control.h>
#include <trunk_writer.h>

#include <random>

#include "execution_plan.h"
#include "layers.h"
#include "memory_plan.h"
#include "platform/tensorrt_onednn/engine_fixture.h"

namespace ostrel::tensorrt_onednn {
namespace {

constexpr std::size_t kAlignment = 64;

bool overlap(const Lifetime& a, const Lifetime& b) {
  const bool in_time = a.first_step <= b.last_step && b.first_step <= a.last_step;
  const bool in_space = a.offset < b.offset + b.bytes && b.offset < a.offset + a.bytes;
  return in_time && in_space;
}

TEST(MemoryPlan, NeverSharesAPlaceInOneTime) {
  std::mt19937 generator(1);
  for (int round = 0; round < 200; ++round) {
    std::vector<Lifetime> buffers(1 + generator() % 30);
    for (Lifetime& buffer : buffers) {
      buffer.bytes = 1 + generator() % 5000;
      buffer.first_step = generator() % 20;
      buffer.last_step = buffer.first_step + generator() % 6;
    }
    const std::size_t total = place_buffers(&buffers, kAlignment);
    for (std::size_t i = 0; i < buffers.size(); ++i) {
      EXPECT_EQ(buffers[i].offset % kAlignment, 0U);
      EXPECT_LE(buffers[i].offset + buffers[i].bytes, total);
      for (std::size_t j = 0; j < i; ++j) ASSERT_FALSE(overlap(buffers[i], buffers[j])) << i << " and " << j;
    }
  }
}

TEST(MemoryPlan, SharesAPlaceInTurn) {
  std::vector<Lifetime> buffers(10);
  for (std::size_t i = 0; i < buffers.size(); ++i) {
    buffers[i].bytes = 1024;
    buffers[i].first_step = i;
    buffers[i].last_step = i + 1;
  }
  EXPECT_EQ(place_buffers(&buffers, kAlignment), 2048U);
}

TEST(MemoryPlan, OfNothingIsEmpty) {
  std::vector<Lifetime> none;
  EXPECT_EQ(place_buffers(&none, kAlignment), 0U);
}

std::shared_ptr<Network> load(const std::string& bytes) {
  auto network = std::make_shared<Network>();
  load_network(bytes.data(), bytes.size(), network.get());
  return network;
}

backbone::TrunkOptions tiny_trunk() {
  backbone::TrunkOptions options;
  options.tiny = true;
  return options;
}

// Sub, Mul, MaxPool and 7 convolutions: every Add and Relu of the trunk is joined.
TEST(Layers, JoinEveryAdditionAndReluOfTheTrunk) {
  const auto network = load(backbone::trunk_bytes(tiny_trunk()));
  std::vector<Sizes> sizes = network->sizes;
  for (Sizes& shape : sizes) {
    if (!shape.empty() && shape[0] < 0) shape[0] = 1;
  }
  std::size_t convolutions = 0;
  std::size_t residuals = 0;
  const auto layers = make_layers(network->graph, sizes);
  for (const Layer& layer : layers) {
    convolutions += layer.node->op == Operator::kConvolution ? 1U : 0U;
    residuals += layer.residual >= 0 ? 1U : 0U;
  }
  EXPECT_EQ(layers.size(), 10U);
  EXPECT_EQ(convolutions, 7U);
  EXPECT_EQ(residuals, 2U);
}

// Two blocks of the full trunk add a value that nothing reads any more: intermediate memory stays far below the sum
// of all maps (about 9 MB per sample at 192 x 192).
TEST(Plan, ReusesIntermediateMemory) {
  const auto network = load(backbone::trunk_bytes({}));
  const auto plan = build_plan(network, {{1, 3, 192, 192}}, 1);
  EXPECT_GT(plan->intermediate_bytes(), 96U * 96U * 64U * 4U);
  EXPECT_LT(plan->intermediate_bytes(), 4000000U);
}

TEST(Plan, SharesPackedWeightsBetweenContexts) {
  const auto network = load(backbone::trunk_bytes(tiny_trunk()));
  const auto first = build_plan(network, {{1, 3, 32, 32}}, 1);
  const std::size_t packed = network->weights.count();
  EXPECT_GE(packed, 14U);  // weights and biases of 7 convolutions
  const auto second = build_plan(network, {{1, 3, 32, 32}}, 1);
  EXPECT_EQ(network->weights.count(), packed);
}

TEST(Plan, RefusesShapesWithoutARoomForThem) {
  const auto network = load(backbone::trunk_bytes(tiny_trunk()));
  EXPECT_THROW(build_plan(network, {{1LL << 24, 3, 32, 32}}, 1), ModelError);
  EXPECT_THROW(build_plan(network, {{1, 3, 1LL << 24, 1LL << 24}}, 1), ModelError);
}

}  // namespace
}  // namespace ostrel::tensorrt_onednn
