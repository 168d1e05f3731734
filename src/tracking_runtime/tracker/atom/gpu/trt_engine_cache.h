#pragma once

#include <NvInfer.h>

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Internal errors, errors and warnings of the engine go to standard error, a line each with the prefix
/// "[TRT][ATOM][cuda] "; information and verbose messages are dropped. Called from any thread.
class TrtSilentLogger final : public nvinfer1::ILogger {
 public:
  void log(Severity severity, nvinfer1::AsciiChar const* message) noexcept override;
};

/// The process's one logger; it outlives every runtime.
TrtSilentLogger& get_trt_logger();

/// A deserialised engine with the names of its tensors. Shared by every worker of every backend in the process;
/// contexts are made from it by several threads at once.
struct TrtEngineCacheEntry {
  std::unique_ptr<nvinfer1::IRuntime> runtime;  ///< outlives `engine`
  std::unique_ptr<nvinfer1::ICudaEngine> engine;
  std::string input_name;  ///< the last input in engine order
  std::string out0_name;   ///< the first output in engine order; empty when there is none
  std::string out1_name;   ///< the second output; empty when there is only one
};

using TrtEngineCache = std::unordered_map<std::string, std::shared_ptr<TrtEngineCacheEntry>>;

/// The process's engines by path, exactly as given. Entries are never removed, and neither object is ever
/// destroyed: both must be valid during shutdown, whatever the order of static destructors. Hold the mutex for
/// lookups and insertions only, never while a file is read.
std::mutex& get_trt_engine_cache_mutex();
TrtEngineCache& get_trt_engine_cache();

/// The engine of a path, from the cache or from the file. Two threads that miss together both read the file;
/// the first to insert wins, and the other takes that entry.
struct TrtEngineLookup {
  std::shared_ptr<TrtEngineCacheEntry> entry;  ///< null after a failure
  const char* outcome = "miss";                ///< "hit" when the entry was in the cache
};

/// Fails, with the path where the text ends in a colon: "TensorRT backbone engine path is empty", "TensorRT
/// backbone engine not found: " (also for a path that is cached), "failed to open TensorRT engine: ", "failed
/// to read TensorRT engine: ", "failed to create TensorRT runtime", "failed to deserialize TensorRT engine: ",
/// "TensorRT engine has no input tensor". A failure stores nothing. Throws what memory, streams and the mutex
/// throw.
TrtEngineLookup find_or_load_trt_engine(const std::string& engine_path, std::string* error);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
