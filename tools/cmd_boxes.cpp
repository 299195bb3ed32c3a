#include <cstring>

#include "boxes/field_visitor.h"
#include "boxes/simple3gp.h"
#include "common/simple_exception.h"
#include "tools/commands.h"
#include "tools/json.h"
#include "tools/support.h"

// The box tree of a file as the object model sees it.

namespace tool {
namespace {

using Qvox3gp::Box;
using Qvox3gp::ChildPlace;

constexpr size_t kMostShownBytes = 64;  // of a run of bytes, in the printed tree

struct Options {
    std::string input;
    bool json = false;
};

// Gathers the fields of one box into a JSON object; lists become arrays.
class FieldCollector final : public Qvox3gp::FieldVisitor {
  public:
    FieldCollector() { open_.push_back(Json::object()); }

    Json take() { return std::move(open_.front()); }

    void number(std::string_view name, int64_t value) override { put(name, value); }
    void code(std::string_view name, std::string_view four) override { put(name, printable(four)); }
    void bytes(std::string_view name, std::span<const uint8_t> data) override {
        put(name, hex(data));
    }
    void begin_list(std::string_view name) override { open(name, Json::array()); }
    void end_list() override { close(); }
    void begin_record() override { open("", Json::object()); }
    void end_record() override { close(); }

  private:
    void put(std::string_view name, Json value) {
        if (open_.back().is_array()) {
            open_.back().push_back(std::move(value));
        } else {
            open_.back()[std::string(name)] = std::move(value);
        }
    }
    void open(std::string_view name, Json empty) {
        names_.emplace_back(name);
        open_.push_back(std::move(empty));
    }
    void close() {
        Json done = std::move(open_.back());
        open_.pop_back();
        const std::string name = names_.back();
        names_.pop_back();
        put(name, std::move(done));
    }

    std::vector<Json> open_;
    std::vector<std::string> names_;
};

// The type's bytes in memory spell the code.
std::string type_of(const Box& box) {
    const unsigned type = box.GetType();
    char code[4];
    std::memcpy(code, &type, sizeof code);
    return printable({code, sizeof code});
}

Json describe(const ChildPlace& place) {
    FieldCollector fields;
    visit_fields(*place.box, fields);
    Json out{{"type", type_of(*place.box)}, {"offset", place.offset}, {"size", place.size}};
    Json values = fields.take();
    if (!values.empty()) out["fields"] = std::move(values);
    Json children = Json::array();
    visit_children(*place.box,
                   [&](const ChildPlace& child) { children.push_back(describe(child)); });
    if (!children.empty()) out["children"] = std::move(children);
    return out;
}

std::string shorten(const Json& value) {
    if (value.is_array()) return std::to_string(value.size()) + " entries";
    if (!value.is_string()) return value.dump();
    const auto text = value.get<std::string>();
    return text.size() <= kMostShownBytes ? text : text.substr(0, kMostShownBytes) + "...";
}

void print(const Json& box, int depth) {
    std::printf("%10lld %10u  %*s%s", static_cast<long long>(box["offset"].get<int64_t>()),
                box["size"].get<uint32_t>(), 2 * depth, "", box["type"].get<std::string>().c_str());
    if (box.contains("fields")) {
        for (const auto& [name, value] : box["fields"].items())
            std::printf(" %s=%s", name.c_str(), shorten(value).c_str());
    }
    std::printf("\n");
    if (!box.contains("children")) return;
    for (const Json& child : box["children"])
        print(child, depth + 1);
}

void boxes(const Options& options) {
    Host host = open_host(options.input);
    int waited = KST_HOST_MORE;
    while (waited == KST_HOST_MORE)
        waited = kst_host_wait(host.get());
    if (waited == KST_HOST_FAULT) throw system_error(options.input);
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = kst_host_callbacks(host.get());
    Qvox3gp::Simple3gp file;
    std::string failure;
    try {
        file.Read(callbacks, 0);
    } catch (const SimpleException& caught) {
        failure = caught.message();  // what was read before is shown all the same
    }
    Json all = Json::array();
    visit_children(file, [&](const ChildPlace& place) { all.push_back(describe(place)); });
    if (options.json) {
        std::printf("%s\n", json_text(all).c_str());
    } else {
        std::printf("%10s %10s  box\n", "offset", "size");
        for (const Json& box : all)
            print(box, 0);
    }
    if (failure.empty()) return;
    finish_standard_output();
    throw Error(options.input + ": " + failure);
}

}  // namespace

void add_boxes(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "boxes", "Show the box tree: offset and size of each box, and the fields of those known");
    command->add_option("FILE", options->input, "3GP file; - is standard input")->required();
    command->add_flag("--json", options->json, "Print JSON, with all list entries");
    command->callback([options] { boxes(*options); });
}

}  // namespace tool
