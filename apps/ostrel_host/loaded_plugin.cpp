#include "loaded_plugin.h"

#include <console_bridge/console.h>

#include <class_loader/class_loader.hpp>
#include <filesystem>

#include "bad_input.h"

namespace ostrel_host {
namespace {

constexpr char kClassName[] = "OstrelAlgo";

}  // namespace

std::string default_plugin_path() {
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe");
  return (program.parent_path().parent_path() / "lib" / "libostrel_plugin.so").string();
}

LoadedPlugin::LoadedPlugin(const std::string& library_path) : path_(library_path) {
  if (!std::filesystem::exists(library_path)) throw BadInput("no plug-in at '" + library_path + "'");
  console_bridge::setLogLevel(console_bridge::CONSOLE_BRIDGE_LOG_NONE);  // failures are told below
  try {
    loader_ = std::make_unique<class_loader::ClassLoader>(library_path);
    object_ = loader_->createInstance<IAlgoPlugin>(kClassName);
  } catch (const class_loader::ClassLoaderException& failure) {
    throw BadInput("'" + library_path + "' is no plug-in: " + failure.what());
  }
}

LoadedPlugin::~LoadedPlugin() {
  object_.reset();
}

}  // namespace ostrel_host
