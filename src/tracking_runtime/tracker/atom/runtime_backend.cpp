#include "tracking_runtime/tracker/atom/runtime_backend.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

constexpr std::array<const char*, 6> kCudaWords = {"",         "cuda",           "non_torch",
                                                   "nontorch", "cuda_non_torch", "cudanontorch"};

}  // namespace

std::string normalize_backend_name(std::string text) {
  const auto lower = [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); };
  const auto is_space = [](unsigned char letter) { return std::isspace(letter) != 0; };
  std::transform(text.begin(), text.end(), text.begin(), lower);
  text.erase(std::remove_if(text.begin(), text.end(), is_space), text.end());
  return text;
}

std::unique_ptr<AtomRuntimeBackend> create_runtime_backend(NativeCppBackend::Config config) {
  const std::string word = normalize_backend_name(config.runtime_backend);
  if (std::find(kCudaWords.begin(), kCudaWords.end(), word) == kCudaWords.end()) return nullptr;
  return make_cuda_runtime_backend(std::move(config));
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
