// The raw counters of the memory system block: the main MMU, the L2 cache and the external bus.
#pragma once

#include <array>

#include "hwc/raw_row.h"

namespace qel::vexa::hwc {

inline constexpr auto memory_system_rows = std::to_array<raw_row>({
    {.at = {{{132, all_tables}}},
     .name = "MMU lookup requests",
     .hardware_name = "MMU_REQUESTS",
     .body = "This counter increments for every address translation that the main MMU is asked for by the "
             "micro-TLBs of the other units. A high value means that these find few translations "
             "themselves, as happens when accesses are scattered across many pages."},
    {.at = {{{133, all_tables}}},
     .name = "MMU L3 table read requests",
     .hardware_name = "MMU_TABLE_READS_L3",
     .body = "This counter increments for every read of a level 3 translation table entry from memory. A "
             "high value suggests a working set of so many small pages that the TLB of the main MMU cannot "
             "keep their translations."},
    {.at = {{{134, all_tables}}},
     .name = "MMU L2 table read requests",
     .hardware_name = "MMU_TABLE_READS_L2",
     .body = "This counter increments for every read of a level 2 translation table entry from memory. "
             "These entries cover larger ranges of addresses than those of level 3, so that a high value "
             "suggests accesses which are spread very widely."},
    {.at = {{{135, all_tables}}},
     .name = "MMU L3 lookup TLB hits",
     .hardware_name = "MMU_HIT_L3",
     .body = "This counter increments for every lookup in the main MMU that is answered by a level 3 entry "
             "in its TLB, without a read of the tables. The higher the share of \"MMU lookup requests\", "
             "the cheaper address translation is."},
    {.at = {{{136, all_tables}}},
     .name = "MMU L2 lookup TLB hits",
     .hardware_name = "MMU_HIT_L2",
     .body = "This counter increments for every lookup in the main MMU that is answered by a level 2 entry "
             "in its TLB. Hits at this level usually come from memory that is mapped in large blocks."},
    {.at = {{{137, tables("1-8")}}},
     .name = "MMU stage 2 lookup requests",
     .hardware_name = "MMU_S2_REQUESTS",
     .body = "This counter increments for every lookup of a stage 2 translation in the main MMU. Stage 2 is "
             "the second translation step of a virtualized system, so the value is expected to be zero "
             "where no hypervisor is in use."},
    {.at = {{{138, tables("1-8")}}},
     .name = "MMU stage 2 L3 lookup requests",
     .hardware_name = "MMU_S2_TABLE_READS_L3",
     .body = "This counter increments for every stage 2 lookup of the main MMU that reads a level 3 table "
             "entry from memory. With a hypervisor, a high value shows that the second translation step "
             "works on many small pages."},
    {.at = {{{139, tables("1-8")}}},
     .name = "MMU stage 2 L2 lookup requests",
     .hardware_name = "MMU_S2_TABLE_READS_L2",
     .body = "This counter increments for every stage 2 lookup of the main MMU that reads a level 2 table "
             "entry from memory. With a hypervisor, a high value shows that the memory given to the GPU is "
             "spread across many ranges of addresses."},
    {.at = {{{140, tables("1-8")}}},
     .name = "MMU stage 2 L3 lookup TLB hits",
     .hardware_name = "MMU_S2_HIT_L3",
     .body = "This counter increments for every stage 2 lookup that is answered by a level 3 entry in the "
             "TLB of the main MMU. Compare it with \"MMU stage 2 lookup requests\" to judge how costly the "
             "second translation step is."},
    {.at = {{{140, tables("9")}}},
     .name = "Input internal evict requests",
     .hardware_name = "L2_RD_MSG_IN_EVICT",
     .body = "This counter increments for every evict request that the L2 cache receives from inside the "
             "GPU, by which an L1 cache announces that it gives up a line. A high value shows a fast "
             "turnover of lines in the L1 caches."},
    {.at = {{{141, tables("1-8")}}},
     .name = "MMU stage 2 L2 lookup TLB hits",
     .hardware_name = "MMU_S2_HIT_L2",
     .body = "This counter increments for every stage 2 lookup that is answered by a level 2 entry in the "
             "TLB of the main MMU. A high share of hits here suggests that the hypervisor maps the memory "
             "of the GPU in large blocks."},
    {.at = {{{141, tables("9")}}},
     .name = "Input internal clean unique requests",
     .hardware_name = "L2_RD_MSG_IN_CU",
     .body = "This counter increments for every clean unique request that the L2 cache receives from inside "
             "the GPU, by which an L1 cache asks for sole ownership of a line in order to write to it. A "
             "high value suggests data that several units write to."},
    {.at = {{{142, tables("9")}}},
     .name = "Output internal snoop responses",
     .hardware_name = "L2_SNP_MSG_IN_SNPRSP",
     .body = "This counter increments for every response to a snoop that the L2 cache sent to another cache "
             "inside the GPU. Over a longer time the value follows \"Output internal snoop requests\"."},
    {.at = {{{143, tables("9")}}},
     .name = "Output internal snoop requests",
     .hardware_name = "L2_RD_MSG_OUT_SNPREQ",
     .body = "This counter increments for every snoop request that the L2 cache sends to another cache "
             "inside the GPU to keep shared lines coherent. A high value suggests that several shader "
             "cores, or the CPU and the GPU, share data that is being modified."},
    {.at = {{{144, all_tables}}},
     .name = "Input internal read requests",
     .hardware_name = "L2_RD_MSG_IN",
     .body = "This counter increments for every read request that the L2 cache receives from a unit inside "
             "the GPU, such as a shader core or the tiler. Compare it with \"Output external read "
             "transactions\" to see how many of the reads the cache keeps from going to memory."},
    {.at = {{{145, all_tables}}},
     .name = "Input internal read stall cycles",
     .hardware_name = "L2_RD_MSG_IN_STALL",
     .body = "This counter increments every clock cycle in which a read request from inside the GPU is held "
             "up at the input of the L2 cache. A high value suggests that the cache receives more requests "
             "than it can look up, or that it waits for memory."},
    {.at = {{{146, all_tables}}},
     .name = "Input internal write requests",
     .hardware_name = "L2_WR_MSG_IN",
     .body = "This counter increments for every write request that the L2 cache receives from a unit inside "
             "the GPU. Finished tiles, tile lists and the stores of shader programs are the usual sources."},
    {.at = {{{147, all_tables}}},
     .name = "Input internal write stall cycles",
     .hardware_name = "L2_WR_MSG_IN_STALL",
     .body = "This counter increments every clock cycle in which a write request from inside the GPU is "
             "held up at the input of the L2 cache. A high value suggests bursts of writes, or an external "
             "bus that does not take evicted data fast enough."},
    {.at = {{{148, all_tables}}},
     .name = "Input internal snoop requests",
     .hardware_name = "L2_SNP_MSG_IN",
     .body = "This counter increments for every snoop request that the L2 cache receives from a unit inside "
             "the GPU. Such requests keep the caches of the GPU coherent with each other, so a high value "
             "points at data shared between units."},
    {.at = {{{149, all_tables}}},
     .name = "Input internal snoop stall cycles",
     .hardware_name = "L2_SNP_MSG_IN_STALL",
     .body = "This counter increments every clock cycle in which a snoop request from inside the GPU waits "
             "at the input of the L2 cache. A high value suggests that coherency traffic competes with "
             "reads and writes for the lookups of the cache."},
    {.at = {{{150, all_tables}}},
     .name = "Output internal read requests",
     .hardware_name = "L2_RD_MSG_OUT",
     .body = "This counter increments for every read message that the L2 cache sends out to another unit "
             "inside the GPU. Traffic to memory outside the GPU is not part of it and is shown by \"Output "
             "external read transactions\"."},
    {.at = {{{151, all_tables}}},
     .name = "Output internal read stall cycles",
     .hardware_name = "L2_RD_MSG_OUT_STALL",
     .body = "This counter increments every clock cycle in which the L2 cache has a read message for "
             "another unit inside the GPU, but the internal interconnect does not accept it. A high value "
             "suggests that the receiving unit is overloaded."},
    {.at = {{{152, all_tables}}},
     .name = "Output internal write requests",
     .hardware_name = "L2_WR_MSG_OUT",
     .body = "This counter increments for every write message that the L2 cache sends out to another unit "
             "inside the GPU. Writes to memory outside the GPU are shown by \"Output external write "
             "transactions\" instead."},
    {.at = {{{153, all_tables}}},
     .name = "Any lookup requests",
     .hardware_name = "L2_ANY_LOOKUP",
     .body = "This counter increments for every lookup in the L2 cache, be it for a read, a write, a snoop "
             "or the upkeep of the cache itself. It is the best measure of the total load on the cache."},
    {.at = {{{154, all_tables}}},
     .name = "Read lookup requests",
     .hardware_name = "L2_READ_LOOKUP",
     .body = "This counter increments for every lookup in the L2 cache that is made for a read. It is the "
             "base of \"L2 cache read miss rate\", and a high value suggests many misses in the L1 caches "
             "of the shader cores."},
    {.at = {{{155, all_tables}}},
     .name = "Write lookup requests",
     .hardware_name = "L2_WRITE_LOOKUP",
     .body = "This counter increments for every lookup in the L2 cache that is made for a write. It is the "
             "base of \"L2 cache write miss rate\" and rises with the number of tiles that are written out."},
    {.at = {{{156, all_tables}}},
     .name = "Input external snoop lookup requests",
     .hardware_name = "L2_EXT_SNOOP_LOOKUP",
     .body = "This counter increments for every lookup in the L2 cache that is caused by a snoop from "
             "outside the GPU. A high value means that the CPU or another device often touches memory that "
             "it shares coherently with the GPU."},
    {.at = {{{157, all_tables}}},
     .name = "Output external read transactions",
     .hardware_name = "L2_EXT_READ",
     .body = "This counter increments for every read transaction that the L2 cache starts on the external "
             "memory bus. Accesses to external memory cost much energy, so that a low value is good for "
             "battery life as well as for speed."},
    {.at = {{{158, all_tables}}},
     .name = "Output external ReadNoSnoop transactions",
     .hardware_name = "L2_EXT_READ_NOSNP",
     .body = "This counter increments for every external read transaction that does not ask other caches in "
             "the system for the data. This is the usual kind for memory that is used by the GPU alone."},
    {.at = {{{159, all_tables}}},
     .name = "Output external ReadUnique transactions",
     .hardware_name = "L2_EXT_READ_UNIQUE",
     .body = "This counter increments for every external read transaction that asks for sole ownership of "
             "the line, normally because the GPU is about to modify it. A high value suggests writes to "
             "memory that is shared coherently with other devices."},
    {.at = {{{160, all_tables}}},
     .name = "Output external read beats",
     .hardware_name = "L2_EXT_READ_BEATS",
     .body = "This counter increments for every data beat that is read through the external memory bus. "
             "Multiplied by \"External bus beat size\" it is the read bandwidth, which is shown as \"Output "
             "external read bytes\"."},
    {.at = {{{161, all_tables}}},
     .name = "Output external read stall transactions",
     .hardware_name = "L2_EXT_AR_STALL",
     .body = "This counter increments every clock cycle in which the L2 cache has a read transaction to "
             "send, but the external bus does not accept it. A high value suggests that the memory system "
             "outside the GPU is saturated, see \"Output external read stall rate\"."},
    {.at = {{{162, all_tables}}},
     .name = "Output external outstanding reads 0-25%",
     .hardware_name = "L2_EXT_AR_CNT_Q1",
     .body = "This counter increments for every external read transaction that is started while 0 to 25% of "
             "the maximum number of outstanding reads are in use. A high share shows a GPU that puts little "
             "pressure on external memory."},
    {.at = {{{163, all_tables}}},
     .name = "Output external outstanding reads 25-50%",
     .hardware_name = "L2_EXT_AR_CNT_Q2",
     .body = "This counter increments for every external read transaction that is started while 25 to 50% "
             "of the maximum number of outstanding reads are in use. Values here are typical of a moderate "
             "load with room for bursts."},
    {.at = {{{164, all_tables}}},
     .name = "Output external outstanding reads 50-75%",
     .hardware_name = "L2_EXT_AR_CNT_Q3",
     .body = "This counter increments for every external read transaction that is started while 50 to 75% "
             "of the maximum number of outstanding reads are in use. A high share shows that the GPU reads "
             "heavily or that external memory answers slowly."},
    {.at = {{{165, all_tables}}},
     .name = "Output external read latency 0-127 cycles",
     .hardware_name = "L2_EXT_RRESP_0_127",
     .body = "This counter increments for every data beat that arrives from external memory 0 to 127 cycles "
             "after its read transaction was started. A high share of \"Output external read beats\" in "
             "this range is a sign of a fast memory system.",
     .selected = selection::by_default},
    {.at = {{{166, all_tables}}},
     .name = "Output external read latency 128-191 cycles",
     .hardware_name = "L2_EXT_RRESP_128_191",
     .body = "This counter increments for every data beat that arrives from external memory 128 to 191 "
             "cycles after its read transaction was started. Shader programs can hide such a latency if "
             "enough threads are running.",
     .selected = selection::by_default},
    {.at = {{{167, all_tables}}},
     .name = "Output external read latency 192-255 cycles",
     .hardware_name = "L2_EXT_RRESP_192_255",
     .body = "This counter increments for every data beat that arrives from external memory 192 to 255 "
             "cycles after its read transaction was started. A distribution that moves into this range from "
             "faster ones shows a memory system that comes under load.",
     .selected = selection::by_default},
    {.at = {{{168, all_tables}}},
     .name = "Output external read latency 256-319 cycles",
     .hardware_name = "L2_EXT_RRESP_256_319",
     .body = "This counter increments for every data beat that arrives from external memory 256 to 319 "
             "cycles after its read transaction was started. If many beats are this late, shader cores "
             "become more likely to run out of threads that can proceed.",
     .selected = selection::by_default},
    {.at = {{{169, all_tables}}},
     .name = "Output external read latency 320-383 cycles",
     .hardware_name = "L2_EXT_RRESP_320_383",
     .body = "This counter increments for every data beat that arrives from external memory 320 to 383 "
             "cycles after its read transaction was started. Together with \"Output external read latency "
             "384+ cycles\" a high value shows a memory system that is overloaded or runs at a low clock.",
     .selected = selection::by_default},
    {.at = {{{170, all_tables}}},
     .name = "Output external write transactions",
     .hardware_name = "L2_EXT_WRITE",
     .body = "This counter increments for every write transaction that the L2 cache starts on the external "
             "memory bus. Tiles written at the end of a render pass are a large part of it, so a high value "
             "suggests many passes or attachments that need not be stored."},
    {.at = {{{171, all_tables}}},
     .name = "Output external WriteNoSnoopFull transactions",
     .hardware_name = "L2_EXT_WRITE_NOSNP_FULL",
     .body = "This counter increments for every external write transaction that writes a whole cache line "
             "without asking other caches in the system. This is the most efficient kind of write, and most "
             "traffic should be of it."},
    {.at = {{{172, all_tables}}},
     .name = "Output external WriteNoSnoopPartial transactions",
     .hardware_name = "L2_EXT_WRITE_NOSNP_PTL",
     .body = "This counter increments for every external write transaction that writes a part of a cache "
             "line without asking other caches in the system. Partial writes use memory bandwidth poorly, "
             "so a high value suggests output that does not fill whole lines."},
    {.at = {{{173, all_tables}}},
     .name = "Output external WriteSnoopFull transactions",
     .hardware_name = "L2_EXT_WRITE_SNP_FULL",
     .body = "This counter increments for every external write transaction that writes a whole cache line "
             "to memory shared coherently with other devices. A high value shows that the GPU produces much "
             "data which the CPU or another device can read without a flush."},
    {.at = {{{174, all_tables}}},
     .name = "Output external WriteSnoopPartial transactions",
     .hardware_name = "L2_EXT_WRITE_SNP_PTL",
     .body = "This counter increments for every external write transaction that writes a part of a cache "
             "line to memory shared coherently with other devices. These are costly for the system, as "
             "other caches may hold the rest of the line."},
    {.at = {{{175, all_tables}}},
     .name = "Output external write beats",
     .hardware_name = "L2_EXT_WRITE_BEATS",
     .body = "This counter increments for every data beat that is written through the external memory bus. "
             "Multiplied by \"External bus beat size\" it is the write bandwidth, which is shown as "
             "\"Output external write bytes\"."},
    {.at = {{{176, all_tables}}},
     .name = "Output external write stall cycles",
     .hardware_name = "L2_EXT_W_STALL",
     .body = "This counter increments every clock cycle in which the L2 cache has data to write, but the "
             "external bus does not accept it. A high value suggests that external memory cannot keep up "
             "with the writes, see \"Output external write stall rate\"."},
    {.at = {{{177, all_tables}}},
     .name = "Output external outstanding writes 0-25%",
     .hardware_name = "L2_EXT_AW_CNT_Q1",
     .body = "This counter increments for every external write transaction that is started while 0 to 25% "
             "of the maximum number of outstanding writes are in use. A high share is normal, since the "
             "memory system usually takes writes quickly."},
    {.at = {{{178, all_tables}}},
     .name = "Output external outstanding writes 25-50%",
     .hardware_name = "L2_EXT_AW_CNT_Q2",
     .body = "This counter increments for every external write transaction that is started while 25 to 50% "
             "of the maximum number of outstanding writes are in use. Such values appear when tiles are "
             "written out in bursts."},
    {.at = {{{179, all_tables}}},
     .name = "Output external outstanding writes 50-75%",
     .hardware_name = "L2_EXT_AW_CNT_Q3",
     .body = "This counter increments for every external write transaction that is started while 50 to 75% "
             "of the maximum number of outstanding writes are in use. A high share suggests that the "
             "external memory system falls behind with the writes of the GPU."},
    {.at = {{{180, all_tables}}},
     .name = "Input external snoop transactions",
     .hardware_name = "L2_EXT_SNOOP",
     .body = "This counter increments for every snoop transaction that reaches the GPU from the coherent "
             "interconnect outside. A high value shows that other devices work on memory which may also be "
             "in the caches of the GPU."},
    {.at = {{{181, all_tables}}},
     .name = "Input external snoop stall cycles",
     .hardware_name = "L2_EXT_SNOOP_STALL",
     .body = "This counter increments every clock cycle in which a snoop from outside the GPU is waiting to "
             "be taken by the L2 cache. A high value slows down the device that sent the snoop, as well as "
             "the GPU itself."},
    {.at = {{{182, all_tables}}},
     .name = "Input external snoop transactions that hit with no data response",
     .hardware_name = "L2_EXT_SNOOP_RESP_CLEAN",
     .body = "This counter increments for every snoop from outside the GPU that finds its line in the L2 "
             "cache and is answered without data. This happens when the line need not be passed on, for "
             "instance because memory holds the same data."},
    {.at = {{{183, all_tables}}},
     .name = "Input external snoop transactions that hit with data response",
     .hardware_name = "L2_EXT_SNOOP_RESP_DATA",
     .body = "This counter increments for every snoop from outside the GPU that finds its line in the L2 "
             "cache and is answered with the data of the line. A high value shows that results of the GPU "
             "go to other devices directly from its cache."},
    {.at = {{{184, all_tables}}},
     .name = "Input external snoop transactions triggering L1 snoop",
     .hardware_name = "L2_EXT_SNOOP_INTERNAL",
     .body = "This counter increments for every snoop from outside the GPU that makes the L2 cache snoop an "
             "L1 cache as well, because a shader core may hold the line. A high value disturbs the shader "
             "cores and suggests that data is shared between the CPU and running shader programs."},
});

}  // namespace qel::vexa::hwc
