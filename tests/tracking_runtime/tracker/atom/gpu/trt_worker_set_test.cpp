#include "tracking_runtime/tracker/atom/gpu/trt_worker_set.h"

#include <new>
#include <stdexcept>

#include "engine_fixture.h"
#include "tracking_runtime/tracker/atom/gpu/trt_forward.h"

namespace ostrel_test {
namespace {

class TrtWorkerSetTest : public EngineTest {
 protected:
  /// A start that is to fail; every worker is gone afterwards.
  void expect_failure(const std::string& path, std::size_t scales, const std::string& text) {
    EXPECT_FALSE(start(path, scales));
    EXPECT_EQ(error, text);
    EXPECT_EQ(trt, nullptr);
    EXPECT_EQ(banner.find("backbone ready"), std::string::npos);
    host_cuda::clear_faults();
  }
};

StridedEngine engine_of_batch(int batch, int outputs = 2) {
  StridedEngine engine;
  engine.batch = batch;
  engine.outputs = outputs;
  return engine;
}

TEST_F(TrtWorkerSetTest, ServesAllScalesOfAnOpenBatchByOneWorker) {
  const std::string path = write_engine({});
  ASSERT_TRUE(start(path, 5)) << error;
  EXPECT_EQ(trt->max_batch, 5);
  EXPECT_TRUE(trt->dynamic_batch);
  EXPECT_FALSE(trt->dynamic_spatial);
  EXPECT_TRUE(trt->ready);
  EXPECT_TRUE(trt_workers.empty());
  EXPECT_EQ(banner, "[CudaRuntimeBackend] TRT backbone ready: " + path +
                        "\n  cache=miss\n  input=[5,3,32,32] dynamic_batch=1 workers=1\n"
                        "  out0=fine [5,2,16,16]  out1=coarse [5,6,8,8]\n");
}

TEST_F(TrtWorkerSetTest, MakesAWorkerPerScaleOfAFixedBatchUpToThree) {
  const struct { std::size_t scales, further; } rows[] = {{0, 0}, {1, 0}, {2, 1}, {3, 2}, {7, 2}};
  const std::string path = write_engine(engine_of_batch(4));
  for (const auto& row : rows) {
    ASSERT_TRUE(start(path, row.scales)) << error;
    EXPECT_EQ(trt->max_batch, 4);
    EXPECT_FALSE(trt->dynamic_batch);
    ASSERT_EQ(trt_workers.size(), row.further) << row.scales << " scales";
    for (const auto& worker : trt_workers) {
      EXPECT_EQ(worker->max_batch, 4);
      EXPECT_EQ(worker->engine_entry, trt->engine_entry);
      EXPECT_NE(worker->context, trt->context);
      EXPECT_NE(worker->stream.get(), trt->stream.get());
    }
    EXPECT_NE(banner.find("dynamic_batch=0 workers=" + std::to_string(row.further + 1) + "\n"),
              std::string::npos);
  }
}

TEST_F(TrtWorkerSetTest, MakesOneWorkerForAnOpenBatchAndOneScale) {
  ASSERT_TRUE(start(StridedEngine{}, 1)) << error;
  EXPECT_EQ(trt->max_batch, 1);
  EXPECT_TRUE(trt_workers.empty());
}

TEST_F(TrtWorkerSetTest, CountsNoScalesAsOne) {
  ASSERT_TRUE(start(StridedEngine{}, 0)) << error;
  EXPECT_EQ(trt->max_batch, 1);
}

TEST_F(TrtWorkerSetTest, TakesTheRequestsSideWhereTheEngineLeavesItOpen) {
  StridedEngine engine;
  engine.open_sides = true;
  ASSERT_TRUE(start(write_engine(engine), 2, 48)) << error;
  EXPECT_TRUE(trt->dynamic_spatial);
  EXPECT_EQ(trt->input_height, 48);
  EXPECT_EQ(trt->input_width, 48);
  EXPECT_EQ(trt->out1_height, 12);
}

TEST_F(TrtWorkerSetTest, TakesTheEnginesSidesOverTheRequests) {
  StridedEngine engine;
  engine.height = 16;
  engine.width = 24;
  ASSERT_TRUE(start(write_engine(engine), 2, 192)) << error;
  EXPECT_EQ(trt->input_height, 16);
  EXPECT_EQ(trt->input_width, 24);
  EXPECT_EQ(trt->out0_height, 8);
  EXPECT_EQ(trt->out0_width, 12);
}

TEST_F(TrtWorkerSetTest, TakesAnInputThatIsNotFourDimensionalAsBatchOneOfOpenSides) {
  const std::string path = write_engine({});
  host_cuda::answer_call("ICudaEngine::getTensorShape", 1, {3, -1, -1});
  ASSERT_TRUE(start(path, 3)) << error;
  EXPECT_EQ(trt->max_batch, 1);
  EXPECT_FALSE(trt->dynamic_batch);
  EXPECT_TRUE(trt->dynamic_spatial);
  EXPECT_EQ(trt->input_height, 32);
  EXPECT_EQ(trt_workers.size(), 2U);
}

TEST_F(TrtWorkerSetTest, RaisesASearchSizeBelowTwoToOne) {
  const std::string path = write_engine({});
  for (const int search_size : {1, 0, -5}) {
    host_cuda::answer_call("ICudaEngine::getTensorShape", 1, {-1, 3, 0, 0});
    EXPECT_FALSE(start(path, 1, search_size)) << "an engine of side 32 refuses other sides";
    EXPECT_EQ(error, "failed to set TensorRT input shape");
    EXPECT_NE(banner.find("size 1 of dimension 2"), std::string::npos) << banner;
  }
  host_cuda::answer_call("ICudaEngine::getTensorShape", 1, {-1, 3, 0, 0});
  EXPECT_TRUE(start(path, 1, 32)) << "a declared side of 0 leaves the request's";
  EXPECT_FALSE(trt->dynamic_spatial);
}

TEST_F(TrtWorkerSetTest, AllocatesEveryBufferAtTheLargestBatch) {
  ASSERT_TRUE(start(StridedEngine{}, 3)) << error;
  EXPECT_EQ(trt->input_bytes, 3U * 32 * 32 * 12);
  EXPECT_EQ(trt->input_u8_bytes, 3U * 32 * 32 * 3);
  EXPECT_EQ(trt->out0_bytes, 3U * 2 * 16 * 16 * 4);
  EXPECT_EQ(trt->out1_bytes, 3U * 6 * 8 * 8 * 4);
  EXPECT_TRUE(host_cuda::is_device_pointer(trt->input_device.get(), trt->input_bytes));
  EXPECT_TRUE(host_cuda::is_device_pointer(trt->input_u8_device.get(), trt->input_u8_bytes));
  EXPECT_TRUE(host_cuda::is_device_pointer(trt->out0_device.get(), trt->out0_bytes));
  EXPECT_TRUE(host_cuda::is_device_pointer(trt->out1_device.get(), trt->out1_bytes));
  EXPECT_TRUE(host_cuda::is_pinned_pointer(trt->out0_host.get(), trt->out0_bytes));
  EXPECT_TRUE(host_cuda::is_pinned_pointer(trt->out1_host.get(), trt->out1_bytes));
  EXPECT_EQ(trt->classifier, nullptr);
}

TEST_F(TrtWorkerSetTest, LeavesTheBuffersOfAnAbsentOutputNull) {
  ASSERT_TRUE(start(engine_of_batch(-1, 1), 2)) << error;
  EXPECT_FALSE(trt->out1_device);
  EXPECT_FALSE(trt->out1_host);
  EXPECT_NE(banner.find("out0=fine [2,2,16,16]  out1= [2,0,0,0]\n"), std::string::npos);
  EXPECT_EQ(&trt->feature_tensor().name, &trt->out0_name);
}

TEST_F(TrtWorkerSetTest, TakesTheSecondOutputForTheFeatures) {
  ASSERT_TRUE(start(StridedEngine{}, 2)) << error;
  const atom::TrtOutputTensor tensor = trt->feature_tensor();
  EXPECT_EQ(&tensor.name, &trt->out1_name);
  EXPECT_EQ(tensor.device, trt->out1_device.get());
  EXPECT_EQ(tensor.host, trt->out1_host.get());
  EXPECT_EQ(tensor.bytes, trt->out1_bytes);
  EXPECT_EQ(tensor.channels, 6);
}

TEST_F(TrtWorkerSetTest, ReportsAHitForTheSecondBackendOfAPath) {
  const std::string path = write_engine({});
  ASSERT_TRUE(start(path, 2));
  ASSERT_TRUE(start(path, 2));
  EXPECT_NE(banner.find("\n  cache=hit\n"), std::string::npos);
}

TEST_F(TrtWorkerSetTest, NamesTheStepThatFailed) {
  const struct {
    const char* call;
    int n;
    const char* text;
  } rows[] = {
      {"createExecutionContext", 1, "failed to create TensorRT execution context"},
      {"setInputShape", 1, "failed to set TensorRT input shape"},
      {"cudaMalloc", 1, "failed to allocate TensorRT input buffer"},
      {"cudaMalloc", 2, "failed to allocate TensorRT uint8 input buffer"},
      {"getTensorShape(fine)", 1, "failed to allocate TensorRT output buffer out0"},
      {"cudaMalloc", 3, "failed to allocate TensorRT output buffer out0"},
      {"cudaMallocHost", 1, "failed to allocate TensorRT output buffer out0"},
      {"getTensorShape(coarse)", 1, "failed to allocate TensorRT output buffer out1"},
      {"cudaMalloc", 4, "failed to allocate TensorRT output buffer out1"},
      {"cudaMallocHost", 2, "failed to allocate TensorRT output buffer out1"},
      {"setTensorAddress", 1, "failed to bind TensorRT input tensor"},
      {"setTensorAddress", 2, "failed to bind TensorRT output tensor out0"},
      {"setTensorAddress", 3, "failed to bind TensorRT output tensor out1"},
      {"cudaStreamCreateWithFlags", 1, "failed to create TensorRT CUDA stream"},
      {"cudaEventCreate", 1, "failed to create CUDA event start for upload_u8"},
      {"cudaEventCreate", 2, "failed to create CUDA event stop for upload_u8"},
      {"cudaEventCreate", 3, "failed to create CUDA event start for preprocess_cuda"},
      {"cudaEventCreate", 4, "failed to create CUDA event stop for preprocess_cuda"},
      {"cudaEventCreate", 5, "failed to create CUDA event start for trt_wait"},
      {"cudaEventCreate", 6, "failed to create CUDA event stop for trt_wait"},
      {"cudaEventCreate", 7, "failed to create CUDA event start for d2h_response"},
      {"cudaEventCreate", 8, "failed to create CUDA event stop for d2h_response"},
      {"cudaEventCreate", 9, "failed to create CUDA event start for d2h_projected"},
      {"cudaEventCreate", 10, "failed to create CUDA event stop for d2h_projected"},
  };
  const std::string path = write_engine({});
  const host_cuda::Counters before = host_cuda::counters();
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.call) + " " + std::to_string(row.n));
    host_cuda::fail_call(row.call, row.n, 2);
    expect_failure(path, 3, row.text);
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);
  }
  const host_cuda::Counters after = host_cuda::counters();
  EXPECT_EQ(after.live_device_bytes, before.live_device_bytes);
  EXPECT_EQ(after.live_pinned_bytes, before.live_pinned_bytes);
  EXPECT_EQ(after.live_streams, before.live_streams);
  EXPECT_EQ(after.live_events, before.live_events);
  EXPECT_TRUE(start(path, 3)) << "the next call tries again";
}

TEST_F(TrtWorkerSetTest, RefusesOutputsOfAnUnusableShape) {
  const struct {
    const char* reason;
    std::vector<std::int64_t> shape;
  } rows[] = {
      {"three dimensions", {3, 2, 16}},
      {"a side that is not resolved", {3, 2, -1, -1}},
      {"an empty side", {3, 2, 0, 16}},
      {"a side beyond 32 bits", {3, 2, std::int64_t{1} << 32, 16}},
      {"more bytes than there are", {3, 1 << 30, 1 << 30, 1 << 30}},
  };
  const std::string path = write_engine({});
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reason);
    host_cuda::answer_call("getTensorShape(fine)", 1, row.shape);
    expect_failure(path, 3, "failed to allocate TensorRT output buffer out0");
    host_cuda::answer_call("getTensorShape(coarse)", 1, row.shape);
    expect_failure(path, 3, "failed to allocate TensorRT output buffer out1");
  }
}

TEST_F(TrtWorkerSetTest, LeavesNothingWhenAFurtherWorkerFails) {
  const std::string path = write_engine(engine_of_batch(1));
  const host_cuda::Counters before = host_cuda::counters();
  for (int worker = 2; worker <= 3; ++worker) {
    host_cuda::fail_call("createExecutionContext", worker, 1);
    expect_failure(path, 3, "failed to create TensorRT execution context");
    EXPECT_TRUE(trt_workers.empty());
  }
  EXPECT_EQ(host_cuda::counters().live_device_bytes, before.live_device_bytes);
}

TEST_F(TrtWorkerSetTest, KeepsItsWorkersWhenTheEngineCannotBeLoaded) {
  ASSERT_TRUE(start(engine_of_batch(1), 3));
  const TrtBackbone* const primary = trt.get();
  EXPECT_FALSE(start(folder.path("absent.engine"), 3));
  EXPECT_EQ(trt.get(), primary);
  EXPECT_EQ(trt_workers.size(), 2U);
}

TEST_F(TrtWorkerSetTest, LosesThePrimaryAloneWhenItsSuccessorFails) {
  const std::string path = write_engine(engine_of_batch(1));
  ASSERT_TRUE(start(path, 3));
  host_cuda::fail_call("createExecutionContext", 1, 1);
  EXPECT_FALSE(start(path, 3));
  EXPECT_EQ(trt, nullptr);
  EXPECT_EQ(trt_workers.size(), 2U);
}

TEST_F(TrtWorkerSetTest, ReplacesItsWorkersWhenItRunsAgain) {
  ASSERT_TRUE(start(write_engine(engine_of_batch(1)), 3));
  const host_cuda::Counters before = host_cuda::counters();
  ASSERT_TRUE(start(write_engine(StridedEngine{}), 3));
  EXPECT_TRUE(trt_workers.empty());
  EXPECT_EQ(trt->max_batch, 3);
  EXPECT_EQ(host_cuda::counters().live_streams, before.live_streams - 2);
}

TEST_F(TrtWorkerSetTest, WaitsForQueuedWorkBeforeAWorkerGoes) {
  ASSERT_TRUE(start(engine_of_batch(1), 1));
  ASSERT_TRUE(atom::launch_trt_worker_forward(trt.get(), random_patch(32, 32, 1), &error)) << error;
  const std::int64_t pending = host_cuda::counters().frees_while_work_pending;
  ::testing::internal::CaptureStderr();
  trt.reset();
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(host_cuda::counters().frees_while_work_pending, pending);
}

TEST_F(TrtWorkerSetTest, ReleasesPinnedThenDeviceMemoryThenStreamAndEvents) {
  ASSERT_TRUE(start(engine_of_batch(1), 1));
  host_cuda::start_trace();
  trt.reset();
  std::vector<std::string> expected{"cudaStreamSynchronize"};
  expected.insert(expected.end(), 2, "cudaFreeHost");
  expected.insert(expected.end(), 4, "cudaFree");
  expected.push_back("cudaStreamDestroy");
  expected.insert(expected.end(), 10, "cudaEventDestroy");
  EXPECT_EQ(host_cuda::stop_trace(), expected);
}

TEST_F(TrtWorkerSetTest, KeepsTheEngineInTheCacheWhenTheLastWorkerGoes) {
  const std::string path = write_engine({});
  ASSERT_TRUE(start(path, 2));
  trt.reset();
  EXPECT_EQ(atom::get_trt_engine_cache().at(path).use_count(), 1);
}

TEST_F(TrtWorkerSetTest, PrintsWarningsOfTheEngineWithItsTag) {
  const std::string path = write_engine({});
  host_cuda::fail_call("setInputShape", 1, 1);
  EXPECT_FALSE(start(path, 1));
  EXPECT_EQ(banner.rfind("[TRT][ATOM][cuda] ", 0), 0U);
}

TEST(TrtInitialisationFailure, TellsTheTextOfAStandardException) {
  EXPECT_EQ(atom::trt_initialisation_failure(std::make_exception_ptr(std::length_error("too long"))),
            "failed to initialize TensorRT backbone: too long");
  EXPECT_EQ(atom::trt_initialisation_failure(std::make_exception_ptr(7)),
            "failed to initialize TensorRT backbone");
}

TEST(CudaEventPair, IsCreatedOnce) {
  atom::CudaEventPair pair;
  std::string error;
  ASSERT_TRUE(atom::create_cuda_event_pair(&pair, "stage", &error));
  cudaEvent_t const start = pair.start.get();
  cudaEvent_t const stop = pair.stop.get();
  const std::int64_t events = host_cuda::counters().live_events;
  ASSERT_TRUE(atom::create_cuda_event_pair(&pair, "stage", &error));
  EXPECT_EQ(pair.start.get(), start);
  EXPECT_EQ(pair.stop.get(), stop);
  EXPECT_EQ(host_cuda::counters().live_events, events);
}

TEST(CudaEventPair, CompletesAHalfMadePair) {
  atom::CudaEventPair pair;
  std::string error;
  host_cuda::fail_call("cudaEventCreate", 2, cudaErrorMemoryAllocation);
  EXPECT_FALSE(atom::create_cuda_event_pair(&pair, "stage", &error));
  EXPECT_EQ(error, "failed to create CUDA event stop for stage");
  cudaEvent_t const start = pair.start.get();
  EXPECT_TRUE(atom::create_cuda_event_pair(&pair, "stage", &error));
  EXPECT_EQ(pair.start.get(), start);
}

TEST(CudaEventPair, RecordsWithTheLabelInEveryFailure) {
  std::string error;
  EXPECT_FALSE(atom::record_cuda_event(nullptr, nullptr, "upload_u8 start", &error));
  EXPECT_EQ(error, "null CUDA event for upload_u8 start");
  EXPECT_FALSE(atom::record_cuda_event(nullptr, nullptr, "upload_u8 start", nullptr));

  atom::CudaEventPair pair;
  atom::CudaStream stream;
  ASSERT_TRUE(atom::create_cuda_event_pair(&pair, "stage", &error));
  ASSERT_EQ(stream.create_with_flags(cudaStreamNonBlocking), cudaSuccess);
  host_cuda::fail_call("cudaEventRecord", 1, cudaErrorUnknown);
  EXPECT_FALSE(atom::record_cuda_event(pair.start.get(), stream.get(), "upload_u8 start", &error));
  EXPECT_EQ(error, "failed to record CUDA event for upload_u8 start");
  EXPECT_EQ(cudaGetLastError(), cudaSuccess);
}

TEST(CudaEventPair, TakesNoTimeUntilItIsRecorded) {
  atom::CudaEventPair pair;
  EXPECT_EQ(atom::elapsed_cuda_event_pair_ms(pair), 0.0F);
  ASSERT_TRUE(atom::create_cuda_event_pair(&pair, "stage", nullptr));
  EXPECT_EQ(atom::elapsed_cuda_event_pair_ms(pair), 0.0F);
  EXPECT_EQ(cudaGetLastError(), cudaSuccess) << "must not pass for the failure of the next launch";

  atom::CudaStream stream;
  ASSERT_EQ(stream.create_with_flags(cudaStreamNonBlocking), cudaSuccess);
  ASSERT_TRUE(atom::record_cuda_event(pair.start.get(), stream.get(), "start", nullptr));
  ASSERT_TRUE(atom::record_cuda_event(pair.stop.get(), stream.get(), "stop", nullptr));
  ASSERT_EQ(cudaStreamSynchronize(stream.get()), cudaSuccess);
  EXPECT_GE(atom::elapsed_cuda_event_pair_ms(pair), 0.0F);
  EXPECT_LT(atom::elapsed_cuda_event_pair_ms(pair), 1000.0F);
}

}  // namespace
}  // namespace ostrel_test
