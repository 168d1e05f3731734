#include "tracking_runtime/tracker/atom/config_update.h"

#include <cmath>

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using Config = NativeCppBackend::Config;

constexpr double kNoiseTolerance = 1e-9;

template <typename T>
void keep(const Config& running, Config* wanted, T Config::*field, const char* name, std::string* status) {
  if (wanted->*field == running.*field) return;
  wanted->*field = running.*field;
  add_note(std::string(name) + " requires reinit", status);
}

bool noise_differs(float running, float wanted) {
  return std::abs(static_cast<double>(wanted) - static_cast<double>(running)) > kNoiseTolerance;
}

}  // namespace

void add_note(const std::string& note, std::string* status) {
  if (status == nullptr) return;
  if (!status->empty()) *status += "; ";
  *status += note;
}

void keep_fixed_fields(const Config& running, Config* wanted, std::string* status) {
  keep(running, wanted, &Config::runtime_backend, "runtime_backend", status);
  keep(running, wanted, &Config::trt_engine_path, "trt_engine_path", status);
  keep(running, wanted, &Config::template_size, "template_size", status);
  keep(running, wanted, &Config::search_size, "search_size", status);
  keep(running, wanted, &Config::compressed_dim, "compressed_dim", status);
  keep(running, wanted, &Config::use_projection_matrix, "use_projection_matrix", status);
}

bool scale_filter_differs(const Config& running, const Config& wanted) {
  return running.enable_scale_predictor != wanted.enable_scale_predictor ||
         noise_differs(running.scale_predictor_process_noise_scale,
                       wanted.scale_predictor_process_noise_scale) ||
         noise_differs(running.scale_predictor_process_noise_velocity,
                       wanted.scale_predictor_process_noise_velocity) ||
         noise_differs(running.scale_predictor_measurement_noise_scale,
                       wanted.scale_predictor_measurement_noise_scale);
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
