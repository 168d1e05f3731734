#pragma once

#include <string>

/// Writes `message`, `text` and a line end to standard error in one piece, so that lines of several threads do
/// not mix. The text may hold any bytes.
void print_error_line(const char* message, const std::string& text);
