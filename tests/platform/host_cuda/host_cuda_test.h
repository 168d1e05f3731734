#pragma once

#include <cuda_runtime.h>
#include <gtest/gtest.h>
#include <host_cuda/control.h>
#include <live_handles.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

// What the contract tests of the CUDA stand-in and of launches share.
namespace host_cuda_test {

using namespace ostrel::host_cuda;

// Holds work on a stream until it is opened. Only for deferred streams: an eager one would never return.
class Gate {
 public:
  ~Gate() { open(); }

  void open() {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    state_->open = true;
    state_->changed.notify_all();
  }

  void hold(cudaStream_t stream) {
    const auto wait = [state = state_] {
      std::unique_lock<std::mutex> lock(state->mutex);
      state->changed.wait(lock, [&] { return state->open; });
    };
    EXPECT_EQ(enqueue(stream, "gate", wait), cudaSuccess);
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    bool open = false;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();  // the held work may outlive the gate
};

// Meets the other callers: returns true once `count` threads are here together, false after ten seconds alone.
class Rendezvous {
 public:
  explicit Rendezvous(int count) : missing_(count) {}

  bool meet() {
    std::unique_lock<std::mutex> lock(mutex_);
    --missing_;
    changed_.notify_all();
    return changed_.wait_for(lock, std::chrono::seconds(10), [this] { return missing_ <= 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int missing_;
};

// Starts each test with clean counters and faults and ends it with every mode as it was and nothing left
// alive.
class HostCudaTest : public testing::Test {
 protected:
  void SetUp() override {
    clear_faults();
    reset_counters();
    static_cast<void>(cudaGetLastError());  // what an earlier test left behind; some errors of a device stay
    reset_counters();
  }

  void TearDown() override {
    clear_faults();
    EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
    EXPECT_TRUE(set_stream_mode(mode_at_start_));
    set_thread_order(order_at_start_);
    set_tuned_kernels(tuned_at_start_);
    set_worker_count(workers_at_start_);
    ostrel_test::expect_nothing_alive();
  }

 private:
  StreamMode mode_at_start_ = stream_mode();
  ThreadOrder order_at_start_ = thread_order();
  bool tuned_at_start_ = tuned_kernels();
  int workers_at_start_ = worker_count();
};

class DeferredStreamTest : public HostCudaTest {
 protected:
  void SetUp() override {
    HostCudaTest::SetUp();
    ASSERT_TRUE(set_stream_mode(StreamMode::kDeferred));
  }
};

class TestStream {
 public:
  TestStream() { EXPECT_EQ(cudaStreamCreateWithFlags(&stream_, cudaStreamNonBlocking), cudaSuccess); }
  explicit TestStream(unsigned flags) { EXPECT_EQ(cudaStreamCreateWithFlags(&stream_, flags), cudaSuccess); }
  ~TestStream() { EXPECT_EQ(cudaStreamDestroy(stream_), cudaSuccess); }
  TestStream(const TestStream&) = delete;
  TestStream& operator=(const TestStream&) = delete;
  operator cudaStream_t() const { return stream_; }

 private:
  cudaStream_t stream_ = nullptr;
};

class TestEvent {
 public:
  explicit TestEvent(unsigned flags = cudaEventDefault) {
    EXPECT_EQ(cudaEventCreateWithFlags(&event_, flags), cudaSuccess);
  }
  ~TestEvent() { EXPECT_EQ(cudaEventDestroy(event_), cudaSuccess); }
  TestEvent(const TestEvent&) = delete;
  TestEvent& operator=(const TestEvent&) = delete;
  operator cudaEvent_t() const { return event_; }

 private:
  cudaEvent_t event_ = nullptr;
};

template <typename T>
class DeviceArray {
 public:
  explicit DeviceArray(std::size_t count) : count_(count) {
    EXPECT_EQ(cudaMalloc(&data_, count * sizeof(T)), cudaSuccess);
  }
  explicit DeviceArray(const std::vector<T>& values) : DeviceArray(values.size()) {
    EXPECT_EQ(cudaMemcpy(data_, values.data(), bytes(), cudaMemcpyHostToDevice), cudaSuccess);
    EXPECT_EQ(cudaStreamSynchronize(nullptr), cudaSuccess);  // for work on any stream
  }
  ~DeviceArray() { EXPECT_EQ(cudaFree(data_), cudaSuccess); }
  DeviceArray(const DeviceArray&) = delete;
  DeviceArray& operator=(const DeviceArray&) = delete;

  T* data() const { return data_; }
  std::size_t bytes() const { return count_ * sizeof(T); }
  std::vector<T> on_host() const {
    std::vector<T> values(count_);
    EXPECT_EQ(cudaMemcpy(values.data(), data_, bytes(), cudaMemcpyDeviceToHost), cudaSuccess);
    return values;
  }

 private:
  std::size_t count_;
  T* data_ = nullptr;
};

template <typename T>
class PinnedArray {
 public:
  explicit PinnedArray(std::size_t count) : count_(count) {
    EXPECT_EQ(cudaMallocHost(&data_, count * sizeof(T)), cudaSuccess);
  }
  ~PinnedArray() { EXPECT_EQ(cudaFreeHost(data_), cudaSuccess); }
  PinnedArray(const PinnedArray&) = delete;
  PinnedArray& operator=(const PinnedArray&) = delete;

  T* data() const { return data_; }
  std::size_t bytes() const { return count_ * sizeof(T); }
  T& operator[](std::size_t i) { return data_[i]; }

 private:
  std::size_t count_;
  T* data_ = nullptr;
};

}  // namespace host_cuda_test
