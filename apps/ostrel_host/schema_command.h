// ostrel_host schema: what can be set, and what can be read.
#pragma once

#include <string>

namespace ostrel_host {

struct SchemaOptions {
  bool properties = false;  // the schema of `property` instead of the settings'
  std::string plugin;       // empty: beside the program
};

// Prints the plug-in's JSON Schema, from its first brace on. Returns the exit code. Throws BadInput.
int run_schema(const SchemaOptions& options);

}  // namespace ostrel_host
