// The derived counters.
//
// The order of the list is the order of the ids: in each table the rows that it has get consecutive ids from
// the first derived one on.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "hwc/derived_row.h"
#include "hwc/operands.h"
#include "hwc/row_list.h"
#include "hwc/shader_core_rows.h"
#include "hwc/table_set.h"

namespace qel::vexa::hwc {

namespace expressions {

using namespace operands;

// Parts that several counters share. Giving a part a name changes nothing in the order of evaluation.
inline constexpr auto culled_primitives = (PRIM_CLIPPED + PRIM_CULLED) + PRIM_SAT_CULLED;
inline constexpr auto input_primitives = culled_primitives + PRIM_VISIBLE;
inline constexpr auto quads_after_early_zs = FRAG_QUADS_RAST - FRAG_QUADS_EZS_KILL;
inline constexpr auto all_warps = FRAG_WARPS + COMPUTE_WARPS;
inline constexpr auto fragment_threads = FRAG_WARPS * WARP_SIZE;
inline constexpr auto compute_threads = COMPUTE_WARPS * WARP_SIZE;
inline constexpr auto fragment_quads = fragment_threads * 0.25;
inline constexpr auto fragments_per_pixel = fragment_threads / (FRAG_PTILES * 256);
inline constexpr auto arithmetic_issues = (EXEC_INSTR_CVT + EXEC_INSTR_FMA) + EXEC_INSTR_SFU;
inline constexpr auto texture_filter_utilization = (TEX_FILT_NUM_OPERATIONS / EXEC_CORE_ACTIVE) * 100;
inline constexpr auto texture_coordinate_utilization = (TEX_COORD_ISSUE / EXEC_CORE_ACTIVE) * 100;
inline constexpr auto load_store_reads = LS_MEM_READ_SHORT + LS_MEM_READ_FULL;
inline constexpr auto load_store_writes = LS_MEM_WRITE_SHORT + LS_MEM_WRITE_FULL;
inline constexpr auto load_store_issues =
    ((load_store_reads + LS_MEM_WRITE_FULL) + LS_MEM_WRITE_SHORT) + LS_MEM_ATOMIC;
inline constexpr auto load_store_write_beats = BEATS_WR_LSC_OTHER + BEATS_WR_LSC_WB;
inline constexpr auto varying_cycles = VARY_SLOT_16 + VARY_SLOT_32;

// Deliberate, and not to be brought into line: the factors of 1024 and 256 pixels and of 4 in "Pixels",
// "Fragments per pixel" and "Unchanged tile kill rate" of table 9; beats and not transactions in "Output
// external read latency 384+ cycles"; the two primitive cull rates that subtract from the total instead of
// adding up a shorter sum; quads and not passes below the trilinear texture rate; the blend shader count that
// is added to itself; the texture unit's two utilizations that are the same.
inline constexpr row_list derived_rows{
    row("GPU utilization", unit_percent, selection::off,
        "This counter defines the percentage of powered clock cycles in which the GPU has work in any of its "
        "queues: \"GPU active cycles\" out of \"GPU cycles\", or out of itself where it is the larger of the "
        "two. A value near 100 suggests that the GPU limits the frame rate; a low value points at the CPU, "
        "the display rate or gaps between frames.",
        in("1-9", (GPU_ACTIVE / max(GPU_CYCLES, GPU_ACTIVE)) * 100)),
    row("Cycles per pixel", per(unit_none, unit_pixel), selection::by_default,
        "This expression defines the average number of \"GPU active cycles\" for each pixel rendered, where "
        "each of the \"Fragment tasks\" stands for 1024 pixels. It measures the cost of all GPU work against "
        "the output. A high value suggests expensive shading, many overlapping layers, or much geometry and "
        "compute work for the size of the image.",
        in("1-8", GPU_ACTIVE / (JS0_TASKS * 1024)), in("9", GPU_ACTIVE / (ITER_FRAG_TASK_COMPLETED * 1024))),
    row("Fragment queue utilization", unit_percent, selection::by_default,
        "This expression defines the percentage of \"GPU active cycles\" in which the fragment queue has "
        "work. It shows how well fragment work keeps the GPU supplied; when neither this queue nor the "
        "non-fragment queue comes close to 100, the two take turns, and dependencies between render passes "
        "are worth a look.",
        in("1-8", (JS0_ACTIVE / GPU_ACTIVE) * 100)),
    row("Fragment iterator utilization", unit_percent, selection::off,
        "This expression defines the percentage of \"GPU active cycles\" in which the fragment iterator is "
        "active. The iterator hands fragment tasks to the shader cores. A value near 100 shows that the GPU "
        "always has fragment work to distribute, as is usual in a frame limited by fragment shading.",
        in("9", (ITER_FRAG_ACTIVE / GPU_ACTIVE) * 100)),
    row("Non-fragment queue utilization", unit_percent, selection::by_default,
        "This expression defines the percentage of \"GPU active cycles\" in which the queue for vertex, "
        "tiling and compute work has work. A value near 100 suggests that geometry or compute work limits "
        "the frame; a low one beside a busy fragment queue is the normal picture of a well-pipelined scene.",
        in("1-8", (JS1_ACTIVE / GPU_ACTIVE) * 100)),
    row("Microcontroller utilization", unit_percent, selection::off,
        "This expression defines the percentage of \"GPU active cycles\" in which the microcontroller that "
        "schedules command streams is active. The value is normally low. A high value suggests many small "
        "command buffers and frequent synchronization, so that scheduling takes time from the work itself.",
        in("9", (MCU_ACTIVE / GPU_ACTIVE) * 100)),
    row("Vertex iterator utilization", unit_percent, selection::off,
        "This expression defines the percentage of \"GPU active cycles\" in which the vertex iterator is "
        "active, handing vertex and tiling tasks to the shader cores. A high value suggests much geometry; "
        "when it does not overlap with fragment work, look for dependencies between render passes.",
        in("9", (ITER_TILER_ACTIVE / GPU_ACTIVE) * 100)),
    row("Compute iterator utilization", unit_percent, selection::off,
        "This expression defines the percentage of \"GPU active cycles\" in which the compute iterator is "
        "active, handing compute tasks to the shader cores. A high value shows frames with much compute "
        "work; check that it overlaps with fragment work and does not merely stand in its way.",
        in("9", (ITER_COMP_ACTIVE / GPU_ACTIVE) * 100)),
    row("Interrupt pending utilization", unit_percent, selection::by_default,
        "This expression defines the percentage of \"GPU active cycles\" in which the GPU has an interrupt "
        "pending that the CPU has not yet served. The value is normally very small. A high value suggests "
        "that the CPU is slow to answer, for example under heavy load or because other drivers keep "
        "interrupts masked.",
        in("1-9", (IRQ_ACTIVE / GPU_ACTIVE) * 100)),
    row("Tiler utilization", unit_percent, selection::by_default,
        "This expression defines the percentage of \"GPU active cycles\" in which the tiler has work. The "
        "tiler is also active while it waits for vertex shading, so that a high value shows much time spent "
        "in geometry processing, but not by itself that the tiler is the part that limits it.",
        in("1-9", (TILER_ACTIVE / GPU_ACTIVE) * 100)),
    row("Pixels", unit_pixel, selection::by_default,
        "This expression defines the number of pixels rendered, counted as 1024 for each of the \"Fragment "
        "tasks\". Areas at the edges of a render target count in full, so the number is a close estimate. A "
        "value far above the resolution of the screen shows many render passes or large off-screen targets "
        "in each frame.",
        in("1-8", JS0_TASKS * 1024), in("9", ITER_FRAG_TASK_COMPLETED * 1024)),
    row("L2 cache read miss rate", unit_percent, selection::off,
        "This expression defines the percentage of \"Read lookup requests\" in the L2 cache that lead to a "
        "read from external memory. A high value shows data that does not fit the cache or is used only "
        "once, and goes along with high external bandwidth and energy use.",
        in("1-9", (L2_EXT_READ / L2_READ_LOOKUP) * 100)),
    row("Output external read bytes", unit_byte, selection::by_default,
        "This expression defines the number of bytes that the L2 cache reads from external memory, from its "
        "read beats and the \"External bus beat size\". External traffic costs much energy; a high value "
        "calls for smaller textures and meshes, compression, and fewer reloads of render targets.",
        in("1-9", (L2_EXT_READ_BEATS * BUS_WIDTH))),
    row("Output external read stall rate", unit_percent, selection::by_default,
        "This expression defines the percentage of \"GPU active cycles\", taken over all L2 cache slices, in "
        "which a read request to external memory is stalled. A high value shows a memory system that accepts "
        "reads more slowly than the GPU makes them; reducing read bandwidth is the remedy.",
        in("1-9", (L2_EXT_AR_STALL / (GPU_ACTIVE * L2_SLICES)) * 100)),
    row("Output external outstanding reads 75-100%", unit_none, selection::off,
        "This expression increments for every external read transaction that starts while more than three "
        "quarters of the possible outstanding reads are in use: all of them less those that the three lower "
        "quarters count. A high value shows a read queue that is often close to full, so that memory latency "
        "can no longer be hidden.",
        in("1-9", ((L2_EXT_READ - L2_EXT_AR_CNT_Q1) - L2_EXT_AR_CNT_Q2) - L2_EXT_AR_CNT_Q3)),
    row("Output external read latency 384+ cycles", unit_none, selection::by_default,
        "This expression increments for every external read beat that takes 384 cycles or longer to return: "
        "all read beats less those that the five lower latency ranges count. A high value shows a memory "
        "system under heavy load; long latencies also leave the shader cores without data.",
        in("1-9",
           ((((L2_EXT_READ_BEATS - L2_EXT_RRESP_0_127) - L2_EXT_RRESP_128_191) - L2_EXT_RRESP_192_255) -
            L2_EXT_RRESP_256_319) -
               L2_EXT_RRESP_320_383)),
    row("L2 cache write miss rate", unit_percent, selection::off,
        "This expression defines the percentage of \"Write lookup requests\" in the L2 cache that lead to a "
        "write to external memory. A high value shows output that leaves the cache without having been "
        "merged or read again, as when large render targets or buffers are written.",
        in("1-9", (L2_EXT_WRITE / L2_WRITE_LOOKUP) * 100)),
    row("Output external write bytes", unit_byte, selection::by_default,
        "This expression defines the number of bytes that the L2 cache writes to external memory, from its "
        "write beats and the \"External bus beat size\". A high value suggests large or many stored render "
        "targets; discard attachments after use, and let frame buffer compression and tile memory do their "
        "work.",
        in("1-9", (L2_EXT_WRITE_BEATS * BUS_WIDTH))),
    row("Output external write stall rate", unit_percent, selection::by_default,
        "This expression defines the percentage of \"GPU active cycles\", taken over all L2 cache slices, in "
        "which a write to external memory is stalled. A high value shows that memory takes in data more "
        "slowly than the GPU produces it; fewer and smaller stored attachments reduce the pressure.",
        in("1-9", (L2_EXT_W_STALL / (GPU_ACTIVE * L2_SLICES)) * 100)),
    row("Output external outstanding writes 75-100%", unit_none, selection::off,
        "This expression increments for every external write transaction that starts while more than three "
        "quarters of the possible outstanding writes are in use: all of them less those that the three lower "
        "quarters count. A high value shows a write queue that is often close to full, which holds up tile "
        "and buffer stores.",
        in("1-9", ((L2_EXT_WRITE - L2_EXT_AW_CNT_Q1) - L2_EXT_AW_CNT_Q2) - L2_EXT_AW_CNT_Q3)),
    row("Total input primitives", unit_primitive, selection::by_default,
        "This expression defines the number of primitives that reach the tiler from the application: the "
        "visible ones and those that any of the culling stages removes. It tells the geometric complexity of "
        "the scene. A high value suggests to cull objects on the CPU and to use simpler meshes for distant "
        "ones.",
        in("1-9", input_primitives)),
    row("Visible primitives after culling", unit_percent, selection::by_default,
        "This expression defines the percentage of \"Total input primitives\" that are visible, as they "
        "survive every culling stage. About half is usual for closed 3D objects, whose back faces are "
        "culled. A high value is good; a very low one shows that much geometry is sent in vain.",
        in("1-9", (PRIM_VISIBLE / input_primitives) * 100)),
    row("Facing or XY plane test cull rate", unit_percent, selection::by_default,
        "This expression defines the percentage of \"Total input primitives\" that are culled because they "
        "face away from the viewer or lie outside the screen in X or Y. Up to a half is usual in 3D scenes; "
        "a higher value suggests objects outside the view that the application should not have drawn.",
        in("1-9", (PRIM_CULLED / input_primitives) * 100)),
    row("Z plane test cull rate", unit_percent, selection::by_default,
        "This expression defines the percentage of the primitives left after the facing and XY plane tests "
        "that are culled for lying in front of the near plane or behind the far plane. The value should be "
        "close to 0. A high value suggests to cull objects by distance before they are drawn.",
        in("1-9", (PRIM_CLIPPED / (input_primitives - PRIM_CULLED)) * 100)),
    row("Sample test cull rate", unit_percent, selection::by_default,
        "This expression defines the percentage of the primitives left after the facing, XY plane and Z "
        "plane tests that are culled because they hit no sample point. A high value shows many triangles "
        "smaller than a pixel, whose vertices are shaded for nothing; use simpler meshes for distant "
        "objects.",
        in("1-9", (PRIM_SAT_CULLED / ((input_primitives - PRIM_CULLED) - PRIM_CLIPPED)) * 100)),
    row("Total culled primitives", unit_primitive, selection::by_default,
        "This expression defines the number of primitives that are removed before rasterization, by the "
        "facing and XY plane tests, the Z plane test and the sample test together. Compare it with \"Total "
        "input primitives\": a large share that goes beyond back faces shows poor culling in the "
        "application.",
        in("1-9", culled_primitives)),
    row("Position shader thread invocations", unit_none, selection::by_default,
        "This expression defines the number of threads started for position shading, four for each of the "
        "\"IDVS position shading requests\". Every vertex of a draw needs at least one, visible or not, so a "
        "high value suggests dense meshes, poor reuse of vertices through the index buffer, or too little "
        "culling.",
        in("1-9", IDVS_POS_SHAD_REQ * 4)),
    row("Varying shader thread invocations", unit_none, selection::by_default,
        "This expression defines the number of threads started for varying shading, four for each of the "
        "\"IDVS varying shading requests\". Only vertices of visible primitives are meant to need them. A "
        "high value shows much visible geometry or indices that jump about, so that vertices are shaded more "
        "than once.",
        in("1-9", IDVS_VAR_SHAD_REQ * 4)),
    row("Fragment utilization", unit_percent, selection::by_default, {},
        in("1-7", (FRAG_ACTIVE / GPU_ACTIVE) * 100,
           "This expression defines the percentage of \"GPU active cycles\" in which the shader cores hold "
           "fragment work. A value near 100 shows that fragment work spans the whole time of the GPU; a low "
           "value beside a busy GPU shows that vertex or compute work runs without fragment work to overlap "
           "it."),
        in("8, 9", (FRAG_ACTIVE / SHADER_CORE_ACTIVE) * 100,
           "This expression defines the percentage of the \"Any active cycles\" of the shader cores in which "
           "they hold fragment work. Since cycles without any work in the cores are left out, a low value "
           "shows cores that are mostly busy with vertex or compute work, and not cores that are idle.")),
    row("Fragment FPK buffer active percentage", unit_percent, selection::by_default,
        "This expression defines the percentage of \"Fragment active cycles\" in which the forward pixel "
        "kill buffer holds at least one quad. A high value is good, as the execution core always finds new "
        "work waiting. A low value suggests that rasterization or early ZS testing cannot keep up with "
        "shading.",
        in("1-9", (FRAG_FPK_ACTIVE / FRAG_ACTIVE) * 100)),
    row("Fragment quads started", unit_none, selection::off,
        "This expression defines the number of quads for which fragment shading starts: a quarter of the "
        "threads that \"Fragment warps\" have room for. Room that is left empty counts too. Compared with "
        "\"Rasterized quads\", a low value shows that early ZS testing and forward pixel kill remove much.",
        in("3, 6-9", fragment_quads)),
    row("Fragment threads", unit_none, selection::off,
        "This expression defines the number of fragment threads started: \"Fragment warps\" times the number "
        "of threads in a warp. Threads for uncovered pixels and empty quads of a warp are included. A high "
        "value beside few pixels shows overdraw or a dense mesh of small triangles.",
        in("1-9", fragment_threads)),
    row("Fragment cycles per thread", unit_none, selection::by_default,
        "This expression defines the average number of \"Fragment active cycles\" for each fragment thread "
        "started. It is a measure of throughput and not of the latency of one thread, since many run at the "
        "same time. A high value suggests complex shaders, or threads held up by texture and memory "
        "accesses.",
        in("1-9", FRAG_ACTIVE / fragment_threads)),
    row("Partial coverage rate", unit_percent, selection::by_default, {},
        in("1-6", (FRAG_PARTIAL_WARPS / FRAG_WARPS) * 100,
           "This expression defines the percentage of \"Fragment warps\" that contain at least one thread "
           "without coverage. A high value shows shading power lost at the edges of primitives, as small and "
           "thin triangles cause; simpler meshes for distant objects bring it down."),
        in("7-9", (FRAG_PARTIAL_QUADS_RAST / FRAG_QUADS_RAST) * 100,
           "This expression defines the percentage of \"Rasterized quads\" in which the primitive does not "
           "cover all pixels. A high value shows shading power lost at the edges of primitives, as small and "
           "thin triangles cause; simpler meshes for distant objects bring it down.")),
    row("Early ZS tested quad percentage", unit_percent, selection::by_default,
        "This expression defines the percentage of \"Rasterized quads\" that take part in early depth and "
        "stencil testing. A high value is good. A low one suggests draws that have testing disabled, or "
        "shaders that force the test to a later stage because they discard pixels or write depth.",
        in("1-9", (FRAG_QUADS_EZS_TEST / FRAG_QUADS_RAST) * 100)),
    row("Early ZS updated quad percentage", unit_percent, selection::by_default,
        "This expression defines the percentage of \"Rasterized quads\" that write a new depth or stencil "
        "value in the early test. A high value is good for opaque scenes, as later quads can be tested "
        "against a surface at once; transparent layers and shaders that write depth lower it.",
        in("1-9", (FRAG_QUADS_EZS_UPDATE / FRAG_QUADS_RAST) * 100)),
    row("Early ZS killed quad percentage", unit_percent, selection::by_default,
        "This expression defines the percentage of \"Rasterized quads\" that early depth and stencil testing "
        "kills. A high value shows that hidden surfaces cost no shading, but also that many of them are "
        "drawn; culling whole hidden objects in the application saves their geometry work too.",
        in("1-9", (FRAG_QUADS_EZS_KILL / FRAG_QUADS_RAST) * 100)),
    row("FPK killed quads", unit_none, selection::off,
        "This expression defines the number of quads removed by forward pixel kill, because an opaque quad "
        "came to lie on top of them before they were shaded: \"Rasterized quads\" less \"Early ZS killed "
        "quads\" "
        "and less those that \"Fragment warps\" have room for. A high value suggests opaque objects drawn "
        "from back to front.",
        in("1, 2, 4, 5", quads_after_early_zs - FRAG_WARPS),
        in("3, 6-9", quads_after_early_zs - fragment_quads)),
    row("FPK killed quad percentage", unit_percent, selection::by_default,
        "This expression defines the percentage of \"Rasterized quads\" that forward pixel kill removes, "
        "where \"Early ZS killed quads\" and the quads in \"Fragment warps\" account for the rest. It saves "
        "shading of hidden surfaces, but a high value suggests to draw opaque objects from front to back, "
        "which lets early ZS testing kill them at lower cost.",
        in("1, 2, 4, 5", ((quads_after_early_zs - FRAG_WARPS) / FRAG_QUADS_RAST) * 100),
        in("3, 6-9", ((quads_after_early_zs - fragment_quads) / FRAG_QUADS_RAST) * 100)),
    row("Late ZS tested quad percentage", unit_percent, selection::by_default,
        "This expression defines the percentage of \"Rasterized quads\" that are tested against depth and "
        "stencil after shading. A low value is best. A high value suggests shaders that discard pixels or "
        "write depth, and such draws can hold up others at the same place on the screen.",
        in("1-9", (FRAG_LZS_TEST / FRAG_QUADS_RAST) * 100)),
    row("Late ZS killed quad percentage", unit_percent, selection::by_default,
        "This expression defines the percentage of \"Rasterized quads\" that late depth and stencil testing "
        "kills. They have been shaded in vain, so the value should be close to 0; a high value suggests "
        "hidden surfaces drawn with shaders that cannot be tested early.",
        in("1-9", (FRAG_LZS_KILL / FRAG_QUADS_RAST) * 100)),
    row("Fragments per pixel", per(unit_fragment, unit_pixel), selection::by_default,
        "This expression defines the average number of fragment threads started for each pixel rendered. A "
        "value well above 1 shows overdraw, from layers that overlap or from partly covered quads. Each of "
        "the \"Tiles\" counts as 256 pixels, whatever its size.",
        in("1-3, 6-8", fragments_per_pixel, tiles_16x16_note),
        in("4", fragments_per_pixel, tiles_16x16_up_to_128_bits_note),
        in("5", fragments_per_pixel, tiles_16x16_up_to_256_bits_note),
        in("9", fragments_per_pixel, tiles_32x32_note)),
    row("Unchanged tile kill rate", unit_percent, selection::by_default, {},
        in("1-8", (FRAG_TRANS_ELIM / FRAG_PTILES) * 100,
           "This expression defines the percentage of \"Tiles\" that are not written to memory, because "
           "their content equals what is already there. A high value saves write bandwidth, but the tiles "
           "were shaded all the same; it suggests that parts of the image are redrawn although they do not "
           "change."),
        in("9", (FRAG_TRANS_ELIM / (FRAG_PTILES * 4)) * 100,
           "This expression defines the percentage of tile writes that are dropped because the content "
           "equals what is already in memory; each of the \"Tiles\" stands for four possible writes. A high "
           "value saves write bandwidth, but the pixels were shaded all the same, so look for parts of the "
           "image that need no redraw.")),
    row("FPK non-occluder quads", unit_none, selection::off,
        "This expression defines the number of quads that survive early ZS testing and yet cannot act as "
        "occluders for forward pixel kill: \"Rasterized quads\" less \"Early ZS killed quads\" and \"FPK "
        "occluder quads\". A high value suggests blended layers, shaders that discard pixels, or partly "
        "covered quads.",
        in("1-9", quads_after_early_zs - QUAD_FPK_KILLER)),
    row("Non-fragment utilization", unit_percent, selection::by_default, {},
        in("1-7", (COMPUTE_ACTIVE / GPU_ACTIVE) * 100,
           "This expression defines the percentage of \"GPU active cycles\" in which the shader cores hold "
           "non-fragment work, such as vertex and compute shading. A high value is a concern when it does "
           "not overlap with fragment work; then look for dependencies that keep the two apart."),
        in("8, 9", (COMPUTE_ACTIVE / SHADER_CORE_ACTIVE) * 100,
           "This expression defines the percentage of the \"Any active cycles\" of the shader cores in which "
           "they hold non-fragment work, such as vertex and compute shading. Cycles without any work in the "
           "cores are left out. A high value shows that geometry or compute work takes much of the time of "
           "the cores.")),
    row("Non-fragment threads", unit_none, selection::off,
        "This expression defines the number of non-fragment threads started: \"Non-fragment warps\" times "
        "the number of threads in a warp. Warps that are not full count as if they were. A high value shows "
        "much vertex or compute work; compare it with the size of draws and dispatches to find unused "
        "threads.",
        in("1-9", compute_threads)),
    row("Non-fragment cycles per thread", unit_none, selection::by_default,
        "This expression defines the average number of \"Non-fragment active cycles\" for each non-fragment "
        "thread started. It is a measure of throughput, since many threads run at the same time. A high "
        "value suggests complex vertex or compute shaders, or memory accesses with poor locality.",
        in("1-9", COMPUTE_ACTIVE / compute_threads)),
    row("Execution core utilization", unit_percent, selection::by_default, {},
        in("1-7", (EXEC_CORE_ACTIVE / GPU_ACTIVE) * 100,
           "This expression defines the percentage of \"GPU active cycles\" in which the execution core "
           "holds at least one warp. A low value beside a busy GPU shows that the front-ends do not supply "
           "enough threads, because of small triangles, tiny tasks or work bound to the tiler."),
        in("8, 9", (EXEC_CORE_ACTIVE / SHADER_CORE_ACTIVE) * 100,
           "This expression defines the percentage of the \"Any active cycles\" of the shader core in which "
           "its execution core holds at least one warp. A low value shows that the front-ends have work but "
           "do not turn it into threads fast enough, as with small triangles or with quads that are killed "
           "early.")),
    row("Shader core utilization", unit_percent, selection::by_default,
        "This expression defines the percentage of \"GPU active cycles\" in which the shader core has work "
        "of any kind, fragment or not. A low value beside a busy GPU shows that other parts, such as the "
        "tiler, or dependencies between passes, leave the cores without work.",
        in("8, 9", (SHADER_CORE_ACTIVE / GPU_ACTIVE) * 100)),
    row("All registers warp rate", unit_percent, selection::by_default,
        "This expression defines the percentage of all warps, fragment and non-fragment, that use more than "
        "32 registers for each thread. A high value reduces the number of warps that the core can hold at a "
        "time, and with it the ability to hide latency; simplify shaders or use 16-bit types.",
        in("3, 6-9", (WARP_REG_SIZE_64 / all_warps) * 100)),
    row("Full quad warp rate", unit_percent, selection::by_default,
        "This expression defines the percentage of all warps, fragment and non-fragment, that have every "
        "quad in use. A high value is good. A low value shows idle lanes in the arithmetic pipes, due to "
        "small triangles, small draws, or work groups that are no multiple of the warp size.",
        in("3, 6-9", (FULL_QUAD_WARPS / all_warps) * 100)),
    row("Diverged instruction issue rate", unit_percent, selection::by_default,
        "This expression defines the percentage of \"Executed instructions\" that are issued for warps with "
        "diverged threads. Part of the warp is idle in such instructions, so a high value shows lost "
        "performance; avoid branches on values that differ between neighbouring threads.",
        in("1-6", (EXEC_INSTR_DIVERGED / EXEC_INSTR_COUNT) * 100)),
    row("Texture accesses using mipmapped texture percentage", unit_percent, selection::by_default, {},
        in("1-3, 6", (TEX_DFCH_NUM_PASSES_MIP_MAP / TEX_DFCH_NUM_PASSES) * 100,
           "This expression defines the percentage of \"Texture quad issues\" that sample a mipmapped "
           "texture. In 3D scenes a high value is good, since mipmaps save bandwidth and improve the image; "
           "a low value suggests textures that should be given a mipmap chain."),
        in("4, 5", (TEX_INSTR_MIPMAP / TEX_INSTR) * 100,
           "This expression defines the percentage of \"Texture instructions\" that sample a mipmapped "
           "texture. In 3D scenes a high value is good, since mipmaps save bandwidth and improve the image; "
           "a low value suggests textures that should be given a mipmap chain.")),
    row("Texture accesses using compressed texture percentage", unit_percent, selection::by_default,
        "This expression defines the percentage of \"Texture instructions\" that read a compressed texture. "
        "A high value is good, since compression saves bandwidth, cache space and energy; a low value "
        "suggests assets that were not compressed, or many reads of render targets.",
        in("4, 5", (TEX_INSTR_COMPRESSED / TEX_INSTR) * 100)),
    row("Texture accesses using 3D texture percentage", unit_percent, selection::by_default,
        "This expression defines the percentage of \"Texture instructions\" that read a 3D texture. Such "
        "accesses tend to cost more filtering time and bandwidth than 2D ones. A high value in a scene with "
        "a busy texture unit suggests replacing volume textures, or sampling them at lower resolution.",
        in("4, 5", (TEX_INSTR_3D / TEX_INSTR) * 100)),
    row("Texture accesses using trilinear filter percentage", unit_percent, selection::by_default, {},
        in("1-3, 6", (TEX_TIDX_NUM_SPLIT_MIP_MAP / TEX_MSGI_NUM_QUADS) * 100,
           "This expression defines the percentage of \"Texture quads\" that are issued with a trilinear "
           "filter, which reads from two mipmap levels. Such accesses take longer than bilinear ones. A high "
           "value, together with a busy texture unit, suggests the use of bilinear filtering where it looks "
           "good enough."),
        in("4, 5", (TEX_INSTR_TRILINEAR / TEX_INSTR) * 100,
           "This expression defines the percentage of \"Texture instructions\" that use a trilinear filter, "
           "which reads from two mipmap levels. Such accesses take longer than bilinear ones. A high value, "
           "together with a busy texture unit, suggests the use of bilinear filtering where it looks good "
           "enough.")),
    row("Texture data fetches form compressed lines", unit_percent, selection::by_default,
        "This expression defines the percentage of \"Texture line fetch requests\" that fetch "
        "block-compressed texels. A high value is good, since compressed textures need less bandwidth and "
        "cache space; a low value suggests assets that could be compressed, or many reads of uncompressed "
        "render targets.",
        in("1-3, 6", (TEX_TFCH_NUM_LINES_FETCHED_BLOCK_COMPRESSED / TEX_TFCH_NUM_LINES_FETCHED) * 100)),
    row("Warp divergence percentage", unit_percent, selection::by_default,
        "This expression defines the percentage of \"Arithmetic instruction issues\" that are made for warps "
        "whose threads have diverged. Some of the lanes are idle in these instructions, so a high value "
        "shows lost performance; make branches agree for neighbouring threads.",
        in("7-9", (EXEC_INSTR_DIVERGED / arithmetic_issues) * 100)),
    row("FMA pipe utilization", unit_percent, selection::by_default,
        "This expression defines the utilization of the fused multiply-add pipe: \"Arithmetic FMA "
        "instructions\" as a percentage of \"Execution core active cycles\". A value near 100 makes this "
        "pipe the limit of the execution core, and suggests shaders with much floating-point arithmetic; "
        "simplify the maths or use 16-bit types.",
        in("7-9", (EXEC_INSTR_FMA / EXEC_CORE_ACTIVE) * 100)),
    row("CVT pipe utilization", unit_percent, selection::by_default,
        "This expression defines the utilization of the convert pipe: \"Arithmetic CVT instructions\" as a "
        "percentage of \"Execution core active cycles\". A value near 100 makes this pipe the limit of the "
        "execution core, and suggests shaders with many type conversions, comparisons or bit operations; mix "
        "fewer types and simplify index arithmetic.",
        in("7-9", (EXEC_INSTR_CVT / EXEC_CORE_ACTIVE) * 100)),
    row("SFU pipe utilization", unit_percent, selection::by_default,
        "This expression defines the utilization of the special function pipe: \"Arithmetic SFU "
        "instructions\", at four cycles each, as a percentage of \"Execution core active cycles\". A value "
        "near 100 suggests shaders with many roots, reciprocals, powers or similar functions, for which "
        "cheaper forms may exist.",
        in("7-9", ((EXEC_INSTR_SFU * 4) / EXEC_CORE_ACTIVE) * 100)),
    row("MSG pipe utilization", unit_percent, selection::by_default,
        "This expression defines the utilization of the message pipe: \"Message instructions\" as a "
        "percentage of \"Execution core active cycles\". A value near 100 suggests shaders that mostly load, "
        "store, sample and interpolate; the utilization of those units shows which of them is behind it.",
        in("7-9", (EXEC_INSTR_MSG / EXEC_CORE_ACTIVE) * 100)),
    row("Texture input bus utilization", unit_percent, selection::by_default,
        "This expression defines the utilization of the bus that brings requests to the texture unit: "
        "\"Texture message read beats\" as a percentage of \"Execution core active cycles\". A high value "
        "suggests samples with many operands, such as 3D coordinates, explicit gradients or depth "
        "comparisons.",
        in("7-9", (TEX_MSGI_NUM_FLITS / EXEC_CORE_ACTIVE) * 100)),
    row("Texture output bus utilization", unit_percent, selection::by_default,
        "This expression defines the utilization of the bus that returns results of the texture unit: "
        "\"Texture message write beats\" as a percentage of \"Execution core active cycles\". A high value "
        "suggests samplers with more precision than needed; 16-bit results take less room on the bus.",
        in("7-9", (TEX_MSGO_NUM_FLITS / EXEC_CORE_ACTIVE) * 100)),
    row("Texture 4x accesses percentage", unit_percent, selection::by_default,
        "This expression defines the percentage of \"Texture filtering cycles\" in which the filter runs in "
        "one of its fast modes, 4x bilinear or 2x trilinear. A high value is good, as samples then go at the "
        "full rate; a low value suggests formats or filters that the fast modes do not support.",
        in("7-9",
           ((TEX_FILT_NUM_FST_OPERATIONS + TEX_FILT_NUM_FXR_OPERATIONS) / TEX_FILT_NUM_OPERATIONS) * 100)),
    row("Texture samples", unit_none, selection::off,
        "This expression defines the number of texture samples taken, four for each of the \"Texture "
        "quads\". The number says how much texturing the shaders ask for, and not what each sample costs. "
        "Set against the number of fragments, a high value suggests materials with many texture layers.",
        in("1-3, 6", TEX_MSGI_NUM_QUADS * 4), in("7-9", TEX_MSGO_NUM_MSG * 4)),
    row("Texture filtering cycles per instruction", per(unit_none, unit_instruction), selection::by_default,
        {},
        in("1-3, 6", TEX_FILT_NUM_OPERATIONS / (TEX_MSGI_NUM_QUADS * 4),
           "This expression defines the average number of \"Texture filtering cycles\" for each texture "
           "sample, where each of the \"Texture quads\" stands for four samples. The value rises with costly "
           "filters, such as trilinear and anisotropic ones, and with 3D textures; simpler filtering brings "
           "a high value down."),
        in("4, 5", TEX_COORD_ISSUE / TEX_INSTR,
           "This expression defines the average number of \"Texture filtering cycles\" for each of the "
           "\"Texture instructions\". The value rises with costly filters, such as trilinear and anisotropic "
           "ones, and with 3D textures; simpler filtering brings a high value down."),
        in("7-9", TEX_FILT_NUM_OPERATIONS / (TEX_MSGO_NUM_MSG * 4),
           "This expression defines the average number of \"Texture filtering cycles\" for each texture "
           "sample, where each of the \"Texture quads\" stands for four samples. The value rises with costly "
           "filters, such as trilinear and anisotropic ones, and with 3D textures; simpler filtering brings "
           "a high value down.")),
    row("Load/store read issues", unit_none, selection::off,
        "This expression defines the number of reads that the load/store unit issues, full and partial ones "
        "together. Each takes an access cycle of the unit. A high value suggests shaders that read much "
        "buffer data; when most reads are partial ones, wider loads make fewer issues.",
        in("1-9", load_store_reads)),
    row("Load/store write issues", unit_none, selection::off,
        "This expression defines the number of writes that the load/store unit issues, full and partial ones "
        "together. A high value suggests shaders with large outputs, as vertex and compute shaders can have; "
        "when most writes are partial ones, vector stores make fewer issues.",
        in("1-9", load_store_writes)),
    row("Load/store total issues", unit_none, selection::by_default,
        "This expression defines the number of accesses that the load/store unit issues: full and partial "
        "reads, full and partial writes, and atomics. It is the measure of all work of the unit. When the "
        "value comes close to \"Execution core active cycles\", the unit is likely to limit the shaders.",
        in("1-9", load_store_issues)),
    row("Varying cycles", unit_none, selection::by_default,
        "This expression defines the number of cycles in which the varying unit interpolates, for 16-bit and "
        "32-bit values together. A high value suggests fragment shaders with many or with overly precise "
        "inputs; fewer varyings and 16-bit ones lower it.",
        in("1-9", varying_cycles)),
    row("Load/store read bytes from L2 cache", unit_byte, selection::by_default,
        "This expression defines the number of bytes that the load/store unit reads from the L2 cache, at 16 "
        "bytes for each beat. These are the reads that its own cache cannot serve. A high value suggests "
        "large buffers or scattered accesses; compact data types and better locality help.",
        in("1-9", BEATS_RD_LSC * 16)),
    row("Load/store bytes read from L2 per access cycle", unit_byte, selection::by_default,
        "This expression defines the average number of bytes that the load/store unit reads from the L2 "
        "cache for each of the \"Load/store read issues\". A low value shows that its own cache serves most "
        "reads. A high value shows poor reuse of cached data.",
        in("1-9", (BEATS_RD_LSC * 16) / load_store_reads)),
    row("Load/store read bytes from external memory", unit_byte, selection::by_default,
        "This expression defines the number of bytes read by the load/store unit that come from external "
        "memory, at 16 bytes for each beat. A high value shows buffer data that the L2 cache cannot hold; "
        "smaller types and passes that work on less data at a time save this bandwidth.",
        in("1-9", BEATS_RD_LSC_EXT * 16)),
    row("Load/store bytes read from external memory per access cycle", unit_byte, selection::by_default,
        "This expression defines the average number of bytes that come from external memory for each of the "
        "\"Load/store read issues\". The value should be low. A high value shows that shaders stream buffer "
        "data through the caches with little reuse, and are likely to wait for memory.",
        in("1-9", (BEATS_RD_LSC_EXT * 16) / load_store_reads)),
    row("Texture read bytes from L2 cache", unit_byte, selection::by_default,
        "This expression defines the number of bytes that the texture unit reads from the L2 cache, at 16 "
        "bytes for each beat. These are the reads that the texture cache cannot serve. A high value suggests "
        "large or uncompressed textures and missing mipmaps.",
        in("1-9", BEATS_RD_TEX * 16)),
    row("Texture bytes read from L2 per texture cycle", unit_byte, selection::by_default,
        "This expression defines the average number of bytes that the texture unit reads from the L2 cache "
        "for each of the \"Texture filtering cycles\". A low value shows good reuse in the texture cache. A "
        "high value suggests wide formats, missing mipmaps or scattered coordinates.",
        in("1-3, 6-9", (BEATS_RD_TEX * 16) / TEX_FILT_NUM_OPERATIONS),
        in("4, 5", (BEATS_RD_TEX * 16) / TEX_COORD_ISSUE)),
    row("Texture read bytes from external memory", unit_byte, selection::by_default,
        "This expression defines the number of bytes read by the texture unit that come from external "
        "memory, at 16 bytes for each beat. External reads cost much energy. A high value suggests more "
        "texture data than the caches can hold; compression and mipmaps reduce it most.",
        in("1-9", BEATS_RD_TEX_EXT * 16)),
    row("Texture bytes read from external memory per texture cycle", unit_byte, selection::by_default,
        "This expression defines the average number of bytes that come from external memory for each of the "
        "\"Texture filtering cycles\". A high value shows that texturing lives on memory bandwidth and not "
        "on cached data; compressed and smaller textures lower it.",
        in("1-3, 6-9", (BEATS_RD_TEX_EXT * 16) / TEX_FILT_NUM_OPERATIONS),
        in("4, 5", (BEATS_RD_TEX_EXT * 16) / TEX_COORD_ISSUE)),
    row("Load/store write bytes", unit_byte, selection::by_default,
        "This expression defines the number of bytes that the load/store unit writes to the L2 memory "
        "system, for whatever reason, at 16 bytes for each beat. A high value suggests vertex or compute "
        "shaders with large outputs; narrower types, and not storing what is cheap to compute again, reduce "
        "it.",
        in("1-3, 6-9", load_store_write_beats * 16), in("4, 5", BEATS_WR_LSC * 16)),
    row("Load/store bytes written to L2 per access cycle", unit_byte, selection::by_default,
        "This expression defines the average number of bytes that the load/store unit writes to the L2 "
        "memory system for each of the \"Load/store write issues\". A low value beside many writes suggests "
        "that its cache merges them well; a high value shows output that goes straight on to the L2 cache.",
        in("1-3, 6-9", (load_store_write_beats * 16) / load_store_writes),
        in("4, 5", (BEATS_WR_LSC * 16) / load_store_writes)),
    row("Tile buffer write bytes", unit_byte, selection::by_default,
        "This expression defines the number of bytes of pixel data that the tile buffer writes to the L2 "
        "memory system, at 16 bytes for each beat. A high value suggests high resolutions, wide formats or "
        "attachments that are stored although nobody reads them.",
        in("1-9", BEATS_WR_TIB * 16)),
    row("Execution engine utilization", unit_percent, selection::by_default,
        "This expression defines the utilization of the execution engine: the percentage of \"Execution core "
        "active cycles\" in which it issues one of the \"Executed instructions\". A high value shows shaders "
        "that are limited by their number of instructions; a low value shows warps that wait for other "
        "units.",
        in("1-6", (EXEC_INSTR_COUNT / EXEC_CORE_ACTIVE) * 100)),
    row("Texture unit utilization", unit_percent, selection::by_default,
        "This expression defines the utilization of the texture unit: the percentage of \"Execution core "
        "active cycles\" that are \"Texture filtering cycles\". A value near 100 shows that texturing limits "
        "the shaders; take fewer samples and use cheaper filters and formats.",
        in("1-3, 6-9", texture_filter_utilization), in("4, 5", texture_coordinate_utilization)),
    row("Varying unit utilization", unit_percent, selection::by_default,
        "This expression defines the utilization of the varying unit: the percentage of \"Execution core "
        "active cycles\" in which it interpolates 16-bit or 32-bit values. A value near 100 shows that "
        "interpolation limits the shaders; fewer varyings, and 16-bit ones, relieve the unit.",
        in("1-9", (varying_cycles / EXEC_CORE_ACTIVE) * 100)),
    row("Load/store unit utilization", unit_percent, selection::by_default,
        "This expression defines the utilization of the load/store unit: its read, write and atomic issues "
        "as a percentage of \"Execution core active cycles\". A value near 100 shows that buffer accesses "
        "limit the shaders; wider accesses and neighbouring threads that share data relieve the unit.",
        in("1-9", (load_store_issues / EXEC_CORE_ACTIVE) * 100)),
    row("External bus beat size", unit_byte, selection::off,
        "This configuration constant defines the number of bytes transferred per external bus beat.",
        in("1-9", BUS_WIDTH)),
    row("L2 cache slice count", unit_none, selection::off,
        "This configuration constant defines the number of L2 cache slices in the design. This increases as "
        "the number of shader cores increases.",
        in("1-9", L2_SLICES)),
    row("Shader core count", unit_none, selection::off,
        "This configuration constant defines the number of shader cores in the design.",
        in("1-9", SHADER_CORES)),
    row("Shader blend path percentage", unit_percent, selection::by_default,
        "This expression defines the percentage of \"Fragment warps\" that blend through a blend shader and "
        "not in fixed function, worked out as twice the \"Blend shader instructions\" out of the warps. A "
        "high value shows extra shading cost; simpler render target formats or blend equations avoid it.",
        in("7, 8", ((CALL_BLEND_SHADER + CALL_BLEND_SHADER) / FRAG_WARPS) * 100)),
    row("Front-end read bytes from L2 cache", unit_byte, selection::by_default,
        "This expression defines the number of bytes that the fragment front-end reads from the L2 cache, at "
        "16 bytes for each beat. It reads tile lists and the data of their primitives, so a high value "
        "suggests dense geometry or primitives that cross many tiles.",
        in("1-9", BEATS_RD_FTC * 16)),
    row("Front-end read bytes from external memory", unit_byte, selection::by_default,
        "This expression defines the number of bytes read by the fragment front-end that come from external "
        "memory, at 16 bytes for each beat. A high value shows that the geometry of a render pass does not "
        "stay in the L2 cache until its tiles are shaded; fewer or smaller vertices help.",
        in("1-9", BEATS_RD_FTC_EXT * 16)),
    row("Texture unit filtering utilization", unit_percent, selection::off,
        "This expression defines the share of \"Execution core active cycles\" in which the filtering stage "
        "of the texture unit works, in percent. It shows how close the filter comes to its peak rate. A high "
        "value suggests cheaper filters, such as bilinear for trilinear, and less anisotropy.",
        in("1-3, 6-9", texture_filter_utilization), in("4, 5", texture_coordinate_utilization)),
    row("Texture unit cache utilization", unit_percent, selection::off,
        "This expression defines the share of \"Execution core active cycles\" in which the texture unit "
        "looks up its cache, in percent. When this value is high and that of the filter is lower, the "
        "gathering of texels limits texturing; compressed formats and smoother coordinates help.",
        in("1-3, 6", (TEX_TFCH_NUM_OPERATIONS / EXEC_CORE_ACTIVE) * 100)),
    row("Position cache hit rate", unit_percent, selection::by_default,
        "This expression defines the percentage of lookups of the cache for shaded positions that find their "
        "vertex, hits out of hits and misses. A high value is good. A low value suggests index buffers with "
        "poor locality, so that the positions of the same vertices are shaded again.",
        in("1-9", (VCACHE_HIT / (VCACHE_MISS + VCACHE_HIT)) * 100)),
    row("Varying cache hit rate", unit_percent, selection::by_default,
        "This expression defines the percentage of lookups of the cache for shaded varyings that find their "
        "vertex, hits out of hits and misses. A low value suggests indices that return to a vertex too late; "
        "sorting the triangles of a mesh for locality lets more of them share shaded vertices.",
        in("1-9", (IDVS_VBU_HIT / (IDVS_VBU_MISS + IDVS_VBU_HIT)) * 100)),
    row("FPK occluder quad percentage", unit_percent, selection::by_default,
        "This expression defines the percentage of the quads left after early ZS testing that can act as "
        "occluders for forward pixel kill. A high value is good, since each of them may save the shading of "
        "what lies beneath; blending, discard and partly covered quads lower it.",
        in("1-9", (QUAD_FPK_KILLER / quads_after_early_zs) * 100)),
    row("Position threads per input primitive", unit_none, selection::by_default,
        "This expression defines the average number of position shading threads for each of the \"Total "
        "input primitives\". The better the triangles of a mesh share vertices, the lower the value. A high "
        "value suggests unindexed draws, sparse use of index ranges or poor locality of indices.",
        in("1-9", (IDVS_POS_SHAD_REQ * 4) / input_primitives)),
    row("Varying threads per input primitive", unit_none, selection::by_default,
        "This expression defines the average number of varying shading threads for each of the \"Visible "
        "primitives\". A low value shows that primitives share shaded vertices well. A high value suggests "
        "meshes that repeat vertices, or indices whose order makes the cache lose vertices before they are "
        "used again.",
        in("1-9", (IDVS_VAR_SHAD_REQ * 4) / PRIM_VISIBLE)),
    row("Arithmetic instruction issues", unit_instruction, selection::off,
        "This expression defines the number of arithmetic instructions that warps issue, to the FMA, CVT and "
        "SFU pipes together. A high value beside few \"Message instructions\" shows shaders in which "
        "computing outweighs data access; simpler maths then brings the best return.",
        in("7-9", arithmetic_issues)),
    row("Processing unit utilization", unit_percent, selection::by_default,
        "This expression defines the utilization of the processing unit: \"Arithmetic instruction issues\" "
        "as a percentage of \"Execution core active cycles\". A high value shows shaders that are limited by "
        "arithmetic; as the pipes work side by side, the utilization of each one tells which of them to "
        "relieve.",
        in("7-9", (arithmetic_issues / EXEC_CORE_ACTIVE) * 100))};

}  // namespace expressions

using expressions::derived_rows;

inline constexpr auto tables_of_derived_rows =
    derived_rows.apply([](const auto&... rows) { return std::array{rows.tables()...}; });

// The id of a row in a table that has it. With the number of all rows: the id behind the table's last.
constexpr std::uint32_t derived_id(unsigned table, std::size_t row_index) {
    const auto first = tables_of_derived_rows.begin();
    return first_derived_id +
           static_cast<std::uint32_t>(std::count_if(
               first, first + row_index, [table](table_set tables) { return tables.contains(table); }));
}

}  // namespace qel::vexa::hwc
