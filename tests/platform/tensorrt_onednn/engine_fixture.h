// Loads models through the public interface and runs them on a stream of their own.
#pragma once

#include <NvInfer.h>
#include <gtest/gtest.h>
#include <onnx_model_builder.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/tensorrt_onednn/recording_logger.h"

namespace ostrel::testing {

using backbone::NodeAttributes;
using backbone::OnnxModelBuilder;
using backbone::Shape;

struct Tensor {
  Shape shape;
  std::vector<float> values;
};

std::size_t element_count(const Shape& shape);
nvinfer1::Dims dims_of(const Shape& shape);
Shape shape_of(const nvinfer1::Dims& dims);

// Values between -1 and 1, the same for a seed everywhere.
Tensor random_tensor(const Shape& shape, unsigned seed);

// Device memory of its own; freed at the end.
class DeviceMemory {
 public:
  explicit DeviceMemory(std::size_t bytes);
  ~DeviceMemory();
  DeviceMemory(const DeviceMemory&) = delete;
  DeviceMemory& operator=(const DeviceMemory&) = delete;
  void* get() const { return memory_; }

 private:
  void* memory_ = nullptr;
};

class Stream {
 public:
  Stream() { EXPECT_EQ(cudaStreamCreateWithFlags(&stream_, cudaStreamNonBlocking), cudaSuccess); }
  ~Stream() { cudaStreamDestroy(stream_); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  cudaStream_t get() const { return stream_; }
  void wait() const { EXPECT_EQ(cudaStreamSynchronize(stream_), cudaSuccess); }

 private:
  cudaStream_t stream_ = nullptr;
};

// A runtime with one engine. `engine` is null when the bytes were refused; the logger tells why.
struct LoadedEngine {
  explicit LoadedEngine(const std::string& bytes);

  RecordingLogger logger;
  std::unique_ptr<nvinfer1::IRuntime> runtime;
  std::unique_ptr<nvinfer1::ICudaEngine> engine;
};

// A context with device memory for all its tensors.
class BoundContext {
 public:
  explicit BoundContext(nvinfer1::ICudaEngine* engine);

  nvinfer1::IExecutionContext* get() const { return context_.get(); }

  // Sets the shapes, uploads, runs, and downloads every output in the engine's order. Inputs in that order too.
  std::vector<Tensor> run(const std::vector<Tensor>& inputs);

  // The pieces of run().
  void bind(const std::vector<Tensor>& inputs);
  void upload(const std::vector<Tensor>& inputs);
  std::vector<Tensor> download();
  std::vector<float> download_tensor(std::size_t position, std::size_t count);
  Stream& stream() { return stream_; }

 private:
  nvinfer1::ICudaEngine* engine_;
  Stream stream_;
  std::vector<std::unique_ptr<DeviceMemory>> memory_;
  std::unique_ptr<nvinfer1::IExecutionContext> context_;
};

// Loads and runs in one go; a refused model fails the test.
std::vector<Tensor> run_model(const std::string& bytes, const std::vector<Tensor>& inputs);

// Every element within `tolerance`, and the same shape.
void expect_near(const Tensor& found, const Tensor& expected, double tolerance);

}  // namespace ostrel::testing
