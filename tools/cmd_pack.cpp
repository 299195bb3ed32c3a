// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstring>

#include "kestrel/native_records.h"
#include "kestrel/packer.h"
#include "tools/commands.h"
#include "tools/native_file.h"
#include "tools/output_stream.h"
#include "tools/support.h"

// Native streams into a 3GP file: the calls of the companion library, from files to a file.

namespace tool {
namespace {

struct Options {
    std::string stream;
    std::string audio;
    std::string video;
    std::string output;
    bool hint = false;
};

struct PackerCloser {
    void operator()(kst_packer* packer) const { kst_packer_close(packer); }
};
using Packer = std::unique_ptr<kst_packer, PackerCloser>;

// A stream that is packed.
struct Input {
    std::string path;
    int medium;  // that it must be, or KST_PACK_UNKNOWN
    uint64_t bytes = 0;
    std::vector<uint8_t> front{};  // the first records

    // Whether its frames are packets or hold such: all but the speech of the function API.
    bool has_packets() const {
        kestrel::AUD_Codec_Header codec{};
        if (front.size() < kFrontBytes) return true;
        std::memcpy(&codec, &front[sizeof(kestrel::PROP_Header_Info)], sizeof codec);
        return codec.bits_per_sample == 0;
    }
    static constexpr size_t kFrontBytes =
        sizeof(kestrel::PROP_Header_Info) + sizeof(kestrel::AUD_Codec_Header);
};

std::vector<Input> inputs_of(const Options& options) {
    if (!options.stream.empty()) return {{options.stream, KST_PACK_UNKNOWN}};
    std::vector<Input> inputs;
    if (!options.video.empty()) inputs.push_back({options.video, KST_PACK_VIDEO});
    if (!options.audio.empty()) inputs.push_back({options.audio, KST_PACK_AUDIO});
    if (inputs.empty()) throw Error("pack needs a STREAM, or --audio or --video", kWrongUsage);
    if (inputs.size() == 2 && options.audio == "-" && options.video == "-") {
        throw Error("only one of --audio and --video can be standard input", kWrongUsage);
    }
    return inputs;
}

void require(int result, const Input& input) {
    if (result == KST_PACK_DONE || result == KST_PACK_CUT) return;
    if (result == KST_PACK_NO_MEMORY) throw std::bad_alloc();
    throw file_error(input.path, "the temporary file that it waits in could not be written");
}

kst_pack_stream describe(const kst_packer* packer, uint32_t stream) {
    kst_pack_stream about = {};
    about.struct_size = sizeof about;
    kst_packer_describe(packer, stream, &about);
    return about;
}

void feed(kst_packer* packer, uint32_t stream, Input& input) {
    require(kst_packer_feed(packer, stream, nullptr, 0), input);
    NoSink none;
    StreamCheck check(none);
    Progress progress;
    if (input.path == "-") progress.await_input();
    read_pieces(input.path, [&](auto piece) {
        check.feed(piece);
        input.bytes += piece.size();
        const auto wanted =
            piece.first(std::min(piece.size(), Input::kFrontBytes - input.front.size()));
        input.front.insert(input.front.end(), wanted.begin(), wanted.end());
        progress.show_bytes(input.bytes, "read");
        require(kst_packer_feed(packer, stream, piece.data(), piece.size()), input);
    });
    progress.clear();
    check.finish(input.path);
    const int medium = describe(packer, stream).medium;
    if (input.medium == KST_PACK_UNKNOWN || medium == KST_PACK_UNKNOWN) return;
    if (medium != input.medium) {
        throw file_error(input.path, medium == KST_PACK_VIDEO ? "this is a video stream"
                                                              : "this is an audio stream");
    }
}

// Returns what the file lacks of a stream; empty for nothing.
std::string lacks(const Input& input, const kst_pack_stream& about) {
    std::string out;
    if (about.damage[0] != '\0') {
        const uint64_t lost = input.bytes - about.damage_offset;
        const std::string packed = "; packed " + counted(about.samples, "sample");
        out = lost == 0 ? about.damage + packed
                        : "damaged from byte " + std::to_string(about.damage_offset) +
                              " on: " + about.damage + packed + " before it, left out " +
                              counted(lost, "byte");
    }
    const bool is_speech = about.medium == KST_PACK_AUDIO;
    const char* unit = is_speech && !input.has_packets() ? "frame" : "packet";
    const auto add = [&](uint64_t packets, const char* what) {
        if (packets == 0) return;
        out += (out.empty() ? "" : "; ") + counted(packets, unit) + what;
    };
    add(about.packets_missing, " missing");
    add(about.packets_left_out, " malformed and left out");
    return out;
}

[[noreturn]] void refuse(const Options& options, const std::vector<Input>& inputs, int result,
                         const kst_pack_report& report) {
    if (result == KST_PACK_NO_MEMORY) throw std::bad_alloc();
    const bool is_about_stream = report.stream >= 0;
    throw file_error(is_about_stream ? inputs[static_cast<size_t>(report.stream)].path
                                     : output_name(options.output),
                     report.error);
}

// Fails when the file has not got all of the streams.
void report_losses(const kst_packer* packer, const std::vector<Input>& inputs) {
    std::vector<std::pair<std::string, std::string>> losses;
    for (uint32_t i = 0; i < inputs.size(); ++i) {
        const std::string loss = lacks(inputs[i], describe(packer, i));
        if (!loss.empty()) losses.emplace_back(inputs[i].path, loss);
    }
    if (losses.empty()) return;
    for (size_t i = 0; i + 1 < losses.size(); ++i)
        say(losses[i].first + ": " + losses[i].second);
    throw file_error(losses.back().first, losses.back().second);
}

void pack(const Options& options) {
    std::vector<Input> inputs = inputs_of(options);
    for (const Input& input : inputs)
        refuse_input_as_output(options.output, input.path);
    kst_pack_options how = {};
    how.struct_size = sizeof how;
    how.flags = options.hint ? KST_PACK_HINT : 0;
    const Packer packer(kst_packer_open(&how));
    if (packer == nullptr) throw std::bad_alloc();
    for (uint32_t i = 0; i < inputs.size(); ++i)
        feed(packer.get(), i, inputs[i]);
    Progress progress;
    OutputStream output(options.output, inputs[0].path);
    output.show(progress);
    kst_pack_report report = {};
    report.struct_size = sizeof report;
    const int result = kst_packer_write(packer.get(), output.table(), &report);
    progress.clear();
    output.rethrow_failure();  // the system's error of a write
    if (result != KST_PACK_DONE && result != KST_PACK_CUT) {
        refuse(options, inputs, result, report);
    }
    output.finish();
    report_losses(packer.get(), inputs);
}

}  // namespace

void add_pack(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("pack", "Make a 3GP file of a native stream, or of one of each medium");
    CLI::Option* stream =
        command->add_option("STREAM", options->stream, "Native stream; - is standard input")
            ->check(refuse_empty_name);
    command->add_option("--audio", options->audio, "Audio stream, for a file with both media")
        ->type_name("STREAM")
        ->check(refuse_empty_name)
        ->excludes(stream);
    command->add_option("--video", options->video, "Video stream, for a file with both media")
        ->type_name("STREAM")
        ->check(refuse_empty_name)
        ->excludes(stream);
    add_output(command, "-o,--output", options->output, "Where to write; - is standard output")
        ->required();
    command->add_flag("--hint", options->hint,
                      "Add hint tracks with the RTP packets that the streams have");
    command->footer(
        "Of a stream that is damaged, cut, or shorter than it declares, what comes before is "
        "packed,\n"
        "and the command fails.");
    command->callback([options] { pack(*options); });
}

}  // namespace tool
