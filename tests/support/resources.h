// What a process holds, to see that nothing is left behind.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>
#include <thread>

#include "tests/support/process.h"

namespace test_support {

struct held_resources {
    std::ptrdiff_t descriptors;
    std::ptrdiff_t threads;
    std::ptrdiff_t mappings;  // of files and devices; the rest is the allocator's own business

    // Fewer are no fault: what was there before may have been on its way out.
    bool nothing_beyond(const held_resources& before) const {
        return descriptors <= before.descriptors && threads <= before.threads && mappings <= before.mappings;
    }

    static held_resources now() {
        // With the first thread a sanitizer starts one of its own, which stays.
        [[maybe_unused]] static const bool has_begun = (std::thread([] {}).join(), true);
        const auto entries = [](const char* folder) {
            return std::distance(std::filesystem::directory_iterator(folder), {});
        };
        held_resources result{entries("/proc/self/fd"), entries("/proc/self/task"), 0};
        std::ifstream maps("/proc/self/maps");
        std::string range, access, offset, device, inode, rest;
        while (maps >> range >> access >> offset >> device >> inode && std::getline(maps, rest)) {
            result.mappings += inode != "0" ? 1 : 0;
        }
        return result;
    }
};

inline void PrintTo(const held_resources& held, std::ostream* out) {
    *out << held.descriptors << " descriptors, " << held.threads << " threads, " << held.mappings
         << " mappings";
}

// Nothing is held beyond what was before. A thread that has been joined may be on its way out for a moment
// still.
inline testing::AssertionResult nothing_left(const held_resources& before) {
    if (eventually([&before] { return held_resources::now().nothing_beyond(before); },
                   std::chrono::seconds(5))) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure()
           << testing::PrintToString(held_resources::now()) << " beyond " << testing::PrintToString(before);
}

}  // namespace test_support
