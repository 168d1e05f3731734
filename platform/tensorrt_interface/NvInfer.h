// The part of the TensorRT 10.3 interface that this project calls, declared as the vendor's own header
// declares it for a caller: same names, parameter types, constness and `noexcept`. Whoever includes it
// compiles unchanged against the vendor's header.
//
// Ownership: what createInferRuntime, deserializeCudaEngine and createExecutionContext return belongs to the
// caller, who releases it with `delete`. A runtime outlives its engines, an engine outlives its contexts.
// Threads: an engine may be shared; a context is used by one thread at a time.
// Failures: null or false, after a line to the logger that was given to the runtime.
#pragma once

#include <cuda_runtime.h>

#include <cstddef>
#include <cstdint>

#define NV_TENSORRT_MAJOR 10
#define NV_TENSORRT_MINOR 3
#define NV_TENSORRT_PATCH 0
#define NV_TENSORRT_BUILD 0
#define NV_TENSORRT_VERSION_INT(major, minor, patch) ((major)*10000L + (minor)*100L + (patch)*1L)
#define NV_TENSORRT_VERSION NV_TENSORRT_VERSION_INT(NV_TENSORRT_MAJOR, NV_TENSORRT_MINOR, NV_TENSORRT_PATCH)

namespace nvinfer1 {

using char_t = char;
using AsciiChar = char_t;

// A shape; a negative size stands for one that is not known yet. `nbDims` is -1 for "no such tensor".
struct Dims64 {
  static constexpr int32_t MAX_DIMS{8};
  int32_t nbDims;
  int64_t d[MAX_DIMS];
};
using Dims = Dims64;

enum class TensorIOMode : int32_t { kNONE = 0, kINPUT = 1, kOUTPUT = 2 };

enum class ExecutionContextAllocationStrategy : int32_t {
  kSTATIC = 0,
  kON_PROFILE_CHANGE = 1,
  kUSER_MANAGED = 2,
};

// Implemented by the caller. May be called from any thread, for the whole life of the runtime.
class ILogger {
 public:
  enum class Severity : int32_t {
    kINTERNAL_ERROR = 0,
    kERROR = 1,
    kWARNING = 2,
    kINFO = 3,
    kVERBOSE = 4,
  };

  virtual void log(Severity severity, AsciiChar const* msg) noexcept = 0;

  ILogger() = default;
  virtual ~ILogger() = default;
};

class INoCopy {
 public:
  INoCopy(INoCopy const&) = delete;
  INoCopy(INoCopy&&) = delete;
  INoCopy& operator=(INoCopy const&) = delete;
  INoCopy& operator=(INoCopy&&) = delete;

 protected:
  INoCopy() = default;
  virtual ~INoCopy() = default;
};

class IExecutionContext : public INoCopy {
 public:
  ~IExecutionContext() noexcept override = default;

  // False for an unknown name, an output, another rank, a negative size, or a size that differs from a static
  // one.
  virtual bool setInputShape(char const* tensorName, Dims const& dims) noexcept = 0;

  // The shape as far as the input shapes that are set resolve it.
  virtual Dims getTensorShape(char const* tensorName) const noexcept = 0;

  // The memory belongs to the caller and is read or written when the enqueued work runs.
  virtual bool setTensorAddress(char const* tensorName, void* data) noexcept = 0;

  // Puts one run on the stream with the shapes and addresses of this moment, and returns without waiting.
  virtual bool enqueueV3(cudaStream_t stream) noexcept = 0;
};

class ICudaEngine : public INoCopy {
 public:
  ~ICudaEngine() noexcept override = default;

  // Inputs first, then outputs, each in the order of the model.
  virtual int32_t getNbIOTensors() const noexcept = 0;
  virtual char const* getIOTensorName(int32_t index) const noexcept = 0;
  virtual TensorIOMode getTensorIOMode(char const* tensorName) const noexcept = 0;

  // The shape as built; -1 stands at dynamic sizes.
  virtual Dims getTensorShape(char const* tensorName) const noexcept = 0;

  virtual IExecutionContext* createExecutionContext(
      ExecutionContextAllocationStrategy strategy = ExecutionContextAllocationStrategy::kSTATIC) noexcept = 0;
};

class IRuntime : public INoCopy {
 public:
  ~IRuntime() noexcept override = default;

  // The bytes are not needed after the call.
  virtual ICudaEngine* deserializeCudaEngine(void const* blob, std::size_t size) noexcept = 0;
};

IRuntime* createInferRuntime(ILogger& logger) noexcept;

}  // namespace nvinfer1
