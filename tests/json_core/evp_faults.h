#pragma once

#include <string>

// The test program is linked with its own EVP calls before the library's: the next call of a name can be made to
// fail, and contexts are counted.
enum class EvpFault { kNone, kFail, kThrow };

void fail_evp(const std::string& call, EvpFault fault = EvpFault::kFail);
void heal_evp();

// Contexts made and not yet freed.
int live_evp_contexts();
