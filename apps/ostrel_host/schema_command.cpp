#include "schema_command.h"

#include <cstdio>

#include "loaded_plugin.h"

namespace ostrel_host {

int run_schema(const SchemaOptions& options) {
  LoadedPlugin plugin(options.plugin.empty() ? default_plugin_path() : options.plugin);
  const std::string text = options.properties ? plugin->getPropertyList() : plugin->getConfigList();
  const std::size_t first = text.find_first_not_of(" \n\r\t");
  if (first == std::string::npos) return 0;
  const std::size_t last = text.find_last_not_of(" \n\r\t");
  std::printf("%s\n", text.substr(first, last + 1 - first).c_str());
  return 0;
}

}  // namespace ostrel_host
