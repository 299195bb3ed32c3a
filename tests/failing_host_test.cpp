// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>

#include "boxes/foreign_codec_hook.h"
#include "common/simple_exception.h"
#include "companion/importer/movie.h"
#include "kestrel/hinter.h"
#include "kestrel/log.h"
#include "kestrel/packer.h"
#include "tests/support/hint_file.h"
#include "tests/support/playing.h"
#include "tests/support/writing.h"

// Every sample file with both APIs over a host whose calls go wrong, one after the other and in
// every way: the documented status comes, what was delivered is good, and when the host is repaired
// the rest follows. By default some calls of each file are taken, the same ones each time; with
// KESTREL_THOROUGH=1 in the environment, all.

// In place of the process exit: the zeros of a box that was read short name a foreign codec.
void Qvox3gp::meet_foreign_codec() {
    throw SimpleException("test", 0, "foreign codec");
}

namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::Each;
using testing::Ge;
using testing::IsEmpty;
using testing::Le;

// A handle of one API.
class Player {
  public:
    explicit Player(Api api) : api_(api) {}
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;
    ~Player() { close(); }

    int32_t open(FaultyHost& host, const char* mode) {
        if (api_ == Api::kFunction) return kst_Open(&handle_, host.callbacks(), mode);
        return static_cast<int32_t>(player_.Open(host.callbacks(), mode));
    }
    void close() {
        kst_Close(&handle_);
        player_.Close();
    }
    // Nothing is left of an open that failed.
    void expect_closed() {
        uint8_t byte = 0;
        uint32_t size = 1;
        EXPECT_EQ(handle_, nullptr);
        EXPECT_EQ(player_.ReadChunk(&byte, &size, false), KST_NOT_OPEN);
    }
    ReadThrough read_through(bool flag) {
        return read_through_failures(api_ == Api::kFunction ? read_call(handle_, flag)
                                                            : read_call(player_, flag));
    }

  private:
    Api api_;
    mm_Interface* handle_ = nullptr;
    C3gpInterface player_;
};

// One medium on one API. What the calls of a good host are is learnt first.
class Faults {
  public:
    Faults(const Medium& medium, Api api, bool flag)
        : medium_(medium), api_(api), flag_(flag), file_(read_sample(medium.file)) {
        FaultyHost host(file_);
        Player player(api);
        status_ = player.open(host, medium.mode);
        open_calls_ = host.calls;
        if (status_ == KST_SUCCESS) whole_ = player.read_through(flag).stream;
        names_ = host.names;
    }

    int calls() const { return static_cast<int>(names_.size()); }
    bool takes(int call) const;
    // The call goes wrong; answers false for a call that cannot.
    bool run(int failing, const Fault& fault);

  private:
    void expect_open_failed(int32_t status, Player& player, const Fault& fault);
    void expect_stream(Player& player, FaultyHost& host, int failing, const Fault& fault);
    void expect_failures(const std::vector<int32_t>& failures, int failing, const Fault& fault);

    Medium medium_;
    Api api_;
    bool flag_;
    Bytes file_;
    Bytes whole_;
    int32_t status_;
    std::vector<std::string_view> names_;
    int open_calls_ = 0;
};

// Some of the calls: where opening begins and ends, where reading begins and ends, and now and then
// in between.
bool Faults::takes(int call) const {
    constexpr int kNear = 5;
    constexpr int kBetween = kSanitized ? 12 : 60;
    const auto is_near = [&](int place) { return std::abs(call - place) < kNear; };
    // What is read with the flag has been opened as without it.
    if (flag_ && call < open_calls_) return false;
    if (thorough()) return true;
    const int step = std::max(calls() / kBetween, 1) | 1;
    return is_near(0) || is_near(open_calls_) || is_near(open_calls_ + 4 * kNear) ||
           is_near(calls()) || call % step == step / 2;
}

void Faults::expect_open_failed(int32_t status, Player& player, const Fault& fault) {
    if (api_ == Api::kFunction) {
        EXPECT_EQ(status, KST_FAILURE);
    } else if (fault.kind == FaultKind::kStatus && status_ == KST_SUCCESS) {
        const bool not_yet = fault.status != KST_HOST_FAILED;
        EXPECT_THAT(status, AnyOf(KST_FAILURE, not_yet ? KST_FAILURE : KST_CORRUPT));
    } else {  // a box with zeros in it may come to anything that opening can
        EXPECT_THAT(status, AllOf(Ge(KST_FAILURE), Le(KST_UNKNOWN_CODER)));
    }
    player.expect_closed();
}

void Faults::expect_failures(const std::vector<int32_t>& failures, int failing,
                             const Fault& fault) {
    if (api_ == Api::kFunction) {
        EXPECT_THAT(failures, Each(AnyOf(KST_FAILURE, KST_NOT_YET)));
        return;
    }
    const std::string_view slot = names_[static_cast<size_t>(failing)];
    const bool stream_call = slot == "Seek" || slot == "SeekNRead";
    const int32_t refused = fault.status == KST_HOST_FAILED ? KST_IO_FAILURE : KST_NOT_YET;
    const int32_t expected = stream_call                       ? int32_t{KST_FAILURE}
                             : fault.kind == FaultKind::kShort ? int32_t{KST_NOT_YET}
                                                               : refused;
    ASSERT_FALSE(failures.empty());
    EXPECT_EQ(failures[0], expected);
    EXPECT_THAT(failures, Each(AnyOf(failures[0], KST_IO_FAILURE, KST_FAILURE)));
    EXPECT_EQ(failures.size(), fault.for_good ? 3u : 1u);
}

// Reads on over a host that is at fault, and then over one that is not.
void Faults::expect_stream(Player& player, FaultyHost& host, int failing, const Fault& fault) {
    ReadThrough faulty = player.read_through(flag_);
    const bool of_packets = medium_.mode[0] == 'v' && medium_.file.ends_with("hinted.3gp");
    if (api_ == Api::kFunction && of_packets && fault.kind == FaultKind::kStatus &&
        fault.for_good) {
        const ReadThrough plain = player.read_through(false);  // also after waits with the flag
        EXPECT_THAT(plain.failures, Each(KST_FAILURE));
        faulty.stream = join({faulty.stream, plain.stream});
    }
    host.repair();
    const ReadThrough rest = player.read_through(flag_);
    if (!fault.honest()) return;
    const bool while_open = failing < open_calls_;
    if (while_open && (api_ == Api::kClass || fault.for_good)) return;  // zeros for a box
    if (!while_open) expect_failures(faulty.failures, failing, fault);
    EXPECT_THAT(rest.failures, IsEmpty());
    EXPECT_TRUE(join({faulty.stream, rest.stream}) == whole_);
}

bool Faults::run(int failing, const Fault& fault) {
    if (!can_fault(names_[static_cast<size_t>(failing)], fault.kind)) return false;
    FaultyHost host(file_);
    host.break_at(failing, fault);
    Player player(api_);
    const int32_t status = player.open(host, medium_.mode);
    if (failing >= open_calls_) {
        EXPECT_EQ(status, status_);
    }
    if (status == KST_SUCCESS) {
        expect_stream(player, host, failing, fault);
    } else {
        expect_open_failed(status, player, fault);
    }
    player.close();
    host.repair();
    host.rewind();
    EXPECT_EQ(player.open(host, medium_.mode), status_);
    if (status != KST_SUCCESS && status_ == KST_SUCCESS) {
        EXPECT_TRUE(player.read_through(flag_).stream == whole_);
    }
    return true;
}

class EveryHostCall : public testing::TestWithParam<std::tuple<Medium, Api>> {
  protected:
    EveryHostCall() { sx_Debug = 0; }
    ~EveryHostCall() override { sx_Debug = 3; }
};

TEST_P(EveryHostCall, MayGoWrong) {
    const auto& [medium, api] = GetParam();
    int tried = 0;
    int of = 0;
    for (const bool flag : {false, true}) {
        Faults faults(medium, api, flag);
        of += faults.calls();
        for (int failing = 0; failing < faults.calls(); ++failing) {
            if (!faults.takes(failing)) continue;
            for (const Fault& fault : kFaults) {
                tried += faults.run(failing, fault);
                ASSERT_FALSE(HasFailure())
                    << fault.name << ", call " << failing << (flag ? ", flag" : "");
            }
        }
    }
    std::cout << tried << " faults in " << of << " calls\n";
}

// Slots that always say the same, whatever holds.
TEST_P(EveryHostCall, MaySayTheSameForEver) {
    const auto& [medium, api] = GetParam();
    const Bytes file = read_sample(medium.file);
    for (const bool flag : {false, true}) {
        for (const uint32_t answer : {0u, 1u, 5u, 13u, 0xFFFFFFFFu}) {
            for (const bool eof : {false, true}) {
                FaultyHost host(file);
                (eof ? host.eof : host.classification) = answer;
                Player player(api);
                if (player.open(host, medium.mode) == KST_SUCCESS) player.read_through(flag);
                player.close();
                host.repair();
                host.rewind();
                player.open(host, medium.mode);
            }
        }
    }
}

// --- reads that write nothing ---

// Of a read that succeeds without writing anything, zeros are taken: nothing that was read before
// is parsed or delivered once more.
TEST(SilentReads, RepeatNothing) {
    HintFile made;
    made.media = join({Bytes(10, 0xA1), Bytes(10, 0xA2), Bytes(10, 0xA3)});
    made.media_sizes = {10, 10, 10};
    for (uint16_t i = 1; i <= 3; ++i)
        made.add_hint(hint_sample(1, {packet_entry(96, i, 1), from_sample(2, 0, 10, i, 0)}));
    const Bytes file = made.build();
    for (const bool flag : {false, true}) {
        for (int silent = 0; silent < 20; ++silent) {
            FaultyHost host(file);
            C3gpInterface player;
            ASSERT_EQ(player.Open(host.callbacks(), "ar"), KST_SUCCESS);
            host.silent = [from = host.calls, silent](int call) { return call == from + silent; };
            const Bytes stream = read_through_failures(read_call(player, flag), 24).stream;
            for (const int byte : {0xA1, 0xA2, 0xA3})
                EXPECT_LE(std::count(stream.begin(), stream.end(), byte), 10) << silent;
        }
    }
}

// --- the writer ---

// What was written whole although a call went wrong is whole; otherwise the writer says so.
TEST(WriterHost, EveryCallMayGoWrong) {
    const Around plainly = [](const std::function<void()>& call) { call(); };
    int tried = 0;
    for (const bool direct : {false, true}) {
        FaultyHost good;
        const Writing all = write_every_codec(good.callbacks(), direct, plainly);
        EXPECT_EQ(all.closed, 0);
        EXPECT_EQ(samples_in(good.written()), all.samples);
        for (const Fault& fault : kFaults) {
            for (int failing = 0; failing < good.calls; ++failing) {
                if (!can_fault(good.names[static_cast<size_t>(failing)], fault.kind)) continue;
                SCOPED_TRACE(testing::Message() << fault.name << ", call " << failing);
                FaultyHost host;
                host.break_at(failing, fault);
                const Writing writing = write_every_codec(host.callbacks(), direct, plainly);
                const auto& slot = good.names[static_cast<size_t>(failing)];
                if (slot == "GetOffset" && fault.kind == FaultKind::kLie && fault.for_good) {
                    EXPECT_EQ(writing.closed, -5);
                }
                EXPECT_THAT(writing.failures, Each(-5));
                EXPECT_THAT(writing.closed, AnyOf(0, -5));
                if (fault.honest()) {
                    const bool whole = host.written() == good.written();
                    EXPECT_TRUE(whole || writing.closed != 0);
                    EXPECT_EQ(samples_in(host.written()), whole ? all.samples : 0);
                }
                ++tried;
            }
        }
    }
    std::cout << tried << " faults\n";
}

// --- the importer ---

TEST(ImporterHost, EveryCallMayFail) {
    for (const char* name : {"wild/fragmented.3gp", "h264_plain.3gp"}) {
        const Bytes file = read_sample(name);
        kestrel::importer::Movie movie;
        FaultyHost good(file);
        ASSERT_TRUE(import_movie(*good.callbacks(), {}, movie).ok);
        for (int call = 0; call < good.calls; ++call) {
            FaultyHost host(file);
            host.break_at(call, kFaults[0]);
            EXPECT_THAT(import_movie(*host.callbacks(), {}, movie).error,
                        testing::StartsWith("the host failed to "));
        }
    }
    kst_host* arriving = kst_host_from_growing_memory("abcdefgh", 8, 1);
    kestrel::importer::Movie movie;
    EXPECT_THAT(import_movie(*kst_host_callbacks(arriving), {}, movie).error,
                testing::HasSubstr("not arrived"));
    kst_host_close(arriving);
}

// --- the packer ---

TEST(PackerHost, EveryCallMayFail) {
    const Bytes stream = play(read_sample("h263_hinted.3gp"), "vr").stream;
    const auto pack = [&](FaultyHost& host) {
        kst_packer* packer = kst_packer_open(nullptr);
        kst_packer_feed(packer, 0, stream.data(), stream.size());
        const int status = kst_packer_write(packer, host.callbacks(), nullptr);
        kst_packer_close(packer);
        return status;
    };
    FaultyHost good;
    ASSERT_EQ(pack(good), KST_PACK_DONE);
    for (int call = 0; call < good.calls; ++call) {
        FaultyHost host;
        host.break_at(call, kFaults[1]);
        // The last one asks where the stream stands, when all is written.
        const bool is_whole = call + 1 == good.calls;
        EXPECT_EQ(pack(host), is_whole ? KST_PACK_DONE : KST_PACK_DESTINATION_FAILED) << call;
    }
}

// --- the hinter ---

// What comes out is whole, or an error.
TEST(HinterHost, EveryCallMayGoWrong) {
    const Bytes source = read_sample("wild/fragmented.3gp");
    const auto run = [&](FaultyHost& from, FaultyHost& to) {
        kst_hint_report report = {};
        report.struct_size = sizeof report;
        const int result = kst_hint(from.callbacks(), to.callbacks(), nullptr, &report);
        EXPECT_EQ(result == KST_HINT_DONE, report.error[0] == '\0');
        return result;
    };
    FaultyHost good_source(source), good;
    ASSERT_EQ(run(good_source, good), KST_HINT_DONE);
    const Bytes whole = good.written();
    for (const bool at_source : {true, false}) {
        const FaultyHost& calls = at_source ? good_source : good;
        const int failed = at_source ? KST_HINT_SOURCE_FAILED : KST_HINT_DESTINATION_FAILED;
        for (const Fault& fault : kFaults) {
            if (!fault.honest()) continue;
            SCOPED_TRACE(fault.name);
            for (int call = 0; call < calls.calls; ++call) {
                if (!can_fault(calls.names[static_cast<size_t>(call)], fault.kind)) continue;
                FaultyHost from(source), to;
                (at_source ? from : to).break_at(call, fault);
                const int result = run(from, to);
                EXPECT_THAT(result, AnyOf(KST_HINT_DONE, failed));
                // A destination that fails at last may have taken all.
                if (at_source || result == KST_HINT_DONE) {
                    EXPECT_EQ(result == KST_HINT_DONE, to.written() == whole);
                }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Files, EveryHostCall,
                         testing::Combine(testing::ValuesIn(sample_media()),
                                          testing::Values(Api::kFunction, Api::kClass)),
                         [](const auto& row) { return std::apply(name_of, row.param); });

}  // namespace
