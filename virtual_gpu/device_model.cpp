#include "virtual_gpu/device_model.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "virtual_gpu/counter_reader.h"

namespace qel::vexa::virtual_gpu {

namespace {

// The requests of the device node.
enum request_number : std::uint32_t {
    number_version_check = 0xc0048000,
    number_version_check_second = 0xc0048034,
    number_set_flags = 0x40048001,
    number_get_properties = 0x40108003,
    number_reader_setup = 0x40148008,
};
constexpr unsigned record_size_shift = 16;
constexpr std::uint32_t record_size_mask = 0x3fff;

struct version_record {
    std::uint16_t major;
    std::uint16_t minor;
};
static_assert(sizeof(version_record) == 4);

struct property_request {
    std::uint64_t buffer;  // an address, or 0 to ask for the length
    std::uint32_t size;
    std::uint32_t flags;
};
static_assert(sizeof(property_request) == 16 && offsetof(property_request, size) == 8 &&
              offsetof(property_request, flags) == 12);

// The keys of the property blob. Those that stand for several words count up from the first.
enum property_key : std::uint32_t {
    key_product_id = 1,
    key_version_status = 2,
    key_minor_revision = 3,
    key_major_revision = 4,
    key_gpu_freq_khz_max = 6,
    key_log2_program_counter_size = 8,
    key_texture_features_0 = 9,
    key_available_memory_size = 12,
    key_l2_log2_line_size = 13,
    key_l2_log2_cache_size = 14,
    key_num_l2_slices = 15,
    key_tiler_bin_size_bytes = 16,
    key_tiler_max_active_levels = 17,
    key_max_threads = 18,
    key_max_workgroup_size = 19,
    key_max_barrier_size = 20,
    key_max_registers = 21,
    key_max_task_queue = 22,
    key_max_thread_group_split = 23,
    key_impl_tech = 24,
    key_raw_shader_present = 25,
    key_raw_tiler_present = 26,
    key_raw_l2_present = 27,
    key_raw_stack_present = 28,
    key_raw_l2_features = 29,
    key_raw_core_features = 30,
    key_raw_mem_features = 31,
    key_raw_mmu_features = 32,
    key_raw_as_present = 33,
    key_raw_js_present = 34,
    key_raw_js_features_0 = 35,
    key_raw_tiler_features = 51,
    key_raw_texture_features_0 = 52,
    key_raw_gpu_id = 55,
    key_raw_thread_max_threads = 56,
    key_raw_thread_max_workgroup_size = 57,
    key_raw_thread_max_barrier_size = 58,
    key_raw_thread_features = 59,
    key_raw_coherency_mode = 60,
    key_num_coherency_groups = 61,
    key_num_core_groups = 62,
    key_coherency = 63,
    key_core_group_mask_0 = 64,
    key_texture_features_3 = 80,
    key_raw_texture_features_3 = 81,
    key_num_exec_engines = 82,
    key_raw_thread_tls_alloc = 83,
    key_tls_alloc = 84,
    key_raw_gpu_features = 85,
};
constexpr unsigned key_shift = 2;  // the size code, log2 of the value's bytes, lies below the key
constexpr std::size_t core_group_capacity = 16;
constexpr std::size_t job_slot_capacity = 16;

class blob_writer {
public:
    void u8(std::uint32_t key, std::uint64_t value) { record(key, value, 0); }
    void u16(std::uint32_t key, std::uint64_t value) { record(key, value, 1); }
    void u32(std::uint32_t key, std::uint64_t value) { record(key, value, 2); }
    void u64(std::uint32_t key, std::uint64_t value) { record(key, value, 3); }

    std::vector<std::byte> take() { return std::move(bytes_); }

private:
    void record(std::uint32_t key, std::uint64_t value, unsigned size_code) {
        append(key << key_shift | size_code, 4);
        append(value, std::size_t{1} << size_code);
    }
    void append(std::uint64_t value, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i) {
            bytes_.push_back(static_cast<std::byte>(value >> (8 * i)));
        }
    }

    std::vector<std::byte> bytes_;
};

// The low n bits.
std::uint64_t ones(unsigned n) {
    return n < 64 ? (std::uint64_t{1} << n) - 1 : std::numeric_limits<std::uint64_t>::max();
}

}  // namespace

std::uint64_t gpu_description::core_mask() const {
    std::uint64_t mask = 0;
    for (const std::uint64_t group : core_group_masks) {
        mask |= group;
    }
    return mask;
}

// What the hardware would report of itself is that of a mid-range GPU, where nothing depends on it.
std::vector<std::byte> property_blob(const gpu_description& gpu) {
    if (gpu.raw_properties) {
        return *gpu.raw_properties;
    }
    constexpr std::uint32_t l2_log2_line = 6;
    constexpr std::uint32_t l2_log2_size = 18;
    constexpr std::uint32_t l2_log2_ways = 4;
    constexpr std::uint32_t thread_limit = 1024;
    constexpr std::uint32_t tls_words = 1024;
    constexpr std::uint32_t texture_formats[] = {0x00fe'001e, 0xffff, 0x9f81'ffff, 0x0000'001f};
    constexpr std::uint32_t job_slots[] = {0x20e, 0x1fe, 0x7e};
    const std::uint64_t cores = gpu.core_mask();
    const auto bus_log2_bits =
        static_cast<std::uint32_t>(std::bit_width(std::uint64_t{gpu.bus_width_bytes} * 8));
    const std::uint32_t gpu_id = gpu.product_id << 16 | (gpu.major_revision & 0xfU) << 12 |
                                 (gpu.minor_revision & 0xffU) << 4 | (gpu.version_status & 0xfU);

    blob_writer blob;
    blob.u32(key_product_id, gpu.product_id);
    blob.u16(key_version_status, gpu.version_status);
    blob.u16(key_minor_revision, gpu.minor_revision);
    blob.u16(key_major_revision, gpu.major_revision);
    blob.u32(key_gpu_freq_khz_max, gpu.clock_hz / 1000);
    blob.u32(key_log2_program_counter_size, 24);
    for (std::uint32_t i = 0; i < 3; ++i) {
        blob.u32(key_texture_features_0 + i, texture_formats[i]);
        blob.u32(key_raw_texture_features_0 + i, texture_formats[i]);
    }
    blob.u32(key_texture_features_3, texture_formats[3]);
    blob.u32(key_raw_texture_features_3, texture_formats[3]);
    blob.u64(key_available_memory_size, std::uint64_t{4} << 30);
    blob.u8(key_num_exec_engines, 1);
    blob.u8(key_l2_log2_line_size, l2_log2_line);
    blob.u8(key_l2_log2_cache_size, l2_log2_size);
    blob.u8(key_num_l2_slices, gpu.l2_slices);
    blob.u32(key_tiler_bin_size_bytes, 512);
    blob.u32(key_tiler_max_active_levels, 8);
    blob.u32(key_max_threads, thread_limit);
    blob.u32(key_max_workgroup_size, thread_limit);
    blob.u32(key_max_barrier_size, thread_limit);
    blob.u16(key_max_registers, 0x8000);
    blob.u8(key_max_task_queue, 4);
    blob.u8(key_max_thread_group_split, 4);
    blob.u8(key_impl_tech, 2);
    blob.u32(key_tls_alloc, tls_words);
    blob.u64(key_raw_shader_present, cores);
    blob.u64(key_raw_tiler_present, 1);
    blob.u64(key_raw_l2_present, ones(gpu.l2_slices));
    blob.u64(key_raw_stack_present, 1);
    blob.u32(key_raw_l2_features, (bus_log2_bits == 0 ? 0 : bus_log2_bits - 1) << 24 | l2_log2_size << 16 |
                                      l2_log2_ways << 8 | l2_log2_line);
    blob.u32(key_raw_core_features, 0);
    blob.u32(key_raw_mem_features, 1);
    blob.u32(key_raw_mmu_features, 0x2830);
    blob.u32(key_raw_as_present, 0xff);
    blob.u32(key_raw_js_present, ones(std::size(job_slots)));
    for (std::uint32_t i = 0; i < job_slot_capacity; ++i) {
        blob.u32(key_raw_js_features_0 + i, i < std::size(job_slots) ? job_slots[i] : 0);
    }
    blob.u32(key_raw_tiler_features, 0x809);
    blob.u32(key_raw_gpu_id, gpu_id);
    blob.u32(key_raw_thread_max_threads, thread_limit);
    blob.u32(key_raw_thread_max_workgroup_size, thread_limit);
    blob.u32(key_raw_thread_max_barrier_size, thread_limit);
    blob.u32(key_raw_thread_features, 0x0a04'8000);
    blob.u32(key_raw_thread_tls_alloc, tls_words);
    blob.u32(key_raw_coherency_mode, 31);
    blob.u64(key_raw_gpu_features, 0);
    const auto group_count = static_cast<std::uint32_t>(gpu.core_group_masks.size());
    blob.u32(key_num_coherency_groups, group_count);
    blob.u32(key_num_core_groups, gpu.core_group_count.value_or(group_count));
    blob.u32(key_coherency, 1);
    for (std::uint32_t i = 0; i < core_group_capacity; ++i) {
        blob.u64(key_core_group_mask_0 + i, i < group_count ? gpu.core_group_masks[i] : 0);
    }
    return blob.take();
}

request_kind kind_of(std::uint32_t number) {
    switch (number) {
        case number_version_check:
            return request_kind::version_check;
        case number_version_check_second:
            return request_kind::version_check_second;
        case number_set_flags:
            return request_kind::set_flags;
        case number_get_properties:
            return request_kind::get_properties;
        case number_reader_setup:
            return request_kind::reader_setup;
        default:
            return request_kind::unknown;
    }
}

std::size_t record_size(std::uint32_t number) {
    return number >> record_size_shift & record_size_mask;
}

device_context::device_context(std::shared_ptr<const gpu_description> gpu)
    : gpu_(std::move(gpu)), properties_(property_blob(*gpu_)) {}

int device_context::answer(std::uint32_t number, void* argument) {
    const request_kind kind = kind_of(number);
    if (kind == request_kind::unknown) {
        return -ENOTTY;
    }
    const bool is_version_check =
        kind == request_kind::version_check || kind == request_kind::version_check_second;
    if (!is_version_check && (!version_checked_ || (kind != request_kind::set_flags && !flags_set_))) {
        return -EPERM;
    }
    if (argument == nullptr) {
        return -EFAULT;
    }
    switch (kind) {
        case request_kind::set_flags:
            return set_flags();
        case request_kind::get_properties:
            return get_properties(argument);
        case request_kind::reader_setup:
            return check_reader_setup(argument);
        default:
            return check_version(argument);
    }
}

// The caller's own version is not judged: it gets to know the driver's and decides.
int device_context::check_version(void* argument) {
    const version_record reply{.major = gpu_->kernel_version.major, .minor = gpu_->kernel_version.minor};
    std::memcpy(argument, &reply, sizeof reply);
    version_checked_ = true;
    return 0;
}

// Any flags will do, but they are fixed by the first call.
int device_context::set_flags() {
    if (flags_set_) {
        return -EPERM;
    }
    flags_set_ = true;
    return 0;
}

int device_context::check_reader_setup(const void* argument) {
    constexpr std::uint32_t most_buffers = 32;
    reader_setup_record setup;
    std::memcpy(&setup, argument, sizeof setup);
    return std::has_single_bit(setup.buffer_count) && setup.buffer_count <= most_buffers ? 0 : -EINVAL;
}

int device_context::get_properties(void* argument) const {
    property_request request;
    std::memcpy(&request, argument, sizeof request);
    if (request.flags != 0) {
        return -EINVAL;
    }
    const auto length = static_cast<int>(properties_.size());
    if (request.buffer == 0 && request.size == 0) {
        return length;
    }
    if (request.size < properties_.size()) {
        return -EINVAL;
    }
    const auto address = static_cast<std::uintptr_t>(request.buffer);
    if (address == 0 || address != request.buffer) {
        return -EFAULT;
    }
    std::copy(properties_.begin(), properties_.end(), std::bit_cast<std::byte*>(address));
    return length;
}

}  // namespace qel::vexa::virtual_gpu
