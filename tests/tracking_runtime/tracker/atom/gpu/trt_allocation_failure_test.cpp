// Memory that runs out while an engine is loaded.
#include <new>

#include "engine_fixture.h"
#include "support/heap_counter.h"

namespace ostrel_test {
namespace {

constexpr std::size_t kFileSize = 1234567;  // like no other allocation

class TrtAllocationFailureTest : public EngineTest {
 protected:
  std::string large_file() const { return folder.file("large.engine", std::string(kFileSize, 'x')); }
};

TEST_F(TrtAllocationFailureTest, EndsInATextAndWithoutAPrimaryWorker) {
  StridedEngine engine;
  engine.batch = 1;
  ASSERT_TRUE(start(engine, 3)) << error;
  const std::string path = large_file();
  fail_heap_allocations_of(kFileSize);
  const bool made = start(path, 3);
  fail_heap_allocations_of(0);
  EXPECT_FALSE(made);
  EXPECT_EQ(error, std::string("failed to initialize TensorRT backbone: ") + std::bad_alloc().what());
  EXPECT_EQ(trt, nullptr);
  EXPECT_EQ(trt_workers.size(), 2U) << "the further workers stay as they were";
}

TEST_F(TrtAllocationFailureTest, NeedsNoPlaceForTheText) {
  const std::string path = large_file();
  fail_heap_allocations_of(kFileSize);
  EXPECT_FALSE(atom::make_trt_workers({path, 32, 1}, &trt, &trt_workers, nullptr));
  fail_heap_allocations_of(0);
}

TEST_F(TrtAllocationFailureTest, LeavesTheNextStartToSucceed) {
  const std::string path = large_file();
  fail_heap_allocations_of(kFileSize);
  EXPECT_FALSE(start(path, 3));
  fail_heap_allocations_of(0);
  EXPECT_TRUE(start(StridedEngine{}, 3)) << error;
}

}  // namespace
}  // namespace ostrel_test
