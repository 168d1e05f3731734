// The table of an evaluation, for people: Markdown, so that it can be pasted.
#pragma once

#include <string>
#include <vector>

#include "eval_statistics.h"

namespace ostrel_host {

// A row per EvalRow. A figure with a deviation reads "0.563 ±0.012", one that there is none of "-". A row over all
// sequences is called "mean", or "mean of 3" where only so many of `all_sequences` have a result.
std::string eval_table(const std::vector<EvalRow>& rows, std::size_t all_sequences);

}  // namespace ostrel_host
