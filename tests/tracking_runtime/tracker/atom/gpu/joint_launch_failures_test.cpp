#include <gtest/gtest.h>

#include <host_cuda/control.h>

#include <functional>
#include <string>
#include <vector>

#include "device_arrays.h"
#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_ops.h"

namespace ostrel_test {
namespace {

namespace host = ostrel::host_cuda;
namespace ops = atom::detail;

/// Every launch of the joint optimiser on arrays that are large enough for each of them.
class JointLaunches : public ::testing::Test {
 protected:
  TestStream stream_;
  DeviceArray<float> a_{1000, 0.5F}, b_{1000, 0.5F}, c_{1000, 0.5F}, d_{1000, 0.5F}, e_{1000, 0.5F},
      f_{1000, 0.5F};
  DeviceArray<double> scalars_{3, 1.0};
  std::string error_;

  void TearDown() override { host::clear_faults(); }

  struct Row {
    const char* name;
    std::function<bool()> launch;
  };

  Row classify(const char* name, int side) {
    return {name, [=] {
              return ops::launch_classify_samples(a_.get(), b_.get(), c_.get(), 1, 2, 5, 5, side, side,
                                                  stream_.get(), &error_);
            }};
  }
  Row pair(const char* name, int side) {
    return {name, [=] {
              return ops::launch_classify_sample_pair(a_.get(), b_.get(), c_.get(), d_.get(), e_.get(),
                                                      f_.get(), 1, 2, 5, 5, side, side, stream_.get(),
                                                      &error_);
            }};
  }
  Row backprop(const char* name, int side) {
    return {name, [=] {
              return ops::launch_backprop_to_projected_feature(a_.get(), b_.get(), c_.get(), 1, 2, 5, 5, side,
                                                               side, stream_.get(), &error_);
            }};
  }

  std::vector<Row> correlations() {
    return {classify("classify_samples_kernel", 3),
            classify("classify_samples_fixed_filter_kernel<4,4>", 4),
            pair("classify_sample_pair_kernel", 3),
            pair("classify_sample_pair_fixed_filter_kernel<4,4>", 4),
            backprop("backprop_to_projected_feature_kernel", 3),
            backprop("backprop_to_projected_feature_fixed_filter_kernel<4,4>", 4),
            {"accumulate_filter_gradient_kernel", [this] {
               return ops::launch_accumulate_filter_gradient(a_.get(), b_.get(), 1.0F, c_.get(), 1, 2, 5, 5,
                                                             4, 4, stream_.get(), &error_);
             }}};
  }

  std::vector<Row> responses_and_copies() {
    return {{"compute_weighted_residual_grad_kernel",
             [this] {
               return ops::launch_compute_weighted_residual_grad(a_.get(), b_.get(), 1.0F, c_.get(), d_.get(),
                                                                 1, 5, 5, stream_.get(), &error_);
             }},
            {"compute_weighted_jtj_response_kernel",
             [this] {
               return ops::launch_compute_weighted_jtj_response(a_.get(), b_.get(), c_.get(), 1.0F, d_.get(),
                                                                1, 5, 5, stream_.get(), &error_);
             }},
            {"reduce_batched_projection_gradient_kernel",
             [this] {
               return ops::launch_reduce_batched_projection_gradient(a_.get(), b_.get(), 2, 9, stream_.get(),
                                                                     &error_);
             }},
            {"materialize_scaled_sample_copies_kernel", [this] {
               return ops::launch_materialize_scaled_sample_copies(a_.get(), b_.get(), c_.get(), 2, 3, 4, 5,
                                                                   stream_.get(), &error_);
             }}};
  }

  std::vector<Row> vectors() {
    return {{"set_scaled_vector_kernel",
             [this] {
               return ops::launch_set_scaled_vector(a_.get(), 2.0F, b_.get(), 9, stream_.get(), &error_);
             }},
            {"add_in_place_kernel",
             [this] { return ops::launch_add_in_place(a_.get(), b_.get(), 9, stream_.get(), &error_); }},
            {"dot_product_kernel",
             [this] {
               return ops::launch_dot_product(a_.get(), b_.get(), 9, scalars_.get(), stream_.get(), &error_);
             }},
            {"combine_with_beta_from_scalars_kernel",
             [this] {
               return ops::launch_combine_with_beta_from_scalars(a_.get(), scalars_.get(), b_.get(), 9,
                                                                 stream_.get(), &error_);
             }},
            {"update_x_r_from_scalars_kernel",
             [this] {
               return ops::launch_update_x_r_from_scalars(a_.get(), b_.get(), c_.get(), d_.get(),
                                                          scalars_.get(), 9, stream_.get(), &error_);
             }},
            {"store_scalar_kernel",
             [this] { return ops::launch_store_scalar(scalars_.get(), 2, 0, stream_.get(), &error_); }}};
  }

  void check(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
      host::reset_counters();
      EXPECT_TRUE(row.launch()) << row.name << ": " << error_;
      EXPECT_EQ(host::counters().launches_of(row.name), 1) << row.name;
      EXPECT_EQ(host::counters().null_stream_work + host::counters().synchronisations, 0) << row.name;
      host::fail_call(row.name, 1, cudaErrorUnknown);
      EXPECT_FALSE(row.launch()) << row.name;
      EXPECT_EQ(error_, std::string(row.name) + ": " + cudaGetErrorString(cudaErrorUnknown));
    }
  }
};

TEST_F(JointLaunches, CorrelationsRunUnderTheirKernelsName) {
  check(correlations());
}

TEST_F(JointLaunches, ResponsesAndCopiesRunUnderTheirKernelsName) {
  check(responses_and_copies());
}

TEST_F(JointLaunches, VectorOperationsRunUnderTheirKernelsName) {
  check(vectors());
}

TEST_F(JointLaunches, RefuseAFilterThatSharedMemoryCannotHold) {
  // 48 KiB hold 12288 taps.
  const int channels = 12288 / 9 + 1;
  const DeviceArray<float> features(static_cast<std::size_t>(channels), 0.0F);
  const DeviceArray<float> filter(static_cast<std::size_t>(channels) * 9, 0.0F);
  EXPECT_FALSE(ops::launch_classify_samples(features.get(), filter.get(), c_.get(), 1, channels, 1, 1, 3, 3,
                                            stream_.get(), &error_));
  EXPECT_EQ(error_, std::string("classify_samples_kernel: ") + cudaGetErrorString(cudaErrorInvalidValue));
}

}  // namespace
}  // namespace ostrel_test
