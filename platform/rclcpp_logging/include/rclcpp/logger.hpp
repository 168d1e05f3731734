// The named logger of rclcpp over rcutils: a value that carries a name and nothing else.
#pragma once

#include <string>
#include <utility>

namespace rclcpp {

class Logger;

// A logger of that name. Loggers of one name share their severity level, which belongs to the process.
Logger get_logger(const std::string& name);

class Logger {
 public:
  enum class Level { Unset = 0, Debug = 10, Info = 20, Warn = 30, Error = 40, Fatal = 50 };

  const char* get_name() const { return name_.c_str(); }

  // Messages below this level are dropped. Throws std::invalid_argument when rcutils refuses.
  void set_level(Level level);

  // The level in force for this name, inherited from the process default where none was set.
  Level get_effective_level() const;

 private:
  friend Logger get_logger(const std::string& name);
  explicit Logger(std::string name) : name_(std::move(name)) {}

  std::string name_;
};

}  // namespace rclcpp
