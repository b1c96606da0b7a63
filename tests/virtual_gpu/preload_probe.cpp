// A program that knows nothing of the virtual GPU, for the preloaded library to be put under: says what the
// reader delivers that it is offered, and what else stands in the file of the offer.

#include <bit>
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
}
