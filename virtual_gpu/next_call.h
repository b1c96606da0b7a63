// A call of the C library as it is behind the stand-in for it.
#pragma once

#include <dlfcn.h>

#include <atomic>
#include <cerrno>

namespace qel::vexa::virtual_gpu {

// A call of the C library, looked up on first use: a stand-in can run before any initialiser of its file.
template <typename Function>
class next_call {
public:
    explicit constexpr next_call(const char* name) : name_(name) {}

    // Null when there is none.
    Function* get() {
        if (Function* function = address_.load(std::memory_order_relaxed)) {
            return function;
        }
        auto* function = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name_));
        address_.store(function, std::memory_order_relaxed);
        return function;
    }
    // Null also when it has not been looked up.
    Function* peek() const { return address_.load(std::memory_order_relaxed); }

    template <typename... Arguments>
    int operator()(Arguments... arguments) {
        Function* function = get();
        if (function == nullptr) {
            errno = ENOSYS;
            return -1;
        }
        return function(arguments...);
    }

private:
    const char* name_;
    std::atomic<Function*> address_{nullptr};
};

}  // namespace qel::vexa::virtual_gpu
