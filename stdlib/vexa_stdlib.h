// The layer between the system and the C library: where files are found, the configuration file's name,
// environment entries and number conversion. Nothing here prints or takes a lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

enum stdlib_result : std::uint32_t { STDLIB_SUCCESS = 0, STDLIB_FAILURE = 1 };

// Where a file is looked for, and whether its name is checked.
enum stdlib_file_location : std::uint32_t {
    STDLIB_LOCATION_STORAGE = 0,         // below the storage directory, with a checked name
    STDLIB_LOCATION_STORAGE_OUTPUT = 1,  // the same
    STDLIB_LOCATION_CONFIGURATION = 2,   // the name is the path, unchecked
    STDLIB_LOCATION_ANYWHERE = 3,        // the same
    STDLIB_LOCATION_COUNT
};

enum stdlib_file_mode : std::uint32_t {
    STDLIB_MODE_READ = 0,
    STDLIB_MODE_WRITE = 1,  // creates the file or empties it
    STDLIB_MODE_APPEND = 2,
    STDLIB_MODE_COUNT
};

// The bytes of a path with its terminator. A longer path is cut.
inline constexpr std::size_t STDLIB_PATH_SIZE = 512;

// A walk over the texts KEY=VALUE of an array that ends in a null entry, as environ does.
struct stdlibp_env_iterator {
    std::uint32_t tag;  // STDLIBP_ENV_ITERATOR_TAG, or nothing is read
    char* const* cursor;
};
inline constexpr std::uint32_t STDLIBP_ENV_ITERATOR_TAG = 0x656e766f;

// What the filter of number conversion found.
enum stdlib_number_kind : std::uint32_t {
    STDLIB_NUMBER_PLAIN = 0,              // left to strtoul
    STDLIB_NUMBER_NAMED = 1,              // "inf" or "nan"
    STDLIB_NUMBER_PREFIXED = 2,           // "0x" in base 16
    STDLIB_NUMBER_PREFIXED_NEGATIVE = 3,  // "-0x" in base 16
};

extern "C" {

// The latest result of stdlib_get_config_filename, null before the first.
extern std::atomic<const char*> stdlib_config_filename;

// Opens a file. Any thread may call it.
//
// In the two storage locations a name that could lead out of the directory is refused before the file system
// is touched, and the directory is the value of EXTERNAL_STORAGE, else the test application's, else
// "/sdcard". It must be writable, and where EXTERNAL_STORAGE is set nothing else is tried. An absolute name
// is used as it stands, and so is every name below an EXTERNAL_STORAGE of 512 bytes and more. That is
// deliberate.
//
// Results: STDLIB_SUCCESS with the file in `file_out`, which the caller closes. STDLIB_FAILURE for a refused
// name, a missing storage directory, a location or mode that does not exist, a directory, and whenever fopen
// has set errno. In this last case `file_out` holds what fopen returned, and otherwise must not be looked at.
stdlib_result stdlibp_fopen(std::FILE** file_out, stdlib_file_location location, const char* name,
                            stdlib_file_mode mode);

// The path of the configuration file: VEXA_CONFIG, if that is set and not empty, or a fixed path. The text is
// the environment's or a constant. Any thread may call it.
const char* stdlib_get_config_filename();

// Reads one entry and advances. On entry the sizes are the buffers' capacities, on return the lengths that
// key and value have in full, also where less was stored. What is stored is terminated unless the capacity is
// 0. A buffer may be null. An entry without "=" gives two lengths of 0, though its text stands in `key`.
//
// Returns 0 at the end, for an empty entry, and for an iterator without its tag; otherwise 1. An iterator
// belongs to one thread at a time, and the array must not change meanwhile.
std::uint32_t stdlibp_noninline_env_read(stdlibp_env_iterator* iterator, char* key, std::size_t* key_size,
                                         char* value, std::size_t* value_size);

// Converts a text to 32 bits as strtoul does where long has 32 bits, whatever it has here. `end` may be null;
// otherwise it receives the place behind the number. Trailing text is the caller's affair. Any thread may
// call it.
//
// Results: STDLIB_SUCCESS with the value in `out`. A text without digits is a 0, and so is one that the
// filter rejects. STDLIB_FAILURE for a number beyond 32 bits, with the highest value in `out`, and with 0 in
// `out` for a minus sign. A base that does not exist gives 0, which counts as a success only when no white
// space precedes the number.
stdlib_result stdlibp_nonline_strtou32(std::uint32_t* out, const char* text, char** end, int base);

// Sorts out what C libraries read differently. A plain number moves `text` behind its leading tabs and
// blanks. For the other kinds `end`, which may be null, receives where conversion stops: at the start of the
// text, or at the "x".
stdlib_number_kind reject_vexastdlib_nonlinux_cases(const char** text, char** end, int base);

// Ends the process with abort.
[[noreturn]] void stdlib_abort();

// The allocator of containers that take callbacks: malloc and free. The context is ignored. Any thread may
// call them.
void* stdlib_malloc_callback(void* context, std::size_t size);
void stdlib_free_callback(void* address);

}  // extern "C"
