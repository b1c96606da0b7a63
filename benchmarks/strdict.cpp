// The dictionary against the standard library's hash map, with the same keys, given as C texts.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "benchmarks/side_by_side.h"
#include "cutils/strdict/vexa_cutils_strdict.h"

namespace {

namespace benchmarks = qel::vexa::benchmarks;

using hash_map = std::unordered_map<std::string, void*>;

constexpr std::int64_t KEYS_PER_PASS = 5000;

void* allocate(void* /*context*/, std::size_t size) {
    return std::malloc(size);
}

void release(void* address) {
    std::free(address);
}

// Names of 8 to 20 bytes, as environment variables have.
std::vector<std::string> make_keys(std::int64_t count) {
    std::vector<std::string> keys;
    for (std::int64_t i = 0; i < count; ++i) {
        std::string key = "SETTING_" + std::to_string(i) + "_OF_THE_SESSION";
        key.resize(static_cast<std::size_t>(8 + i % 13));
        keys.push_back(key.substr(0, key.size() - std::to_string(i).size()) + std::to_string(i));
    }
    return keys;
}

void fill(cutils_strdict& dictionary, std::vector<std::string>& keys) {
    cutils_strdict_init(&dictionary, nullptr, allocate, release);
    for (std::string& key : keys) {
        cutils_strdict_insert(&dictionary, key.c_str(), &key, true);
    }
}

void fill(hash_map& map, std::vector<std::string>& keys) {
    for (std::string& key : keys) {
        map[key.c_str()] = &key;
    }
}

// Compares work on all the keys. It takes the thread's own processor time, because the work neither waits nor
// shares.
template <typename Dictionary, typename Map>
void compare(benchmark::State& state, Dictionary dictionary_work, Map map_work) {
    const auto timed = [&](auto& work) {
        const double start = benchmarks::thread_time();
        for (std::int64_t i = 0; i < KEYS_PER_PASS / state.range(0); ++i) {
            work();
        }
        return benchmarks::thread_time() - start;
    };
    benchmarks::side_by_side(
        state, static_cast<double>(KEYS_PER_PASS), [&] { return timed(dictionary_work); },
        [&] { return timed(map_work); });
}

// From an empty container to a full one and back, with a copy of every key.
void insert(benchmark::State& state) {
    std::vector<std::string> keys = make_keys(state.range(0));
    compare(
        state,
        [&] {
            cutils_strdict dictionary;
            fill(dictionary, keys);
            cutils_strdict_term(&dictionary);
        },
        [&] {
            hash_map map;
            fill(map, keys);
        });
}

// The dictionary's hash, in which every byte waits for the one behind it.
std::uint32_t hash_alone(const char* key, std::size_t length) {
    std::uint32_t hash = 0x811c9dc5;
    for (; length > 0; --length) {
        hash = (hash ^ static_cast<unsigned char>(key[length - 1])) * 16777619;
    }
    return hash;
}

// The keys in an arbitrary order that is the same in every run.
std::vector<const std::string*> shuffled(const std::vector<std::string>& keys) {
    std::vector<const std::string*> order;
    for (const std::string& key : keys) {
        order.push_back(&key);
    }
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
    return order;
}

void look_up_in_map(const hash_map& map, const std::vector<const std::string*>& order) {
    for (const std::string* key : order) {
        void* value = map.find(key->c_str())->second;
        benchmark::DoNotOptimize(value);
    }
}

void lookup(benchmark::State& state) {
    std::vector<std::string> keys = make_keys(state.range(0));
    cutils_strdict dictionary;
    hash_map map;
    fill(dictionary, keys);
    fill(map, keys);
    const std::vector<const std::string*> order = shuffled(keys);
    compare(
        state,
        [&] {
            for (const std::string* key : order) {
                void* value = nullptr;
                cutils_strdict_lookup_key(&dictionary, key->c_str(), &value);
                benchmark::DoNotOptimize(value);
            }
        },
        [&] { look_up_in_map(map, order); });
    cutils_strdict_term(&dictionary);
}

// What every look-up in the dictionary has to do with a key, and no look-up: measure it, hash it, and compare
// it once, here with itself.
void least_lookup(benchmark::State& state) {
    std::vector<std::string> keys = make_keys(state.range(0));
    hash_map map;
    fill(map, keys);
    const std::vector<std::string> copies = keys;
    const std::vector<const std::string*> order = shuffled(keys);
    compare(
        state,
        [&] {
            for (const std::string* key : order) {
                const char* const text = key->c_str();
                const std::size_t length = strnlen(text, 1025);
                const char* const copy = copies[static_cast<std::size_t>(key - keys.data())].data();
                benchmark::DoNotOptimize(hash_alone(text, length));
                benchmark::DoNotOptimize(std::memcmp(text, copy, length));
            }
        },
        [&] { look_up_in_map(map, order); });
}

// The map compares all its keys and hashes none of them up to 20 keys.
BENCHMARK(insert)->Arg(20)->Arg(21)->Arg(500)->UseManualTime();
BENCHMARK(lookup)->Arg(20)->Arg(21)->Arg(500)->UseManualTime();
BENCHMARK(least_lookup)->Arg(20)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
