// The program itself: what it writes, its exit codes, and one clear line for bad input.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <trunk_writer.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

namespace ostrel::backbone {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

struct Ended {
  int code = -1;
  std::string output;  // both streams
};

Ended run_program(const std::string& arguments) {
  Ended ended;
  FILE* pipe = popen((std::string(OSTREL_BACKBONE_PROGRAM) + " " + arguments + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return ended;
  std::array<char, 256> piece{};
  while (fgets(piece.data(), piece.size(), pipe) != nullptr) ended.output += piece.data();
  const int status = pclose(pipe);
  if (WIFEXITED(status)) ended.code = WEXITSTATUS(status);
  return ended;
}

std::string contents(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(BackboneProgram, WritesTheTrunkOfItsOptions) {
  const std::string path = ::testing::TempDir() + "program.onnx";
  TrunkOptions options;
  options.tiny = true;
  options.seed = 12;
  const Ended plain = run_program("random --seed 12 --tiny --out " + path);
  EXPECT_EQ(plain.code, 0) << plain.output;
  EXPECT_EQ(plain.output, "");
  EXPECT_EQ(contents(path), trunk_bytes(options));
  options.batch = 4;
  options.input_size = 64;
  options.outputs = TrunkOutputs::kLayer2;
  options.precision = Precision::kBfloat16;
  const Ended all = run_program(
      "random --seed 12 --tiny --batch 4 --input-size 64 --outputs layer2 --precision bfloat16 --out " +
      path);
  EXPECT_EQ(all.code, 0) << all.output;
  EXPECT_EQ(contents(path), trunk_bytes(options));
}

TEST(BackboneProgram, EndsBadInputWithOneLineAndCodeTwo) {
  struct Case {
    const char* reason;
    std::string arguments;
    const char* text;
  };
  const std::string out = " --out " + ::testing::TempDir() + "bad.onnx";
  const Case cases[] = {
      {"no command", "", "subcommand"},
      {"an unknown command", "train", "subcommand"},
      {"no seed", "random" + out, "--seed"},
      {"no file", "random --seed 1", "--out"},
      {"a seed that is no number", "random --seed one" + out, "--seed"},
      {"a negative seed", "random --seed -1" + out, "--seed"},
      {"odd map sides", "random --seed 1 --input-size 176" + out, "odd map sides"},
      {"a size out of range", "random --seed 1 --input-size 8" + out, "--input-size"},
      {"an unknown output", "random --seed 1 --outputs layer4" + out, "--outputs"},
      {"no batch", "random --seed 1 --batch 0" + out, "--batch"},
      {"a folder that is not there", "random --seed 1 --tiny --out /nowhere/x.onnx", "cannot write"}};
  for (const Case& test : cases) {
    SCOPED_TRACE(test.reason);
    const Ended ended = run_program(test.arguments);
    EXPECT_EQ(ended.code, 2);
    EXPECT_THAT(ended.output, StartsWith("ostrel_backbone: "));
    EXPECT_THAT(ended.output, HasSubstr(test.text));
    EXPECT_EQ(std::count(ended.output.begin(), ended.output.end(), '\n'), 1) << ended.output;
  }
}

TEST(BackboneProgram, ExplainsItself) {
  const Ended ended = run_program("random --help");
  EXPECT_EQ(ended.code, 0);
  for (const char* option :
       {"--seed", "--out", "--tiny", "--outputs", "--batch", "--input-size", "--precision"}) {
    EXPECT_THAT(ended.output, HasSubstr(option));
  }
}

}  // namespace
}  // namespace ostrel::backbone
