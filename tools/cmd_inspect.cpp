// SPDX-License-Identifier: Apache-2.0
#include "tools/commands.h"
#include "tools/json.h"
#include "tools/native_file.h"

namespace tool {
namespace {

namespace stream = kestrel::stream;

struct Options {
    std::string input;
    bool json = false;
};

struct AsText {
    std::string operator()(uint32_t number) const { return std::to_string(number); }
    std::string operator()(std::span<const uint8_t> bytes) const { return hex(bytes); }
    std::string operator()(const std::string& text) const {
        return "\"" + printable(text.substr(0, text.find('\0'))) + "\"";
    }
};

struct AsJson {
    Json operator()(uint32_t number) const { return number; }
    Json operator()(std::span<const uint8_t> bytes) const { return hex(bytes); }
    Json operator()(const std::string& text) const { return text.substr(0, text.find('\0')); }
};

class TextSink final : public stream::RecordSink {
  public:
    void record(const stream::StreamRecord& record) override {
        std::printf("%8llu  %-20s", static_cast<unsigned long long>(record.offset),
                    record.name.c_str());
        for (const stream::Field& field : record.fields)
            std::printf(" %s %s", field.name.c_str(), std::visit(AsText{}, field.value).c_str());
        if (!record.payload.empty()) std::printf(" payload %zu bytes", record.payload.size());
        std::printf("\n");
    }
};

// Prints the records as they come: a stream may be larger than the memory.
class JsonSink final : public stream::RecordSink {
  public:
    JsonSink() { std::printf("{\n  \"records\": ["); }

    void record(const stream::StreamRecord& record) override {
        Json fields = Json::object();
        for (const stream::Field& field : record.fields)
            fields[field.name] = std::visit(AsJson{}, field.value);
        Json out{{"offset", record.offset}, {"record", record.name}, {"fields", fields}};
        if (!record.payload.empty()) out["payload"] = hex(record.payload);
        std::printf("%s\n    %s", any_ ? "," : "", json_text(out, 4).c_str());
        any_ = true;
    }

    void finish(uint64_t bytes, const std::optional<stream::Damage>& damage) const {
        std::printf("%s],\n  \"bytes\": %llu", any_ ? "\n  " : "",
                    static_cast<unsigned long long>(bytes));
        if (damage) {
            const Json about{{"offset", damage->offset}, {"reason", damage->reason}};
            std::printf(",\n  \"damage\": %s", json_text(about, 2).c_str());
        }
        std::printf("\n}\n");
    }

  private:
    bool any_ = false;
};

void inspect(const Options& options) {
    WalkedFile walked;
    if (options.json) {
        JsonSink sink;
        walked = walk_file(options.input, sink);
        sink.finish(walked.bytes, walked.damage);
    } else {
        TextSink sink;
        walked = walk_file(options.input, sink);
    }
    if (!walked.damage) return;
    finish_standard_output();
    throw damage_error(options.input, *walked.damage);
}

}  // namespace

void add_inspect(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "inspect", "Show a native stream record by record, and where it is malformed");
    command->add_option("STREAM", options->input, "Native stream; - is standard input")->required();
    command->add_flag("--json", options->json, "Print JSON");
    command->callback([options] { inspect(*options); });
}

}  // namespace tool
