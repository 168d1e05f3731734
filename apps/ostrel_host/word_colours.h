// The colours of status words and phases, the same in pictures and films.
#pragma once

#include <string>

namespace ostrel_host {

struct Colour {
  int red = 0;
  int green = 0;
  int blue = 0;
};

// Green where the target is followed, amber where a box is held, red where something failed or is dead, orange where
// publication is refused, blue while the start-up goes on.
Colour colour_of_word(const std::string& status);
Colour colour_of_phase(const std::string& phase);

std::string to_hex(const Colour& colour);  // "#rrggbb"

}  // namespace ostrel_host
