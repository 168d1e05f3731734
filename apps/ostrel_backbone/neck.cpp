#include "neck.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <future>
#include <thread>

#include "model_error.h"

namespace ostrel::backbone {
namespace {

constexpr int kCellsPerChannel = 4;  // below that a covariance says little

FeaturePlanes planes_of(const cv::Mat& crop) {
  FeaturePlanes planes(3, crop.rows, crop.cols);
  std::size_t place = 0;
  for (int y = 0; y < crop.rows; ++y) {
    for (int x = 0; x < crop.cols; ++x, ++place) {
      const auto& pixel = crop.at<cv::Vec3b>(y, x);
      for (int channel = 0; channel < 3; ++channel) planes.plane(channel)[place] = pixel[2 - channel];
    }
  }
  return planes;
}

// Rows are cells, columns channels.
cv::Mat cells_of(const FeaturePlanes& planes) {
  const cv::Mat by_channel(planes.channels, static_cast<int>(planes.plane_size()), CV_64F,
                           const_cast<double*>(planes.values.data()));
  cv::Mat cells;
  cv::Mat(by_channel.t()).convertTo(cells, CV_32F);
  return cells;
}

// One matrix of cells for each crop, in the order of the crops; spread over the cores.
std::vector<cv::Mat> gather_cells(const FeatureTrunk& trunk, const std::vector<cv::Mat>& crops) {
  std::vector<cv::Mat> cells(crops.size());
  std::atomic<std::size_t> next{0};
  const auto work = [&] {
    for (std::size_t i = next++; i < crops.size(); i = next++) {
      cells[i] = cells_of(plain_features(trunk, planes_of(crops[i])));
    }
  };
  std::vector<std::future<void>> helpers;
  const std::size_t cores = std::max(1U, std::thread::hardware_concurrency());
  for (std::size_t i = 1; i < std::min(crops.size(), cores); ++i) {
    helpers.push_back(std::async(std::launch::async, work));
  }
  work();
  for (std::future<void>& helper : helpers) helper.get();
  return cells;
}

struct Statistics {
  cv::Mat mean;        // 1 x channels, double
  cv::Mat covariance;  // channels x channels, double
  std::size_t cells = 0;
};

cv::Mat centred(const cv::Mat& cells, const cv::Mat& mean) {
  cv::Mat values;
  cells.convertTo(values, CV_64F);
  for (int row = 0; row < values.rows; ++row) values.row(row) -= mean;
  return values;
}

Statistics measure(const std::vector<cv::Mat>& all) {
  Statistics found;
  for (const cv::Mat& cells : all) {
    cv::Mat sum;
    cv::reduce(cells, sum, 0, cv::REDUCE_SUM, CV_64F);
    found.mean = found.mean.empty() ? sum : cv::Mat(found.mean + sum);
    found.cells += static_cast<std::size_t>(cells.rows);
  }
  found.mean /= static_cast<double>(found.cells);
  found.covariance = cv::Mat::zeros(found.mean.cols, found.mean.cols, CV_64F);
  for (const cv::Mat& cells : all) {
    const cv::Mat values = centred(cells, found.mean);
    cv::gemm(values, values, 1.0, found.covariance, 1.0, found.covariance, cv::GEMM_1_T);
  }
  found.covariance /= static_cast<double>(found.cells);
  return found;
}

// Factors that give the first `shallow` channels the total variance of the rest.
cv::Mat balance(const cv::Mat& covariance, int shallow) {
  cv::Mat factors = cv::Mat::ones(1, covariance.cols, CV_64F);
  if (shallow == 0) return factors;
  const cv::Mat variances = covariance.diag();
  const double first = cv::sum(variances.rowRange(0, shallow))[0];
  const double rest = cv::sum(variances.rowRange(shallow, variances.rows))[0];
  if (first > 0.0) factors.colRange(0, shallow) = std::sqrt(rest / first);
  return factors;
}

// The sign of a direction is nobody's; its largest element is made positive, so that it is the same everywhere.
void settle_sign(cv::Mat direction) {
  int place[2] = {0, 0};
  cv::minMaxIdx(cv::abs(direction), nullptr, nullptr, nullptr, place);
  if (direction.at<double>(place[1]) < 0.0) direction *= -1.0;
}

// Rows are output channels, columns feature channels.
cv::Mat directions(const NeckOptions& options, const Statistics& found, int shallow, NeckReport* report) {
  const cv::Mat factors = balance(found.covariance, shallow);
  const cv::Mat balanced = found.covariance.mul(factors.t() * factors);
  cv::Mat variances;
  cv::Mat vectors;
  cv::eigen(balanced, variances, vectors);  // largest first, a direction per row
  const double total = cv::sum(variances)[0];
  if (!(total > 0.0)) throw ModelError("the features do not vary over the pictures");
  const double floor = options.shrink * total / variances.rows;
  cv::Mat result = vectors.rowRange(0, options.channels).clone();
  for (int i = 0; i < options.channels; ++i) {
    const double variance = std::max(variances.at<double>(i), 0.0) + floor;
    settle_sign(result.row(i));
    result.row(i) =
        result.row(i).mul(factors) * std::pow(std::max(variance, 1e-12), -0.5 * options.whitening);
  }
  report->kept_variance = cv::sum(variances.rowRange(0, options.channels))[0] / total;
  return result;
}

double mean_norm(const std::vector<cv::Mat>& all, const Statistics& found, const cv::Mat& matrix) {
  double sum = 0.0;
  for (const cv::Mat& cells : all) {
    const cv::Mat projected = centred(cells, found.mean) * matrix.t();
    for (int row = 0; row < projected.rows; ++row) sum += cv::norm(projected.row(row));
  }
  return sum / static_cast<double>(found.cells);
}

// Columns `first` to `last` of the matrix; `bias` may be empty.
Convolution as_convolution(const cv::Mat& matrix, int first, int last, const cv::Mat& bias) {
  Convolution convolution{last - first, matrix.rows, 1, 1, {}, {}};
  for (int row = 0; row < matrix.rows; ++row) {
    for (int column = first; column < last; ++column) {
      convolution.weights.push_back(static_cast<float>(matrix.at<double>(row, column)));
    }
    if (!bias.empty()) convolution.bias.push_back(static_cast<float>(bias.at<double>(row)));
  }
  return convolution;
}

void check(const NeckOptions& options, const FeatureTrunk& trunk, const std::vector<cv::Mat>& crops) {
  const int features = feature_channels(trunk);
  if (options.channels < 1 || options.channels > features) {
    throw ModelError("a neck of " + std::to_string(options.channels) + " channels does not fit " +
                     std::to_string(features) + " features");
  }
  const int side = crops.empty() ? 0 : output_side(trunk, crops.front().rows);
  const std::size_t cells = crops.size() * static_cast<std::size_t>(side) * static_cast<std::size_t>(side);
  const std::size_t wanted = static_cast<std::size_t>(features) * kCellsPerChannel;
  if (cells < wanted) {
    throw ModelError(std::to_string(cells) + " cells are too few for a neck on " + std::to_string(features) +
                     " features; give more crops (at least " + std::to_string(wanted) + " cells)");
  }
}

}  // namespace

NeckReport make_neck(const NeckOptions& options, const std::vector<cv::Mat>& crops, FeatureTrunk* trunk) {
  check(options, *trunk, crops);
  const auto& stages = trunk->network.stages;
  const bool joined = trunk->feature == Feature::kJoined;
  const int shallow = joined ? stages[stages.size() - 2].blocks.back().second.out_channels : 0;
  const std::vector<cv::Mat> all = gather_cells(*trunk, crops);
  const Statistics found = measure(all);
  NeckReport report;
  report.cells = found.cells;
  cv::Mat matrix = directions(options, found, shallow, &report);
  matrix *= kCellNorm / mean_norm(all, found, matrix);
  const cv::Mat bias = -matrix * found.mean.t();
  trunk->has_neck = true;
  trunk->neck = as_convolution(matrix, shallow, matrix.cols, joined ? cv::Mat() : bias);
  if (joined) trunk->shallow_neck = as_convolution(matrix, 0, shallow, bias);
  return report;
}

}  // namespace ostrel::backbone
