// The requests of the GPU kernel driver: numbers and records, as they cross the kernel boundary.
#pragma once

#include <linux/ioctl.h>

#include <cstddef>
#include <cstdint>

// All fields are little-endian, and no record has holes. Every field has a fixed width, so that 32 and 64 bit
// processes hand over the same bytes.

struct base_version_record {
    std::uint16_t major;
    std::uint16_t minor;
};
static_assert(sizeof(base_version_record) == 4);
static_assert(offsetof(base_version_record, minor) == 2);

struct base_flags_record {
    std::uint32_t create_flags;
};
static_assert(sizeof(base_flags_record) == 4);

struct base_property_request {
    std::uint64_t buffer;  // user address of the destination; 0 asks for the length alone
    std::uint32_t size;    // bytes available there
    std::uint32_t flags;   // always 0
};
static_assert(sizeof(base_property_request) == 16);
static_assert(offsetof(base_property_request, size) == 8);
static_assert(offsetof(base_property_request, flags) == 12);

// With the enable words of the blocks' counters.
struct base_hwcnt_reader_setup_record {
    std::uint32_t buffer_count;
    std::uint32_t jm_bm;
    std::uint32_t shader_bm;
    std::uint32_t tiler_bm;
    std::uint32_t mmu_l2_bm;
};
static_assert(sizeof(base_hwcnt_reader_setup_record) == 20);
static_assert(offsetof(base_hwcnt_reader_setup_record, jm_bm) == 4);
static_assert(offsetof(base_hwcnt_reader_setup_record, shader_bm) == 8);
static_assert(offsetof(base_hwcnt_reader_setup_record, tiler_bm) == 12);
static_assert(offsetof(base_hwcnt_reader_setup_record, mmu_l2_bm) == 16);

// The legacy form of the API version request fills the first word alone.
struct base_hwcnt_reader_api_record {
    std::uint32_t api_version;
    std::uint32_t features;
};
static_assert(sizeof(base_hwcnt_reader_api_record) == 8);
static_assert(offsetof(base_hwcnt_reader_api_record, features) == 4);

// What the kernel tells of a sample. Drivers that give no cycle counts use the short form, which ends before
// them.
struct base_hwcnt_reader_metadata_short {
    std::uint64_t timestamp;
    std::uint32_t event_id;    // what triggered the sample
    std::uint32_t buffer_idx;  // which buffer of the ring holds it
};
struct base_hwcnt_reader_metadata {
    std::uint64_t timestamp;
    std::uint32_t event_id;
    std::uint32_t buffer_idx;
    std::uint64_t cycles_top;
    std::uint64_t cycles_shader;
};
static_assert(sizeof(base_hwcnt_reader_metadata_short) == 16);
static_assert(offsetof(base_hwcnt_reader_metadata_short, event_id) == 8);
static_assert(offsetof(base_hwcnt_reader_metadata_short, buffer_idx) == 12);
static_assert(sizeof(base_hwcnt_reader_metadata) == 32);
static_assert(offsetof(base_hwcnt_reader_metadata, event_id) == 8);
static_assert(offsetof(base_hwcnt_reader_metadata, buffer_idx) == 12);
static_assert(offsetof(base_hwcnt_reader_metadata, cycles_top) == 16);
static_assert(offsetof(base_hwcnt_reader_metadata, cycles_shader) == 24);

// Requests on a device node. The kernel answers the version check under one of two numbers.
inline constexpr unsigned BASE_NODE_GROUP = 0x80;
inline constexpr unsigned BASE_REQUEST_VERSION_CHECK = _IOWR(BASE_NODE_GROUP, 0, base_version_record);
inline constexpr unsigned BASE_REQUEST_VERSION_CHECK_SECOND = _IOWR(BASE_NODE_GROUP, 52, base_version_record);
inline constexpr unsigned BASE_REQUEST_SET_FLAGS = _IOW(BASE_NODE_GROUP, 1, base_flags_record);
inline constexpr unsigned BASE_REQUEST_GET_PROPERTIES = _IOW(BASE_NODE_GROUP, 3, base_property_request);
static_assert(BASE_REQUEST_VERSION_CHECK == 0xc0048000);
static_assert(BASE_REQUEST_VERSION_CHECK_SECOND == 0xc0048034);
static_assert(BASE_REQUEST_SET_FLAGS == 0x40048001);
static_assert(BASE_REQUEST_GET_PROPERTIES == 0x40108003);
inline constexpr unsigned BASE_REQUEST_HWCNT_READER_SETUP =
    _IOW(BASE_NODE_GROUP, 8, base_hwcnt_reader_setup_record);
static_assert(BASE_REQUEST_HWCNT_READER_SETUP == 0x40148008);

// Requests on a reader's descriptor. Direction and size in these numbers don't always tell the truth: dump,
// clear and set interval take no record, and the API version is stored by the kernel. The numbers are the
// kernel's.
inline constexpr unsigned BASE_READER_GROUP = 0xbe;
inline constexpr unsigned BASE_REQUEST_GET_HWVER = _IOR(BASE_READER_GROUP, 0x00, std::uint32_t);
inline constexpr unsigned BASE_REQUEST_GET_SAMPLE_SIZE = _IOR(BASE_READER_GROUP, 0x01, std::uint32_t);
inline constexpr unsigned BASE_REQUEST_DUMP = _IOW(BASE_READER_GROUP, 0x10, std::uint32_t);
inline constexpr unsigned BASE_REQUEST_CLEAR = _IOW(BASE_READER_GROUP, 0x11, std::uint32_t);
inline constexpr unsigned BASE_REQUEST_GET_BUFFER_SHORT =
    _IOR(BASE_READER_GROUP, 0x20, base_hwcnt_reader_metadata_short);
inline constexpr unsigned BASE_REQUEST_GET_BUFFER_LONG =
    _IOR(BASE_READER_GROUP, 0x20, base_hwcnt_reader_metadata);
inline constexpr unsigned BASE_REQUEST_PUT_BUFFER_SHORT =
    _IOW(BASE_READER_GROUP, 0x21, base_hwcnt_reader_metadata_short);
inline constexpr unsigned BASE_REQUEST_PUT_BUFFER_LONG =
    _IOW(BASE_READER_GROUP, 0x21, base_hwcnt_reader_metadata);
inline constexpr unsigned BASE_REQUEST_SET_INTERVAL = _IOW(BASE_READER_GROUP, 0x30, std::uint32_t);
inline constexpr unsigned BASE_REQUEST_GET_API_VERSION = _IOW(BASE_READER_GROUP, 0xff, std::uint32_t);
inline constexpr unsigned BASE_REQUEST_GET_API_VERSION_WITH_FEATURES =
    _IOW(BASE_READER_GROUP, 0xff, base_hwcnt_reader_api_record);
static_assert(BASE_REQUEST_GET_HWVER == 0x8004be00);
static_assert(BASE_REQUEST_GET_SAMPLE_SIZE == 0x8004be01);
static_assert(BASE_REQUEST_DUMP == 0x4004be10);
static_assert(BASE_REQUEST_CLEAR == 0x4004be11);
static_assert(BASE_REQUEST_GET_BUFFER_SHORT == 0x8010be20);
static_assert(BASE_REQUEST_GET_BUFFER_LONG == 0x8020be20);
static_assert(BASE_REQUEST_PUT_BUFFER_SHORT == 0x4010be21);
static_assert(BASE_REQUEST_PUT_BUFFER_LONG == 0x4020be21);
static_assert(BASE_REQUEST_SET_INTERVAL == 0x4004be30);
static_assert(BASE_REQUEST_GET_API_VERSION == 0x4004beff);
static_assert(BASE_REQUEST_GET_API_VERSION_WITH_FEATURES == 0x4008beff);

// The one reader interface there is, and its features: which cycle counts the kernel fills in.
inline constexpr std::uint32_t BASE_HWCNT_READER_API_VERSION = 1;
enum base_hwcnt_reader_feature : std::uint32_t {
    BASE_HWCNT_READER_FEATURE_CYCLES_TOP = 1U << 0,
    BASE_HWCNT_READER_FEATURE_CYCLES_SHADER = 1U << 1,
};

// What can be mapped of a node: the tracking page.
inline constexpr std::int64_t BASE_TRACKING_PAGE_OFFSET = 0x3000;
inline constexpr std::size_t BASE_TRACKING_PAGE_SIZE = 4096;

// Context creation flags. The whole system uses this one value.
inline constexpr std::uint32_t BASE_CREATE_FLAGS = 2;

// The property blob is a sequence of records: a header word, with the code of the value's size in its low
// bits and the key above them, and the value in 1 << code bytes. Records are not aligned.
inline constexpr unsigned BASE_PROPERTY_SIZE_CODE_BITS = 2;
