#pragma once

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Three doubles steer the solvers: rho, then rho2 or pq, then the previous rho.
enum SolverScalar : int { kRho = 0, kRho2OrPq = 1, kPreviousRho = 2, kSolverScalars = 3 };

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
