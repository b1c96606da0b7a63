// The raw counters of the shader core block. Some ids stand for different counters in different tables.
#pragma once

#include <array>
#include <string_view>

#include "hwc/raw_row.h"

namespace qel::vexa::hwc {

// Sentences in which the tables differ, for the rows below that say the same apart from them.
inline constexpr std::string_view tiles_16x16_note =
    "Tiles are normally 16x16 pixels in size; a tile gets smaller when each pixel takes many bits of the "
    "tile buffer.";
inline constexpr std::string_view tiles_16x16_up_to_128_bits_note =
    "Tiles are normally 16x16 pixels in size; a tile gets smaller when more than 128 bits per pixel of the "
    "tile buffer are used.";
inline constexpr std::string_view tiles_16x16_up_to_256_bits_note =
    "Tiles are normally 16x16 pixels in size; a tile gets smaller when more than 256 bits per pixel of the "
    "tile buffer are used.";
inline constexpr std::string_view tiles_32x32_note =
    "Tiles are normally 32x32 pixels in size; a tile gets smaller when each pixel takes many bits of the "
    "tile buffer.";

// The body of those rows.
inline constexpr std::string_view tiles_body =
    "This counter increments for every tile that the shader core renders, whether or not the finished tile "
    "is then written to memory. The number rises with the resolution of the render targets and with the "
    "number of render passes in a frame.";

inline constexpr auto shader_core_rows = std::to_array<raw_row>({
    {.at = {{{196, all_tables}}},
     .name = "Fragment active cycles",
     .hardware_name = "FRAG_ACTIVE",
     .body = "This counter increments every clock cycle where the shader core holds any fragment work, from "
             "reading the list of primitives of a tile to writing out the finished tile. It tells occupancy "
             "and not progress: a core that does nothing but wait for memory still counts as active."},
    {.at = {{{197, tables("1-6")}}},
     .name = "Fragment read primitives",
     .hardware_name = "FRAG_PRIMITIVES",
     .body = "This counter increments for every primitive that the fragment front-end reads from a tile "
             "list. A primitive that crosses several tiles is read again for each of them, so a value far "
             "above the number of visible primitives suggests large triangles or long thin ones.",
     .unit = unit_primitive},
    {.at = {{{197, tables("7-9")}}},
     .name = "Fragment read primitives",
     .hardware_name = "FRAG_PRIMITIVES_OUT",
     .body =
         "This counter increments for every primitive that the tile list reader of the fragment front-end "
         "passes on to rasterization. Each tile that a primitive touches adds one: multiply by the \"Shader "
         "core count\" and compare with \"Visible primitives\" to learn how many tiles a primitive crosses.",
     .unit = unit_primitive},
    {.at = {{{198, all_tables}}},
     .name = "Rasterized primitives",
     .hardware_name = "FRAG_PRIM_RAST",
     .body = "This counter increments for every primitive that the rasterizer turns into coverage for a "
             "tile. A count well below \"Fragment read primitives\" suggests that many primitives are listed "
             "for tiles in which they cover no sample, as slivers and very small triangles tend to be.",
     .unit = unit_primitive},
    {.at = {{{199, all_tables}}},
     .name = "Forward pixel kill buffer active cycles",
     .hardware_name = "FRAG_FPK_ACTIVE",
     .body = "This counter increments every clock cycle where the buffer of the forward pixel kill (FPK) "
             "stage holds at least one quad that waits to become fragment threads. A value close to "
             "\"Fragment active cycles\" is good: shading always has quads to draw on. A low value suggests "
             "a front-end that falls behind."},
    {.at = {{{200, all_tables}}},
     .name = "Fragment front-end starvation cycles",
     .hardware_name = "FRAG_STARVING",
     .body = "This counter increments every clock cycle where fragment work is active but the front-end has "
             "no quad ready from which a new warp could be built. A high value shows that primitive reads, "
             "rasterization or early ZS testing hold shading back, for example because most quads are killed "
             "early."},
    {.at = {{{201, all_tables}}},
     .name = "Fragment warps",
     .hardware_name = "FRAG_WARPS",
     .body = "This counter increments for every warp of fragment threads that the front-end creates and "
             "hands to the "
             "execution core. Quads killed by early ZS testing or by forward pixel kill (FPK) have left the "
             "pipeline "
             "before this point and do not count.",
     .selected = selection::by_default,
     .note = warp_size_note},
    {.at = {{{202, tables("1-6")}}},
     .name = "Partial fragment warps",
     .hardware_name = "FRAG_PARTIAL_WARPS",
     .body = "This counter increments for every fragment warp that is created with at least one thread that "
             "lies outside its primitive. Such threads occupy the core without adding to the image; a high "
             "share of all fragment warps suggests many triangles of only a few pixels in size."},
    {.at = {{{202, tables("7-9")}}},
     .name = "Partial rasterized quads",
     .hardware_name = "FRAG_PARTIAL_QUADS_RAST",
     .body =
         "This counter increments for every rasterized 2x2 quad in which the primitive covers some of the "
         "pixels but not all four. The uncovered pixels still take up shading threads. A high share of "
         "\"Rasterized quads\" suggests dense meshes, which simpler models for distant objects relieve."},
    {.at = {{{203, all_tables}}},
     .name = "Rasterized quads",
     .hardware_name = "FRAG_QUADS_RAST",
     .body = "This counter increments for every 2x2 pixel quad that rasterization produces, before any depth "
             "or stencil test is made. It is the total against which the early and late ZS counters are set, "
             "and it grows with screen coverage and with the number of overlapping layers."},
    {.at = {{{204, all_tables}}},
     .name = "Early ZS tested quads",
     .hardware_name = "FRAG_QUADS_EZS_TEST",
     .body = "This counter increments for every quad that goes through early depth and stencil (ZS) testing, "
             "before any thread is started for it. A count close to \"Rasterized quads\" is best. Quads that "
             "skip the early test often belong to draws with testing disabled, or whose shader discards "
             "pixels or writes depth."},
    {.at = {{{205, all_tables}}},
     .name = "Early ZS updated quads",
     .hardware_name = "FRAG_QUADS_EZS_UPDATE",
     .body = "This counter increments for every quad whose early ZS test also stores a new depth or stencil "
             "value in the tile buffer. Early updates allow quads behind the surface to be rejected before "
             "they are shaded. Draws that test without writing, such as most transparent layers, keep this "
             "count low."},
    {.at = {{{206, all_tables}}},
     .name = "Early ZS killed quads",
     .hardware_name = "FRAG_QUADS_EZS_KILL",
     .body = "This counter increments for every quad that early ZS testing rejects completely, so that no "
             "fragment threads are spent on it. A high count shows hidden surfaces that are removed at low "
             "cost, which drawing opaque objects from front to back encourages."},
    {.at = {{{207, all_tables}}},
     .name = "Late ZS tested quads",
     .hardware_name = "FRAG_LZS_TEST",
     .body = "This counter increments for every quad that is tested against depth and stencil late, after "
             "its fragment shader has run. A high value deserves attention: shaders that discard pixels or "
             "write their own depth usually force the late test, and quads that follow may have to wait for "
             "its outcome."},
    {.at = {{{208, all_tables}}},
     .name = "Late ZS killed quads",
     .hardware_name = "FRAG_LZS_KILL",
     .body = "This counter increments for every quad that late ZS testing rejects, after the cost of shading "
             "it has been paid. High values mean wasted work: look for draws that could be moved to the "
             "early test by taking discard and depth writes out of their shaders."},
    {.at = {{{209, tables("3, 6-9")}}},
     .name = "Warps using more than 32 registers",
     .hardware_name = "WARP_REG_SIZE_64",
     .body = "This counter increments for every warp, fragment or not, whose shader program needs more than "
             "32 registers for each thread. The core has room for fewer such warps at a time and hides "
             "memory latency less well; shorter live ranges and 16-bit types bring the need down."},
    {.at = {{{210, tables("1-3, 6-8")}}},
     .name = "Tiles",
     .hardware_name = "FRAG_PTILES",
     .body = tiles_body,
     .note = tiles_16x16_note},
    {.at = {{{210, tables("4")}}},
     .name = "Tiles",
     .hardware_name = "FRAG_PTILES",
     .body = tiles_body,
     .note = tiles_16x16_up_to_128_bits_note},
    {.at = {{{210, tables("5")}}},
     .name = "Tiles",
     .hardware_name = "FRAG_PTILES",
     .body = tiles_body,
     .note = tiles_16x16_up_to_256_bits_note},
    {.at = {{{210, tables("9")}}},
     .name = "Tiles",
     .hardware_name = "FRAG_PTILES",
     .body = tiles_body,
     .note = tiles_32x32_note},
    {.at = {{{211, all_tables}}},
     .name = "Unchanged tiles killed",
     .hardware_name = "FRAG_TRANS_ELIM",
     .body = "This counter increments for every finished tile that is not written out, because its signature "
             "shows that memory already holds the same pixels. Static screens give high values, and each of "
             "these tiles saves write bandwidth but was still shaded: areas that never change need not be "
             "drawn at all."},
    {.at = {{{212, all_tables}}},
     .name = "FPK occluder quads",
     .hardware_name = "QUAD_FPK_KILLER",
     .body =
         "This counter increments for every quad that is fit to act as an occluder for forward pixel kill "
         "(FPK): it hides what lies under it, so that older quads at the same place need not be shaded. A "
         "low value beside \"Rasterized quads\" suggests much blending, discard or partial coverage."},
    {.at = {{{213, tables("3, 6-9")}}},
     .name = "Full quad warps",
     .hardware_name = "FULL_QUAD_WARPS",
     .body = "This counter increments for every warp that is created with all of its quads in use. Full "
             "warps use the arithmetic pipes best. A low share of all warps suggests very small primitives "
             "in fragment work, or very small draws and work groups in non-fragment work."},
    {.at = {{{214, all_tables}}},
     .name = "Non-fragment active cycles",
     .hardware_name = "COMPUTE_ACTIVE",
     .body =
         "This counter increments every clock cycle where the shader core holds any non-fragment work, such "
         "as vertex, tessellation, geometry or compute shading. Cycles spent waiting count too. Fragment "
         "work can be active at the same time, and the two kinds then compete for the execution core."},
    {.at = {{{215, all_tables}}},
     .name = "Non-fragment tasks",
     .hardware_name = "COMPUTE_TASKS",
     .body = "This counter increments for every task of non-fragment work that is issued to the shader core. "
             "A task is a portion of a vertex or compute job and has no fixed size, so the count tells that "
             "work arrives and not how much of it; \"Non-fragment warps\" is the better measure of load."},
    {.at = {{{216, all_tables}}},
     .name = "Non-fragment warps",
     .hardware_name = "COMPUTE_WARPS",
     .body =
         "This counter increments for every warp of non-fragment threads that the shader core creates, for "
         "vertex, compute and similar shading alike. A warp that is only partly filled costs as much as a "
         "full "
         "one, so the size of a work group is best kept to a multiple of the warp size.",
     .selected = selection::by_default,
     .note = warp_size_note},
    {.at = {{{217, all_tables}}},
     .name = "Non-fragment front-end starvation cycles",
     .hardware_name = "COMPUTE_STARVING",
     .body = "This counter increments every clock cycle where non-fragment work is active but its front-end "
             "has no new warp ready to start. A high value suggests that tasks are too small or come too "
             "slowly, so that the launch of threads limits speed and not the shader code that they run."},
    {.at = {{{218, all_tables}}},
     .name = "Execution core active cycles",
     .hardware_name = "EXEC_CORE_ACTIVE",
     .body = "This counter increments every clock cycle where at least one warp is resident in the execution "
             "core, whether it issues an instruction or waits for a result. The utilization of the units "
             "inside the core is measured against this counter. A low value leads back to the front-ends or "
             "to an idle GPU."},
    {.at = {{{219, tables("1-6")}}},
     .name = "Execution engine active cycles",
     .hardware_name = "EXEC_ACTIVE",
     .body =
         "This counter increments every clock cycle where the execution engine, the part of the core that "
         "runs shader instructions, is busy with at least one warp. Set \"Executed instructions\" against it "
         "to see how often a busy engine gets to issue; a low ratio suggests warps that mostly wait."},
    {.at = {{{219, tables("7-9")}}},
     .name = "Arithmetic FMA instructions",
     .hardware_name = "EXEC_INSTR_FMA",
     .body = "This counter increments for every instruction that a warp issues to the fused multiply-add "
             "(FMA) pipe, where most floating-point additions and multiplications are done. A value close to "
             "\"Execution core active cycles\" shows shaders that are limited by this arithmetic.",
     .unit = unit_instruction},
    {.at = {{{220, tables("1-6")}}},
     .name = "Executed instructions",
     .hardware_name = "EXEC_INSTR_COUNT",
     .body =
         "This counter increments for every instruction that the execution engine runs, counted once for a "
         "whole warp and not for each of its threads. A value close to \"Execution core active cycles\" "
         "shows shading that is limited by instruction count, and shorter shaders will speed it up.",
     .unit = unit_instruction},
    {.at = {{{220, tables("7-9")}}},
     .name = "Arithmetic CVT instructions",
     .hardware_name = "EXEC_INSTR_CVT",
     .body = "This counter increments for every instruction that a warp issues to the convert (CVT) pipe, "
             "which takes the simpler operations such as type conversions, comparisons and bit logic. Values "
             "near \"Execution core active cycles\" suggest much mixing of types or heavy index arithmetic.",
     .unit = unit_instruction},
    {.at = {{{221, tables("1-6")}, {223, tables("7-9")}}},
     .name = "Diverged instructions",
     .hardware_name = "EXEC_INSTR_DIVERGED",
     .body = "This counter increments for every instruction that is issued for a warp whose threads have "
             "taken different paths, so that some of the threads are masked out. A high value shows branches "
             "that split warps; conditions that agree for neighbouring threads avoid the loss.",
     .unit = unit_instruction},
    {.at = {{{221, tables("7-9")}}},
     .name = "Arithmetic SFU instructions",
     .hardware_name = "EXEC_INSTR_SFU",
     .body = "This counter increments for every instruction that a warp issues to the special function unit "
             "(SFU), which computes functions such as reciprocals, square roots, logarithms and powers. Each "
             "one holds the pipe for four cycles, so even a moderate number of them can fill it.",
     .unit = unit_instruction},
    {.at = {{{222, tables("1-6")}}},
     .name = "Execution engine starvation cycles",
     .hardware_name = "EXEC_INSTR_STARVING",
     .body = "This counter increments every clock cycle where the execution engine could run an instruction "
             "but no warp has one that is ready. A high value suggests waits for texture or memory results, "
             "instruction fetches that miss, or too few resident warps to cover the latency."},
    {.at = {{{222, tables("7-9")}}},
     .name = "Message instructions",
     .hardware_name = "EXEC_INSTR_MSG",
     .body = "This counter increments for every instruction that a warp issues to the message pipe, which "
             "carries requests to units such as load/store, texture and varying interpolation. Many of these "
             "beside few arithmetic instructions suggest shaders that are bound by data access.",
     .unit = unit_instruction},
    {.at = {{{223, tables("1-6")}}},
     .name = "Arithmetic instructions",
     .hardware_name = "ARITH_INSTR_SINGLE_FMA",
     .body = "This counter increments for every instruction that holds one arithmetic operation, for the FMA "
             "pipe, and nothing in its second slot. A high value beside a low one in \"Arithmetic + "
             "Arithmetic instructions\" suggests code in which each result depends on the one before.",
     .unit = unit_instruction},
    {.at = {{{224, tables("1-6")}}},
     .name = "Arithmetic + Arithmetic instructions",
     .hardware_name = "ARITH_INSTR_DOUBLE",
     .body = "This counter increments for every instruction that holds two arithmetic operations, which are "
             "issued together. This is the densest form of arithmetic: the larger its share of \"Executed "
             "instructions\", the better the shader code fills the pipes.",
     .unit = unit_instruction},
    {.at = {{{224, tables("7-9")}}},
     .name = "Instruction cache misses",
     .hardware_name = "EXEC_ICACHE_MISS",
     .body =
         "This counter increments for every access to the instruction cache of the execution core that "
         "misses, so that program code has to be fetched from further away. Some misses follow every change "
         "of shader; a steadily high value suggests very long shaders, or many that run side by side."},
    {.at = {{{225, tables("1-6")}}},
     .name = "Arithmetic + Message instructions",
     .hardware_name = "ARITH_INSTR_MSG",
     .body = "This counter increments for every instruction that pairs an arithmetic operation with a "
             "message to another unit of the core, such as load/store or texture. The message then needs no "
             "issue cycle of its own, so a high value compared to \"Message instructions\" is welcome.",
     .unit = unit_instruction},
    {.at = {{{225, tables("7-9")}}},
     .name = "Processing unit starvation cycles",
     .hardware_name = "EXEC_STARVE_ARITH",
     .body =
         "This counter increments every clock cycle where the arithmetic processing unit has no instruction "
         "to work on although the execution core holds warps. A high value suggests that the warps wait for "
         "loads, textures or varyings, or that too few of them are resident to cover such waits."},
    {.at = {{{226, tables("1-6")}}},
     .name = "Message instructions",
     .hardware_name = "ARITH_INSTR_MSG_ONLY",
     .body = "This counter increments for every instruction that sends a message to another unit of the "
             "core, such as load/store or texture, and holds no arithmetic operation. A high share of "
             "\"Executed instructions\" suggests shaders that mostly move data or sample textures.",
     .unit = unit_instruction},
    {.at = {{{226, tables("7-9")}}},
     .name = "Blend shader instructions",
     .hardware_name = "CALL_BLEND_SHADER",
     .body =
         "This counter increments for every instruction that calls a blend shader, the program that stands "
         "in where fixed-function blending cannot serve a format or a blend equation. Each call adds shading "
         "work to its fragments; a high value suggests simpler render target formats and blend modes.",
     .unit = unit_instruction},
    {.at = {{{227, tables("1-3, 6")}}},
     .name = "Texture quads",
     .hardware_name = "TEX_MSGI_NUM_QUADS",
     .body = "This counter increments for every quad that the texture unit receives from the execution core "
             "with a request to sample. A quad stands for four samples, and the count shows how much "
             "texturing the shaders ask for, whatever filter the samples use."},
    {.at = {{{227, tables("4, 5")}}},
     .name = "Texture instructions",
     .hardware_name = "TEX_INSTR",
     .body = "This counter increments for every texture instruction that is issued to the texture unit. "
             "Compare it with \"Texture filtering cycles\": a count of cycles several times as high shows "
             "accesses that are expensive through their filter, their dimension or their format.",
     .unit = unit_instruction},
    {.at = {{{227, tables("7-9")}}},
     .name = "Texture message read beats",
     .hardware_name = "TEX_MSGI_NUM_FLITS",
     .body = "This counter increments for every beat that the texture unit reads from its input bus, on "
             "which messages from the execution core bring coordinates and other operands. Accesses with "
             "more operands need more beats, so a high value can make this bus the limit of texturing."},
    {.at = {{{228, tables("1-3, 6")}}},
     .name = "Texture quad issues",
     .hardware_name = "TEX_DFCH_NUM_PASSES",
     .body = "This counter increments for every pass in which a quad is issued into the texture unit, after "
             "its descriptors have been looked up. A count above that of \"Texture quads\" shows quads that "
             "need more than one pass, each of which takes texturing time."},
    {.at = {{{228, tables("4, 5")}}},
     .name = "Mipmapped texture instructions",
     .hardware_name = "TEX_INSTR_MIPMAP",
     .body = "This counter increments for every texture instruction that samples a texture with mipmaps. In "
             "a 3D scene a low share of \"Texture instructions\" suggests textures without a mipmap chain, "
             "which cost bandwidth and cache space, and shimmer, when they are seen from far away.",
     .unit = unit_instruction},
    {.at = {{{228, tables("7-9")}}},
     .name = "Texture descriptor stalls",
     .hardware_name = "TEX_DFCH_CLK_STALLED",
     .body =
         "This counter increments every clock cycle where the texture unit is stalled because a texture or "
         "sampler descriptor that it needs has not been fetched yet. High values suggest draws that use many "
         "different textures and samplers at a time; texture arrays and atlases reduce their number."},
    {.at = {{{229, tables("1-3, 6")}}},
     .name = "Texture quad descriptor misses",
     .hardware_name = "TEX_DFCH_NUM_PASSES_MISS",
     .body = "This counter increments for every quad issue for which a texture or sampler descriptor is "
             "missing from the descriptor cache and has to be fetched. A high share of \"Texture quad "
             "issues\" suggests draws that switch between many textures or samplers."},
    {.at = {{{229, tables("4, 5")}}},
     .name = "Compressed texture instructions",
     .hardware_name = "TEX_INSTR_COMPRESSED",
     .body =
         "This counter increments for every texture instruction that reads from a compressed texture. "
         "Compression saves bandwidth and texture cache space, so a low share of \"Texture instructions\" "
         "suggests assets that have been left uncompressed, or heavy use of rendered textures.",
     .unit = unit_instruction},
    {.at = {{{229, tables("7-9")}}},
     .name = "Texture fetch stalls",
     .hardware_name = "TEX_TFCH_CLK_STALLED",
     .body = "This counter increments every clock cycle where the texel fetch stage of the texture unit is "
             "stalled and can take no further quad. High values suggest poor locality: mipmaps, compressed "
             "formats and coordinates that change smoothly from pixel to pixel make better use of the "
             "texture cache."},
    {.at = {{{230, tables("1-3, 6")}}},
     .name = "Mipmapped texture quad issues",
     .hardware_name = "TEX_DFCH_NUM_PASSES_MIP_MAP",
     .body = "This counter increments for every quad issue that samples a texture with mipmaps. Its share of "
             "\"Texture quad issues\" is normally high in 3D scenes; where it is low, textures that lack "
             "mipmaps may waste bandwidth on texels that never show."},
    {.at = {{{230, tables("4, 5")}}},
     .name = "3D texture instructions",
     .hardware_name = "TEX_INSTR_3D",
     .body = "This counter increments for every texture instruction that samples a 3D texture. Volume "
             "textures need texels from neighbouring slices as well and so tend to cost more filtering time "
             "and bandwidth than 2D ones; a high value makes them worth a closer look.",
     .unit = unit_instruction},
    {.at = {{{230, tables("7-9")}}},
     .name = "Texture filtering stalls",
     .hardware_name = "TEX_TFCH_STARVED_PENDING_DATA_FETCH",
     .body = "This counter increments every clock cycle where filtering has no work because the texels that "
             "it needs are still on their way from the L2 cache or from external memory. A high value shows "
             "texturing that is limited by memory latency or bandwidth and not by the filter."},
    {.at = {{{231, tables("1-3, 6")}}},
     .name = "Trilinear filtered texture quad issues",
     .hardware_name = "TEX_TIDX_NUM_SPLIT_MIP_MAP",
     .body = "This counter increments for every quad issue that is split in two because its trilinear filter "
             "reads from two mipmap levels. Each such quad takes about twice the filtering time of a "
             "bilinear one, so a high share of \"Texture quads\" is a good place to save."},
    {.at = {{{231, tables("4, 5")}}},
     .name = "Trilinear filtered texture instructions",
     .hardware_name = "TEX_INSTR_TRILINEAR",
     .body =
         "This counter increments for every texture instruction that samples with a trilinear filter, which "
         "blends between two mipmap levels and takes longer than a bilinear one. A high share of \"Texture "
         "instructions\" suggests trying bilinear filtering where the difference does not show.",
     .unit = unit_instruction},
    {.at = {{{232, tables("1-3, 6")}}},
     .name = "Texture line fetch requests",
     .hardware_name = "TEX_TFCH_NUM_LINES_FETCHED",
     .body = "This counter increments for every line of texel data that the texture cache requests from the "
             "L2 cache. A high value next to \"Texture cache lookup requests\" shows poor reuse of cached "
             "texels; mipmaps and compressed textures bring it down."},
    {.at = {{{232, tables("4, 5")}}},
     .name = "Texture filtering cycles",
     .hardware_name = "TEX_COORD_ISSUE",
     .body = "This counter increments every clock cycle where the texture unit issues sample coordinates to "
             "be filtered. An instruction with an expensive filter stays for several cycles; a value near "
             "\"Execution core active cycles\" shows a texture unit that is close to its peak rate.",
     .selected = selection::by_default},
    {.at = {{{232, tables("7-9")}}},
     .name = "Texture filtering cycles using 4x bilinear",
     .hardware_name = "TEX_FILT_NUM_FXR_OPERATIONS",
     .body =
         "This counter increments every clock cycle where the texture filter runs in its 4x bilinear mode, "
         "its fast path for bilinear samples. Formats and filters that cannot use the mode run slower, so a "
         "high share of \"Texture filtering cycles\" means that texturing goes on at a good rate.",
     .selected = selection::by_default},
    {.at = {{{233, tables("1-3, 6")}}},
     .name = "Compressed texture line fetch requests",
     .hardware_name = "TEX_TFCH_NUM_LINES_FETCHED_BLOCK_COMPRESSED",
     .body = "This counter increments for every line fetched into the texture cache that holds "
             "block-compressed texels. A compressed line carries more texels for the same traffic, so a high "
             "share of \"Texture line fetch requests\" is desirable."},
    {.at = {{{233, tables("4, 5")}}},
     .name = "Texture filtering coordinate stall cycles",
     .hardware_name = "TEX_COORD_STALL",
     .body = "This counter increments every clock cycle where a texture access has its coordinates ready but "
             "cannot enter the filtering path, because the stages ahead are full. A high value shows that "
             "shaders ask for samples faster than the texture unit completes them."},
    {.at = {{{233, tables("7-9")}}},
     .name = "Texture filtering cycles using 2x trilinear",
     .hardware_name = "TEX_FILT_NUM_FST_OPERATIONS",
     .body = "This counter increments every clock cycle where the texture filter runs in its 2x trilinear "
             "mode, its fast path for samples that blend two mipmap levels. Compare with \"Texture filtering "
             "cycles using 4x bilinear\" to see how filtering time divides between the two modes.",
     .selected = selection::by_default},
    {.at = {{{234, tables("1-3, 6")}}},
     .name = "Texture cache lookup requests",
     .hardware_name = "TEX_TFCH_NUM_OPERATIONS",
     .body = "This counter increments for every lookup that the texture unit makes in the texture cache. The "
             "filter may need several lookups to collect the texels of one quad; a value close to "
             "\"Execution core active cycles\" makes the cache, and not the filter, the limit of texturing.",
     .selected = selection::by_default},
    {.at = {{{234, tables("4, 5")}}},
     .name = "Texture line fill stall cycles",
     .hardware_name = "TEX_STARVE_CACHE",
     .body = "This counter increments every clock cycle where texturing is held up because a line of the "
             "texture cache is still being filled. High values suggest textures that are too large or "
             "uncompressed, sampled without mipmaps, or read through scattered coordinates."},
    {.at = {{{234, tables("7-9")}}},
     .name = "Texture quads",
     .hardware_name = "TEX_MSGO_NUM_MSG",
     .body = "This counter increments for every quad whose filtered result the texture unit sends back to "
             "the execution core. A quad stands for four samples, so this is the measure of finished texture "
             "work; set it against \"Texture filtering cycles\" to learn the cost of an access."},
    {.at = {{{235, tables("1-3, 6")}, {231, tables("7-9")}}},
     .name = "Texture filtering cycles",
     .hardware_name = "TEX_FILT_NUM_OPERATIONS",
     .body = "This counter increments every clock cycle where the filtering stage of the texture unit works "
             "on samples. Costly filters and formats take several cycles for the same quad. A value close to "
             "\"Execution core active cycles\" marks texture filtering as the limit of shading.",
     .selected = selection::by_default},
    {.at = {{{235, tables("4, 5")}}},
     .name = "Texture filtering partial data stall cycles",
     .hardware_name = "TEX_STARVE_FILTER",
     .body = "This counter increments every clock cycle where filtering waits because only a part of the "
             "texels for a sample has arrived from the cache. High values suggest filters whose footprint "
             "spans many cache lines, such as trilinear ones or those on 3D textures."},
    {.at = {{{235, tables("7-9")}}},
     .name = "Texture message write beats",
     .hardware_name = "TEX_MSGO_NUM_FLITS",
     .body = "This counter increments for every beat that the texture unit writes to its output bus, on "
             "which results return to the execution core. Wider results need more beats: where the value is "
             "high, sampling at 16-bit instead of 32-bit precision relieves the bus."},
    {.at = {{{236, all_tables}}},
     .name = "Load/store full read issues",
     .hardware_name = "LS_MEM_READ_FULL",
     .body = "This counter increments for every read that the load/store unit issues at the full width of "
             "its cache interface. Such reads use the unit best. A high share of \"Load/store read issues\" "
             "shows vector loads and neighbouring threads that read neighbouring data.",
     .selected = selection::by_default},
    {.at = {{{237, all_tables}}},
     .name = "Load/store partial read issues",
     .hardware_name = "LS_MEM_READ_SHORT",
     .body = "This counter increments for every read that the load/store unit issues for less than the full "
             "width of its cache interface. Each takes as much time as a full one, so a high value suggests "
             "narrow or scattered loads that could be widened to vectors or merged across threads.",
     .selected = selection::by_default},
    {.at = {{{238, all_tables}}},
     .name = "Load/store full write issues",
     .hardware_name = "LS_MEM_WRITE_FULL",
     .body = "This counter increments for every write that the load/store unit issues at the full width of "
             "its cache interface. A high share of \"Load/store write issues\" shows output that is packed "
             "well, since few issues then store much data.",
     .selected = selection::by_default},
    {.at = {{{239, all_tables}}},
     .name = "Load/store partial write issues",
     .hardware_name = "LS_MEM_WRITE_SHORT",
     .body = "This counter increments for every write that the load/store unit issues for less than the full "
             "width of its cache interface. High values suggest that shaders store single values or leave "
             "gaps between the data of neighbouring threads; vector stores and denser layouts help.",
     .selected = selection::by_default},
    {.at = {{{240, all_tables}}},
     .name = "Load/store atomic issues",
     .hardware_name = "LS_MEM_ATOMIC",
     .body = "This counter increments for every atomic access that the load/store unit issues. Atomic "
             "operations on one address have to follow each other, so a high value can hold up the whole "
             "unit; reduce within a work group first, or spread the updates across several addresses.",
     .selected = selection::by_default},
    {.at = {{{241, all_tables}}},
     .name = "Varying instructions",
     .hardware_name = "VARY_INSTR",
     .body = "This counter increments for every interpolation instruction that is issued to the varying "
             "unit, counted once for a whole warp. The time that it takes depends on the number of "
             "components and their width, so use \"Varying cycles\" to judge the cost.",
     .unit = unit_instruction},
    {.at = {{{242, all_tables}}},
     .name = "32-bit interpolation active",
     .hardware_name = "VARY_SLOT_32",
     .body = "This counter increments every clock cycle where the varying unit interpolates 32-bit values. "
             "High values suggest inputs of fragment shaders that are declared with more precision than they "
             "need; most of them, apart from texture coordinates and positions, can do with 16 bits.",
     .selected = selection::by_default},
    {.at = {{{243, all_tables}}},
     .name = "16-bit interpolation active",
     .hardware_name = "VARY_SLOT_16",
     .body =
         "This counter increments every clock cycle where the varying unit interpolates 16-bit values, the "
         "cheaper of its two widths. A high value beside a low one in \"32-bit interpolation active\" shows "
         "that reduced precision is already used; then only fewer varyings will save time.",
     .selected = selection::by_default},
    {.at = {{{244, all_tables}}},
     .name = "Attribute instructions",
     .hardware_name = "ATTR_INSTR",
     .body = "This counter increments for every instruction that is issued to the attribute unit, which "
             "locates and converts formatted data such as vertex attributes. A high value suggests vertex "
             "shaders with many inputs; packing several of them into one attribute makes fewer accesses.",
     .unit = unit_instruction},
    {.at = {{{245, tables("1-7")}}},
     .name = "Arithmetic multiplication instructions",
     .hardware_name = "ARITH_INSTR_FP_MUL",
     .body = "This counter increments for every arithmetic instruction that includes a floating-point "
             "multiplication, counted once for a whole warp. The value tells how much of the instruction mix "
             "is multiplication, as in transforms, lighting and filtering done in shader code.",
     .unit = unit_instruction},
    {.at = {{{245, tables("8, 9")}}},
     .name = "Any active cycles",
     .hardware_name = "SHADER_CORE_ACTIVE",
     .body = "This counter increments every clock cycle where the shader core has work of any kind, fragment "
             "or non-fragment. A value well below \"GPU active cycles\" shows cores that stand idle while "
             "the GPU is busy elsewhere, for example in the tiler or with work that cannot fill every core."},
    {.at = {{{246, all_tables}}},
     .name = "Fragment front-end read beats from L2 cache",
     .hardware_name = "BEATS_RD_FTC",
     .body = "This counter increments for every beat of 16 bytes that the fragment front-end reads from the "
             "L2 cache, mainly to fetch tile lists and the data of the primitives in them. A high value "
             "suggests dense geometry or primitives that are listed for many tiles."},
    {.at = {{{247, all_tables}}},
     .name = "Fragment front-end read beats from external memory",
     .hardware_name = "BEATS_RD_FTC_EXT",
     .body =
         "This counter increments for every beat of 16 bytes read by the fragment front-end that the L2 "
         "cache cannot serve, so that it comes from external memory. A high share of \"Fragment front-end "
         "read beats from L2 cache\" suggests geometry that outgrows the cache before its tiles are shaded."},
    {.at = {{{248, all_tables}}},
     .name = "Load/store read beats from L2 cache",
     .hardware_name = "BEATS_RD_LSC",
     .body = "This counter increments for every beat of 16 bytes that the load/store unit reads from the L2 "
             "cache after a miss in its own cache. High values suggest large buffers or poor locality in "
             "vertex and compute work; loading a value once and keeping it in registers helps."},
    {.at = {{{249, all_tables}}},
     .name = "Load/store read beats from external memory",
     .hardware_name = "BEATS_RD_LSC_EXT",
     .body = "This counter increments for every beat of 16 bytes read by the load/store unit that arrives "
             "from external memory. These are the reads with the longest latency and the highest energy "
             "cost; smaller data types and working sets that fit the caches reduce them."},
    {.at = {{{250, all_tables}}},
     .name = "Texture read beats from L2 cache",
     .hardware_name = "BEATS_RD_TEX",
     .body = "This counter increments for every beat of 16 bytes that the texture unit reads from the L2 "
             "cache after a miss in the texture cache. A high value suggests large texels or scattered "
             "sampling; compressed textures and mipmaps are the first remedy."},
    {.at = {{{251, all_tables}}},
     .name = "Texture read beats from external memory",
     .hardware_name = "BEATS_RD_TEX_EXT",
     .body = "This counter increments for every beat of 16 bytes read by the texture unit that has to come "
             "from external memory. A value close to \"Texture read beats from L2 cache\" suggests textures "
             "that pass through the L2 cache without being reused."},
    {.at = {{{252, all_tables}}},
     .name = "Miscellaneous read beats from L2 cache",
     .hardware_name = "BEATS_RD_OTHER",
     .body = "This counter increments for every beat of 16 bytes that is read from the L2 cache by any unit "
             "of the shader core other than the fragment front-end, the load/store unit and the texture "
             "unit. It is normally a small share; look elsewhere first when read bandwidth is high."},
    {.at = {{{253, tables("1, 3")}, {255, tables("2, 6-9")}}},
     .name = "Internal load/store writeback write beats",
     .hardware_name = "BEATS_WR_LSC_WB",
     .body = "This counter increments for every beat of 16 bytes that leaves the load/store cache as the "
             "writeback of a modified line. A high value suggests that shaders write more data than the "
             "cache can hold, so that lines are evicted early."},
    {.at = {{{253, tables("4, 5")}}},
     .name = "Load/store write beats to L2 memory system",
     .hardware_name = "BEATS_WR_LSC",
     .body = "This counter increments for every beat of 16 bytes that the load/store unit writes to the L2 "
             "memory system, for whatever reason. High values suggest vertex or compute shaders with large "
             "outputs; narrower types, or not storing what is cheap to recompute, lower them."},
    {.at = {{{254, all_tables}}},
     .name = "Tile buffer write beats to L2 memory system",
     .hardware_name = "BEATS_WR_TIB",
     .body = "This counter increments for every beat of 16 bytes of pixel data that the tile buffer writes "
             "to the L2 memory system. The value grows with the resolution and with the attachments that are "
             "stored; discard attachments that nobody reads after the render pass."},
    {.at = {{{255, tables("1, 3")}, {253, tables("2, 6-9")}}},
     .name = "Internal load/store other write beats",
     .hardware_name = "BEATS_WR_LSC_OTHER",
     .body = "This counter increments for every beat of 16 bytes that the load/store unit writes to the L2 "
             "memory system for any other reason than a writeback of cached data. Together with \"Internal "
             "load/store writeback write beats\" it makes up all write traffic of the unit."},
    {.at = {{{255, tables("4, 5")}}},
     .name = "Miscellaneous write beats to L2 memory system",
     .hardware_name = "BEATS_WR_OTHER",
     .body = "This counter increments for every beat of 16 bytes that is written to the L2 memory system by "
             "any unit of the shader core other than the load/store unit and the tile buffer. Such writes "
             "are housekeeping and normally few; a high value is unusual."},
});

}  // namespace qel::vexa::hwc
