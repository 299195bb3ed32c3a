// SPDX-License-Identifier: Apache-2.0
// The media data box.
#ifndef KESTREL_BOXES_MDAT_BOX_H
#define KESTREL_BOXES_MDAT_BOX_H

#include <cstdint>
#include <memory>
#include <vector>

#include "boxes/box_base.h"

namespace Qvox3gp {

class CHintSample;

// The place of a written chunk: the file offset of its first byte, and its size in bytes.
class ChunkDef {
  public:
    ChunkDef() = default;
    ChunkDef(uint32_t at, uint32_t bytes) : offset(at), size(bytes) {}
    ChunkDef(const ChunkDef&) = default;
    ChunkDef& operator=(const ChunkDef&) = default;
    virtual ~ChunkDef() = default;

    uint32_t offset = 0;
    uint32_t size = 0;
};

// "mdat". Reading skips the media; Dump writes the header only. To write media: call Dump, AddChunk
// for each chunk, then Close; then patch the chunk tables from the lists of this box (Fixupable)
// and dump them again. Each chunk has one sample.
class MdatBox : public Described<MdatBox, Box> {
  public:
    MdatBox();
    ~MdatBox() override;

    // Writes the final size into the header and moves to the end of the media.
    virtual void Close(Stream& io);

    // Appends `size` bytes to the media, wherever the stream stands, and their place to `chunks`,
    // one of the lists below. Throws when the file would reach 4 GiB.
    virtual void AddChunk(Stream& io, std::vector<ChunkDef>& chunks, const void* data,
                          unsigned int size);

    // The same with the bytes of a hint sample.
    virtual void AddHintChunk(Stream& io, std::vector<ChunkDef>& chunks, const CHintSample* sample);

    std::vector<ChunkDef>& VideoChunks() { return chunks().video; }
    std::vector<ChunkDef>& VideoHintChunks() { return chunks().video_hint; }
    std::vector<ChunkDef>& AudioChunks() { return chunks().audio; }
    std::vector<ChunkDef>& AudioHintChunks() { return chunks().audio_hint; }

    static void fields(auto& f, auto& self);

  private:
    struct Chunks {
        std::vector<ChunkDef> video, video_hint, audio, audio_hint;
    };

    Chunks& chunks() {
        if (chunks_ == nullptr) chunks_ = std::make_unique<Chunks>();
        return *chunks_;
    }

    uint32_t written_ = 0;
    std::unique_ptr<Chunks> chunks_;  // null before one was asked for: a file has many boxes
};

}  // namespace Qvox3gp

#endif
