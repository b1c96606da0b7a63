// Channels on real streams, files and pipes, with the platform log caught.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "cdbg/src/vexa_cdbg_channels.h"
#include "cdbg/src/vexa_cdbg_print.h"
#include "tests/cdbg/calls.h"
#include "tests/support/platform_log.h"

namespace {

using namespace test_support;
using namespace std::string_literals;

// One channel with its shared set, apart from those of the process.
struct open_channel {
    explicit open_channel(std::uint32_t index) {
        EXPECT_EQ(cdbgp_channel_init(&shared), CDBGP_SUCCESS);
        EXPECT_EQ(cdbgp_channel_open(&shared, &channel, index), CDBGP_SUCCESS);
        take_log_lines();
    }
    ~open_channel() {
        cdbgp_channel_close(&channel);
        cdbgp_channel_term(&shared);
    }
    open_channel(const open_channel&) = delete;
    open_channel& operator=(const open_channel&) = delete;

    cdbgp_result send(const std::string& message) {
        cdbgp_message slot = {};
        std::uint32_t size = 0;
        char* text = cdbgp_channel_lock(&slot.handle, &size, &channel);
        cdbgp_buffer_init(&slot.buffer, text, size);
        cdbgp_message_printf(&slot, "%s", message.c_str());
        cdbgp_buffer_finish(&slot.buffer);
        return cdbgp_channel_unlock(&slot.handle, slot.buffer.total);
    }

    cdbgp_destination_set shared = {};
    cdbgp_channel channel = {};
};

// What arrives when a text is sent: at the stream, and in the log.
std::string send_and_catch(open_channel& open, bool to_stdout, const std::string& text, int priority) {
    to_stdout ? testing::internal::CaptureStdout() : testing::internal::CaptureStderr();
    EXPECT_EQ(open.send(text), CDBGP_SUCCESS);
    std::string caught =
        to_stdout ? testing::internal::GetCapturedStdout() : testing::internal::GetCapturedStderr();
    EXPECT_EQ(take_log_lines(), (std::vector<test_support::log_line>{{priority, "vexa", caught}}));
    return caught;
}

TEST(channels, every_length_around_the_slot_arrives_whole_or_marked) {
    struct {
        std::uint32_t index, size;
        bool to_stdout;
        int priority;
    } const rows[] = {{0, 512, true, 4}, {1, 512, false, 5}, {2, 512, false, 6}, {3, 2048, true, 2}};
    for (const auto& row : rows) {
        open_channel open(row.index);
        std::vector<std::size_t> lengths(30);
        std::iota(lengths.begin(), lengths.end(), row.size - 27);
        lengths.insert(lengths.end(), {0, 1, 2, row.size * 4});
        for (const std::size_t length : lengths) {
            const std::string text(length, 'x');
            std::string expected = text + "\n";
            if (length == row.size - 1) {
                expected = text.substr(1) + "\n";
            } else if (length >= row.size) {
                expected = text.substr(0, row.size - 26) + "\n***MESSAGE TRUNCATED***\n";
            }
            EXPECT_EQ(send_and_catch(open, row.to_stdout, text, row.priority), expected) << length;
            if (length > 0 && length < row.size) {
                const std::string ended = text.substr(1) + "\n";
                EXPECT_EQ(send_and_catch(open, row.to_stdout, ended, row.priority), ended);
            }
        }
    }
}

TEST(channels, messages_beyond_the_ring_all_arrive_and_the_last_stay_as_history) {
    open_channel open(CDBGP_CHANNEL_WARN);
    for (const int count : {17, 40}) {
        std::string sent;
        testing::internal::CaptureStderr();
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(open.send("message " + std::to_string(i)), CDBGP_SUCCESS);
            sent += "message " + std::to_string(i) + "\n";
        }
        EXPECT_EQ(testing::internal::GetCapturedStderr(), sent);
        EXPECT_EQ(take_log_lines().size(), static_cast<std::size_t>(count));
        for (int i = count - 16; i < count; ++i) {
            cutils_ring_buffer_slot* slot = cutils_ring_buffer_read_lock(&open.channel.ring);
            ASSERT_NE(slot, nullptr) << i;
            EXPECT_EQ(static_cast<char*>(slot->data), "message " + std::to_string(i) + "\n");
            cutils_ring_buffer_read_unlock(&open.channel.ring, slot);
        }
        EXPECT_EQ(cutils_ring_buffer_read_lock(&open.channel.ring), nullptr);
    }
}

TEST(channels, a_busy_log_is_tried_sixteen_times_and_fails_nobody) {
    for (const int busy : {1, 3, 15, 16, 100}) {
        open_channel open(CDBGP_CHANNEL_ERROR);
        calls.busy_answers = busy;
        calls.busy_given = 0;
        calls.sleeps.clear();
        testing::internal::CaptureStderr();
        EXPECT_EQ(open.send("late"), CDBGP_SUCCESS);
        calls.busy_answers = 0;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "late\n");
        const int tries = std::min(busy, 16);
        EXPECT_EQ(calls.busy_given, tries);
        EXPECT_EQ(take_log_lines().size(), busy < 16 ? 1U : 0U);
        EXPECT_EQ(std::accumulate(calls.sleeps.begin(), calls.sleeps.end(), 0U), (1U << tries) - 1);
        EXPECT_TRUE(std::is_sorted(calls.sleeps.begin(), calls.sleeps.end()));
        EXPECT_EQ(calls.sleeps.size(), static_cast<std::size_t>(tries));
    }
}

TEST(channels, a_stream_that_takes_nothing_fails_the_message_and_not_the_log) {
    open_channel open(CDBGP_CHANNEL_ERROR);
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const int saved = dup(STDERR_FILENO);

    close(STDERR_FILENO);
    EXPECT_EQ(open.send("closed"), CDBGP_FAILURE);

    dup2(ends[1], STDERR_FILENO);
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    std::size_t filled = 0;
    while (write(ends[1], "f", 1) == 1) {
        ++filled;
    }
    EXPECT_EQ(open.send("full"), CDBGP_FAILURE);

    // A writer that may wait is served once the reader comes.
    fcntl(ends[1], F_SETFL, 0);
    std::string drained;
    std::thread reader([&] {
        char byte = 0;
        while (drained.size() < filled + 8 && read(ends[0], &byte, 1) == 1) {
            drained += byte;
        }
    });
    EXPECT_EQ(open.send("patient"), CDBGP_SUCCESS);
    reader.join();
    EXPECT_EQ(drained, std::string(filled, 'f') + "patient\n");

    dup2(saved, STDERR_FILENO);
    for (const int descriptor : {saved, ends[0], ends[1]}) {
        close(descriptor);
    }
    std::string logged;
    for (const auto& line : take_log_lines()) {
        logged += line.text;
    }
    EXPECT_EQ(logged, "closed\nfull\npatient\n");
}

TEST(channels, file_destination) {
    std::string folder = "/tmp/counterfeed-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    setenv("EXTERNAL_STORAGE", folder.c_str(), 1);
    struct {
        const char* name;
        int failing_mutex_init;
        bool opens;
    } const rows[] = {
        {"out.txt", 0, true}, {"../out.txt", 0, false}, {"none/out.txt", 0, false}, {"out.txt", 1, false}};
    const int next_descriptor = dup(0);
    close(next_descriptor);
    for (const auto& row : rows) {
        cdbgp_destination_set set = {};
        set.requested = CDBGP_DEST_FILE | CDBGP_DEST_PLATFORM;
        set.file_name = row.name;
        const int mutexes = calls.mutexes;
        calls.failing_mutex_init = row.failing_mutex_init;
        init_destinations(&set);
        EXPECT_EQ(set.active, CDBGP_DEST_PLATFORM | (row.opens ? CDBGP_DEST_FILE : 0U));
        if (row.opens) {
            EXPECT_EQ(write_to_channels(&set, set.active, "a\nb\n", 5), CDBGP_SUCCESS);
            std::ifstream file(folder + "/out.txt");
            EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "a\nb\n");
        }
        term_destinations(&set);
        EXPECT_EQ(set.active | set.requested, 0U);
        EXPECT_EQ(calls.mutexes, mutexes);
        const int descriptor = dup(0);
        EXPECT_EQ(descriptor, next_descriptor) << row.name;
        close(descriptor);
    }
    unsetenv("EXTERNAL_STORAGE");
    unlink((folder + "/out.txt").c_str());
    rmdir(folder.c_str());
}

TEST(channels, newline_conversion) {
    struct {
        std::uint32_t mode, room;
        std::string source;  // its terminator counts
        std::uint32_t length, result;
        std::string expected;
    } const rows[] = {
        {0, 9, "a\nb", 4, 5, "a\nb\n"}, {0, 4, "a\nb", 4, 4, "a\n\n"},
        {0, 9, "ab\n", 4, 4, "ab\n"},   {0, 2, "ab", 3, 2, "\n"},
        {0, 9, "", 1, 2, "\n"},         {0, 9, "", 0, 2, "\n"},
        {0, 1, "ab", 3, 1, ""},         {0, 1, "", 0, 1, ""},
        {0, 0, "ab", 3, 1, ""},         {1, 9, "a\nb", 4, 7, "a\r\nb\r\n"},
        {1, 9, "a\n", 3, 4, "a\r\n"},   {1, 6, "a\nb", 4, 5, "a\r\r\n"},
        {1, 4, "a\n\n", 4, 4, "a\r\n"}, {1, 3, "a\nb", 4, 3, "\r\n"},
        {1, 2, "a\nb", 4, 2, "a"},      {1, 9, "", 1, 3, "\r\n"},
        {1, 9, "", 0, 3, "\r\n"},       {1, 2, "", 0, 1, ""},
        {1, 0, "ab", 3, 1, ""},         {1, 9, "abc", 3, 5, "ab\r\n"},
        {2, 9, "ab", 3, 0, "?"},
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
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        EXPECT_EQ(open.send("a\nb"), CDBGP_SUCCESS);
        EXPECT_EQ(open.send(std::string(index == CDBGP_CHANNEL_ERROR ? 511 : 2047, '\n')), CDBGP_SUCCESS);
        const std::string caught =
            testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
        const std::size_t converted = index == CDBGP_CHANNEL_ERROR ? 562 : 2251;
        EXPECT_EQ(caught.substr(0, 5), "a\nb\n\n");
        const auto lines = take_log_lines();
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_EQ(lines[0].text, "a\r\nb\r\n");
        EXPECT_EQ(lines[1].text.size(), converted);
        EXPECT_TRUE(lines[1].text.ends_with("\r\n"));
    }
}

TEST(channels, lengths_that_only_a_check_would_find) {
    struct {
        std::uint32_t size;
        const char* text;
        std::int32_t total, expected_total;
        std::string expected;  // the buffer's bytes
    } const rows[] = {
        {40, "abc", -1, 39, "abc\n***FORMATTING ERROR***\n"s + std::string(13, '\0')},
        {27, "abcd", -1, 26, "ab\n***FORMATTING ERROR***\n\0"s},
        {4, "", -7, 3, "\n**\0"s},
        {30, "abcd", 30, 29, "abcd\n***MESSAGE TRUNCATED***\n\0"s},
        {4, "abc", 9, 3, "\n***"s},
        {4, "abc", 3, 3, "abc\0"s},
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
