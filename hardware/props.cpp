// Reading the property bytes, at start-up and as each session starts. It opens the node by itself and asks
// less of it than a driver context does: it doesn't wait for a node to appear, accepts any kind of file and
// any interface version. That is deliberate: a GPU can be described that gives no samples.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "base/kernel_requests.h"
#include "hardware/info.h"

namespace qel::vexa::hardware {

namespace {

class descriptor {
public:
    explicit descriptor(int fd) : fd_(fd) {}
    ~descriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;

    bool is_open() const { return fd_ >= 0; }

    // The driver's result; negative when it refuses.
    template <typename Record>
    int request(unsigned number, Record& record) const {
        return ::ioctl(fd_, number, &record);
    }

private:
    int fd_;
};

// The driver's result that ended it, negative when it refused. The bytes are good only otherwise.
int fetch(const descriptor& node, property_bytes& bytes) {
    base_version_record version{};  // the driver's answer is not looked at
    int result = node.request(BASE_REQUEST_VERSION_CHECK, version);
    if (result < 0) {
        result = node.request(BASE_REQUEST_VERSION_CHECK_SECOND, version);
    }
    if (result < 0) {
        return result;
    }
    base_flags_record flags{.create_flags = BASE_CREATE_FLAGS};
    result = node.request(BASE_REQUEST_SET_FLAGS, flags);
    if (result < 0) {
        return result;
    }
    base_property_request request{};
    const int length = node.request(BASE_REQUEST_GET_PROPERTIES, request);
    if (length < 0) {
        return length;
    }
    bytes.resize(static_cast<std::size_t>(length));
    request.buffer = reinterpret_cast<std::uintptr_t>(bytes.data());
    request.size = static_cast<std::uint32_t>(length);
    // The first answer stays the length, whatever the second says.
    return node.request(BASE_REQUEST_GET_PROPERTIES, request);
}

}  // namespace

property_bytes props(const stx::backport::filesystem::path& path, std::error_code& ec) {
    const descriptor node(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (!node.is_open()) {
        ec = std::error_code(ENODEV, std::generic_category());
        return {};
    }
    property_bytes bytes;
    try {
        const int result = fetch(node, bytes);
        if (result >= 0) {
            return bytes;
        }
        // The request's own result, not errno.
        ec = std::error_code(result, std::system_category());
    } catch (const std::bad_alloc&) {
        ec = std::error_code(ENOMEM, std::generic_category());
    }
    return {};
}

}  // namespace qel::vexa::hardware
