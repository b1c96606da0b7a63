// The raw counters of the job manager block: job slots in tables 1 to 8, a command stream front-end in
// table 9.
#pragma once

#include <array>

#include "hwc/raw_row.h"

namespace qel::vexa::hwc {

inline constexpr auto job_manager_rows = std::to_array<raw_row>({
    {.at = {{{4, tables("1-8")}, {8, tables("9")}}},
     .name = "Sent messages",
     .hardware_name = "MESSAGES_SENT",
     .body = "This counter increments for every control message that the GPU front-end sends to another "
             "block inside the GPU, such as the tiler or a shader core. It tends to rise with the number of "
             "tasks that are handed out, so work that is split into many small pieces gives a high value."},
    {.at = {{{5, tables("1-8")}, {9, tables("9")}}},
     .name = "Received messages",
     .hardware_name = "MESSAGES_RECEIVED",
     .body = "This counter increments for every control message that the GPU front-end receives from "
             "another block inside the GPU, for example the report that a task has completed. It normally "
             "moves together with \"Sent messages\"."},
    {.at = {{{5, tables("9")}}},
     .name = "MCU active cycles",
     .hardware_name = "MCU_ACTIVE",
     .body = "This counter increments every clock cycle in which the microcontroller of the command stream "
             "front-end executes firmware. A value close to \"GPU active cycles\" suggests that scheduling "
             "takes the firmware much time, which can limit how fast new work reaches the GPU."},
    {.at = {{{6, tables("1-8")}, {4, tables("9")}}},
     .name = "GPU active cycles",
     .hardware_name = "GPU_ACTIVE",
     .body = "This counter increments every clock cycle in which at least one of the GPU queues holds work, "
             "even if that work is waiting for memory or for something else. A value close to \"GPU "
             "cycles\" shows a GPU that is never idle. A lower one shows gaps in which the CPU or the "
             "display keeps it waiting.",
     .selected = selection::by_default},
    {.at = {{{6, tables("9")}}},
     .name = "Any iterator active cycles",
     .hardware_name = "GPU_ITER_ACTIVE",
     .body = "This counter increments every clock cycle in which any of the vertex, compute and fragment "
             "iterators has work to split into tasks. If it is far below \"GPU active cycles\", the GPU "
             "holds work that waits in the command streams and is not yet being turned into tasks."},
    {.at = {{{7, tables("1-8")}, {10, tables("9")}}},
     .name = "GPU interrupt pending cycles",
     .hardware_name = "IRQ_ACTIVE",
     .body = "This counter increments every clock cycle in which the GPU has an interrupt pending that the "
             "CPU has not handled yet. A high value means that the CPU answers late and the next piece of "
             "work may start late too. The cause is the code that holds up interrupts on the CPU, which may "
             "not be the Vexa device driver.",
     .selected = selection::by_default},
    {.at = {{{7, tables("9")}}},
     .name = "MMU flush count",
     .hardware_name = "MMU_FLUSH_COUNT",
     .body = "This counter increments for every flush of address translations in the GPU memory management "
             "units. Flushes follow changes of the GPU address space, so a high value suggests that memory "
             "is mapped and unmapped often while the GPU is working."},
    {.at = {{{8, tables("1-8")}}},
     .name = "Fragment jobs",
     .hardware_name = "JS0_JOBS",
     .body = "This counter increments for every job that completes on the fragment queue. Typically a "
             "render pass takes one fragment job, so a high count for the size of the frame suggests that "
             "rendering is broken up into many small passes."},
    {.at = {{{9, tables("1-8")}}},
     .name = "Fragment tasks",
     .hardware_name = "JS0_TASKS",
     .body = "This counter increments for every task of a fragment job that completes. A task stands for a "
             "region of 1024 pixels of a render target, so the value follows the number of pixels that are "
             "rendered, which is shown by \"Pixels\"."},
    {.at = {{{10, tables("1-8")}}},
     .name = "Fragment queue active cycles",
     .hardware_name = "JS0_ACTIVE",
     .body = "This counter increments every clock cycle in which the fragment queue holds work, including "
             "the time that this work spends waiting. A value close to \"GPU active cycles\" points at "
             "fragment work as the bottleneck, or at fragment work that rarely overlaps with the other "
             "queues.",
     .selected = selection::by_default},
    {.at = {{{11, tables("1-8")}}},
     .name = "Fragment cache flush wait cycles",
     .hardware_name = "JS0_WAIT_FLUSH",
     .body = "This counter increments every clock cycle in which the fragment queue holds work that cannot "
             "go on until a flush of the L2 cache is done. Flushes between render passes are normal. A high "
             "value suggests more passes, or more synchronization with other devices, than the frame needs."},
    {.at = {{{11, tables("9")}}},
     .name = "GPU interrupt count",
     .hardware_name = "GPU_IRQ_COUNT",
     .body = "This counter increments for every interrupt that the GPU raises towards the CPU. A high rate "
             "costs CPU time and suggests that work is submitted in many small pieces, each of which "
             "reports its end."},
    {.at = {{{12, tables("1-8")}}},
     .name = "Fragment job descriptor read wait cycles",
     .hardware_name = "JS0_WAIT_READ",
     .body = "This counter increments every clock cycle in which the fragment queue waits for the "
             "descriptor of its next job to arrive from memory. A high value suggests many short jobs or a "
             "memory system with a long latency."},
    {.at = {{{12, tables("9")}}},
     .name = "L2 cache flush cycles",
     .hardware_name = "CACHE_FLUSH_CYCLES",
     .body = "This counter increments every clock cycle in which a flush of the L2 cache is under way. "
             "Divided by \"L2 cache flush requests\" it gives the average time of a flush, which grows with "
             "the amount of modified data that must be written back to memory."},
    {.at = {{{13, tables("1-8")}}},
     .name = "Fragment job issue wait cycles",
     .hardware_name = "JS0_WAIT_ISSUE",
     .body = "This counter increments every clock cycle in which the fragment queue has a job that could be "
             "issued, but the shader cores are still busy with earlier work. A high value is usual where "
             "rendering is limited by fragment work."},
    {.at = {{{14, tables("1-8")}}},
     .name = "Fragment job dependency wait cycles",
     .hardware_name = "JS0_WAIT_DEPEND",
     .body = "This counter increments every clock cycle in which a job in the fragment queue waits for "
             "another job on which it depends, typically the vertex and tiling work of the same render "
             "pass. A high value suggests that the GPU has too little independent work to fill the wait."},
    {.at = {{{14, tables("9")}}},
     .name = "Doorbell interrupt pending cycles",
     .hardware_name = "DOORBELL_IRQ_ACTIVE",
     .body = "This counter increments every clock cycle in which a doorbell, the signal of the CPU that new "
             "commands are ready, is pending and the front-end has not reacted yet. A high value suggests "
             "that the microcontroller is too busy to start new work promptly."},
    {.at = {{{15, tables("1-8")}}},
     .name = "Fragment job finish wait cycles",
     .hardware_name = "JS0_WAIT_FINISH",
     .body = "This counter increments every clock cycle in which the fragment queue has handed out all "
             "tasks of a job and waits for the last of them to end. A high value suggests small render "
             "passes or single tasks that run much longer than the others."},
    {.at = {{{15, tables("9")}}},
     .name = "Doorbell interrupt count",
     .hardware_name = "DOORBELL_IRQ_COUNT",
     .body = "This counter increments for every doorbell interrupt that the command stream front-end "
             "receives. Software rings a doorbell to announce new commands, so a high value suggests that "
             "work is submitted in many small portions."},
    {.at = {{{16, tables("1-8")}}},
     .name = "Non-fragment jobs",
     .hardware_name = "JS1_JOBS",
     .body = "This counter increments for every job that completes on the non-fragment queue, be it vertex "
             "shading, tiling or compute. A high count with little time in \"Non-fragment queue active "
             "cycles\" suggests many small submissions that could be joined."},
    {.at = {{{16, tables("9")}}},
     .name = "Vertex iterator active",
     .hardware_name = "ITER_TILER_ACTIVE",
     .body = "This counter increments every clock cycle in which the vertex iterator has vertex and tiling "
             "work to process. If it is close to \"GPU active cycles\" while \"Fragment iterator active\" "
             "is low, geometry work limits the frame rate."},
    {.at = {{{17, tables("1-8")}}},
     .name = "Non-fragment tasks",
     .hardware_name = "JS1_TASKS",
     .body = "This counter increments for every task of a vertex, tiling or compute job that completes on "
             "the non-fragment queue. The amount of work in a task depends on the kind of job, so compare "
             "values only between frames with a similar workload."},
    {.at = {{{17, tables("9")}}},
     .name = "Vertex jobs",
     .hardware_name = "ITER_TILER_JOB_COMPLETED",
     .body = "This counter increments for every vertex job that the vertex iterator completes. A high count "
             "beside a low value of \"Vertex iterator active\" suggests many small vertex workloads, such "
             "as render passes with very little geometry."},
    {.at = {{{18, tables("1-8")}}},
     .name = "Non-fragment queue active cycles",
     .hardware_name = "JS1_ACTIVE",
     .body = "This counter increments every clock cycle in which the non-fragment queue holds vertex, "
             "tiling or compute work, including the time that this work spends waiting. If it is high while "
             "\"Fragment queue active cycles\" is low, geometry or compute work holds up rendering.",
     .selected = selection::by_default},
    {.at = {{{18, tables("9")}}},
     .name = "Vertex tasks",
     .hardware_name = "ITER_TILER_IDVS_TASK_COMPLETED",
     .body = "This counter increments for every vertex task that completes, each a part of a vertex job "
             "that is processed with index-driven vertex shading. The ratio to \"Vertex jobs\" shows how "
             "much geometry an average job brings."},
    {.at = {{{19, tables("1-8")}}},
     .name = "Non-fragment cache flush wait cycles",
     .hardware_name = "JS1_WAIT_FLUSH",
     .body = "This counter increments every clock cycle in which the non-fragment queue holds work that "
             "cannot go on until a flush of the L2 cache is done. A high value suggests frequent barriers "
             "between compute or geometry work and the users of its results."},
    {.at = {{{19, tables("9")}}},
     .name = "Total vertex active cycles",
     .hardware_name = "ITER_TILER_TOTAL_IDVS_TASK_ACTIVE_CYCLES",
     .body = "This counter increments every clock cycle by the number of vertex tasks that are being "
             "processed in it. As tasks overlap, it can exceed the number of GPU cycles. Divided by "
             "\"Vertex tasks\" it gives the average time for which a task is active.",
     .selected = selection::by_default},
    {.at = {{{20, tables("1-8")}}},
     .name = "Non-fragment job descriptor read wait cycles",
     .hardware_name = "JS1_WAIT_READ",
     .body = "This counter increments every clock cycle in which the non-fragment queue waits for a job "
             "descriptor to be read from memory. A high value suggests long chains of small vertex, tiling "
             "or compute jobs, whose descriptors take longer to fetch than their work can hide."},
    {.at = {{{20, tables("9")}}},
     .name = "Vertex IRQ active",
     .hardware_name = "ITER_TILER_IRQ_ACTIVE",
     .body = "This counter increments every clock cycle in which the vertex iterator has an interrupt "
             "pending for the microcontroller of the front-end. A high value suggests that the firmware "
             "answers slowly, so that the next vertex work can be late."},
    {.at = {{{21, tables("1-8")}}},
     .name = "Non-fragment job issue wait cycles",
     .hardware_name = "JS1_WAIT_ISSUE",
     .body = "This counter increments every clock cycle in which a job of the non-fragment queue is ready "
             "to start, but the hardware that it needs is still busy with earlier jobs. A high value shows "
             "a queue that is well supplied with work."},
    {.at = {{{21, tables("9")}}},
     .name = "Vertex IRQs",
     .hardware_name = "ITER_TILER_IRQ_COUNT",
     .body = "This counter increments for every interrupt that the vertex iterator raises to the "
             "microcontroller of the front-end. A rate that is high for the number of \"Vertex jobs\" shows "
             "that the firmware must step in often."},
    {.at = {{{22, tables("1-8")}}},
     .name = "Non-fragment job dependency wait cycles",
     .hardware_name = "JS1_WAIT_DEPEND",
     .body = "This counter increments every clock cycle in which a job in the non-fragment queue waits for "
             "another job that must end first. A high value shows chains of dependent draws or dispatches, "
             "for example vertex work that reads the result of a compute pass."},
    {.at = {{{22, tables("9")}}},
     .name = "Vertex endpoint ready stall cycles",
     .hardware_name = "ITER_TILER_READY_BLOCKED",
     .body = "This counter increments every clock cycle in which the vertex iterator has a task ready, but "
             "no shader core or tiler can take it. A high value shows that the iterator is ahead of the "
             "units that process its tasks, which are then the bottleneck."},
    {.at = {{{23, tables("1-8")}}},
     .name = "Non-fragment job finish wait cycles",
     .hardware_name = "JS1_WAIT_FINISH",
     .body = "This counter increments every clock cycle in which all tasks of a job in the non-fragment "
             "queue have been issued and the queue waits for the last of them to complete. A high value "
             "suggests draws or dispatches that are too small to keep all shader cores busy."},
    {.at = {{{23, tables("9")}}},
     .name = "Vertex endpoint drain stall cycles",
     .hardware_name = "ITER_TILER_EP_DRAIN",
     .body = "This counter increments every clock cycle in which the vertex iterator has issued everything "
             "and waits until the units that process its tasks have run empty. A high value suggests many "
             "small vertex jobs or frequent changes between workloads."},
    {.at = {{{24, tables("1-8")}}},
     .name = "Reserved queue jobs",
     .hardware_name = "JS2_JOBS",
     .body = "This counter increments for every job that completes on the reserved queue. The graphics and "
             "compute work of applications does not normally use this queue, so that the value is expected "
             "to be zero."},
    {.at = {{{24, tables("9")}}},
     .name = "Compute iterator active",
     .hardware_name = "ITER_COMP_ACTIVE",
     .body = "This counter increments every clock cycle in which the compute iterator has dispatches to "
             "split into tasks. Compare it with \"GPU active cycles\" to see for which share of the time "
             "compute work is present."},
    {.at = {{{25, tables("1-8")}}},
     .name = "Reserved queue tasks",
     .hardware_name = "JS2_TASKS",
     .body = "This counter increments for every task of a job on the reserved queue that completes. It "
             "stays at zero unless system software gives work to this queue, which usual graphics and "
             "compute work does not need."},
    {.at = {{{25, tables("9")}}},
     .name = "Compute jobs",
     .hardware_name = "ITER_COMP_JOB_COMPLETED",
     .body = "This counter increments for every compute job that the compute iterator completes. Many jobs "
             "with little time in \"Compute iterator active\" suggest small dispatches, whose cost of "
             "starting and ending outweighs their work."},
    {.at = {{{26, tables("1-8")}}},
     .name = "Reserved active cycles",
     .hardware_name = "JS2_ACTIVE",
     .body = "This counter increments every clock cycle in which the reserved queue holds work. A value "
             "other than zero means that the driver places jobs beside the fragment and non-fragment "
             "queues, and these jobs share the GPU with both."},
    {.at = {{{26, tables("9")}}},
     .name = "Compute tasks",
     .hardware_name = "ITER_COMP_TASK_COMPLETED",
     .body = "This counter increments for every compute task that completes, each a part of a dispatch that "
             "a shader core can take as a unit. Few tasks for each of the \"Compute jobs\" suggest "
             "dispatches that are too small to occupy all shader cores."},
    {.at = {{{27, tables("1-8")}}},
     .name = "Reserved cache flush wait cycles",
     .hardware_name = "JS2_WAIT_FLUSH",
     .body = "This counter increments every clock cycle in which work in the reserved queue waits for the "
             "L2 cache to be flushed. It can only advance while \"Reserved active cycles\" advances too, "
             "and is normally zero."},
    {.at = {{{27, tables("9")}}},
     .name = "Total compute active cycles",
     .hardware_name = "ITER_COMP_TOTAL_TASK_ACTIVE_CYCLES",
     .body = "This counter increments every clock cycle by the number of compute tasks that are in progress "
             "in it, so it can exceed the number of GPU cycles. Divided by \"Compute tasks\" it gives the "
             "average time that a task takes."},
    {.at = {{{28, tables("1-8")}}},
     .name = "Reserved job descriptor read wait cycles",
     .hardware_name = "JS2_WAIT_READ",
     .body = "This counter increments every clock cycle in which the reserved queue waits for a job "
             "descriptor to arrive from memory. It says something only where \"Reserved queue jobs\" shows "
             "that the queue is used."},
    {.at = {{{28, tables("9")}}},
     .name = "Compute IRQ active",
     .hardware_name = "ITER_COMP_IRQ_ACTIVE",
     .body = "This counter increments every clock cycle in which an interrupt of the compute iterator waits "
             "to be handled by the microcontroller of the front-end. A high value can mean that dependent "
             "dispatches start later than they could."},
    {.at = {{{29, tables("1-8")}}},
     .name = "Reserved job issue wait cycles",
     .hardware_name = "JS2_WAIT_ISSUE",
     .body = "This counter increments every clock cycle in which the reserved queue has a job ready that "
             "cannot start, because the other queues keep the hardware busy. Without jobs in this queue the "
             "value is zero."},
    {.at = {{{29, tables("9")}}},
     .name = "Compute IRQs",
     .hardware_name = "ITER_COMP_IRQ_COUNT",
     .body = "This counter increments for every interrupt that the compute iterator sends to the "
             "microcontroller of the front-end. Compare it with \"Compute jobs\" to see how often the "
             "firmware is involved for each job."},
    {.at = {{{30, tables("1-8")}}},
     .name = "Reserved job dependency wait cycles",
     .hardware_name = "JS2_WAIT_DEPEND",
     .body = "This counter increments every clock cycle in which a job in the reserved queue waits for the "
             "end of a job on which it depends. It is of interest only to software that gives work to this "
             "queue."},
    {.at = {{{30, tables("9")}}},
     .name = "Compute endpoint ready stall cycles",
     .hardware_name = "ITER_COMP_READY_BLOCKED",
     .body = "This counter increments every clock cycle in which the compute iterator has a task to issue, "
             "but every shader core that it could use is full. A high value is normal for compute work that "
             "keeps the whole GPU busy."},
    {.at = {{{31, tables("1-8")}}},
     .name = "Reserved job finish wait cycles",
     .hardware_name = "JS2_WAIT_FINISH",
     .body = "This counter increments every clock cycle in which the reserved queue has issued all tasks of "
             "a job and waits for the last results. Compare it with \"Reserved active cycles\" to see which "
             "share of the queue time is spent on this wait."},
    {.at = {{{31, tables("9")}}},
     .name = "Compute endpoint drain stall cycles",
     .hardware_name = "ITER_COMP_EP_DRAIN",
     .body = "This counter increments every clock cycle in which the compute iterator waits for the shader "
             "cores to end the tasks that they still hold, before other work can follow. A high value "
             "suggests short dispatches or work groups of very uneven duration."},
    {.at = {{{32, tables("9")}}},
     .name = "Fragment iterator active",
     .hardware_name = "ITER_FRAG_ACTIVE",
     .body = "This counter increments every clock cycle in which the fragment iterator has render passes to "
             "split into tasks. A value close to \"GPU active cycles\" suggests that fragment work, or the "
             "wait for its data, decides the frame time."},
    {.at = {{{33, tables("9")}}},
     .name = "Fragment jobs",
     .hardware_name = "ITER_FRAG_JOB_COMPLETED",
     .body = "This counter increments for every fragment job that the fragment iterator completes. As a "
             "rule a render pass is one such job, so that a count that is high for a frame suggests passes "
             "that could be merged."},
    {.at = {{{34, tables("9")}}},
     .name = "Fragment tasks",
     .hardware_name = "ITER_FRAG_TASK_COMPLETED",
     .body = "This counter increments for every fragment task that the fragment iterator completes. Each "
             "task stands for 1024 pixels of a render target, and \"Pixels\" is computed from this value."},
    {.at = {{{35, tables("9")}}},
     .name = "Total fragment active cycles",
     .hardware_name = "ITER_FRAG_TOTAL_TASK_ACTIVE_CYCLES",
     .body = "This counter increments every clock cycle by the number of fragment tasks that are in "
             "progress on the shader cores. Divided by \"Fragment tasks\" it gives the average time of a "
             "task, which is long where each pixel is expensive."},
    {.at = {{{36, tables("9")}}},
     .name = "Fragment IRQ active",
     .hardware_name = "ITER_FRAG_IRQ_ACTIVE",
     .body = "This counter increments every clock cycle in which the fragment iterator has an interrupt "
             "pending that the microcontroller of the front-end has yet to handle. A high value can mean "
             "gaps between render passes."},
    {.at = {{{37, tables("9")}}},
     .name = "Fragment IRQs",
     .hardware_name = "ITER_FRAG_IRQ_COUNT",
     .body = "This counter increments for every interrupt that the fragment iterator raises to the "
             "microcontroller of the front-end. Its ratio to \"Fragment jobs\" tells whether render passes "
             "run on by themselves or need the firmware often."},
    {.at = {{{38, tables("9")}}},
     .name = "Fragment endpoint ready stall cycles",
     .hardware_name = "ITER_FRAG_READY_BLOCKED",
     .body = "This counter increments every clock cycle in which the fragment iterator has a task ready, "
             "but no shader core has room for it. A high value shows that the shader cores are saturated "
             "with fragment work, and not short of it."},
    {.at = {{{39, tables("9")}}},
     .name = "Fragment tile map read stall cycles",
     .hardware_name = "ITER_FRAG_TILE_MAP_READ_WAIT",
     .body = "This counter increments every clock cycle in which the fragment iterator waits to read the "
             "map that tells which tiles of a render pass have content. A high value suggests large render "
             "targets with little in them, or a slow memory system."},
    {.at = {{{40, tables("9")}}},
     .name = "Command execution unit active",
     .hardware_name = "CEU_ACTIVE",
     .body = "This counter increments every clock cycle in which the command execution unit is processing "
             "commands of any command stream. If this is the busiest part of the GPU, the streams hold many "
             "commands that start little work each."},
    {.at = {{{41, tables("9")}}},
     .name = "Command execution unit ready blocked",
     .hardware_name = "CEU_READY_BLOCKED",
     .body = "This counter increments every clock cycle in which the command execution unit has a command "
             "ready, but the unit that must receive it is not able to accept it. A high value shows that "
             "the iterators are full, which is normal for a busy GPU."},
    {.at = {{{42, tables("9")}}},
     .name = "Command execution unit commands",
     .hardware_name = "CEU_COMMAND_COUNT",
     .body = "This counter increments for every command that the command execution unit executes. Together "
             "with \"Command execution unit active\" it gives the average time of a command."},
    {.at = {{{43, tables("9")}}},
     .name = "Command execution unit state transfer stalls",
     .hardware_name = "CEU_STATE_TRANSFER_STALLED",
     .body = "This counter increments every clock cycle in which the command execution unit is held up "
             "while it hands the state of a job, such as its registers, to an iterator. A high value "
             "suggests many small jobs whose state has to be passed on each time."},
    {.at = {{{44, tables("9")}}},
     .name = "Command execution unit LSU stalls",
     .hardware_name = "CEU_LSU_REQUEST_STALLED",
     .body = "This counter increments every clock cycle in which the command execution unit has a load or "
             "store to issue, but the command load/store unit cannot take it. A high value points at "
             "command streams that read or write memory heavily."},
    {.at = {{{45, tables("9")}}},
     .name = "Command load/store unit active",
     .hardware_name = "LSU_ACTIVE",
     .body = "This counter increments every clock cycle in which the command load/store unit is working on "
             "memory accesses of command streams. A high share of \"GPU active cycles\" suggests that "
             "commands spend much of their time on memory."},
    {.at = {{{46, tables("9")}}},
     .name = "Command load/store operations",
     .hardware_name = "LSU_OPERATIONS_COMPLETED",
     .body = "This counter increments for every load or store operation that the command load/store unit "
             "completes on behalf of a command stream. Accesses of shader programs are not part of it."},
    {.at = {{{47, tables("9")}}},
     .name = "Total command load/store active cycles",
     .hardware_name = "LSU_TOTAL_HANDLERS_ACTIVE_CYCLES",
     .body = "This counter increments every clock cycle by the number of command loads and stores that are "
             "in progress in it. Divided by \"Command load/store operations\" it gives the average time of "
             "an operation, and so shows the memory latency that command streams see."},
    {.at = {{{48, tables("9")}}},
     .name = "Command stream 0 active",
     .hardware_name = "CSHWIF0_ENABLED",
     .body = "This counter increments every clock cycle in which hardware interface 0 of the front-end "
             "holds an enabled command stream. Compare it with \"Command stream 0 wait stall\" to see how "
             "much of that time is spent waiting."},
    {.at = {{{49, tables("9")}}},
     .name = "Command stream 0 prefetch stall",
     .hardware_name = "CSHWIF0_PREFETCH_MISS_COUNT",
     .body = "This counter increments for every stall of command stream 0 because a command that it needs "
             "next is missing from the prefetched data. A high value suggests many jumps between command "
             "buffers or a long memory latency."},
    {.at = {{{50, tables("9")}}},
     .name = "Command stream 0 IRQ active",
     .hardware_name = "CSHWIF0_IRQ_ACTIVE",
     .body = "This counter increments every clock cycle in which command stream 0 has an interrupt pending "
             "that the microcontroller of the front-end has not handled. A high value can delay the work "
             "that follows in this stream."},
    {.at = {{{51, tables("9")}}},
     .name = "Command stream 0 wait stall",
     .hardware_name = "CSHWIF0_WAIT_BLOCKED",
     .body = "This counter increments every clock cycle in which command stream 0 is blocked by a wait "
             "command, for instance until earlier work or another stream has reached a given point. A high "
             "value shows dependencies that leave this stream idle."},
    {.at = {{{52, tables("9")}}},
     .name = "Command stream 1 active",
     .hardware_name = "CSHWIF1_ENABLED",
     .body = "This counter increments every clock cycle in which hardware interface 1 of the front-end "
             "holds an enabled command stream. Compare it with \"Command stream 1 wait stall\" to see how "
             "much of that time is spent waiting."},
    {.at = {{{53, tables("9")}}},
     .name = "Command stream 1 prefetch stall",
     .hardware_name = "CSHWIF1_PREFETCH_MISS_COUNT",
     .body = "This counter increments for every stall of command stream 1 because a command that it needs "
             "next is missing from the prefetched data. A high value suggests many jumps between command "
             "buffers or a long memory latency."},
    {.at = {{{54, tables("9")}}},
     .name = "Command stream 1 IRQ active",
     .hardware_name = "CSHWIF1_IRQ_ACTIVE",
     .body = "This counter increments every clock cycle in which command stream 1 has an interrupt pending "
             "that the microcontroller of the front-end has not handled. A high value can delay the work "
             "that follows in this stream."},
    {.at = {{{55, tables("9")}}},
     .name = "Command stream 1 wait stall",
     .hardware_name = "CSHWIF1_WAIT_BLOCKED",
     .body = "This counter increments every clock cycle in which command stream 1 is blocked by a wait "
             "command, for instance until earlier work or another stream has reached a given point. A high "
             "value shows dependencies that leave this stream idle."},
    {.at = {{{56, tables("9")}}},
     .name = "Command stream 2 active",
     .hardware_name = "CSHWIF2_ENABLED",
     .body = "This counter increments every clock cycle in which hardware interface 2 of the front-end "
             "holds an enabled command stream. Compare it with \"Command stream 2 wait stall\" to see how "
             "much of that time is spent waiting."},
    {.at = {{{57, tables("9")}}},
     .name = "Command stream 2 prefetch stall",
     .hardware_name = "CSHWIF2_PREFETCH_MISS_COUNT",
     .body = "This counter increments for every stall of command stream 2 because a command that it needs "
             "next is missing from the prefetched data. A high value suggests many jumps between command "
             "buffers or a long memory latency."},
    {.at = {{{58, tables("9")}}},
     .name = "Command stream 2 IRQ active",
     .hardware_name = "CSHWIF2_IRQ_ACTIVE",
     .body = "This counter increments every clock cycle in which command stream 2 has an interrupt pending "
             "that the microcontroller of the front-end has not handled. A high value can delay the work "
             "that follows in this stream."},
    {.at = {{{59, tables("9")}}},
     .name = "Command stream 2 wait stall",
     .hardware_name = "CSHWIF2_WAIT_BLOCKED",
     .body = "This counter increments every clock cycle in which command stream 2 is blocked by a wait "
             "command, for instance until earlier work or another stream has reached a given point. A high "
             "value shows dependencies that leave this stream idle."},
    {.at = {{{60, tables("9")}}},
     .name = "Command stream 3 active",
     .hardware_name = "CSHWIF3_ENABLED",
     .body = "This counter increments every clock cycle in which hardware interface 3 of the front-end "
             "holds an enabled command stream. Compare it with \"Command stream 3 wait stall\" to see how "
             "much of that time is spent waiting."},
    {.at = {{{61, tables("9")}}},
     .name = "Command stream 3 prefetch stall",
     .hardware_name = "CSHWIF3_PREFETCH_MISS_COUNT",
     .body = "This counter increments for every stall of command stream 3 because a command that it needs "
             "next is missing from the prefetched data. A high value suggests many jumps between command "
             "buffers or a long memory latency."},
    {.at = {{{62, tables("9")}}},
     .name = "Command stream 3 IRQ active",
     .hardware_name = "CSHWIF3_IRQ_ACTIVE",
     .body = "This counter increments every clock cycle in which command stream 3 has an interrupt pending "
             "that the microcontroller of the front-end has not handled. A high value can delay the work "
             "that follows in this stream."},
    {.at = {{{63, tables("1-8")}, {13, tables("9")}}},
     .name = "L2 cache flush requests",
     .hardware_name = "CACHE_FLUSH",
     .body = "This counter increments for every request to flush the L2 cache. Flushes make results visible "
             "to the CPU and to other devices. A high value suggests frequent synchronization, with data "
             "written to memory and read back that could have stayed in the cache."},
    {.at = {{{63, tables("9")}}},
     .name = "Command stream 3 wait stall",
     .hardware_name = "CSHWIF3_WAIT_BLOCKED",
     .body = "This counter increments every clock cycle in which command stream 3 is blocked by a wait "
             "command, for instance until earlier work or another stream has reached a given point. A high "
             "value shows dependencies that leave this stream idle."},
});

}  // namespace qel::vexa::hwc
