#include "workstation/command_line/device.h"

#include <fmt/core.h>

#include <filesystem>

#include "workstation/command_line/process.h"
#include "workstation/command_line/program.h"

namespace qel::vexa::command_line {

namespace {

// A heading of the form of the state that is for people.
constexpr const char* heading_of_text = "DATA SOURCES REGISTERED";

}  // namespace

gpu gpu_of_state(const std::string& bytes, const std::string& source) {
    if (bytes.find(heading_of_text) != std::string::npos) {
        fail(exit_failure, source +
                               " is what \"perfetto --query\" prints, which has data sources but no names "
                               "of counters: give what \"perfetto --query-raw\" prints");
    }
    const auto offers = protocol::read_counter_sources(bytes);
    if (!offers || bytes.empty()) {
        fail(exit_failure,
             source + " holds no state of a tracing service, as \"perfetto --query-raw\" prints it");
    }
    for (const protocol::counter_source& each : *offers) {
        if (!each.counters.empty()) {
            return offered_gpu(each);
        }
    }
    fail(exit_failure,
         fmt::format("nothing offers GPU counters in {}: the launcher does not run, or found no "
                     "GPU that it knows; its log says which",
                     source));
}

gpu device_argument(const std::string& state) {
    std::error_code ec;
    if (!std::filesystem::is_socket(state, ec)) {
        return gpu_of_state(file_argument(state), state == "-" ? "standard input" : state);
    }
    const program_result answer =
        run_program({"perfetto", "--query-raw"}, {}, {"PERFETTO_CONSUMER_SOCK_NAME=" + state});
    if (answer.status != 0) {
        fail(exit_failure, fmt::format("no tracing service answers on {}:\n{}", state, answer.err));
    }
    return gpu_of_state(answer.out, "the service on " + state);
}

}  // namespace qel::vexa::command_line
