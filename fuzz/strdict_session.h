// One session with a dictionary, driven by bytes: operations, failing allocations, and after each step a
// comparison with a plain list of entries. The fuzz target and the random tests run it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cutils/strdict/vexa_cutils_strdict.h"

// The dictionary's memory. There is only one, because a release is not told whose memory it is.
struct strdict_heap {
    std::map<void*, std::size_t> blocks;  // what is alive
    unsigned fail_in = 0;                 // the allocation that fails, 1 for the next; 0 for none
    unsigned calls = 0;
    bool strange_release = false;

    static strdict_heap& instance() {
        static strdict_heap heap;
        return heap;
    }
    void reset(unsigned fail_at) {
        for (const auto& [address, size] : blocks) {
            std::free(address);
        }
        *this = {{}, fail_at};
    }
    static void* allocate(void* context, std::size_t size) {
        auto& heap = *static_cast<strdict_heap*>(context);
        ++heap.calls;
        if (heap.fail_in != 0 && --heap.fail_in == 0) {
            return nullptr;
        }
        void* const address = std::malloc(size);
        heap.blocks[address] = size;
        return address;
    }
    static void release(void* address) {
        strdict_heap& heap = instance();
        heap.strange_release = heap.strange_release || heap.blocks.erase(address) == 0;
        std::free(address);
    }
};

class strdict_session {
public:
    strdict_session(unsigned fail_at, bool with_release) : with_release_(with_release) {
        heap_.reset(fail_at);
        cutils_strdict_init(&dictionary_, &heap_, strdict_heap::allocate,
                            with_release ? strdict_heap::release : nullptr);
    }

    // Runs operations of two bytes each, and ends the dictionary's life. The result names the first rule that
    // was broken, or is null.
    const char* run(std::span<const std::uint8_t> bytes) {
        const char* broken = check();
        for (std::size_t i = 0; broken == nullptr && i + 1 < bytes.size(); i += 2) {
            broken = step(bytes[i], bytes[i + 1]);
            broken = broken != nullptr ? broken : check();
        }
        cutils_strdict_term(&dictionary_);
        bool complete = !heap_.strange_release && (!with_release_ || heap_.blocks.empty());
        for (const cutils_strdict_slot& slot : dictionary_.inline_table) {
            complete = complete && (slots_ > 32 || slot.owned_key == nullptr);
        }
        allocations_ = heap_.calls;
        heap_.reset(0);
        return broken != nullptr || complete ? broken
                                             : "term gives all memory back, and forgets the copied keys";
    }

    // How many allocations the session asked for.
    unsigned allocations() const { return allocations_; }

private:
    struct entry {
        const std::string* key;
        void* value;
        bool owned;
    };

    // Keys of every kind that the rules know; most are short.
    static const std::string& key_of(std::uint8_t number) {
        static const std::vector<std::string> keys = [] {
            std::vector<std::string> list;
            for (std::size_t i = 0; i < 256; ++i) {
                list.push_back(i % 32 == 0    ? ""
                               : i % 32 == 16 ? std::string(1025, 'k')
                               : i == 1       ? std::string(1024, 'k')
                               : i == 2       ? "<dummy>"
                                              : "KEY_" + std::to_string(i * i));
            }
            return list;
        }();
        return keys[number];
    }

    const char* step(std::uint8_t operation, std::uint8_t number) {
        const std::string& key = key_of(number);
        std::size_t at = 0;
        while (at < entries_.size() && entries_[at].key != &key) {
            ++at;
        }
        const bool present = at < entries_.size();
        const std::uint32_t used = dictionary_.used;
        switch (operation % 8) {
            case 0:
            case 1:
            case 2:
            case 3:
                return insert(key, at, operation % 8 != 3);
            case 7:
                heap_.fail_in = number % 4;
                return nullptr;
            default:
                break;
        }
        const bool remove = operation % 8 < 6;
        void* const expected = present ? entries_[at].value : nullptr;
        void* value = &heap_;
        const std::uint32_t has_key = cutils_strdict_has_key(&dictionary_, key.c_str());
        const std::uint32_t result = remove ? cutils_strdict_remove(&dictionary_, key.c_str(), &value)
                                            : cutils_strdict_lookup_key(&dictionary_, key.c_str(), &value);
        if (remove && present) {
            entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(at));
        }
        const bool good =
            has_key == (present ? 1U : 0U) && result == (present ? 0U : 3U) && value == expected;
        return good && dictionary_.used == used ? nullptr : "a value looked up or removed";
    }

    const char* insert(const std::string& key, std::size_t at, bool copy) {
        const bool valid = !key.empty() && key.size() <= 1024;
        const bool due = dictionary_.used * 8 >= slots_ * 5;
        const bool grows = due && heap_.fail_in != 1;
        const bool no_memory = (due && !grows) || (valid && copy && heap_.fail_in == (due ? 2 : 1));
        const std::uint32_t expected = no_memory ? 2 : !valid ? 3 : 0;
        const std::uint32_t place = place_of(key);
        const std::uint32_t used = dictionary_.used + (dictionary_.table[place].key == nullptr ? 1 : 0);
        void* const value = reinterpret_cast<void*>(static_cast<std::uintptr_t>(++values_));
        if (cutils_strdict_insert(&dictionary_, key.c_str(), value, copy) != expected) {
            return "an insertion's result";
        }
        slots_ *= grows ? 2 : 1;
        if (expected == 0) {
            entries_.resize(std::max(entries_.size(), at + 1));
            entries_[at] = {&key, value, copy};
        }
        if (grows ? dictionary_.used != entries_.size()
                  : expected == 0 && (dictionary_.used != used || dictionary_.table[place].value != value)) {
            return "the slot of a new entry, or the dummies";
        }
        return nullptr;
    }

    // What holds after every step.
    const char* check() const {
        const cutils_strdict& d = dictionary_;
        if (d.count != entries_.size() || d.mask + 1 != slots_ ||
            (d.table == d.inline_table) != (slots_ == 32)) {
            return "count and size of the table";
        }
        const char* dummy_key = nullptr;
        std::uint32_t used = 0;
        for (std::uint32_t i = 0; i < slots_; ++i) {
            const cutils_strdict_slot& slot = d.table[i];
            used += slot.key != nullptr ? 1U : 0U;
            if (slot.key != nullptr && slot.value == nullptr) {
                dummy_key = dummy_key == nullptr ? slot.key : dummy_key;
                if (slot.key != dummy_key || slot.key_length != 7 || slot.hash != 0 ||
                    slot.next != CUTILS_STRDICT_NONE || slot.previous != CUTILS_STRDICT_NONE ||
                    slot.owned_key != nullptr) {
                    return "the fields of a dummy";
                }
            }
        }

        cutils_strdict_iter iterator;
        cutils_strdict_iter_init(&iterator, &d);
        cutils_string key;
        void* value = nullptr;
        std::uint32_t previous = CUTILS_STRDICT_NONE;
        std::size_t blocks = slots_ > 32 ? 1 : 0;
        for (const entry& e : entries_) {
            const std::uint32_t index = iterator.index;
            cutils_strdict_iter_next(&key, &iterator, &value);
            if (key.text == nullptr || std::string_view(key.text, key.length) != *e.key || value != e.value) {
                return "the order of insertion";
            }
            const cutils_strdict_slot& slot = d.table[index];
            if (slot.previous != previous || slot.hash != hash_of(*e.key) || place_of(*e.key) != index) {
                return "the place of an entry";
            }
            previous = index;
            blocks += e.owned ? 1 : 0;
            const auto block = heap_.blocks.find(slot.owned_key);
            if (e.owned ? block == heap_.blocks.end() || block->second != e.key->size() ||
                              slot.key != block->first
                        : slot.owned_key != nullptr || slot.key != e.key->c_str()) {
                return "the copy of a key";
            }
        }
        for (int i = 0; i < 2; ++i) {
            value = &value;
            cutils_strdict_iter_next(&key, &iterator, &value);
            if (key.text != nullptr || key.length != 0 || value != nullptr || d.last != previous) {
                return "the end of the order";
            }
        }
        return used != d.used || (with_release_ && heap_.blocks.size() != blocks) ? "used slots or memory"
                                                                                  : nullptr;
    }

    static std::uint32_t hash_of(const std::string& key) {
        std::uint32_t hash = 0x811c9dc5;
        for (auto byte = key.rbegin(); byte != key.rend(); ++byte) {
            hash = (hash ^ static_cast<std::uint8_t>(*byte)) * 16777619;
        }
        return hash;
    }

    // The slot that has the key, or else the first dummy or the first unused slot of its probe.
    std::uint32_t place_of(const std::string& key) const {
        const std::uint32_t hash = hash_of(key);
        std::uint32_t step = (hash >> 6) % slots_;
        step += step % 2 == 0 ? 1 : 0;
        std::vector<std::uint32_t> free;
        for (std::uint32_t i = hash % slots_;; i = (i + step) % slots_) {
            const cutils_strdict_slot& slot = dictionary_.table[i];
            if (slot.value == nullptr) {
                free.push_back(i);
            } else if (std::string_view(slot.key, slot.key_length) == key) {
                return i;
            }
            if (slot.key == nullptr) {
                return free.front();
            }
        }
    }

    cutils_strdict dictionary_;
    strdict_heap& heap_ = strdict_heap::instance();
    const bool with_release_;
    std::uint32_t slots_ = 32;
    std::uint32_t values_ = 0;
    unsigned allocations_ = 0;
    std::vector<entry> entries_;
};
