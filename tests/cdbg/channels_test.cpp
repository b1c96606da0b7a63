// Channels on real streams, files and pipes, with the platform log caught.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "cdbg/src/vexa_cdbg_channels.h"
#include "tests/cdbg/surroundings.h"
#include "tests/support/failing_calls.h"
#include "tests/support/resources.h"

namespace {

using namespace test_support;
using namespace std::string_literals;

// One channel with its shared set, apart from those of the process, and what arrives from it.
struct open_channel {
    explicit open_channel(std::uint32_t index) {
        EXPECT_EQ(cdbgp_channel_init(&shared), CDBGP_SUCCESS);
        EXPECT_EQ(cdbgp_channel_open(&shared, &channel, index), CDBGP_SUCCESS);
    }
    ~open_channel() {
        cdbgp_channel_close(&channel);
        EXPECT_TRUE(channel.conversion_buffer == nullptr && channel.conversion_size == 0);
        cdbgp_channel_term(&shared);
    }
    open_channel(const open_channel&) = delete;
    open_channel& operator=(const open_channel&) = delete;

    cdbgp_result send(const std::string& message) {
        cdbgp_channel_handle handle = {};
        std::uint32_t size = 0;
        char* const text = cdbgp_channel_lock(&handle, &size, &channel);
        return cdbgp_channel_unlock(&handle, std::snprintf(text, size, "%s", message.c_str()));
    }

    // What a text becomes at the streams.
    std::string arrival(const std::string& message) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        EXPECT_EQ(send(message), CDBGP_SUCCESS);
        return testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
    }

    cdbgp_destination_set shared = {};
    cdbgp_channel channel = {};
};

TEST(channels, every_length_around_the_slot_arrives_and_the_last_messages_stay_as_history) {
    for (const auto& [index, size, history, priority] : {std::tuple(0U, 512U, 16U, "4/vexa:"),
                                                         {1U, 512U, 16U, "5/vexa:"},
                                                         {2U, 512U, 16U, "6/vexa:"},
                                                         {3U, 2048U, 1U, "2/vexa:"}}) {
        open_channel open(index);
        std::vector<std::size_t> lengths(30);
        std::iota(lengths.begin(), lengths.end(), size - 27);
        lengths.insert(lengths.end(), {0, 1, 2, size * 4});
        strings arrived;
        for (const std::size_t length : lengths) {
            const std::string text(length, 'x');
            std::string expected = text.substr(length == size - 1 ? 1 : 0) + "\n";
            if (length >= size) {
                expected = text.substr(0, size - 26) + "\n***MESSAGE TRUNCATED***\n";
            }
            // What ends in a newline already is sent as it stands.
            for (const std::string& sent : {text, expected}) {
                EXPECT_EQ(open.arrival(sent), expected) << length;
                EXPECT_EQ(take_log(), priority + expected);
                arrived.push_back(expected);
            }
        }
        strings kept;
        while (cutils_ring_buffer_slot* slot = cutils_ring_buffer_read_lock(&open.channel.ring)) {
            kept.emplace_back(static_cast<char*>(slot->data));
            cutils_ring_buffer_read_unlock(&open.channel.ring, slot);
        }
        EXPECT_EQ(kept, strings(arrived.end() - static_cast<std::ptrdiff_t>(history), arrived.end()));
    }
}

TEST(channels, a_busy_log_is_tried_sixteen_times_and_fails_nobody) {
    open_channel open(CDBGP_CHANNEL_ERROR);
    log_refusal = -EPERM;
    busy_answers = 2;
    EXPECT_EQ(open.arrival("gone"), "gone\n");
    EXPECT_EQ(std::exchange(busy_answers, 0), 1) << "only a busy one is tried again";
    log_refusal = -EAGAIN;
    for (const int busy : {1, 15, 16, 100}) {
        busy_answers = busy;
        slept = 0;
        EXPECT_EQ(open.arrival("late"), "late\n");
        const int tries = std::min(busy, 16);
        EXPECT_EQ(busy - std::exchange(busy_answers, 0), tries);
        EXPECT_EQ(slept, (1U << tries) - 1) << "twice as long after each";
        EXPECT_EQ(take_log(), busy < 16 ? "6/vexa:late\n" : "");
    }
}

TEST(channels, a_stream_that_takes_nothing_fails_the_message_and_not_the_log) {
    open_channel open(CDBGP_CHANNEL_ERROR);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    std::string bytes(1 << 20, 'f');
    const ssize_t filled = write(ends[1], bytes.data(), bytes.size());
    const int saved = dup(STDERR_FILENO);
    close(STDERR_FILENO);
    EXPECT_EQ(open.send("closed"), CDBGP_FAILURE);
    dup2(ends[1], STDERR_FILENO);
    EXPECT_EQ(open.send("full"), CDBGP_FAILURE);
    // What this stream takes goes no further before it is flushed.
    open_channel buffered(CDBGP_CHANNEL_INFO);
    std::fflush(stdout);
    const int saved_output = dup(STDOUT_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    EXPECT_EQ(buffered.send("unflushed"), CDBGP_FAILURE);
    EXPECT_EQ(read(ends[0], bytes.data(), bytes.size()), filled);
    EXPECT_EQ(std::fflush(stdout), 0);
    EXPECT_EQ(open.send("next"), CDBGP_SUCCESS);
    dup2(saved, STDERR_FILENO);
    dup2(saved_output, STDOUT_FILENO);
    EXPECT_TRUE(bytes.substr(0, static_cast<std::size_t>(read(ends[0], bytes.data(), bytes.size())))
                    .ends_with("next\n"));
    EXPECT_EQ(take_log(), "6/vexa:closed\n6/vexa:full\n4/vexa:unflushed\n6/vexa:next\n");
    for (const int descriptor : {saved, saved_output, ends[0], ends[1]}) {
        close(descriptor);
    }
}

TEST(channels, destinations_that_fail_to_open) {
    const int mutexes = calls.mutexes;
    cdbgp_destination_set none = {};
    cdbgp_channel channel = {};
    calls.failing_mutex_init = 1;
    ASSERT_EQ(cdbgp_channel_open(&none, &channel, CDBGP_CHANNEL_ERROR), CDBGP_SUCCESS);
    EXPECT_EQ(take_log(),
              "6/vexa:cdbgp_channel_open\nIniting dest bitpattern 0xa for channel 2: failed dests bitpattern "
              "is 0x2. Some debug output may not appear from this channel.\n");
    cdbgp_channel_close(&channel);
    EXPECT_EQ(channel.private_destinations.active, 0U);

    const temporary_folder folder;
    setenv("EXTERNAL_STORAGE", folder.file("").c_str(), 1);
    const held_resources before = held_resources::now();
    for (const auto& [name, failing_mutex_init] : {std::pair("out", 0), {"none/out", 0}, {"out", 1}}) {
        const bool opens = *name == 'o' && failing_mutex_init == 0;
        cdbgp_destination_set set = {};
        set.requested = CDBGP_DEST_FILE | CDBGP_DEST_PLATFORM;
        set.file_name = name;
        calls.failing_mutex_init = failing_mutex_init;
        init_destinations(&set);
        EXPECT_EQ(set.active, CDBGP_DEST_PLATFORM | (opens ? CDBGP_DEST_FILE : 0U));
        EXPECT_EQ(write_to_channels(&set, set.active, "a\nb\n", 5), CDBGP_SUCCESS);
        EXPECT_EQ(take_log(), "4/vexa:a\nb\n");
        EXPECT_EQ(read_file(folder.file("out")), failing_mutex_init == 0 ? "a\nb\n" : "");
        term_destinations(&set);
        EXPECT_EQ(set.active | set.requested, 0U);
        EXPECT_EQ(calls.mutexes, mutexes);
        EXPECT_EQ(held_resources::now().descriptors, before.descriptors) << name;
    }
    unsetenv("EXTERNAL_STORAGE");
}

TEST(channels, newline_conversion) {
    const struct {
        std::uint32_t mode, room;
        std::string source;  // its terminator counts
        std::uint32_t length, result;
        std::string expected;
    } rows[] = {
        {0, 9, "a\nb", 4, 5, "a\nb\n"}, {0, 4, "a\nb", 4, 4, "a\n\n"},
        {0, 5, "a\nb", 4, 5, "a\nb\n"}, {0, 9, "ab\n", 4, 4, "ab\n"},
        {0, 2, "ab", 3, 2, "\n"},       {0, 2, "", 1, 2, "\n"},
        {0, 9, "", 0, 2, "\n"},         {0, 1, "ab", 3, 1, ""},
        {0, 0, "ab", 3, 1, ""},         {1, 7, "a\nb", 4, 7, "a\r\nb\r\n"},
        {1, 9, "a\n", 3, 4, "a\r\n"},   {1, 6, "a\nb", 4, 5, "a\r\r\n"},
        {1, 4, "a\n\n", 4, 4, "a\r\n"}, {1, 3, "a\nb", 4, 3, "\r\n"},
        {1, 2, "a\nb", 4, 2, "a"},      {1, 3, "", 1, 3, "\r\n"},
        {1, 3, "", 0, 3, "\r\n"},       {1, 2, "", 0, 1, ""},
        {1, 0, "ab", 3, 1, ""},         {1, 9, "abc", 3, 5, "ab\r\n"},
        {1, 9, "\n", 2, 3, "\r\n"},     {2, 9, "ab", 3, 0, "?"},
        {0, 9, "a", 2, 3, "a\n"},
    };
    for (const auto& row : rows) {
        // Memory of that size exactly, so that a sanitizer sees a byte too many.
        const auto destination = std::make_unique<char[]>(row.room);
        std::memset(destination.get(), '?', row.room);
        const cdbgp_newline_conversion work = {destination.get(), row.room, row.source.c_str(), row.length,
                                               row.mode};
        EXPECT_EQ(cdbgp_channel_convert_newlines(&work), row.result) << row.source;
        if (row.room != 0 && row.result != 0) {
            EXPECT_EQ(std::string(destination.get()), row.expected) << row.source << row.room;
        }
    }
}

TEST(channels, a_destination_of_the_other_newline_mode_gets_converted_text) {
    for (const std::uint32_t index : {CDBGP_CHANNEL_ERROR, std::uint32_t{CDBGP_CHANNEL_VERBOSE}}) {
        open_channel open(index);
        cdbgp_newline_masks[CDBGP_NEWLINE_LF] &= ~CDBGP_DEST_PLATFORM;
        cdbgp_newline_masks[CDBGP_NEWLINE_CRLF] |= CDBGP_DEST_PLATFORM;
        EXPECT_EQ(open.arrival("a\nb"), "a\nb\n");
        EXPECT_TRUE(take_log().ends_with(":a\r\nb\r\n"));
        open.arrival(std::string(index == CDBGP_CHANNEL_ERROR ? 511 : 2047, '\n'));
        const std::string cut = take_log();
        EXPECT_EQ(cut.size(), std::strlen("6/vexa:") + (index == CDBGP_CHANNEL_ERROR ? 562U : 2251U));
        EXPECT_TRUE(cut.ends_with("\r\n"));
    }
}

TEST(channels, lengths_that_only_a_check_would_find) {
    const struct {
        std::uint32_t size;
        const char* text;
        std::int32_t total, expected_total;
        std::string expected;  // the buffer's bytes
    } rows[] = {
        {40, "abc", -1, 39, "abc\n***FORMATTING ERROR***\n"s + std::string(13, '\0')},
        {27, "abcd", -1, 26, "ab\n***FORMATTING ERROR***\n\0"s},
        {4, "", -7, 3, "\n**\0"s},
        {30, "abcd", 30, 29, "abcd\n***MESSAGE TRUNCATED***\n\0"s},
        {4, "abc", 9, 3, "\n***"s},
        {4, "abc", 3, 3, "abc\0"s},
        {1, "", 5, 0, "\n"},
        {0, "", -1, -1, ""},
        {0, "", 5, -1, ""},
    };
    for (const auto& row : rows) {
        const auto buffer = std::make_unique<char[]>(row.size);
        std::memcpy(buffer.get(), row.text, std::min<std::size_t>(std::strlen(row.text) + 1, row.size));
        std::int32_t total = row.total;
        cdbgp_correct_snprintf_for_error(buffer.get(), row.size, &total);
        EXPECT_EQ(total, row.expected_total);
        EXPECT_EQ(std::string(buffer.get(), row.size), row.expected);
    }
}

}  // namespace
