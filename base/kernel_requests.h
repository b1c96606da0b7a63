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

// Context creation flags. The whole system uses this one value.
inline constexpr std::uint32_t BASE_CREATE_FLAGS = 2;

// The property blob is a sequence of records: a header word, with the code of the value's size in its low
// bits and the key above them, and the value in 1 << code bytes. Records are not aligned.
inline constexpr unsigned BASE_PROPERTY_SIZE_CODE_BITS = 2;
