#pragma once

#include <memory>
#include <string>

#include "tracking_runtime/tracker/atom/atom_runtime_backend.h"
#include "tracking_runtime/tracker/atom/native_cpp_backend.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Lower case, without any white space.
std::string normalize_backend_name(std::string text);

/// The backend that `runtime_backend` names, or null for a word that names none. The empty word names the one
/// that there is.
std::unique_ptr<AtomRuntimeBackend> create_runtime_backend(NativeCppBackend::Config config);

/// The one implementation. It stands in a source of its own, so that a program that defines this function
/// itself runs the facade, and the plug-in object above it, over another backend and without a GPU.
std::unique_ptr<AtomRuntimeBackend> make_cuda_runtime_backend(NativeCppBackend::Config config);

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
