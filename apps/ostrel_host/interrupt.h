// Ctrl-C ends a run early; the files so far are completed.
#pragma once

namespace ostrel_host {

// From here on an interrupt is only noted.
void stop_on_interrupt();

bool interrupted();

}  // namespace ostrel_host
