// What a model is, and whether the tracker would take it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "source_graph.h"

namespace ostrel::backbone {

struct ReportedOutput {
  SourcePort port;
  double multiply_adds = 0.0;  // of all nodes that lead to it, for one sample; 0 where they were not counted
};

struct ModelReport {
  std::int64_t bytes = 0;
  std::int64_t opset = 0;
  std::string producer;
  std::string precision;  // of the metadata, "float32" where it says nothing
  std::vector<SourcePort> inputs;
  std::vector<ReportedOutput> outputs;
  std::map<std::string, int> operations;  // with Constant, Identity and Dropout
  std::int64_t parameters = 0;            // floats in constants
  double multiply_adds = 0.0;             // of all nodes, for one sample
  std::string uncounted;                  // why multiply-adds and sizes are not known; empty where they are
  std::string trunk_end;  // of a ResNet-18 that the tracker does not take: the last stage to import
  double trunk_multiply_adds = 0.0;  // up to there, for one sample of 192 x 192
  std::string verdict;               // "the tracker takes it: ..." or "the tracker does not take it: ..."
  bool taken = false;
};

// Throws ModelError for bytes that are no ONNX model; everything else is for the report to tell.
ModelReport report_model(const std::string& bytes);

// Several lines, each ended by a newline.
std::string report_text(const ModelReport& report);

}  // namespace ostrel::backbone
