#include "host_cuda/tuned.h"

#include <map>
#include <mutex>
#include <string_view>
#include <typeindex>
#include <utility>

#include "host_cuda/control.h"

namespace ostrel::host_cuda::detail {
namespace {

// Names are kept as views: forms are registered with literals.
using Key = std::pair<std::string_view, std::type_index>;

struct TunedStore {
  std::mutex mutex;
  std::map<Key, std::vector<std::shared_ptr<const void>>>
      forms;  // replaced ones stay: a launch may hold them
};

TunedStore& store() {
  static TunedStore& forms = *new TunedStore;
  return forms;
}

}  // namespace

void add_tuned(const char* name, const std::type_info& type, std::shared_ptr<const void> form) {
  TunedStore& tuned = store();
  const std::lock_guard<std::mutex> lock(tuned.mutex);
  tuned.forms[{name, type}].push_back(std::move(form));
}

const void* find_tuned(const char* name, const std::type_info& type) {
  if (!tuned_kernels() || thread_order() != ThreadOrder::kForward) return nullptr;
  TunedStore& tuned = store();
  const std::lock_guard<std::mutex> lock(tuned.mutex);
  const auto found = tuned.forms.find({name, type});
  return found == tuned.forms.end() ? nullptr : found->second.back().get();
}

}  // namespace ostrel::host_cuda::detail
