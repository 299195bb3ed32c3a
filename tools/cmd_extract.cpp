// SPDX-License-Identifier: Apache-2.0
#include <bit>
#include <cmath>
#include <utility>
#include <vector>

#include "tools/commands.h"
#include "tools/judge/media_tally.h"
#include "tools/judge/verdict.h"
#include "tools/media_writer.h"
#include "tools/native_file.h"
#include "tools/support.h"
#include "tools/track_choice.h"
#include "tools/whole_output.h"

namespace tool {
namespace {

enum class Sync { kNext, kPrevious, kNearest };

struct Options {
    std::string input;
    std::string mode;
    std::string output = "-";
    std::optional<uint32_t> arriving;
    Api api = Api::kFunction;
    std::optional<uint32_t> from_ms;
    Sync sync = Sync::kPrevious;
    std::optional<uint32_t> track;  // its ID
    bool unpack = false;
};

// The source that is played, with either API.
class Player {
  public:
    Player() = default;
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;
    virtual ~Player() = default;

    // Reads into the buffer, which grows when a call needs more.
    virtual int32_t read(std::vector<uint8_t>& buffer, uint32_t& size, bool arriving) = 0;
    // Whether more data may resolve the failure of a read.
    virtual bool may_arrive(int32_t status, uint32_t size) const = 0;
    // Puts the bytes that were ready before a failed read into the buffer. Returns their number.
    virtual uint32_t rest(std::span<uint8_t>, bool /*arriving*/) { return 0; }
};

class FunctionPlayer final : public Player {
  public:
    explicit FunctionPlayer(Handle handle) : handle_(std::move(handle)) {}

    int32_t read(std::vector<uint8_t>& buffer, uint32_t& size, bool arriving) override {
        for (;;) {
            size = static_cast<uint32_t>(buffer.size());
            const int32_t status = kst_ReadChunk(handle_.get(), buffer.data(), &size, arriving);
            if (status != KST_BAD_ARGUMENT || size <= buffer.size()) return status;
            buffer.resize(size);
        }
    }
    // Data that has not arrived is not-yet, but a failure where it is missing for the first frame.
    bool may_arrive(int32_t status, uint32_t size) const override {
        return status == KST_NOT_YET || (status == KST_FAILURE && size == 0);
    }

  private:
    Handle handle_;
};

class ClassPlayer final : public Player {
  public:
    explicit ClassPlayer(ClassObject object) : object_(std::move(object)) {}

    int32_t read(std::vector<uint8_t>& buffer, uint32_t& size, bool arriving) override {
        size = static_cast<uint32_t>(buffer.size());
        return static_cast<int32_t>(object_->ReadChunk(buffer.data(), &size, arriving));
    }
    bool may_arrive(int32_t status, uint32_t) const override { return status == KST_NOT_YET; }
    // A failed read delivers nothing; a smaller one may succeed. Powers of two add up to any size.
    uint32_t rest(std::span<uint8_t> buffer, bool arriving) override {
        uint32_t had = 0;
        const auto most = static_cast<uint32_t>(buffer.size() - 1);
        for (uint32_t piece = std::bit_floor(most); piece > 0; piece /= 2) {
            if (piece > buffer.size() - had) continue;  // the host has got better meanwhile
            unsigned int size = piece;
            if (object_->ReadChunk(&buffer[had], &size, arriving) == KST_SUCCESS) had += size;
        }
        return had;
    }

  private:
    ClassObject object_;
};

uint32_t sync_flag(Sync sync) {
    switch (sync) {
        case Sync::kNext:
            return KST_SEEK_NEXT_SYNC;
        case Sync::kPrevious:
            return KST_SEEK_PREVIOUS_SYNC;
        default:
            return KST_SEEK_NEAREST_SYNC;
    }
}

// The medium of a mode string; the last letter counts.
MediaKind kind_of(const std::string& mode) {
    return mode.find_last_of("aA") + 1 > mode.find_last_of("vV") + 1 ? MediaKind::kAudio
                                                                     : MediaKind::kVideo;
}

void warn_of_timescales(kst_host* host, const Options& options) {
    using namespace kestrel::probe;
    if (!seeks_elsewhere(ClassFile(kst_host_callbacks(host)), kind_of(options.mode))) return;
    say(input_name(options.input) +
        ": the hint track has another timescale than the media, so the times of seeks are wrong; "
        "'kestrel hint --replace' makes them agree");
}

// Where the track ends, of a time that is after it.
std::string end_text(kst_host* host, const Options& options) {
    const FileFacts facts = gather_facts(host, Clock::now() + kPatience);
    const iso_track* track = track_for(facts.file.get(), options.api, kind_of(options.mode));
    if (track == nullptr) return "";
    const double end = duration_of(facts, track).seconds() * 1000;
    return *options.from_ms < end ? ""
                                  : "; the end is at " + std::to_string(std::llround(end)) + " ms";
}

// Seeks and reports the result; waits for the target to arrive. Returns the frame, from 1.
uint32_t seek(C3gpInterface& player, kst_host* host, const Options& options) {
    for (;;) {
        const bool complete = kst_host_is_complete(host) != 0;
        _TAG_KST_SEEK_PARAMS params{};
        params.nTime = *options.from_ms;
        params.fFlags = KST_SEEK_ABSOLUTE | sync_flag(options.sync);
        const auto status = static_cast<int32_t>(player.SeekTo(&params));
        if (status == KST_SUCCESS) {
            std::fprintf(error_stream(), "from %u ms: frame %u, file offset %d\n", params.nTime,
                         params.uFrameNum, static_cast<int>(params.uFileOffset));
            warn_of_timescales(host, options);
            return params.uFrameNum;
        }
        refuse_failed(host);
        if (status != KST_FAILURE || complete) {
            const std::string more =
                "; cannot begin at " + std::to_string(*options.from_ms) + " ms";
            throw status_error(options.input, status, more + end_text(host, options));
        }
        if (kst_host_wait(host) == KST_HOST_FAULT) throw input_error(options.input);
    }
}

Error open_error(kst_host* host, const Options& options, int32_t status) {
    if (status == KST_BAD_MODE) {
        return file_error(
            options.input,
            "MODE '" + options.mode + "' is not known: ar plays audio, vr plays video",
            kWrongUsage);
    }
    return tool::open_error(host, options.input, options.api, kind_of(options.mode), status);
}

// Stores the frame that is played first, from 1.
std::unique_ptr<Player> open_player(kst_host* host, const Options& options, uint32_t& first_frame) {
    int32_t status = KST_SUCCESS;
    if (options.api == Api::kClass) {
        ClassObject object = open_object(host, options.mode, status);
        if (object == nullptr) throw open_error(host, options, status);
        if (options.from_ms) first_frame = seek(*object, host, options);
        return std::make_unique<ClassPlayer>(std::move(object));
    }
    Handle handle = open_track(host, options.mode, status);
    if (handle == nullptr) throw open_error(host, options, status);
    return std::make_unique<FunctionPlayer>(std::move(handle));
}

// Rebuilds the media file from the stream.
class Unpacking {
  public:
    explicit Unpacking(Output& output) : media_(output), walk_(media_) {}

    void take(std::span<const uint8_t> bytes) {
        if (!damage_) check([&] { walk_.feed(bytes); });
    }
    void finish() {
        if (!damage_) check([&] { walk_.finish(); });
        media_.finish();
    }
    // Throws when the media file lacks a part of the stream.
    void require_all(const std::string& input, const std::string& kept) const {
        if (damage_) throw damage_error(input + ": its stream", *damage_, kept);
        if (!media_.lacks().empty()) throw file_error(input, media_.lacks() + kept);
    }

  private:
    template <typename Step>
    void check(Step step) {
        try {
            step();
        } catch (const kestrel::stream::Damage& damage) {
            damage_ = damage;
        }
    }

    MediaWriter media_;
    kestrel::stream::NativeWalk walk_;
    std::optional<kestrel::stream::Damage> damage_;
};

// Where the stream goes, or its media. What is played while it arrives is there at once; any other
// output comes whole, so that a file that was there stays where nothing can be made.
class StreamOutput {
  public:
    explicit StreamOutput(const Options& options) : is_pipe_(options.output == "-") {
        if (options.input == "-" || options.arriving) {
            direct_.emplace(options.output, options.input);
        } else {
            whole_.emplace(options.output, options.input);
        }
        if (options.unpack) unpacking_.emplace(output());
    }

    void take(std::span<const uint8_t> bytes) {
        if (unpacking_) {
            unpacking_->take(bytes);
        } else {
            output().write(bytes);
        }
        delivered_ += bytes.size();
        tally_.take(bytes);
    }
    // Passes the bytes on if a reader may wait for them.
    void flush() {
        if (direct_) direct_->flush();
    }
    // Keeps the output.
    void finish() {
        if (unpacking_) unpacking_->finish();
        if (direct_) direct_->finish();
        if (whole_ && is_kept()) whole_->finish();
    }
    // Throws where the media file lacks something of a stream that was played to its end.
    void require_all(const std::string& input) {
        if (unpacking_) unpacking_->require_all(input, what_is_kept());
    }
    // "; kept 5 bytes of stream", of what was made though it is not all.
    std::string what_is_kept() {
        if (!is_kept()) return "";
        return "; kept " + std::to_string(output().written()) +
               (unpacking_ ? " bytes of media" : " bytes of stream");
    }

    uint64_t delivered() const { return delivered_; }
    MediaCounts counts() const { return tally_.counts(); }

  private:
    bool is_kept() const { return direct_ || is_pipe_ || tally_.counts().frames > 0; }
    Output& output() { return direct_ ? *direct_ : whole_->output(); }

    bool is_pipe_;
    std::optional<Output> direct_;
    std::optional<WholeOutput> whole_;
    std::optional<Unpacking> unpacking_;
    uint64_t delivered_ = 0;  // bytes of stream
    MediaTally tally_;
};

// Delivers every chunk; returns the status that ended the stream.
int32_t deliver(Player& player, kst_host* host, const std::string& input, StreamOutput& output) {
    std::vector<uint8_t> buffer(KST_LARGEST_CHUNK);
    Progress progress;
    for (;;) {
        const bool complete = kst_host_is_complete(host) != 0;
        uint32_t size = 0;
        const int32_t status = player.read(buffer, size, kst_host_is_arriving(host) != 0);
        output.take({buffer.data(), size});
        progress.show(host, output.delivered());
        if (status == KST_SUCCESS) continue;
        if (!player.may_arrive(status, size) || complete || kst_host_failed(host) != 0) {
            if (status != KST_END_OF_FILE) {
                size = player.rest(buffer, kst_host_is_arriving(host) != 0);
                output.take({buffer.data(), size});
            }
            return status;
        }
        output.flush();  // a reader gets the bytes at once
        if (input == "-") progress.show_waiting(host, output.delivered());
        if (kst_host_wait(host) == KST_HOST_FAULT) throw input_error(input);
    }
}

void extract_from(kst_host* host, const Options& options) {
    uint32_t first_frame = 1;
    std::unique_ptr<Player> player = open_player(host, options, first_frame);
    // Made only now, so that a file that cannot be opened leaves no output.
    StreamOutput output(options);
    const int32_t status = deliver(*player, host, options.input, output);
    player.reset();
    output.finish();
    if (errno = kst_host_failed(host); errno != 0)
        throw Error(system_error(options.input).what() + output.what_is_kept());
    const std::optional<Error> lacks =
        play_error(host, options.input, options.api, kind_of(options.mode),
                   {status, output.delivered(), output.counts(), first_frame});
    if (lacks) throw Error(lacks->what() + output.what_is_kept(), lacks->exit_code);
    output.require_all(options.input);
}

void extract(const Options& options) {
    if (options.track) {
        TrackChoice file(options.input, *options.track, kind_of(options.mode));
        extract_from(file.host(), options);
    } else {
        extract_from(open_host(options.input, options.arriving).get(), options);
    }
}

void add_api_options(CLI::App* command, const std::shared_ptr<Options>& options) {
    add_choice<Api>(command, "--api", options->api,
                    {{"function", Api::kFunction}, {"class", Api::kClass}},
                    "The library's API: function (kst_Open) or class (C3gpInterface)")
        ->default_str("function");
    CLI::Option* from =
        command->add_option("--from", options->from_ms,
                            "With --api class: begin at the sync sample near MS milliseconds, and "
                            "print which one it is");
    from->type_name("MS")->transform(as_decimal);
    add_choice<Sync>(
        command, "--sync", options->sync,
        {{"next", Sync::kNext}, {"previous", Sync::kPrevious}, {"nearest", Sync::kNearest}},
        "Which sync sample is near MS: next is the one at or after the sample in whose decoding "
        "time MS lies, or else the last one, previous the one at or before it; nearest is, despite "
        "its name, the farther of these two (the platform's rule). The time that is printed is "
        "rounded down")
        ->default_str("previous")
        ->needs(from);
}

}  // namespace

void add_extract(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("extract", "Write one track of a 3GP file as a native stream");
    add_input(command, "FILE", options->input,
              "3GP file; - reads standard input as it arrives, without waiting for its end");
    command->add_option("MODE", options->mode, "What to play: ar for audio, vr for video")
        ->required();
    add_output(command, "-o,--output", options->output, "Where to write; - is standard output")
        ->capture_default_str();
    command
        ->add_option("--arriving", options->arriving,
                     "Serve FILE as if N more bytes arrived before each retry")
        ->type_name("N")
        ->transform(as_decimal)
        ->check(CLI::Range(uint32_t{1}, UINT32_MAX));
    command
        ->add_option("--track", options->track,
                     "Play the track with this ID, where the file has several of the medium")
        ->type_name("ID")
        ->transform(as_decimal);
    command->add_flag("--unpack", options->unpack,
                      "Write the media instead of the stream: .amr, .h263, .m4v or .h264");
    add_api_options(command, options);
    command->callback([options] {
        if (options->track && (options->arriving || options->input == "-")) {
            throw Error("--track needs a file that is there as a whole", kWrongUsage);
        }
        if (options->arriving && options->input == "-") {
            throw Error("--arriving needs a file; standard input arrives by itself", kWrongUsage);
        }
        if (options->from_ms && options->api != Api::kClass) {
            throw Error("--from needs --api class; the function API cannot seek", kWrongUsage);
        }
        refuse_terminal(options->output);
        extract(*options);
    });
}

}  // namespace tool
