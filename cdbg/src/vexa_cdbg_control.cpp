// Permissions: the words of modules and features, and the text that allows the one to the other.
#include "cdbg/src/vexa_cdbg_control.h"

#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <iterator>

#include "cdbg/src/vexa_cdbg_env.h"
#include "cdbg/src/vexa_cdbg_print.h"
#include "cutils/cstr/vexa_cutils_cstr.h"
#include "osu/vexa_osu.h"

namespace {

struct feature_row {
    std::uint32_t mask;
    char name[8];
};

// A word means the first row whose name it is a leading part of. The same holds for the modules.
constexpr feature_row cdbgp_feature_table[] = {
    {CDBGP_FEATURE_BIT_INFO, "INFO"}, {CDBGP_FEATURE_BIT_WARN, "WARN"}, {CDBGP_FEATURE_BIT_ERROR, "ERROR"},
    {CDBGP_FEATURE_BIT_FAIL, "FAIL"}, {CDBGP_FEATURE_BITS_ALL, "ALL"},
};

// Rows with a number for a name are free.
constexpr char cdbgp_module_names[][32] = {
    "UNKNOWN",  "BASE",     "UKU",      "CDBG",     "COUNTERFEED", "HWC",      "HARDWARE",
    "LOGGING",  "MODULE08", "MODULE09", "MODULE10", "MODULE11",    "MODULE12", "MODULE13",
    "CUTILS",   "MODULE15", "MODULE16", "MODULE17", "MODULE18",    "MODULE19", "OSU",
    "STDLIB",   "STX",      "MODULE23", "MODULE24", "MODULE25",    "MODULE26", "MODULE27",
    "MODULE28", "MODULE29", "MODULE30", "MODULE31", "MODULE32",    "MODULE33",
};
static_assert(std::size(cdbgp_module_names) == CDBGP_MODULE_COUNT);

// Stands for all modules, and has no row.
constexpr std::uint32_t CDBGP_MODULE_ALL = CDBGP_MODULE_COUNT;
constexpr char all_modules[] = "ALL";

constexpr char permissions_key[] = "VEXA_CDBG_PERMISSIONS";
constexpr char default_permissions[] = "ALL_WARN,ALL_ERROR";
// A setting below this size is held on the stack.
constexpr std::uint32_t local_size = 128;

constexpr char element_separator = ',';
constexpr char word_separator = '_';

constinit pthread_mutex_t cdbgp_control_lock = PTHREAD_MUTEX_INITIALIZER;

void feature_allow(std::uint32_t module, std::uint32_t mask) {
    osup_mutex_lock(&cdbgp_control_lock);
    if (module == CDBGP_MODULE_ALL) {
        for (std::uint32_t& word : cdbgp_permissions) {
            word |= mask;
        }
    } else {
        cdbgp_permissions[module] |= mask;
    }
    osup_mutex_unlock(&cdbgp_control_lock);
}

// The features of a word, or 0.
std::uint32_t find_features(const char* word, std::uint32_t length) {
    for (const feature_row& row : cdbgp_feature_table) {
        if (cutils_cstr_strncmp(row.name, word, length) == 0) {
            return row.mask;
        }
    }
    return 0;
}

// The module that an element begins with, or a number above CDBGP_MODULE_ALL. Whatever begins with "ALL"
// means all of them, a longer word too. That is deliberate.
std::uint32_t find_module(const char* word, std::uint32_t length) {
    if (cutils_cstr_strncmp(word, all_modules, sizeof all_modules - 1) == 0) {
        return CDBGP_MODULE_ALL;
    }
    for (std::uint32_t module = 0; module < CDBGP_MODULE_COUNT; ++module) {
        if (cutils_cstr_strncmp(cdbgp_module_names[module], word, length) == 0) {
            return module;
        }
    }
    return CDBGP_MODULE_ALL + 1;
}

// Applies "MODULE_FEATURE,MODULE_FEATURE", up to the first element that is bad.
void process_permissions(const char* text) {
    if (text[0] == '\0') {
        return;
    }
    const char* cursor = text;
    for (;;) {
        cursor += std::strspn(cursor, " ");
        const char* const comma = std::strchr(cursor, element_separator);
        const char* const end = comma != nullptr ? comma : cursor + std::strlen(cursor);
        const char* const underscore = std::strchr(cursor, word_separator);
        if (underscore == nullptr) {
            if (*cursor == '\0') {
                CDBGP_REPORT_INIT("Trailing '%c' at end of permissions '%s'", element_separator, text);
            } else {
                CDBGP_REPORT_INIT("Missing '%c' in permissions '%s'", word_separator, text);
            }
            return;
        }
        if (underscore >= end) {
            CDBGP_REPORT_INIT("Unexpected '%c' in permissions '%s'", element_separator, text);
            return;
        }
        // A blank in front of the underscore ends the feature word before it begins, deliberately. Its length
        // is negative then: as a bound it takes in the whole rest of the text, and as a precision too.
        const char* const feature = underscore + 1;
        const char* const blank = std::strchr(cursor, ' ');
        const char* const feature_end = blank != nullptr && blank <= end ? blank : end;
        const int feature_length = static_cast<int>(feature_end - feature);
        const std::uint32_t mask = find_features(feature, static_cast<std::uint32_t>(feature_length));
        if (mask == 0) {
            CDBGP_REPORT_INIT("Unrecognized feature name '%.*s' in permissions '%s'", feature_length, feature,
                              text);
            return;
        }
        const int module_length = static_cast<int>(underscore - cursor);
        const std::uint32_t module = find_module(cursor, static_cast<std::uint32_t>(module_length));
        if (module > CDBGP_MODULE_ALL) {
            CDBGP_REPORT_INIT("Unrecognized module ID '%.*s' in permissions '%s'", module_length, cursor,
                              text);
            return;
        }
        feature_allow(module, mask);
        if (comma == nullptr) {
            return;
        }
        cursor = comma + 1;
    }
}

// Applies the setting, or what holds where there is none.
cdbgp_result apply_setting() {
    char local[local_size] = {};
    const std::int32_t length = cdbgp_env_get(permissions_key, local, sizeof local);
    if (length == CDBG_ENV_ABSENT) {
        process_permissions(default_permissions);
        return CDBGP_SUCCESS;
    }
    const std::uint32_t size = static_cast<std::uint32_t>(length) + 1;
    if (size <= sizeof local) {
        process_permissions(local);
        return CDBGP_SUCCESS;
    }
    char* const whole = static_cast<char*>(std::malloc(size));
    if (whole == nullptr) {
        CDBGP_REPORT_INIT("Failed to allocate %zu bytes for environment variable value", std::size_t{size});
        return CDBGP_OUT_OF_MEMORY;
    }
    cdbgp_env_get(permissions_key, whole, size);
    process_permissions(whole);
    std::free(whole);
    return CDBGP_SUCCESS;
}

}  // namespace

constinit std::uint32_t cdbgp_permissions[CDBGP_MODULE_COUNT] = {};

cdbgp_result cdbgp_control_init() {
    if (pthread_mutex_init(&cdbgp_control_lock, nullptr) != 0) {
        CDBGP_REPORT_INIT("Initialization of spin lock failed (%d)", OSUP_FAILURE);
        return CDBGP_FAILURE;
    }
    std::memset(cdbgp_permissions, 0, sizeof cdbgp_permissions);
    const cdbgp_result result = apply_setting();
    if (result != CDBGP_SUCCESS) {
        cdbgp_control_term();
    }
    return result;
}

void cdbgp_control_term() {
    osup_d_mutex_term(&cdbgp_control_lock);
}

const char* cdbgp_module_to_str(std::uint32_t module) {
    return cdbgp_module_names[module];
}
