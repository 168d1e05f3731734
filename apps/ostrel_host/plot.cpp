#include "plot.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace ostrel_host {
namespace {

constexpr char kGnuplot[] = "gnuplot";
constexpr int kNotFound = 127;  // exit code of a spawned child whose program is missing

std::string cell(double value) {
  if (!std::isfinite(value)) return "NaN";
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", value);
  return text;
}

class SpawnActions {
 public:
  SpawnActions() { posix_spawn_file_actions_init(&actions_); }
  ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;
  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

std::string missing() {
  return "gnuplot is not installed (Debian: gnuplot-nox)";
}

}  // namespace

void write_table(const std::filesystem::path& file, const PlotTable& table) {
  std::ofstream stream(file, std::ios::trunc);
  stream << "#";
  for (std::size_t i = 0; i < table.columns.size(); ++i) stream << (i > 0 ? "\t" : "") << table.columns[i];
  stream << '\n';
  for (const std::vector<double>& row : table.rows) {
    for (std::size_t i = 0; i < row.size(); ++i) stream << (i > 0 ? "\t" : "") << cell(row[i]);
    stream << '\n';
  }
  stream.flush();
  if (!stream) throw std::runtime_error("'" + file.string() + "' cannot be written");
}

void write_script(const std::filesystem::path& file, const std::string& script) {
  std::ofstream stream(file, std::ios::trunc);
  stream << script;
  stream.close();
  if (!stream) throw std::runtime_error("'" + file.string() + "' cannot be written");
}

std::string plot_literal(const std::string& text) {
  std::string literal = "'";
  for (const char c : text) {
    if (c == '\'') literal += '\'';
    literal += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
  }
  return literal + "'";
}

std::string draw_plot(const std::filesystem::path& folder, const std::string& script) {
  SpawnActions actions;
  posix_spawn_file_actions_addchdir_np(actions.get(), folder.c_str());
  posix_spawn_file_actions_addopen(actions.get(), STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(actions.get(), STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  std::string program = kGnuplot, argument = script;
  char* const arguments[] = {program.data(), argument.data(), nullptr};
  pid_t child = 0;
  const int problem = posix_spawnp(&child, kGnuplot, actions.get(), nullptr, arguments, environ);
  if (problem == ENOENT) return missing();
  if (problem != 0) return std::string("gnuplot cannot be started: ") + std::strerror(problem);
  int status = 0;
  if (waitpid(child, &status, 0) != child) return "gnuplot was lost";
  if (!WIFEXITED(status)) return "gnuplot was ended by a signal";
  if (WEXITSTATUS(status) == kNotFound) return missing();
  if (WEXITSTATUS(status) == 0) return {};
  return "gnuplot refused the script; 'gnuplot " + script + "' in " + folder.string() + " says why";
}

}  // namespace ostrel_host
