#include "virtual_gpu/workload.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <span>
#include <string_view>

#include "hwc/job_manager_rows.h"
#include "hwc/memory_system_rows.h"
#include "hwc/shader_core_rows.h"
#include "hwc/tiler_rows.h"
#include "virtual_gpu/known_gpus.h"
#include "virtual_gpu/scene.h"

namespace qel::vexa::virtual_gpu {

namespace {

// What the GPU did in the time of one sample. Every counter is a share of one of these.
enum quantity : std::size_t {
    nothing,
    // Cycles of the GPU.
    elapsed,
    active,
    geometry,
    fragment,
    // Work of the GPU.
    geometry_jobs,
    fragment_jobs,
    geometry_tasks,
    fragment_tasks,
    primitives,
    front_facing,
    back_facing,
    visible,  // the two before together
    culled,
    clipped,
    sample_culled,
    // Of one L2 slice.
    lookups,
    reads,
    read_beats,
    writes,
    write_beats,
    // Of one shader core: cycles, then work.
    core_active,
    core_geometry,
    core_fragment,
    executing,
    texturing,
    core_primitives,
    tiles,
    quads,
    fragment_warps,
    geometry_warps,
    quantity_count,
};

using quantities = std::array<std::uint64_t, quantity_count>;

constexpr std::uint64_t share(std::uint64_t amount, std::uint64_t per_mille) {
    // Apart, so that no amount is too large to be multiplied.
    return amount / 1000 * per_mille + amount % 1000 * per_mille / 1000;
}

struct rule {
    std::string_view hardware_name;  // a '*' at the end stands for any ending
    quantity of;
    std::uint32_t per_mille;
};

// The first rule that fits a counter holds. Shares that are parts of a whole add up to a little less than
// 1000.
constexpr rule rules[] = {
    // Job slots.
    {"GPU_ACTIVE", active, 1000},
    {"IRQ_ACTIVE", active, 6},
    {"MESSAGES_*", fragment_tasks, 200},
    {"JS0_JOBS", fragment_jobs, 1000},
    {"JS0_TASKS", fragment_tasks, 1000},
    {"JS0_ACTIVE", fragment, 1000},
    {"JS0_WAIT_*", fragment, 10},
    {"JS1_JOBS", geometry_jobs, 1000},
    {"JS1_TASKS", geometry_tasks, 1000},
    {"JS1_ACTIVE", geometry, 1000},
    {"JS1_WAIT_*", geometry, 10},
    {"JS2_*", nothing, 0},
    {"CACHE_FLUSH", fragment_jobs, 1000},
    // Command stream front-end.
    {"MCU_ACTIVE", active, 300},
    {"GPU_ITER_ACTIVE", active, 990},
    {"MMU_FLUSH_COUNT", fragment_jobs, 1000},
    {"GPU_IRQ_COUNT", fragment_jobs, 2000},
    {"DOORBELL_IRQ_COUNT", geometry_jobs, 1000},
    {"ITER_TILER_ACTIVE", geometry, 1000},
    {"ITER_TILER_JOB_COMPLETED", geometry_jobs, 1000},
    {"ITER_TILER_IDVS_TASK_COMPLETED", geometry_tasks, 1000},
    {"ITER_TILER_TOTAL_IDVS_TASK_ACTIVE_CYCLES", geometry, 900},
    {"ITER_TILER_IRQ_COUNT", geometry_jobs, 1000},
    {"ITER_TILER_*", geometry, 10},
    {"ITER_COMP_*", nothing, 0},
    {"ITER_FRAG_ACTIVE", fragment, 1000},
    {"ITER_FRAG_JOB_COMPLETED", fragment_jobs, 1000},
    {"ITER_FRAG_TASK_COMPLETED", fragment_tasks, 1000},
    {"ITER_FRAG_TOTAL_TASK_ACTIVE_CYCLES", fragment, 950},
    {"ITER_FRAG_IRQ_COUNT", fragment_jobs, 1000},
    {"ITER_FRAG_*", fragment, 10},
    {"CEU_COMMAND_COUNT", geometry_tasks, 3000},
    {"LSU_OPERATIONS_COMPLETED", geometry_tasks, 500},
    {"CSHWIF0_ENABLED", elapsed, 1000},
    {"CSHWIF1_ENABLED", elapsed, 1000},
    {"CSHWIF2_*", nothing, 0},
    {"CSHWIF3_*", nothing, 0},
    // Tiler.
    {"TILER_ACTIVE", geometry, 980},
    {"JOBS_PROCESSED", geometry_jobs, 1000},
    {"TRIANGLES", primitives, 1000},
    {"LINES", nothing, 0},
    {"POINTS", nothing, 0},
    {"FRONT_FACING", front_facing, 1000},
    {"BACK_FACING", back_facing, 1000},
    {"PRIM_VISIBLE", visible, 1000},
    {"PRIM_CULLED", culled, 1000},
    {"PRIM_CLIPPED", clipped, 1000},
    {"PRIM_SAT_CULLED", sample_culled, 1000},
    {"BIN_ALLOC_INIT", visible, 60},
    {"BIN_ALLOC_OVERFLOW", visible, 10},
    {"SUSPENDED", nothing, 0},
    {"RESUMED", nothing, 0},
    {"BUS_READ", geometry, 120},
    {"BUS_WRITE", geometry, 90},
    {"BUS_WRITE_UTLB*", geometry, 45},
    {"IDVS_POS_SHAD_REQ", primitives, 180},
    {"IDVS_VAR_SHAD_REQ", visible, 170},
    {"IDVS_VBU_HIT", visible, 2400},
    {"IDVS_VBU_MISS", visible, 600},
    {"IDVS_VBU_LINE_DEALLOCATE", visible, 590},
    {"VCACHE_HIT", primitives, 2300},
    {"VCACHE_MISS", primitives, 700},
    {"COMPRESS_MISS", visible, 20},
    {"PCACHE_HIT", visible, 1900},
    {"PCACHE_MISS", visible, 100},
    {"WRBUF_ACTIVE", geometry, 600},
    {"WRBUF_HIT", visible, 900},
    {"WRBUF_MISS", visible, 200},
    {"UTLB_TRANS", geometry, 200},
    {"UTLB_TRANS_HIT", geometry, 190},
    {"UTLB_MMU_REQ", geometry, 10},
    {"UTLB0_TRANS", geometry, 120},
    {"UTLB0_TRANS_HIT", geometry, 115},
    {"UTLB0_MMU_REQ", geometry, 5},
    {"UTLB1_TRANS", geometry, 80},
    {"UTLB1_TRANS_HIT", geometry, 76},
    {"UTLB1_MMU_REQ", geometry, 4},
    // Memory system.
    {"MMU_REQUESTS", lookups, 30},
    {"MMU_TABLE_READS_L3", lookups, 3},
    {"MMU_TABLE_READS_L2", lookups, 1},
    {"MMU_HIT_L3", lookups, 26},
    {"MMU_HIT_L2", lookups, 2},
    {"MMU_S2_*", nothing, 0},
    {"L2_ANY_LOOKUP", lookups, 1000},
    {"L2_READ_LOOKUP", lookups, 650},
    {"L2_WRITE_LOOKUP", lookups, 300},
    {"L2_EXT_SNOOP_LOOKUP", lookups, 20},
    {"L2_RD_MSG_IN", lookups, 640},
    {"L2_RD_MSG_IN_EVICT", lookups, 60},
    {"L2_RD_MSG_IN_CU", lookups, 10},
    {"L2_WR_MSG_IN", lookups, 290},
    {"L2_SNP_MSG_IN", lookups, 8},
    {"L2_SNP_MSG_IN_SNPRSP", lookups, 8},
    {"L2_RD_MSG_OUT_SNPREQ", lookups, 8},
    {"L2_RD_MSG_OUT", lookups, 640},
    {"L2_WR_MSG_OUT", lookups, 60},
    {"L2_EXT_READ", reads, 1000},
    {"L2_EXT_READ_NOSNP", reads, 900},
    {"L2_EXT_READ_UNIQUE", reads, 90},
    {"L2_EXT_READ_BEATS", read_beats, 1000},
    {"L2_EXT_AR_STALL", active, 25},
    {"L2_EXT_AR_CNT_Q1", reads, 520},
    {"L2_EXT_AR_CNT_Q2", reads, 260},
    {"L2_EXT_AR_CNT_Q3", reads, 140},
    {"L2_EXT_RRESP_0_127", read_beats, 300},
    {"L2_EXT_RRESP_128_191", read_beats, 350},
    {"L2_EXT_RRESP_192_255", read_beats, 180},
    {"L2_EXT_RRESP_256_319", read_beats, 90},
    {"L2_EXT_RRESP_320_383", read_beats, 45},
    {"L2_EXT_WRITE", writes, 1000},
    {"L2_EXT_WRITE_NOSNP_FULL", writes, 700},
    {"L2_EXT_WRITE_NOSNP_PTL", writes, 200},
    {"L2_EXT_WRITE_SNP_FULL", writes, 60},
    {"L2_EXT_WRITE_SNP_PTL", writes, 30},
    {"L2_EXT_WRITE_BEATS", write_beats, 1000},
    {"L2_EXT_W_STALL", active, 15},
    {"L2_EXT_AW_CNT_Q1", writes, 640},
    {"L2_EXT_AW_CNT_Q2", writes, 220},
    {"L2_EXT_AW_CNT_Q3", writes, 90},
    {"L2_EXT_SNOOP", lookups, 20},
    {"L2_EXT_SNOOP_RESP_CLEAN", lookups, 6},
    {"L2_EXT_SNOOP_RESP_DATA", lookups, 4},
    {"L2_EXT_SNOOP_INTERNAL", lookups, 3},
    // Shader core: fragment front-end and non-fragment work.
    {"SHADER_CORE_ACTIVE", core_active, 1000},
    {"FRAG_ACTIVE", core_fragment, 1000},
    {"FRAG_PRIMITIVES", core_primitives, 1000},
    {"FRAG_PRIMITIVES_OUT", core_primitives, 1000},
    {"FRAG_PRIM_RAST", core_primitives, 850},
    {"FRAG_FPK_ACTIVE", core_fragment, 880},
    {"FRAG_STARVING", core_fragment, 30},
    {"FRAG_WARPS", fragment_warps, 1000},
    {"FRAG_PARTIAL_WARPS", fragment_warps, 140},
    {"FRAG_PARTIAL_QUADS_RAST", quads, 90},
    {"FRAG_QUADS_RAST", quads, 1000},
    {"FRAG_QUADS_EZS_TEST", quads, 950},
    {"FRAG_QUADS_EZS_UPDATE", quads, 420},
    {"FRAG_QUADS_EZS_KILL", quads, 250},
    {"FRAG_LZS_TEST", quads, 30},
    {"FRAG_LZS_KILL", quads, 10},
    {"WARP_REG_SIZE_64", fragment_warps, 80},
    {"FRAG_PTILES", tiles, 1000},
    {"FRAG_TRANS_ELIM", tiles, 60},
    {"QUAD_FPK_KILLER", quads, 520},
    {"FULL_QUAD_WARPS", fragment_warps, 850},
    {"COMPUTE_ACTIVE", core_geometry, 960},
    {"COMPUTE_TASKS", geometry_warps, 100},
    {"COMPUTE_WARPS", geometry_warps, 1000},
    {"COMPUTE_STARVING", core_geometry, 40},
    // Shader core: execution.
    {"EXEC_CORE_ACTIVE", executing, 1000},
    {"EXEC_ACTIVE", executing, 960},
    {"EXEC_INSTR_COUNT", executing, 620},
    {"EXEC_INSTR_FMA", executing, 420},
    {"EXEC_INSTR_CVT", executing, 250},
    {"EXEC_INSTR_SFU", executing, 60},
    {"EXEC_INSTR_MSG", executing, 190},
    {"EXEC_INSTR_DIVERGED", executing, 25},
    {"EXEC_ICACHE_MISS", executing, 1},
    {"ARITH_INSTR_SINGLE_FMA", executing, 200},
    {"ARITH_INSTR_DOUBLE", executing, 160},
    {"ARITH_INSTR_MSG", executing, 100},
    {"ARITH_INSTR_MSG_ONLY", executing, 90},
    {"ARITH_INSTR_FP_MUL", executing, 150},
    {"CALL_BLEND_SHADER", fragment_warps, 20},
    {"LS_MEM_READ_FULL", executing, 60},
    {"LS_MEM_READ_SHORT", executing, 40},
    {"LS_MEM_WRITE_FULL", executing, 20},
    {"LS_MEM_WRITE_SHORT", executing, 10},
    {"LS_MEM_ATOMIC", executing, 1},
    {"VARY_INSTR", executing, 90},
    {"VARY_SLOT_32", executing, 70},
    {"VARY_SLOT_16", executing, 80},
    {"ATTR_INSTR", executing, 20},
    // Shader core: textures.
    {"TEX_INSTR", texturing, 450},
    {"TEX_INSTR_MIPMAP", texturing, 330},
    {"TEX_INSTR_COMPRESSED", texturing, 300},
    {"TEX_INSTR_3D", texturing, 10},
    {"TEX_INSTR_TRILINEAR", texturing, 90},
    {"TEX_COORD_ISSUE", texturing, 1000},
    {"TEX_MSGI_NUM_QUADS", texturing, 500},
    {"TEX_DFCH_NUM_PASSES", texturing, 500},
    {"TEX_DFCH_NUM_PASSES_MISS", texturing, 5},
    {"TEX_DFCH_NUM_PASSES_MIP_MAP", texturing, 380},
    {"TEX_TIDX_NUM_SPLIT_MIP_MAP", texturing, 110},
    {"TEX_TFCH_NUM_LINES_FETCHED", texturing, 120},
    {"TEX_TFCH_NUM_LINES_FETCHED_BLOCK_COMPRESSED", texturing, 90},
    {"TEX_TFCH_NUM_OPERATIONS", texturing, 800},
    {"TEX_FILT_NUM_OPERATIONS", texturing, 1000},
    {"TEX_FILT_NUM_FXR_OPERATIONS", texturing, 150},
    {"TEX_FILT_NUM_FST_OPERATIONS", texturing, 120},
    {"TEX_MSGI_NUM_FLITS", texturing, 700},
    {"TEX_MSGO_NUM_MSG", texturing, 400},
    {"TEX_MSGO_NUM_FLITS", texturing, 800},
    {"TEX_*", texturing, 30},
    // Shader core: traffic. A tile of 16x16 pixels is 64 beats of 16 bytes.
    {"BEATS_RD_FTC", core_fragment, 30},
    {"BEATS_RD_FTC_EXT", core_fragment, 9},
    {"BEATS_RD_LSC", executing, 120},
    {"BEATS_RD_LSC_EXT", executing, 25},
    {"BEATS_RD_TEX", texturing, 400},
    {"BEATS_RD_TEX_EXT", texturing, 95},
    {"BEATS_RD_OTHER", executing, 8},
    {"BEATS_WR_LSC", executing, 45},
    {"BEATS_WR_LSC_WB", executing, 30},
    {"BEATS_WR_LSC_OTHER", executing, 15},
    {"BEATS_WR_TIB", tiles, 64'000},
    {"BEATS_WR_OTHER", executing, 4},
};

constexpr bool fits(std::string_view pattern, std::string_view name) {
    if (pattern.ends_with('*')) {
        pattern.remove_suffix(1);
        return name.starts_with(pattern);
    }
    return name == pattern;
}

// A counter without a rule, mostly a stall or wait of some unit, is busy for a small share of this, by class
// of block.
constexpr quantity busy[] = {active, geometry, active, core_active};

std::vector<workload_source::counter> resolve(std::span<const hwc::raw_row> rows, hwc::block block,
                                              unsigned table) {
    std::vector<workload_source::counter> result;
    for (const hwc::raw_row& row : rows) {
        const std::optional<std::uint32_t> id = row.id_in(table);
        if (!id) {
            continue;
        }
        const auto found = std::find_if(std::begin(rules), std::end(rules), [&row](const rule& candidate) {
            return fits(candidate.hardware_name, row.hardware_name);
        });
        const bool has_rule = found != std::end(rules);
        result.push_back(
            {.offset = *id % words_per_block,
             .quantity = has_rule ? found->of : busy[static_cast<std::size_t>(block)],
             .per_mille = has_rule ? found->per_mille : 2 + static_cast<std::uint32_t>(scatter(*id) % 29)});
    }
    return result;
}

constexpr std::uint64_t tasks_per_frame = 2040;  // areas of 32x32 pixels in a picture of 1920x1080
constexpr std::uint64_t tiles_per_task = 4;
constexpr std::uint64_t quads_per_tile = 160;  // two and a half layers of 64
constexpr std::uint64_t line_bytes = 64;

struct phase : time_span {
    constexpr std::uint64_t overlap(const sample_interval& interval) const {
        const std::uint64_t from = std::max(begin, interval.begin);
        const std::uint64_t to = std::min(end, interval.end);
        return from < to ? to - from : 0;
    }

    // How much of the phase's work was done in the interval. The parts of neighbouring intervals add up
    // exactly.
    constexpr std::uint64_t part(std::uint64_t work, const sample_interval& interval) const {
        const auto done = [&](std::uint64_t time) {
            return work * (std::clamp(time, begin, end) - begin) / (end - begin);
        };
        return done(interval.end) - done(interval.begin);
    }

    constexpr std::uint64_t finished(const sample_interval& interval) const {
        return end > interval.begin && end <= interval.end ? 1 : 0;
    }
};

// What happened on the GPU as a whole, its cycles still in nanoseconds.
quantities frames_in(const sample_interval& interval) {
    quantities sum{};
    for (std::uint64_t frame = interval.begin / scene_frame::period;
         frame * scene_frame::period < interval.end; ++frame) {
        const scene_frame drawn(frame);
        const std::uint64_t load = drawn.load;
        const phase first{drawn.geometry};
        const phase second{drawn.fragment};
        sum[geometry] += first.overlap(interval);
        sum[fragment] += second.overlap(interval);
        sum[active] += phase{{.begin = first.begin, .end = second.end}}.overlap(interval);
        sum[geometry_jobs] += first.finished(interval);
        sum[fragment_jobs] += second.finished(interval);
        sum[geometry_tasks] += first.part(load, interval);
        sum[fragment_tasks] += second.part(tasks_per_frame, interval);
        sum[front_facing] += first.part(load * (22 + scatter(~frame) % 9), interval);
        sum[back_facing] += first.part(load * 2, interval);
        sum[culled] += first.part(load * 18, interval);
        sum[clipped] += first.part(load * 8, interval);
        sum[sample_culled] += first.part(load * 6, interval);
    }
    sum[visible] = sum[front_facing] + sum[back_facing];
    sum[primitives] = sum[visible] + sum[culled] + sum[clipped] + sum[sample_culled];
    return sum;
}

// Some slices and cores have a little less to do than others.
std::uint64_t evenness(std::uint64_t number) {
    return 940 + scatter(number) % 61;
}

}  // namespace

workload_source::workload_source(const gpu_description& gpu)
    : layout_(gpu),
      clock_hz_(gpu.clock_hz),
      beats_per_read_(
          std::clamp<std::uint64_t>(line_bytes / std::max(gpu.bus_width_bytes, 1U), 1, line_bytes)) {
    const known_gpu* known = find_known_gpu(gpu.product_id);
    if (known == nullptr) {
        return;
    }
    constexpr std::uint64_t quads_per_warp[] = {1, 1, 2, 1, 1, 2, 4, 4, 4};  // by counter table
    quads_per_warp_ = quads_per_warp[known->counter_table - 1];
    counters_ = {resolve(hwc::job_manager_rows, hwc::block::job_manager, known->counter_table),
                 resolve(hwc::tiler_rows, hwc::block::tiler, known->counter_table),
                 resolve(hwc::memory_system_rows, hwc::block::memory_system, known->counter_table),
                 resolve(hwc::shader_core_rows, hwc::block::shader_core, known->counter_table)};
}

std::uint64_t workload_source::count(const sample_interval& interval, std::span<std::uint32_t> words) {
    const auto write = [&](std::size_t block, hwc::block block_class, const quantities& amounts) {
        for (const counter& one : counters_[static_cast<std::size_t>(block_class)]) {
            words[block * words_per_block + one.offset] = static_cast<std::uint32_t>(std::min<std::uint64_t>(
                share(amounts[one.quantity], one.per_mille), std::numeric_limits<std::uint32_t>::max()));
        }
    };
    const auto cycles = [this](std::uint64_t nanoseconds) {
        constexpr std::uint64_t second = 1'000'000'000;
        return nanoseconds / second * clock_hz_ + nanoseconds % second * clock_hz_ / second;
    };

    quantities gpu = frames_in(interval);
    gpu[elapsed] = cycles(interval.end) - cycles(interval.begin);
    for (const quantity busy_time : {active, geometry, fragment}) {
        gpu[busy_time] = cycles(gpu[busy_time]);
    }
    // What caches keep and shaders do differs a little from frame to frame.
    const std::uint64_t mood = scatter(interval.begin / scene_frame::period);
    std::fill(words.begin(), words.end(), 0);
    write(0, hwc::block::job_manager, gpu);
    write(1, hwc::block::tiler, gpu);

    for (std::size_t slice = 0; slice < layout_.l2_slices; ++slice) {
        quantities own = gpu;
        own[lookups] = share(share(gpu[geometry], 80) + share(gpu[fragment], 180), evenness(slice));
        own[reads] = share(own[lookups], 100 + mood % 60);
        own[read_beats] = std::min(own[reads] * beats_per_read_, gpu[active]);
        own[writes] = share(own[lookups], 60 + mood % 20);
        own[write_beats] = std::min(own[writes] * beats_per_read_, gpu[active]);
        write(2 + slice, hwc::block::memory_system, own);
    }

    const auto core_count = static_cast<std::uint64_t>(std::popcount(layout_.core_mask));
    std::uint64_t rank = 0;
    for (std::uint64_t left = layout_.core_mask; left != 0; left &= left - 1, ++rank) {
        const auto index = static_cast<std::size_t>(std::countr_zero(left));
        quantities own = gpu;
        own[core_active] = share(gpu[active], evenness(index));
        own[core_geometry] = share(gpu[geometry], evenness(index));
        own[core_fragment] = share(gpu[fragment], evenness(index));
        const std::uint64_t core_mood = scatter(mood + index);
        own[executing] = share(own[core_active], 780 + core_mood % 120);
        own[texturing] = share(own[core_fragment], 250 + core_mood % 90);
        own[core_primitives] = gpu[visible] * 3 / core_count;
        const std::uint64_t all_tiles = gpu[fragment_tasks] * tiles_per_task;
        own[tiles] = all_tiles * (rank + 1) / core_count - all_tiles * rank / core_count;
        own[quads] = own[tiles] * quads_per_tile;
        own[fragment_warps] = share(own[quads], 560 + mood % 80) / quads_per_warp_;
        // The tiler asks for vertices in groups as large as a quad.
        own[geometry_warps] =
            (share(gpu[primitives], 180) + share(gpu[visible], 170)) / quads_per_warp_ / core_count;
        write(layout_.first_core_block() + index, hwc::block::shader_core, own);
    }
    return gpu[elapsed];
}

}  // namespace qel::vexa::virtual_gpu
