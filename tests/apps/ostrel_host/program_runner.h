// The program run as a user runs it, in a folder of its own, with readers for what it leaves there.
#pragma once

#include <gtest/gtest.h>
#include <ostrel_host/render_command.h>
#include <sys/wait.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "support/temporary_folder.h"

namespace ostrel_test {

struct Outcome {
  int exit_code = -1;
  std::string out;
  std::string err;
};

class ProgramTest : public testing::Test {
 protected:
  // Words go to the shell as they are; paths of the temporary folder hold nothing that it would touch.
  Outcome run(const std::string& words) const {
    const std::string out = folder_.path("stdout"), err = folder_.path("stderr");
    const std::string command =
        std::string(OSTREL_HOST_PROGRAM) + " " + words + " >" + out + " 2>" + err + " </dev/null";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, content_of(out), content_of(err)};
  }

  // Renders a clip (with groundtruth_rect.txt beside it) and returns its path.
  std::string rendered(const std::string& name, const ostrel_scene::SceneOptions& scene) const {
    testing::internal::CaptureStdout();
    ostrel_host::run_render({folder_.path(name), scene});
    testing::internal::GetCapturedStdout();
    return folder_.path(name);
  }

  // The lines of out/boxes.jsonl.
  std::vector<nlohmann::json> lines() const {
    std::vector<nlohmann::json> parsed;
    std::istringstream stream(content_of(folder_.path("out/boxes.jsonl")));
    for (std::string line; std::getline(stream, line);) parsed.push_back(nlohmann::json::parse(line));
    return parsed;
  }

  nlohmann::json summary() const {
    return nlohmann::json::parse(content_of(folder_.path("out/summary.json")));
  }

  TemporaryFolder folder_;
};

}  // namespace ostrel_test
