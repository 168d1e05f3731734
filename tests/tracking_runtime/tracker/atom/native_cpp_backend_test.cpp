#include "tracking_runtime/tracker/atom/native_cpp_backend.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/config_text.h"
#include "tracking_runtime/tracker/atom/atom_fixture.h"
#include "tracking_runtime/tracker/atom/atom_runtime_backend.h"
#include "tracking_runtime/tracker/atom/runtime_backend.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

using ostrel_test::config_text;
using ostrel_test::FakeBackendScript;

class NativeBackend : public AtomFixture {};

TEST_F(NativeBackend, NormalisesNamesToLowerCaseWithoutWhiteSpace) {
  EXPECT_EQ(normalize_backend_name("  CUDA "), "cuda");
  EXPECT_EQ(normalize_backend_name("Cuda Non Torch"), "cudanontorch");
  EXPECT_EQ(normalize_backend_name("\tCUDA\n non_torch\v\f\r"), "cudanon_torch");
  EXPECT_EQ(normalize_backend_name(" \t "), "");
  EXPECT_EQ(normalize_backend_name("\xC3\x84"), "\xC3\x84");
}

TEST_F(NativeBackend, IsMadeForEveryAcceptedWordAndNoOther) {
  for (const char* word : {"", " ", "cuda", "  CUDA ", "non_torch", "nontorch", "NonTorch", "cuda_non_torch",
                           "cudanontorch", "Cuda Non Torch"}) {
    EXPECT_NE(create_runtime_backend(config_with_backend(word)), nullptr) << word;
  }
  for (const char* word : {"cpu", "torch", "CUDA non_torch", "cuda0", "non-torch", "default"}) {
    EXPECT_EQ(create_runtime_backend(config_with_backend(word)), nullptr) << word;
  }
}

TEST_F(NativeBackend, IsMadeWithTheWholeRecord) {
  const NativeCppBackend::Config config = config_with_backend(" Cuda");
  const NativeCppBackend backend(config);
  EXPECT_EQ(config_text(seen().made_with), config_text(config));
  EXPECT_EQ(config_text(backend.config()), config_text(config));
}

TEST_F(NativeBackend, ForwardsEveryOperationUnchanged) {
  fakes().set([](FakeBackendScript& script) {
    script.track.text = "tracked";
    script.teleport = {false, "no teleport", {1.0F, 2.0F, 3.0F, 4.0F}, 0.0F};
  });
  NativeCppBackend backend(config_with_backend("cuda"));
  base::BBox bbox;
  float score = 0.0F;
  std::string status;
  EXPECT_TRUE(backend.initialize(image(64, 48), {5, 6, 7, 8}, &status));
  EXPECT_EQ(seen().init_rect, cv::Rect(5, 6, 7, 8));
  EXPECT_TRUE(backend.track(image(32, 24), &bbox, &score, &status));
  EXPECT_EQ(seen().image_size, cv::Size(32, 24));
  EXPECT_EQ(status, "tracked");
  EXPECT_EQ(score, 0.9F);
  const auto picture = view();
  EXPECT_TRUE(backend.track(picture, 1.5F, 2.5F, 320, 240, &bbox, &score, &status));
  EXPECT_EQ(seen().view, picture.get());
  EXPECT_EQ(seen().view_scale, cv::Point_<float>(1.5F, 2.5F));
  EXPECT_EQ(seen().frame_size, cv::Size(320, 240));
  EXPECT_FALSE(backend.teleport({9.0F, 8.0F, 7.0F, 6.0F}, &bbox, &status));
  expect_box(seen().expected, 9.0F, 8.0F, 7.0F, 6.0F);
  expect_box(bbox, 1.0F, 2.0F, 3.0F, 4.0F);
  EXPECT_EQ(status, "no teleport");
  EXPECT_TRUE(backend.zoomChanged(1.25F, &bbox, nullptr));
  EXPECT_EQ(seen().scale_factor, 1.25F);
  EXPECT_EQ(seen().calls,
            (std::vector<std::string>{"initialize", "track", "track_view", "teleport", "zoomChanged"}));
}

TEST_F(NativeBackend, TurnsAMissingBackendIntoAWord) {
  NativeCppBackend backend(config_with_backend(" CPU "));
  base::BBox bbox;
  float score = 0.0F;
  std::string status;
  EXPECT_FALSE(backend.initialize(image(), {1, 1, 5, 5}, &status));
  EXPECT_EQ(status, "unsupported ATOM runtime backend: cpu");
  const std::vector<std::function<bool(std::string*)>> operations = {
      [&](std::string* word) { return backend.track(image(), &bbox, &score, word); },
      [&](std::string* word) { return backend.track(view(), 1.0F, 1.0F, 64, 48, &bbox, &score, word); },
      [&](std::string* word) {
        return backend.teleport({1.0F, 1.0F, 5.0F, 5.0F}, &bbox, word);
      },
      [&](std::string* word) { return backend.zoomChanged(2.0F, &bbox, word); },
  };
  for (const auto& operation : operations) {
    status.clear();
    EXPECT_FALSE(operation(&status));
    EXPECT_EQ(status, "unsupported_backend_cpu");
    EXPECT_FALSE(operation(nullptr));
  }
  EXPECT_FALSE(backend.initialize(image(), {1, 1, 5, 5}, nullptr));
  EXPECT_EQ(seen().made, 0);
}

class NativeBackendUpdate : public NativeBackend {
 protected:
  // Updates with the given word and a threshold that tells whether the record was taken.
  bool update(NativeCppBackend* backend, const std::string& word) {
    NativeCppBackend::Config config = config_with_backend(word);
    config.jump_min_score = 0.125F;
    return backend->updateConfig(config, &status_);
  }
  std::string status_ = "untouched";
};

TEST_F(NativeBackendUpdate, TakesTheRecordAsTheBackendLeftIt) {
  fakes().set([](FakeBackendScript& script) {
    script.update_config.text = "config_updated";
    script.correct_config = [](NativeCppBackend::Config* config) { config->search_size = 288; };
  });
  NativeCppBackend backend(config_with_backend("cuda"));
  NativeCppBackend::Config config = config_with_backend("cuda");
  config.search_size = 64;
  config.learning_rate = 0.5F;
  EXPECT_TRUE(backend.updateConfig(config, &status_));
  EXPECT_EQ(status_, "config_updated");
  EXPECT_EQ(seen().updated_with.search_size, 64);
  EXPECT_EQ(backend.config().search_size, 288);
  EXPECT_EQ(backend.config().learning_rate, 0.5F);
}

TEST_F(NativeBackendUpdate, RefusesAnotherBackendWordAndTakesTheRest) {
  fakes().set([](FakeBackendScript& script) { script.update_config.text = "config_updated"; });
  NativeCppBackend backend(config_with_backend("Cuda"));
  EXPECT_TRUE(update(&backend, "cpu"));
  EXPECT_EQ(status_, "runtime_backend requires reinit; config_updated");
  EXPECT_EQ(seen().updated_with.runtime_backend, "Cuda");
  EXPECT_EQ(backend.config().runtime_backend, "Cuda");
  EXPECT_EQ(backend.config().jump_min_score, 0.125F);
}

TEST_F(NativeBackendUpdate, GivesTheNoteAloneBesideASilentBackend) {
  NativeCppBackend backend(config_with_backend("cuda"));
  EXPECT_TRUE(update(&backend, "nontorch"));
  EXPECT_EQ(status_, "runtime_backend requires reinit");
}

TEST_F(NativeBackendUpdate, TakesTheSameWordInAnotherSpellingAndTheEmptyWord) {
  NativeCppBackend backend(config_with_backend("cuda"));
  EXPECT_TRUE(update(&backend, " CUDA"));
  EXPECT_EQ(status_, "");
  EXPECT_EQ(backend.config().runtime_backend, " CUDA");
  EXPECT_TRUE(update(&backend, ""));
  EXPECT_EQ(status_, "");
  EXPECT_EQ(backend.config().runtime_backend, "");
}

TEST_F(NativeBackendUpdate, KeepsItsRecordWhenTheBackendRefuses) {
  fakes().set([](FakeBackendScript& script) {
    script.update_config.ok = false;
    script.update_config.text = "busy";
  });
  NativeCppBackend backend(config_with_backend("cuda"));
  const std::string before = config_text(backend.config());
  EXPECT_FALSE(update(&backend, "cpu"));
  EXPECT_EQ(status_, "busy");
  EXPECT_EQ(config_text(backend.config()), before);
  EXPECT_FALSE(backend.updateConfig(config_with_backend("cuda"), nullptr));
}

TEST_F(NativeBackendUpdate, TriesAMissingBackendOnceMore) {
  NativeCppBackend backend(config_with_backend("cpu"));
  EXPECT_FALSE(update(&backend, "cpu"));
  EXPECT_EQ(status_, "");
  EXPECT_EQ(backend.config().jump_min_score, 0.125F);
  EXPECT_TRUE(update(&backend, " "));
  EXPECT_EQ(status_, "");
  EXPECT_EQ(seen().made, 1);
  EXPECT_EQ(seen().made_with.jump_min_score, 0.125F);
  // The empty word goes by the name "cuda" from here on.
  EXPECT_TRUE(update(&backend, "cuda"));
  EXPECT_EQ(status_, "");
}

TEST_F(NativeBackendUpdate, RefusesAnotherWordAlsoWithoutABackend) {
  NativeCppBackend backend(config_with_backend("cpu"));
  EXPECT_FALSE(update(&backend, "cuda"));
  EXPECT_EQ(status_, "runtime_backend requires reinit");
  EXPECT_EQ(backend.config().runtime_backend, "cpu");
  EXPECT_EQ(backend.config().jump_min_score, 0.125F);
  EXPECT_EQ(seen().made, 0);
  EXPECT_FALSE(backend.updateConfig(config_with_backend("cuda"), nullptr));
}

}  // namespace
}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
