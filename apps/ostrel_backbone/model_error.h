// What is wrong with a model, or with what is asked of it: one line for the user.
#pragma once

#include <stdexcept>

namespace ostrel::backbone {

class ModelError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace ostrel::backbone
