#include <cstdint>
#include <numeric>
#include <vector>

#include "platform/host_cuda/host_cuda_test.h"

namespace host_cuda_test {
namespace {

using Copies = HostCudaTest;

std::vector<int> ramp(std::size_t count, int first = 0) {
  std::vector<int> values(count);
  std::iota(values.begin(), values.end(), first);
  return values;
}

TEST_F(Copies, RoundTripThroughTheDevice) {
  const std::vector<int> values = ramp(100);
  const DeviceArray<int> first(values);
  const DeviceArray<int> second(100);
  const TestStream stream;
  ASSERT_EQ(cudaMemcpyAsync(second.data(), first.data(), first.bytes(), cudaMemcpyDeviceToDevice, stream),
            cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(second.on_host(), values);
}

TEST_F(Copies, DefaultKindFindsTheDirection) {
  const std::vector<int> values = ramp(10);
  const DeviceArray<int> device(10);
  std::vector<int> back(10);
  EXPECT_EQ(cudaMemcpy(device.data(), values.data(), device.bytes(), cudaMemcpyDefault), cudaSuccess);
  EXPECT_EQ(cudaMemcpy(back.data(), device.data(), device.bytes(), cudaMemcpyDefault), cudaSuccess);
  EXPECT_EQ(back, values);
}

TEST_F(Copies, PitchedRowsLandAtTheirPitch) {
  const std::vector<int> values = ramp(12);
  const DeviceArray<int> device(20);
  const TestStream stream;
  ASSERT_EQ(cudaMemsetAsync(device.data(), 0, device.bytes(), stream), cudaSuccess);
  // Two rows of three out of rows of six, into rows of ten.
  ASSERT_EQ(cudaMemcpy2DAsync(device.data(), 10 * sizeof(int), values.data(), 6 * sizeof(int),
                              3 * sizeof(int), 2, cudaMemcpyHostToDevice, stream),
            cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  std::vector<int> expected(20, 0);
  for (const int column : {0, 1, 2}) {
    expected[static_cast<std::size_t>(column)] = column;
    expected[static_cast<std::size_t>(10 + column)] = 6 + column;
  }
  EXPECT_EQ(device.on_host(), expected);
}

TEST_F(Copies, PitchedRowsMayEndBeforeTheLastPitch) {
  const DeviceArray<char> device(13);  // a full row of 10 and 3 bytes
  const std::vector<char> values(26, 'x');
  const TestStream stream;
  EXPECT_EQ(cudaMemcpy2DAsync(device.data(), 10, values.data(), 13, 3, 2, cudaMemcpyHostToDevice, stream),
            cudaSuccess);
  EXPECT_EQ(cudaMemcpy2DAsync(device.data(), 10, values.data(), 13, 4, 2, cudaMemcpyHostToDevice, stream),
            cudaErrorInvalidValue);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
}

TEST_F(Copies, PitchBelowTheWidthIsRefused) {
  const DeviceArray<char> device(100);
  const std::vector<char> values(100);
  const TestStream stream;
  EXPECT_EQ(cudaMemcpy2DAsync(device.data(), 7, values.data(), 8, 8, 2, cudaMemcpyHostToDevice, stream),
            cudaErrorInvalidPitchValue);
  EXPECT_EQ(cudaMemcpy2DAsync(device.data(), 8, values.data(), 7, 8, 2, cudaMemcpyHostToDevice, stream),
            cudaErrorInvalidPitchValue);
}

TEST_F(Copies, MemsetWritesBytesOfTheDevice) {
  const DeviceArray<unsigned char> device(10);
  const TestStream stream;
  ASSERT_EQ(cudaMemsetAsync(device.data() + 2, 7, 3, stream), cudaSuccess);
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  const std::vector<unsigned char> expected = {255, 255, 7, 7, 7, 255, 255, 255, 255, 255};
  EXPECT_EQ(device.on_host(), expected);
}

TEST_F(Copies, MemsetIsRefusedBesideTheDevice) {
  const DeviceArray<char> device(10);
  const TestStream stream;
  char local[10];
  EXPECT_EQ(cudaMemsetAsync(local, 0, 10, stream), cudaErrorInvalidValue) << "host memory";
  EXPECT_EQ(cudaMemsetAsync(device.data() + 1, 0, 10, stream), cudaErrorInvalidValue) << "past the end";
  EXPECT_EQ(cudaMemsetAsync(nullptr, 0, 10, stream), cudaErrorInvalidValue) << "null";
  EXPECT_EQ(cudaMemsetAsync(nullptr, 0, 0, stream), cudaSuccess) << "nothing to do";
}

struct BadCopy {
  const char* reason;
  void* target;
  const void* source;
  std::size_t bytes;
  cudaMemcpyKind kind;
  cudaError_t status;
};

// Runs each row through the blocking, the asynchronous and the pitched copy.
void expect_refused(const std::vector<BadCopy>& rows) {
  const TestStream stream;
  for (const BadCopy& row : rows) {
    SCOPED_TRACE(row.reason);
    EXPECT_EQ(cudaMemcpy(row.target, row.source, row.bytes, row.kind), row.status);
    EXPECT_EQ(cudaMemcpyAsync(row.target, row.source, row.bytes, row.kind, stream), row.status);
    EXPECT_EQ(cudaMemcpy2DAsync(row.target, row.bytes, row.source, row.bytes, row.bytes, 1, row.kind, stream),
              row.status);
    EXPECT_EQ(cudaGetLastError(), row.status) << "a failure is the thread's last error";
  }
}

TEST_F(Copies, WrongOnesAreRefused) {
  const DeviceArray<char> device(16);
  const DeviceArray<char> other(16);
  const PinnedArray<char> pinned(16);
  void* freed = nullptr;
  ASSERT_EQ(cudaMalloc(&freed, 64), cudaSuccess);
  ASSERT_EQ(cudaFree(freed), cudaSuccess);
  std::vector<char> host(32, 1);
  void* d = device.data();
  void* h = host.data();
  void* p = pinned.data();
  expect_refused({
      {"device to device, called host to device", d, other.data(), 16, cudaMemcpyHostToDevice,
       cudaErrorInvalidValue},
      {"host to host, called host to device", h, p, 16, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
      {"host to device, called device to host", d, h, 16, cudaMemcpyDeviceToHost, cudaErrorInvalidValue},
      {"device to host, called host to device", h, d, 16, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
      {"device to host, called host to host", h, d, 16, cudaMemcpyHostToHost, cudaErrorInvalidValue},
      {"pinned to device, called device to device", d, p, 16, cudaMemcpyDeviceToDevice,
       cudaErrorInvalidValue},
      {"no such kind", d, h, 16, static_cast<cudaMemcpyKind>(7), cudaErrorInvalidMemcpyDirection},
      {"a freed target", freed, h, 16, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
      {"a freed source", h, freed, 16, cudaMemcpyDeviceToHost, cudaErrorInvalidValue},
      {"a null target", nullptr, h, 16, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
      {"a null source", d, nullptr, 16, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
      {"a target that is too small", d, h, 17, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
      {"a source that is too small", h, d, 17, cudaMemcpyDeviceToHost, cudaErrorInvalidValue},
      {"a range before its allocation", device.data() - 1, h, 4, cudaMemcpyHostToDevice,
       cudaErrorInvalidValue},
      {"pinned memory that is too small", pinned.data() + 1, d, 16, cudaMemcpyDeviceToHost,
       cudaErrorInvalidValue},
      {"a host range that runs into pinned memory", pinned.data() - 1, d, 4, cudaMemcpyDeviceToHost,
       cudaErrorInvalidValue},
      {"a size that wraps around", d, h, SIZE_MAX, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
  });
}

TEST_F(Copies, RefusedOnesChangeNothing) {
  const DeviceArray<unsigned char> device(16);
  const std::vector<unsigned char> host(32, 1);
  EXPECT_NE(cudaMemcpy(device.data(), host.data(), 17, cudaMemcpyHostToDevice), cudaSuccess);
  EXPECT_EQ(device.on_host(), std::vector<unsigned char>(16, 0xFF));
}

TEST_F(Copies, OfNothingSucceedWithAnyPointer) {
  EXPECT_EQ(cudaMemcpy(nullptr, nullptr, 0, cudaMemcpyHostToDevice), cudaSuccess);
  EXPECT_EQ(cudaMemcpyAsync(nullptr, nullptr, 0, cudaMemcpyHostToDevice, nullptr), cudaSuccess);
  EXPECT_EQ(cudaMemcpy2DAsync(nullptr, 4, nullptr, 4, 4, 0, cudaMemcpyHostToDevice, nullptr), cudaSuccess);
}

TEST_F(Copies, IntoPageableMemoryAreCompleteOnReturn) {
  const DeviceArray<int> device(ramp(10, 5));
  const TestStream stream;
  std::vector<int> back(10);
  reset_counters();
  ASSERT_EQ(cudaMemcpyAsync(back.data(), device.data(), device.bytes(), cudaMemcpyDeviceToHost, stream),
            cudaSuccess);
  EXPECT_EQ(back, ramp(10, 5));
  EXPECT_EQ(counters().blocking_copies, 1);
}

using DeferredCopies = DeferredStreamTest;

TEST_F(DeferredCopies, StagePageableSourcesBeforeTheReturn) {
  const DeviceArray<int> device(10);
  const TestStream stream;
  Gate gate;
  gate.hold(stream);
  std::vector<int> values = ramp(10);
  ASSERT_EQ(cudaMemcpyAsync(device.data(), values.data(), device.bytes(), cudaMemcpyHostToDevice, stream),
            cudaSuccess);
  values.assign(10, -1);
  gate.open();
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(device.on_host(), ramp(10));
}

TEST_F(DeferredCopies, StagePitchedPageableSourcesToo) {
  const DeviceArray<int> device(4);
  const TestStream stream;
  Gate gate;
  gate.hold(stream);
  std::vector<int> values = ramp(6);
  ASSERT_EQ(cudaMemcpy2DAsync(device.data(), 8, values.data(), 12, 8, 2, cudaMemcpyHostToDevice, stream),
            cudaSuccess);
  values.assign(6, -1);
  gate.open();
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(device.on_host(), (std::vector<int>{0, 1, 3, 4}));
}

TEST_F(DeferredCopies, ReadPinnedSourcesWhenTheStreamGetsThere) {
  const DeviceArray<int> device(1);
  PinnedArray<int> pinned(1);
  const TestStream stream;
  Gate gate;
  gate.hold(stream);
  pinned[0] = 1;
  ASSERT_EQ(cudaMemcpyAsync(device.data(), pinned.data(), sizeof(int), cudaMemcpyHostToDevice, stream),
            cudaSuccess);
  pinned[0] = 2;  // too early: the copy has not read it yet
  gate.open();
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(device.on_host(), std::vector<int>{2});
}

TEST_F(DeferredCopies, IntoPinnedMemoryReturnAtOnce) {
  const DeviceArray<int> device(std::vector<int>{42});
  PinnedArray<int> pinned(1);
  const TestStream stream;
  Gate gate;
  gate.hold(stream);
  pinned[0] = 0;
  ASSERT_EQ(cudaMemcpyAsync(pinned.data(), device.data(), sizeof(int), cudaMemcpyDeviceToHost, stream),
            cudaSuccess);
  EXPECT_EQ(pinned[0], 0);
  gate.open();
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(pinned[0], 42);
}

TEST_F(DeferredCopies, BlockingOneDoesNotWaitForNonBlockingStreams) {
  const DeviceArray<int> device(std::vector<int>{1});
  const TestStream stream;
  Gate gate;
  gate.hold(stream);
  ASSERT_EQ(cudaMemsetAsync(device.data(), 0, sizeof(int), stream), cudaSuccess);
  EXPECT_EQ(device.on_host(), std::vector<int>{1}) << "the memset is still queued";
  gate.open();
  ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
  EXPECT_EQ(device.on_host(), std::vector<int>{0});
}

TEST_F(DeferredCopies, BlockingOneOfPageableMemoryMayReturnBeforeItHasArrived) {
  const DeviceArray<int> device(std::vector<int>{1});
  PinnedArray<int> back(1);
  const TestStream stream;
  Gate gate;
  gate.hold(nullptr);
  std::vector<int> value{2};
  ASSERT_EQ(cudaMemcpy(device.data(), value.data(), sizeof(int), cudaMemcpyHostToDevice), cudaSuccess);
  value[0] = 3;  // the source was read
  const auto read = [&] {
    EXPECT_EQ(cudaMemcpyAsync(back.data(), device.data(), sizeof(int), cudaMemcpyDeviceToHost, stream),
              cudaSuccess);
    EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
    return back[0];
  };
  EXPECT_EQ(read(), 1) << "a non-blocking stream does not wait for it";
  gate.open();
  ASSERT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);
  EXPECT_EQ(read(), 2);
}

TEST_F(DeferredCopies, BlockingOneBetweenDeviceBuffersDoesNotHoldTheHost) {
  const DeviceArray<int> source(std::vector<int>{7});
  const DeviceArray<int> target(std::vector<int>{0});
  Gate gate;
  gate.hold(nullptr);
  EXPECT_EQ(cudaMemcpy(target.data(), source.data(), sizeof(int), cudaMemcpyDeviceToDevice), cudaSuccess);
  gate.open();
  EXPECT_EQ(target.on_host(), std::vector<int>{7});
}

}  // namespace
}  // namespace host_cuda_test
