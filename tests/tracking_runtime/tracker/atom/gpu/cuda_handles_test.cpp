#include "tracking_runtime/tracker/atom/gpu/cuda_handles.h"

#include <gtest/gtest.h>

#include <host_cuda/control.h>

#include <limits>
#include <string>
#include <utility>

namespace ostrel_test {
namespace {

namespace atom = ostrel_tracker::tracking_runtime::tracker::atom;
namespace host = ostrel::host_cuda;
using atom::CudaEvent;
using atom::CudaStream;
using atom::DeviceBuffer;
using atom::GroupMember;
using atom::PinnedBuffer;

class CudaHandles : public ::testing::Test {
 protected:
  host::Counters before_ = host::counters();
  std::string error_;

  void TearDown() override {
    host::clear_faults();
    const host::Counters after = host::counters();
    EXPECT_EQ(after.live_device_bytes, before_.live_device_bytes);
    EXPECT_EQ(after.live_pinned_bytes, before_.live_pinned_bytes);
    EXPECT_EQ(after.live_streams, before_.live_streams);
    EXPECT_EQ(after.live_events, before_.live_events);
  }
};

TEST_F(CudaHandles, BufferIsEmptyAtFirst) {
  const DeviceBuffer<float> buffer;
  EXPECT_EQ(buffer.get(), nullptr);
  EXPECT_EQ(buffer.bytes(), 0U);
  EXPECT_FALSE(buffer);
  EXPECT_FALSE(buffer.holds(0));
}

TEST_F(CudaHandles, BufferKeepsItsContentsWhileItIsLargeEnough) {
  DeviceBuffer<float> buffer;
  ASSERT_EQ(buffer.ensure(4), cudaSuccess);
  EXPECT_EQ(buffer.bytes(), 16U);
  const float value = 5.0F;
  ASSERT_EQ(cudaMemcpy(buffer.get(), &value, sizeof(value), cudaMemcpyHostToDevice), cudaSuccess);
  float* const place = buffer.get();
  ASSERT_EQ(buffer.ensure(4), cudaSuccess);
  ASSERT_EQ(buffer.ensure(1), cudaSuccess);
  EXPECT_EQ(buffer.get(), place);
  EXPECT_EQ(buffer.bytes(), 16U);
  float read = 0.0F;
  ASSERT_EQ(cudaMemcpy(&read, buffer.get(), sizeof(read), cudaMemcpyDeviceToHost), cudaSuccess);
  EXPECT_EQ(read, value);
}

TEST_F(CudaHandles, BufferFreesBeforeItGrows) {
  DeviceBuffer<float> buffer;
  ASSERT_EQ(buffer.ensure(4), cudaSuccess);
  ASSERT_EQ(buffer.ensure(5), cudaSuccess);
  EXPECT_EQ(buffer.bytes(), 20U);
  EXPECT_EQ(host::counters().live_device_allocations, before_.live_device_allocations + 1);
}

TEST_F(CudaHandles, BufferIsEmptyAfterAFailedGrowth) {
  DeviceBuffer<float> buffer;
  ASSERT_EQ(buffer.ensure(4), cudaSuccess);
  host::fail_call("cudaMalloc", 1, cudaErrorMemoryAllocation);
  EXPECT_EQ(buffer.ensure(5), cudaErrorMemoryAllocation);
  EXPECT_FALSE(buffer);
  EXPECT_EQ(buffer.bytes(), 0U);
  EXPECT_EQ(buffer.ensure(5), cudaSuccess);
}

TEST_F(CudaHandles, GrowthDoesNotHideAFailedRelease) {
  DeviceBuffer<float> buffer;
  ASSERT_EQ(buffer.ensure(4), cudaSuccess);
  float* const memory = buffer.get();
  host::fail_call("cudaFree", 1, cudaErrorUnknown);
  EXPECT_EQ(buffer.ensure(5), cudaErrorUnknown);
  EXPECT_FALSE(buffer);
  ASSERT_EQ(cudaFree(memory), cudaSuccess);  // the refused call had no effect
}

TEST_F(CudaHandles, DestructorTellsOfAFailedReleaseAndGoesOn) {
  float* memory = nullptr;
  testing::internal::CaptureStderr();
  {
    DeviceBuffer<float> buffer;
    ASSERT_EQ(buffer.ensure(4), cudaSuccess);
    memory = buffer.get();
    host::fail_call("cudaFree", 1, cudaErrorUnknown);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            std::string("[CUDA] cudaFree failed on release: ") + cudaGetErrorString(cudaErrorUnknown) + "\n");
  ASSERT_EQ(cudaFree(memory), cudaSuccess);
}

TEST_F(CudaHandles, BufferMovesAndTheSourceIsEmpty) {
  DeviceBuffer<float> source;
  ASSERT_EQ(source.ensure(4), cudaSuccess);
  float* const memory = source.get();
  DeviceBuffer<float> target(std::move(source));
  EXPECT_EQ(target.get(), memory);
  EXPECT_FALSE(source);  // NOLINT: the contract of a moved-from buffer
  DeviceBuffer<float> assigned;
  assigned = std::move(target);
  EXPECT_EQ(assigned.get(), memory);
  EXPECT_EQ(assigned.bytes(), 16U);
}

/// Moves one owner of a handle onto another: the first is empty then, and the other's old handle is gone.
template <typename Owner>
void expect_replaced_by_move(Owner* source, Owner* target, const char* release_call) {
  const auto handle = source->get();
  host::reset_counters();
  *target = std::move(*source);
  EXPECT_EQ(target->get(), handle);
  EXPECT_EQ(source->get(), nullptr) << release_call;  // NOLINT: the contract of a moved-from owner
  EXPECT_EQ(host::counters().calls_of(release_call), 1);
}

TEST_F(CudaHandles, MovingOntoAnOwnerReleasesWhatItHeld) {
  DeviceBuffer<float> buffers[2];
  CudaStream streams[2];
  CudaEvent events[2];
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(buffers[i].ensure(static_cast<std::size_t>(i) + 1), cudaSuccess);
    ASSERT_EQ(streams[i].create_with_flags(cudaStreamNonBlocking), cudaSuccess);
    ASSERT_EQ(events[i].create(), cudaSuccess);
  }
  expect_replaced_by_move(&buffers[1], &buffers[0], "cudaFree");
  EXPECT_EQ(buffers[0].bytes(), 8U);
  EXPECT_EQ(buffers[1].bytes(), 0U);
  expect_replaced_by_move(&streams[1], &streams[0], "cudaStreamDestroy");
  expect_replaced_by_move(&events[1], &events[0], "cudaEventDestroy");
}

TEST_F(CudaHandles, PinnedBufferIsWritableByTheHost) {
  PinnedBuffer<double> buffer;
  ASSERT_EQ(buffer.ensure(3), cudaSuccess);
  EXPECT_EQ(buffer.bytes(), 24U);
  EXPECT_EQ(host::counters().live_pinned_allocations, before_.live_pinned_allocations + 1);
  buffer.get()[2] = 1.5;
  EXPECT_EQ(buffer.get()[2], 1.5);
}

TEST_F(CudaHandles, AbsurdSizesSaturateAndAreRefused) {
  constexpr int kHuge = std::numeric_limits<int>::max();
  EXPECT_EQ(atom::element_count({2, 3, 4}), 24U);
  EXPECT_EQ(atom::element_count({2, 0, kHuge}), 0U);
  EXPECT_EQ(atom::element_count({2, -1}), 0U);
  const std::size_t absurd = atom::element_count({kHuge, kHuge, kHuge});
  EXPECT_EQ(absurd, std::numeric_limits<std::size_t>::max());
  DeviceBuffer<float> buffer;
  EXPECT_EQ(buffer.ensure(absurd), cudaErrorMemoryAllocation);
  EXPECT_FALSE(buffer);
  static_cast<void>(cudaGetLastError());
}

TEST_F(CudaHandles, GroupGrowsTogether) {
  DeviceBuffer<float> a;
  PinnedBuffer<float> b;
  ASSERT_TRUE(atom::ensure_group(&error_, GroupMember{a, 4, "a"}, GroupMember{b, 4, "b"})) << error_;
  host::reset_counters();
  ASSERT_TRUE(atom::ensure_group(&error_, GroupMember{a, 4, "a"}, GroupMember{b, 3, "b"}));
  EXPECT_EQ(host::counters().calls_of("cudaMalloc") + host::counters().calls_of("cudaMallocHost"), 0);
  // b alone is too small, and a goes with it.
  ASSERT_TRUE(atom::ensure_group(&error_, GroupMember{a, 4, "a"}, GroupMember{b, 5, "b"}));
  EXPECT_EQ(host::counters().calls_of("cudaMalloc"), 1);
  EXPECT_EQ(host::counters().calls_of("cudaMallocHost"), 1);
  EXPECT_EQ(b.bytes(), 20U);
}

TEST_F(CudaHandles, GroupWithAMissingMemberGrowsTogether) {
  DeviceBuffer<float> a, b;
  ASSERT_EQ(a.ensure(4), cudaSuccess);
  host::reset_counters();
  ASSERT_TRUE(atom::ensure_group(&error_, GroupMember{a, 4, "a"}, GroupMember{b, 4, "b"}));
  EXPECT_EQ(host::counters().calls_of("cudaMalloc"), 2);
}

TEST_F(CudaHandles, GroupIsFreedWhenAMemberFails) {
  DeviceBuffer<float> a, b, c;
  host::fail_call("cudaMalloc", 2, cudaErrorMemoryAllocation);
  EXPECT_FALSE(atom::ensure_group(&error_, GroupMember{a, 4, "alloc a"}, GroupMember{b, 4, "alloc b"},
                                  GroupMember{c, 4, "alloc c"}));
  EXPECT_EQ(error_, std::string("alloc b: ") + cudaGetErrorString(cudaErrorMemoryAllocation));
  EXPECT_FALSE(a);
  EXPECT_FALSE(b);
  EXPECT_FALSE(c);
  EXPECT_FALSE(
      atom::ensure_group(nullptr, GroupMember{a, std::numeric_limits<std::size_t>::max(), "alloc a"}));
}

TEST_F(CudaHandles, GroupTellsOfAFailedReleaseAndIsEmptyAfterIt) {
  DeviceBuffer<float> a, b;
  ASSERT_TRUE(atom::ensure_group(&error_, GroupMember{a, 4, "alloc a"}, GroupMember{b, 4, "alloc b"}));
  float* const memory = a.get();
  host::fail_call("cudaFree", 1, cudaErrorUnknown);
  EXPECT_FALSE(atom::ensure_group(&error_, GroupMember{a, 5, "alloc a"}, GroupMember{b, 5, "alloc b"}));
  EXPECT_EQ(error_, std::string("alloc a: ") + cudaGetErrorString(cudaErrorUnknown));
  EXPECT_FALSE(a);
  EXPECT_FALSE(b);
  ASSERT_EQ(cudaFree(memory), cudaSuccess);  // the refused call had no effect
}

TEST_F(CudaHandles, StreamIsMadeAndDestroyedOnce) {
  CudaStream stream;
  EXPECT_FALSE(stream);
  EXPECT_EQ(stream.get(), nullptr);
  ASSERT_EQ(stream.create_with_flags(cudaStreamNonBlocking), cudaSuccess);
  ASSERT_EQ(stream.create_with_priority(cudaStreamNonBlocking, 0), cudaSuccess);
  EXPECT_EQ(host::counters().live_streams, before_.live_streams + 1);
  CudaStream moved(std::move(stream));
  EXPECT_TRUE(moved);
  EXPECT_FALSE(stream);  // NOLINT: the contract of a moved-from stream
  EXPECT_EQ(moved.reset(), cudaSuccess);
  EXPECT_EQ(moved.reset(), cudaSuccess);
  host::fail_call("cudaStreamCreateWithFlags", 1, cudaErrorUnknown);
  EXPECT_EQ(moved.create_with_flags(cudaStreamNonBlocking), cudaErrorUnknown);
  EXPECT_FALSE(moved);
}

TEST_F(CudaHandles, EventIsMadeAndDestroyedOnce) {
  CudaEvent event;
  EXPECT_FALSE(event);
  ASSERT_EQ(event.create(), cudaSuccess);
  ASSERT_EQ(event.create_with_flags(cudaEventDisableTiming), cudaSuccess);
  EXPECT_EQ(host::counters().live_events, before_.live_events + 1);
  CudaEvent moved;
  moved = std::move(event);
  EXPECT_TRUE(moved);
  host::fail_call("cudaEventCreate", 1, cudaErrorUnknown);
  EXPECT_EQ(moved.create(), cudaErrorUnknown);
  EXPECT_FALSE(moved);
}

TEST(CudaErrorText, JoinsLabelAndCudaTextUnderBothNames) {
  std::string error = "old";
  EXPECT_TRUE(atom::set_cuda_error(cudaSuccess, "label", &error));
  EXPECT_TRUE(atom::detail::set_cuda_error(cudaSuccess, "label", &error));
  EXPECT_EQ(error, "old");
  const std::string expected = std::string("label: ") + cudaGetErrorString(cudaErrorInvalidValue);
  EXPECT_FALSE(atom::set_cuda_error(cudaErrorInvalidValue, "label", &error));
  EXPECT_EQ(std::exchange(error, ""), expected);
  EXPECT_FALSE(atom::detail::set_cuda_error(cudaErrorInvalidValue, "label", &error));
  EXPECT_EQ(error, expected);
  EXPECT_FALSE(atom::set_cuda_error(cudaErrorInvalidValue, "label", nullptr));
}

TEST(CudaErrorText, ARefusedAllocationDoesNotPassForTheNextLaunchsFailure) {
  void* memory = nullptr;
  host::fail_call("cudaMalloc", 1, cudaErrorMemoryAllocation);
  EXPECT_FALSE(atom::set_cuda_error(cudaMalloc(&memory, 4), "cudaMalloc", nullptr));
  EXPECT_EQ(cudaGetLastError(), cudaSuccess);
}

}  // namespace
}  // namespace ostrel_test
