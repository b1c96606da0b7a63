// A hash table from texts to pointers that remembers the order in which its keys came.
#include "cutils/strdict/vexa_cutils_strdict.h"

#include <cstring>

namespace {

// The table grows when this part of its slots has a key.
constexpr std::uint64_t LOAD_NUMERATOR = 5;
constexpr std::uint64_t LOAD_DENOMINATOR = 8;

// The step of a probe is taken from the hash above these bits.
constexpr unsigned STEP_SHIFT = 6;

constexpr std::uint32_t HASH_BASIS = 0x811c9dc5;
constexpr std::uint32_t HASH_PRIME = 16777619;

// A dummy is known by this address. It is an object and not a literal, because equal literals may share one
// address, and a caller's uncopied key "<dummy>" must stay an ordinary key.
constexpr char DUMMY_KEY[] = "<dummy>";
constexpr std::uint32_t DUMMY_KEY_LENGTH = sizeof DUMMY_KEY - 1;

// FNV-1a, but from the last byte to the first. Deliberate: the slots that keys fall into depend on it. Every
// byte waits for the one before it, so the time is theirs in a row. Two in each round leave less work around
// them, and more of what comes next fits into the processor meanwhile.
std::uint32_t hash_of(const cutils_string& string) {
    const auto add = [](std::uint32_t hash, char byte) {
        return (hash ^ static_cast<unsigned char>(byte)) * HASH_PRIME;
    };
    std::uint32_t hash = HASH_BASIS;
    const char* end = string.text + string.length;
    for (; end - string.text >= 2; end -= 2) {
        hash = add(add(hash, end[-1]), end[-2]);
    }
    return end != string.text ? add(hash, *string.text) : hash;
}

bool is_live(const cutils_strdict_slot& slot) {
    return slot.key != nullptr && slot.key != DUMMY_KEY;
}

bool has_key(const cutils_strdict_slot& slot, const cutils_string& key, std::uint32_t hash) {
    return slot.hash == hash && is_live(slot) &&
           (slot.key == key.text || cutils_string_cmp(slot.key, slot.key_length, key.text, key.length) == 0);
}

// cutilsp_strdict_lookup, for use in this file.
inline std::uint32_t find_slot(const cutils_strdict& dictionary, const cutils_string& key,
                               std::uint32_t hash) {
    const std::uint32_t mask = dictionary.mask;
    // An odd step shares no factor with the number of slots, so the probe comes to every one of them. It
    // always ends: some slot never had a key, because insertion grows the table long before, or refuses.
    const std::uint32_t step = ((hash >> STEP_SHIFT) & mask) | 1U;
    std::uint32_t dummy = CUTILS_STRDICT_NONE;
    for (std::uint32_t index = hash & mask;; index = (index + step) & mask) {
        const cutils_strdict_slot& slot = dictionary.table[index];
        if (has_key(slot, key, hash)) {
            return index;
        }
        if (slot.key == nullptr) {
            return dummy != CUTILS_STRDICT_NONE ? dummy : index;
        }
        if (slot.key == DUMMY_KEY && dummy == CUTILS_STRDICT_NONE) {
            dummy = index;
        }
    }
}

void append_to_order(cutils_strdict* dictionary, std::uint32_t index) {
    cutils_strdict_slot& slot = dictionary->table[index];
    slot.next = CUTILS_STRDICT_NONE;
    slot.previous = dictionary->last;
    if (dictionary->first == CUTILS_STRDICT_NONE) {
        dictionary->first = index;
    } else {
        dictionary->table[dictionary->last].next = index;
    }
    dictionary->last = index;
}

void unlink_from_order(cutils_strdict* dictionary, const cutils_strdict_slot& slot) {
    if (slot.previous == CUTILS_STRDICT_NONE) {
        dictionary->first = slot.next;
    } else {
        dictionary->table[slot.previous].next = slot.next;
    }
    if (slot.next == CUTILS_STRDICT_NONE) {
        dictionary->last = slot.previous;
    } else {
        dictionary->table[slot.next].previous = slot.previous;
    }
}

void release_owned_key(const cutils_strdict* dictionary, cutils_strdict_slot* slot) {
    if (slot->owned_key != nullptr && dictionary->release != nullptr) {
        dictionary->release(slot->owned_key);
    }
    slot->owned_key = nullptr;
}

void release_table(const cutils_strdict* dictionary, cutils_strdict_slot* table) {
    if (table != dictionary->inline_table && table != nullptr && dictionary->release != nullptr) {
        dictionary->release(table);
    }
}

// Sixty-four bits, because the products of large tables do not fit into thirty-two.
bool growth_is_due(const cutils_strdict* dictionary) {
    const std::uint64_t slots = std::uint64_t{dictionary->mask} + 1;
    return dictionary->used * LOAD_DENOMINATOR >= slots * LOAD_NUMERATOR;
}

// Doubles the table and leaves the dummies behind. The dictionary is unchanged unless the result is
// CUTILS_SUCCESS.
cutils_result grow(cutils_strdict* dictionary) {
    const std::uint32_t slots = dictionary->mask + 1;
    if (slots > UINT32_MAX / 2) {
        // Twice as many slots could not be counted, so this table fills up instead. One slot must stay free
        // for ever: a probe for a key that is absent ends nowhere else.
        return dictionary->used < dictionary->mask ? CUTILS_SUCCESS : CUTILS_OUT_OF_MEMORY;
    }
    const std::uint64_t size = std::uint64_t{slots} * 2 * sizeof(cutils_strdict_slot);
    if (size > PTRDIFF_MAX) {
        return CUTILS_OUT_OF_MEMORY;  // on 32 bits, where the size would wrap round to that of a small table
    }
    auto* const table = static_cast<cutils_strdict_slot*>(
        dictionary->allocate(dictionary->allocator_context, static_cast<std::size_t>(size)));
    if (table == nullptr) {
        return CUTILS_OUT_OF_MEMORY;
    }
    std::memset(table, 0, static_cast<std::size_t>(size));

    cutils_strdict_slot* const old_table = dictionary->table;
    std::uint32_t old_index = dictionary->first;
    dictionary->used = 0;
    dictionary->count = 0;
    dictionary->mask = slots * 2 - 1;
    dictionary->table = table;
    dictionary->first = CUTILS_STRDICT_NONE;
    dictionary->last = CUTILS_STRDICT_NONE;
    while (old_index != CUTILS_STRDICT_NONE) {
        const cutils_strdict_slot& old_slot = old_table[old_index];
        old_index = old_slot.next;
        if (!is_live(old_slot)) {
            continue;
        }
        const cutils_string key = {old_slot.key, old_slot.key_length};
        const std::uint32_t index = find_slot(*dictionary, key, old_slot.hash);
        table[index] = old_slot;
        append_to_order(dictionary, index);
        ++dictionary->used;
        ++dictionary->count;
    }
    release_table(dictionary, old_table);
    return CUTILS_SUCCESS;
}

// The entry with this key, or null.
cutils_strdict_slot* find(const cutils_strdict* dictionary, const char* key) {
    cutils_string string;
    if (cutils_string_from_cstring_nocopy(key, &string) != CUTILS_SUCCESS) {
        return nullptr;
    }
    cutils_strdict_slot* const slot = &dictionary->table[find_slot(*dictionary, string, hash_of(string))];
    return is_live(*slot) ? slot : nullptr;
}

// Hands out the value of an entry, or null where there is no entry.
cutils_result give_value(const cutils_strdict_slot* slot, void** value_out) {
    if (value_out != nullptr) {
        *value_out = slot != nullptr ? slot->value : nullptr;
    }
    return slot != nullptr ? CUTILS_SUCCESS : CUTILS_FAILURE;
}

}  // namespace

void cutils_strdict_init(cutils_strdict* dictionary, void* allocator_context,
                         cutils_strdict_allocate_function* allocate,
                         cutils_strdict_release_function* release) {
    dictionary->used = 0;
    dictionary->count = 0;
    std::memset(dictionary->inline_table, 0, sizeof dictionary->inline_table);
    dictionary->mask = CUTILS_STRDICT_INLINE_SLOTS - 1;
    dictionary->table = dictionary->inline_table;
    dictionary->first = CUTILS_STRDICT_NONE;
    dictionary->last = CUTILS_STRDICT_NONE;
    dictionary->allocator_context = allocator_context;
    dictionary->allocate = allocate;
    dictionary->release = release;
}

void cutils_strdict_term(cutils_strdict* dictionary) {
    std::uint32_t index = dictionary->first;
    while (index != CUTILS_STRDICT_NONE) {
        cutils_strdict_slot& slot = dictionary->table[index];
        if (slot.key == nullptr || slot.key_length == 0) {
            break;
        }
        release_owned_key(dictionary, &slot);
        index = slot.next;
    }
    release_table(dictionary, dictionary->table);
}

cutils_result cutils_strdict_insert(cutils_strdict* dictionary, const char* key, void* value, bool copy_key) {
    // Deliberately before the key is looked at: even a key that is refused or already there makes a full
    // table grow.
    if (growth_is_due(dictionary)) {
        const cutils_result result = grow(dictionary);
        if (result != CUTILS_SUCCESS) {
            return result;
        }
    }
    cutils_string string;
    if (cutils_string_from_cstring_nocopy(key, &string) != CUTILS_SUCCESS) {
        return CUTILS_FAILURE;
    }
    // Of the caller's text, and not of the copy: the hash then need not wait for the copy's bytes.
    const std::uint32_t hash = hash_of(string);
    char* owned_key = nullptr;
    if (copy_key) {
        owned_key = static_cast<char*>(dictionary->allocate(dictionary->allocator_context, string.length));
        if (owned_key == nullptr) {
            return CUTILS_OUT_OF_MEMORY;
        }
        // Without its terminator, for which the copy has no room.
        std::memcpy(owned_key, string.text, string.length);
        string.text = owned_key;
    }

    const std::uint32_t index = find_slot(*dictionary, string, hash);
    cutils_strdict_slot& slot = dictionary->table[index];
    if (is_live(slot)) {
        release_owned_key(dictionary, &slot);
    } else {
        dictionary->used += slot.key == nullptr ? 1 : 0;
        dictionary->count += 1;
        append_to_order(dictionary, index);
    }
    slot.hash = hash;
    slot.key = string.text;
    slot.key_length = string.length;
    slot.value = value;
    slot.owned_key = owned_key;
    return CUTILS_SUCCESS;
}

cutils_result cutils_strdict_lookup_key(const cutils_strdict* dictionary, const char* key, void** value_out) {
    return give_value(find(dictionary, key), value_out);
}

std::uint32_t cutils_strdict_has_key(const cutils_strdict* dictionary, const char* key) {
    return find(dictionary, key) != nullptr ? 1 : 0;
}

cutils_result cutils_strdict_remove(cutils_strdict* dictionary, const char* key, void** value_out) {
    cutils_strdict_slot* const slot = find(dictionary, key);
    const cutils_result result = give_value(slot, value_out);
    if (slot == nullptr) {
        return result;
    }
    unlink_from_order(dictionary, *slot);
    release_owned_key(dictionary, slot);
    *slot = {.hash = 0,
             .key = DUMMY_KEY,
             .key_length = DUMMY_KEY_LENGTH,
             .value = nullptr,
             .next = CUTILS_STRDICT_NONE,
             .previous = CUTILS_STRDICT_NONE,
             .owned_key = nullptr};
    --dictionary->count;
    return result;
}

void cutils_strdict_iter_init(cutils_strdict_iter* iterator, const cutils_strdict* dictionary) {
    *iterator = {dictionary, dictionary->first};
}

void cutils_strdict_iter_next(cutils_string* key_out, cutils_strdict_iter* iterator, void** value_out) {
    const cutils_strdict_slot* slot = nullptr;
    *key_out = {nullptr, 0};
    if (iterator->index != CUTILS_STRDICT_NONE) {
        slot = &iterator->dictionary->table[iterator->index];
        *key_out = {slot->key, slot->key_length};
        iterator->index = slot->next;
    }
    give_value(slot, value_out);
}

std::uint32_t cutilsp_strdict_lookup(const cutils_strdict* dictionary, const cutils_string* string,
                                     std::uint32_t hash) {
    return find_slot(*dictionary, *string, hash);
}
