// A program that knows nothing of the virtual GPU, for the preloaded library to be put under: says what the
// reader delivers that it is offered, what else stands in the file of the offer, and what comes of opening
// the second GPU's node two times.

#include <fcntl.h>

#include <bit>
#include <cerrno>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <string>

#include "counterfeed/src/hwc_reader.h"

int main(int, char** arguments) {  // NOLINT(bugprone-exception-escape): an exception fails the test
    std::ifstream seam(arguments[1]);
    std::string factory;
    std::getline(seam, factory);
    const auto address = static_cast<std::uintptr_t>(std::stoull(factory.substr(sizeof "factory=" - 1)));
    const auto reader = (*std::bit_cast<qel::vexa::counterfeed::reader_factory*>(address))();
    int samples = 0;
    reader->begin_sampling_periodic();
    reader->process_buffers_until_interrupted([&](auto, std::uint64_t delta, std::uint64_t cycles, auto) {
        std::cout << "sample after " << delta << " ns with " << cycles << " cycles\n";
        if (++samples == 2) {
            reader->interrupt();
        }
    });
    std::cout << seam.rdbuf();
    for (int i = 0; i < 2; ++i) {
        std::cout << "error " << (::open("/dev/vexa1", O_RDWR) < 0 ? errno : 0) << '\n';
    }
}
