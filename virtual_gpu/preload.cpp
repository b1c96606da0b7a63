// What the shared library does when it is loaded into a program, by LD_PRELOAD: sets the machine up as the
// environment says, and offers the program a reader at its own seam. README.md has the variables.

#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "virtual_gpu/calls.h"
#include "virtual_gpu/configuration.h"
#include "virtual_gpu/counter_reader.h"
#include "virtual_gpu/known_gpus.h"
#include "virtual_gpu/machine.h"
#include "virtual_gpu/seam_reader.h"

namespace qel::vexa::virtual_gpu {

namespace {

std::unique_ptr<counterfeed::hwc_reader> make_reader(const configuration& setup) {
    const gpu_description& gpu = setup.machine.nodes.front().gpu;
    return std::make_unique<seam_reader>(make_source(gpu), sample_layout(gpu),
                                         seam_reader_options{.period_ns = setup.period_ns});
}

// Whoever waits for the file finds it whole or not at all.
bool write_whole(const std::string& path, const std::string& text) {
    const std::string temporary = path + "." + std::to_string(::getpid());
    std::FILE* file = std::fopen(temporary.c_str(), "we");
    if (file == nullptr) {
        return false;
    }
    const bool is_written = std::fputs(text.c_str(), file) >= 0;
    if (std::fclose(file) == 0 && is_written && std::rename(temporary.c_str(), path.c_str()) == 0) {
        return true;
    }
    const int error = errno;
    std::remove(temporary.c_str());
    errno = error;
    return false;
}

void offer_seam(const std::string& path, const configuration& setup) {
    // Lives as long as the process: the program may call it until the very end.
    static const auto* factory =
        new counterfeed::reader_factory([setup = configuration(setup)] { return make_reader(setup); });
    const gpu_description& gpu = setup.machine.nodes.front().gpu;
    char text[256];
    std::snprintf(text, sizeof text,
                  "factory=%" PRIuPTR "\nid=0x%" PRIx32 "\ncores=0x%" PRIx64 "\nl2=%u\nbus=%" PRIu32 "\n",
                  reinterpret_cast<std::uintptr_t>(factory), gpu.product_id, gpu.core_mask(),
                  unsigned{gpu.l2_slices}, gpu.bus_width_bytes);
    std::string lines = text;
    if (const known_gpu* known = find_known_gpu(gpu.product_id)) {
        lines += "product=" + std::to_string(known->product) + "\n";
    }
    if (!write_whole(path, lines)) {
        std::fprintf(stderr, "VIRTUAL_GPU_SEAM: cannot write \"%s\": %s\n", path.c_str(),
                     std::strerror(errno));
        ::_exit(bad_environment_status);
    }
}

[[gnu::constructor]] void on_load() {
    machine::begin();  // nodes that are late count from here
    const configuration setup = read_environment();
    const char* path = std::getenv("VIRTUAL_GPU_SEAM");
    if (!setup.machine.nodes.empty() && path != nullptr) {
        offer_seam(path, setup);
    }
}

}  // namespace

// Can be needed before on_load has run, by another library's initialiser.
machine_setup initial_machine() {
    return read_environment().machine;
}

}  // namespace qel::vexa::virtual_gpu
