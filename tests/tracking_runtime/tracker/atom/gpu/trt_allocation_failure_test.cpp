// Memory that runs out while an engine is loaded, by an `operator new` of this program's own.
#include <atomic>
#include <cstdlib>
#include <new>

#include "engine_fixture.h"

namespace {
std::atomic<std::size_t> refused_size{0};
}  // namespace

void* operator new(std::size_t size) {
  if (size != 0 && size == refused_size) throw std::bad_alloc();
  if (void* const memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

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
  refused_size = kFileSize;
  const bool made = start(path, 3);
  refused_size = 0;
  EXPECT_FALSE(made);
  EXPECT_EQ(error, std::string("failed to initialize TensorRT backbone: ") + std::bad_alloc().what());
  EXPECT_EQ(trt, nullptr);
  EXPECT_EQ(trt_workers.size(), 2U) << "the further workers stay as they were";
}

TEST_F(TrtAllocationFailureTest, NeedsNoPlaceForTheText) {
  const std::string path = large_file();
  refused_size = kFileSize;
  EXPECT_FALSE(atom::make_trt_workers({path, 32, 1}, &trt, &trt_workers, nullptr));
  refused_size = 0;
}

TEST_F(TrtAllocationFailureTest, LeavesTheNextStartToSucceed) {
  const std::string path = large_file();
  refused_size = kFileSize;
  EXPECT_FALSE(start(path, 3));
  refused_size = 0;
  EXPECT_TRUE(start(StridedEngine{}, 3)) << error;
}

}  // namespace
}  // namespace ostrel_test
