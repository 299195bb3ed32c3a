// SPDX-License-Identifier: Apache-2.0
#include "tools/messages.h"

#include <algorithm>
#include <cstdlib>
#include <new>

#include "tools/text.h"

namespace tool {
namespace {

constexpr size_t kLongestRemark = 255;
constexpr size_t kMaxKept = 8;

// What is known of the library's remarks. Never destroyed: the library may write until the very
// end of the process.
struct Remarks {
    std::FILE* errors = stderr;  // of the system
    bool shown = false;
    bool exit_expected = true;
    std::string file;
    std::string line;  // as far as it has come; of a longer one the beginning
    std::string last;
    std::vector<std::string>* kept = nullptr;
};

Remarks& remarks() {
    static Remarks& all = *new Remarks;
    return all;
}

void print_line(std::string_view text) {
    std::fprintf(remarks().errors, "kestrel: %s\n", printable(text).c_str());
}

void print_remark(const Remarks& all, const std::string& text) {
    print_line(all.file.empty() ? text : all.file + ": " + text);
}

void take_line(Remarks& all) {
    while (!all.line.empty() && all.line.back() == ' ')
        all.line.pop_back();
    all.last = std::move(all.line);
    all.line.clear();
    if (all.kept != nullptr) {
        std::vector<std::string>& kept = *all.kept;
        const bool is_new = std::find(kept.begin(), kept.end(), all.last) == kept.end();
        if (is_new && kept.size() < kMaxKept) kept.push_back(all.last);
    }
    if (all.shown) print_remark(all, all.last);
}

// Takes what is written to `stderr`.
ssize_t take_text(void*, const char* text, size_t count) {
    try {
        Remarks& all = remarks();
        for (const char c : std::string_view(text, count)) {
            if (c == '\n') {
                take_line(all);
            } else if (all.line.size() < kLongestRemark) {
                all.line += c;
            }
        }
    } catch (const std::bad_alloc&) {  // a remark is lost
    }
    return static_cast<ssize_t>(count);
}

extern "C" void explain_exit() {
    const Remarks& all = remarks();
    std::fflush(stderr);
    if (!all.exit_expected && !all.last.empty()) print_remark(all, all.last);
}

}  // namespace

void say(std::string_view text) {
    print_line(text);
}

std::FILE* error_stream() {
    return remarks().errors;
}

void take_over_remarks() {
    Remarks& all = remarks();
    std::FILE* taken = fopencookie(nullptr, "w", {nullptr, take_text, nullptr, nullptr});
    if (taken == nullptr) return;  // remarks stay what they are
    std::setvbuf(taken, nullptr, _IOLBF, BUFSIZ);
    all.exit_expected = false;
    std::atexit(explain_exit);
    stderr = taken;
}

void show_remarks() {
    remarks().shown = true;
}

void set_remark_file(const std::string& name) {
    remarks().file = name;
}

const std::string& remark_file() {
    return remarks().file;
}

void expect_exit() {
    remarks().exit_expected = true;
}

ErrorCapture::ErrorCapture() {
    std::fflush(stderr);
    remarks().kept = &kept_;
}

ErrorCapture::~ErrorCapture() {
    end();
}

std::vector<std::string> ErrorCapture::lines() {
    end();
    return kept_;
}

void ErrorCapture::end() {
    if (remarks().kept != &kept_) return;
    std::fflush(stderr);
    remarks().kept = nullptr;
}

}  // namespace tool
