// Fuzzes the dictionary: a stream of operations with failing allocations, compared with a plain list after
// each.
#include <cstdio>
#include <cstdlib>
#include <span>

#include "fuzz/strdict_session.h"

// The first byte says whether the dictionary can release memory and which allocation fails first; then come
// operations of two bytes.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    strdict_session session(data[0] / 2, data[0] % 2 == 0);
    const char* const broken = session.run(std::span(data, size).subspan(1));
    if (broken != nullptr) {
        std::fprintf(stderr, "broken: %s\n", broken);
        std::abort();
    }
    return 0;
}
