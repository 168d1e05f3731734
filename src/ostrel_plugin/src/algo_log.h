#pragma once

#include <string>

/// The two log paths of the plug-in. Callers ask whether debugging is on before they format anything.
namespace ostrel_algo_internal {

/// printf's formatting into a string of the exact length; empty when the format is refused.
std::string formatText(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// A line on standard output, flushed: "[AlgoPlugin INFO] [", the plug-in's name, "] ", the message.
void writeConsole(const std::string& plugin_name, const std::string& message);

/// The logger "OstrelAlgo", at information and at warning level.
void writeLogInfo(const std::string& message);
void writeLogWarning(const std::string& message);

/// What %llu asks for.
template <typename Integer>
unsigned long long asLlu(Integer value) {
  return static_cast<unsigned long long>(value);
}

}  // namespace ostrel_algo_internal
