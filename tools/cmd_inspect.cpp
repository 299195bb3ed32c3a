// SPDX-License-Identifier: Apache-2.0
#include <map>

#include "native/codec/amr_format.h"
#include "tools/commands.h"
#include "tools/json.h"
#include "tools/native_file.h"
#include "tools/report/markup.h"

namespace tool {
namespace {

namespace stream = kestrel::stream;

struct Options {
    std::string input;
    bool json = false;
};

struct AsText {
    std::string operator()(uint32_t number) const { return std::to_string(number); }
    // Zeros at the end are counted, where they are many.
    std::string operator()(std::span<const uint8_t> bytes) const {
        constexpr size_t kMany = 8;
        size_t end = bytes.size();
        while (end > 0 && bytes[end - 1] == 0)
            --end;
        const size_t zeros = bytes.size() - end;
        if (zeros < kMany) return hex(bytes);
        return hex(bytes.first(end)) + (end > 0 ? " and " : "") + std::to_string(zeros) + " zeros";
    }
    std::string operator()(const std::string& text) const {
        return "\"" + printable(text.substr(0, text.find('\0'))) + "\"";
    }
};

struct AsJson {
    Json operator()(uint32_t number) const { return number; }
    Json operator()(std::span<const uint8_t> bytes) const { return hex(bytes); }
    Json operator()(const std::string& text) const { return text.substr(0, text.find('\0')); }
};

// The meaning of a code number (docs/native-format.md); empty for none.
std::string meaning(const stream::StreamRecord& record, const std::string& field, uint32_t value) {
    static const std::map<std::pair<std::string, uint32_t>, const char*> kCodes = {
        {{"coding", std::rbegin(kestrel::kNarrowBandModes)->native_coding},
         "AMR-NB, up to 12.2 kbit/s"},
        {{"coding", kestrel::kWideBandCoding}, "AMR-WB"},
        {{"sampling_rate", 48}, "6000 Hz"},
        {{"sampling_rate", 64}, "8000 Hz"},
        {{"sampling_rate", 88}, "11000 Hz"},
        {{"sampling_rate", 128}, "16000 Hz"},
        {{"coder", kestrel::kNarrowBand.native_coder}, "AMR-NB"},
        {{"coder", kestrel::kWideBand.native_coder}, "AMR-WB"}};
    const auto found = kCodes.find({field, value});
    if (found != kCodes.end()) return found->second;
    for (const kestrel::NarrowBandMode& mode : kestrel::kNarrowBandModes) {
        if (field == "coding" && value == mode.native_coding)
            return format("%g kbit/s", mode.bits_per_second / 1000.0);
    }
    const bool is_h264 = record.name == "VID_Header_H264CodecConfig";
    if (is_h264 && field == "level") return format("%.1f", value / 10.0);
    if (field == "duration_ms") return format("%.3f s", value / 1000.0);
    return "";
}

class TextSink final : public stream::RecordSink {
  public:
    void record(const stream::StreamRecord& record) override {
        std::printf("%8llu  %-20s", static_cast<unsigned long long>(record.offset),
                    record.name.c_str());
        for (const stream::Field& field : record.fields) {
            std::printf(" %s %s", field.name.c_str(), std::visit(AsText{}, field.value).c_str());
            const auto* number = std::get_if<uint32_t>(&field.value);
            if (number == nullptr) continue;
            const std::string more = meaning(record, field.name, *number);
            if (!more.empty()) std::printf(" (%s)", more.c_str());
        }
        if (!record.payload.empty()) std::printf(" payload %zu bytes", record.payload.size());
        std::printf("\n");
    }
};

// Prints the records one by one: a stream may be larger than the memory.
class JsonSink final : public stream::RecordSink {
  public:
    void record(const stream::StreamRecord& record) override {
        Json fields = Json::object();
        for (const stream::Field& field : record.fields)
            fields[field.name] = std::visit(AsJson{}, field.value);
        Json out{{"offset", record.offset}, {"record", record.name}, {"fields", fields}};
        if (!record.payload.empty()) out["payload"] = hex(record.payload);
        std::printf("%s\n    %s", any_ ? "," : kBeginning, json_text(out, 4).c_str());
        any_ = true;
    }

    bool any() const { return any_; }

    void finish(uint64_t bytes, std::optional<stream::Damage> damage,
                const std::string& lacks) const {
        if (!damage && !lacks.empty()) damage = {bytes, lacks};
        std::printf("%s],\n  \"bytes\": %llu", any_ ? "\n  " : kBeginning,
                    static_cast<unsigned long long>(bytes));
        if (damage) {
            const Json about{{"offset", damage->offset}, {"reason", damage->reason}};
            std::printf(",\n  \"damage\": %s", json_text(about, 2).c_str());
        }
        std::printf("\n}\n");
    }

  private:
    static constexpr char kBeginning[] = "{\n  \"records\": [";

    bool any_ = false;
};

void inspect(const Options& options) {
    WalkedFile walked;
    if (options.json) {
        JsonSink sink;
        try {
            walked = walk_file(options.input, sink);
        } catch (const Error& error) {
            if (!sink.any()) print_error_as_json(error);
            throw;
        }
        sink.finish(walked.bytes, walked.damage, walked.lacks);
    } else {
        TextSink sink;
        walked = walk_file(options.input, sink);
    }
    finish_standard_output();
    if (walked.damage) throw damage_error(options.input, walked);
    if (!walked.lacks.empty()) throw file_error(options.input, walked.lacks);
}

}  // namespace

void add_inspect(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "inspect", "Show a native stream record by record, and where it is malformed");
    add_input(command, "STREAM", options->input, "Native stream; - is standard input");
    command->add_flag("--json", options->json, "Print JSON");
    command->callback([options] { inspect(*options); });
}

}  // namespace tool
