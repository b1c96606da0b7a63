// counterfeed-counters, run as a process, and the trace configs that it makes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <perfetto.h>

#include <algorithm>
#include <bit>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <random>
#include <regex>
#include <set>
#include <sstream>

#include "hwc/hwc_names.h"
#include "hwc/profiler.h"
#include "tests/support/tool.h"
#include "tests/support/tracing_service.h"
#include "virtual_gpu/known_gpus.h"

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)
using hwc::saturating_double;
using nlohmann::json;
using test_support::run_tool;
using test_support::tool_result;
using test_support::words_of;
using testing::HasSubstr;
using row = hwc::vexa_counter_descriptor;
using arguments = std::vector<std::string>;

constexpr unsigned product_of_table[] = {0, 1, 2, 5, 6, 7, 3, 4, 10};

tool_result counters(unsigned product, arguments more) {
    more.insert(more.begin(), {"--gpu", std::to_string(product)});
    return run_tool(COUNTERS, more);
}
json list(unsigned product) {
    return json::parse(counters(product, {"--json"}).out);
}
std::vector<std::uint32_t> ids_in(const std::string& config) {
    std::vector<std::uint32_t> result;
    const std::regex line("counter_ids: ([0-9]+)  # .");
    for (std::sregex_iterator match(config.begin(), config.end(), line), end; match != end; ++match) {
        result.push_back(static_cast<std::uint32_t>(std::stoul((*match)[1])));
    }
    return result;
}

std::size_t count_of(const hwc::counter_table& table, bool (*fits)(const row&)) {
    return static_cast<std::size_t>(std::count_if(table.begin(), table.end(), fits));
}

TEST(Counters, EveryFormatHasAllRowsOfEveryProduct) {
    for (const auto& [product, table] : hwc::product_tables) {
        const auto number = static_cast<unsigned>(product);
        const json rows = list(number);
        const auto csv = test_support::read_csv(counters(number, {"-c"}).out);
        std::istringstream lines(counters(number, {}).out);
        std::string line;
        std::getline(lines, line);
        const std::size_t name_column = line.find("name");
        ASSERT_EQ(rows.size(), table.get().size());
        ASSERT_EQ(csv.size(), rows.size() + 1);
        std::set<std::uint32_t> seen;
        for (std::size_t i = 0; i < rows.size(); ++i) {
            const row* expected = table.get().find(rows[i]["id"].get<std::uint32_t>());
            ASSERT_NE(expected, nullptr);
            EXPECT_TRUE(seen.insert(expected->id).second);
            EXPECT_EQ(rows[i]["name"], expected->name);
            EXPECT_EQ(rows[i]["description"], expected->description);
            EXPECT_EQ(rows[i]["dependencies"], json(expected->dependencies));
            EXPECT_EQ(rows[i]["default"], expected->select_by_default);
            EXPECT_EQ(rows[i]["kind"], expected->evaluator != nullptr ? "derived" : "raw");
            ASSERT_EQ(csv[i + 1].size(), csv[0].size());
            EXPECT_EQ(csv[i + 1].front(), std::to_string(expected->id));
            for (std::size_t column = 1; column < csv[0].size(); ++column) {
                const json& value = rows[i][csv[0][column]];
                EXPECT_TRUE(!value.is_string() || csv[i + 1][column] == value) << csv[0][column];
            }
            std::getline(lines, line);
            EXPECT_EQ(line.find(std::string(expected->name) + " "), name_column) << line;
        }
        EXPECT_FALSE(std::getline(lines, line));
    }
}

TEST(Counters, OneCounterIsShownInFullWithoutNeedlessParentheses) {
    EXPECT_THAT(
        counters(2, {"fpk killed quad percentage"}).out,
        testing::StartsWith("FPK killed quad percentage\n"
                            "  id          65570\n"
                            "  unit        percent\n"
                            "  block       shader core\n"
                            "  default     selected\n"
                            "  expression  (FRAG_QUADS_RAST - FRAG_QUADS_EZS_KILL - FRAG_WARPS * 8 * 0.25) "
                            "/ FRAG_QUADS_RAST * 100\n"
                            "  reads         203 FRAG_QUADS_RAST, \"Rasterized quads\"\n"
                            "                206 FRAG_QUADS_EZS_KILL, \"Early ZS killed quads\"\n"
                            "                201 FRAG_WARPS, \"Fragment warps\"\n"
                            "\nThis expression defines the percentage of "));
    EXPECT_THAT(counters(0, {"-D", "GPU utilization", "FRAG_ACTIVE"}).out,
                testing::AllOf(testing::StartsWith("Fragment active cycles\n"
                                                   "  id          196\n"
                                                   "  unit        none\n"
                                                   "  block       shader core\n"
                                                   "  default     not selected\n"
                                                   "  hardware    FRAG_ACTIVE\n\nThis"),
                               HasSubstr(".\n\nGPU utilization\n"),
                               HasSubstr("  GPU_ACTIVE / max(GPU_CYCLES, GPU_ACTIVE) * 100\n")));
}

TEST(Counters, NamesAndFiltersChoose) {
    const auto contains = [](const row& r, const char* word) {
        return ::strcasestr(r.name, word) != nullptr || ::strcasestr(r.description, word) != nullptr;
    };
    const auto in_block = [](const row& r, std::uint32_t block) {
        return (r.dependencies.empty() ? r.id : r.dependencies[0]) / 64 == block;
    };
    const struct {
        const char* options;
        std::function<bool(const row&)> fits;
    } cases[] = {
        {"--default", [](const row& r) { return r.select_by_default; }},
        {"--raw", [](const row& r) { return r.id <= hwc::gpu_cycles_id; }},
        {"-e|-u|NONE",
         [](const row& r) { return r.evaluator != nullptr && r.numerator_units + r.denominator_units == 0; }},
        {"--unit=pixel", [](const row& r) { return r.numerator_units == 26 || r.denominator_units == 26; }},
        {"--block|memory-system", [&](const row& r) { return in_block(r, 2); }},
        {"-b|gpu", [&](const row& r) { return r.dependencies.empty() && r.id / 64 > 3; }},
        {"-b|Tiler|-d", [&](const row& r) { return in_block(r, 1) && r.select_by_default; }},
        {"-s|STALL outstanding",
         [&](const row& r) { return contains(r, "stall") && contains(r, "outstanding"); }},
        {"gpu ACTIVE cycles|0xc4|65536|frag_warps",
         [](const row& r) { return r.id == 6 || r.id == 196 || r.id == 65536 || r.id == 201; }},
        {"FRAG_LZS",  // no name, so a word to be found in one
         [&](const row& r) { return std::strstr(r.description, "Hardware name: FRAG_LZS") != nullptr; }},
        {"Fragment threads*|FRAG_[PQ]*",
         [](const row& r) {
             return std::strstr(r.name, "Fragment threads") == r.name ||
                    std::strstr(r.description, "Hardware name: FRAG_P") != nullptr ||
                    std::strstr(r.description, "Hardware name: FRAG_Q") != nullptr;
         }},
    };
    for (const auto& c : cases) {
        arguments options = words_of(c.options);
        options.insert(options.end(), {"--gpu", "0x19002", "--json"});  // a GPU id with bits that don't count
        std::set<std::uint32_t> expected;
        for (const row& each : hwc::counter_tables[8 - 1]) {
            if (c.fits(each)) {
                expected.insert(each.id);
            }
        }
        std::set<std::uint32_t> chosen;
        for (const json& each : json::parse(run_tool(COUNTERS, options).out, nullptr, false)) {
            chosen.insert(each["id"].get<std::uint32_t>());
        }
        EXPECT_FALSE(expected.empty()) << c.options;
        EXPECT_EQ(chosen, expected) << c.options;
    }
}

// The trace has in it the config that the service understood.
TEST(Counters, ServiceTakesConfigs) {
    namespace pbzero = perfetto::protos::pbzero;
    const std::string config = counters(9, {"-C", "-d", "--period", "3", "--duration", "1"}).out;
    const std::string trace = test_support::tracing_service().record(config);
    std::vector<std::uint32_t> ids;
    protozero::ProtoDecoder file(trace.data(), trace.size());
    for (protozero::Field field = file.ReadField(); field.valid(); field = file.ReadField()) {
        const pbzero::TracePacket::Decoder packet(field.as_bytes());
        if (!packet.has_trace_config()) {
            continue;
        }
        perfetto::protos::gen::TraceConfig understood;
        ASSERT_TRUE(understood.ParseFromArray(packet.trace_config().data, packet.trace_config().size));
        EXPECT_EQ(understood.duration_ms(), 1000U);
        ASSERT_EQ(understood.data_sources().size(), 1U);
        EXPECT_EQ(understood.data_sources()[0].config().name(), "gpu.counters");
        const std::string& bytes = understood.data_sources()[0].config().gpu_counter_config_raw();
        const pbzero::GpuCounterConfig::Decoder gpu(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                                    bytes.size());
        EXPECT_EQ(gpu.counter_period_ns(), 3'000'000U);
        for (auto id = gpu.counter_ids(); id; ++id) {
            ids.push_back(*id);
        }
    }
    EXPECT_EQ(ids.size(),
              count_of(hwc::counter_tables[8 - 1], [](const row& r) { return r.select_by_default; }));
    EXPECT_EQ(ids, ids_in(config));
}

// With operands a config has all that the expressions name, and nothing else.
TEST(Counters, OperandsAreWhatExpressionsName) {
    for (const unsigned product : product_of_table) {
        const json all = list(product);
        std::map<std::string, std::uint32_t> ids;
        for (const json& each : all) {
            ids.emplace(each["expression"], each["id"]);
        }
        for (const char* const block : {"job-manager", "tiler", "memory-system", "shader-core", "gpu"}) {
            const arguments of_block{"--config", "--derived", "--block", block};
            const std::vector<std::uint32_t> plain = ids_in(counters(product, of_block).out);
            std::set<std::uint32_t> expected(plain.begin(), plain.end());
            for (const json& each : all) {
                const std::string text = each["expression"];
                const std::regex word("[A-Z][A-Z0-9_]*");
                for (std::sregex_iterator match(text.begin(), text.end(), word), end; match != end; ++match) {
                    if (std::count(plain.begin(), plain.end(), each["id"]) != 0) {
                        expected.insert(ids.at(match->str()));
                    }
                }
            }
            arguments with = of_block;
            with.emplace_back("--with-operands");
            const tool_result whole = counters(product, with);
            EXPECT_EQ(ids_in(whole.out), std::vector(expected.begin(), expected.end())) << product << block;
            EXPECT_THAT(whole.err, HasSubstr(" " + std::to_string(expected.size()) + " counters instead of " +
                                             std::to_string(plain.size()) + ":"));
        }
    }
}

// The GPUs for which a config says that it is have its counters.
TEST(Counters, ShippedConfigsFitTheirGpus) {
    std::size_t files = 0;
    std::multiset<std::string> gpus;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(TRACE_CONFIGS)) {
        if (entry.path().extension() != ".txtpb") {
            continue;
        }
        const std::string table = entry.path().parent_path().filename();
        const hwc::counter_table& counters = hwc::counter_tables.at(std::stoul(table.substr(6)) - 1);
        const std::string config = test_support::read_file(entry.path());
        for (const std::uint32_t id : ids_in(config)) {
            EXPECT_NE(counters.find(id), nullptr) << entry.path() << " " << id;
        }
        EXPECT_GT(ids_in(config).size(), 20U) << entry.path();
        const std::regex gpu_id("0x[0-9a-f]{4}");
        for (std::sregex_iterator match(config.begin(), config.end(), gpu_id), end; match != end; ++match) {
            std::error_code ec;
            const auto product = hardware::detail::to_product(std::stoul(match->str(), nullptr, 16), ec);
            EXPECT_EQ(&hwc::product_tables.at(product).get(), &counters) << entry.path();
            gpus.insert(match->str());
        }
        ++files;
    }
    EXPECT_EQ(files, 6U * hwc::table_count);
    EXPECT_EQ(gpus.size(), 6U * virtual_gpu::known_gpus.size());
}

TEST(Counters, LinesEndAtTheTerminalsEdge) {
    std::istringstream lines(test_support::shown_on_terminal(COUNTERS " -g 1", 60));
    std::size_t count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        EXPECT_LE(line.size(), 60U + 1) << line;
    }
    EXPECT_EQ(count, 1 + hwc::counter_tables[2 - 1].size());
}

TEST(Counters, GpusAndTextsAreWhole) {
    const json gpus = json::parse(run_tool(COUNTERS, {"--gpus", "--json"}).out);
    ASSERT_EQ(gpus.size(), hwc::product_tables.size());
    std::set<std::string> ids;
    for (const json& each : gpus) {
        const hwc::counter_table& table = hwc::product_tables.at(hardware::product{each["product"]});
        EXPECT_EQ(each["counters"], table.size());
        EXPECT_EQ(&hwc::counter_tables.at(each["table"].get<std::size_t>() - 1), &table);
        ids.insert(each["ids"].begin(), each["ids"].end());
    }
    EXPECT_EQ(ids.size(), virtual_gpu::known_gpus.size());

    const auto check_width = [](const std::string& text) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), 80U) << line;
        }
    };
    const std::string shown = counters(9, {"FPK killed quad percentage"}).out;
    std::string description = shown.substr(shown.find("\n\n") + 2);
    check_width(description);
    EXPECT_GT(std::count(description.begin(), description.end(), '\n'), 3);
    std::replace(description.begin(), description.end(), '\n', ' ');
    const std::string expected =
        json::parse(counters(9, {"-j", "FPK killed quad percentage"}).out)[0]["description"];
    EXPECT_EQ(description, expected + " ");
    const tool_result help = run_tool(COUNTERS, {"-g", "99", "--walrus", "--help"});
    EXPECT_EQ(help.status, 0);
    check_width(help.out.substr(help.out.find("\n\n")));
    EXPECT_THAT(help.out,
                HasSubstr("\nWhat to do with them:\n  -D, --details             show them in full\n"));
}

TEST(Counters, ShellCompletes) {
    const test_support::temporary_folder folder;
    std::ofstream(folder.file("script")) << run_tool(COUNTERS, {"--print-completion", "bash"}).out << R"(
for words in "--bl" "-b sh" "--gpu 0xa00" "--period 1"; do
    COMP_WORDS=(counterfeed-counters $words) COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _counterfeed_counters
    echo "${COMPREPLY[*]}"
done
)";
    const tool_result result = run_tool("/bin/bash", {folder.file("script")});
    EXPECT_EQ(result.out, "--block\nshader-core\n0xa004 0xa003 0xa007 0xa002\n\n") << result.err;
    const std::string zsh = run_tool(COUNTERS, {"--print-completion", "zsh"}).out;
    EXPECT_THAT(zsh, testing::StartsWith("#compdef counterfeed-counters\n\n_arguments -s"));
    EXPECT_THAT(zsh, HasSubstr("\n    '*-b[of this hardware block\\: job-manager, "));
    EXPECT_THAT(zsh, HasSubstr("\n    '*--block[of this hardware block\\: job-manager, "));
    EXPECT_THAT(zsh, HasSubstr("]:BLOCK:(job-manager tiler memory-system shader-core gpu)' \\\n"));
    EXPECT_THAT(
        run_tool(COUNTERS, {"--print-manual"}).out,
        testing::AllOf(
            HasSubstr(".\n.SS What to do with them\n.TP\n.B \\-D, \\-\\-details\nshow them in full.\n"),
            HasSubstr("\\(aqperfetto \\-\\-query\\-raw\\(aq, \\- for standard input")));
}

TEST(Counters, Complaints) {
    const struct {
        const char* words;
        int status;
        const char* message;
    } cases[] = {
        {"-g|9|Fragment utilisation", 1, "\"; the nearest are:\n  Fragment utilization\n"},
        {"-g|9|-C|FRAG_ACTIV", 1, "are:\n  FRAG_ACTIVE\n"},
        {"-g|9|-C|nothing*like*it", 1, "product 9 has no counter \"nothing*like*it\""},
        {"-g|9|-s|walrus", 1, "no counter fits"},
        {"-g|9|-C|xyz", 1, "has no counter \"xyz\"\n"},
        {"-g|99", 2, "\"99\": give a product number from 0 to 13, or a GPU id, masked one of 0x7003 0x7000 "},
        {"-g|0x9005", 2, " 0x9002 0xa004 0xa003 0xa007 0xa002\n"},
        {"-g|9x", 2, "unknown GPU"},
        {"--gpu=", 2, "--gpu"},
        {"--device|/dev/null", 1, "/dev/null holds no state of a tracing service"},
        {"-g|9|-i|/dev/null", 2, "--gpu and --device exclude each other"},
        {"-g|9|-P|walrus", 2, "unknown preset \"walrus\": there are overview, "},
        {"-g|0x1000009002", 2, "unknown GPU"},
        {"FRAG_ACTIVE", 2, "--gpu"},
        {"-g|9|-u|furlong", 2, "unknown unit \"furlong\": there are byte,"},
        {"-g|9|-b|fpga", 2, "unknown block \"fpga\": there are job-manager,"},
        {"-g|9|-C|-p|0", 2, "--period is a whole number from 1 to 1000, not \"0\""},
        {"-g|9|-C|-p|1001", 2, "not \"1001\""},
        {"-g|9|-C|--duration=-1", 2, "not \"-1\""},
        {"-g|9|-t|5", 2, "go with --config"},
        {"-g|9|-O", 2, "go with --config"},
        {"-g|9|-C|-j", 2, "--json"},
        {"-g|9|-j|-c", 2, "--json and --csv exclude each other"},
        {"-g|9|-P|overview|GPU_ACTIVE", 2, "--preset and names exclude each other"},
        {"-g|9|-C|-D", 2, "--details, --config and --gpus exclude each other"},
        {"--gpus|-g|9", 2, "--gpus lists all GPUs, and goes with no choice of a GPU or of counters\n"},
        {"--no-such-option", 2, "--help"},
    };
    for (const auto& c : cases) {
        const tool_result result = run_tool(COUNTERS, words_of(c.words));
        EXPECT_EQ(result.status, c.status) << c.words;
        EXPECT_THAT(result.err, HasSubstr(c.message)) << c.words;
        EXPECT_EQ(result.out, "") << c.words;
    }
    EXPECT_EQ(run_tool(COUNTERS, {"-g", "9"}, "/dev/null", "/dev/full").status, 1);
    EXPECT_EQ(run_tool(COUNTERS, {"--help"}).out.rfind("Usage: counterfeed-counters ", 0), 0U);
    EXPECT_EQ(run_tool(COUNTERS, {"-V"}).out.rfind("counterfeed-counters ", 0), 0U);
}

}  // namespace
