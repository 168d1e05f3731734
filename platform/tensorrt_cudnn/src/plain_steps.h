// Steps that run kernels of our own. Operands stand in the order of the constructors' arguments.
#pragma once

#include "execution_plan.h"

namespace ostrel::tensorrt_cudnn {

class MaxPoolStep final : public PlanStep {
 public:
  MaxPoolStep(Format format, Operand source, const MapSizes& source_sizes, Operand target,
              const MapSizes& target_sizes, const PoolWindow& window);
  void run(const Run& run) const override;

 private:
  Format format_;
  MapSizes source_sizes_;
  MapSizes target_sizes_;
  PoolWindow window_;
};

class PadStep final : public PlanStep {
 public:
  PadStep(Format format, Operand source, const MapSizes& source_sizes, Operand target,
          const MapSizes& target_sizes, int top, int left);
  void run(const Run& run) const override;

 private:
  Format format_;
  MapSizes source_sizes_;
  MapSizes target_sizes_;
  int top_;
  int left_;
};

class ReluStep final : public PlanStep {
 public:
  ReluStep(Format format, Operand source, Operand target, std::int64_t count);
  void run(const Run& run) const override;

 private:
  Format format_;
  std::int64_t count_;
};

// From one format into the other.
class ReorderStep final : public PlanStep {
 public:
  ReorderStep(Format from, Operand source, Operand target, const MapSizes& sizes);
  void run(const Run& run) const override;

 private:
  Format from_;
  MapSizes sizes_;
};

class CopyStep final : public PlanStep {
 public:
  CopyStep(Operand source, Operand target, std::size_t bytes);
  void run(const Run& run) const override;

 private:
  std::size_t bytes_;
};

class ArithmeticStep final : public PlanStep {
 public:
  ArithmeticStep(Operator op, Operand first, const Sizes& first_sizes, Operand second,
                 const Sizes& second_sizes, Operand target, const Sizes& target_sizes);
  void run(const Run& run) const override;

 private:
  ArithmeticShape shape_;
};

class ResizeStep final : public PlanStep {
 public:
  ResizeStep(const ResizeRule& rule, Operand source, const Sizes& source_sizes, Operand target,
             const Sizes& target_sizes);
  void run(const Run& run) const override;

 private:
  DeviceMemory rows_;
  DeviceMemory columns_;
  ResizeShape shape_;
};

}  // namespace ostrel::tensorrt_cudnn
