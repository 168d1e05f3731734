// Structured filters for the first convolution.
#pragma once

#include "plain_forward.h"

namespace ostrel::backbone {

// Replaces three of four filters: two by oriented edges of brightness (odd and even phase), one by a colour
// difference; every fourth keeps its random weights. All are scaled to unit norm, on a grid of 2^-20, so that
// a last bit of a mathematical library cannot show.
void set_stem_filters(Convolution* stem);

}  // namespace ostrel::backbone
