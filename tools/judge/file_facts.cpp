#include "tools/judge/file_facts.h"

#include "tools/messages.h"

namespace tool {

FileFacts gather_facts(kst_host* host) {
    FileFacts facts;
    facts.host = host;
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = nullptr;
    ErrorCapture capture;
    facts.file = open_iso(host, callbacks);
    facts.remarks = capture.lines();
    facts.scan = scan_file(callbacks);
    return facts;
}

bool may_lack_tracks(const FileFacts& facts) {
    return facts.scan.movie_is_cut || isoFFfileDetails(facts.file.get())->lost_tracks > 0;
}

Expected expected_of(const FileFacts& facts, const iso_track* track) {
    static_cast<void>(facts);
    const Declared tables = declared(track);
    return {tables.samples, tables.filled, tables.bytes, tables.largest, 0};
}

bool has_medium(const FileFacts& facts, MediaKind kind) {
    return has_medium(facts.file.get(), kind);
}

}  // namespace tool
