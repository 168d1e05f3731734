// What the user gave cannot be used: the program says so in one line and ends with exit code 2.
#pragma once

#include <stdexcept>

namespace ostrel_host {

constexpr int kExitBadInput = 2;

class BadInput : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace ostrel_host
