// The program itself: what it writes, its exit codes, and one clear line for bad input.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <trunk_writer.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <string>

#include "support/temporary_folder.h"

namespace ostrel::backbone {
namespace {

using ostrel_test::content_of;
using ostrel_test::TemporaryFolder;
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

TEST(BackboneProgram, WritesTheTrunkOfItsOptions) {
  const TemporaryFolder folder;
  const std::string path = folder.path("program.onnx");
  TrunkOptions options;
  options.tiny = true;
  options.seed = 12;
  const Ended plain = run_program("random --seed 12 --tiny --out " + path);
  EXPECT_EQ(plain.code, 0) << plain.output;
  EXPECT_EQ(plain.output, "");
  EXPECT_EQ(content_of(path), trunk_bytes(options));
  options.batch = 4;
  options.input_size = 64;
  options.outputs = TrunkOutputs::kLayer2;
  options.precision = Precision::kBfloat16;
  const Ended all = run_program(
      "random --seed 12 --tiny --batch 4 --input-size 64 --outputs layer2 --precision bfloat16 --out " +
      path);
  EXPECT_EQ(all.code, 0) << all.output;
  EXPECT_EQ(content_of(path), trunk_bytes(options));
}

TEST(BackboneProgram, EndsBadInputWithOneLineAndCodeTwo) {
  struct Case {
    const char* reason;
    std::string arguments;
    const char* text;
  };
  const TemporaryFolder folder;
  const std::string out = " --out " + folder.path("bad.onnx");
  const std::string source = folder.path("source.onnx");
  ASSERT_EQ(run_program("random --seed 1 --out " + source).code, 0);
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
      {"no source", "import" + out, "--onnx"},
      {"a source that is not there", "import --onnx /nowhere/x.onnx" + out,
       "cannot read /nowhere/x.onnx: No such file or directory"},
      {"a folder as source", "import --onnx /" + out, "cannot read /: Is a directory"},
      {"a source that is no model", "import --onnx " OSTREL_BACKBONE_PROGRAM + out, ": no ONNX model"},
      {"an odd stride", "import --onnx " + source + " --stride 4" + out, "--stride"},
      {"an unknown feature", "import --onnx " + source + " --feature best" + out, "--feature"},
      {"joined without a neck", "import --onnx " + source + " --feature joined" + out,
       "joined features need a neck"},
      {"dilated at stride 16", "import --onnx " + source + " --feature dilated --stride 16" + out,
       "dilated and joined features have stride 8, not 16"},
      {"an output with odd sides", "import --onnx " + source + " --stride 16 --input-size 200" + out,
       "odd map sides"},
      {"two numbers for a mean", "import --onnx " + source + " --mean 0.5,0.5" + out, "--mean"},
      {"a deviation of zero", "import --onnx " + source + " --deviation 0,1,1" + out, "--deviation"},
      {"a mean for a model that has one", "import --onnx " + source + " --mean 0.5,0.5,0.5" + out,
       "the model normalises its input itself"},
      {"an unknown order", "import --onnx " + source + " --input-order gbr" + out, "--input-order"},
      {"an unknown range", "import --onnx " + source + " --input-range 100" + out, "--input-range"},
      {"a neck wider than the features", "import --onnx " + source + " --neck 129 --crops 1" + out,
       "a neck of 129 channels does not fit 128 features"},
      {"pictures that are not there", "import --onnx " + source + " --neck 8 --pictures /nowhere" + out,
       "cannot read the folder /nowhere: No such file or directory"},
      {"settings of a neck without a neck", "import --onnx " + source + " --crops 8" + out, "--neck"},
      {"no file to inspect", "inspect", "file"},
      {"a file to inspect that is not there", "inspect /nowhere/x.onnx", "cannot read /nowhere/x.onnx"},
      {"no model to inspect", "inspect " OSTREL_BACKBONE_PROGRAM, ": no ONNX model"},
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

// The trunk of a random network serves as a source: its weights come back as they were.
TEST(BackboneProgram, ImportsWhatItWrote) {
  const TemporaryFolder folder;
  const std::string source = folder.path("source.onnx");
  const std::string target = folder.path("target.onnx");
  ASSERT_EQ(run_program("random --seed 3 --out " + source).code, 0);
  const Ended ended = run_program("import --onnx " + source + " --stride 16 --out " + target);
  EXPECT_EQ(ended.code, 0) << ended.output;
  EXPECT_EQ(ended.output, "");
  TrunkOptions options;
  options.seed = 3;
  options.outputs = TrunkOutputs::kLayer3;
  EXPECT_EQ(content_of(target), trunk_bytes(options));
  const Ended told = run_program("inspect " + target);
  EXPECT_EQ(told.code, 0) << told.output;
  EXPECT_THAT(told.output, HasSubstr("verdict      the tracker takes it: features from \"layer3\""));
}

TEST(BackboneProgram, TellsOfTheNeckThatItMade) {
  const TemporaryFolder folder;
  const std::string source = folder.path("source.onnx");
  const std::string target = folder.path("target.onnx");
  ASSERT_EQ(run_program("random --seed 3 --out " + source).code, 0);
  const Ended ended =
      run_program("import --onnx " + source + " --feature joined --neck 8 --crops 24 --input-size 64" +
                  " --batch 3 --precision float16 --out " + target);
  EXPECT_EQ(ended.code, 0) << ended.output;
  EXPECT_THAT(ended.output, HasSubstr("neck: 8 of 384 directions, "));
  EXPECT_THAT(ended.output, HasSubstr("note: the tracker does not take it: its batch is fixed at 3"));
  EXPECT_THAT(ended.output, HasSubstr(" % of the variance, from 1536 cells\n"));
  const Ended told = run_program("inspect " + target);
  EXPECT_THAT(told.output, HasSubstr("input        input [3, 3, 64, 64]\n"));
  EXPECT_THAT(told.output, HasSubstr("output       features [3, 8, 8, 8], "));
  EXPECT_THAT(told.output, HasSubstr("precision    float16\n"));
  EXPECT_THAT(told.output, HasSubstr("Resize 1"));
}

TEST(BackboneProgram, LeavesNothingBehindWhenItFails) {
  const TemporaryFolder folder;
  std::filesystem::create_directory(folder.path("taken.onnx"));  // a folder where the file should go
  EXPECT_EQ(run_program("random --seed 1 --tiny --out " + folder.path("taken.onnx")).code, 2);
  EXPECT_EQ(run_program("import --onnx " OSTREL_BACKBONE_PROGRAM " --out " + folder.path("x.onnx")).code, 2);
  const auto entries = std::filesystem::directory_iterator(folder.path());
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 1);
}

TEST(BackboneProgram, ExplainsItself) {
  const Ended ended = run_program("random --help");
  EXPECT_EQ(ended.code, 0);
  for (const char* option :
       {"--seed", "--out", "--tiny", "--outputs", "--batch", "--input-size", "--precision"}) {
    EXPECT_THAT(ended.output, HasSubstr(option));
  }
  const Ended import = run_program("import --help");
  EXPECT_EQ(import.code, 0);
  for (const char* option : {"--onnx", "--out", "--mean", "--deviation", "--input-order", "--input-range",
                             "--stride", "--feature", "--neck", "--pictures", "--crops", "--whitening",
                             "--shrink", "--batch", "--input-size", "--precision"}) {
    EXPECT_THAT(import.output, HasSubstr(option));
  }
}

}  // namespace
}  // namespace ostrel::backbone
