// counterfeed-record: from the names of counters to a trace, its summary and its page.

#include <fmt/core.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "workstation/command_line/device.h"
#include "workstation/command_line/options.h"
#include "workstation/command_line/program.h"
#include "workstation/command_line/trace_config.h"
#include "workstation/record/place.h"
#include "workstation/report/trace_file.h"

namespace {

using namespace qel::vexa::command_line;  // NOLINT(google-build-using-namespace)
using qel::vexa::record::place;
namespace report = qel::vexa::report;

struct request {
    std::vector<std::string> names;
    std::string preset;
    std::string config;
    recording timing;
    recording_given given;
    bool detached = false;
    std::string trace;
    std::string page;
    bool shows_results = true;
    bool operands = false;
    bool behind_adb = false;
    std::string serial;
    bool dry_run = false;
};

volatile std::sig_atomic_t stop_asked = 0;

std::string default_trace() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char text[64];
    std::strftime(text, sizeof text, "counterfeed-%Y%m%d-%H%M%S.perfetto-trace", &local);
    return text;
}

request read_command_line(int argument_count, char** arguments) {
    request result;
    bool only_records = false;
    options table(
        {"[OPTION...] NAME...", "[OPTION...] --preset PRESET", "[OPTION...] --config FILE"},
        "Records GPU counters and shows what they did: asks the tracing service which counters there are, "
        "records those that are named, prints a summary of the trace and writes a page with its charts. "
        "NAME is a counter's name in any case, its hardware name, its id, or a pattern such as "
        "'Fragment*'. Ctrl-C ends the recording and keeps what there is.",
        "Exit status: 0 success, 1 no such service, counters or samples, or a config for another GPU, 2 "
        "wrong usage.");
    table.section("What to record");
    table.value("-P,--preset", "PRESET", "the counters for a topic: " + joined(preset_names(), ", "),
                result.preset, preset_names());
    table.value(
        "-c,--config", "FILE",
        "what this trace config says, if the ids in it have on the device the names that stand behind "
        "them as comments",
        result.config);
    add_recording_options(table, result.timing, result.given);
    add_operands_option(table, result.operands);
    table.section("Where");
    table.flag("-a,--adb", "on the device behind adb, not on this machine", result.behind_adb);
    table.value("-s,--serial", "SERIAL", "on the device behind adb with this serial number",
                [&result](const std::string& text) {
                    result.behind_adb = true;
                    result.serial = text;
                });
    table.section("What comes of it");
    table.value("-o,--output", "FILE",
                "the trace (default counterfeed-DATE-TIME.perfetto-trace); the page "
                "stands beside it, ending in .html",
                result.trace);
    table.flag("-R,--record-only", "neither print a summary nor write a page", only_records);
    table.flag("-l,--long",
               "start a recording that goes on by itself, until stopped if no duration is given, "
               "and say how to stop and fetch it",
               result.detached);
    table.flag("-n,--dry-run", "print the config and every command, and run only what asks the service",
               result.dry_run);
    result.names = table.parse(argument_count, arguments);

    const int ways =
        (result.names.empty() ? 0 : 1) + (result.preset.empty() ? 0 : 1) + (result.config.empty() ? 0 : 1);
    if (ways != 1) {
        fail_usage(ways == 0 ? "say what to record: names, --preset or --config"
                             : "names, --preset and --config exclude each other");
    }
    if (!result.config.empty() && result.given.any()) {
        fail_usage("--period and --duration stand in the config");
    }
    if (!result.config.empty() && result.operands) {
        fail_usage("--config says all that is recorded, and goes without --with-operands");
    }
    if (result.detached && !result.given.duration) {
        result.timing.duration_s = 0;
    }
    if (result.trace.empty()) {
        result.trace = default_trace();
    }
    result.page = std::filesystem::path(result.trace).replace_extension(".html");
    result.shows_results = !only_records;
    return result;
}

// The GPU of the service that runs there.
gpu find_gpu(const place& where) {
    const program_result answer = where.shell(place::effect::reads, "perfetto --query-raw");
    if (answer.status == 127) {
        fail(exit_failure, fmt::format("{} lacks a program: {}", where.name(), answer.err));
    }
    if (answer.status != 0) {
        fail(exit_failure,
             fmt::format("no tracing service answers on {}:\n{}", where.name(), answer.err + answer.out));
    }
    return gpu_of_state(answer.out, "the tracing service on " + where.name());
}

std::string make_config(const request& asked, const gpu& of) {
    if (asked.config.empty()) {
        std::vector<counter> counters =
            asked.preset.empty() ? counters_named(of, asked.names) : preset_counters(of, asked.preset);
        if (asked.operands) {
            counters = add_operands(of, counters, asked.timing);
        }
        return trace_config(of, counters, asked.timing);
    }
    std::string config = file_argument(asked.config);
    if (counters_in_config(config).empty()) {
        fail(exit_failure, asked.config + " names no counter_ids");
    }
    const std::vector<std::string> faults = faults_of_config(config, of);
    if (!faults.empty()) {
        fail(exit_failure, fmt::format("{} is for another GPU:\n  {}", asked.config, joined(faults, "\n  ")));
    }
    return config;
}

void show_progress(std::chrono::steady_clock::time_point start, std::uint64_t duration_s) {
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;
    const std::string whole = duration_s != 0 ? fmt::format(" of {} s", duration_s) : ", until Ctrl-C";
    std::fputs(fmt::format("\rRecording {:.0f} s{} ... ", passed.count(), whole).c_str(), stderr);
}

// Records to the end of the config's duration, or to Ctrl-C.
void record(const request& asked, const place& where, const std::string& config) {
    struct sigaction action {};
    action.sa_handler = [](int) { stop_asked = 1; };
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    const bool on_terminal = ::isatty(STDERR_FILENO) != 0 && !asked.dry_run;
    const auto start = std::chrono::steady_clock::now();
    bool stopped = false;
    // The first line that comes back is the recorder's process: what ends here does not end there by itself.
    const program_result result =
        where.shell(place::effect::records,
                    "echo $$; exec perfetto --txt -c - -o " + shell_line({where.file_there(asked.trace)}),
                    config, [&](const std::string& printed) {
                        if (on_terminal && !stopped) {
                            show_progress(start, asked.config.empty() ? asked.timing.duration_s : 0);
                        }
                        const std::size_t line = printed.find('\n');
                        if (stop_asked != 0 && !stopped && line != std::string::npos) {
                            stopped = true;
                            where.shell(place::effect::records, "kill -TERM " + printed.substr(0, line));
                        }
                    });
    if (on_terminal) {
        std::fputs("\n", stderr);
    }
    if (result.status != 0) {
        fail(exit_failure, fmt::format("recording on {} failed:\n{}", where.name(), result.err));
    }
    where.fetch(asked.trace);
}

void start_detached(const request& asked, const place& where, const std::string& config) {
    const program_result result = where.shell(
        place::effect::records,
        "perfetto --txt -c - --background -o " + shell_line({where.file_there(asked.trace)}), config);
    if (asked.dry_run) {
        return;
    }
    const std::string process = result.out.substr(0, result.out.find('\n'));
    if (result.status != 0 || process.empty()) {
        fail(exit_failure, fmt::format("recording on {} failed:\n{}", where.name(), result.err));
    }
    print(fmt::format("Recording on {} goes on by itself. Stop it, fetch it and look at it with:\n{}\n",
                      where.name(), where.shown("kill " + process)));
    const std::string fetch = where.fetch_lines(asked.trace);
    print(fetch + (fetch.empty() ? "" : "\n") + "counterfeed-report " + shell_line({asked.trace}) + "\n");
}

// Whether the trace has values of counters.
bool has_samples(const std::string& trace) {
    class listener : public report::trace_listener {
    public:
        void on_counters(std::uint32_t /*sequence*/,
                         const std::vector<report::counter_description>& /*counters*/) override {}
        void on_sample(std::uint32_t /*sequence*/, const report::counter_sample& sample) override {
            any |= !sample.values.empty();
        }
        bool any = false;
    } found;
    std::ifstream file(trace, std::ios::binary);
    report::read_trace(file, found);
    return found.any;
}

// The report is the program that is installed beside this one.
void show_results(const request& asked) {
    std::error_code ec;
    const std::string program =
        std::filesystem::read_symlink("/proc/self/exe", ec).parent_path() / "counterfeed-report";
    const std::vector<std::string> summary{program, "--all", asked.trace};
    const std::vector<std::string> page{program, "--html", "--output", asked.page, asked.trace};
    for (const std::vector<std::string>& command : {summary, page}) {
        if (asked.dry_run) {
            print(shell_line(command) + "\n");
            continue;
        }
        std::fflush(stdout);
        // It shares the terminal, so that it finds out by itself how wide that is.
        if (std::system(shell_line(command).c_str()) != 0) {  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
            fail(exit_failure, fmt::format("the trace is in {}, but counterfeed-report failed", asked.trace));
        }
    }
    if (!asked.dry_run) {
        print(fmt::format("\nThe trace is {}, its page is {}\n", asked.trace, asked.page));
    }
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): none is thrown but for want of memory, which may well end it
int main(int argument_count, char** arguments) {
    const request asked = read_command_line(argument_count, arguments);
    const place where(asked.behind_adb, asked.serial, asked.dry_run);
    const std::string config = make_config(asked, find_gpu(where));
    if (std::filesystem::exists(asked.trace)) {
        fail(exit_failure, asked.trace + " exists: give the trace another name with --output");
    }
    if (asked.dry_run) {
        print(config);
    }
    if (asked.detached) {
        start_detached(asked, where, config);
        finish();
    }
    record(asked, where, config);
    if (!asked.dry_run && !has_samples(asked.trace)) {
        fail(exit_failure,
             fmt::format(
                 "the counters are offered, but no sample came: the GPU's driver can't be sampled, or was "
                 "not while this recorded. The launcher's log says why. The trace is {}",
                 asked.trace));
    }
    if (asked.shows_results) {
        show_results(asked);
    }
    finish();
}
