// A hash table from texts to pointers that remembers the order in which its keys came.
//
// Slots are found by open addressing. A removed entry leaves a dummy behind, so that the probes that once
// passed over it still find what lies beyond; dummies take part in the load and vanish when the table grows,
// which it does at a load of five eighths. A table never shrinks. The first 32 slots are part of the record:
// up to 20 entries need no allocation but for copied keys.
//
// The dictionary has no lock. Its user holds one where threads share it, and iteration counts as use.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cutils/result.h"
#include "cutils/string/vexa_cutils_string.h"

// In place of a slot's index: there is none.
inline constexpr std::uint32_t CUTILS_STRDICT_NONE = 0xffffffff;

inline constexpr std::uint32_t CUTILS_STRDICT_INLINE_SLOTS = 32;

// The dictionary's memory: for its larger tables and for its copies of keys. A null result of the first means
// that there is no memory, and every other result is aligned as malloc's are.
extern "C" {
using cutils_strdict_allocate_function = void*(void* context, std::size_t size);
using cutils_strdict_release_function = void(void* address);
}

struct cutils_strdict_slot {
    std::uint32_t hash;
    // Not terminated. Null if the slot was never used since the table was made, one certain address in a
    // dummy.
    const char* key;
    std::uint32_t key_length;
    void* value;             // the caller's
    std::uint32_t next;      // the index of the entry that came after this one
    std::uint32_t previous;  // and of the one that came before it
    char* owned_key;         // the dictionary's copy of the key, or null where the key is the caller's
};
static_assert(sizeof(void*) != 4 || sizeof(cutils_strdict_slot) == 28);

struct cutils_strdict {
    std::uint32_t used;   // slots with a key, dummies included
    std::uint32_t count;  // entries
    cutils_strdict_slot inline_table[CUTILS_STRDICT_INLINE_SLOTS];
    std::uint32_t mask;  // the number of slots, a power of two, less 1
    cutils_strdict_slot* table;
    std::uint32_t first;  // the oldest entry
    std::uint32_t last;   // the newest entry
    void* allocator_context;
    cutils_strdict_allocate_function* allocate;
    cutils_strdict_release_function* release;  // may be null: then nothing is ever given back

    // `table` may point into the record itself: it must stay where it was initialised.
    cutils_strdict() = default;
    cutils_strdict(const cutils_strdict&) = delete;
    cutils_strdict& operator=(const cutils_strdict&) = delete;
};

struct cutils_strdict_iter {
    const cutils_strdict* dictionary;
    std::uint32_t index;  // the entry that comes next
};

extern "C" {

// Makes an empty dictionary. What the record held before is not looked at. `release` may be null. Cannot
// fail.
void cutils_strdict_init(cutils_strdict* dictionary, void* allocator_context,
                         cutils_strdict_allocate_function* allocate,
                         cutils_strdict_release_function* release);

// Gives back the copied keys and the table. The values are the caller's, who releases them before. Only
// cutils_strdict_init may follow.
void cutils_strdict_term(cutils_strdict* dictionary);

// Gives the NUL-terminated `key` of 1 to 1024 bytes the value `value`. A key that was there keeps its place
// in the order, and its old value is overwritten, not released. With `copy_key` the dictionary keeps a copy
// of its own; without it the text must stay as it is for as long as the entry lasts.
//
// Results: CUTILS_OUT_OF_MEMORY when a larger table or the copy could not be allocated, CUTILS_FAILURE for a
// key that is null, empty or too long. No entry has changed then, but the table may have grown.
cutils_result cutils_strdict_insert(cutils_strdict* dictionary, const char* key, void* value, bool copy_key);

// Gives the value of `key`. If there is no such entry, or no entry can have such a key, the value is null and
// the result CUTILS_FAILURE. `value_out` may be null.
cutils_result cutils_strdict_lookup_key(const cutils_strdict* dictionary, const char* key, void** value_out);

// 1 if there is an entry with this key, otherwise 0.
std::uint32_t cutils_strdict_has_key(const cutils_strdict* dictionary, const char* key);

// Takes an entry out and gives its value, which is now the caller's again. Value, result and `value_out`
// otherwise as in cutils_strdict_lookup_key.
cutils_result cutils_strdict_remove(cutils_strdict* dictionary, const char* key, void** value_out);

// Sets `iterator` before the oldest entry.
void cutils_strdict_iter_init(cutils_strdict_iter* iterator, const cutils_strdict* dictionary);

// Gives the next entry in the order of insertion. The key stays the dictionary's, lives as long as the entry
// and is not terminated. Behind the newest entry the key's text and the value are null, at every further call
// too. `value_out` may be null.
//
// Between two calls any entry may be removed but the one that comes next. An insertion may move all entries:
// iterate anew after it.
void cutils_strdict_iter_next(cutils_string* key_out, cutils_strdict_iter* iterator, void** value_out);

// Private to this folder: the slot that holds the key `string` with the hash `hash`, or else the slot where
// it should go, a dummy or a slot that was never used.
std::uint32_t cutilsp_strdict_lookup(const cutils_strdict* dictionary, const cutils_string* string,
                                     std::uint32_t hash);

}  // extern "C"
