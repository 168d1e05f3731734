// How deep documents may nest on a stack of 8 MiB: the deepest that is parsed, copied and destroyed, each in a process
// of its own, since one level more ends it.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "json_core/nested_json.h"
#include "json_core/sw_json_document.h"
#include "support/stack_thread.h"

namespace {

constexpr std::size_t kAmpleStackBytes = std::size_t{4} << 30;
constexpr int kMaxLevels = 1 << 20;

enum class Operation { kParse, kCopy, kDestroy };

// Values are never destroyed but where that is the operation: the process ends without it.
SwJsonValue* parse(const std::string& text) {
  std::size_t index = 0;
  SwString error;
  return new SwJsonValue(SwJsonDocument().parseJson(text, index, "", error));
}

void run(Operation operation, const std::string& text) {
  using ostrel_test::kDefaultStackBytes;
  using ostrel_test::run_on_stack;
  if (operation == Operation::kParse) {
    run_on_stack(kDefaultStackBytes, [&] { parse(text); });
    return;
  }
  SwJsonValue* value = nullptr;
  run_on_stack(kAmpleStackBytes, [&] { value = parse(text); });
  run_on_stack(kDefaultStackBytes, [&] {
    if (operation == Operation::kCopy) new SwJsonValue(*value);
    if (operation == Operation::kDestroy) delete value;
  });
}

bool survives(Operation operation, Nesting nesting, int levels) {
  const std::string text = nested_json(nesting, levels);
  const pid_t child = fork();
  if (child == 0) {
    run(operation, text);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

int deepest(Operation operation, Nesting nesting) {
  int good = 0;
  int bad = kMaxLevels;
  while (bad - good > 1) {
    const int levels = good + (bad - good) / 2;
    (survives(operation, nesting, levels) ? good : bad) = levels;
  }
  return good;
}

}  // namespace

int main() {
  const Operation operations[] = {Operation::kParse, Operation::kCopy, Operation::kDestroy};
  std::printf("%-8s %8s %8s %8s\n", "levels", "parse", "copy", "destroy");
  const std::pair<Nesting, const char*> shapes[] = {
      {Nesting::kArrays, "arrays"}, {Nesting::kObjects, "objects"}, {Nesting::kMixed, "mixed"}};
  for (const auto& [nesting, name] : shapes) {
    std::printf("%-8s", name);
    for (const Operation operation : operations) std::printf(" %8d", deepest(operation, nesting));
    std::printf("\n");
  }
}
