// counterfeed-report on traces written out byte by byte: what it shows, and what it makes of damaged ones.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tests/support/process.h"
#include "tests/support/tool.h"
#include "tests/support/wire.h"
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
    std::string output;  // both streams
};

run_result run_report(std::vector<std::string> arguments, const std::string& trace) {
    const temporary_folder folder;
    std::ofstream(folder.file("t.trace"), std::ios::binary) << trace;
    arguments.insert(arguments.begin(), COUNTERFEED_REPORT);
    arguments.push_back(folder.file("t.trace"));
    const int status = test_support::run({.command = arguments,
                                          .environment = {},
                                          .preload = {},
                                          .output = folder.file("output"),
                                          .of_this_build = true});
    std::string output = test_support::read_file(folder.file("output"));
    for (std::size_t at = 0; (at = output.find(arguments.back())) != std::string::npos;) {
        output.replace(at, arguments.back().size(), "TRACE");
    }
    return {status, output};
}

TEST(Report, ShowsWhatATraceHolds) {
    const std::string both = two_counters + sample(5, {{4, 1}}) +
                             descriptor(counter_spec(4, "B", 0, true), 8) +
                             sample(1'000'000'004, {{4, 2}, {70, 3}}, 8);
    const std::string hint = "Try 'counterfeed-report --help'.\n";
    const std::string none_between =
        "counterfeed-report: TRACE has samples of GPU counters, but none between --from and --to\n";
    const struct {
        std::vector<std::string> arguments;
        std::string trace;
        int status;
        std::string output;
    } cases[] = {
        // Names in the catalogue tell the block of derived counters, others don't.
        {{"-m", "B", "--match=util"},
         descriptor(counter_spec(4, "B", 0, true) + counter_spec(0x10000, "GPU utilization", 37, true) +
                    counter_spec(0x10001, "My utilization", 37, true)) +
             sample(5, {{4, 9999.6}, {0x10000, 25}, {0x10001, -9999.96}}),
         0,
         "3 counters, 3 of them selected by default; 1 sample\n\n"
         " counter         unit      minimum      mean   maximum\n"
         "Job manager\n"
         " GPU utilization percent        25        25        25\n"
         " B                            10 k      10 k      10 k\n"
         "Derived\n"
         " My utilization  percent     -10 k     -10 k     -10 k\n"},
        {{"-mB"},
         descriptor(counter_spec(65535, "B", 0, true)) + sample(5, {{65535, 1e16}}),
         0,
         "1 counter, 1 of them selected by default; 1 sample\n\n"
         " counter unit   minimum      mean   maximum\n"
         "GPU\n"
         " B                1e+16     1e+16     1e+16\n"},
        {{},
         small_trace(),
         0,
         "2 counters, 1 of them selected by default; 3 samples over 0.002 s, one every 1.000 ms\n\n"
         " counter              unit   minimum      mean   maximum\n"
         "Job manager\n"
         " Sent \"messages\", all           0.25   333.3 k       1 M\n"},
        {{"-a", "--match", "use", "--match=nothing"},
         small_trace(),
         0,
         "1 counter, 0 of them selected by default; 3 samples over 0.002 s, one every 1.000 ms\n\n"
         " counter     unit      minimum      mean   maximum\n"
         "Derived\n"
         " Use <of> it percent         0      37.5       100\n"},
        {{"--csv"},
         small_trace(),
         0,
         "time_s,time_ns,\"Sent \"\"messages\"\", all\",Use <of> it\n"
         "0.000000000,1000000000,1000000,12.5\n0.001000000,1001000000,3,0\n0.002000000,1002000000,0.25,"
         "100\n"},
        {{"-c"},
         small_trace() + sample(1, {{4, 7}}),
         1,
         "time_s,time_ns,\"Sent \"\"messages\"\", all\",Use <of> it\n"
         "0.000000000,1000000000,1000000,12.5\n0.001000000,1001000000,3,0\n0.002000000,1002000000,0.25,"
         "100\n"
         "counterfeed-report: TRACE: 1 sample is left out: its time goes back\n"},
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
         "time_s,time_ns,sequence,\"Sent \"\"messages\"\", all\",B,counter 70\n"
         "0.000000000,5,7,1,,\n0.999999999,1000000004,8,,2,3\n"},
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
        {{"--from=2", "--to=1"}, "", 2, "counterfeed-report: --from lies behind --to\n" + hint},
        {{"--html", "--csv"},
         "",
         2,
         "counterfeed-report: there is one output: the summary, one form of --csv, or --html\n" + hint},
        {{"--bins=3.5"},
         "",
         2,
         "counterfeed-report: --bins is a whole number from 2 to 65536, not \"3.5\"\n" + hint},
    };
    for (const auto& c : cases) {
        const run_result result = run_report(c.arguments, c.trace);
        EXPECT_EQ(result.status, c.status) << result.output;
        EXPECT_EQ(result.output, c.output);
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
    const auto output_of = [&folder](const std::string& before, const std::string& after) {
        const std::string command = before + COUNTERFEED_EMULATOR " " COUNTERFEED_REPORT " -c - " + after;
        test_support::run({.command = {"/bin/sh", "-c", command},
                           .environment = {},
                           .preload = {},
                           .output = folder.file("output")});
        return test_support::read_file(folder.file("output"));
    };
    const std::string whole = run_report({"-c"}, small_trace()).output;
    EXPECT_EQ(output_of("cat " + folder.file("t") + " | ", ""), whole);
    EXPECT_EQ(output_of("", "<" + folder.file("t")), whole);
    EXPECT_EQ(output_of("", "<."), "counterfeed-report: can't read standard input: Is a directory\n");
}

// A full disk must not look like a short table.
TEST(Report, TellsWhenTheResultCanNotBeWritten) {
    EXPECT_EQ(run_report({"--csv", "-o", "/dev/full"}, small_trace()).status, 2);
    EXPECT_EQ(run_report({"--html", "-o", "/nonexistent/x"}, small_trace()).status, 2);
    EXPECT_EQ(test_support::run_tool(COUNTERFEED_REPORT, {"--help"}, "/dev/null", "/dev/full").status, 2);
    EXPECT_EQ(test_support::run_tool(COUNTERFEED_REPORT, {"--offered", "/nonexistent"}).err,
              "counterfeed-report: can't read /nonexistent: No such file or directory\n");
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
    const recorder result = record(descriptor(counter_spec(1, name, 0, true)));
    ASSERT_EQ(result.counters.size(), 1U);
    const std::string bad = "\xef\xbf\xbd";
    EXPECT_EQ(result.counters[0].name,
              "a" + bad + "[2Jb " + bad + bad + bad + "\xc3\xa9" + bad + bad + bad + bad + bad + bad);
}

// A stored block of zlib's format, so that nothing is needed to write it.
TEST(TraceReader, CompressedPackets) {
    const std::string trace = small_trace();
    unsigned a = 1;
    unsigned b = 0;
    for (const char c : trace) {
        a = (a + static_cast<unsigned char>(c)) % 65521;
        b = (b + a) % 65521;
    }
    const auto size = static_cast<unsigned>(trace.size());
    std::string block = "\x78\x01\x01";
    for (const unsigned byte : {size, size >> 8U, ~size, ~size >> 8U}) {
        block += static_cast<char>(byte);
    }
    block += trace;
    for (const unsigned byte : {b >> 8U, b, a >> 8U, a}) {
        block += static_cast<char>(byte);
    }
    const recorder whole = record(packet(text(50, block)));
    block.back() = static_cast<char>(block.back() ^ 1);
    const recorder broken = record(packet(text(50, block)));
#ifdef COUNTERFEED_ZLIB
    EXPECT_EQ(whole.samples.size(), 3U);
    EXPECT_EQ(whole.unreadable.size(), 0U);
#else
    EXPECT_EQ(whole.unreadable.size(), 1U);
#endif
    EXPECT_EQ(broken.samples.size(), 0U);
    EXPECT_EQ(broken.unreadable.size(), 1U);
}

// However many samples there are, the bins are few, and together they are the samples.
TEST(Summary, BinsHoldEverySampleOnce) {
    for (const std::uint64_t count : {1U, 15U, 16U, 17U, 1000U, 4096U}) {
        trace_summary summary(16, {});
        summary.on_counters(7, {unknown_counter(4), unknown_counter(70)});
        double sum = 0;
        for (std::uint64_t i = 0; i < count; ++i) {
            const double value = static_cast<double>(i * 37 % 101);
            sum += value;
            // The second counter comes late, and once without a value that is a number.
            counter_sample one{i * 10, {{4, value}}};
            if (i >= count / 2) {
                one.values.push_back({70, i == count - 1 ? NAN : -1.0});
            }
            summary.on_sample(7, one);
            if (i == 8) {
                summary.on_sample(7, {~std::uint64_t{0}, {{4, 1e9}}});  // a time that is off
                summary.on_sample(7, {3, {{4, 1e9}}});
            }
        }
        const sequence_summary& result = summary.finish().at(7);
        EXPECT_EQ(summary.out_of_order(), count > 8 ? 2U : 0U);
        EXPECT_EQ(result.samples, count);
        EXPECT_EQ(result.last(), (count - 1) * 10);
        EXPECT_LE(result.bin_times.size(), 16U);
        EXPECT_GT(result.bin_times.size() * 2, std::min<std::uint64_t>(count, 16));
        EXPECT_TRUE(std::is_sorted(result.bin_times.begin(), result.bin_times.end()));
        ASSERT_EQ(result.series.size(), 2U);
        value_range all;
        for (std::size_t i = 0; i < result.bin_times.size(); ++i) {
            const value_range& bin = result.series[0].bins[i];
            EXPECT_EQ(bin.count, std::min(result.samples_per_bin, count - i * result.samples_per_bin));
            all.add(bin);
        }
        EXPECT_EQ(all.sum, sum);
        EXPECT_EQ(result.series[0].total.sum, sum);
        EXPECT_EQ(all.least, result.series[0].total.least);
        EXPECT_EQ(all.most, result.series[0].total.most);
        EXPECT_EQ(result.series[1].total.count, count - count / 2 - 1);
    }
}

TEST(Terminal, FitsItsWidthAndStaysPlain) {
    trace_summary summary(64, {});
    counter_description counter = unknown_counter(4);
    counter.name = "A name that is much longer than what there is room for \u00e9\u00e9\u00e9";
    summary.on_counters(7, {counter});
    for (unsigned i = 0; i < 64; ++i) {
        summary.on_sample(7, {i, {{4, i < 32 ? 0.0 : 700.0}}});
    }
    const auto& sequences = summary.finish();
    for (const std::size_t width : {60U, 66U, 80U, 100U, 300U}) {
        std::ostringstream blocks;
        write_summary(blocks, sequences, {.width = width, .charts = chart_style::blocks});
        std::istringstream lines(blocks.str().substr(blocks.str().find("\n\n") + 2));
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(std::count_if(line.begin(), line.end(), [](char c) { return (c & 0xc0) != 0x80; }),
                      static_cast<std::ptrdiff_t>(width))
                << line;
        }
        EXPECT_EQ(blocks.str().find("\u2581\u2581") != std::string::npos, width > 62) << blocks.str();
    }
    std::ostringstream ascii;
    write_summary(ascii, sequences, {.width = 80, .charts = chart_style::ascii});
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

TEST(Page, HoldsTheDataAndNothingFromElsewhere) {
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
    EXPECT_EQ(member("block"), "\"Derived");
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
