// A program that knows nothing of the virtual GPU, for the preloaded library to be put under: says what it
// finds at the device node, and what the reader that it is offered delivers.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "counterfeed/src/hwc_reader.h"

int main() {  // NOLINT(bugprone-exception-escape): an exception fails the test
    const int fd = ::open("/dev/vexa0", O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        std::printf("no node\n");
    } else {
        std::uint16_t version[2] = {};
        const int result = ::ioctl(fd, 0xc0048000, version);
        std::printf("version %d: %d.%d\n", result, version[0], version[1]);
        ::close(fd);
    }
    const char* path = std::getenv("VIRTUAL_GPU_SEAM");
    std::FILE* file = path == nullptr ? nullptr : std::fopen(path, "r");
    if (file == nullptr) {
        return 0;
    }
    char line[128];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        if (std::strncmp(line, "factory=", 8) != 0) {
            std::fputs(line, stdout);
            continue;
        }
        const auto address = static_cast<std::uintptr_t>(std::strtoull(line + 8, nullptr, 10));
        const auto& factory = *std::bit_cast<qel::vexa::counterfeed::reader_factory*>(address);
        const auto reader = factory();
        int samples = 0;
        reader->begin_sampling_periodic();
        reader->process_buffers_until_interrupted(
            [&](std::uint64_t, std::uint64_t delta, std::uint64_t cycles, const std::uint32_t*) {
                std::printf("sample after %u ns with %u cycles\n", static_cast<unsigned>(delta),
                            static_cast<unsigned>(cycles));
                if (++samples == 2) {
                    reader->interrupt();
                }
            });
    }
    std::fclose(file);
    return 0;
}
