// Files, environment and numbers as the rest of the system sees them.
#include "stdlib/vexa_stdlib.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "cutils/cstr/vexa_cutils_cstr.h"

namespace {

// The first two are never used: the storage locations find their directory when a file is opened.
constexpr const char* location_prefixes[STDLIB_LOCATION_COUNT] = {".", ".", "", ""};
constexpr const char* mode_texts[STDLIB_MODE_COUNT] = {"rb", "wb", "ab"};

constexpr const char* storage_fallbacks[] = {"/data/data/com.vexa.testjava/", "/sdcard"};
constexpr const char* default_config_filename = "/data/data/com.vexa.testjava/.vexa_config";

// Whether a name stays below the directory that it is put behind. The empty name does, and so does an
// absolute one, which is never put behind anything.
bool stays_in_directory(std::string_view name) {
    for (const std::string_view refused : {"./", "..", "//"}) {
        if (name.find(refused) != std::string_view::npos) {
            return false;
        }
    }
    return name.find_first_of("\\:*?\"<>|^[]") == std::string_view::npos && !name.ends_with('.') &&
           !name.ends_with('/');
}

// The directory of the storage locations, or null if there is none that can be written.
const char* find_storage() {
    if (const char* base = std::getenv("EXTERNAL_STORAGE"); base != nullptr) {
        if (access(base, W_OK) != 0) {
            return nullptr;
        }
        return cutils_cstr_len(base, STDLIB_PATH_SIZE) < STDLIB_PATH_SIZE ? base : "";
    }
    for (const char* base : storage_fallbacks) {
        if (access(base, W_OK) == 0) {
            return base;
        }
    }
    return nullptr;
}

// Copies a text of `length` bytes into a buffer of `capacity` bytes, as far as it fits, and terminates it.
void copy_text(char* buffer, std::size_t capacity, const char* text, std::size_t length) {
    if (buffer == nullptr || capacity == 0) {
        return;
    }
    const std::size_t stored = length < capacity ? length : capacity - 1;
    std::memcpy(buffer, text, stored);
    buffer[stored] = '\0';
}

char fold_to_lower_case(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

// strtoul has always given places in a constant text without the const.
void store_end(char** end, const char* position) {
    if (end != nullptr) {
        *end = const_cast<char*>(position);
    }
}

}  // namespace

std::atomic<const char*> stdlib_config_filename = nullptr;

stdlib_result stdlibp_fopen(std::FILE** file_out, stdlib_file_location location, const char* name,
                            stdlib_file_mode mode) {
    if (location >= STDLIB_LOCATION_COUNT || mode >= STDLIB_MODE_COUNT) {
        return STDLIB_FAILURE;
    }
    const char* prefix = location_prefixes[location];
    if (location <= STDLIB_LOCATION_STORAGE_OUTPUT) {
        prefix = stays_in_directory(name) ? find_storage() : nullptr;
        if (prefix == nullptr) {
            return STDLIB_FAILURE;
        }
    }
    char path[STDLIB_PATH_SIZE];
    if (prefix[0] != '\0' && name[0] != '/') {
        cutils_cstr_snprintf(path, sizeof path, "%s/%s", prefix, name);
    } else {
        cutils_cstr_snprintf(path, sizeof path, "%s", name);
    }

    // errno alone decides, deliberately: the C library sets it whenever it gives no file, and a file that
    // could be opened only with an error, such as a pipe that cannot be positioned at its end for appending,
    // is a failure too.
    errno = 0;
    *file_out = std::fopen(path, mode_texts[mode]);
    if (errno != 0) {
        return STDLIB_FAILURE;
    }
    struct stat status = {};
    if (fstat(fileno(*file_out), &status) == 0 && S_ISDIR(status.st_mode)) {
        std::fclose(*file_out);
        return STDLIB_FAILURE;
    }
    return STDLIB_SUCCESS;
}

const char* stdlib_get_config_filename() {
    const char* name = std::getenv("VEXA_CONFIG");
    if (name == nullptr || name[0] == '\0') {
        name = default_config_filename;
    }
    stdlib_config_filename.store(name, std::memory_order_relaxed);
    return name;
}

std::uint32_t stdlibp_noninline_env_read(stdlibp_env_iterator* iterator, char* key, std::size_t* key_size,
                                         char* value, std::size_t* value_size) {
    const std::size_t key_capacity = *key_size;
    const std::size_t value_capacity = *value_size;
    *key_size = 0;
    *value_size = 0;
    copy_text(key, key_capacity, "", 0);
    copy_text(value, value_capacity, "", 0);
    // The environment has no array at all once it was cleared.
    if (iterator->tag != STDLIBP_ENV_ITERATOR_TAG || iterator->cursor == nullptr ||
        *iterator->cursor == nullptr) {
        return 0;
    }
    const char* entry = *iterator->cursor++;
    const std::size_t key_length = std::strcspn(entry, "=");
    copy_text(key, key_capacity, entry, key_length);
    if (entry[key_length] == '=') {
        const char* text = entry + key_length + 1;
        *key_size = key_length;
        *value_size = std::strlen(text);
        copy_text(value, value_capacity, text, *value_size);
    }
    return entry[0] != '\0' ? 1 : 0;
}

stdlib_number_kind reject_vexastdlib_nonlinux_cases(const char** text, char** end, int base) {
    const char* number = *text + std::strspn(*text, "\t ");
    const char* digits = *number == '+' || *number == '-' ? number + 1 : number;
    char folded[4] = {};
    for (std::size_t i = 0; i < sizeof folded && digits[i] != '\0'; ++i) {
        folded[i] = fold_to_lower_case(digits[i]);
    }
    const std::string_view start(folded, sizeof folded);
    if (start.starts_with("inf") || start.starts_with("nan")) {
        store_end(end, *text);
        return STDLIB_NUMBER_NAMED;
    }
    if (base == 16 && start.starts_with("0x")) {
        store_end(end, digits + 1);
        return *number == '-' ? STDLIB_NUMBER_PREFIXED_NEGATIVE : STDLIB_NUMBER_PREFIXED;
    }
    *text = number;
    return STDLIB_NUMBER_PLAIN;
}

stdlib_result stdlibp_nonline_strtou32(std::uint32_t* out, const char* text, char** end, int base) {
    const char* number = text;
    if (reject_vexastdlib_nonlinux_cases(&number, end, base) != STDLIB_NUMBER_PLAIN) {
        *out = 0;
        return STDLIB_SUCCESS;
    }
    // strtoul passes over this white space by itself, but then nobody would see the sign behind it.
    number += std::strspn(number, " \t\n\v\f\r");
    const bool negative = *number == '-';
    // A C library may leave the end alone when it refuses the base.
    char* stop = const_cast<char*>(number);
    errno = 0;
    const unsigned long value = std::strtoul(number, &stop, base);
    const int error = errno;
    store_end(end, stop);

    // A long of 64 bits holds what is out of range in 32. The sign comes off first: strtoul applies it to the
    // result.
    const std::uint64_t magnitude = negative ? 0 - value : value;
    if (error == ERANGE || (error == 0 && magnitude > UINT32_MAX)) {
        *out = UINT32_MAX;
        return STDLIB_FAILURE;
    }
    *out = static_cast<std::uint32_t>(value);
    if (error == EINVAL && stop == text) {
        return STDLIB_SUCCESS;
    }
    if (error != 0 || negative) {
        *out = 0;
        return STDLIB_FAILURE;
    }
    return STDLIB_SUCCESS;
}

void stdlib_abort() {
    std::abort();
}

void* stdlib_malloc_callback([[maybe_unused]] void* context, std::size_t size) {
    return std::malloc(size);
}

void stdlib_free_callback(void* address) {
    std::free(address);
}
