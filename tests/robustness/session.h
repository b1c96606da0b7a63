// Sessions of the data source over the virtual GPU's driver, and what they come to.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/driven_data_source.h"
#include "tests/support/platform_log.h"
#include "tests/support/process.h"
#include "tests/support/resources.h"
#include "tests/support/wire.h"
#include "virtual_gpu/machine.h"

namespace robustness {

namespace machine = qel::vexa::virtual_gpu::machine;

// The config of a session at 1 ms, with two counters and an id that there is not.
inline std::string session_config() {
    using test_support::wire::number;
    return number(1, 1'000'000) + number(2, 0) + number(2, 5) + number(2, 65540);
}

// A session from its set-up to its tear-down.
class session {
public:
    session() {
        source_.set_up(session_config());
        source_.begin();
    }
    ~session() { source_.stop(); }
    session(const session&) = delete;
    session& operator=(const session&) = delete;

private:
    test_support::driven_data_source source_;
};

// Of the samples that sessions have used and given back since the last machine::clear_requests.
inline std::vector<std::uint64_t> timestamps() {
    std::vector<std::uint64_t> result;
    for (const auto& request : machine::requests()) {
        if (request.kind == qel::vexa::virtual_gpu::request_kind::put_buffer && request.result == 0) {
            std::memcpy(&result.emplace_back(), request.argument.data(), sizeof(std::uint64_t));
        }
    }
    return result;
}

// What a session came to, from its messages and from whether it had samples: a letter, '?' for what must not
// be.
inline char outcome_of(const std::vector<test_support::log_line>& lines, bool has_samples) {
    const auto stage = [](const std::string& name) {
        return "Failed creating base context during " + name + ".\n";
    };
    const std::string no_node =
        stage("opening of kernel driver") + "Kernel module may not have been loaded\n";
    const std::string no_reader = "Failed to initialize HWC reader\nCouldn't start because OnSetup failed";
    const std::string unknown_id = "Unexpected counter id 0 specified, ignoring\n";
    std::string text;
    bool has_report = false;  // of the start of diagnostics
    for (const test_support::log_line& line : lines) {
        if (line.text.starts_with("==>[INIT] ")) {
            has_report = true;
        } else {
            text += line.text;
        }
    }
    const struct {
        char letter;
        bool has_samples;
        bool has_report;
        std::string text;
    } outcomes[] = {
        {'S', true, false, unknown_id},   // like any other
        {'D', true, true, unknown_id},    // without part of the settings or outputs of diagnostics
        {'L', true, false, ""},           // its message was lost
        {'E', false, false, unknown_id},  // its thread has ended early
        {'Q', false, false, ""},          // the same before it had said a word
        {'B', false, false, "Couldn't start because periodic sampling setup failed"},
        {'R', false, false, no_reader},
        {'O', false, false, no_node + no_reader},
        {'F', false, false, stage("initializing of kernel context flags") + no_reader},
        {'T', false, false, stage("memory mapping of tracking handle") + no_reader},
        {'P', false, false, stage("allocation of GPU properties") + no_reader},
    };
    for (const auto& outcome : outcomes) {
        if (outcome.has_samples == has_samples && outcome.has_report == has_report && outcome.text == text) {
            return outcome.letter;
        }
    }
    ADD_FAILURE() << "samples: " << has_samples << ", report: " << has_report << ", messages:\n" << text;
    return '?';
}

}  // namespace robustness
