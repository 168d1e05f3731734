#pragma once

#include <optrix/optrix_picture.h>

#include <memory>
#include <opencv2/core.hpp>
#include <string>

/// What the plug-in reads of a picture.
namespace ostrel_algo_internal {

/// True, with `out` set, when the key holds a finite double. Integers do not count.
bool readFiniteMetadataDouble(const optrix::OptrixPicture::BaseMetadata& metadata, const std::string& key,
                              double& out);

/// True, with `out` telling whether the value differs from zero, when the key holds an integer of 32 or 64
/// bits or a finite double; `out` stays otherwise.
bool readMetadataFlag(const optrix::OptrixPicture::BaseMetadata& metadata, const std::string& key, bool& out);

/// The whole picture as a host image, blue first, resampled on the device to the size given, made even and at
/// least 2. Blocks until the pixels are on the host. Empty on every failure.
cv::Mat buildBgrFromOptrixTensor(const std::shared_ptr<optrix::OptrixPicture>& picture, int width,
                                 int height);

}  // namespace ostrel_algo_internal
