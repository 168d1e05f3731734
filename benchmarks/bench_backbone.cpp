// Milliseconds of the network alone: bench_backbone MODEL [flags of Google Benchmark]
// MODEL is an ONNX file with a dynamic batch, as `ostrel_backbone random` writes it. It runs as it is, and, unless it
// asks for a precision itself, with the short floats that the device has.

#include <NvInfer.h>
#include <bench_device.h>
#include <benchmark/benchmark.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace {

class StandardErrorLogger final : public nvinfer1::ILogger {
 public:
  void log(Severity severity, const char* text) noexcept override {
    if (severity <= Severity::kWARNING) std::fprintf(stderr, "%s\n", text);
  }
};

std::string read_file(const char* path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Protocol buffers merge what is appended: here the metadata entry `precision`.
std::string with_precision(const std::string& model, const std::string& precision) {
  const std::string value = '\x12' + std::string(1, static_cast<char>(precision.size())) + precision;
  const std::string entry = "\x0a\x09precision" + value;
  return model + '\x72' + std::string(1, static_cast<char>(entry.size())) + entry;
}

std::size_t bytes_of(const nvinfer1::Dims& dims) {
  std::size_t bytes = sizeof(float);
  for (int i = 0; i < dims.nbDims; ++i) bytes *= static_cast<std::size_t>(dims.d[i]);
  return bytes;
}

StandardErrorLogger& logger() {
  static StandardErrorLogger instance;
  return instance;
}

// A context with all tensors bound.
struct Session {
  std::unique_ptr<nvinfer1::IRuntime> runtime{nvinfer1::createInferRuntime(logger())};
  std::unique_ptr<nvinfer1::ICudaEngine> engine;
  std::unique_ptr<nvinfer1::IExecutionContext> context;
  std::vector<void*> memory;
  cudaStream_t stream = nullptr;

  bool start(const std::string& model, std::int64_t batch) {
    engine.reset(runtime->deserializeCudaEngine(model.data(), model.size()));
    if (engine == nullptr) return false;
    context.reset(engine->createExecutionContext());
    cudaStreamCreateWithFlags(&stream, cudaStreamNonBlocking);
    nvinfer1::Dims input = engine->getTensorShape(engine->getIOTensorName(0));
    input.d[0] = batch;
    return context->setInputShape(engine->getIOTensorName(0), input) && bind_all();
  }

  bool bind_all() {
    for (int i = 0; i < engine->getNbIOTensors(); ++i) {
      const char* name = engine->getIOTensorName(i);
      const std::size_t bytes = bytes_of(context->getTensorShape(name));
      memory.push_back(nullptr);
      const std::vector<float> middle_grey(bytes / sizeof(float), 127.0F);
      if (cudaMalloc(&memory.back(), bytes) != cudaSuccess) return false;
      cudaMemcpyAsync(memory.back(), middle_grey.data(), bytes, cudaMemcpyHostToDevice, stream);
      if (!context->setTensorAddress(name, memory.back())) return false;
    }
    return true;
  }

  ~Session() {
    if (stream != nullptr) cudaStreamSynchronize(stream);
    context.reset();
    for (void* block : memory) cudaFree(block);
    if (stream != nullptr) cudaStreamDestroy(stream);
  }
};

void run_backbone(benchmark::State& state, const std::string& model) {
  Session session;
  if (!session.start(model, state.range(0))) {
    state.SkipWithError("the model cannot be run with this batch");
    return;
  }
  for (auto _ : state) {
    session.context->enqueueV3(session.stream);
    cudaStreamSynchronize(session.stream);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  const std::string model = argc == 2 ? read_file(argv[1]) : std::string();
  if (model.empty()) {
    std::fprintf(stderr, "usage: bench_backbone MODEL [flags of Google Benchmark]\n");
    return 2;
  }
  const std::string reduced = ostrel_bench::kShortFloats;
  for (const auto& [name, bytes] : {std::pair{std::string("backbone/as_it_is"), model},
                                    std::pair{"backbone/" + reduced, with_precision(model, reduced)}}) {
    benchmark::RegisterBenchmark(name.c_str(), run_backbone, bytes)
        ->Arg(1)
        ->Arg(3)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  }
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
