// Stands in for diagnostics in the tests of the layers below it: a fatal report goes to stderr and ends the
// process.
#pragma once

#include <string>

namespace qel::vexa::tests {

// The text of the latest cdbg_print_to_error_channel, empty when there was none. Any thread may call it.
std::string last_error_text();

}  // namespace qel::vexa::tests
