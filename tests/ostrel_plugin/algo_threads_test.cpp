#include <atomic>
#include <thread>

#include "ostrel_plugin/algo_fixture.h"

/// Calls of several threads side by side: each call sees a whole configuration, never half of one.

namespace ostrel_test {
namespace {

class AlgoThreads : public AlgoTest {
 protected:
  /// Runs `call` over and over beside `body`.
  static void beside(const std::vector<std::function<void()>>& calls, const std::function<void()>& body) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (const auto& call : calls) {
      threads.emplace_back([&stop, &call] {
        while (!stop) {
          call();
          std::this_thread::yield();
        }
      });
    }
    body();
    stop = true;
    for (std::thread& thread : threads) thread.join();
  }

  /// A document of which every value says the same number.
  void configureAll(int number) {
    const std::string digits = std::to_string(number);
    algo->setConfig(R"({"target":{"class_id":)" + digits + R"(,"tracker_id":)" + digits +
                    R"(,"class_name":"class )" + digits + R"("},"learning":{"update_iterations":)" + digits +
                    R"(},"runtime":{"dead_timeout_s":)" + digits + "}}");
  }
};

TEST_F(AlgoThreads, PublishBoxesOfOneDocumentEach) {
  configureAll(1);
  startTracking();
  std::atomic<int> documents{1};
  const auto change = [this, &documents] { configureAll(documents++ % 100 + 1); };
  const auto read = [this] {
    const auto shown = nlohmann::json::parse(algo->property(""));
    EXPECT_EQ(shown.at("stats").at("track_ok"), shown.at("stats").at("update_calls").get<int>() - 1);
    algo->isAlive();
    algo->getConfigList();
  };
  beside({change, read}, [this, &documents] {
    for (int frame = 0; frame < 200 || documents < 20; ++frame) {
      const auto boxes = update(makePicture());
      ASSERT_EQ(boxes.size(), 1U);
      EXPECT_EQ(boxes[0].tracker_id, boxes[0].class_id);
      EXPECT_EQ(boxes[0].class_name, "class " + std::to_string(boxes[0].class_id));
    }
  });
  const int last = config().class_id;
  EXPECT_EQ(asked().updated_with.update_iterations, last);
  EXPECT_EQ(property().at("tracking_dead_timeout_s"), last);
}

TEST_F(AlgoThreads, ChangeSettingsBesideStartsThatKeepTheirOwn) {
  const auto number_of = [](int round) { return round % 100 + 1; };
  std::atomic<int> round{0};
  const auto change = [&] { configureAll(number_of(++round)); };
  const auto switch_off_and_on = [this] {
    configure("preposition/enabled", "true");
    configure("preposition/enabled", "false");
  };
  Metadata metadata = makeView(10, 5, 40, 30);
  metadata["lumenar.follow_me_enabled_command"] = std::int32_t{1};
  const PicturePtr picture = makePicture(64, 48, metadata);
  beside({change, switch_off_and_on}, [&] {
    for (int start = 0; start < 20; ++start) {
      EXPECT_TRUE(init(picture, {22, 16, 20, 16}));
      for (int frame = 0; frame < 5; ++frame) update(picture);
    }
  });
  configure("preposition/enabled", "false");
  Access::waitForWorkers(*algo);
  for (int frame = 0; frame < 20 && phase() != "ready"; ++frame) update(picture);
  EXPECT_EQ(phase(), "ready");
  EXPECT_EQ(update(picture).size(), 1U);
  EXPECT_EQ(asked().alive, 1);
}

TEST_F(AlgoThreads, SwitchDebuggingAndWriteLogsSideBySide) {
  startTracking();
  const RecordedLog log;
  const auto switch_by_call = [this] { algo->enableDebug(true); };
  const auto switch_by_document = [this] { algo->setConfig("{}"); };
  const auto refuse = [this] { algo->setConfig("["); };
  beside({switch_by_call, switch_by_document, refuse}, [this] {
    for (int frame = 0; frame < 100; ++frame) update(makePicture());
  });
  for (const std::string& line : log.console()) EXPECT_NE(line, "");
  EXPECT_EQ(stat("track_ok"), 101);
}

}  // namespace
}  // namespace ostrel_test
