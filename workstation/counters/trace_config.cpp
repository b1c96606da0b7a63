#include "workstation/counters/trace_config.h"

#include <algorithm>

namespace qel::vexa::counters {

namespace {

// The service takes the trace out of the buffer and into the file every so often, so that the buffer need not
// hold a whole recording. At the shortest period all counters of the largest table make 5 MB a second.
constexpr unsigned buffer_kb = 32768;
constexpr unsigned file_write_period_ms = 2000;

// The ids that have these counters: those of all products with the same table.
std::string gpus_of_table(unsigned table) {
    std::string products;
    std::string ids;
    std::size_t count = 0;
    for (const command_line::gpu& each : command_line::all_gpus()) {
        if (each.table == table) {
            products += (count++ == 0 ? "" : ", ") + std::to_string(static_cast<std::uint32_t>(each.product));
            for (const std::uint32_t id : command_line::gpu_ids(each.product)) {
                ids += " " + command_line::hexadecimal(id);
            }
        }
    }
    return "product" + std::string(count == 1 ? "" : "s") + " " + products + " alone: GPU ids" + ids;
}

}  // namespace

std::string trace_config(const command_line::gpu& gpu, const std::vector<command_line::counter>& counters,
                         const recording& how) {
    std::string text = "# " + std::to_string(counters.size()) + " GPU counter" +
                       (counters.size() == 1 ? "" : "s") + ", a sample every " +
                       std::to_string(how.period_ms) + " ms.\n# For " + gpus_of_table(gpu.table) +
                       ".\n"
                       "# Record with: perfetto --txt -c THIS_FILE -o TRACE\n"
                       "buffers { size_kb: " +
                       std::to_string(buffer_kb) + " fill_policy: RING_BUFFER }\n";
    if (how.duration_s != 0) {
        text += "duration_ms: " + std::to_string(how.duration_s * 1000) + "\n";
    }
    text += "write_into_file: true\nfile_write_period_ms: " + std::to_string(file_write_period_ms) +
            "\n"
            "data_sources {\n"
            "  config {\n"
            "    name: \"gpu.counters\"\n"
            "    gpu_counter_config {\n"
            "      counter_period_ns: " +
            std::to_string(how.period_ms * 1'000'000) + "\n";
    for (const command_line::counter& each : counters) {
        text += "      counter_ids: " + std::to_string(each.row->id) + "  # " + each.row->name + "\n";
    }
    return text + "    }\n  }\n}\n";
}

}  // namespace qel::vexa::counters
