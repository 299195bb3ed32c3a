// SPDX-License-Identifier: Apache-2.0
#include "companion/importer/chunks.h"

namespace kestrel::importer {

bool ChunkWalk::open(const Track& track, const TrackImport& state) {
    if (!tables_.runs || !tables_.chunks) {
        return import_.fail(*tables_.sizes, "has samples for which there are no chunks");
    }
    if (!read_runs(track, state)) return false;
    rewind();
    return true;
}

bool ChunkWalk::read_runs(const Track& track, const TrackImport& state) {
    const Box& box = *tables_.runs;
    BoxReader reader(import_.source, box);
    const VersionAndFlags head(reader);
    for (std::uint32_t left = reader.u32(); left > 0 && !reader.failed(); --left) {
        Run run;
        run.first_chunk = reader.u32();
        run.samples = reader.u32();
        const std::uint32_t description = reader.u32();
        if (reader.failed()) break;
        const std::uint32_t before = runs_.empty() ? 0 : runs_.back().first_chunk;
        if (run.first_chunk <= before || (runs_.empty() && run.first_chunk != 1)) {
            return import_.fail(box, "has its chunks out of order");
        }
        if (!find_description(import_, box, description, track, state, run.description)) {
            return false;
        }
        runs_.push_back(run);
    }
    return import_.complete_table(reader, box);
}

void ChunkWalk::rewind() {
    reader_.emplace(import_.source, *tables_.chunks);
    const VersionAndFlags head(*reader_);
    count_ = reader_->u32();
    number_ = 0;
    run_ = 0;
}

bool ChunkWalk::next(Chunk& chunk) {
    if (number_ < count_ && !runs_.empty() && !reader_->failed()) {
        ++number_;
        while (run_ + 1 < runs_.size() && runs_[run_ + 1].first_chunk <= number_)
            ++run_;
        chunk = {reader_->u32_or_64(tables_.chunks->type == fourcc("co64")), runs_[run_].samples,
                 runs_[run_].description};
        if (!reader_->failed()) return true;
    }
    import_.whole(*reader_, *tables_.chunks);
    return false;
}

}  // namespace kestrel::importer
