// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <sstream>

#include "kestrel/version.h"
#include "tests/support/playing.h"
#include "tests/support/syslog_capture.h"

// The tables in kestrel/stream.h are true: which API calls which slot, and what it reports when a
// slot does not serve it.

namespace {

using Row = std::vector<std::string>;

// The rows of the table in stream.h whose first row begins with `first`, without that row.
std::vector<Row> table(const std::string& first) {
    std::ifstream header(KESTREL_HEADERS "/stream.h");
    std::vector<Row> rows;
    bool inside = false;
    for (std::string line; std::getline(header, line);) {
        if (!line.starts_with(" * |")) {
            inside = false;
            continue;
        }
        Row row;
        std::istringstream cells(line.substr(4));
        for (std::string cell; std::getline(cells, cell, '|');) {
            const size_t end = cell.find_last_not_of(' ');
            row.push_back(end == std::string::npos ? "" : cell.substr(1, end));
        }
        if (inside && !row.front().starts_with("-")) rows.push_back(row);
        if (row.front() + "|" + row.back() == first) inside = true;
    }
    return rows;
}

const Medium kPlayed[] = {{"amrnb_hinted.3gp", "ar"},
                          {"h263_hinted.3gp", "vr"},
                          {"h263_plain.3gp", "vr"},
                          {"mpeg4_hinted.3gp", "vr"},
                          {"h264_plain.3gp", "vr"}};

int32_t seek(C3gpInterface& player) {
    _TAG_KST_SEEK_PARAMS params{};
    params.fFlags = KST_SEEK_ABSOLUTE | KST_SEEK_NEXT_SYNC;
    return static_cast<int32_t>(player.SeekTo(&params));
}

// The slots that each way of use calls, by the letters of the table.
class Uses {
  public:
    explicit Uses(Api api) : api_(api) {
        for (const Medium& medium : kPlayed)
            use(medium);
    }
    std::string of(const std::string& slot) const {
        const auto found = letters_.find(slot);
        if (found == letters_.end()) return "never";
        std::string joined;
        for (const char letter : std::string("ORAS"))
            if (found->second.contains(letter))
                joined += (joined.empty() ? "" : ", ") + std::string(1, letter);
        return joined;
    }

  private:
    void use(const Medium& medium) {
        const Bytes file = read_sample(medium.file);
        for (const bool arriving : {false, true}) {
            FaultyHost host(file);
            mm_Interface* handle = nullptr;
            C3gpInterface player;
            const bool opened =
                api_ == Api::kFunction
                    ? kst_Open(&handle, host.callbacks(), medium.mode) == KST_SUCCESS
                    : player.Open(host.callbacks(), medium.mode) == KST_SUCCESS;
            note(host, 'O');
            if (!opened) continue;
            read_through_failures(api_ == Api::kFunction ? read_call(handle, arriving)
                                                         : read_call(player, arriving));
            note(host, arriving ? 'A' : 'R');
            if (api_ == Api::kClass) seek(player);
            note(host, 'S');
            kst_Close(&handle);
        }
    }
    void note(FaultyHost& host, char letter) {
        for (const std::string_view slot : host.used)
            letters_[std::string(slot)].insert(letter);
        host.used.clear();
    }

    Api api_;
    std::map<std::string, std::set<char>> letters_;
};

TEST(StreamContract, SlotsThatEachApiCalls) {
    const std::vector<Row> rows = table("Slot|Class API");
    ASSERT_EQ(rows.size(), 9u);
    const Uses function(Api::kFunction);
    const Uses by_class(Api::kClass);
    for (const Row& row : rows) {
        EXPECT_EQ(function.of(row[0]), row[1]) << row[0];
        EXPECT_EQ(by_class.of(row[0]), row[2]) << row[0];
    }
}

// --- what the calls report ---

std::string name_of(int32_t status) {
    static const std::map<int32_t, std::string> kNames = {{KST_SUCCESS, "KST_SUCCESS"},
                                                          {KST_FAILURE, "KST_FAILURE"},
                                                          {KST_CORRUPT, "KST_CORRUPT"},
                                                          {KST_IO_FAILURE, "KST_IO_FAILURE"},
                                                          {KST_NOT_YET, "KST_NOT_YET"}};
    const auto found = kNames.find(status);
    return found == kNames.end() ? std::to_string(status) : found->second;
}

// The status of the first read that fails, of a stream whose first frame was delivered.
int32_t failing_read(FaultyHost& host, const Fault& fault, const ReadCall& read) {
    Bytes buffer(KST_LARGEST_CHUNK);
    for (int chunk = 0;; ++chunk) {
        if (chunk == 10) host.break_at(0, fault);
        auto size = static_cast<uint32_t>(chunk < 10 ? 500 : buffer.size());
        const int32_t status = read(buffer.data(), &size);
        // A chunk that was delivered before the host refused the Seek after it.
        if (status == KST_SUCCESS || (status == KST_FAILURE && size > 0)) continue;
        EXPECT_EQ(size, 0u);
        return status;
    }
}

int32_t function_open(FaultyHost& host, const Fault& fault) {
    host.break_at(0, fault);
    mm_Interface* handle = nullptr;
    return kst_Open(&handle, host.callbacks(), "ar");
}

int32_t function_read(FaultyHost& host, const Fault& fault) {
    int32_t both = KST_SUCCESS;
    for (const bool arriving : {false, true}) {
        host.repair();
        host.rewind();
        mm_Interface* handle = nullptr;
        EXPECT_EQ(kst_Open(&handle, host.callbacks(), "ar"), KST_SUCCESS);
        const int32_t status = failing_read(host, fault, read_call(handle, arriving));
        EXPECT_TRUE(!arriving || status == both);
        both = status;
        kst_Close(&handle);
    }
    return both;
}

int32_t class_open(FaultyHost& host, const Fault& fault) {
    host.break_at(0, fault);
    C3gpInterface player;
    return static_cast<int32_t>(player.Open(host.callbacks(), "ar"));
}

template <bool kArriving>
int32_t class_read(FaultyHost& host, const Fault& fault) {
    C3gpInterface player;
    EXPECT_EQ(player.Open(host.callbacks(), "ar"), KST_SUCCESS);
    return failing_read(host, fault, read_call(player, kArriving));
}

int32_t class_seek(FaultyHost& host, const Fault& fault) {
    C3gpInterface player;
    EXPECT_EQ(player.Open(host.callbacks(), "ar"), KST_SUCCESS);
    host.break_at(0, fault);
    return seek(player);
}

TEST(StreamContract, WhatCallsReportWhenASlotDoesNotServe) {
    const std::map<std::string, int32_t (*)(FaultyHost&, const Fault&)> calls = {
        {"kst_Open", function_open},
        {"kst_ReadChunk, both flags", function_read},
        {"C3gpInterface::Open", class_open},
        {"ReadChunk, not arriving", class_read<false>},
        {"ReadChunk, arriving", class_read<true>},
        {"SeekTo", class_seek}};
    const Fault kinds[] = {{"not yet", FaultKind::kStatus, KST_HOST_NOT_YET, true},
                           {"end", FaultKind::kShort, KST_HOST_OK, true},
                           {"failure", FaultKind::kStatus, KST_HOST_FAILED, true}};
    const Bytes file = read_sample("amrnb_hinted.3gp");
    const std::vector<Row> rows = table("Call|Slot says failure");
    ASSERT_EQ(rows.size(), calls.size());
    for (const Row& row : rows) {
        for (size_t kind = 0; kind < std::size(kinds); ++kind) {
            FaultyHost host(file);
            const std::string said = row[kind + 1].substr(0, row[kind + 1].find(' '));
            EXPECT_EQ(name_of(calls.at(row[0])(host, kinds[kind])), said)
                << row[0] << ", " << kinds[kind].name;
        }
    }
}

TEST(StreamContract, TablesWithHolesAreRefused) {
    const Bytes file = read_sample("amrnb_hinted.3gp");
    FaultyHost host(file);
    mm_Interface* handle = nullptr;
    C3gpInterface player;
    EXPECT_EQ(player.Open(nullptr, "ar"), KST_BAD_ARGUMENT);
    EXPECT_EQ(player.Open(host.callbacks(), nullptr), KST_BAD_MODE);
    EXPECT_EQ(host.calls, 0);
    for (size_t slot = 1; slot < sizeof *host.callbacks() / sizeof(void*); ++slot) {
        KST_IOSTREAM_CALLBACK_INTERFACE holed = *host.callbacks();
        std::memset(reinterpret_cast<char*>(&holed) + slot * sizeof(void*), 0, sizeof(void*));
        host.rewind();
        EXPECT_EQ(kst_Open(&handle, &holed, "ar"), KST_BAD_ARGUMENT) << "slot " << slot;
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(player.Open(&holed, "ar"), KST_BAD_ARGUMENT) << "slot " << slot;
    }
}

TEST(StreamContract, FirstVideoFrameThatIsMissingIsAFailureWithoutBytes) {
    const Bytes file = read_sample("h263_plain.3gp");
    FaultyHost host(file);
    mm_Interface* handle = nullptr;
    ASSERT_EQ(kst_Open(&handle, host.callbacks(), "vr"), KST_SUCCESS);
    host.fault = [](int) -> uint32_t { return KST_HOST_NOT_YET; };
    const ReadThrough read = read_through_failures(read_call(handle, true));
    EXPECT_EQ(read.stream.size(), 24u);
    EXPECT_THAT(read.failures, testing::Each(KST_FAILURE));
    kst_Close(&handle);
}

// As kestrel/kestrel.h and c3gpinterface.h say: a line for each try to open, none for not-yet.
TEST(StreamContract, LogOfAFileThatArrives) {
    constexpr size_t kLastBox =
        75;  // after the media: the class API opens when its header is there
    Bytes file = read_sample("av_h263_amrnb_hinted.3gp");
    file.resize(file.size() - kLastBox);
    for (const Api api : {Api::kFunction, Api::kClass}) {
        kst_host* host = kst_host_from_growing_memory(file.data(), file.size(), 700);
        const SyslogCapture log(3);
        size_t tries = 0;
        mm_Interface* handle = nullptr;
        C3gpInterface player;
        const auto open = [&] {
            return api == Api::kFunction
                       ? kst_Open(&handle, kst_host_callbacks(host), "ar")
                       : static_cast<int32_t>(player.Open(kst_host_callbacks(host), "ar"));
        };
        while (open() != KST_SUCCESS) {
            ASSERT_EQ(kst_host_is_complete(host), 0);
            kst_host_wait(host);
            kst_host_rewind(host);
            ++tries;
        }
        EXPECT_GT(tries, 2u);
        EXPECT_EQ(log.lines().size(), tries);
        const ReadCall read =
            api == Api::kFunction ? read_call(handle, true) : read_call(player, true);
        Bytes buffer(KST_LARGEST_CHUNK);
        int32_t status = KST_SUCCESS;
        int waits = 0;
        while (status == KST_SUCCESS || status == KST_NOT_YET) {
            auto size = static_cast<uint32_t>(buffer.size());
            status = read(buffer.data(), &size);
            if (status == KST_NOT_YET) {
                kst_host_wait(host);
                ++waits;
            }
        }
        EXPECT_EQ(status, KST_END_OF_FILE);
        EXPECT_GT(waits, 2);
        EXPECT_EQ(log.lines().size(), tries);
        kst_Close(&handle);
        player.Close();
        kst_host_close(host);
    }
}

// An announcement is answered not-yet in plain mode as well, and nothing is lost by that.
TEST(StreamContract, NotYetOfAnAnnouncementIsAWaitInPlainModeToo) {
    for (const Medium& medium : kPlayed) {
        const Bytes file = read_sample(medium.file);
        const Played whole = play(file, medium.mode, {.api = Api::kClass});
        if (!whole.opened) continue;
        FaultyHost host(file);
        C3gpInterface player;
        ASSERT_EQ(player.Open(host.callbacks(), medium.mode), KST_SUCCESS);
        int announced = 0;
        host.fault = [&](int) -> uint32_t {
            const bool is_late = host.names.back() == "AdvanceRead" && ++announced == 3;
            return is_late ? KST_HOST_NOT_YET : KST_HOST_OK;
        };
        const ReadThrough read = read_through_failures(read_call(player, false), 500);
        EXPECT_EQ(read.status, KST_END_OF_FILE);
        EXPECT_THAT(read.failures, testing::Each(KST_NOT_YET));
        EXPECT_FALSE(read.failures.empty());
        EXPECT_TRUE(read.stream == whole.stream);
    }
}

TEST(StreamContract, ReadyHostRemembersThatItFailed) {
    const std::string path = testing::TempDir() + "kestrel_cut_meanwhile";
    const Bytes file = read_sample("amrnb_plain.3gp");
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(file.data()),
               static_cast<std::streamsize>(file.size()));
    kst_host* host = kst_host_from_file(path.c_str());
    EXPECT_EQ(kst_host_failed(host), 0);
    std::ofstream(path, std::ios::trunc).close();
    const Played played = play(host, "ar");
    EXPECT_NE(played.status, KST_SUCCESS);
    EXPECT_EQ(kst_host_failed(host), EIO);
    kst_host_close(host);
}

TEST(StreamContract, ReadyHostNeedsSomethingToServe) {
    EXPECT_EQ(kst_host_from_memory(nullptr, 5), nullptr);
    EXPECT_EQ(kst_host_from_growing_memory(nullptr, 5, 1), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(kst_host_from_pipe(-1), nullptr);
    int pipe_ends[2] = {};
    ASSERT_EQ(pipe(pipe_ends), 0);
    EXPECT_EQ(kst_host_from_pipe(pipe_ends[1]), nullptr);
    EXPECT_EQ(errno, EBADF);
    close(pipe_ends[0]);
    close(pipe_ends[1]);
    EXPECT_EQ(errno, EBADF);
}

TEST(Version, IsThatOfTheHeader) {
    EXPECT_EQ(kst_Version(),
              KST_VERSION_MAJOR * 65536u + KST_VERSION_MINOR * 256u + KST_VERSION_PATCH);
}

}  // namespace
