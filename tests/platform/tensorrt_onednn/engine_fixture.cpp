#include "platform/tensorrt_onednn/engine_fixture.h"

#include <null_stream_watch.h>

#include <cmath>
#include <random>

namespace ostrel::testing {

std::size_t element_count(const Shape& shape) {
  std::size_t count = 1;
  for (const std::int64_t size : shape) count *= static_cast<std::size_t>(size);
  return count;
}

nvinfer1::Dims dims_of(const Shape& shape) {
  nvinfer1::Dims dims{};
  dims.nbDims = static_cast<int32_t>(shape.size());
  std::copy(shape.begin(), shape.end(), dims.d);
  return dims;
}

Shape shape_of(const nvinfer1::Dims& dims) {
  if (dims.nbDims < 0) return {};
  return {dims.d, dims.d + dims.nbDims};
}

Tensor random_tensor(const Shape& shape, unsigned seed) {
  std::mt19937 generator(seed);
  Tensor tensor{shape, std::vector<float>(element_count(shape))};
  for (float& value : tensor.values) value = static_cast<float>(generator() % 2001) / 1000.0F - 1.0F;
  return tensor;
}

DeviceMemory::DeviceMemory(std::size_t bytes) {
  EXPECT_EQ(cudaMalloc(&memory_, bytes), cudaSuccess);
}

DeviceMemory::~DeviceMemory() {
  cudaFree(memory_);
}

LoadedEngine::LoadedEngine(const std::string& bytes)
    : runtime(nvinfer1::createInferRuntime(logger)),
      engine(runtime->deserializeCudaEngine(bytes.data(), bytes.size())) {}

BoundContext::BoundContext(nvinfer1::ICudaEngine* engine)
    : engine_(engine), context_(engine->createExecutionContext()) {}

void BoundContext::bind(const std::vector<Tensor>& inputs) {
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    const char* name = engine_->getIOTensorName(static_cast<int32_t>(i));
    ASSERT_TRUE(context_->setInputShape(name, dims_of(inputs[i].shape))) << name;
  }
  memory_.clear();
  for (int32_t i = 0; i < engine_->getNbIOTensors(); ++i) {
    const char* name = engine_->getIOTensorName(i);
    const Shape shape = shape_of(context_->getTensorShape(name));
    memory_.push_back(std::make_unique<DeviceMemory>(element_count(shape) * sizeof(float)));
    ASSERT_TRUE(context_->setTensorAddress(name, memory_.back()->get())) << name;
  }
}

void BoundContext::upload(const std::vector<Tensor>& inputs) {
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    ASSERT_EQ(cudaMemcpyAsync(memory_[i]->get(), inputs[i].values.data(),
                              inputs[i].values.size() * sizeof(float), cudaMemcpyHostToDevice, stream_.get()),
              cudaSuccess);
  }
}

std::vector<float> BoundContext::download_tensor(std::size_t position, std::size_t count) {
  std::vector<float> values(count);
  EXPECT_EQ(cudaMemcpyAsync(values.data(), memory_[position]->get(), count * sizeof(float),
                            cudaMemcpyDeviceToHost, stream_.get()),
            cudaSuccess);
  stream_.wait();
  return values;
}

std::vector<Tensor> BoundContext::download() {
  std::vector<Tensor> outputs;
  for (int32_t i = 0; i < engine_->getNbIOTensors(); ++i) {
    const char* name = engine_->getIOTensorName(i);
    if (engine_->getTensorIOMode(name) != nvinfer1::TensorIOMode::kOUTPUT) continue;
    const Shape shape = shape_of(context_->getTensorShape(name));
    outputs.push_back({shape, download_tensor(static_cast<std::size_t>(i), element_count(shape))});
  }
  return outputs;
}

std::vector<Tensor> BoundContext::run(const std::vector<Tensor>& inputs) {
  const ostrel_test::NullStreamWatch null_stream;
  bind(inputs);
  upload(inputs);
  EXPECT_TRUE(context_->enqueueV3(stream_.get()));
  std::vector<Tensor> outputs = download();
  null_stream.expect_nothing_new();
  return outputs;
}

std::vector<Tensor> run_model(const std::string& bytes, const std::vector<Tensor>& inputs) {
  LoadedEngine loaded(bytes);
  EXPECT_NE(loaded.engine, nullptr) << loaded.logger.errors();
  if (loaded.engine == nullptr) return {};
  BoundContext context(loaded.engine.get());
  std::vector<Tensor> outputs = context.run(inputs);
  EXPECT_EQ(loaded.logger.errors(), "");
  return outputs;
}

void expect_near(const Tensor& found, const Tensor& expected, double tolerance) {
  ASSERT_EQ(found.shape, expected.shape);
  ASSERT_EQ(found.values.size(), expected.values.size());
  for (std::size_t i = 0; i < found.values.size(); ++i) {
    ASSERT_NEAR(found.values[i], expected.values[i], tolerance) << "element " << i;
  }
}

}  // namespace ostrel::testing
