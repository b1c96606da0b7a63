// The environment store: how it is filled from the configuration file and from the process environment, and
// how it is read.
#include "cdbg/src/vexa_cdbg_env.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cdbg/src/vexa_cdbg_failure.h"
#include "cdbg/src/vexa_cdbg_print.h"
#include "cutils/cstr/vexa_cutils_cstr.h"
#include "cutils/strdict/vexa_cutils_strdict.h"
#include "osu/vexa_osu.h"
#include "stdlib/vexa_stdlib.h"

namespace {

// Keys are stored without it, and it is what marks this system's variables in the process environment.
constexpr char prefix[] = "VEXA_";
constexpr std::uint32_t prefix_length = sizeof prefix - 1;

// A line of the configuration file, with its terminator.
constexpr std::size_t line_size = 3072;
// The part of a process's command line that its name is looked for in.
constexpr std::uint32_t command_line_size = 512;

// A value's record, allocated with malloc. It is as long as its text needs.
struct cdbgp_env_value {
    std::uint32_t flags;
    char value[4];
};
static_assert(sizeof(cdbgp_env_value) == 8);

// The setting was made by a line for this process, which a generic line does not change.
constexpr std::uint32_t CDBGP_ENV_PROCESS_SPECIFIC = 1;

constinit cutils_strdict cdbgp_env_dict = {};
constinit pthread_mutex_t cdbgp_env_lock = PTHREAD_MUTEX_INITIALIZER;

// The one thread that fills the store uses them.
constinit char cdbgp_env_name_scratch[CDBGP_ENV_TEXT_SIZE] = {};
constinit char cdbgp_env_value_scratch[CDBGP_ENV_TEXT_SIZE] = {};

bool has_prefix(const char* name) {
    return cutils_cstr_strncmp(name, prefix, prefix_length) == 0;
}

const char* without_prefix(const char* name) {
    return has_prefix(name) ? name + prefix_length : name;
}

// The record of a key that is given without its prefix, or null.
cdbgp_env_value* find(const char* key) {
    void* record = nullptr;
    cutils_strdict_lookup_key(&cdbgp_env_dict, key, &record);
    return static_cast<cdbgp_env_value*>(record);
}

// Writes the last path component of the first word of this process's command line, or an empty text if that
// is not to be had. A command line is read up to its first line end, which then belongs to the name.
void read_process_name(char* name) {
    name[0] = '\0';
    char text[command_line_size] = {};
    if (cutils_cstr_snprintf(text, sizeof text, "/proc/%d/cmdline", getpid()) >=
        static_cast<std::int32_t>(sizeof text)) {
        return;
    }
    std::FILE* const file = std::fopen(text, "r");
    if (file == nullptr) {
        return;
    }
    const bool read = std::fgets(text, sizeof text, file) != nullptr;
    std::fclose(file);
    if (!read) {
        return;
    }
    const std::uint32_t length = cutils_cstr_len(text, sizeof text - 1);
    std::uint32_t start = length;
    while (start > 0 && text[start - 1] != '/') {
        --start;
    }
    std::memcpy(name, text + start, length - start);
    name[length - start] = '\0';
}

enum line_end : std::uint32_t { LINE_ENDED, LAST_LINE_ENDED, LINE_UNREADABLE };

// Reads a line without its end. Of a line that is too long the first bytes are stored; `length` counts all.
line_end read_line(std::FILE* file, char* line, std::size_t* length) {
    std::memset(line, 0, line_size);
    *length = 0;
    char byte = 0;
    while (std::fread(&byte, 1, 1, file) == 1) {
        if (byte == '\n') {
            return LINE_ENDED;
        }
        if (*length < line_size - 1) {
            line[*length] = byte;
        }
        ++*length;
    }
    return std::feof(file) != 0 ? LAST_LINE_ENDED : LINE_UNREADABLE;
}

// A line taken apart in place.
struct setting_line {
    const char* process;  // null in a generic line
    const char* key;
    const char* value;
};

// Takes a line apart. Returns null, or what is wrong with it.
const char* parse_line(char* line, setting_line* setting) {
    char* const delimiter = std::strchr(line, '=');
    if (delimiter == nullptr) {
        return "Key delimiter not found";
    }
    *delimiter = '\0';
    *setting = {.process = nullptr, .key = line, .value = delimiter + 1};
    // The last colon: a process may have colons in its name.
    if (char* const colon = std::strrchr(line, ':'); colon != nullptr) {
        *colon = '\0';
        setting->process = line;
        setting->key = colon + 1;
    }
    const auto is_too_long = [](const char* text) {
        return cutils_cstr_len(text, CDBGP_ENV_TEXT_SIZE) >= CDBGP_ENV_TEXT_SIZE;
    };
    if (setting->process != nullptr && is_too_long(setting->process)) {
        return "Process name too long";
    }
    if (is_too_long(setting->key)) {
        return "Key too long";
    }
    return is_too_long(setting->value) ? "Value too long" : nullptr;
}

// Stores what a line says, where it concerns this process.
cdbgp_result apply_line(const setting_line& setting, const char* process_name) {
    const char* const key = without_prefix(setting.key);
    if (setting.process == nullptr) {
        const cdbgp_env_value* const record = find(key);
        if (record != nullptr && (record->flags & CDBGP_ENV_PROCESS_SPECIFIC) != 0) {
            return CDBGP_SUCCESS;
        }
        return cdbgp_env_set(setting.key, setting.value);
    }
    if (cutils_cstr_strncmp(setting.process, process_name, CDBGP_ENV_TEXT_SIZE - 1) != 0) {
        return CDBGP_SUCCESS;
    }
    const cdbgp_result result = cdbgp_env_set(setting.key, setting.value);
    if (result == CDBGP_SUCCESS) {
        find(key)->flags |= CDBGP_ENV_PROCESS_SPECIFIC;
    }
    return result;
}

// Reads an open configuration file to its end, to the first read error at most.
void read_file(std::FILE* file, const char* file_name) {
    char process_name[command_line_size];
    read_process_name(process_name);
    for (std::size_t number = 1;; ++number) {
        char line[line_size];
        std::size_t length = 0;
        const line_end end = read_line(file, line, &length);
        if (end == LINE_UNREADABLE) {
            CDBGP_REPORT_INIT("Unknown read error on line %zu of %s.", number, file_name);
            return;
        }
        if (length >= line_size && line[0] != '#') {
            CDBGP_REPORT_INIT("Parse error on line %zu of %s: Line too long to be processed.", number,
                              file_name);
        } else if (length != 0 && line[0] != '#') {
            setting_line setting;
            if (const char* const fault = parse_line(line, &setting); fault != nullptr) {
                CDBGP_REPORT_INIT("Parse error on line %zu of %s: %s.", number, file_name, fault);
            } else if (apply_line(setting, process_name) != CDBGP_SUCCESS) {
                CDBGP_REPORT_INIT("Error on line %zu of %s: Could not set environment variable %s=%s.",
                                  number, file_name, setting.key, setting.value);
            }
        }
        if (end == LAST_LINE_ENDED) {
            return;
        }
    }
}

void cdbgp_populate_from_system_environment() {
    if (environ == nullptr) {
        CDBGP_REPORT_INIT("Initialization of a handle to the system environment failed (%d)", CDBGP_FAILURE);
        return;
    }
    stdlibp_env_iterator iterator = {.tag = STDLIBP_ENV_ITERATOR_TAG, .cursor = environ};
    for (;;) {
        char* const name = cdbgp_env_name_scratch;
        char* const value = cdbgp_env_value_scratch;
        std::size_t name_length = sizeof cdbgp_env_name_scratch;
        std::size_t value_length = sizeof cdbgp_env_value_scratch;
        if (stdlibp_noninline_env_read(&iterator, name, &name_length, value, &value_length) == 0) {
            return;
        }
        // What was cut is left out altogether.
        if (name_length == 0 || name_length >= sizeof cdbgp_env_name_scratch ||
            value_length >= sizeof cdbgp_env_value_scratch || !has_prefix(name)) {
            continue;
        }
        if (cdbgp_env_set(name, value) != CDBGP_SUCCESS) {
            CDBGP_REPORT_INIT("Failed to set variable %s=%s from environment", name, value);
            // The rest is left out, where the file's reader would go on. Deliberate.
            return;
        }
    }
}

}  // namespace

cdbgp_result cdbgp_env_init() {
    if (pthread_mutex_init(&cdbgp_env_lock, nullptr) != 0) {
        CDBGP_REPORT_INIT("Initialization of spin lock failed (%d)", OSUP_FAILURE);
        return CDBGP_FAILURE;
    }
    osup_mutex_lock(&cdbgp_env_lock);
    cutils_strdict_init(&cdbgp_env_dict, nullptr, stdlib_malloc_callback, stdlib_free_callback);
    cdbgp_env_read_in_default_environment();
    osup_mutex_unlock(&cdbgp_env_lock);
    return CDBGP_SUCCESS;
}

void cdbgp_env_term() {
    cutils_strdict_iter iterator;
    cutils_strdict_iter_init(&iterator, &cdbgp_env_dict);
    for (;;) {
        cutils_string key;
        void* record = nullptr;
        cutils_strdict_iter_next(&key, &iterator, &record);
        if (key.text == nullptr) {
            break;
        }
        std::free(record);
    }
    cutils_strdict_term(&cdbgp_env_dict);
    osup_d_mutex_term(&cdbgp_env_lock);
}

bool cdbgp_env_is_at_rest() {
    if (pthread_mutex_trylock(&cdbgp_env_lock) != 0) {
        return false;
    }
    pthread_mutex_unlock(&cdbgp_env_lock);
    return true;
}

std::int32_t cdbg_env_get(const char* name, char* out, std::uint32_t out_size) {
    return cdbgp_init() == CDBGP_SUCCESS ? cdbgp_env_get(name, out, out_size) : CDBG_ENV_ABSENT;
}

std::int32_t cdbgp_env_get(const char* name, char* out, std::uint32_t out_size) {
    const char* const key = without_prefix(name);
    std::int32_t result = CDBG_ENV_ABSENT;
    osup_mutex_lock(&cdbgp_env_lock);
    if (const cdbgp_env_value* const record = find(key); record != nullptr) {
        const std::uint32_t length = cutils_cstr_len(record->value, CDBGP_ENV_TEXT_SIZE);
        if (out_size != 0) {
            const std::uint32_t stored = std::min(length, out_size - 1);
            std::memcpy(out, record->value, stored);
            out[stored] = '\0';
        }
        result = static_cast<std::int32_t>(length);
    }
    osup_mutex_unlock(&cdbgp_env_lock);
    return result;
}

cdbgp_result cdbgp_env_set(const char* name, const char* value) {
    const char* const key = without_prefix(name);
    if (value == nullptr) {
        void* record = nullptr;
        const cdbgp_result result = cdbgp_result_of(cutils_strdict_remove(&cdbgp_env_dict, key, &record));
        std::free(record);
        return result;
    }
    const std::uint32_t length = cutils_cstr_len(value, CDBGP_ENV_TEXT_SIZE);
    if (length >= CDBGP_ENV_TEXT_SIZE) {
        return CDBGP_FAILURE;
    }
    auto* const record = static_cast<cdbgp_env_value*>(std::malloc(length + sizeof(cdbgp_env_value)));
    if (record == nullptr) {
        return CDBGP_OUT_OF_MEMORY;
    }
    record->flags = 0;
    // The old record goes before the insertion, deliberately in this order.
    cdbgp_env_value* const old_record = find(key);
    if (old_record != nullptr) {
        record->flags = old_record->flags;
        std::free(old_record);
    }
    cutils_cstr_strncpy(record->value, length + 1, value, length + 1);
    const cdbgp_result result = cdbgp_result_of(cutils_strdict_insert(&cdbgp_env_dict, key, record, true));
    if (result != CDBGP_SUCCESS) {
        std::free(record);
        if (old_record != nullptr) {
            // The key still leads to what was released, so it goes too.
            cutils_strdict_remove(&cdbgp_env_dict, key, nullptr);
        }
    }
    return result;
}

void cdbgp_env_read_in_default_environment() {
    const char* const file_name = stdlib_get_config_filename();
    std::FILE* file = nullptr;
    if (stdlibp_fopen(&file, STDLIB_LOCATION_CONFIGURATION, file_name, STDLIB_MODE_READ) == STDLIB_SUCCESS) {
        read_file(file, file_name);
        std::fclose(file);
    }
    cdbgp_populate_from_system_environment();
}
