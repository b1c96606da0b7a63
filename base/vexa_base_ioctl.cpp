#include "base/vexa_base_ioctl.h"

#include <sys/ioctl.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <span>

#include "uku/vexa_uku.h"

namespace {

base_result to_result(int answer) {
    if (answer != -1) {
        return BASE_SUCCESS;
    }
    switch (errno) {
        case ENOMEM:
            return BASE_OUT_OF_MEMORY;
        case EBUSY:
            return BASE_BUSY;
        default:
            return BASE_FAILURE;
    }
}

// Where a property is kept.
struct property_row {
    std::uint32_t key;
    std::size_t offset;
    std::size_t size;
};

#define BASE_FIELD_ROW(key, field, type) {key, offsetof(base_gpu_props, field), sizeof(type)},
#define BASE_GROUP_ROW(key, n) BASE_FIELD_ROW(key, core_group_mask_##n, std::uint64_t)
constexpr property_row PROPERTY_ROWS[] = {BASE_GPU_PROPERTIES(BASE_FIELD_ROW, BASE_GROUP_ROW)};
#undef BASE_FIELD_ROW
#undef BASE_GROUP_ROW
static_assert(std::size(PROPERTY_ROWS) == 83);
static_assert([] {  // the keys are 1 to 85, each once
    std::uint64_t seen[2] = {1ULL << 5 | 1ULL << 7, 0};
    for (const property_row& row : PROPERTY_ROWS) {
        seen[row.key / 64] ^= 1ULL << row.key % 64;
    }
    return seen[0] == ~1ULL && seen[1] == (1ULL << (86 - 64)) - 1;
}());

// A little-endian number of up to eight bytes.
std::uint64_t read_number(std::span<const std::uint8_t> bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        value |= std::uint64_t{bytes[i]} << (8 * i);
    }
    return value;
}

template <typename Field>
void store_as(std::uint8_t* field, std::uint64_t value) {
    const auto converted = static_cast<Field>(value);
    std::memcpy(field, &converted, sizeof converted);
}

// Keeps a value in its field's size, whatever size it came in.
void store(base_gpu_props* props, const property_row& row, std::uint64_t value) {
    std::uint8_t* field = reinterpret_cast<std::uint8_t*>(props) + row.offset;
    switch (row.size) {
        case 1:
            return store_as<std::uint8_t>(field, value);
        case 2:
            return store_as<std::uint16_t>(field, value);
        case 4:
            return store_as<std::uint32_t>(field, value);
        default:
            return store_as<std::uint64_t>(field, value);
    }
}

// Unlike the reader of hardware/info.h, which judges what it reads, this one keeps whatever it finds. A
// record that is cut off at the end is left out.
void read_properties(std::span<const std::uint8_t> blob, base_gpu_props* props) {
    constexpr std::size_t header_size = sizeof(std::uint32_t);
    while (blob.size() >= header_size) {
        const auto header = static_cast<std::uint32_t>(read_number(blob.first(header_size)));
        const std::size_t value_size = std::size_t{1}
                                       << (header & ((1U << BASE_PROPERTY_SIZE_CODE_BITS) - 1));
        if (blob.size() < header_size + value_size) {
            return;
        }
        const std::uint64_t value = read_number(blob.subspan(header_size, value_size));
        for (const property_row& row : PROPERTY_ROWS) {
            if (row.key == header >> BASE_PROPERTY_SIZE_CODE_BITS) {
                store(props, row, value);
            }
        }
        blob = blob.subspan(header_size + value_size);
    }
}

// All groups are counted, also those that the driver says do not count.
void count_cores(base_gpu_props* props) {
#define BASE_NO_FIELD(key, field, type)
#define BASE_COUNT_GROUP(key, n) \
    props->core_group_num_cores_##n = static_cast<std::uint16_t>(std::popcount(props->core_group_mask_##n));
    BASE_GPU_PROPERTIES(BASE_NO_FIELD, BASE_COUNT_GROUP)
#undef BASE_NO_FIELD
#undef BASE_COUNT_GROUP
}

}  // namespace

base_result basep_ioctl_version_check(const uku_context* ctx, base_version_record* record) {
    return to_result(::ioctl(uku_get_fd(ctx), BASE_REQUEST_VERSION_CHECK, record));
}

base_result basep_ioctl_set_flags(const uku_context* ctx, base_flags_record* record) {
    return to_result(::ioctl(uku_get_fd(ctx), BASE_REQUEST_SET_FLAGS, record));
}

base_result basep_ioctl_get_properties(const uku_context* ctx, base_gpu_props* props) {
    base_property_request request{};
    const int size = ::ioctl(uku_get_fd(ctx), BASE_REQUEST_GET_PROPERTIES, &request);
    if (size < 0) {
        return BASE_FAILURE;
    }
    auto* buffer = static_cast<std::uint8_t*>(std::malloc(static_cast<std::size_t>(size)));
    if (buffer == nullptr) {
        return BASE_FAILURE;
    }
    request.buffer = reinterpret_cast<std::uintptr_t>(buffer);
    request.size = static_cast<std::uint32_t>(size);
    // This answer is the length that counts, though never more of it than there is a buffer for.
    const int length = ::ioctl(uku_get_fd(ctx), BASE_REQUEST_GET_PROPERTIES, &request);
    if (length >= 0) {
        *props = {};
        read_properties({buffer, static_cast<std::size_t>(std::min(size, length))}, props);
        count_cores(props);
    }
    std::free(buffer);
    return length < 0 ? BASE_FAILURE : BASE_SUCCESS;
}

base_result basep_ioctl_hwcnt_reader_setup(const uku_context* ctx, base_hwcnt_reader_setup_record* record,
                                           std::int32_t* out_fd) {
    const int answer = ::ioctl(uku_get_fd(ctx), BASE_REQUEST_HWCNT_READER_SETUP, record);
    if (answer < 0) {
        return BASE_FAILURE;
    }
    *out_fd = answer;
    return BASE_SUCCESS;
}
