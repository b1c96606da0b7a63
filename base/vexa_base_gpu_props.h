// What the kernel driver tells of its GPU.
#pragma once

#include <cstdint>

// All that the driver's property bytes can hold: the key of each property and the field that keeps it, in as
// many bytes as the field has. FIELD(key, field, type) is one property; GROUP(key, n) is the mask of the
// shader cores in core group n. Keys 5 and 7 are not kept.
#define BASE_GPU_PROPERTIES(FIELD, GROUP)                   \
    FIELD(1, product_id, std::uint32_t)                     \
    FIELD(2, version_status, std::uint16_t)                 \
    FIELD(3, minor_revision, std::uint16_t)                 \
    FIELD(4, major_revision, std::uint16_t)                 \
    FIELD(6, gpu_freq_khz_max, std::uint32_t)               \
    FIELD(8, log2_program_counter_size, std::uint32_t)      \
    FIELD(9, texture_features_0, std::uint32_t)             \
    FIELD(10, texture_features_1, std::uint32_t)            \
    FIELD(11, texture_features_2, std::uint32_t)            \
    FIELD(80, texture_features_3, std::uint32_t)            \
    FIELD(12, available_memory_size, std::uint64_t)         \
    FIELD(82, num_exec_engines, std::uint8_t)               \
    FIELD(13, l2_log2_line_size, std::uint8_t)              \
    FIELD(14, l2_log2_cache_size, std::uint8_t)             \
    FIELD(15, num_l2_slices, std::uint8_t)                  \
    FIELD(16, tiler_bin_size_bytes, std::uint32_t)          \
    FIELD(17, tiler_max_active_levels, std::uint32_t)       \
    FIELD(18, max_threads, std::uint32_t)                   \
    FIELD(19, max_workgroup_size, std::uint32_t)            \
    FIELD(20, max_barrier_size, std::uint32_t)              \
    FIELD(21, max_registers, std::uint16_t)                 \
    FIELD(22, max_task_queue, std::uint8_t)                 \
    FIELD(23, max_thread_group_split, std::uint8_t)         \
    FIELD(24, impl_tech, std::uint8_t)                      \
    FIELD(84, tls_alloc, std::uint32_t)                     \
    FIELD(25, raw_shader_present, std::uint64_t)            \
    FIELD(26, raw_tiler_present, std::uint64_t)             \
    FIELD(27, raw_l2_present, std::uint64_t)                \
    FIELD(28, raw_stack_present, std::uint64_t)             \
    FIELD(29, raw_l2_features, std::uint32_t)               \
    FIELD(30, raw_core_features, std::uint32_t)             \
    FIELD(31, raw_mem_features, std::uint32_t)              \
    FIELD(32, raw_mmu_features, std::uint32_t)              \
    FIELD(33, raw_as_present, std::uint32_t)                \
    FIELD(34, raw_js_present, std::uint32_t)                \
    FIELD(35, raw_js_features_0, std::uint32_t)             \
    FIELD(36, raw_js_features_1, std::uint32_t)             \
    FIELD(37, raw_js_features_2, std::uint32_t)             \
    FIELD(38, raw_js_features_3, std::uint32_t)             \
    FIELD(39, raw_js_features_4, std::uint32_t)             \
    FIELD(40, raw_js_features_5, std::uint32_t)             \
    FIELD(41, raw_js_features_6, std::uint32_t)             \
    FIELD(42, raw_js_features_7, std::uint32_t)             \
    FIELD(43, raw_js_features_8, std::uint32_t)             \
    FIELD(44, raw_js_features_9, std::uint32_t)             \
    FIELD(45, raw_js_features_10, std::uint32_t)            \
    FIELD(46, raw_js_features_11, std::uint32_t)            \
    FIELD(47, raw_js_features_12, std::uint32_t)            \
    FIELD(48, raw_js_features_13, std::uint32_t)            \
    FIELD(49, raw_js_features_14, std::uint32_t)            \
    FIELD(50, raw_js_features_15, std::uint32_t)            \
    FIELD(51, raw_tiler_features, std::uint32_t)            \
    FIELD(52, raw_texture_features_0, std::uint32_t)        \
    FIELD(53, raw_texture_features_1, std::uint32_t)        \
    FIELD(54, raw_texture_features_2, std::uint32_t)        \
    FIELD(81, raw_texture_features_3, std::uint32_t)        \
    FIELD(55, raw_gpu_id, std::uint32_t)                    \
    FIELD(56, raw_thread_max_threads, std::uint32_t)        \
    FIELD(57, raw_thread_max_workgroup_size, std::uint32_t) \
    FIELD(58, raw_thread_max_barrier_size, std::uint32_t)   \
    FIELD(59, raw_thread_features, std::uint32_t)           \
    FIELD(83, raw_thread_tls_alloc, std::uint32_t)          \
    FIELD(60, raw_coherency_mode, std::uint32_t)            \
    FIELD(85, raw_gpu_features, std::uint64_t)              \
    FIELD(61, num_coherency_groups, std::uint32_t)          \
    FIELD(62, num_core_groups, std::uint32_t)               \
    FIELD(63, coherency, std::uint32_t)                     \
    GROUP(64, 0)                                            \
    GROUP(65, 1)                                            \
    GROUP(66, 2)                                            \
    GROUP(67, 3)                                            \
    GROUP(68, 4)                                            \
    GROUP(69, 5)                                            \
    GROUP(70, 6)                                            \
    GROUP(71, 7)                                            \
    GROUP(72, 8)                                            \
    GROUP(73, 9)                                            \
    GROUP(74, 10)                                           \
    GROUP(75, 11)                                           \
    GROUP(76, 12)                                           \
    GROUP(77, 13)                                           \
    GROUP(78, 14)                                           \
    GROUP(79, 15)

// One record of all properties. A property that the driver leaves out is 0. Behind the mask of each core
// group stands the number of its cores, which is counted here and does not come from the driver.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): in the order of the driver's numbers
struct base_gpu_props {
#define BASE_DECLARE_FIELD(key, field, type) type field;
#define BASE_DECLARE_GROUP(key, n)     \
    std::uint64_t core_group_mask_##n; \
    std::uint16_t core_group_num_cores_##n;
    BASE_GPU_PROPERTIES(BASE_DECLARE_FIELD, BASE_DECLARE_GROUP)
#undef BASE_DECLARE_FIELD
#undef BASE_DECLARE_GROUP
};
