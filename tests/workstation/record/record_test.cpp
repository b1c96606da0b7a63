// counterfeed-record and what counterfeed-counters says of a device, with the real tracing service: the
// virtual GPU behind the launcher, and a producer of another make.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <perfetto.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "tests/support/tool.h"
#include "tests/support/tracing_service.h"
#include "workstation/report/trace_file.h"

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)
using nlohmann::json;
using test_support::eventually;
using test_support::process;
using test_support::read_file;
using test_support::run_tool;
using testing::HasSubstr;
using arguments = std::vector<std::string>;

const arguments three_names{"GPU active cycles", "fragment utilization", "Output external read bytes"};

// A GPU of another make: three counters, of which the second is not selected by default.
class foreign_source : public perfetto::DataSource<foreign_source> {
public:
    static constexpr const char* names[] = {"Shader \"busy\" time", "Walks", "Bytes fetched"};

    static std::string descriptor() {
        perfetto::protos::gen::GpuCounterDescriptor result;
        for (std::uint32_t id = 0; id < 3; ++id) {
            auto* const spec = result.add_specs();
            spec->set_counter_id(id + 10);
            spec->set_name(names[id]);
            spec->set_select_by_default(id != 1);
            spec->add_numerator_units(perfetto::protos::gen::GpuCounterDescriptor_MeasureUnit_BYTE);
            spec->add_denominator_units(perfetto::protos::gen::GpuCounterDescriptor_MeasureUnit_SECOND);
        }
        return result.SerializeAsString();
    }
    void OnSetup(const SetupArgs& setup) override { asked_ = setup.config->gpu_counter_config_raw(); }
    void OnStart(const StartArgs& /*start*/) override {
        perfetto::protos::gen::GpuCounterConfig config;
        config.ParseFromString(asked_);
        Trace([&](TraceContext context) {
            auto packet = context.NewTracePacket();
            packet->set_timestamp(1);
            auto* const event = packet->set_gpu_counter_event();
            auto* const described = event->set_counter_descriptor();
            for (const std::uint32_t id : config.counter_ids()) {
                auto* const spec = described->add_specs();
                spec->set_counter_id(id);
                spec->set_name(names[id - 10]);
            }
            for (const std::uint32_t id : config.counter_ids()) {
                auto* const value = event->add_counters();
                value->set_counter_id(id);
                value->set_int_value(7);
            }
            packet->Finalize();
            context.Flush();
        });
    }
    void OnStop(const StopArgs& /*stop*/) override {}

private:
    std::string asked_;
};

}  // namespace

PERFETTO_DECLARE_DATA_SOURCE_STATIC_MEMBERS(foreign_source);
PERFETTO_DEFINE_DATA_SOURCE_STATIC_MEMBERS(foreign_source);

namespace {

// A service, and a stand-in for adb that runs the same commands here: the device's folder for traces is
// another.
class Record : public testing::Test {
protected:
    Record() {
        const std::string adb = service.folder.file("adb");
        std::ofstream(adb) << R"sh(#!/bin/sh
# adb [-s SERIAL] shell -T LINE | pull THERE HERE
[ "$1" = -s ] && shift 2
here() { printf %s "$1" | sed "s,/data/misc/perfetto-traces,)sh"
                           << service.folder.file("device") << R"sh(,g"; }
case $1 in
    shell) [ "$2" = -T ] && [ $# = 3 ] || exit 9; exec sh -c "$(here "$3")" ;;
    pull) cp "$(here "$2")" "$3" ;;
    *) exit 9 ;;
esac
)sh";
        std::filesystem::permissions(adb, std::filesystem::perms::owner_all);
        std::filesystem::create_directory(service.folder.file("device"));
        for (const std::string& each : service.environment()) {
            const std::size_t sign = each.find('=');
            ::setenv(each.substr(0, sign).c_str(), each.c_str() + sign + 1, 1);
        }
        path_ = ::getenv("PATH");
        ::setenv("PATH", (service.folder.file("") + ":" COUNTERFEED_TRACING_SERVICE ":" + path_).c_str(), 1);
    }
    ~Record() override { ::setenv("PATH", path_.c_str(), 1); }

    std::unique_ptr<process> launch(const std::string& gpu) const {
        auto result = std::make_unique<process>(test_support::launcher_setup(
            "id=" + gpu + ",period=10000000", service.folder.file("launcher"), service.environment()));
        EXPECT_TRUE(eventually([this] { return !report::read_offered_counters(service.query()).empty(); }));
        return result;
    }
    std::string trace() const { return service.folder.file("trace"); }
    arguments with_output(arguments more, const arguments& names = {}) const {
        more.insert(more.end(), {"-o", trace(), "-t", "1"});
        more.insert(more.end(), names.begin(), names.end());
        return more;
    }
    // The names of all counters that have values in the trace.
    std::set<std::string> sampled() const {
        std::set<std::string> result;
        const auto sequences = report::read_counters(read_file(trace()));
        for (const auto& [number, sequence] : sequences.value()) {
            for (const auto& counter : sequence.counters) {
                for (const auto& sample : sequence.samples) {
                    for (const auto& value : sample.values) {
                        if (value.id == counter.id) {
                            result.insert(counter.name);
                        }
                    }
                }
            }
        }
        return result;
    }

    const test_support::tracing_service service;

private:
    std::string path_;
};

const std::set<std::string> three{"GPU active cycles", "Fragment utilization", "Output external read bytes"};

TEST_F(Record, NamesBecomeATraceHereAndBehindAdb) {
    for (const char* const gpu : {"0x9002", "0x9004"}) {
        const auto launcher = launch(gpu);
        for (const arguments& where : {arguments{}, arguments{"--serial", "X1"}}) {
            const auto result = run_tool(RECORD, with_output(where, three_names));
            ASSERT_EQ(result.status, 0) << result.err;
            EXPECT_EQ(sampled(), three);
            EXPECT_THAT(result.out, HasSubstr("Fragment utilization"));
            EXPECT_THAT(read_file(service.folder.file("trace.html")), HasSubstr("Fragment utilization"));
            EXPECT_TRUE(std::filesystem::is_empty(service.folder.file("device")));
            EXPECT_EQ(run_tool(RECORD, with_output(where, three_names)).status, 1);  // the trace exists
            std::filesystem::remove(trace());
        }
        EXPECT_EQ(run_tool(RECORD, with_output({"--preset", "memory-bandwidth", "-p", "5"})).status, 0);
        EXPECT_THAT(sampled(), testing::Contains("Output external write bytes"));
        std::filesystem::remove(trace());
        // With its operands each ratio of the report is the expression over their sums.
        EXPECT_EQ(run_tool(RECORD, with_output({"--with-operands", "--preset", "overview"})).status, 0);
        const json exact = json::parse(run_tool(REPORT, {"--json", trace()}).out);
        for (const json& each : exact["sequences"][0]["counters"]) {
            EXPECT_EQ(each["weighting"], "exact") << each;
        }
        std::filesystem::remove(trace());
    }
}

// With a producer of another make, and with no producer and no service.
TEST_F(Record, AnyGpu) {
    EXPECT_THAT(run_tool(RECORD, with_output({}, three_names)).err, HasSubstr("nothing offers GPU counters"));
    perfetto::TracingInitArgs setup;
    setup.backends = perfetto::kSystemBackend;
    perfetto::Tracing::Initialize(setup);
    perfetto::DataSourceDescriptor source;
    source.set_name("gpu.counters");
    source.set_gpu_counter_descriptor_raw(foreign_source::descriptor());
    foreign_source::Register(source);
    ASSERT_TRUE(eventually([this] { return !report::read_offered_counters(service.query()).empty(); }));

    const std::string socket = service.folder.file("consumer");
    const json list = json::parse(run_tool(COUNTERS, {"--device", socket, "--json"}).out);
    ASSERT_EQ(list.size(), 3U);
    for (std::uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(list[i]["id"], i + 10);
        EXPECT_EQ(list[i]["name"], foreign_source::names[i]);
        EXPECT_EQ(list[i]["unit"], "byte/second");
        EXPECT_EQ(list[i]["kind"], "");
    }
    const auto config = run_tool(COUNTERS, {"-i", socket, "--preset", "overview", "--config"}).out;
    EXPECT_THAT(config, HasSubstr("\n      counter_ids: 12  # Bytes fetched\n"));
    EXPECT_THAT(config, HasSubstr("page_size_kb: 32"));
    EXPECT_THAT(config, HasSubstr("\"counter names\\n10 Shader \\\"busy\\\" time\\n12 Bytes fetched\""));

    const auto result = run_tool(RECORD, with_output({}, {"walks", "*fetched", "10"}));
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(sampled(), (std::set<std::string>{"Bytes fetched", "Shader \"busy\" time", "Walks"}));
    EXPECT_THAT(run_tool(RECORD, with_output({}, {"Walk"})).err, HasSubstr("\n  Walks\n"));

    std::filesystem::remove(socket);
    EXPECT_THAT(run_tool(RECORD, with_output({}, {"Walks"})).err, HasSubstr("answers on this machine:\n"));
    EXPECT_THAT(run_tool(RECORD, with_output({"--adb"}, {"Walks"})).err, HasSubstr("on the device:\n"));
}

TEST_F(Record, OffersOfOurGpusAreRecognised) {
    const auto launcher = launch("0x9002");
    const std::string state = service.folder.file("state");
    std::ofstream(state) << service.query();
    const arguments list{"--json"};
    const std::string expected = run_tool(COUNTERS, {"-g", "9", "--json"}).out;
    EXPECT_EQ(run_tool(COUNTERS, {"--device", state, "--json"}).out, expected);
    EXPECT_EQ(run_tool(COUNTERS, {"-i", "-", "--json"}, state).out, expected);
    std::set<std::string> offered;
    for (const json& each : json::parse(expected)) {
        offered.insert(each["id"].dump() + "\t" + each["name"].get<std::string>());
    }
    std::istringstream lines(run_tool(REPORT, {"--offered", state}).out);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_EQ(offered.erase(line), 1U) << line;
    }
    EXPECT_TRUE(offered.empty());
    EXPECT_EQ(run_tool(COUNTERS, {"--device", service.folder.file("adb"), "--json"}).status, 1);
    EXPECT_EQ(std::system(("perfetto --query >" + state).c_str()), 0);
    EXPECT_THAT(run_tool(COUNTERS, {"--device", state}).err, HasSubstr("\"perfetto --query-raw\" prints"));

    // A config for a GPU with other ids, one for this GPU, and one that tells no names.
    const std::string config = service.folder.file("config");
    const auto write_config = [&config](const std::string& gpu) {
        std::ofstream(config) << run_tool(COUNTERS, {"-g", gpu, "--config", "-t", "1", three_names[2]}).out;
    };
    const arguments record{"--config", config, "-o", trace(), "--record-only"};
    write_config("0xa007");
    const auto refused = run_tool(RECORD, record);
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err,
                testing::MatchesRegex(
                    "(.|\n)* is for another GPU:\n  [0-9]+ \"Output external read bytes\" is \".+\" "
                    "on this device, which has the name as [0-9]+\n"));
    EXPECT_FALSE(std::filesystem::exists(trace()));
    write_config("0x9002");
    EXPECT_EQ(run_tool(RECORD, record).status, 0);
    EXPECT_EQ(sampled(), std::set<std::string>{three_names[2]});
    std::ofstream(config) << "data_sources { config { gpu_counter_config { counter_ids: 4000000 } } }";
    EXPECT_THAT(run_tool(RECORD, record).err, HasSubstr("4000000 is no counter of this device"));
}

TEST_F(Record, GpusWithoutSamplesGetASentence) {
    const auto launcher = launch("0xa007");
    const auto result = run_tool(RECORD, with_output({}, three_names));
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("no sample came: the GPU's driver can't be sampled"));
}

// Each kind of end keeps the trace, and a dry run leaves none.
TEST_F(Record, RecordingsEndWhenTold) {
    const auto launcher = launch("0x9002");
    const auto dry = run_tool(RECORD, {"--adb", "--dry-run", "-o", trace(), "GPU_ACTIVE"});
    EXPECT_EQ(dry.status, 0);
    EXPECT_THAT(dry.out, HasSubstr("\nduration_ms: 10000\n"));
    EXPECT_THAT(dry.out, HasSubstr("adb shell -T 'perfetto --query-raw'\n# 1 GPU counter, "));
    EXPECT_THAT(dry.out, HasSubstr("\nadb pull /data/misc/perfetto-traces/trace " + trace() + "\n"));
    EXPECT_THAT(dry.out, HasSubstr("counterfeed-report --html --output " + trace() + ".html"));
    EXPECT_FALSE(std::filesystem::exists(trace()));
    // A long one without a duration ends when it is told to, whatever its period.
    const arguments endless{"--long", "--period", "5", "--dry-run", "GPU_ACTIVE"};
    EXPECT_THAT(run_tool(RECORD, endless).out, Not(HasSubstr("duration_ms")));

    for (const char* const place : {"", "--adb"}) {
        arguments command{RECORD, "-o", trace(), "-t", "0", "-p", "5", "--record-only", "GPU_ACTIVE"};
        if (*place != '\0') {
            command.insert(command.begin() + 1, place);
        }
        process recorder({.command = command,
                          .environment = {},
                          .preload = {},
                          .output = service.folder.file("recorder"),
                          .of_this_build = true});
        const std::string there = *place != '\0' ? service.folder.file("device/trace") : trace();
        EXPECT_TRUE(eventually([&there] {
            std::error_code ec;
            return std::filesystem::file_size(there, ec) > 0 && !ec;
        }));
        ::kill(recorder.id(), SIGINT);
        EXPECT_EQ(recorder.wait(), 0) << read_file(service.folder.file("recorder"));
        EXPECT_EQ(sampled().size(), 1U);
        std::filesystem::remove(trace());
    }

    const auto detached = run_tool(RECORD, {"--adb", "--long", "-o", trace(), "GPU_ACTIVE"});
    EXPECT_EQ(detached.status, 0) << detached.err;
    const std::string file = service.folder.file("device/trace");
    EXPECT_TRUE(eventually([&file] {
        std::error_code ec;
        return std::filesystem::file_size(file, ec) > 0 && !ec;
    }));
    // What it says to type: stop, fetch, remove, look.
    const std::string lines = detached.out.substr(detached.out.find('\n') + 1);
    const std::string stop = lines.substr(0, lines.find('\n'));
    const std::string rest =
        lines.substr(stop.size() + 1, lines.find("counterfeed-report") - stop.size() - 1);
    EXPECT_EQ(std::system(stop.c_str()), 0) << detached.out;
    EXPECT_TRUE(eventually(
        [&] { return std::system(("cp " + file + " " + trace()).c_str()) == 0 && sampled().size() == 1; }));
    EXPECT_EQ(std::system(rest.c_str()), 0) << rest;
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST(RecordOptions, Complaints) {
    const std::pair<arguments, const char*> cases[] = {
        {{}, "say what to record: names, --preset or --config\n"},
        {{"-P", "overview", "GPU_ACTIVE"}, "names, --preset and --config exclude each other\n"},
        {{"-c", "x", "-t", "1"}, "--period and --duration stand in the config\n"},
        {{"-c", "x", "-O"}, "--config says all that is recorded, and goes without --with-operands\n"},
        {{"-t", "1.5", "GPU_ACTIVE"}, "not \"1.5\""},
        {{"--walrus"}, "--walrus"},
    };
    for (const auto& [wrong, message] : cases) {
        const auto result = run_tool(RECORD, wrong);
        EXPECT_EQ(result.status, 2);
        EXPECT_THAT(result.err, HasSubstr(message));
    }
    EXPECT_EQ(run_tool(RECORD, {"--config", "/nonexistent", "--help"}).status, 0);
}

}  // namespace
