// counterfeed-report on traces written out byte by byte: what it shows, and what it makes of damaged ones.

#include <gtest/gtest.h>
#ifdef COUNTERFEED_ZLIB
#include <zlib.h>
#endif
#ifdef COUNTERFEED_ZSTD
#include <zstd.h>
#endif

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "hwc/hwc_names.h"
#include "hwc/reported_value.h"
#include "tests/hwc/hand_made_gpu.h"
#include "tests/support/process.h"
#include "tests/support/tool.h"
#include "tests/support/wire.h"
#include "workstation/report/frames.h"
#include "workstation/report/page_levels.h"
#include "workstation/report/summary.h"
#include "workstation/report/trace_file.h"
#include "workstation/report/writers.h"

namespace {

using namespace qel::vexa::report;   // NOLINT(google-build-using-namespace)
using namespace test_support::wire;  // NOLINT(google-build-using-namespace)
using test_support::temporary_folder;

// A packet as the service stores it: with the number of its sequence behind what the producer wrote.
std::string packet(const std::string& content, unsigned sequence = 7) {
    return text(1, content + number(10, sequence));
}

std::string counter_spec(unsigned id, const std::string& name, unsigned unit, bool selected) {
    return nested(1, number(1, id) + text(2, name) + text(3, "What it counts. Hardware name: HW_NAME.") +
                         number(9, selected ? 1 : 0) + number(7, unit) + number(8, 0));
}

std::string descriptor(const std::string& specs, unsigned sequence = 7) {
    return packet(number(8, 0) + nested(52, nested(1, specs)), sequence);
}

std::string sample(std::uint64_t time, const std::vector<std::pair<unsigned, double>>& values,
                   unsigned sequence = 7) {
    std::string counters;
    for (const auto& [id, value] : values) {
        counters += nested(2, number(1, id) + real(3, value));
    }
    return packet(number(58, 5) + number(8, time) + nested(52, counters), sequence);
}

const std::string two_counters = descriptor(counter_spec(4, "Sent \"messages\", all", 0, true) +
                                            counter_spec(0x10003, "Use <of> it", 37, false));

// Three samples, 1 ms apart, between packets of other kinds.
std::vector<std::string> small_packets() {
    const std::string other = packet(text(2, "something else"), 1);
    return {other,
            two_counters,
            sample(1'000'000'000, {{4, 1e6}, {0x10003, 12.5}}),
            other,
            sample(1'001'000'000, {{4, 3}, {0x10003, 0}}),
            sample(1'002'000'000, {{4, 0.25}, {0x10003, 100}})};
}

std::string small_trace() {
    std::string result;
    for (const std::string& one : small_packets()) {
        result += one;
    }
    return result;
}

// Everything that the reader says.
struct recorder : trace_listener {
    void on_counters(std::uint32_t /*sequence*/, const std::vector<counter_description>& all) override {
        counters = all;
    }
    void on_sample(std::uint32_t /*sequence*/, const counter_sample& one) override { samples.push_back(one); }
    void on_unreadable(const unreadable_part& part) override { unreadable.push_back(part); }

    std::vector<counter_description> counters;
    std::vector<counter_sample> samples;
    std::vector<unreadable_part> unreadable;
    std::uint64_t packets = 0;
};

recorder record(const std::string& bytes) {
    recorder result;
    std::istringstream file(bytes);
    result.packets = read_trace(file, result);
    return result;
}

struct run_result {
    int status;
    std::string output;  // and what it complains of behind it
};

run_result run_report(std::vector<std::string> arguments, const std::string& trace) {
    const temporary_folder folder;
    std::ofstream(folder.file("t.trace"), std::ios::binary) << trace;
    arguments.push_back(folder.file("t.trace"));
    const test_support::tool_result result = test_support::run_tool(COUNTERFEED_REPORT, arguments);
    std::string output = result.out + result.err;
    for (std::size_t at = 0; (at = output.find(arguments.back())) != std::string::npos;) {
        output.replace(at, arguments.back().size(), "TRACE");
    }
    return {result.status, output};
}

TEST(Report, ShowsWhatATraceHolds) {
    // A GPU of the catalogue, with all operands of the first ratio and the divisor of the second: a quarter
    // of its cycles is active, and neither of the samples' ratios.
    const std::string known = descriptor(counter_spec(6, "GPU active cycles", 0, true) +
                                         counter_spec(65535, "GPU cycles", 0, false) +
                                         counter_spec(0x10000, "GPU utilization", 37, false) +
                                         counter_spec(0x10002, "Fragment queue utilization", 37, true)) +
                              sample(1'000'000'000, {{6, 400}, {65535, 4000}, {0x10000, 10}, {0x10002, 50}}) +
                              sample(1'001'000'000, {{6, 900}, {65535, 1000}, {0x10000, 90}, {0x10002, 100}});
    const std::string estimate = "~ a weighted mean of samples: the trace lacks what this ratio is made of\n";
    const std::string both = two_counters + sample(5, {{4, 1}}) +
                             descriptor(counter_spec(4, "B", 0, true) + counter_spec(9, "B", 0, true), 8) +
                             sample(1'000'000'004, {{4, 2}, {9, 6}, {70, 3}}, 8);
    const std::string none_between =
        "counterfeed-report: TRACE has samples of GPU counters, but none between --from and --to\n";
    const struct {
        std::vector<std::string> arguments;
        std::string trace;
        int status;
        std::string output;
    } cases[] = {
        {{},
         known,
         0,
         "4 counters; 2 samples over 0.001 s, one every 1.000 ms; amounts are per second\n\n"
         " counter                    unit   mean    min    p50    p95    p99    max\n"
         "Job manager\n"
         " GPU utilization            %        26     10     10     90     90     90\n"
         " Fragment queue utilization %    ~84.62     50     50    100    100    100\n"
         " GPU active cycles          k/s     650    400    400    900    900    900\n"
         "GPU\n"
         " GPU cycles                 M/s   2.500      1      1      4      4      4\n" +
             estimate +
             "\nWhat limits this\n"
             " The GPU is idle for half of the time or more, so the limit lies outside of it: \"GPU "
             "utilization\"\n   is 26 %. Hardware name: HW_NAME.\n"
             " The fragment queue is the busiest: \"Fragment queue utilization\" is 84.62 %. Hardware name:\n"
             "   HW_NAME.\n"},
        {{"--amounts=total", "-m", "gpu", "--match=nothing"},
         known,
         0,
         "3 counters; 2 samples over 0.001 s, one every 1.000 ms; amounts are totals\n\n"
         " counter           unit  total\n"
         "Job manager\n"
         " GPU utilization   %        26\n"
         " GPU active cycles k     1.300\n"
         "GPU\n"
         " GPU cycles        k         5\n"},
        // Names that are not the catalogue's.
        {{"--amounts=sample"},
         small_trace(),
         0,
         "2 counters; 3 samples over 0.002 s, one every 1.000 ms; amounts are per sample\n\n"
         " counter              unit   mean    min    p50    p95    p99    max\n"
         "Other\n"
         " Sent \"messages\", all k     333.3  3e-04  0.003  999.4  999.4   1000\n"
         " Use <of> it          %    ~37.50      0  12.50    100    100    100\n" +
             estimate},
        // The config asks for counters by id and by name, packed or not; two of them are nowhere described.
        {{"--amounts=total", "-m", "sent"},
         packet(nested(
             33, nested(2, nested(1, text(1, "gpu.counters") +
                                         nested(108, number(2, 4) + text(2, "\x04\x09") +
                                                         text(6, "Use <of> it") + text(6, "Absent")))))) +
             small_trace(),
         0,
         "1 counter; 3 samples over 0.002 s, one every 1.000 ms; amounts are totals\n\n"
         " counter              unit  total\nOther\n Sent \"messages\", all M     1.000\n"
         "counterfeed-report: TRACE: the counter with id 9 was asked for, and the GPU that was recorded does "
         "not have it\n"
         "counterfeed-report: TRACE: the counter \"Absent\" was asked for, and the GPU that was recorded "
         "does not have it\n"},
        {{"--csv"},
         small_trace(),
         0,
         "time_s,time_ns,\"Sent \"\"messages\"\", all\",Use <of> it\n"
         "0.000000000,1000000000,1000000,12.5\n0.001000000,1001000000,3,0\n0.002000000,1002000000,0.25,"
         "100\n"},
        {{"-c"},
         // A time out of order is put in order, one that is a minute off between others is damaged.
         two_counters + sample(1'002'000'000, {{4, 0.25}}) + sample(90'000'000'000, {{4, 7}}) +
             sample(1'001'000'000, {{4, 3}, {0x10003, 0}}) + sample(1'002'000'000, {{0x10003, 100}}) +
             sample(1'000'000'000, {{4, 1e6}, {0x10003, 12.5}}),
         1,
         "time_s,time_ns,\"Sent \"\"messages\"\", all\",Use <of> it\n"
         "0.000000000,1000000000,1000000,12.5\n0.001000000,1001000000,3,0\n0.002000000,1002000000,0.25,"
         "100\n"
         "counterfeed-report: TRACE: 1 sample is left out: its time is damaged\n"},
        {{"--csv", "--amounts=second", "-m", "sent"},
         small_trace(),
         0,
         "time_s,time_ns,\"Sent \"\"messages\"\", all\"\n"
         "0.000000000,1000000000,\n0.001000000,1001000000,3000\n0.002000000,1002000000,250\n"},
        {{"--csv=long", "--amounts=total", "-m", "sent", "--from=0.001"},
         small_trace(),
         0,
         "time_s,time_ns,id,counter,unit,value\n"
         "0.001000000,1001000000,4,\"Sent \"\"messages\"\", all\",,3\n"
         "0.002000000,1002000000,4,\"Sent \"\"messages\"\", all\",,3.25\n"},
        {{"--csv=long", "--from=0.001", "--to=0.001"},
         small_trace(),
         0,
         "time_s,time_ns,id,counter,unit,value\n"
         "0.001000000,1001000000,4,\"Sent \"\"messages\"\", all\",,3\n"
         "0.001000000,1001000000,65539,Use <of> it,percent,0\n"},
        // Two sequences, one with a counter that nobody described, each with counters that the other lacks.
        {{"--csv"},
         both,
         0,
         "time_s,time_ns,sequence,\"Sent \"\"messages\"\", all\",B (4),B (9),counter 70\n"
         "0.000000000,5,7,1,,,\n0.999999999,1000000004,8,,2,6,3\n"},
        {{"-q"}, "not a trace at all", 2, "counterfeed-report: TRACE is not a trace\n"},
        {{"--csv"}, "", 2, "counterfeed-report: TRACE is not a trace\n"},
        {{"--html"}, two_counters, 2, "counterfeed-report: TRACE has no samples of GPU counters\n"},
        {{"--csv", "-m", "absent"},
         small_trace(),
         2,
         "counterfeed-report: TRACE has no counter of that name\n"},
        {{"-m", "absent"}, small_trace(), 2, "counterfeed-report: TRACE has no counter of that name\n"},
        {{"--csv", "--from=100"}, small_trace(), 2, none_between},
        {{"--from=0.0011", "--to=0.0019"}, small_trace(), 2, none_between},
    };
    for (const auto& c : cases) {
        const run_result result = run_report(c.arguments, c.trace);
        EXPECT_EQ(result.status, c.status) << result.output;
        EXPECT_EQ(result.output, c.output);
    }
    const std::pair<std::vector<std::string>, std::string> wrong_usage[] = {
        {{"--from=2", "--to=1"}, "--from lies behind --to"},
        {{"--html", "--csv"}, "there is one output: the summary, one form of --csv, --json, or --html"},
        {{"--bins=3.5"}, "--bins is a whole number from 2 to 65536, not \"3.5\""},
        {{"--amounts=week"}, "--amounts is sample, second or total, not \"week\""},
        {{"--to=1s"}, "--to is a number of seconds, not \"1s\""},
        {{"--from=-1"}, "--from is a number of seconds, not \"-1\""},
        {{"--fail-if=x = 5"}, "a limit is NAME, > or <, and a number or percentage, not \"x = 5\""},
        {{"--charts=often"}, "--charts is auto, always or never, not \"often\""},
        {{"--csv=tall"}, "the form of --csv is wide or long, not \"tall\""},
        {{"--after=x"}, "--before, --after and --fail-if belong to --compare"},
        {{"--compare"}, "a comparison is of two traces"},
        {{"--compare", "x", "y"}, "more traces of a side are given with --before and --after"},
        {{"x"}, "one trace at a time"},
    };
    for (const auto& [arguments, message] : wrong_usage) {
        const run_result result = run_report(arguments, "");
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.output, "counterfeed-report: " + message + "\nTry 'counterfeed-report --help'.\n");
    }
    const std::string trace = small_trace();
    const run_result cut = run_report({"--csv"}, trace.substr(0, trace.size() - 1));
    EXPECT_EQ(cut.status, 1);
    EXPECT_NE(cut.output.find(",3,0\n"), std::string::npos) << cut.output;
    EXPECT_NE(cut.output.find("the file ends inside a packet of"), std::string::npos) << cut.output;
}

TEST(Report, ReadsStandardInput) {
    const temporary_folder folder;
    std::ofstream(folder.file("t"), std::ios::binary) << small_trace();
    const auto output_of = [](const std::string& before, const std::string& after) {
        const std::string command = before + COUNTERFEED_REPORT " -c - " + after;
        const auto result = test_support::run_tool("/bin/sh", {"-c", command});
        return result.out + result.err;
    };
    const std::string whole = run_report({"-c"}, small_trace()).output;
    EXPECT_EQ(output_of("cat " + folder.file("t") + " | ", ""), whole);
    EXPECT_EQ(output_of("", "<" + folder.file("t")), whole);
    EXPECT_EQ(output_of("", "<."), "counterfeed-report: can't read standard input: Is a directory\n");
}

// There are charts, headings that stand out and, while a trace is read, how far it is. The clock of this one
// stands still, which must not make the reading longer.
TEST(Report, KnowsATerminal) {
    const temporary_folder folder;
    const std::string one = sample(1'000'000'000, {{4, 1}, {0x10003, 100}});
    std::string trace = two_counters;
    while (trace.size() < 40'000'000) {
        trace += one;
    }
    std::ofstream(folder.file("t"), std::ios::binary) << trace << sample(1'001'000'000, {{4, 1}});
    const auto shown = [&folder](const std::string& settings) {
        return test_support::shown_on_terminal(settings + " " COUNTERFEED_REPORT " " + folder.file("t"), 100);
    };
    const std::string rich = shown("env -u NO_COLOR LC_ALL=C.UTF-8 TERM=xterm");
    for (const char* part :
         {"\rReading: ", " % of 40 MB\x1b[K", "\r\x1b[K2 counters", "\x1b[1mOther\x1b[0m", "\u2588"}) {
        EXPECT_NE(rich.find(part), std::string::npos) << part;
    }
    const std::string plain = shown("LC_ALL=C TERM=dumb COLUMNS=90");
    EXPECT_NE(plain.find("#\r\n"), std::string::npos) << plain;
    EXPECT_EQ(plain.find("\x1b[1m"), std::string::npos) << plain;
}

// A gate of a build farm: the counter that rose fails it, and what JSON says is what the terminal says.
TEST(Report, ComparesTwoTraces) {
    const temporary_folder folder;
    for (const bool is_after : {false, true}) {
        std::string trace = descriptor(counter_spec(6, "GPU active cycles", 0, true) +
                                       counter_spec(7, "GPU interrupt pending cycles", 0, true) +
                                       (is_after ? counter_spec(8, "Fragment jobs", 0, true)
                                                 : counter_spec(9, "Fragment tasks", 0, true)));
        for (std::uint64_t i = 0; i < (is_after ? 150 : 400); ++i) {
            const auto value = static_cast<double>(i * 37 % 101);
            trace +=
                sample((i + (is_after ? 9'000 : 0)) * 1'000'000,
                       {{6, (1000 + value) * (is_after ? 1.1 : 1)}, {7, 500 - value}, {is_after ? 8 : 9, 2}});
        }
        std::ofstream(folder.file(is_after ? "after" : "before"), std::ios::binary) << trace;
    }
    const auto compare = [&folder](const std::vector<std::string>& options) {
        std::vector<std::string> arguments = {"--compare", folder.file("before"), folder.file("after")};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return test_support::run_tool(COUNTERFEED_REPORT, arguments);
    };
    const auto result = compare({"--fail-if", "gpu active > +5%", "--fail-if", "interrupt > 5%"});
    EXPECT_EQ(result.status, 3) << result.err;
    const std::string head =
        "2 counters compared, 1 changed by more than chance (level 5 % over all of them together); amounts "
        "are per second\n\n";
    const std::string lists = "Only before: Fragment tasks\nOnly after: Fragment jobs\n";
    EXPECT_EQ(result.out, head +
                              " counter           unit before  after   change       95 % interval\n"
                              " GPU active cycles M/s   1.050  1.155    +10 %     +9.6 % .. +10 %\n" +
                              lists + "Failed: gpu active > +5%: \"GPU active cycles\" changed by +10 %\n");
    EXPECT_EQ(compare({"--all"}).out,
              head +
                  " counter                      unit before  after   change       95 % interval\n"
                  " GPU active cycles            M/s   1.050  1.155    +10 %     +9.6 % .. +10 %\n"
                  " GPU interrupt pending cycles k/s   450.1  450.3  +0.0 %?    -0.8 % .. +0.8 %\n"
                  "? may be chance\n" +
                  lists);
    EXPECT_EQ(compare({"--fail-if", "gpu active > +15%"}).status, 0);
    EXPECT_EQ(compare({"--fail-if", "absent > +15%"}).status, 2);
    EXPECT_EQ(compare({"--csv"}).status, 2);
    EXPECT_EQ(compare({"-o", folder.file("before")}).err,
              "counterfeed-report: " + folder.file("before") + " is the trace itself\n");
    const auto json = nlohmann::json::parse(compare({"--json"}).out);
    // The page of both says the same, in steps of one length, and has the samples of both.
    const std::string page = compare({"--html", "--bins=64"}).out;
    const std::size_t data = page.find("{\"file\":");
    const auto held = nlohmann::json::parse(page.substr(data, page.find("</script>", data) - data));
    EXPECT_EQ(held["comparison"], nlohmann::json::parse(compare({"--json", "--bins=64"}).out));
    EXPECT_EQ(held["file"], "before \u2192 after");
    EXPECT_EQ(held["sequences"].size(), 2U);
    for (const std::size_t side : {0U, 1U}) {
        const auto& shown = held["sequences"][side];
        EXPECT_EQ(shown["file"], side == 0 ? "before" : "after");
        EXPECT_EQ(shown["samples"], side == 0 ? 400 : 150);
        EXPECT_EQ(shown["samplesPerBin"], 8);
        EXPECT_EQ(shown["first"], 0);
        std::string members;
        for (const auto& each : shown["counters"][0].items()) {
            members += each.key() + ' ';
        }
        EXPECT_EQ(members,
                  "block count description id kind max maxs mean means min mins name p50 p95 p99 seconds "
                  "selected total unit value weighting ");
        EXPECT_NE(page.find("level-" + std::to_string(side) + "-0-0"), std::string::npos);
        EXPECT_NE(page.find("level-" + std::to_string(side) + "-t-0"), std::string::npos);
    }
    EXPECT_EQ(json["counters"].size(), 2U);
    EXPECT_NEAR(json["counters"][0]["changePercent"].get<double>(), 9.978, 1e-3);
    EXPECT_EQ(json["counters"][0]["changed"], true);
    EXPECT_EQ(json["counters"][1]["changed"], false);
    const auto summary =
        nlohmann::json::parse(test_support::run_tool(COUNTERFEED_REPORT, {"-j", folder.file("before")}).out);
    EXPECT_EQ(summary["version"], 1);
    const auto& counter = summary["sequences"][0]["counters"][0];
    EXPECT_EQ(counter["count"], 400);
    EXPECT_NEAR(counter["perSecond"].get<double>() / counter["perSample"].get<double>(), 1000, 1e-6);
    EXPECT_EQ(counter["value"], counter["perSecond"]);
    EXPECT_EQ(counter["kind"], "amount");
    EXPECT_EQ(summary["sequences"][0]["counters"][1].dump(),
              R"({"block":"Job manager","count":400,"id":7,"kind":"amount","max":499999.9999999999,)"
              R"("min":399999.9999999999,"name":"GPU interrupt pending cycles","p50":449999.9999999999,)"
              R"("p95":494999.9999999999,"p99":498999.9999999999,"perSample":450.09000000000003,)"
              R"("perSecond":450089.99999999994,"selected":true,"shownUnit":"per second","total":180036.0,)"
              R"("unit":"","value":450089.99999999994,"weighting":"exact"})");
    auto sequence = summary["sequences"][0];
    sequence.erase("counters");
    EXPECT_EQ(sequence.dump(),
              R"({"firstNs":0,"gpu":0,"gpuName":"","known":true,"lastNs":399000000,"limits":[],"number":7,)"
              R"("periodSeconds":0.001,"samples":400})");
}

// An event of the frame timeline, on CLOCK_MONOTONIC, which is a second ahead of the samples' clock.
std::string frame_event(std::uint64_t time, unsigned field, const std::string& content) {
    return packet(number(58, 3) + number(8, time + 1'000'000'000) + nested(76, nested(field, content)), 9);
}

std::string app_frame(unsigned number_of_it, std::uint64_t begin, std::uint64_t end, unsigned jank = 1,
                      const std::string& layer = "Scene", const std::string& more = {}) {
    return frame_event(
               begin, 4,
               number(1, number_of_it) + number(2, number_of_it) + text(5, layer) + number(9, jank) + more) +
           frame_event(end, 5, number(1, number_of_it));
}

// Samples belong to the frame that they end in, ratios come from its sums, and the longest frames are told
// from the others by what their counters come to.
TEST(Report, SumsUpEachFrame) {
    const auto clock = [](unsigned id, std::uint64_t time) {
        return nested(1, number(1, id) + number(2, time));
    };
    std::string trace = packet(nested(6, clock(5, 1) + clock(3, 1'000'000'001)), 1);
    std::string specs;
    std::map<std::string, std::uint32_t> ids;
    for (const auto& row : qel::vexa::hwc::counter_tables.front()) {
        specs += counter_spec(row.id, row.name, row.numerator_units, row.select_by_default);
        ids[row.name] = row.id;
    }
    trace += descriptor(specs);
    constexpr std::uint64_t ms = 1'000'000;
    // Twenty frames of 4 ms, one of them longer and busier: of its samples the first one rests.
    for (std::uint64_t i = 0; i < 100; ++i) {
        const bool is_busy = i >= 40 && i < 50;
        const double cycles = is_busy ? 3000 : 1000;
        // One ratio lacks its divisor, and is averaged.
        trace +=
            sample((i + 1) * ms, {{ids.at("GPU active cycles"), cycles},
                                  {ids.at("GPU utilization"), 40},
                                  {ids.at("Fragment queue active cycles"), is_busy && i > 40 ? cycles : 0},
                                  {ids.at("Fragment queue utilization"), is_busy && i > 40 ? 100 : 0}});
    }
    for (unsigned i = 0; i < 20; ++i) {
        const std::uint64_t begin = i < 10 ? i * 4 * ms : (50 + (i - 10) * 4) * ms;
        trace += app_frame(i + 1, begin, begin + 4 * ms - 1);
    }
    trace += app_frame(21, 40 * ms, 50 * ms, 64);
    const auto csv = run_report({"--by-frame", "--csv", "--amounts=total"}, trace);
    EXPECT_EQ(csv.status, 0);
    EXPECT_NE(csv.output.find("\nScene,11,21,0.039,40000000,10,,64,0,10,40,90,30000,27000\n"),
              std::string::npos)
        << csv.output;
    EXPECT_NE(csv.output.find("\nScene,1,1,-0.001,0,3.999999,,1,0,3,40,0,3000,0\n"), std::string::npos);
    const auto json = nlohmann::json::parse(run_report({"--by-frame=Sce", "-j"}, trace).output);
    EXPECT_EQ(json["frames"].size(), 21U);
    EXPECT_EQ(json["layers"][0]["longest"][0], 11);
    EXPECT_EQ(json["layers"][0]["longest"].size(), 10U);
    std::map<std::string, double> longest;
    for (const auto& each : json["layers"][0]["common"]) {
        longest[each["name"]] = each["longest"];
        EXPECT_GT(each["longest"], each["others"]);
    }
    // 30000 + 9 * 3 * 1000 cycles in 37 ms.
    EXPECT_NEAR(longest["GPU active cycles"], 57000 / 0.037, 1);
    EXPECT_NEAR(longest["Fragment queue utilization"], 27000.0 / 57000 * 100, 1e-9);
    EXPECT_NE(run_report({"--by-frame"}, trace).output.find("the application's deadline"), std::string::npos);
    EXPECT_NE(run_report({}, trace).output.find("Scene: 21 frames, 1 late, the longest 10.00 ms"),
              std::string::npos);
    EXPECT_EQ(nlohmann::json::parse(run_report({"-j"}, trace).output)["frames"].dump(),
              R"([{"frames":21,"late":1,"layer":"Scene","longestMs":10.0}])");
    EXPECT_EQ(run_report({"--by-frame=other"}, trace).status, 2);
    EXPECT_EQ(run_report({"--by-frame", "--html"}, trace).status, 2);
    // More than a page shows: the brief ones' list is whole all the same.
    for (unsigned i = 1; i <= 12; ++i) {
        trace += app_frame(i + 100, i * ms - 1000, i * ms, 1, "Brief");
    }
    for (unsigned i = 0; i < 65'536; ++i) {
        trace += app_frame(i + 1000, 200 * ms + i * 10'000, 200 * ms + i * 10'000 + 9'000);
    }
    const std::string page = run_report({"--html"}, trace).output;
    EXPECT_NE(page.find("shows the 65536 longest of 65569 frames"), std::string::npos);
    std::size_t brief = 0;
    for (std::size_t at = 0; (at = page.find(",0,1,1,0", at)) != std::string::npos; ++at) {
        ++brief;
    }
    EXPECT_EQ(brief, 10U);
}

// Each form of a line for each frame, to the letter: two layers, a frame that was late, one that was dropped,
// one without samples, and two counters of one name.
TEST(Report, ShowsFramesInEachForm) {
    constexpr std::uint64_t ms = 1'000'000;
    std::string trace =
        packet(nested(6, nested(1, number(1, 5) + number(2, 1)) +
                             nested(1, number(1, 3) + number(2, 1'000'000'001))),
               1) +
        descriptor(counter_spec(4, "Reads, all", 7, true) + counter_spec(5, "Reads, all", 7, true) +
                   counter_spec(6, "Load", 37, true));
    for (unsigned i = 1; i <= 12; ++i) {
        trace += sample(i * ms,
                        i == 7 ? std::vector<std::pair<unsigned, double>>{{4, 7e6}}
                               : std::vector<std::pair<unsigned, double>>{{4, i * 1e6}, {5, 2}, {6, i * 5}});
    }
    trace += frame_event(0, 3, number(1, 501) + number(2, 1) + text(5, "Scene")) +
             frame_event(3 * ms, 5, number(1, 501)) + app_frame(1, 0, 3 * ms + 1) +
             app_frame(2, 3 * ms + 1, 7 * ms, 64) +
             app_frame(3, 7 * ms, 8 * ms, 1, "A layer with a long name", number(6, 4)) +
             app_frame(4, 8 * ms + 1, 8 * ms + 5) + app_frame(5, 8 * ms + 5, 12 * ms, 2 + 16);
    const auto shown = [&trace](std::vector<std::string> options) {
        options.insert(options.begin(), "--by-frame");
        return run_report(options, trace).output;
    };
    EXPECT_EQ(
        shown({}),
        R"(Scene: 4 frames, 2 late, the longest 4.00 ms; A layer with a long name: 1 frames, 1 late, the longest 1.00 ms
  a  Reads, all, GB/s
  b  Reads, all, kB/s
  c  Load, %

layer                  frame   start s       ms late       a       b       c
Scene                      1   -0.0010     3.00        2.000   1.818   9.839
Scene                      2    0.0020     4.00 late   5.500   1.818      25
A layer with a long        1    0.0060     1.00 lost       8   1.818      40
Scene                      3    0.0070     0.00            -       -       -
Scene                      4    0.0070     4.00 late   10.50   1.818   52.50

Longest frames of Scene
      2    0.0020     4.00  the application's deadline
      4    0.0070     4.00  scheduling of the compositor, the compositor's CPU deadline
      1   -0.0010     3.00  on time
      3    0.0070     0.00  on time

Longest frames of A layer with a long name
      1    0.0060     1.00  dropped
)");
    EXPECT_EQ(
        shown({"--csv", "--amounts=total"}),
        R"csv(layer,frame,token,start_s,start_ns,duration_ms,expected_ms,jank,dropped,samples,"Reads, all (4)","Reads, all (5)",Load
Scene,1,1,-0.001,0,3.000001,3,1,0,3,6000000,6,9.838709677419354
Scene,2,2,0.002000001,3000001,3.999999,,64,0,4,22000000,6,25
A layer with a long name,1,3,0.006,7000000,1,,1,1,1,8000000,2,40
Scene,3,4,0.007000001,8000001,4e-06,,1,0,0,,,
Scene,4,5,0.007000005,8000005,3.999995,,18,0,4,42000000,8,52.5
)csv");
    const std::string json = shown({"--json", "--amounts=sample", "-m", "load"});
    EXPECT_EQ(
        json.substr(0, json.find("\n{\"layer\":\"A ")),
        R"({"version":1,"file":"t.trace","sequence":7,"gpu":0,"amounts":"sample","counters":[{"id":6,"name":"Load","block":"Other","kind":"ratio","unit":"percent","shownUnit":"percent"}],"frames":[
{"layer":"Scene","frame":1,"token":1,"startSeconds":-0.001,"startNs":0,"durationMs":3.000001,"expectedMs":3.0,"jank":1,"jankText":"on time","late":false,"dropped":false,"samples":3,"values":[9.838709677419354]},
{"layer":"Scene","frame":2,"token":2,"startSeconds":0.002000001,"startNs":3000001,"durationMs":3.999999,"expectedMs":null,"jank":64,"jankText":"the application's deadline","late":true,"dropped":false,"samples":4,"values":[25.0]},)");
}

// A full disk must not look like a short table.
TEST(Report, TellsWhenTheResultCanNotBeWritten) {
    EXPECT_EQ(run_report({"--csv", "-o", "/dev/full"}, small_trace()).status, 2);
    EXPECT_EQ(run_report({"--html", "-o", "/nonexistent/x"}, small_trace()).status, 2);
    EXPECT_EQ(test_support::run_tool(COUNTERFEED_REPORT, {"--help"}, "/dev/null", "/dev/full").status, 2);
    EXPECT_EQ(test_support::run_tool(COUNTERFEED_REPORT, {"--offered", "/nonexistent"}).err,
              "counterfeed-report: can't read /nonexistent: No such file or directory\n");
    EXPECT_EQ(test_support::run_tool(COUNTERFEED_REPORT, {"--offered", "/dev/null"}).err,
              "counterfeed-report: no GPU counters are offered in /dev/null\n");
    EXPECT_EQ(test_support::run_tool(COUNTERFEED_REPORT, {"/nonexistent"}).status, 2);
    EXPECT_NE(test_support::shown_on_terminal(COUNTERFEED_REPORT " --html x", 80).find("with --output FILE"),
              std::string::npos);
}

TEST(TraceReader, GivesAllThatIsWholeOfACutTrace) {
    const std::string trace = small_trace();
    std::vector<std::size_t> ends = {0};
    for (const std::string& one : small_packets()) {
        ends.push_back(ends.back() + one.size());
    }
    for (std::size_t size = 0; size < trace.size(); ++size) {
        const recorder result = record(trace.substr(0, size));
        const auto next = std::upper_bound(ends.begin(), ends.end(), size);
        const auto whole = static_cast<std::size_t>(next - ends.begin() - 1);
        const std::uint64_t samples[] = {0, 0, 0, 1, 1, 2};
        ASSERT_EQ(result.packets, whole) << size;
        ASSERT_EQ(result.samples.size(), samples[whole]) << size;
        ASSERT_EQ(result.unreadable.size(), size == ends[whole] ? 0U : 1U) << size;
        for (const unreadable_part& part : result.unreadable) {
            ASSERT_EQ(part.offset, ends[whole]);
            ASSERT_EQ(part.offset + part.size, size);
        }
    }
}

// Any one byte of a packet wrong: the packets around it are read all the same, and what is passed over lies
// within the damaged one.
TEST(TraceReader, ReadsOnBehindDamage) {
    const std::string before = small_trace();
    const std::string damaged = sample(1'003'000'000, {{4, 1}, {0x10003, 2}});
    const std::string after = sample(1'004'000'000, {{4, 5}}) + sample(1'005'000'000, {{4, 6}});
    std::size_t reports = 0;
    for (std::size_t i = 0; i < damaged.size(); ++i) {
        // Each change of the tag and the length; of the rest each bit, which is a change of any kind of byte.
        for (unsigned change = 1; change < 256; change += i < 4 ? 1 : change) {
            std::string wrong = damaged;
            wrong[i] = static_cast<char>(wrong[i] ^ static_cast<char>(change));
            const recorder result = record(before + wrong + after);
            ASSERT_GE(result.samples.size(), 5U) << i << " ^ " << change;
            EXPECT_EQ(result.samples[2].timestamp, 1'002'000'000U);
            EXPECT_EQ(result.samples[result.samples.size() - 2].values[0].value, 5.0) << i << " ^ " << change;
            EXPECT_EQ(result.samples.back().values[0].value, 6.0);
            for (const unreadable_part& part : result.unreadable) {
                ++reports;
                EXPECT_GE(part.offset, before.size());
                EXPECT_LE(part.offset + part.size, before.size() + damaged.size());
            }
        }
    }
    EXPECT_GT(reports, 500U);  // the rest changes a number and nothing else
    // Bytes without a packet, and a piece torn out of the middle.
    EXPECT_EQ(record(before + std::string(100'000, '\x0a') + after).samples.size(), 5U);
    EXPECT_EQ(record(before.substr(0, before.size() - 20) + after).samples.size(), 4U);
}

TEST(TraceReader, TextsCanNotActWhereTheyAreShown) {
    const std::string name = "a\x1b[2Jb\n\xc2\x9b\xff\xc3\xa9\xed\xa0\x80\xf0\x9f\x98";
    const recorder result = record(descriptor(nested(1, text(2, name))));
    ASSERT_EQ(result.counters.size(), 1U);
    EXPECT_EQ(result.counters[0].id, 0U) << "what a message lacks is 0";
    const std::string bad = "\xef\xbf\xbd";
    EXPECT_EQ(result.counters[0].name,
              "a" + bad + "[2Jb " + bad + bad + bad + "\xc3\xa9" + bad + bad + bad + bad + bad + bad);
}

#ifdef COUNTERFEED_ZLIB
// In zlib's format or, with 16 more window bits, in gzip's.
std::string deflated(const std::string& bytes, int window_bits) {
    z_stream stream{};
    deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, window_bits, 8, Z_DEFAULT_STRATEGY);
    std::string result(deflateBound(&stream, static_cast<uLong>(bytes.size())), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef*>(result.data());
    stream.avail_out = static_cast<uInt>(result.size());
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    result.resize(result.size() - stream.avail_out);
    deflateEnd(&stream);
    return result;
}
#endif

TEST(TraceReader, CompressedPacketsAndFiles) {
    const std::string trace = small_trace();
    // More than one piece of the reader's, and of what is unpacked.
    std::string many = two_counters;
    for (std::uint64_t i = 0; i < 60'000; ++i) {
        many += sample(i, {{4, 1.0}, {0x10003, 2.0}});
    }
    std::vector<std::string> long_ones{many};
    std::vector<std::string> whole;
    std::vector<std::string> broken;
#ifdef COUNTERFEED_ZLIB
    std::string block = deflated(trace, MAX_WBITS);
    whole.push_back(packet(text(50, block)));
    block.back() = static_cast<char>(block.back() ^ 1);
    broken.push_back(packet(text(50, block)));
    const std::string file = deflated(trace, MAX_WBITS + 16);
    whole.push_back(file);
    whole.push_back(deflated(trace.substr(0, 50), MAX_WBITS + 16) +
                    deflated(trace.substr(50), MAX_WBITS + 16));
    broken.push_back(file.substr(0, 40));
    broken.push_back(packet(text(50, deflated(trace.substr(0, trace.size() - 1), MAX_WBITS))));
    broken.push_back(packet(text(50, deflated(two_counters + "\x0a\xff", MAX_WBITS))));
    long_ones.push_back(deflated(many, MAX_WBITS + 16));
    long_ones.push_back(packet(text(50, deflated(many, MAX_WBITS))));
#endif
#ifdef COUNTERFEED_ZSTD
    const auto framed = [](const std::string& bytes) {
        std::string frame(ZSTD_compressBound(bytes.size()), '\0');
        frame.resize(ZSTD_compress(frame.data(), frame.size(), bytes.data(), bytes.size(), 1));
        return frame;
    };
    long_ones.push_back(packet(text(133, framed(many))));
    const std::string frame = framed(trace);
    whole.push_back(packet(text(133, frame)));
    broken.push_back(packet(text(133, frame.substr(0, frame.size() - 1))));
    broken.push_back(packet(text(133, std::string("xyz"))));
#endif
    for (const std::string& bytes : long_ones) {
        EXPECT_EQ(record(bytes).samples.size(), 60'000U);
        EXPECT_EQ(record(bytes).samples.back().timestamp, 59'999U);
    }
    for (const std::string& bytes : whole) {
        const recorder result = record(bytes);
        EXPECT_EQ(result.samples.size(), 3U);
        EXPECT_EQ(result.unreadable.size(), 0U);
    }
    for (const std::string& bytes : broken) {
        const recorder result = record(bytes);
        EXPECT_LT(result.samples.size(), 3U);
        EXPECT_FALSE(result.unreadable.empty());
    }
}

// What other producers write: descriptions by reference, several GPUs, groups, units of all kinds, and the
// samples of each counter in packets of their own, one counter's after the other's.
TEST(Report, ShowsOtherGpusAsTheirs) {
    const auto spec = [](unsigned id, const std::string& name, const std::string& more) {
        return nested(1, number(1, id) + text(2, name) + more);
    };
    const std::string specs = spec(4, "Triangles", number(7, 27) + number(8, 22) + number(10, 4)) +
                              spec(6, "GPU active cycles", number(7, 13) + number(10, 4)) +
                              spec(7, "Reads", text(7, "\x07") + number(10, 5)) +
                              spec(8, "Heat", number(7, 34)) +
                              nested(6, number(1, 5) + text(2, "Memory & bus")) +
                              nested(6, number(1, 9) + text(2, "Board") + number(4, 8));
    const auto event = [](std::uint64_t time, const std::string& content, const std::string& more = {}) {
        return packet(number(8, time) + more + nested(52, content));
    };
    const auto value = [](unsigned id, unsigned whole) {
        return nested(2, number(1, id) + number(2, whole));
    };
    const std::string interned = nested(
        12, nested(47, number(1, 3) + nested(2, nested(1, number(1, 9) + text(2, "Other"))) + number(3, 1)));
    std::string trace = packet(nested(128, nested(1, text(1, "First")) + nested(1, text(1, "Second"))), 1) +
                        event(1, nested(1, specs) + number(3, 0)) +
                        event(0, number(4, 3), interned + number(13, 1));
    for (const unsigned id : {4U, 6U, 7U, 8U, 9U}) {
        for (const unsigned i : {1U, 2U, 4U}) {
            const unsigned scale = id == 8 ? 10'000 : 1;  // its unit has no thousands
            trace +=
                event(i * 1'000'000'000, value(id, id * i * scale) + (id == 9 && i == 4 ? number(4, 3) : ""));
        }
    }
    // The mean of what is no amount is over the time for which each value stood, the first for as long as the
    // next.
    const std::string head = " counter           unit    mean    min    p50    p95    p99    max\n";
    const run_result result = run_report({}, trace);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(
        result.output,
        "Sequence 7, GPU 0, First: 4 counters; 3 samples over 3.000 s, one every 1500.000 ms; amounts are "
        "per second\n\n" +
            head +
            "Primitives\n"
            " Triangles         tri/s     11      4      8     16     16     16\n"
            " GPU active cycles Hz     16.50      6     12     24     24     24\n"
            "Memory & bus\n"
            " Reads             B/s    10.89  4.667  9.333  18.67  18.67  18.67\n"
            "Board\n"
            " Heat              °C    220000  80000 159744 319488 319488 320000\n"
            "\nSequence 7, GPU 1, Second: 1 counter; 3 samples over 3.000 s, one every 1500.000 ms; amounts "
            "are per second\n\n"
            " counter unit   mean    min    p50    p95    p99    max\n"
            "Other\n"
            " Other   /s       14      6     12     24     24     24\n");
    // One packet with values of both.
    const std::string csv =
        run_report({"--csv"}, trace + event(8'000'000'000, value(4, 1) + value(9, 2))).output;
    EXPECT_EQ(csv.substr(csv.find("\n7.000000000,") + 1),
              "7.000000000,8000000000,0,1,,,,\n0.000000000,1000000000,1,,,,,9\n"
              "1.000000000,2000000000,1,,,,,18\n3.000000000,4000000000,1,,,,,36\n"
              "7.000000000,8000000000,1,,,,,2\n");
}

// An application's frames, on a clock that was set once, and more of the display's than are kept.
TEST(Frames, StandOnTheClockOfSamples) {
    constexpr std::size_t most = 4096;
    frame_collector collector(most);
    for (const auto& [own, raw] : {std::pair(100U, 1100U), {200U, 1250U}}) {
        collector.on_clocks(nested(1, number(1, 6) + number(2, own)) +
                            nested(1, number(1, 5) + number(2, raw)));
    }
    auto add = [&collector, cookie = 0U](std::uint64_t start, std::uint64_t end, std::uint32_t clock,
                                         unsigned kind, const std::string& content) mutable {
        collector.on_timeline_event(start, clock, nested(kind, number(1, ++cookie) + content));
        collector.on_timeline_event(end, clock, nested(5, number(1, cookie)));
    };
    const std::string layer = number(2, 7) + text(5, "layer");
    add(90, 140, 6, 3, layer);
    add(95, 210, 6, 4, layer + number(6, 1) + number(9, 64));
    add(220, 231, 6, 4, number(2, 7) + text(5, "other") + number(6, 4));
    add(230, 220, 6, 4, layer);      // ends before it begins
    add(1, 21, 9, 2, number(2, 1));  // no snapshot has this clock
    for (std::size_t i = 0; i < 2 * most - 3; ++i) {
        const std::size_t start = 10'000 + 10 * i;
        add(start, start + (i > 1 && i % 2 == 1 ? 5 : 1), 5, 2, number(2, i) + number(7, 2));
    }
    const std::vector<frame> frames = collector.finish();
    EXPECT_EQ(collector.left_out(), most + 1);
    ASSERT_EQ(frames.size(), most - 1);
    using row = std::tuple<std::uint64_t, std::uint64_t, std::uint64_t, std::int64_t, std::string,
                           std::uint32_t, bool>;
    const auto shown = [&frames](std::size_t i) {
        const frame& f = frames[i];
        return row(f.start, f.end, f.expected_end, f.token, f.layer, f.jank, f.is_dropped);
    };
    EXPECT_EQ(shown(0), row(1095, 1260, 1140, 7, "layer", 64, false));
    EXPECT_EQ(shown(1), row(1270, 1281, 0, 7, "other", 0, true));
    for (std::size_t i = 2; i < most - 1; ++i) {
        ASSERT_EQ(shown(i), row(9'990 + 20 * i, 9'995 + 20 * i, 0, 2 * i - 1, "", 2, false));
    }
}

// What the compositor says of buffers is told out of order, and counts as long as there is no timeline.
TEST(Frames, OfOlderDevicesComeFromTheirBuffers) {
    enum : unsigned { dequeue = 1, queue = 2, present = 8, cancel = 13 };
    const auto mark = [](std::uint64_t time, unsigned type, unsigned buffer, unsigned number_of_frame) {
        return packet(number(58, 5) + number(8, time) +
                          nested(57, nested(1, number(1, number_of_frame) + number(2, type) + text(3, "app") +
                                                   number(5, buffer))),
                      9);
    };
    std::string trace = descriptor(counter_spec(4, "Triangles", 27, true)) + sample(20, {{4, 2}}) +
                        sample(40, {{4, 4}}) + sample(60, {{4, 8}});
    trace += mark(5, present, 1, 1);  // began before the trace
    trace += mark(10, dequeue, 1, 0) + mark(12, queue, 1, 2) + mark(20, dequeue, 2, 0);
    trace += mark(40, dequeue, 1, 0) + mark(42, dequeue, 1, 0) + mark(43, cancel, 1, 0);
    trace += mark(30, present, 1, 2) + mark(21, cancel, 2, 0) + mark(45, present, 2, 3);
    trace += mark(60, present, 1, 4);
    const auto frames = [](const std::string& of) {
        const auto json =
            nlohmann::json::parse(run_report({"--by-frame", "--json", "--amounts=total"}, of).output);
        std::string result;
        for (const auto& one : json["frames"]) {
            result += one["layer"].get<std::string>() + " " + one["startNs"].dump() + " " +
                      one["token"].dump() + " " + one["jankText"].get<std::string>() + " " +
                      one["values"].dump() + "\n";
        }
        return result;
    };
    EXPECT_EQ(frames(trace), "app 10 2 not judged [2.0]\napp 40 4 not judged [8.0]\n");
    trace += packet(nested(6, nested(1, number(1, 5) + number(2, 1)) +
                                  nested(1, number(1, 3) + number(2, 1'000'000'001))),
                    1);
    trace += mark(70, dequeue, 1, 0) + app_frame(9, 30, 40) + mark(80, present, 1, 5);
    EXPECT_EQ(frames(trace), "Scene 30 9 on time [4.0]\n");
}

// However many samples there are, the bins are few, and together they are the samples.
TEST(Summary, BinsHoldEverySampleOnce) {
    for (const std::uint64_t count : {1U, 15U, 16U, 17U, 1000U, 4096U}) {
        trace_summary summary(16, {});
        summary.on_counters(7, {unknown_counter(4), unknown_counter(70), unknown_counter(71)});
        double sum = 0;
        for (std::uint64_t i = 0; i < count; ++i) {
            const double value = static_cast<double>(i * 37 % 101);
            sum += value;
            // The second counter comes late, and once without a value that is a number; the third ends early.
            counter_sample one{i * 10, {{4, value}}};
            if (i >= count / 2) {
                one.values.push_back({70, i == count - 1 ? NAN : -1.0});
            }
            if (i < 3) {
                one.values.push_back({71, 5});
            }
            summary.on_sample(7, one);
            if (i == 8) {
                summary.on_sample(7, {~std::uint64_t{0}, {{4, 1e9}}});  // a time that is off
            }
        }
        // So late that all others are taken: it finds its bin all the same.
        constexpr std::uint64_t late = 15;
        if (count == 4096) {
            summary.on_sample(7, {count * 10, std::vector<counter_value>(70'000, {72, 1})});
            summary.on_sample(7, {late, {{4, 2000}}});
            sum += 2000;
        }
        const sequence_summary& result = summary.finish().at({7, 0});
        EXPECT_EQ(summary.left_out(), count > 8 ? 1U : 0U);
        EXPECT_EQ(result.samples, count + (count == 4096 ? 2 : 0));
        EXPECT_EQ(result.last(), (count - (count == 4096 ? 0 : 1)) * 10);
        EXPECT_LE(result.bin_times.size(), 16U);
        EXPECT_GT(result.bin_times.size() * 2, std::min<std::uint64_t>(count, 16));
        EXPECT_TRUE(std::is_sorted(result.bin_times.begin(), result.bin_times.end()));
        const counter_series& first = *result.find(4);
        value_range all;
        for (const value_range& bin : first.bins) {
            all.add(bin);
        }
        EXPECT_EQ(first.bins[0].most >= 2000, count == 4096);
        EXPECT_EQ(all.sum, sum);
        EXPECT_EQ(first.total.sum, sum);
        EXPECT_EQ(all.least, first.total.least);
        EXPECT_EQ(all.most, first.total.most);
        EXPECT_EQ(all.count, count + (count == 4096 ? 1 : 0));
        EXPECT_EQ(result.find(70)->total.count, count - count / 2 - 1);
        EXPECT_EQ(result.find(71)->total.sum, 5.0 * static_cast<double>(std::min<std::uint64_t>(count, 3)));
        EXPECT_EQ(result.value(*result.find(71), 0, 1), result.find(71)->bins[0].sum);
    }
}

// Percentiles of values of all sizes and both signs keep to their bound.
TEST(Summary, PercentilesAreNearTheExactOnes) {
    value_histogram histogram;
    std::vector<double> values;
    std::uint64_t state = 1;
    for (int i = 0; i < 20'000; ++i) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        const double fraction = static_cast<double>(state >> 40) / 0x1p24;
        values.push_back(std::ldexp(i % 5 == 0 ? -fraction : fraction, i % 60 - 20) * (i % 7 == 0 ? 0 : 1));
        histogram.add(values.back());
    }
    std::sort(values.begin(), values.end());
    for (const double share : {0.0, 0.01, 0.1, 0.2, 0.3, 0.5, 0.95, 0.99, 1.0}) {
        const auto rank = static_cast<std::size_t>(std::max(std::ceil(share * 20'000), 1.0));
        const double exact = values[rank - 1];
        EXPECT_NEAR(histogram.percentile(share), exact, std::fabs(exact) * value_histogram::largest_error);
    }
}

// All derived counters of all tables over many samples are what the library's evaluators make of one sample
// that is the sum of them all; and without the operands, ratios over a known divisor come out the same.
TEST(Summary, RatiosAreThoseOfTheSums) {
    namespace hwc = qel::vexa::hwc;
    constexpr unsigned cores = 0b1011;
    constexpr unsigned slices = 2;
    std::size_t compared = 0;
    for (const hwc::counter_table& table : hwc::counter_tables) {
        hwc::profiler profiler(hand_made_gpu(table, cores, slices), 5);
        std::vector<counter_description> counters;
        for (const hwc::vexa_counter_descriptor& row : table) {
            counter_description& counter = counters.emplace_back();
            counter.id = row.id;
            counter.name = row.name;
            counter.numerator_units = {row.numerator_units};
            counter.denominator_units = {row.denominator_units};
        }
        trace_summary whole(8, {});
        whole.on_counters(1, counters);
        std::vector<std::uint32_t> sum(profiler.words_read());
        std::uint64_t cycles = 0;
        std::uint64_t state = 7;
        for (std::uint64_t i = 0; i < 100; ++i) {
            std::vector<std::uint32_t> words(sum.size());
            for (std::size_t at = 0; at < words.size(); ++at) {
                state = state * 6364136223846793005U + 1442695040888963407U;
                words[at] = i % 4 == 0 ? 0 : static_cast<std::uint32_t>(state >> (40 + at % 8));
                sum[at] += words[at];
            }
            profiler.gpu_cycles = 1000 * i;
            cycles += profiler.gpu_cycles;
            counter_sample all{1'000'000 * i, {}};
            for (const counter_description& counter : counters) {
                all.values.push_back(
                    {counter.id, hwc::reported_value(profiler, words.data(), *table.find(counter.id))});
            }
            whole.on_sample(1, all);
        }
        profiler.gpu_cycles = cycles;
        const sequence_summary& result = whole.finish().at({1, 0});
        for (const counter_description& counter : counters) {
            const counter_series& series = *result.find(counter.id);
            const double expected = hwc::reported_value(profiler, sum.data(), *table.find(counter.id));
            EXPECT_EQ(series.weighed, weighting::exact) << counter.name;
            EXPECT_NEAR(result.value(series).value(), expected, std::fabs(expected) * 1e-9) << counter.name;
            ++compared;
        }
    }
    EXPECT_GT(compared, 2000U);
}

TEST(Terminal, FitsItsWidthAndStaysPlain) {
    trace_summary summary(64, {});
    counter_description counter = unknown_counter(4);
    counter.name =
        "A name that is much longer than what there is room for \u00e9\u00e9\u00e9 WithAWordThatIsNotBroken";
    summary.on_counters(7, {counter});
    for (unsigned i = 0; i < 64; ++i) {
        summary.on_sample(7, {i, {{4, i < 32 ? 0.0 : 700.0}}});
    }
    const auto& sequences = summary.finish();
    const auto length = [](const std::string& line) {
        return std::count_if(line.begin(), line.end(), [](char c) { return (c & 0xc0) != 0x80; });
    };
    for (const std::size_t width : {20U, 40U, 60U, 80U, 100U, 300U}) {
        std::ostringstream blocks;
        write_summary(blocks, sequences, {.width = width, .charts = chart_style::blocks});
        std::string words;
        std::istringstream lines(blocks.str());
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(length(line), static_cast<std::ptrdiff_t>(width)) << line;
            words += line;
        }
        words.erase(std::remove(words.begin(), words.end(), ' '), words.end());
        EXPECT_NE(words.find("350"), std::string::npos);
        EXPECT_NE(words.find("Broken"), std::string::npos) << blocks.str();
        EXPECT_EQ(blocks.str().find("\u2581\u2581") != std::string::npos, width >= 100) << blocks.str();
        EXPECT_EQ(blocks.str().find("p99") != std::string::npos, width >= 80);
    }
    std::ostringstream ascii;
    write_summary(ascii, sequences, {.width = 120, .charts = chart_style::ascii});
    EXPECT_NE(ascii.str().find("__##"), std::string::npos) << ascii.str();
}

std::string decode_base64(const std::string& text) {
    const std::string digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string result;
    std::size_t bits = 0;
    for (std::size_t i = 0, word = 0; i < text.size() && text[i] != '='; ++i) {
        word = word << 6 | digits.find(text[i]);
        bits += 6;
        if (bits >= 8) {
            result += static_cast<char>(word >> (bits -= 8));
        }
    }
    return result;
}

// The texts of a page's levels by their ids; of each the runs' kinds and numbers, those that stand for
// nothing as not-a-number.
struct level_run {
    char kind;
    std::vector<double> numbers;
};
template <typename Number>
std::vector<double> unshuffled(const std::string& bytes) {
    const std::size_t count = (bytes.size() - 1) / sizeof(Number);
    std::vector<double> result;
    for (std::size_t i = 0; i < count; ++i) {
        std::string one;
        for (std::size_t byte = 0; byte < sizeof(Number); ++byte) {
            one += bytes[1 + byte * count + i];
        }
        Number number;
        std::memcpy(&number, one.data(), sizeof number);
        const bool is_none = std::is_integral_v<Number> && number == std::numeric_limits<Number>::min();
        result.push_back(is_none ? NAN : static_cast<double>(number));
    }
    return result;
}
std::map<std::string, std::vector<level_run>> unpacked(const std::string& elements) {
    std::map<std::string, std::vector<level_run>> result;
    std::istringstream lines(elements);
    std::vector<level_run>* runs = nullptr;
    for (std::string line; std::getline(lines, line);) {
        if (const std::size_t begin = line.find("level-"); begin != std::string::npos) {
            const std::size_t end = line.find("\">");
            runs = &result[line.substr(begin + 6, end - begin - 6)];
            line.erase(0, end + 2);
        }
        if (line == "</script>") {
            continue;
        }
        EXPECT_EQ(line.size() % 4, 0U);
        std::string bytes = decode_base64(line);
#ifdef COUNTERFEED_ZLIB
        uLongf size = 100'000;
        std::string whole(size, '\0');
        EXPECT_EQ(
            ::uncompress(reinterpret_cast<Bytef*>(whole.data()), &size,
                         reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uLong>(bytes.size())),
            Z_OK);
        bytes = whole.substr(0, size);
#endif
        runs->push_back({bytes[0], bytes[0] == 'i'   ? unshuffled<std::int32_t>(bytes)
                                   : bytes[0] == 'f' ? unshuffled<float>(bytes)
                                                     : unshuffled<double>(bytes)});
    }
    return result;
}

// In each level every sample is where it belongs, and where there is not room for all, the finest levels go
// first.
TEST(Page, LevelsHoldEverySample) {
    constexpr std::size_t count = 20'000;
    constexpr std::size_t counters = 5;
    constexpr std::uint64_t origin = 900;
    const auto time_of = [](std::size_t i) { return 1000 + 10 * i + i % 3; };
    // Whole numbers with gaps; fractions; what only doubles hold; what floats hold as well; what never
    // changes.
    const auto value_of = [](std::size_t counter, std::size_t i) {
        const auto number = static_cast<double>(i * 37 % 1009);
        const double values[counters] = {i % 5 == 0 || i / 16 % 7 == 3 ? NAN
                                         : i == 3001                   ? 2147483647.0
                                                                       : -number,
                                         number / 10, i % 2048 == 70 ? 1e300 : 3e9 + number,
                                         i % 2 == 0 ? 2147483648.0 : -2147483648.0, 7};
        return values[counter];
    };
    const auto read_into = [&](ordered_listener& target) {
        for (std::size_t i = 0; i < count; ++i) {
            counter_sample sample{time_of(i), {}};
            for (unsigned counter = 0; counter < counters; ++counter) {
                sample.values.push_back({counter, value_of(counter, i)});
            }
            target.on_sample(7, sample);
        }
    };
    trace_summary summary(16, {});
    std::vector<counter_description> descriptions;
    for (unsigned counter = 0; counter < counters; ++counter) {
        descriptions.push_back(unknown_counter(counter));
        descriptions.back().select_by_default = counter == 1;
    }
    summary.on_counters(7, descriptions);
    read_into(summary);
    const auto& sequences = summary.finish();
    const auto texts_of = [&](std::size_t limit) {
        page_levels levels(sequences, {}, origin, limit, 5);
        read_into(levels);
        levels.finish();
        std::ostringstream out;
        levels.write(out);
        return out.str();
    };
    const std::string whole = texts_of(10'000'000);
    const auto texts = unpacked(whole);
    EXPECT_EQ(texts.size(), 3 * (counters - 1 + 1)) << "the last counter is in the overview";
    std::size_t step = 1;
    for (std::size_t level = 0; level < 3; ++level, step *= 16) {
        const std::size_t run = level == 0 ? 2048 : 1024;
        for (std::size_t counter = 0; counter < counters; ++counter) {
            const bool is_time = counter == counters - 1;
            const auto& runs =
                texts.at("5-" + (is_time ? "t" : std::to_string(counter)) + "-" + std::to_string(level));
            ASSERT_EQ(runs.size(), (count + step * run - 1) / (step * run));
            for (std::size_t at = 0; at < runs.size(); ++at) {
                const std::size_t end = std::min((at + 1) * run * step, count);
                std::vector<double> least, most, mean;
                if (is_time) {
                    least.push_back(at == 0 ? 0 : static_cast<double>(time_of(at * run * step - 1) - origin));
                }
                for (std::size_t i = at * run * step; i < end; i += step) {
                    const std::size_t behind = std::min(i + step, end);
                    if (is_time) {
                        const std::uint64_t before = i == 0 ? origin : time_of(i - 1);
                        least.push_back(static_cast<double>(time_of(behind - 1) - before));
                        continue;
                    }
                    value_range range;
                    for (std::size_t each = i; each < behind; ++each) {
                        if (!std::isnan(value_of(counter, each))) {
                            range.add(value_of(counter, each));
                        }
                    }
                    const bool is_none = range.count == 0;
                    const auto shown = [&](double value) {
                        constexpr double limit = std::numeric_limits<float>::max();
                        return is_none                ? NAN
                               : runs[at].kind == 'f' ? static_cast<float>(std::clamp(value, -limit, limit))
                                                      : value;
                    };
                    least.push_back(shown(range.least));
                    most.push_back(shown(range.most));
                    mean.push_back(shown(range.mean()));
                }
                EXPECT_EQ(runs[at].kind, is_time ? 'd' : level == 0 ? "ifdf"[counter] : 'f');
                if (level != 0) {
                    least.insert(least.end(), most.begin(), most.end());
                    least.insert(least.end(), mean.begin(), mean.end());
                }
                EXPECT_TRUE(
                    std::equal(least.begin(), least.end(), runs[at].numbers.begin(), runs[at].numbers.end(),
                               [](double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }))
                    << "counter " << counter << " level " << level << " run " << at;
            }
        }
    }
    for (const std::size_t percent : {90U, 50U, 20U}) {
        const std::string some = texts_of(whole.size() * percent / 100);
        const auto kept = unpacked(some);
        EXPECT_LT(some.size(), whole.size() * percent / 100);
        std::size_t last_lost = 0, first_kept = 10;
        for (std::size_t level = 0; level < 3; ++level) {
            for (std::size_t counter = 0; counter < counters - 1; ++counter) {
                const std::size_t rank = 2 * level + (counter == 1 ? 1 : 0);
                if (kept.contains("5-" + std::to_string(counter) + "-" + std::to_string(level))) {
                    first_kept = std::min(first_kept, rank);
                } else {
                    last_lost = std::max(last_lost, rank);
                }
            }
        }
        EXPECT_LE(last_lost, first_kept) << percent;
        EXPECT_LT(first_kept, 10U);
        EXPECT_EQ(kept.contains("5-t-0"), first_kept < 2);
    }
}

TEST(Page, HoldsTheDataAndNothingFromElsewhere) {
    // The other counter's name has quotes, as real descriptions do.
    const run_result all = run_report({"--html"}, small_trace());
    EXPECT_NE(all.output.find("\"name\":\"Sent \\\"messages\\\", all\","), std::string::npos);
    const run_result result = run_report({"--html", "--match=use"}, small_trace());
    ASSERT_EQ(result.status, 0);
    const std::string& page = result.output;
    const std::string opening = "<script type=\"application/json\" id=\"trace\">";
    const std::size_t begin = page.find(opening) + opening.size();
    const std::string data = page.substr(begin, page.find("</script>", begin) - begin);
    const auto member = [&data](const std::string& name) {
        const std::size_t at = data.find("\"" + name + "\":") + name.size() + 3;
        return data.substr(at, data.find_first_of(data[at] == '"' ? "\"" : ",}", at + 1) - at);
    };
    EXPECT_EQ(member("name"), "\"Use \\u003cof> it");
    EXPECT_EQ(member("file"), "\"t.trace");
    EXPECT_EQ(member("origin"), "\"1000000000");
    EXPECT_EQ(member("block"), "\"Other");
    EXPECT_EQ(member("unit"), "\"percent");
    EXPECT_EQ(member("mean"), "37.5");
    const std::string times = decode_base64(member("times").substr(1));
    const std::string means = decode_base64(member("means").substr(1));
    ASSERT_EQ(times.size(), 3 * sizeof(double));
    ASSERT_EQ(means.size(), 3 * sizeof(float));
    const double expected_times[] = {0, 0.001, 0.002};
    const float expected_means[] = {12.5, 0, 100};
    EXPECT_EQ(std::memcmp(times.data(), expected_times, times.size()), 0);
    EXPECT_EQ(std::memcmp(means.data(), expected_means, means.size()), 0);
    for (const char* loading : {"http:", "https:", "src=", "@import", "url(", "fetch(", "XMLHttp", "<link"}) {
        EXPECT_EQ(page.find(loading), std::string::npos) << loading;
    }
    EXPECT_NE(page.find("drawSeries"), std::string::npos);
    EXPECT_NE(page.find("--shader-core:"), std::string::npos);
    EXPECT_NE(page.rfind("</html>\n"), std::string::npos);
}

}  // namespace
