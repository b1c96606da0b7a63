// A kernel driver whose answers are an input: the results of its requests, its versions, sizes, lengths,
// counts and indices, the properties, and what poll finds. Whatever it says, detection, the context, the
// reader and the evaluation of all rows stay inside the memory that they were given, and everything is given
// back.

#include <android/log.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <vector>

#include "base/kernel_requests.h"
#include "counterfeed/src/periodic_hwc_reader.h"
#include "hwc/product.h"
#include "hwc/profiler.h"
#include "hwc/reported_rows.h"
#include "tests/support/own_time.h"

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// The far side of the kernel boundary. An input that has come to its end says no to everything.
class driver {
public:
    driver(const std::uint8_t* data, std::size_t size) : data_(data), left_(size) {}
    ~driver() {
        for (const int descriptor : descriptors_) {
            ::close(descriptor);
        }
        for (const auto& [address, length] : mappings_) {
            ::operator delete(address);
        }
    }
    driver(const driver&) = delete;
    driver& operator=(const driver&) = delete;

    bool holds(int descriptor) const { return descriptors_.contains(descriptor); }
    std::size_t held() const { return descriptors_.size() + mappings_.size(); }

    // 0, or a failure, of which one byte in eight is.
    int status() {
        if (left_ == 0) {
            errno = EIO;
            return -1;
        }
        const auto byte = number<std::uint8_t>();
        if (byte % 8 != 7) {
            return 0;
        }
        constexpr int errors[] = {EIO, ENOMEM, EBUSY, EINTR};
        errno = errors[byte / 8 % 4];
        return byte < 0x80 ? -1 : -1 - byte;
    }

    int open_file() {
        if (status() != 0) {
            return -1;
        }
        const int descriptor = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        require(descriptor >= 0);
        descriptors_.insert(descriptor);
        return descriptor;
    }
    void forget_file(int descriptor) { descriptors_.erase(descriptor); }

    int answer(unsigned request, void* argument) {
        if (const int result = status(); result != 0) {
            return result;
        }
        switch (request) {
            case BASE_REQUEST_GET_PROPERTIES:
                return give_properties(*static_cast<const base_property_request*>(argument));
            case BASE_REQUEST_HWCNT_READER_SETUP:
                return open_file();
            case BASE_REQUEST_VERSION_CHECK:
            case BASE_REQUEST_VERSION_CHECK_SECOND:
            case BASE_REQUEST_GET_HWVER:
            case BASE_REQUEST_GET_SAMPLE_SIZE:
            case BASE_REQUEST_GET_BUFFER_SHORT:
            case BASE_REQUEST_GET_BUFFER_LONG:
            case BASE_REQUEST_GET_API_VERSION:
            case BASE_REQUEST_GET_API_VERSION_WITH_FEATURES:
                fill(argument, _IOC_SIZE(request));
                return 0;
            default:
                return 0;
        }
    }

    void* map(std::size_t length, int protection) {
        if (status() != 0 || length > longest_mapping) {
            errno = ENOMEM;
            return MAP_FAILED;
        }
        // Of exactly the length, so that a read beyond it is seen.
        void* const address = ::operator new(length);
        mappings_[address] = length;
        if (protection != PROT_NONE) {
            const auto pattern = number<std::uint32_t>();
            auto* const words = static_cast<std::uint32_t*>(address);
            for (std::uint32_t i = 0; i < length / sizeof *words; ++i) {
                words[i] = pattern * (i % 61);
            }
        }
        return address;
    }
    bool unmap(void* address, std::size_t length) {
        const auto found = mappings_.find(address);
        if (found == mappings_.end()) {
            return false;
        }
        require(found->second == length);
        ::operator delete(address);
        mappings_.erase(found);
        return true;
    }

    int wait(pollfd* descriptors, nfds_t count) {
        for (nfds_t i = 0; i < count; ++i) {
            descriptors[i].revents = 0;
        }
        if (left_ == 0) {
            descriptors[0].revents = POLLIN;  // interrupted
            return 1;
        }
        if (const int result = status(); result != 0) {
            return result;
        }
        const auto events = number<std::uint8_t>();
        descriptors[count - 1].revents = static_cast<short>(events % 16 == 0 ? events / 16 : POLLIN);
        return events % 32 == 0 ? 0 : 1;
    }

private:
    static constexpr std::size_t longest_mapping = 4U << 20;
    static constexpr std::size_t longest_properties = 1U << 16;

    template <typename Number>
    Number number() {
        Number result{};
        fill(&result, sizeof result);
        return result;
    }

    // Zeroes follow the input's end.
    void fill(void* target, std::size_t size) {
        const std::size_t given = std::min(size, left_);
        auto* const bytes = static_cast<std::uint8_t*>(target);
        std::fill_n(std::copy_n(data_, given, bytes), size - given, std::uint8_t{0});
        data_ += given;
        left_ -= given;
    }

    // The length, which need not be that of the request before, and as many bytes as there is room for. They
    // are those of the request before unless the input says otherwise.
    int give_properties(const base_property_request& request) {
        const auto say = number<std::uint8_t>();
        if (properties_.empty() || say % 16 == 1) {
            properties_.resize(number<std::uint16_t>() % (say % 16 == 2 ? longest_properties : 512));
            fill(properties_.data(), properties_.size());
        }
        const std::size_t room = std::min<std::size_t>(request.size, properties_.size());
        if (request.buffer != 0) {
            // NOLINTNEXTLINE(performance-no-int-to-ptr): the record can only carry a number
            std::copy_n(properties_.data(), room, reinterpret_cast<std::uint8_t*>(request.buffer));
        }
        return say % 16 == 3 ? number<std::uint16_t>() : static_cast<int>(properties_.size());
    }

    const std::uint8_t* data_;
    std::size_t left_;
    std::set<int> descriptors_;
    std::map<void*, std::size_t> mappings_;
    std::vector<std::uint8_t> properties_;
};

driver* kernel = nullptr;

bool is_node(const char* path) {
    return kernel != nullptr && std::strncmp(path, "/dev/vexa", 9) == 0;
}

// A session's way through the driver, without the tracing service. Whether it got a reader.
bool run_session() {
    std::error_code ec;
    const hwc::product product("/dev/vexa0", ec);
    std::error_code reader_ec;
    counterfeed::periodic_hwc_reader reader(std::chrono::milliseconds(1), reader_ec);
    require(!reader_ec);
    if (!reader.is_initialized() || !reader.begin_sampling_periodic() || ec) {
        return reader.is_initialized();
    }
    hwc::profiler profiler(product, reader.get_hwver());
    if (reader.words_per_sample() < profiler.words_read()) {
        return true;  // as the sampling thread does
    }
    const std::vector<std::reference_wrapper<const hwc::vexa_counter_descriptor>> all(
        product.counters->begin(), product.counters->end());
    const hwc::reported_rows rows(profiler, all);
    double sum = 0;
    reader.process_buffers_until_interrupted([&](std::uint64_t /*timestamp*/, std::uint64_t /*delta*/,
                                                 std::uint64_t cycles, const std::uint32_t* sample) {
        profiler.gpu_cycles = cycles;
        rows.evaluate(sample, [&sum](std::size_t /*index*/, double value) { sum += value; });
    });
    require(sum >= 0);
    return true;
}

}  // namespace

// The linker leads the product's calls here.
extern "C" {

int __real_open64(const char* path, int flags, ...);
int __wrap_open64(const char* path, int flags, ...) {
    if (is_node(path)) {
        return kernel->open_file();
    }
    std::va_list arguments;
    va_start(arguments, flags);
    const auto mode = va_arg(arguments, unsigned);
    va_end(arguments);
    return __real_open64(path, flags, mode);
}

int __real_close(int descriptor);
int __wrap_close(int descriptor) {
    if (kernel != nullptr) {
        kernel->forget_file(descriptor);
    }
    return __real_close(descriptor);
}

int __real_stat64(const char* path, struct stat64* status);
int __wrap_stat64(const char* path, struct stat64* status) {
    return is_node(path) ? kernel->status() : __real_stat64(path, status);
}

int __real_fstat64(int descriptor, struct stat64* status);
int __wrap_fstat64(int descriptor, struct stat64* status) {
    if (kernel != nullptr && kernel->holds(descriptor) && kernel->status() != 0) {
        return -1;
    }
    return __real_fstat64(descriptor, status);
}

int __wrap_ioctl(int descriptor, unsigned long request, void* argument) {
    require(kernel->holds(descriptor));
    return kernel->answer(static_cast<unsigned>(request), argument);
}

void* __real_mmap64(void* address, std::size_t length, int protection, int flags, int descriptor,
                    off64_t offset);
void* __wrap_mmap64(void* address, std::size_t length, int protection, int flags, int descriptor,
                    off64_t offset) {
    if (kernel != nullptr && kernel->holds(descriptor)) {
        return kernel->map(length, protection);
    }
    return __real_mmap64(address, length, protection, flags, descriptor, offset);
}

int __real_munmap(void* address, std::size_t length);
int __wrap_munmap(void* address, std::size_t length) {
    return kernel != nullptr && kernel->unmap(address, length) ? 0 : __real_munmap(address, length);
}

int __wrap_poll(pollfd* descriptors, nfds_t count, int /*timeout*/) {
    return kernel->wait(descriptors, count);
}

// Messages go nowhere.
int __android_log_write(int /*priority*/, const char* /*tag*/, const char* /*text*/) {
    return 1;
}
decltype(fwrite) __real_fwrite;
std::size_t __wrap_fwrite(const void* data, std::size_t size, std::size_t count, std::FILE* file) {
    return file == stderr ? count : __real_fwrite(data, size, count, file);
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    driver input(data, size);
    kernel = &input;
    const test_support::own_time time;  // for nodes that are waited for
    const bool had_reader = run_session();
    // A search that ends without an accepted GPU may leave the node and the page of its last round, on
    // purpose.
    require(input.held() <= (had_reader ? 0 : 2));
    kernel = nullptr;
    return 0;
}

}  // extern "C"
