// SPDX-License-Identifier: Apache-2.0
#include "tools/native_file.h"

namespace tool {

using kestrel::stream::Damage;

template <typename Step>
void StreamCheck::check(Step step) {
    if (walked_.damage) return;
    try {
        step();
    } catch (const Damage& damage) {
        walked_.damage = damage;
    }
}

void StreamCheck::feed(std::span<const uint8_t> piece) {
    walked_.bytes += piece.size();
    check([&] { walk_.feed(piece); });
}

void StreamCheck::finish(const std::string& path) {
    check([&] { walk_.finish(); });
    check([&] {
        const std::string fault = extent_.fault();
        walked_.is_fault = !fault.empty();
        if (walked_.is_fault) throw Damage{walked_.bytes, fault};
        if (const std::string doubt = extent_.doubt(); !doubt.empty())
            say(input_name(path) + ": " + doubt);
    });
    walked_.lacks = lacks_text(extent_.missing(), extent_.malformed(),
                               extent_.numbers_frames() ? "frame" : "packet");
}

std::string lacks_text(uint64_t missing, uint64_t malformed, const char* unit) {
    std::string out = missing > 0 ? counted_with(missing, unit, "missing") : "";
    if (malformed > 0)
        out += (out.empty() ? "" : ", ") + counted_with(malformed, unit, "malformed");
    return out;
}

WalkedFile walk_file(const std::string& path, kestrel::stream::RecordSink& sink) {
    StreamCheck check(sink);
    Progress progress(Progress::Beside::kLines);
    if (path == "-") progress.await_input();
    read_pieces(path, [&](auto piece) {
        if (check.walked().bytes == 0) progress.clear();
        progress.show_bytes(check.walked().bytes + piece.size(), "read");
        check.feed(piece);
    });
    progress.clear();
    check.finish(path);
    return check.walked();
}

Error damage_error(const std::string& file, const Damage& damage, const std::string& more) {
    if (damage.reason == kestrel::stream::kIs3gpText) return file_error(file, damage.reason);
    return file_error(file, "damaged from byte " + std::to_string(damage.offset) +
                                " on: " + damage.reason + more);
}

Error damage_error(const std::string& file, const WalkedFile& walked, const std::string& more) {
    return walked.is_fault ? file_error(file, walked.damage->reason + more)
                           : damage_error(file, *walked.damage, more);
}

}  // namespace tool
