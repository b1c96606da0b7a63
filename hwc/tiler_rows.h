// The raw counters of the tiler block: culling, vertex shading on demand, tile lists and the micro-TLBs.
#pragma once

#include <array>

#include "hwc/raw_row.h"

namespace qel::vexa::hwc {

inline constexpr auto tiler_rows = std::to_array<raw_row>({
    {.at = {{{68, all_tables}}},
     .name = "Tiler active cycles",
     .hardware_name = "TILER_ACTIVE",
     .body = "This counter increments every clock cycle in which the tiler has work in its queue, including "
             "the time in which it waits for the shader cores to shade vertices. A high value shows much "
             "geometry, but does not by itself mean that the tiler is the bottleneck.",
     .selected = selection::by_default},
    {.at = {{{69, all_tables}}},
     .name = "Tiler jobs",
     .hardware_name = "JOBS_PROCESSED",
     .body = "This counter increments for every job that the tiler completes. A high count with few "
             "primitives in each suggests many small draw calls that could be batched."},
    {.at = {{{70, all_tables}}},
     .name = "Triangle primitives",
     .hardware_name = "TRIANGLES",
     .body = "This counter increments for every triangle that the tiler takes as input, before any culling. "
             "Compare it with \"Visible primitives\" to see how much of the submitted geometry contributes "
             "to the picture.",
     .unit = unit_primitive},
    {.at = {{{71, all_tables}}},
     .name = "Line primitives",
     .hardware_name = "LINES",
     .body = "This counter increments for every line that the tiler takes as input, before any culling. "
             "Lines are rare in most applications, so a high value often comes from debug drawing or "
             "wireframe modes.",
     .unit = unit_primitive},
    {.at = {{{72, all_tables}}},
     .name = "Point primitives",
     .hardware_name = "POINTS",
     .body = "This counter increments for every point that the tiler takes as input, before any culling. A "
             "high value typically comes from particle effects that are drawn as point sprites.",
     .unit = unit_primitive},
    {.at = {{{73, all_tables}}},
     .name = "Visible front-facing primitives",
     .hardware_name = "FRONT_FACING",
     .body = "This counter increments for every primitive that survives all culling tests and faces the "
             "viewer. With closed opaque models nearly all of \"Visible primitives\" should belong to this "
             "group.",
     .unit = unit_primitive},
    {.at = {{{74, all_tables}}},
     .name = "Visible back-facing primitives",
     .hardware_name = "BACK_FACING",
     .body = "This counter increments for every primitive that survives all culling tests although it faces "
             "away from the viewer. If an application has only closed opaque models, a value above zero "
             "suggests that culling of back faces is not enabled.",
     .unit = unit_primitive},
    {.at = {{{75, all_tables}}},
     .name = "Visible primitives",
     .hardware_name = "PRIM_VISIBLE",
     .body = "This counter increments for every primitive that survives all culling tests and is written to "
             "the tile lists. The fewer of \"Total input primitives\" reach this point, the more vertex "
             "work is spent on geometry that nobody sees.",
     .unit = unit_primitive,
     .selected = selection::by_default},
    {.at = {{{76, all_tables}}},
     .name = "Facing and XY plane test culled primitives",
     .hardware_name = "PRIM_CULLED",
     .body = "This counter increments for every primitive that is dropped because it faces the wrong way or "
             "lies outside the left, right, top or bottom edge of the view. About half of a closed model "
             "faces away from the viewer. A much higher share suggests culling whole objects on the CPU.",
     .unit = unit_primitive},
    {.at = {{{77, all_tables}}},
     .name = "Z plane culled primitives",
     .hardware_name = "PRIM_CLIPPED",
     .body = "This counter increments for every primitive that passes the facing and XY plane test and is "
             "then dropped because it lies in front of the near or behind the far clip plane. A high value "
             "suggests that the application submits distant objects which it could leave out.",
     .unit = unit_primitive},
    {.at = {{{78, all_tables}}},
     .name = "Sample test killed primitives",
     .hardware_name = "PRIM_SAT_CULLED",
     .body = "This counter increments for every primitive that passes the facing and plane tests and is "
             "then dropped because it covers no sample point. A high value means triangles that are too "
             "small for the screen, and suggests simpler meshes for distant objects.",
     .unit = unit_primitive},
    {.at = {{{79, all_tables}}},
     .name = "Tile list initial allocations",
     .hardware_name = "BIN_ALLOC_INIT",
     .body = "This counter increments for every first allocation of memory to the tile list of a bin. The "
             "value rises with the number of bins that receive any primitive, so it depends on the size of "
             "the render target and on the spread of the geometry across it."},
    {.at = {{{80, all_tables}}},
     .name = "Tile list overflow allocations",
     .hardware_name = "BIN_ALLOC_OVERFLOW",
     .body = "This counter increments for every further allocation of memory to a tile list that has "
             "outgrown what it was given before. A high value shows bins with very many primitives, such as "
             "dense meshes in a small part of the screen."},
    {.at = {{{81, all_tables}}},
     .name = "Output internal read beats",
     .hardware_name = "BUS_READ",
     .body = "This counter increments for every data beat that the tiler reads through the internal bus from "
             "the L2 cache. Reads fetch indices, positions and the tiler's own data, so large index buffers "
             "and a poor reuse of vertices raise the value."},
    {.at = {{{82, tables("7-9")}}},
     .name = "Internal port 0 write beats",
     .hardware_name = "BUS_WRITE_UTLB0",
     .body = "This counter increments for every data beat that the tiler writes to the L2 cache through "
             "internal port 0, whose addresses are translated by micro-TLB 0. Together with \"Internal port "
             "1 write beats\" it gives the write traffic of the tiler."},
    {.at = {{{83, tables("1-6")}}},
     .name = "Internal write beats",
     .hardware_name = "BUS_WRITE",
     .body = "This counter increments for every data beat that the tiler writes through the internal bus to "
             "the L2 cache. Most of this traffic is tile lists, so that the value rises with the number of "
             "visible primitives and with the number of bins that each one touches."},
    {.at = {{{83, tables("7-9")}}},
     .name = "Internal port 1 write beats",
     .hardware_name = "BUS_WRITE_UTLB1",
     .body = "This counter increments for every data beat that the tiler writes to the L2 cache through "
             "internal port 1, whose addresses are translated by micro-TLB 1. A high sum of both ports "
             "means large tile lists, and so many or large visible primitives."},
    {.at = {{{84, tables("1-8")}}},
     .name = "Loading descriptor wait cycles",
     .hardware_name = "LOADING_DESC",
     .body = "This counter increments every clock cycle in which the tiler waits for a descriptor of a job "
             "to be loaded. A high value suggests many draw calls with little geometry each, or a long "
             "memory latency."},
    {.at = {{{84, tables("9")}}},
     .name = "Tiler suspends",
     .hardware_name = "SUSPENDED",
     .body = "This counter increments for every time that the tiler is suspended and its unfinished work is "
             "set aside, for instance to let other work run first. A high value costs time and memory "
             "traffic, since the state has to be saved and restored."},
    {.at = {{{85, all_tables}}},
     .name = "IDVS position shading requests",
     .hardware_name = "IDVS_POS_SHAD_REQ",
     .body = "This counter increments for every request for position shading that index-driven vertex "
             "shading sends to the shader cores. One request covers four vertices, and \"Position shader "
             "thread invocations\" is computed from it."},
    {.at = {{{86, all_tables}}},
     .name = "IDVS position shading outstanding cycles",
     .hardware_name = "IDVS_POS_SHAD_WAIT",
     .body = "This counter increments every clock cycle in which at least one request for position shading "
             "has been sent to the shader cores and is not answered yet. It shows how long positions are "
             "being worked on, and a high value alone is no sign of a stall."},
    {.at = {{{87, all_tables}}},
     .name = "IDVS position shading stall cycles",
     .hardware_name = "IDVS_POS_SHAD_STALL",
     .body = "This counter increments every clock cycle in which the tiler has a request for position "
             "shading to send, but the shader cores do not accept it. A high value suggests that the shader "
             "cores are busy with other work, or that the position part of vertex shaders is expensive."},
    {.at = {{{88, all_tables}}},
     .name = "IDVS position FIFO full cycles",
     .hardware_name = "IDVS_POS_FIFO_FULL",
     .body = "This counter increments every clock cycle in which the position FIFO of index-driven vertex "
             "shading is full, so that no more vertices can be sent to position shading. A high value shows "
             "that the stages which empty the FIFO are slower than the one that fills it."},
    {.at = {{{89, all_tables}}},
     .name = "Vertex prefetcher stall cycles",
     .hardware_name = "PREFETCH_STALL",
     .body = "This counter increments every clock cycle in which the vertex prefetcher has vertices to "
             "fetch but cannot go on, because the stage that it feeds is not ready. Look at the stall "
             "counters of the later stages to find the one that holds it up."},
    {.at = {{{90, all_tables}}},
     .name = "Position cache hit requests",
     .hardware_name = "VCACHE_HIT",
     .body = "This counter increments for every lookup in the position cache that finds the vertex already "
             "there. A high share, shown by \"Position cache hit rate\", means that indices reuse vertices "
             "while these are still cached."},
    {.at = {{{91, all_tables}}},
     .name = "Position cache miss requests",
     .hardware_name = "VCACHE_MISS",
     .body = "This counter increments for every lookup in the position cache that does not find the vertex, "
             "so that its position must be shaded or fetched. A high value suggests index buffers whose "
             "order makes little reuse of recent vertices."},
    {.at = {{{92, all_tables}}},
     .name = "Position cache line availability stall cycles",
     .hardware_name = "VCACHE_LINE_WAIT",
     .body = "This counter increments every clock cycle in which a lookup in the position cache waits for a "
             "line to become available. A high value means that positions are requested faster than the "
             "primitives that hold on to older lines are processed."},
    {.at = {{{93, all_tables}}},
     .name = "Position fetcher read cycles",
     .hardware_name = "VFETCH_POS_READ_WAIT",
     .body = "This counter increments every clock cycle in which the position fetcher has a read of vertex "
             "positions outstanding. It shows activity and not a loss, but a high value together with few "
             "primitives suggests a long memory latency."},
    {.at = {{{94, all_tables}}},
     .name = "Position fetcher read stall cycles",
     .hardware_name = "VFETCH_VERTEX_WAIT",
     .body = "This counter increments every clock cycle in which the position fetcher cannot go on, because "
             "the vertex position that it needs has not arrived. A high value suggests slow position "
             "shading or a slow memory system."},
    {.at = {{{95, all_tables}}},
     .name = "Primitive assembly busy stall cycles",
     .hardware_name = "VFETCH_STALL",
     .body = "This counter increments every clock cycle in which the position fetcher has a vertex to hand "
             "over, but primitive assembly is busy. A high value moves the search for the bottleneck to "
             "primitive assembly and the stages behind it."},
    {.at = {{{96, all_tables}}},
     .name = "Bounding box generator busy stall cycles",
     .hardware_name = "PRIMASSY_STALL",
     .body = "This counter increments every clock cycle in which primitive assembly has a primitive ready, "
             "but the bounding box generator is busy. As a stall passes back from stage to stage, check "
             "whether the stages after the generator are stalled as well."},
    {.at = {{{97, tables("1-8")}}},
     .name = "Tile binning unit busy stall cycles",
     .hardware_name = "BBOX_GEN_STALL",
     .body = "This counter increments every clock cycle in which the bounding box generator has a primitive "
             "ready, but the tile binning unit is busy. A high value suggests large primitives, each of "
             "which must be placed in many bins."},
    {.at = {{{97, tables("9")}}},
     .name = "Tiler resumes",
     .hardware_name = "RESUMED",
     .body = "This counter increments for every time that the tiler takes up work which had been suspended "
             "before. Over a whole trace the value follows \"Tiler suspends\", and a lower one means that "
             "suspended work was left waiting or was dropped."},
    {.at = {{{98, all_tables}}},
     .name = "Varying cache hits",
     .hardware_name = "IDVS_VBU_HIT",
     .body = "This counter increments for every lookup in the varying cache that finds varying shading "
             "already requested for the vertex. A high share, shown by \"Varying cache hit rate\", means "
             "that visible primitives share their vertices well."},
    {.at = {{{99, all_tables}}},
     .name = "Varying cache misses",
     .hardware_name = "IDVS_VBU_MISS",
     .body = "This counter increments for every lookup in the varying cache that does not find the vertex, "
             "so that its varyings must be shaded. A high value relative to \"Visible primitives\" suggests "
             "meshes that share few vertices between neighbors."},
    {.at = {{{100, all_tables}}},
     .name = "Varying cache line deallocation requests",
     .hardware_name = "IDVS_VBU_LINE_DEALLOCATE",
     .body = "This counter increments for every request to free a line of the varying cache. A high value "
             "shows a fast turnover of lines, so that vertices which return later must have their varyings "
             "shaded again."},
    {.at = {{{101, all_tables}}},
     .name = "IDVS varying shading requests",
     .hardware_name = "IDVS_VAR_SHAD_REQ",
     .body = "This counter increments for every request for varying shading that index-driven vertex "
             "shading sends to the shader cores, after culling. One request covers four vertices, and "
             "\"Varying shader thread invocations\" is computed from it."},
    {.at = {{{102, all_tables}}},
     .name = "IDVS varying shading stall cycles",
     .hardware_name = "IDVS_VAR_SHAD_STALL",
     .body = "This counter increments every clock cycle in which the tiler has a request for varying "
             "shading to send, but the shader cores do not accept it. A high value suggests shader cores "
             "that are fully loaded, or vertex shaders with expensive outputs besides the position."},
    {.at = {{{103, all_tables}}},
     .name = "Tile iterator busy stall cycles",
     .hardware_name = "BINNER_STALL",
     .body = "This counter increments every clock cycle in which the tile binning unit has output ready, "
             "but the tile iterator is still busy with earlier primitives. A high value suggests primitives "
             "that spread across many tiles."},
    {.at = {{{104, all_tables}}},
     .name = "Compressor busy stall cycles",
     .hardware_name = "ITER_STALL",
     .body = "This counter increments every clock cycle in which the tile iterator has an entry for a tile "
             "list ready, but the compressor is busy. A high value shows that entries come faster than they "
             "can be packed or written out."},
    {.at = {{{105, all_tables}}},
     .name = "Compressor stream reset requests",
     .hardware_name = "COMPRESS_MISS",
     .body = "This counter increments for every request to reset a compression stream, after which the "
             "compressor starts a tile list entry without reference to earlier ones. A high value means "
             "tile lists that compress poorly and take more bandwidth."},
    {.at = {{{106, all_tables}}},
     .name = "Pointer manager busy stall cycles",
     .hardware_name = "COMPRESS_STALL",
     .body = "This counter increments every clock cycle in which the compressor has data ready, but the "
             "pointer manager is busy. A high value suggests that the management of the tile lists' write "
             "positions, or the memory behind it, is too slow for the flow of primitives."},
    {.at = {{{107, all_tables}}},
     .name = "Pointer cache hits",
     .hardware_name = "PCACHE_HIT",
     .body = "This counter increments for every lookup in the pointer cache that finds the write pointer of "
             "the tile list. A high value relative to \"Pointer cache misses\" is good, and is typical of "
             "primitives that lie close to the ones before them."},
    {.at = {{{108, all_tables}}},
     .name = "Pointer cache misses",
     .hardware_name = "PCACHE_MISS",
     .body = "This counter increments for every lookup in the pointer cache that does not find the write "
             "pointer of the tile list, which must then be read from memory. A high value suggests geometry "
             "that jumps across the whole screen from primitive to primitive."},
    {.at = {{{109, all_tables}}},
     .name = "Pointer cache line miss stall cycles",
     .hardware_name = "PCACHE_MISS_STALL",
     .body = "This counter increments every clock cycle in which the pointer cache is stalled while it "
             "waits for a missing line to be loaded. It grows with the number of misses and with the "
             "latency of the memory system."},
    {.at = {{{110, all_tables}}},
     .name = "Pointer cache line evict stall cycles",
     .hardware_name = "PCACHE_EVICT_STALL",
     .body = "This counter increments every clock cycle in which the pointer cache is stalled until a line "
             "has been written back to make room for a new one. A high value suggests that more tile lists "
             "are in use at a time than the cache can hold."},
    {.at = {{{111, all_tables}}},
     .name = "Pointer manager pointer writeback stall cycles",
     .hardware_name = "PMGR_PTR_WR_STALL",
     .body = "This counter increments every clock cycle in which the pointer manager cannot write back the "
             "pointer of a tile list. A high value suggests that the write path of the tiler is congested."},
    {.at = {{{112, all_tables}}},
     .name = "Pointer manager read stall cycles",
     .hardware_name = "PMGR_PTR_RD_STALL",
     .body = "This counter increments every clock cycle in which the pointer manager waits to read the "
             "pointer of a tile list. A high value often goes together with many \"Pointer cache misses\" "
             "and a slow read path."},
    {.at = {{{113, all_tables}}},
     .name = "Pointer manager data writeback stall cycles",
     .hardware_name = "PMGR_CMD_WR_STALL",
     .body = "This counter increments every clock cycle in which the pointer manager cannot write the data "
             "of a tile list, as opposed to its pointer. A high value suggests that the write buffer does "
             "not accept tile list data as fast as it is made."},
    {.at = {{{114, all_tables}}},
     .name = "Write buffer active cycles",
     .hardware_name = "WRBUF_ACTIVE",
     .body = "This counter increments every clock cycle in which the write buffer of the tiler holds data "
             "that is not written yet. A value close to \"Tiler active cycles\" is usual for scenes with "
             "much visible geometry."},
    {.at = {{{115, all_tables}}},
     .name = "Write buffer hits",
     .hardware_name = "WRBUF_HIT",
     .body = "This counter increments for every write to the write buffer that falls into a line which the "
             "buffer already holds. A high value is good, since writes that are merged in the buffer need "
             "fewer transactions to the L2 cache."},
    {.at = {{{116, all_tables}}},
     .name = "Write buffer misses",
     .hardware_name = "WRBUF_MISS",
     .body = "This counter increments for every write to the write buffer that needs a new line. A high "
             "value relative to \"Write buffer hits\" suggests tile list writes that are scattered across "
             "memory."},
    {.at = {{{117, all_tables}}},
     .name = "Write buffer no free line stall cycles",
     .hardware_name = "WRBUF_NO_FREE_LINE_STALL",
     .body = "This counter increments every clock cycle in which a write waits because the write buffer has "
             "no free line. A high value means that lines are filled faster than the L2 cache takes them "
             "over."},
    {.at = {{{118, all_tables}}},
     .name = "Write buffer outstanding transaction stall cycles",
     .hardware_name = "WRBUF_NO_AXI_ID_STALL",
     .body = "This counter increments every clock cycle in which the write buffer cannot send a line, "
             "because it has no identifier left for a further outstanding transaction. A high value "
             "suggests that earlier writes are slow to be acknowledged."},
    {.at = {{{119, all_tables}}},
     .name = "Write buffer write stall cycles",
     .hardware_name = "WRBUF_AXI_STALL",
     .body = "This counter increments every clock cycle in which the write buffer has a write to send, but "
             "the internal bus does not accept it. A high value suggests that the L2 cache is saturated by "
             "this or other traffic."},
    {.at = {{{120, tables("7-9")}}},
     .name = "UTLB0 lookup requests",
     .hardware_name = "UTLB0_TRANS",
     .body = "This counter increments for every lookup of an address translation in micro-TLB 0 of the "
             "tiler. The value follows the memory accesses of port 0 and gives the base for judging \"UTLB0 "
             "lookup hits\"."},
    {.at = {{{121, tables("7-9")}}},
     .name = "UTLB0 lookup hits",
     .hardware_name = "UTLB0_TRANS_HIT",
     .body = "This counter increments for every lookup in micro-TLB 0 of the tiler that finds its "
             "translation. If it falls well below \"UTLB0 lookup requests\", the accesses of this port are "
             "spread across many pages."},
    {.at = {{{122, tables("7-9")}}},
     .name = "UTLB0 lookup cache full stall cycles",
     .hardware_name = "UTLB0_TRANS_STALL",
     .body = "This counter increments every clock cycle in which a lookup in micro-TLB 0 of the tiler is "
             "stalled, because the cache of translations is full and no entry can be replaced yet. A high "
             "value suggests scattered accesses or slow answers from the main MMU."},
    {.at = {{{123, tables("1-6")}}},
     .name = "UTLB lookup requests",
     .hardware_name = "UTLB_TRANS",
     .body = "This counter increments for every lookup of an address translation in the micro-TLB of the "
             "tiler. The value follows the number of memory accesses that the tiler makes and gives the "
             "base for judging \"UTLB lookup hits\"."},
    {.at = {{{123, tables("7-9")}}},
     .name = "Main MMU lookup requests",
     .hardware_name = "UTLB0_MMU_REQ",
     .body = "This counter increments for every lookup that micro-TLB 0 of the tiler passes on to the main "
             "MMU, because it does not hold the translation itself. A high value suggests that the data "
             "reached through this port lies scattered in memory."},
    {.at = {{{124, tables("1-6")}}},
     .name = "UTLB lookup hits",
     .hardware_name = "UTLB_TRANS_HIT",
     .body = "This counter increments for every lookup in the micro-TLB of the tiler that finds its "
             "translation. A value close to \"UTLB lookup requests\" is normal. A much lower one suggests "
             "accesses that jump between many pages."},
    {.at = {{{124, tables("7-9")}}},
     .name = "UTLB1 lookup requests",
     .hardware_name = "UTLB1_TRANS",
     .body = "This counter increments for every lookup of an address translation in micro-TLB 1 of the "
             "tiler. Set beside \"UTLB0 lookup requests\" it shows how the memory accesses of the tiler are "
             "divided between its two ports."},
    {.at = {{{125, tables("1-6")}}},
     .name = "UTLB lookup cache full stall cycles",
     .hardware_name = "UTLB_TRANS_STALL",
     .body = "This counter increments every clock cycle in which a lookup in the micro-TLB of the tiler is "
             "stalled, because all of its entries are taken by translations that are still in use or on "
             "their way. A high value suggests a working set of too many pages."},
    {.at = {{{125, tables("7-9")}}},
     .name = "UTLB1 lookup hits",
     .hardware_name = "UTLB1_TRANS_HIT",
     .body = "This counter increments for every lookup in micro-TLB 1 of the tiler that finds its "
             "translation. The difference from \"UTLB1 lookup requests\" is the number of lookups that had "
             "to wait for a translation."},
    {.at = {{{126, tables("1-6")}}},
     .name = "UTLB lookup wait cycles",
     .hardware_name = "UTLB_TRANS_MISS_DELAY",
     .body = "This counter increments every clock cycle in which a lookup that missed in the micro-TLB of "
             "the tiler waits for the answer of the main MMU. Divided by \"Main MMU lookup requests\" it "
             "hints at how long a translation takes."},
    {.at = {{{126, tables("7-9")}}},
     .name = "UTLB1 lookup cache full stall cycles",
     .hardware_name = "UTLB1_TRANS_STALL",
     .body = "This counter increments every clock cycle in which a lookup in micro-TLB 1 of the tiler "
             "cannot go on, because there is no entry left to receive a new translation. A high value "
             "suggests that many pages are in use at the same time."},
    {.at = {{{127, tables("1-6")}}},
     .name = "Main MMU lookup requests",
     .hardware_name = "UTLB_MMU_REQ",
     .body = "This counter increments for every lookup that the only micro-TLB of the tiler sends to the "
             "main MMU, because it holds no translation for the address. A high value suggests vertex, "
             "index or tile list data that is spread across many pages."},
    {.at = {{{127, tables("7-9")}}},
     .name = "Main MMU lookup requests",
     .hardware_name = "UTLB1_MMU_REQ",
     .body = "This counter increments for every lookup that micro-TLB 1 of the tiler passes on to the main "
             "MMU after a miss. Compare it with \"UTLB1 lookup requests\": a small share is normal, a large "
             "one means many changes of page."},
});

}  // namespace qel::vexa::hwc
