// Lets a test change what the driver answers; to be linked with --wrap=ioctl.
#pragma once

#include <functional>

namespace test_support {

// Gives the result of a request, from its number, its argument and the result that the driver has given.
inline std::function<int(unsigned long number, void* argument, int result)> change_answer;

}  // namespace test_support

extern "C" {

int __real_ioctl(int descriptor, unsigned long number, void* argument);
[[gnu::used]] inline int __wrap_ioctl(int descriptor, unsigned long number, void* argument) {
    const int result = __real_ioctl(descriptor, number, argument);
    return test_support::change_answer ? test_support::change_answer(number, argument, result) : result;
}

}  // extern "C"
