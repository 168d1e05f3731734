#include "tracking_runtime/tracker/atom/gpu/trt_engine_cache.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <filesystem>

#include "engine_fixture.h"

namespace {
// Counts down to the call that is refused; negative for none.
std::atomic<int> opens_until_refusal{-1};
}  // namespace

// What std::ifstream opens files with.
extern "C" std::FILE* fopen64(const char* path, const char* mode) {
  using Open = std::FILE* (*)(const char*, const char*);
  static const auto next = reinterpret_cast<Open>(dlsym(RTLD_NEXT, "fopen64"));
  if (opens_until_refusal >= 0 && opens_until_refusal-- == 0) return nullptr;
  return next(path, mode);
}

namespace ostrel_test {
namespace {

class TrtEngineCacheTest : public EngineTest {
 protected:
  atom::TrtEngineLookup look_up(const std::string& path) {
    error.clear();
    return atom::find_or_load_trt_engine(path, &error);
  }
  void expect_failure(const std::string& path, const std::string& text) {
    EXPECT_EQ(look_up(path).entry, nullptr);
    EXPECT_EQ(error, text);
    EXPECT_EQ(atom::get_trt_engine_cache().count(path), 0U);
    EXPECT_EQ(atom::find_or_load_trt_engine(path, nullptr).entry, nullptr) << "without a place for the text";
  }
};

TEST_F(TrtEngineCacheTest, RefusesAnEmptyPath) {
  expect_failure("", "TensorRT backbone engine path is empty");
}

TEST_F(TrtEngineCacheTest, NamesAMissingFile) {
  const std::string path = folder.path("absent.engine");
  expect_failure(path, "TensorRT backbone engine not found: " + path);
}

TEST_F(TrtEngineCacheTest, NamesAFileThatGoesBetweenTheTestOfExistenceAndTheLoad) {
  const std::string path = write_engine({});
  opens_until_refusal = 1;
  EXPECT_EQ(look_up(path).entry, nullptr);
  EXPECT_EQ(error, "failed to open TensorRT engine: " + path);
  opens_until_refusal = -1;
  EXPECT_NE(look_up(path).entry, nullptr) << "the next call tries again";
}

TEST_F(TrtEngineCacheTest, NamesAFileThatCannotBeRead) {
  const std::string path = "/proc/self/mem";  // opens, and has no end to seek to
  expect_failure(path, "failed to read TensorRT engine: " + path);
  const std::string directory = folder.path().string();
  expect_failure(directory, "failed to read TensorRT engine: " + directory);
}

TEST_F(TrtEngineCacheTest, RefusesBytesThatAreNoEngine) {
  const std::string whole = StridedEngine{}.bytes();
  const struct {
    const char* name;
    std::string bytes;
  } rows[] = {
      {"empty", ""},
      {"text", "this is no engine"},
      {"first half", whole.substr(0, whole.size() / 2)},
      {"without its last byte", whole.substr(0, whole.size() - 1)},
  };
  for (const auto& row : rows) {
    const std::string path = folder.file(std::string(row.name) + ".engine", row.bytes);
    ::testing::internal::CaptureStderr();
    expect_failure(path, "failed to deserialize TensorRT engine: " + path);
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("[TRT][ATOM][cuda] "), std::string::npos)
        << row.name;
  }
}

TEST_F(TrtEngineCacheTest, SaysWhenThereIsNoRuntime) {
  const std::string path = write_engine({});
  host_cuda::fail_call("createInferRuntime", 1, 1);
  EXPECT_EQ(look_up(path).entry, nullptr);
  EXPECT_EQ(error, "failed to create TensorRT runtime");
}

TEST_F(TrtEngineCacheTest, RefusesAnEngineWithoutInput) {
  const std::string path = write_engine({});
  host_cuda::fail_call("getNbIOTensors", 1, 1);
  EXPECT_EQ(look_up(path).entry, nullptr);
  EXPECT_EQ(error, "TensorRT engine has no input tensor");
  EXPECT_EQ(atom::get_trt_engine_cache().count(path), 0U);
}

TEST_F(TrtEngineCacheTest, TakesTheFirstTwoOutputs) {
  StridedEngine engine;
  engine.outputs = 3;
  const auto entry = look_up(write_engine(engine)).entry;
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->input_name, "input");
  EXPECT_EQ(entry->out0_name, "fine");
  EXPECT_EQ(entry->out1_name, "coarse");
}

TEST_F(TrtEngineCacheTest, LeavesTheSecondOutputEmptyWhereThereIsOne) {
  StridedEngine engine;
  engine.outputs = 1;
  const auto entry = look_up(write_engine(engine)).entry;
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->out0_name, "fine");
  EXPECT_EQ(entry->out1_name, "");
}

TEST_F(TrtEngineCacheTest, TakesTheLastOfTwoInputs) {
  StridedEngine engine;
  engine.two_inputs = true;
  const auto entry = look_up(write_engine(engine)).entry;
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->input_name, "input");
}

TEST_F(TrtEngineCacheTest, SkipsTensorsWithoutAName) {
  StridedEngine engine;
  engine.outputs = 3;
  const std::string path = write_engine(engine);
  host_cuda::fail_call("getIOTensorName", 2, 1);
  const auto entry = look_up(path).entry;
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->out0_name, "coarse");
  EXPECT_EQ(entry->out1_name, "third");
}

TEST_F(TrtEngineCacheTest, ReadsAFileOncePerProcess) {
  const std::string path = write_engine({});
  const auto first = look_up(path);
  const std::int64_t loads = host_cuda::counters().calls_of("deserializeCudaEngine");
  const auto second = look_up(path);
  EXPECT_STREQ(first.outcome, "miss");
  EXPECT_STREQ(second.outcome, "hit");
  EXPECT_EQ(first.entry, second.entry);
  EXPECT_EQ(host_cuda::counters().calls_of("deserializeCudaEngine"), loads);
}

TEST_F(TrtEngineCacheTest, KeepsPathsApartAsTheyAreWritten) {
  const std::string path = folder.file("same.engine", StridedEngine{}.bytes());
  const auto first = look_up(path);
  const auto second = look_up(folder.path("./same.engine"));
  EXPECT_STREQ(second.outcome, "miss");
  EXPECT_NE(first.entry, second.entry);
}

TEST_F(TrtEngineCacheTest, DoesNotReadACachedFileAgain) {
  const std::string path = folder.file("emptied.engine", StridedEngine{}.bytes());
  const auto first = look_up(path);
  folder.file("emptied.engine", "");
  EXPECT_EQ(look_up(path).entry, first.entry);
}

TEST_F(TrtEngineCacheTest, RefusesADeletedFileAlthoughItsEngineIsCached) {
  const std::string path = write_engine({});
  ASSERT_NE(look_up(path).entry, nullptr);
  std::filesystem::remove(path);
  EXPECT_EQ(look_up(path).entry, nullptr);
  EXPECT_EQ(error, "TensorRT backbone engine not found: " + path);
  EXPECT_EQ(atom::get_trt_engine_cache().count(path), 1U);
}

TEST(TrtSilentLogger, WritesWarningsAndErrorsOnly) {
  using Severity = nvinfer1::ILogger::Severity;
  nvinfer1::ILogger& logger = atom::get_trt_logger();
  ::testing::internal::CaptureStderr();
  logger.log(Severity::kINTERNAL_ERROR, "internal");
  logger.log(Severity::kERROR, "error");
  logger.log(Severity::kWARNING, "warning");
  logger.log(Severity::kINFO, "information");
  logger.log(Severity::kVERBOSE, "verbose");
  logger.log(Severity::kERROR, nullptr);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "[TRT][ATOM][cuda] internal\n[TRT][ATOM][cuda] error\n[TRT][ATOM][cuda] warning\n");
}

TEST(TrtSilentLogger, IsOnePerProcess) {
  EXPECT_EQ(&atom::get_trt_logger(), &atom::get_trt_logger());
}

}  // namespace
}  // namespace ostrel_test
