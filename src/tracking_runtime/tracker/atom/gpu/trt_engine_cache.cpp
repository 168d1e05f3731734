#include "tracking_runtime/tracker/atom/gpu/trt_engine_cache.h"

#include <cstdio>
#include <fstream>
#include <optional>
#include <utility>
#include <vector>

#include "tracking_runtime/tracker/atom/refuse.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using EntryPointer = std::shared_ptr<TrtEngineCacheEntry>;

bool refuse_path(const char* text, const std::string& path, std::string* error) {
  return refuse(text + path, error);
}

bool engine_file_exists(const std::string& path) {
  return std::ifstream(path, std::ios::in | std::ios::binary).is_open();
}

EntryPointer find_cached(const std::string& path) {
  const std::lock_guard<std::mutex> lock(get_trt_engine_cache_mutex());
  const auto found = get_trt_engine_cache().find(path);
  return found == get_trt_engine_cache().end() ? nullptr : found->second;
}

std::optional<std::vector<char>> read_engine_file(const std::string& path, std::string* error) {
  std::ifstream file(path, std::ios::in | std::ios::binary);
  if (!file.is_open()) {
    refuse_path("failed to open TensorRT engine: ", path, error);
    return std::nullopt;
  }
  file.seekg(0, std::ios::end);
  const std::streamoff size = file.tellg();
  file.seekg(0, std::ios::beg);
  if (size > 0) file.peek();  // a folder opens and tells a size, the largest there is
  if (!file || size < 0) {
    refuse_path("failed to read TensorRT engine: ", path, error);
    return std::nullopt;
  }
  std::vector<char> bytes(static_cast<std::size_t>(size));
  if (!file.read(bytes.data(), size)) {
    refuse_path("failed to read TensorRT engine: ", path, error);
    return std::nullopt;
  }
  return bytes;
}

void name_tensors(TrtEngineCacheEntry* entry) {
  const int count = entry->engine->getNbIOTensors();
  for (int index = 0; index < count; ++index) {
    const char* const name = entry->engine->getIOTensorName(index);
    if (name == nullptr) continue;
    if (entry->engine->getTensorIOMode(name) == nvinfer1::TensorIOMode::kINPUT) {
      entry->input_name = name;
    } else if (entry->out0_name.empty()) {
      entry->out0_name = name;
    } else if (entry->out1_name.empty()) {
      entry->out1_name = name;
    }
  }
}

EntryPointer load_entry(const std::string& path, std::string* error) {
  const std::optional<std::vector<char>> bytes = read_engine_file(path, error);
  if (!bytes) return nullptr;
  auto entry = std::make_shared<TrtEngineCacheEntry>();
  entry->runtime.reset(nvinfer1::createInferRuntime(get_trt_logger()));
  if (!entry->runtime) {
    refuse("failed to create TensorRT runtime", error);
    return nullptr;
  }
  entry->engine.reset(entry->runtime->deserializeCudaEngine(bytes->data(), bytes->size()));
  if (!entry->engine) {
    refuse_path("failed to deserialize TensorRT engine: ", path, error);
    return nullptr;
  }
  name_tensors(entry.get());
  if (entry->input_name.empty()) {
    refuse("TensorRT engine has no input tensor", error);
    return nullptr;
  }
  return entry;
}

TrtEngineLookup insert_or_take_existing(const std::string& path, EntryPointer&& entry) {
  const std::lock_guard<std::mutex> lock(get_trt_engine_cache_mutex());
  // Unlike emplace, this leaves an entry that loses alone: its engine goes with the caller's, not under the lock.
  const auto [position, inserted] = get_trt_engine_cache().try_emplace(path, std::move(entry));
  return {position->second, inserted ? "miss" : "hit"};
}

}  // namespace

void TrtSilentLogger::log(Severity severity, nvinfer1::AsciiChar const* message) noexcept {
  if (message == nullptr || static_cast<int>(severity) >= static_cast<int>(Severity::kINFO)) return;
  std::fprintf(stderr, "[TRT][ATOM][cuda] %s\n", message);
}

// Never destroyed, like the cached runtimes that refer to it.
TrtSilentLogger& get_trt_logger() {
  static auto* const logger = new TrtSilentLogger;
  return *logger;
}

std::mutex& get_trt_engine_cache_mutex() {
  static auto* const mutex = new std::mutex;
  return *mutex;
}

TrtEngineCache& get_trt_engine_cache() {
  static auto* const cache = new TrtEngineCache;
  return *cache;
}

TrtEngineLookup find_or_load_trt_engine(const std::string& engine_path, std::string* error) {
  if (engine_path.empty()) {
    refuse("TensorRT backbone engine path is empty", error);
    return {};
  }
  if (!engine_file_exists(engine_path)) {
    refuse_path("TensorRT backbone engine not found: ", engine_path, error);
    return {};
  }
  if (EntryPointer cached = find_cached(engine_path)) return {std::move(cached), "hit"};
  EntryPointer loaded = load_entry(engine_path, error);
  if (!loaded) return {};
  return insert_or_take_existing(engine_path, std::move(loaded));
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
