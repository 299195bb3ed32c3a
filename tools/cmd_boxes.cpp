// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstring>

#include "boxes/field_visitor.h"
#include "boxes/simple3gp.h"
#include "common/simple_exception.h"
#include "companion/probe/reasons.h"
#include "tools/commands.h"
#include "tools/field_reading.h"
#include "tools/fragment_boxes.h"
#include "tools/json_printer.h"
#include "tools/judge/facts.h"
#include "tools/support.h"

// The box tree of a file as the object model sees it.

namespace tool {
namespace {

using Qvox3gp::Box;
using Qvox3gp::ChildPlace;

constexpr size_t kMaxShownBytes = 32;  // of a run of bytes, in the printed tree

struct Options {
    std::string input;
    std::string path;  // types joined by slashes; empty for all boxes
    bool json = false;
};

// The type's bytes in memory spell the code.
std::string type_of(const Box& box) {
    const unsigned type = box.GetType();
    char code[4];
    std::memcpy(code, &type, sizeof code);
    return {code, sizeof code};
}

// A box of the object model, or one of a movie fragment, which is read when it is shown.
class ShownBox {
  public:
    ShownBox(KST_IOSTREAM_CALLBACK_INTERFACE* stream, const ChildPlace& place)
        : stream_(stream),
          type_(type_of(*place.box)),
          offset_(place.offset),
          size_(place.size),
          opens_(has_fragment_boxes(type_)),
          box_(place.box) {}
    ShownBox(KST_IOSTREAM_CALLBACK_INTERFACE* stream, const FragmentBox& fragment, bool opens)
        : stream_(stream),
          type_(fragment.type),
          offset_(static_cast<int64_t>(fragment.offset)),
          size_(fragment.size),
          opens_(opens),
          fragment_(&fragment) {}

    const std::string& type() const { return type_; }
    int64_t offset() const { return offset_; }
    uint32_t size() const { return size_; }

    void visit_fields(Qvox3gp::FieldVisitor& visitor) const {
        if (box_ != nullptr) {
            Qvox3gp::visit_fields(*box_, visitor);
        } else {
            for (const FragmentBox::Field& field : fragment_->fields)
                visitor.number(field.name, field.value);
        }
        if (offset_ >= 0)
            visit_entries(stream_, type_, static_cast<uint64_t>(offset_), size_, visitor);
    }

    template <typename Visit>
    void visit_children(Visit visit) const {
        if (box_ != nullptr) {
            Qvox3gp::visit_children(
                *box_, [&](const ChildPlace& place) { visit(ShownBox(stream_, place)); });
        }
        if (!opens_ || offset_ < 0) return;
        visit_fragment_boxes(
            stream_, static_cast<uint64_t>(offset_), size_, [&](const FragmentBox& child) {
                visit(ShownBox(stream_, child, child.is_container() && !fragment_));
            });
    }

  private:
    KST_IOSTREAM_CALLBACK_INTERFACE* stream_;
    std::string type_;
    int64_t offset_;
    uint32_t size_;
    bool opens_;  // its contents are fragment boxes
    const Box* box_ = nullptr;
    const FragmentBox* fragment_ = nullptr;
};

// --- a line for each box ---

// Prints the fields of a box after its type: a list by its length.
class FieldLine final : public Qvox3gp::FieldVisitor {
  public:
    FieldLine(FieldReading& reading, std::string_view type, Progress& progress)
        : reading_(reading), type_(type), progress_(progress) {
        reading_.begin_box(type);
    }

    void number(std::string_view name, int64_t value) override {
        if (!take(name)) return;
        const std::string read = reading_.of(name, value);
        if (read.empty()) {
            std::printf("%lld", static_cast<long long>(without_reserved_bits(type_, name, value)));
        } else {
            std::printf("%s", read.c_str());
        }
    }
    void code(std::string_view name, std::string_view four) override {
        if (take(name)) std::printf("%s", printable(four).c_str());
    }
    void bytes(std::string_view name, std::span<const uint8_t> data) override {
        if (!take(name)) return;
        const bool all = data.size() <= kMaxShownBytes;
        std::printf("%s%s", hex(all ? data : data.first(kMaxShownBytes)).c_str(), all ? "" : "...");
    }
    void begin_list(std::string_view name) override {
        if (take(name)) entries_ = 0;
        ++depth_;
    }
    void end_list() override {
        if (--depth_ == 0) std::printf("%zu entries", entries_);
    }
    void begin_record() override {
        take("");
        ++depth_;
    }
    void end_record() override { --depth_; }

  private:
    // Prints the name of a field of the box itself; counts the entries of a list of it.
    bool take(std::string_view name) {
        progress_.show_time();
        entries_ += depth_ == 1 ? 1 : 0;
        if (depth_ > 0) return false;
        std::printf(" %.*s=", static_cast<int>(name.size()), name.data());
        return true;
    }

    FieldReading& reading_;
    std::string_view type_;
    Progress& progress_;
    int depth_ = 0;
    size_t entries_ = 0;
};

void print_line(FieldReading& reading, Progress& progress, const ShownBox& box, int depth) {
    std::printf("%10lld %10u  %*s%s", static_cast<long long>(box.offset()), box.size(), 2 * depth,
                "", printable(box.type()).c_str());
    FieldLine fields(reading, box.type(), progress);
    box.visit_fields(fields);
    std::printf("\n");
    box.visit_children(
        [&](const ShownBox& child) { print_line(reading, progress, child, depth + 1); });
}

// --- JSON ---

// Prints the fields of a box as an object, if it has any; lists become arrays.
class FieldObject final : public Qvox3gp::FieldVisitor {
  public:
    FieldObject(JsonPrinter& out, std::string_view type) : out_(out), type_(type) {}
    ~FieldObject() override {
        if (any_) out_.close();
    }

    void number(std::string_view name, int64_t value) override {
        begin();
        out_.number(name, without_reserved_bits(type_, name, value));
    }
    void code(std::string_view name, std::string_view four) override {
        begin();
        out_.text(name, printable(four));
    }
    void bytes(std::string_view name, std::span<const uint8_t> data) override {
        begin();
        out_.text(name, hex(data));
    }
    void begin_list(std::string_view name) override { open(name, '['); }
    void end_list() override { out_.close(); }
    void begin_record() override { open("", '{'); }
    void end_record() override { out_.close(); }

  private:
    void begin() {
        if (!any_) out_.open("fields", '{');
        any_ = true;
    }
    void open(std::string_view name, char bracket) {
        begin();
        out_.open(name, bracket);
    }

    JsonPrinter& out_;
    std::string_view type_;
    bool any_ = false;
};

void print_json(JsonPrinter& out, const ShownBox& box) {
    out.open("", '{');
    out.text("type", printable(box.type()));
    out.number("offset", box.offset());
    out.number("size", box.size());
    {
        FieldObject fields(out, box.type());
        box.visit_fields(fields);
    }
    bool any = false;
    box.visit_children([&](const ShownBox& child) {
        if (!any) out.open("children", '[');
        any = true;
        print_json(out, child);
    });
    if (any) out.close();
    out.close();
}

// --- which boxes ---

std::vector<std::string> types_in(const std::string& path) {
    std::vector<std::string> types;
    for (size_t from = 0; from <= path.size();) {
        const size_t to = std::min(path.find('/', from), path.size());
        types.push_back(path.substr(from, to - from));
        from = to + 1;
    }
    return types;
}

// Shows the boxes that a path leads to, each with all in it. Of no path, all boxes.
template <typename Show>
class PathWalk {
  public:
    PathWalk(const std::string& path, Show show)
        : types_(path.empty() ? std::vector<std::string>() : types_in(path)), show_(show) {}

    void visit(const ShownBox& box, size_t depth = 0) {
        if (!types_.empty() && box.type() != types_[depth]) return;
        if (depth + 1 >= types_.size()) {
            ++shown_;
            return show_(box);
        }
        box.visit_children([&](const ShownBox& child) { visit(child, depth + 1); });
    }
    size_t shown() const { return shown_; }

  private:
    std::vector<std::string> types_;
    Show show_;
    size_t shown_ = 0;
};

// Returns how many boxes were shown.
template <typename Show>
size_t show_boxes(const Options& options, KST_IOSTREAM_CALLBACK_INTERFACE* stream, const Box& file,
                  Show show) {
    PathWalk walk(options.path, show);
    Qvox3gp::visit_children(file,
                            [&](const ChildPlace& place) { walk.visit(ShownBox(stream, place)); });
    return walk.shown();
}

size_t show_json(const Options& options, KST_IOSTREAM_CALLBACK_INTERFACE* stream, const Box& file) {
    JsonPrinter out;
    bool any = false;
    const size_t shown = show_boxes(options, stream, file, [&](const ShownBox& box) {
        if (!any) out.open("", '[');
        any = true;
        print_json(out, box);
    });
    if (!any) return shown;
    out.close();
    std::printf("\n");
    return shown;
}

size_t show_lines(const Options& options, KST_IOSTREAM_CALLBACK_INTERFACE* stream,
                  const Box& file) {
    FieldReading reading;
    Progress progress(Progress::Beside::kLines);
    bool any = false;
    return show_boxes(options, stream, file, [&](const ShownBox& box) {
        if (!any) std::printf("%10s %10s  box\n", "offset", "size");
        any = true;
        print_line(reading, progress, box, 0);
    });
}

void boxes(const Options& options) {
    Host host;
    or_error_as_json(options.json, [&] { host = open_host(options.input); });
    wait_for_all(host.get());
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = kst_host_callbacks(host.get());
    Qvox3gp::Simple3gp file;
    std::string failure;
    unsigned int remarks = 0;
    const kestrel::RemarkScope scope(remarks);
    try {
        file.Read(callbacks, 0);
    } catch (const SimpleException& caught) {
        failure = caught.message();  // what was read before is shown all the same
    }
    const auto scan = kestrel::probe::scan_file(callbacks);
    if (!failure.empty() && !scan.is_3gp() && scan.fragments == 0) {
        const Error error = no_media_file(options.input, scan.file_size);
        if (options.json) print_error_as_json(error);
        throw error;
    }
    if (!failure.empty() && scan.cut_box)
        failure = "the file is cut: " + kestrel::probe::missing_bytes(scan) + " (" + failure + ")";
    const size_t shown =
        options.json ? show_json(options, callbacks, file) : show_lines(options, callbacks, file);
    finish_standard_output();
    if (shown > 0 && failure.empty()) return;
    const Error error =
        file_error(options.input, !failure.empty()        ? failure
                                  : !options.path.empty() ? "has no box " + options.path
                                                          : "has no boxes");
    if (shown == 0 && options.json) print_error_as_json(error);
    throw error;
}

}  // namespace

void add_boxes(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "boxes", "Show the box tree: offset and size of each box, and the fields of known boxes");
    add_input(command, "FILE", options->input, "3GP file; - is standard input");
    command
        ->add_option("--path", options->path,
                     "Only the boxes at this path, with all in them: moov/trak/mdia")
        ->type_name("TYPE/TYPE...");
    command->add_flag("--json", options->json, "Print JSON, with all list entries");
    command->callback([options] { boxes(*options); });
}

}  // namespace tool
