// What the video-processing host and its plug-ins agree on: the records of a plug-in's answers and the base
// class that class_loader hands out. Layouts and the order of the virtual operations must match the host's
// own build.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace optrix {
class OptrixPicture;
}

// A box in full-frame pixels, top-left corner and size.
struct BBox {
  std::int32_t x = 0;
  std::int32_t y = 0;
  std::int32_t w = 0;
  std::int32_t h = 0;
};

// One value of an answer. The order of the alternatives is part of the contract: readers go by index.
// Objects keep the order of their members; keys are not checked for uniqueness.
struct AlgoValue {
  using Object = std::vector<std::pair<std::string, AlgoValue>>;
  using Array = std::vector<AlgoValue>;
  using Variant = std::variant<bool, std::int64_t, double, std::string, Object, Array>;

  AlgoValue() = default;
  AlgoValue(bool flag) : value(flag) {}
  AlgoValue(std::int64_t integer) : value(integer) {}
  AlgoValue(double number) : value(number) {}
  AlgoValue(std::string text) : value(std::move(text)) {}
  AlgoValue(const char* text) : value(std::string(text)) {}
  AlgoValue(Object members) : value(std::move(members)) {}
  AlgoValue(Array elements) : value(std::move(elements)) {}

  Variant value;
};

// One answer of a plug-in: the type says how the payload reads, such as "detection.v1".
struct AlgoOutput {
  std::string output_type;
  AlgoValue payload;
};

// An output type that a plug-in announces. The meaning of the two integers lies with the host.
struct AlgoOutputDeclaration {
  std::string output_type;
  std::int32_t param_a = 0;
  std::int32_t param_b = 0;
};

// The base class of every plug-in. Only the first picture of a vector counts; an empty vector or a null first
// element means that there is no frame. No operation lets an exception of its own out.
class IAlgoPlugin {
 public:
  using Pictures = std::vector<std::shared_ptr<optrix::OptrixPicture>>;

  virtual ~IAlgoPlugin() = default;

  // Starts a run on a region of the first picture and returns at once; `*ok` tells whether it was accepted.
  virtual std::vector<AlgoOutput> init(const Pictures& pictures, const BBox& roi, bool* ok) = 0;
  virtual std::vector<AlgoOutputDeclaration> getOutputDeclarations() const = 0;
  // One frame; always answers with its outputs, also when it had nothing to do.
  virtual std::vector<AlgoOutput> update(const Pictures& pictures, bool* ok) = 0;
  virtual bool isAlive() = 0;
  virtual std::string getName() const = 0;
  virtual std::string getUuid() = 0;
  virtual bool isDynamic() const = 0;
  virtual void changePerformance(int level) = 0;
  virtual void enableDebug(bool enabled) = 0;
  virtual std::string getConfigList() = 0;
  virtual void setConfig(std::string json) = 0;
  virtual std::string getPropertyList() = 0;
  virtual void setProperty(std::string name, std::string value) = 0;
  virtual std::string property(std::string name) = 0;
};
