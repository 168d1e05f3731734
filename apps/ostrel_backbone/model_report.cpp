#include "model_report.h"

#include <cstdio>

#include "model_error.h"
#include "multiply_adds.h"
#include "trunk_match.h"
#include "trunk_writer.h"

namespace ostrel::backbone {
namespace {

constexpr std::size_t kOutputsOfTheTracker = 2;

std::string refusal(const std::string& reason) {
  return "the tracker does not take it: " + reason;
}

// What is wrong with the input, or nothing.
std::string input_trouble(const ModelReport& report) {
  if (report.inputs.size() != 1)
    return "it has " + std::to_string(report.inputs.size()) + " inputs, one is wanted";
  const Shape& shape = report.inputs.front().shape;
  if (shape.size() != 4 || (shape[1] != 3 && shape[1] >= 0)) {
    return "its input " + shape_text(shape) + " is not batch x 3 x height x width";
  }
  if (shape[0] > 1) {
    return "its batch is fixed at " + std::to_string(shape[0]) +
           ", but the start of a run shows it single pictures";
  }
  return {};
}

// The plug-in cuts search regions of one size only.
std::string size_trouble(const ModelReport& report) {
  const Shape& shape = report.inputs.front().shape;
  const auto fits = [](std::int64_t side) { return side < 0 || side == kFullInputSize; };
  if (fits(shape[2]) && fits(shape[3])) return {};
  const std::string side = std::to_string(kFullInputSize);
  return "its pictures are " + std::to_string(shape[2]) + " x " + std::to_string(shape[3]) +
         ", the tracker's are " + side + " x " + side;
}

std::string output_trouble(const ModelReport& report) {
  const std::size_t count = report.outputs.size();
  if (count == 0 || count > kOutputsOfTheTracker) {
    return "it has " + std::to_string(count) + " outputs, one or two are wanted";
  }
  const Shape& batch = report.inputs.front().shape;
  for (const ReportedOutput& output : report.outputs) {
    const Shape& shape = output.port.shape;
    if (shape.size() != 4) {
      return "output \"" + output.port.name + "\" " + shape_text(shape) +
             " is not batch x channels x height x width";
    }
    if (shape[0] != batch[0]) return "output \"" + output.port.name + "\" has another batch than the input";
  }
  const ReportedOutput& read = report.outputs.back();
  for (std::size_t i = 2; i < 4; ++i) {
    if (read.port.shape[i] > 0 && read.port.shape[i] % 2 != 0) {
      return "its features \"" + read.port.name + "\" " + shape_text(read.port.shape) + " have an odd side";
    }
  }
  return {};
}

std::string millions(double number) {
  char text[48];
  std::snprintf(text, sizeof text, "%.1f million multiply-adds", number / 1e6);
  return text;
}

// What the import would find in it, and the words for that; none where it is no ResNet-18.
std::string importable(const SourceGraph& graph, ModelReport* report) {
  try {
    const TrunkNetwork trunk = match_trunk(graph, {});
    report->trunk_end = trunk.stages.back().name;
    report->trunk_multiply_adds = trunk_multiply_adds(trunk, kFullInputSize);
    return "; it is a ResNet-18 up to " + report->trunk_end + " and `ostrel_backbone import` can cut it";
  } catch (const ModelError&) {
    return {};
  }
}

std::string trunk_line(const ModelReport& report) {
  if (report.trunk_end.empty()) return {};
  const std::string side = std::to_string(kFullInputSize);
  return "its trunk    " + millions(report.trunk_multiply_adds) + " a sample of " + side + " x " + side +
         " up to " + report.trunk_end + "\n";
}

std::string stride_text(const ModelReport& report) {
  const Shape& input = report.inputs.front().shape;
  const Shape& output = report.outputs.back().port.shape;
  if (input[3] <= 0 || output[3] <= 0) return {};
  char text[32];
  std::snprintf(text, sizeof text, ", stride %.4g",
                static_cast<double>(input[3]) / static_cast<double>(output[3]));
  return text;
}

void judge(const SourceGraph& graph, ModelReport* report) {
  std::string trouble = report->uncounted.empty() ? input_trouble(*report) : report->uncounted;
  if (trouble.empty()) trouble = output_trouble(*report);
  if (trouble.empty()) trouble = size_trouble(*report);
  report->taken = trouble.empty();
  if (!report->taken) {
    report->verdict = refusal(trouble + importable(graph, report));
    return;
  }
  const ReportedOutput& read = report->outputs.back();
  report->verdict = "the tracker takes it: features from \"" + read.port.name + "\", " +
                    std::to_string(read.port.shape[1]) + " channels" + stride_text(*report);
  if (report->inputs.front().shape[0] == 1) {
    report->verdict += "; with its batch of one at one search scale only ([1.0])";
  }
  if (report->outputs.size() > 1)
    report->verdict += " (\"" + report->outputs.front().port.name + "\" is not read)";
}

// Declared sizes, and those that follow from the graph where nothing is declared.
void count(const std::string& bytes, ModelReport* report) {
  try {
    const CountedModel counted = count_multiply_adds(bytes, kFullInputSize);
    report->multiply_adds = counted.multiply_adds;
    for (std::size_t i = 0; i < report->outputs.size(); ++i) {
      ReportedOutput& output = report->outputs[i];
      output.multiply_adds = counted.outputs[i].multiply_adds;
      if (output.port.shape.empty()) {
        output.port.shape = counted.outputs[i].sizes;
        output.port.shape[0] = -1;
      }
    }
  } catch (const onnx_graph::ModelError& failure) {
    report->uncounted = failure.what();
  }
}

std::string with_commas(std::int64_t number) {
  std::string digits = std::to_string(number);
  for (int place = static_cast<int>(digits.size()) - 3; place > 0; place -= 3) {
    digits.insert(static_cast<std::size_t>(place), ",");
  }
  return digits;
}

}  // namespace

ModelReport report_model(const std::string& bytes) {
  const SourceGraph graph = read_source_graph(bytes);
  ModelReport report;
  report.bytes = static_cast<std::int64_t>(bytes.size());
  report.opset = graph.opset;
  report.producer = graph.producer;
  const auto precision = graph.metadata.find("precision");
  report.precision = precision == graph.metadata.end() ? "float32" : precision->second;
  report.inputs = graph.inputs;
  for (const SourcePort& port : graph.outputs) report.outputs.push_back({port, 0.0});
  report.operations = graph.operations;
  for (const auto& [name, constant] : graph.constants) {
    report.parameters += static_cast<std::int64_t>(constant.reals.size());
  }
  count(bytes, &report);
  judge(graph, &report);
  return report;
}

std::string report_text(const ModelReport& report) {
  std::string text = "file         " + with_commas(report.bytes) + " bytes, operator set " +
                     std::to_string(report.opset) +
                     (report.producer.empty() ? "" : ", made by " + report.producer) + "\n";
  for (const SourcePort& port : report.inputs)
    text += "input        " + port.name + " " + shape_text(port.shape) + "\n";
  for (const ReportedOutput& output : report.outputs) {
    text += "output       " + output.port.name + " " + shape_text(output.port.shape) +
            (report.uncounted.empty() ? ", " + millions(output.multiply_adds) : "") + "\n";
  }
  text += "operations  ";
  for (const auto& [name, times] : report.operations) text += " " + name + " " + std::to_string(times) + ",";
  text.back() = '\n';
  text += "parameters   " + with_commas(report.parameters) + "\n";
  text += "work         " +
          (report.uncounted.empty() ? millions(report.multiply_adds) + " a sample"
                                    : "not counted: " + report.uncounted) +
          "\n";
  text += trunk_line(report);
  text += "precision    " + report.precision + "\n";
  text += "verdict      " + report.verdict + "\n";
  return text;
}

}  // namespace ostrel::backbone
