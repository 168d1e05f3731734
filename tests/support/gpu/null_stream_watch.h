#pragma once

namespace ostrel_test {

/// A device cannot tell what ran on its null stream; the same test on the stand-in does.
class NullStreamWatch {
 public:
  static void expect_nothing_new() {}
};

}  // namespace ostrel_test
