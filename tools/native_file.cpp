// SPDX-License-Identifier: Apache-2.0
#include "tools/native_file.h"

#include "companion/stream/declared_extent.h"

namespace tool {

using kestrel::stream::Damage;

namespace {

template <typename Step>
std::optional<Damage> damage_in(Step step) {
    try {
        step();
        return std::nullopt;
    } catch (const Damage& damage) {
        return damage;
    }
}

}  // namespace

WalkedFile walk_file(const std::string& path, kestrel::stream::RecordSink& sink) {
    WalkedFile walked;
    kestrel::stream::DeclaredExtent extent(sink);
    kestrel::stream::NativeWalk walk(extent);
    Progress progress(Progress::Beside::kLines);
    if (path == "-") progress.await_input();
    read_pieces(path, [&](auto piece) {
        if (walked.bytes == 0) progress.clear();
        walked.bytes += piece.size();
        progress.show_bytes(walked.bytes, "read");
        if (!walked.damage) walked.damage = damage_in([&] { walk.feed(piece); });
    });
    if (walked.damage) return walked;
    walked.damage = damage_in([&] {
        walk.finish();
        extent.require_all(walk.bytes());
    });
    return walked;
}

Error damage_error(const std::string& file, const Damage& damage, const std::string& more) {
    if (damage.reason == kestrel::stream::kIs3gpText) return file_error(file, damage.reason);
    return file_error(file, "damaged from byte " + std::to_string(damage.offset) +
                                " on: " + damage.reason + more);
}

}  // namespace tool
