// The plug-in's library and the one object that the program drives.
#pragma once

#include <IAlgoPlugin.h>

#include <memory>
#include <string>

namespace class_loader {
class ClassLoader;
}

namespace ostrel_host {

// `lib/libostrel_plugin.so` beside the folder that holds the running program.
std::string default_plugin_path();

class LoadedPlugin {
 public:
  // Loads the library and creates its class "OstrelAlgo". Throws BadInput where either fails.
  explicit LoadedPlugin(const std::string& library_path);
  // Destroys the object, which may wait for its start-up, then unloads the library.
  ~LoadedPlugin();
  LoadedPlugin(const LoadedPlugin&) = delete;
  LoadedPlugin& operator=(const LoadedPlugin&) = delete;

  IAlgoPlugin& operator*() { return *object_; }
  IAlgoPlugin* operator->() { return object_.get(); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::unique_ptr<class_loader::ClassLoader> loader_;
  std::shared_ptr<IAlgoPlugin> object_;
};

}  // namespace ostrel_host
