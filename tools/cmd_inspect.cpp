#include "companion/stream/native_walk.h"
#include "tools/commands.h"
#include "tools/json.h"
#include "tools/support.h"

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

class JsonSink final : public stream::RecordSink {
  public:
    void record(const stream::StreamRecord& record) override {
        Json fields = Json::object();
        for (const stream::Field& field : record.fields)
            fields[field.name] = std::visit(AsJson{}, field.value);
        Json out{{"offset", record.offset}, {"record", record.name}, {"fields", fields}};
        if (!record.payload.empty()) out["payload"] = hex(record.payload);
        records.push_back(std::move(out));
    }

    Json records = Json::array();
};

template <typename Step>
std::optional<stream::Damage> damage_in(Step step) {
    try {
        step();
        return std::nullopt;
    } catch (const stream::Damage& damage) {
        return damage;
    }
}

void inspect(const Options& options) {
    TextSink text;
    JsonSink json;
    stream::NativeWalk walk(options.json ? static_cast<stream::RecordSink&>(json) : text);
    std::optional<stream::Damage> damage;
    uint64_t bytes = 0;
    read_pieces(options.input, [&](auto piece) {
        bytes += piece.size();
        if (!damage) damage = damage_in([&] { walk.feed(piece); });
    });
    if (!damage) damage = damage_in([&] { walk.finish(); });
    if (options.json) {
        Json out{{"bytes", bytes}, {"records", std::move(json.records)}};
        if (damage) out["damage"] = {{"offset", damage->offset}, {"reason", damage->reason}};
        std::printf("%s\n", json_text(out).c_str());
    }
    if (damage) {
        finish_standard_output();
        throw Error(options.input + ": damaged from byte " + std::to_string(damage->offset) +
                    " on: " + damage->reason);
    }
}

}  // namespace

void add_inspect(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "inspect", "Walk a native stream record by record, and report where it is damaged");
    command->add_option("STREAM", options->input, "Native stream; - is standard input")->required();
    command->add_flag("--json", options->json, "Print JSON");
    command->callback([options] { inspect(*options); });
}

}  // namespace tool
