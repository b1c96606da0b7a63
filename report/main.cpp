// counterfeed-report: what GPU counters a trace holds, on the terminal.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "report/trace_file.h"

namespace {

using namespace qel::vexa::report;  // NOLINT(google-build-using-namespace)

constexpr const char* usage =
    "Usage: counterfeed-report [--all] TRACE\n"
    "       counterfeed-report --offered STATE\n"
    "\n"
    "Prints a summary of the GPU counters in a recorded trace: a line for each counter that is selected by "
    "default,\n"
    "or with --all for each, with its range over the session.\n"
    "\n"
    "--offered lists the ids and names of the counters that a tracing service offers. STATE is a file with "
    "the output\n"
    "of 'perfetto --query-raw'.\n";

constexpr int exit_usage = 2;

struct range {
    double least = std::numeric_limits<double>::infinity();
    double most = -std::numeric_limits<double>::infinity();
    double sum = 0;
    std::size_t count = 0;

    void add(double value) {
        least = std::min(least, value);
        most = std::max(most, value);
        sum += value;
        ++count;
    }
    double mean() const { return sum / static_cast<double>(count); }
};

// Short enough for a column, and exact for small whole numbers: "12", "99.3", "1.25 M".
std::string short_number(double value) {
    const struct {
        double scale;
        const char* suffix;
    } steps[] = {{1e12, " T"}, {1e9, " G"}, {1e6, " M"}, {1e4, " k"}};
    char text[32];
    for (const auto& step : steps) {
        if (std::fabs(value) >= step.scale) {
            const double unit = step.scale == 1e4 ? 1e3 : step.scale;
            std::snprintf(text, sizeof text, "%.4g%s", value / unit, step.suffix);
            return text;
        }
    }
    std::snprintf(text, sizeof text, "%.5g", value);
    return text;
}

void print_sequence(const counter_sequence& sequence, bool all) {
    std::map<std::uint32_t, range> ranges;
    for (const counter_sample& sample : sequence.samples) {
        for (const counter_value& counter : sample.values) {
            ranges[counter.id].add(counter.value);
        }
    }
    const auto by_default =
        std::count_if(sequence.counters.begin(), sequence.counters.end(),
                      [](const counter_description& counter) { return counter.select_by_default; });
    std::printf("%zu counters, %td of them selected by default; %zu samples", sequence.counters.size(),
                by_default, sequence.samples.size());
    if (sequence.samples.size() > 1) {
        const auto nanoseconds =
            static_cast<double>(sequence.samples.back().timestamp - sequence.samples.front().timestamp);
        std::printf(" over %.3f s, one every %.3f ms", nanoseconds / 1e9,
                    nanoseconds / 1e6 / static_cast<double>(sequence.samples.size() - 1));
    }
    std::printf("\n\n");

    std::size_t name_width = std::strlen("counter");
    for (const counter_description& counter : sequence.counters) {
        if (all || counter.select_by_default) {
            name_width = std::max(name_width, counter.name.size());
        }
    }
    const int width = static_cast<int>(name_width);
    std::printf("%-*s  %-15s %10s %10s %10s\n", width, "counter", "unit", "least", "mean", "most");
    for (const counter_description& counter : sequence.counters) {
        if (!all && !counter.select_by_default) {
            continue;
        }
        const auto found = ranges.find(counter.id);
        std::printf("%-*s  %-15s", width, counter.name.c_str(), counter.unit().c_str());
        if (found == ranges.end()) {
            std::printf(" %10s\n", "no samples");
            continue;
        }
        std::printf(" %10s %10s %10s\n", short_number(found->second.least).c_str(),
                    short_number(found->second.mean()).c_str(), short_number(found->second.most).c_str());
    }
}

int report_trace(const char* path, bool all) {
    const std::optional<std::string> bytes = read_file(path);
    if (!bytes) {
        std::fprintf(stderr, "counterfeed-report: can't read %s\n", path);
        return EXIT_FAILURE;
    }
    const auto sequences = read_counters(*bytes);
    if (!sequences) {
        std::fprintf(stderr, "counterfeed-report: %s is not a trace\n", path);
        return EXIT_FAILURE;
    }
    if (sequences->empty()) {
        std::fprintf(stderr, "counterfeed-report: %s has no GPU counters\n", path);
        return EXIT_FAILURE;
    }
    for (const auto& [number, sequence] : *sequences) {
        if (sequences->size() > 1) {
            std::printf("Sequence %u: ", number);
        }
        print_sequence(sequence, all);
    }
    return EXIT_SUCCESS;
}

int list_offered(const char* path) {
    const std::optional<std::string> bytes = read_file(path);
    const std::vector<counter_description> counters =
        bytes ? read_offered_counters(*bytes) : std::vector<counter_description>();
    if (counters.empty()) {
        std::fprintf(stderr, "counterfeed-report: no GPU counters are offered in %s\n", path);
        return EXIT_FAILURE;
    }
    for (const counter_description& counter : counters) {
        std::printf("%u\t%s\n", counter.id, counter.name.c_str());
    }
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argument_count, char** arguments) {
    if (argument_count == 2 && std::strcmp(arguments[1], "--help") == 0) {
        std::fputs(usage, stdout);
        return EXIT_SUCCESS;
    }
    if (argument_count == 3 && std::strcmp(arguments[1], "--offered") == 0) {
        return list_offered(arguments[2]);
    }
    const bool all = argument_count == 3 && std::strcmp(arguments[1], "--all") == 0;
    if ((argument_count == 2 || all) && arguments[argument_count - 1][0] != '-') {
        return report_trace(arguments[argument_count - 1], all);
    }
    std::fputs(usage, stderr);
    return exit_usage;
}
