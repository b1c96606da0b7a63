// The GPU that a tracing service has counters of.
#pragma once

#include <string>

#include "workstation/command_line/catalogue.h"

namespace qel::vexa::command_line {

// The GPU whose counters are offered in the state of a service, as "perfetto --query-raw" prints it. Ends the
// process with a sentence when the bytes are no such state, or when nothing offers counters in it. What is
// shown as the state's source is part of that sentence.
gpu gpu_of_state(const std::string& bytes, const std::string& source);

// Takes the state from a file or a pipe, or "-" for standard input. When it is a socket, the service behind
// it is asked, for which the program perfetto must be at hand.
gpu device_argument(const std::string& state);

}  // namespace qel::vexa::command_line
