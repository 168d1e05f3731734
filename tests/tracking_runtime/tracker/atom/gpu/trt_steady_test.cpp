// What a warm classification takes from the heap: its results, and what the network takes itself.
#include "classify_fixture.h"
#include "support/heap_counter.h"

namespace ostrel_test {
namespace {

// The list of responses and the list of samples; for each sample a matrix's header and pixels, and its features.
constexpr long allocations_of_results(long samples) {
  return 2 + 3 * samples;
}

class SteadyClassification : public ClassifyTest {
 protected:
  template <typename Call>
  static long allocations_of(Call&& call) {
    call();  // warm
    const long before = heap_allocations();
    call();
    return heap_allocations() - before;
  }
  long allocations_of_network() {
    return allocations_of([this] {
      EXPECT_TRUE(trt->context->enqueueV3(trt->stream.get()));
      EXPECT_EQ(cudaStreamSynchronize(trt->stream.get()), cudaSuccess);
    });
  }
};

TEST_F(SteadyClassification, OfATensorBatchAllocatesItsResultsAlone) {
  ASSERT_TRUE(start(StridedEngine{}, 3));
  const DeviceBatch device(random_patches(3));
  const long whole = allocations_of([&] {
    responses = {};
    features = {};
    EXPECT_TRUE(classify_batch(device.batch)) << error;
  });
  EXPECT_LE(whole - allocations_of_network(), allocations_of_results(3));
}

TEST_F(SteadyClassification, OfPatchesAllocatesItsResultsAndItsListOfWorkers) {
  ASSERT_TRUE(start(StridedEngine{}, 1));
  const std::vector<cv::Mat> patches = random_patches(3);
  const long whole = allocations_of([&] {
    responses = {};
    features = {};
    EXPECT_TRUE(classify_patches(patches)) << error;
  });
  EXPECT_LE(whole - 3 * allocations_of_network(), allocations_of_results(3) + 1);
}

}  // namespace
}  // namespace ostrel_test
