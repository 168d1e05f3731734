// The library as class_loader sees it: its one class, and loading it again after it was unloaded.
#include <dlfcn.h>

#include "plugin/loaded_plugin_fixture.h"

namespace ostrel_test {
namespace {

class PluginLibrary : public LoadedPluginTest {};

TEST_F(PluginLibrary, OffersOneClassBehindTheHostsBaseClass) {
  EXPECT_EQ(loader_.getAvailableClasses<IAlgoPlugin>(), std::vector<std::string>{"OstrelAlgo"});
  EXPECT_EQ((*create()).getName(), "OstrelAlgo");
}

TEST_F(PluginLibrary, HasNoOtherClass) {
  EXPECT_FALSE(loader_.isClassAvailable<IAlgoPlugin>("Nobody"));
  EXPECT_THROW(loader_.createInstance<IAlgoPlugin>("Nobody"), class_loader::CreateClassException);
}

TEST_F(PluginLibrary, RunsAfterItWasUnloadedAndLoadedAgain) {
  const auto scene = makeScene();
  const PicturePtr first = uploaded(scene.render(0).image);
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(loader_.isLibraryLoaded());
    {
      DrivenPlugin plugin = create();
      ASSERT_TRUE(plugin.init(first, asBox(scene.target_at(0))));
      EXPECT_EQ(plugin.settle(first).size(), 1U) << plugin.detail();
      EXPECT_EQ(plugin.status(), "track_ok");
    }
    EXPECT_EQ(loader_.unloadLibrary(), 0);
    EXPECT_FALSE(loader_.isLibraryLoaded());
    loader_.loadLibrary();
  }
}

TEST_F(PluginLibrary, IsLoadedByASecondLoaderAfterTheFirstIsGone) {
  for (int round = 0; round < 2; ++round) {
    class_loader::ClassLoader loader(pluginPath());
    EXPECT_TRUE(loader.isClassAvailable<IAlgoPlugin>("OstrelAlgo"));
    EXPECT_TRUE(loader.createInstance<IAlgoPlugin>("OstrelAlgo")->isAlive());
  }
}

TEST_F(PluginLibrary, StaysMappedWhenItIsUnloaded) {
  loader_.unloadLibrary();
  void* handle = dlopen(pluginPath(), RTLD_LAZY | RTLD_NOLOAD);
  ASSERT_NE(handle, nullptr);
  dlclose(handle);
  loader_.loadLibrary();
}

}  // namespace
}  // namespace ostrel_test
