// The derived counters: cases worked out by hand, and relations between rows that hold whatever the words
// are.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "hwc/hwc_names.h"
#include "hwc/measure_unit.h"
#include "hwc/profiler.h"
#include "tests/hwc/hand_made_gpu.h"

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)

// A sample of one table whose words are set by hardware name: a GPU with two cores and two L2 slices.
class bench {
public:
    explicit bench(unsigned table, std::uint32_t core_mask = 0b101, std::uint32_t l2_slices = 2)
        : bench(hwc::counter_tables[table - 1], core_mask, l2_slices) {}
    explicit bench(const hwc::counter_table& rows, std::uint32_t core_mask = 0b101,
                   std::uint32_t l2_slices = 2)
        : profiler(hand_made_gpu(rows, core_mask, l2_slices), 5),
          words(std::size_t{64} * (2 + l2_slices + 32)) {
        for (const hwc::vexa_counter_descriptor& row : rows) {
            by_name_.emplace(row.name, &row);
            static const std::regex hardware_name("Hardware name: (\\w+)");
            std::cmatch name;
            if (row.id < hwc::gpu_cycles_id && std::regex_search(row.description, name, hardware_name)) {
                ids_.emplace(name[1], row.id);
            }
        }
    }

    // In all of the blocks that hold the counter; so a sum over the slices is twice the value, and a mean is
    // the value.
    void set(const std::string& hardware_name, std::uint32_t value) {
        const std::uint32_t id = ids_.at(hardware_name);
        const std::size_t first = id < 128 ? id / 64 : id < 192 ? 2 : 2 + profiler.l2_slice_count;
        const std::size_t last = id < 128 ? first : id < 192 ? 1 + profiler.l2_slice_count : first + 31;
        for (std::size_t block = first; block <= last; ++block) {
            words[block * 64 + id % 64] = value;
        }
    }
    double operator[](const std::string& name) const { return value(*by_name_.at(name)); }
    bool has(const std::string& name) const { return by_name_.contains(name); }
    double value(const hwc::vexa_counter_descriptor& row) const {
        return profiler.get_value_for_counter(words.data(), row).value();
    }
    const hwc::vexa_counter_descriptor& row(const std::string& name) const { return *by_name_.at(name); }
    std::uint32_t id_of(const std::string& hardware_name) const { return ids_.at(hardware_name); }

    hwc::profiler profiler;
    std::vector<std::uint32_t> words;

private:
    std::map<std::string, const hwc::vexa_counter_descriptor*> by_name_;
    std::map<std::string, std::uint32_t> ids_;
};

// Each line: the table, the words of its hardware counters and the GPU's cycles, a row and its value.
TEST(Derived, WorkedOutByHand) {
    std::istringstream lines(R"(
# A ratio against the larger of two.
1 GPU_ACTIVE=900 cycles=1000: GPU utilization = 90
9 GPU_ACTIVE=900: GPU utilization = 100
9 : GPU utilization = 0
5 GPU_ACTIVE=1200 cycles=1000: GPU utilization = 100
# A ratio without a scale, with a divisor that is scaled.
1 GPU_ACTIVE=1000000 JS0_TASKS=100: Cycles per pixel = 9.765625
1 GPU_ACTIVE=1000000: Cycles per pixel = 0
9 ITER_FRAG_TASK_COMPLETED=3: Pixels = 3072
# A ratio, then a scale: the quotient is rounded before the product.
7 IRQ_ACTIVE=1 GPU_ACTIVE=3: Interrupt pending utilization = 0x1.0aaaaaaaaaaaap+5
1 VCACHE_HIT=0 VCACHE_MISS=0: Position cache hit rate = 0
1 VCACHE_HIT=3 VCACHE_MISS=1: Position cache hit rate = 75
# The GPU's own numbers; sums over two slices, so twice the word.
3 L2_EXT_READ_BEATS=5: Output external read bytes = 160
3 L2_EXT_AR_STALL=5 GPU_ACTIVE=10: Output external read stall rate = 50
# Chains of differences, also below zero, and into the divisor's own zero.
8 L2_EXT_READ=10 L2_EXT_AR_CNT_Q1=3 L2_EXT_AR_CNT_Q2=2: Output external outstanding reads 75-100% = 10
8 L2_EXT_READ=1 L2_EXT_AR_CNT_Q1=4294967295: Output external outstanding reads 75-100% = -8589934588
8 L2_EXT_READ_BEATS=9 L2_EXT_RRESP_0_127=4 L2_EXT_RRESP_320_383=1 L2_EXT_READ=9: Output external read latency 384+ cycles = 8
2 PRIM_CULLED=4 PRIM_CLIPPED=2 PRIM_SAT_CULLED=1 PRIM_VISIBLE=3: Z plane test cull rate = 0x1.0aaaaaaaaaaaap+5
2 PRIM_CULLED=4 PRIM_CLIPPED=2 PRIM_SAT_CULLED=1 PRIM_VISIBLE=3: Sample test cull rate = 25
2 PRIM_CULLED=4: Sample test cull rate = 0
4 FRAG_QUADS_RAST=5 FRAG_QUADS_EZS_KILL=5 QUAD_FPK_KILLER=7: FPK occluder quad percentage = 0
# Warps as quads, as a quarter of their threads, and as threads.
1 FRAG_QUADS_RAST=100 FRAG_QUADS_EZS_KILL=20 FRAG_WARPS=10: FPK killed quads = 70
3 FRAG_QUADS_RAST=100 FRAG_QUADS_EZS_KILL=20 FRAG_WARPS=10: FPK killed quads = 60
7 FRAG_QUADS_RAST=100 FRAG_QUADS_EZS_KILL=20 FRAG_WARPS=10: FPK killed quad percentage = 40
1 FRAG_WARPS=3: Fragment threads = 12
6 FRAG_WARPS=3: Fragment threads = 24
8 COMPUTE_WARPS=3: Non-fragment threads = 48
# Factors that differ on purpose.
8 FRAG_TRANS_ELIM=1 FRAG_PTILES=2: Unchanged tile kill rate = 50
9 FRAG_TRANS_ELIM=1 FRAG_PTILES=2: Unchanged tile kill rate = 12.5
9 FRAG_WARPS=64 FRAG_PTILES=2: Fragments per pixel = 2
# Each table's own hardware under one name.
7 FRAG_ACTIVE=6 GPU_ACTIVE=8: Fragment utilization = 75
8 FRAG_ACTIVE=6 GPU_ACTIVE=8 SHADER_CORE_ACTIVE=12: Fragment utilization = 50
1 TEX_TIDX_NUM_SPLIT_MIP_MAP=1 TEX_MSGI_NUM_QUADS=4 TEX_DFCH_NUM_PASSES=9: Texture accesses using trilinear filter percentage = 25
4 TEX_COORD_ISSUE=10 TEX_INSTR=4: Texture filtering cycles per instruction = 2.5
7 TEX_FILT_NUM_OPERATIONS=10 TEX_MSGO_NUM_MSG=5: Texture filtering cycles per instruction = 0.5
2 BEATS_WR_LSC_OTHER=3 BEATS_WR_LSC_WB=4 LS_MEM_WRITE_SHORT=3 LS_MEM_WRITE_FULL=4: Load/store bytes written to L2 per access cycle = 16
5 BEATS_WR_LSC=3: Load/store write bytes = 48
7 CALL_BLEND_SHADER=10 FRAG_WARPS=40: Shader blend path percentage = 50
9 EXEC_INSTR_SFU=3 EXEC_CORE_ACTIVE=24: SFU pipe utilization = 50
9 EXEC_INSTR_CVT=1 EXEC_INSTR_FMA=2 EXEC_INSTR_SFU=3 EXEC_INSTR_DIVERGED=3: Warp divergence percentage = 50
)");
    const std::regex whole("(\\d)(.*): (.*) = (.*)"), setting(" (\\w+)=(\\d+)");
    unsigned cases = 0;
    std::smatch c;
    for (std::string line; std::getline(lines, line);) {
        if (!std::regex_match(line, c, whole)) {
            continue;
        }
        bench sample(static_cast<unsigned>(std::stoul(c[1])));
        const std::string settings = c[2];
        for (std::sregex_iterator i(settings.begin(), settings.end(), setting), end; i != end; ++i) {
            const auto value = static_cast<std::uint32_t>(std::stoul((*i)[2]));
            if ((*i)[1] == "cycles") {
                sample.profiler.gpu_cycles = value;
            } else {
                sample.set((*i)[1], value);
            }
        }
        EXPECT_EQ(sample[c[3]], std::stod(c[4])) << line;
        ++cases;
    }
    EXPECT_EQ(cases, 38U);
}

TEST(Derived, ConstantsReadNothing) {
    for (unsigned table = 1; table <= hwc::table_count; ++table) {
        const bench sample(table, 0b1011, 4);
        for (const auto& [name, expected] : {std::pair{"External bus beat size", 16.0},
                                             {"L2 cache slice count", 4.0},
                                             {"Shader core count", 3.0}}) {
            const hwc::vexa_counter_descriptor& row = sample.row(name);
            EXPECT_EQ(row.evaluator(sample.profiler, nullptr).value(), expected);
            EXPECT_TRUE(row.dependencies.empty());
        }
    }
}

// Words of all kinds: ordinary ones, extreme ones, and equal ones, so that differences and divisors vanish.
void fill(std::vector<std::uint32_t>& words, std::mt19937& random) {
    const unsigned kind = random() % 4;
    for (std::uint32_t& word : words) {
        const unsigned choice = random() % 8;
        const std::uint32_t limit = kind == 0 ? 4 : kind == 1 ? 100000 : 0xffffffff;
        word = kind != 0 && choice < 2 ? 0 - choice : static_cast<std::uint32_t>(random()) % limit;
    }
}

// The value of a row moves when, and only when, one of its dependencies does.
TEST(Derived, DependenciesAreWhatTheEvaluatorReads) {
    std::mt19937 random(5);
    for (unsigned table = 1; table <= hwc::table_count; ++table) {
        bench sample(table);
        for (const hwc::vexa_counter_descriptor& row : hwc::counter_tables[table - 1]) {
            if (row.id < hwc::first_derived_id) {
                continue;
            }
            const std::set<std::uint32_t> distinct(row.dependencies.begin(), row.dependencies.end());
            EXPECT_EQ(distinct.size(), row.dependencies.size());
            std::set<std::uint32_t> moving;
            for (int round = 0; round < 4; ++round) {
                for (std::uint32_t& word : sample.words) {
                    word = static_cast<std::uint32_t>(1000 + random() % 1000);
                }
                const std::vector<std::uint32_t> words = sample.words;
                constexpr std::uint64_t cycles = 3000;  // more than the active cycles, so that they count
                sample.profiler.gpu_cycles = cycles;
                const double before = sample.value(row);
                for (const hwc::vexa_counter_descriptor& raw : hwc::counter_tables[table - 1]) {
                    sample.profiler.gpu_cycles = cycles + (raw.id == hwc::gpu_cycles_id ? 7 : 0);
                    for (std::size_t block = 0; block * 64 < words.size() && raw.id < 256; ++block) {
                        const std::size_t kind = block < 2 ? block : block < 4 ? 2 : 3;
                        sample.words[block * 64 + raw.id % 64] += kind == raw.id / 64 ? 7 : 0;
                    }
                    if (raw.id < hwc::first_derived_id && sample.value(row) != before) {
                        moving.insert(raw.id);
                    }
                    sample.words = words;
                }
            }
            // Two cull rates add what was culled earlier and take it away again.
            std::set<std::uint32_t> expected = distinct;
            if (row.name == std::string("Z plane test cull rate")) {
                expected.erase(sample.id_of("PRIM_CULLED"));
            } else if (row.name == std::string("Sample test cull rate")) {
                expected.erase(sample.id_of("PRIM_CULLED"));
                expected.erase(sample.id_of("PRIM_CLIPPED"));
            }
            EXPECT_EQ(moving, expected) << row.name << " in table " << table;
        }
    }
}

// Relations that hold for any words. Each side is rounded in its own way, so they are equal but for the last
// bits.
TEST(Derived, RelationsBetweenRows) {
    std::mt19937 random(6);
    // Differences of words up to 2 to the power 32 lose their last bits.
    const auto near = [](double a, double b) {
        return std::fabs(a - b) <= 1e-5 + 1e-9 * std::max(std::fabs(a), std::fabs(b));
    };
    for (unsigned table = 1; table <= hwc::table_count; ++table) {
        bench sample(table, 0b1011, 3);
        const double warp_size = table == 3 || table == 6 ? 8 : table >= 7 ? 16 : 4;
        for (int round = 0; round < 300; ++round) {
            fill(sample.words, random);
            sample.profiler.gpu_cycles = random();
            const auto row = [&sample](const char* name) { return sample[name]; };
            SCOPED_TRACE(testing::Message() << "table " << table << ", round " << round);
            // The parts of the input primitives make up the whole, and the cull rates lead from it to the
            // rest.
            const double input = row("Total input primitives");
            const auto left_by = [&row](const char* test) {
                return 1 - row((std::string(test) + " test cull rate").c_str()) / 100;
            };
            const double facing = left_by("Facing or XY plane"), z = left_by("Z plane");
            EXPECT_TRUE(near(row("Total culled primitives") + row("Visible primitives"), input));
            EXPECT_TRUE(input <= 0 || facing == 0 || z == 0 ||
                        near(facing * z * left_by("Sample") * input, row("Visible primitives")));
            // A scaled row and its base; a mean times its count.
            EXPECT_EQ(row("Fragment threads"), row("Fragment warps") * warp_size);
            EXPECT_EQ(row("Non-fragment threads"), row("Non-fragment warps") * warp_size);
            EXPECT_TRUE(near(row("Fragment cycles per thread") * row("Fragment threads"),
                             row("Fragment threads") > 0 ? row("Fragment active cycles") : 0));
            EXPECT_TRUE(near(row("Load/store total issues") - row("Load/store atomic issues"),
                             row("Load/store read issues") + row("Load/store write issues")));
            EXPECT_TRUE(near(row("Varying unit utilization") * row("Execution core active cycles"),
                             row("Execution core active cycles") > 0 ? row("Varying cycles") * 100 : 0));
            EXPECT_EQ(row("Texture unit utilization"), row("Texture unit filtering utilization"));
            // What is killed, started and left makes up what was rasterised.
            const double killed_early = row("Early ZS killed quads"), rasterized = row("Rasterized quads");
            const double started =
                row(sample.has("Fragment quads started") ? "Fragment quads started" : "Fragment warps");
            EXPECT_TRUE(near(row("FPK killed quads") + started + killed_early, rasterized));
            EXPECT_TRUE(
                near(row("FPK non-occluder quads") + row("FPK occluder quads") + killed_early, rasterized));
            EXPECT_TRUE(!sample.has("Processing unit utilization") ||
                        near(row("Processing unit utilization"), row("FMA pipe utilization") +
                                                                     row("CVT pipe utilization") +
                                                                     row("SFU pipe utilization") / 4));
            EXPECT_LE(row("GPU utilization"), 100.0);
        }
    }
}

// Rows of two tables that read the same ids in the same way give the same value on the same words.
TEST(Derived, TablesThatAgreeGiveEqualValues) {
    std::mt19937 random(7);
    for (const auto& [a, b] : {std::pair{1U, 2U}, {3U, 6U}, {4U, 5U}}) {
        bench left(a), right(b);
        for (int round = 0; round < 100; ++round) {
            fill(left.words, random);
            right.words = left.words;
            for (const hwc::vexa_counter_descriptor& row : hwc::counter_tables[a - 1]) {
                const hwc::vexa_counter_descriptor& other = *hwc::counter_tables[b - 1].find(row.id);
                ASSERT_TRUE(row.dependencies != other.dependencies || left.value(row) == right.value(other))
                    << row.name;
            }
        }
    }
}

// A table with a row taken out: the operand reads as 0, wherever it stands.
TEST(Derived, AbsentOperandsReadAsZero) {
    std::mt19937 random(8);
    for (unsigned table = 1; table <= hwc::table_count; ++table) {
        bench whole(table);
        for (const char* missing :
             {"GPU_ACTIVE", "PRIM_CULLED", "FRAG_WARPS", "L2_EXT_READ", "EXEC_CORE_ACTIVE"}) {
            hwc::counter_table gapped;
            for (const hwc::vexa_counter_descriptor& row : hwc::counter_tables[table - 1]) {
                if (row.id != whole.id_of(missing)) {
                    gapped.insert(row);
                }
            }
            fill(whole.words, random);
            bench with_gap(gapped);
            with_gap.words = whole.words;
            whole.set(missing, 0);
            for (const hwc::vexa_counter_descriptor& row : gapped) {
                ASSERT_EQ(with_gap.value(row), whole.value(row)) << row.name << " without " << missing;
            }
        }
    }
}

}  // namespace
