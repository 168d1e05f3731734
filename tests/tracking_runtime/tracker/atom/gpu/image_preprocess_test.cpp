#include <gtest/gtest.h>

#include <host_cuda/control.h>

#include <cstdint>
#include <string>
#include <vector>

#include "device_arrays.h"
#include "support/golden.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_image_preprocess.h"

namespace ostrel_test {
namespace {

using atom::launch_bgr8_to_rgb_planar_float;

TEST(ImagePreprocess, MatchesGolden) {
  const GoldenCase golden = load_golden_case("preprocess", "bgr_to_planar");
  const int batch = golden.i32("batch"), height = golden.i32("height"), width = golden.i32("width");
  TestStream stream;
  const DeviceArray<std::uint8_t> source(golden.input_as<std::uint8_t>("bgr"));
  const DeviceArray<float> target(static_cast<std::size_t>(batch * 3 * height * width), -1.0F);
  const auto row_pitch = static_cast<std::size_t>(width) * 3;
  std::string error;
  ASSERT_TRUE(launch_bgr8_to_rgb_planar_float(source.get(), row_pitch * static_cast<std::size_t>(height),
                                              row_pitch, target.get(), batch, width, height, stream.get(),
                                              &error))
      << error;
  EXPECT_TRUE(matches_golden(golden.output("planar"), target.read(stream)));
}

TEST(ImagePreprocess, PutsRedFirstAndKeepsTheValues) {
  TestStream stream;
  const DeviceArray<std::uint8_t> source(std::vector<std::uint8_t>{10, 20, 30});
  const DeviceArray<float> target(3, -1.0F);
  ASSERT_TRUE(
      launch_bgr8_to_rgb_planar_float(source.get(), 3, 3, target.get(), 1, 1, 1, stream.get(), nullptr));
  EXPECT_EQ(target.read(stream), (std::vector<float>{30.0F, 20.0F, 10.0F}));
}

TEST(ImagePreprocess, StepsByThePitches) {
  // Two samples of 2 x 2 pixels with one byte of padding per row and three more per sample.
  constexpr int kRowPitch = 7, kSamplePitch = 17;
  std::vector<std::uint8_t> bytes(2 * kSamplePitch, 255);
  std::vector<float> expected(2 * 3 * 4);
  std::uint8_t value = 0;
  for (int sample = 0; sample < 2; ++sample) {
    for (int pixel = 0; pixel < 4; ++pixel) {
      for (int channel = 0; channel < 3; ++channel) {
        bytes[static_cast<std::size_t>(sample * kSamplePitch + pixel / 2 * kRowPitch + pixel % 2 * 3 +
                                       channel)] = ++value;
        expected[static_cast<std::size_t>(sample * 12 + (2 - channel) * 4 + pixel)] = value;
      }
    }
  }
  TestStream stream;
  const DeviceArray<std::uint8_t> source(bytes);
  const DeviceArray<float> target(expected.size(), -1.0F);
  ASSERT_TRUE(launch_bgr8_to_rgb_planar_float(source.get(), kSamplePitch, kRowPitch, target.get(), 2, 2, 2,
                                              stream.get(), nullptr));
  EXPECT_EQ(target.read(stream), expected);
}

TEST(ImagePreprocess, RefusesMissingBuffersAndEmptySizes) {
  TestStream stream;
  const DeviceArray<std::uint8_t> source(std::size_t{3}, std::uint8_t{1});
  const DeviceArray<float> target(3, 0.0F);
  struct Row {
    const char* reason;
    const std::uint8_t* source;
    float* target;
    int batch, width, height;
  };
  for (const Row& row :
       {Row{"no source", nullptr, target.get(), 1, 1, 1}, Row{"no target", source.get(), nullptr, 1, 1, 1},
        Row{"no sample", source.get(), target.get(), 0, 1, 1},
        Row{"no column", source.get(), target.get(), 1, 0, 1},
        Row{"no row", source.get(), target.get(), 1, 1, -1}}) {
    std::string error;
    EXPECT_FALSE(launch_bgr8_to_rgb_planar_float(row.source, 3, 3, row.target, row.batch, row.width,
                                                 row.height, stream.get(), &error))
        << row.reason;
    EXPECT_EQ(error, "invalid CUDA image preprocess arguments") << row.reason;
    EXPECT_FALSE(launch_bgr8_to_rgb_planar_float(row.source, 3, 3, row.target, row.batch, row.width,
                                                 row.height, stream.get(), nullptr));
  }
}

TEST(ImagePreprocess, NamesItsFailedLaunch) {
  TestStream stream;
  const DeviceArray<std::uint8_t> source(std::size_t{3}, std::uint8_t{1});
  const DeviceArray<float> target(3, 0.0F);
  ostrel::host_cuda::fail_call("bgr8_to_rgb_planar_float_kernel", 1, cudaErrorLaunchFailure);
  std::string error;
  EXPECT_FALSE(
      launch_bgr8_to_rgb_planar_float(source.get(), 3, 3, target.get(), 1, 1, 1, stream.get(), &error));
  EXPECT_EQ(error, std::string("launch bgr8_to_rgb_planar_float kernel: ") +
                       cudaGetErrorString(cudaErrorLaunchFailure));
  ostrel::host_cuda::clear_faults();
  EXPECT_TRUE(
      launch_bgr8_to_rgb_planar_float(source.get(), 3, 3, target.get(), 1, 1, 1, stream.get(), &error));
}

}  // namespace
}  // namespace ostrel_test
