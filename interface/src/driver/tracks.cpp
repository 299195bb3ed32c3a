// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cinttypes>
#include <new>
#include <stdexcept>

#include "boxes/sample_tables.h"
#include "boxes/simple3gp.h"
#include "boxes/stream_io.h"
#include "boxes/track_boxes.h"
#include "common/frame_limit.h"
#include "interface/src/driver/driver.h"

// Finding the tracks, and storing the tables that playing needs.

using namespace kestrel;
using Qvox3gp::code;

namespace {

// Requires a box, without which the file is corrupt.
template <class T>
T* require(T* box, unsigned int& status, LogSite site, const char* name) {
    if (box == nullptr) fail(status, KST_CORRUPT, site, "Could not find %s box", name);
    return box;
}

uint32_t largest(const Qvox3gp::StszBox& stsz) {
    const auto& sizes = stsz.GetChunkSizes();
    if (stsz.GetSampleSize() != 0 || sizes.empty()) return stsz.GetSampleSize();
    return *std::max_element(sizes.begin(), sizes.end());
}

// Reserves the trusted part of a table's memory. Returns false without memory.
template <class T>
bool reserve(std::vector<T>& values, size_t count) {
    try {
        values.reserve(count);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::length_error&) {
        return false;
    }
}

}  // namespace

void C3gpInterface::Read3gpBoxes() {
    try {
        ReadTracks();
    } catch (const Qvox3gp::NotArrived&) {
        m_uStatus = KST_FAILURE;  // the host opens again later
        throw;
    } catch (const SimpleException&) {
        m_uStatus = KST_CORRUPT;
        throw;
    } catch (...) {
        fail(m_uStatus, KST_CORRUPT, here(), "%s", kUnhandledThrown);
    }
}

void C3gpInterface::ReadTracks() {
    log_line(kDebug, here(),
             "Read3gpBoxes(): m_pIOCallback=0x%" PRIxPTR
             ", m_pIOCallback->pUserContext=0x%" PRIxPTR,
             address(m_pIOCallback), address(m_pIOCallback->Context));
    log_line(kDebug, here(), "Reading 3gp boxes from file");
    m_pSimple3gp->Read(m_pIOCallback, 0);
    m_uFileSize = m_pSimple3gp->GetFileSizeRead();
    log_line(kDebug, here(), "Reading 3gp boxes complete");
    const auto* ftyp = require(m_pSimple3gp->GetFtyp(), m_uStatus, here(), "ftyp");
    log_line(kDebug, here(), "Found 3gp major brand: 0x%X", ftyp->GetMajorBrand());
    const auto* moov = require(m_pSimple3gp->GetMoov(), m_uStatus, here(), "moov");
    for (Qvox3gp::TrakBox* trak : moov->GetTraks())
        AddTrack(trak);
    if (moov->GetMvhd() != nullptr) m_uMovieTimescale = moov->GetMvhd()->GetTimescale();
}

void C3gpInterface::AddTrack(Qvox3gp::TrakBox* trak) {
    const auto* mdia = require(trak->GetMdia(), m_uStatus, here(), "mdia");
    const auto* hdlr = require(mdia->GetHdlr(), m_uStatus, here(), "hdlr");
    const uint32_t handler = hdlr->GetHandlerType();
    if (handler == code("hint")) {
        log_line(kDebug, here(), "Found Hint track");
        AddHintTrack(trak);
    } else if (handler == code("soun")) {
        log_line(kDebug, here(), "Found audio track");
        const auto* tkhd = require(trak->GetTkhd(), m_uStatus, here(), "tkhd");
        m_AudioTracks[tkhd->GetTrackId()] = trak;
    } else if (handler == code("vide")) {
        log_line(kDebug, here(), "Found video track");
        const auto* tkhd = require(trak->GetTkhd(), m_uStatus, here(), "tkhd");
        m_VideoTracks[tkhd->GetTrackId()] = trak;
    }
}

void C3gpInterface::AddHintTrack(Qvox3gp::TrakBox* trak) {
    const auto* tref = require(trak->GetTref(), m_uStatus, here(), "tref");
    const auto* hint = require(tref->GetTrackReferenceTypeBox(), m_uStatus, here(), "hint");
    const uint32_t media = hint->GetTrackID(0);
    m_HintTracks[media] = trak;
    const auto* tkhd = require(trak->GetTkhd(), m_uStatus, here(), "tkhd");
    log_line(kDebug, here(), "Hint track ID %d is associated with track ID %d", tkhd->GetTrackId(),
             media);
}

void C3gpInterface::ValidateTracks() {
    constexpr size_t kMaxTracks = 1;
    const bool audio = m_uMedium == kAudio;
    const auto& tracks = audio ? m_AudioTracks : m_VideoTracks;
    const char* name = audio ? "audio" : "video";
    if (tracks.size() > kMaxTracks) {
        fail(m_uStatus, KST_TOO_MANY_TRACKS, here(), "Too many %s tracks found", name);
    }
    if (tracks.empty()) {
        fail(m_uStatus, KST_NO_SUCH_TRACK, here(), "File does not contain %s track", name);
    }
    const auto [id, trak] = *tracks.begin();
    log_line(kDebug, here(), "%s track ID: %d", name, id);
    const auto hint = m_HintTracks.find(id);
    if (hint == m_HintTracks.end()) {
        fail(m_uStatus, KST_NO_HINT_TRACK, here(), "%s track ID %d does not have a hint track.",
             name, id);
    }
    GetTrakData(m_AVBoxes, trak);
    GetTrakData(m_HintBoxes, hint->second);
}

void C3gpInterface::GetTrakData(BaseBoxes& boxes, Qvox3gp::TrakBox* trak) {
    const auto* mdia = trak->GetMdia();
    const auto* minf = require(mdia->GetMinf(), m_uStatus, here(), "minf");
    boxes.mdhd = require(mdia->GetMdhd(), m_uStatus, here(), "mdhd");
    boxes.stbl = require(minf->GetStbl(), m_uStatus, here(), "stbl");
    boxes.stts = require(boxes.stbl->GetStts(), m_uStatus, here(), "stts");
    boxes.stsz = require(boxes.stbl->GetStsz(), m_uStatus, here(), "stsz");
    boxes.stsc = require(boxes.stbl->GetStsc(), m_uStatus, here(), "stsc");
    boxes.stco = require(boxes.stbl->GetStco(), m_uStatus, here(), "stco");
    boxes.stss = boxes.stbl->GetStss();
    boxes.elst = trak->GetEdts() != nullptr ? trak->GetEdts()->GetElst() : nullptr;
}

void C3gpInterface::StoreTrackTables() {
    const Qvox3gp::StszBox& hint_sizes = *m_HintBoxes.stsz;
    m_ChunkOffsets = m_HintBoxes.stco->GetChunkOffsets();
    m_SampleToChunk = m_HintBoxes.stsc->GetSampleEntries();
    if (hint_sizes.GetSampleSize() != 0) {
        m_SampleSizes.assign(1, hint_sizes.GetSampleSize());
    } else {
        m_SampleSizes = hint_sizes.GetChunkSizes();
    }
    m_TimeToSample = m_HintBoxes.stts->GetSampleEntries();
    m_fHasSyncTable = m_HintBoxes.stss != nullptr;
    if (m_fHasSyncTable) m_SyncSamples = m_HintBoxes.stss->GetSyncSampleEntries();
    m_uMediaSamples = m_AVBoxes.stsz->GetSampleCount();
    m_uHintSamples = hint_sizes.GetSampleCount();
    log_line(kDebug, here(), "Found %d media samples and %d hint samples", m_uMediaSamples,
             m_uHintSamples);
    m_uHintChunks = static_cast<unsigned int>(m_ChunkOffsets.size());

    m_Now = {};
    m_fEndOfFile = m_uHintSamples == 0;
    if (!m_SampleToChunk.empty() && m_SampleToChunk[0].first_chunk == m_Now.chunk) {
        m_Now.samples_per_chunk = m_SampleToChunk[0].samples_per_chunk;
    }
    SkipEmptyTimeEntries(m_Now);
}

void C3gpInterface::AllocBuffers() {
    const uint32_t media = largest(*m_AVBoxes.stsz);
    log_line(kDebug, here(), "Allocating %d bytes for media sample buffer", media);
    if (!reserve(m_MediaSample, std::min(media, kTrustedBytes))) {
        fail(m_uStatus, KST_NO_MEMORY, here(), "Unable to allocate buffer for media sample");
    }
    // Half of the allocated bytes: the line always counts four bytes a sample.
    log_line(kDebug, here(), "Allocating %d bytes for media sample offset buffer",
             m_uMediaSamples * 4);
    RequireSamplesInFile();
    if (!reserve(m_SampleInfo, m_uMediaSamples)) {
        fail(m_uStatus, KST_NO_MEMORY, here(), "Unable to allocate memory for sample offset table");
    }
    m_SampleInfo.resize(m_uMediaSamples);
    const uint32_t hint = largest(*m_HintBoxes.stsz);
    log_line(kDebug, here(), "Allocating %d bytes for hint sample buffer", hint);
    if (!reserve(m_HintSample, std::min(hint, kTrustedBytes))) {
        fail(m_uStatus, KST_NO_MEMORY, here(), "Unable to allocate buffer for hint sample");
    }
}

// A table with one size for all samples has no entries to check its count against.
void C3gpInterface::RequireSamplesInFile() {
    constexpr uint32_t kTrustedSamples = 65536;
    const uint32_t size = m_AVBoxes.stsz->GetSampleSize();
    if (size == 0 || m_uMediaSamples <= kTrustedSamples) return;
    if (uint64_t{size} * m_uMediaSamples > m_uFileSize) {
        fail(m_uStatus, KST_CORRUPT, here(), "Media samples exceed the file");
    }
    if (m_uMediaSamples > kMaxTrackSamples) {
        fail(m_uStatus, KST_NO_MEMORY, here(), "Unable to allocate memory for sample offset table");
    }
}

void C3gpInterface::CalcSampleOffsets(const BaseBoxes& boxes, std::vector<_TAG_SAMPLEINFO>& table) {
    const auto& runs = boxes.stsc->GetSampleEntries();
    const auto& sizes = boxes.stsz->GetChunkSizes();
    const uint32_t uniform = boxes.stsz->GetSampleSize();
    auto run = runs.begin();
    uint32_t chunk = 1;
    uint32_t samples_per_chunk = 1;
    size_t sample = 0;
    for (const uint32_t chunk_offset : boxes.stco->GetChunkOffsets()) {
        if (run != runs.end() && run->first_chunk == chunk) {
            samples_per_chunk = run->samples_per_chunk;
            ++run;
        }
        uint64_t offset = chunk_offset;
        for (uint32_t i = 0; i < samples_per_chunk && sample < table.size(); ++i, ++sample) {
            const uint32_t size = uniform != 0 ? uniform : sizes[sample];
            // No stream has bytes after 4 GiB.
            if (offset <= UINT32_MAX) table[sample] = {static_cast<uint32_t>(offset), size};
            offset += size;
        }
        ++chunk;
    }
    log_line(kDebug, here(), "Chunks counted: %d  Samples counted: %d", chunk - 1,
             static_cast<unsigned int>(sample));
}

void C3gpInterface::CalcTimeDeltas(const BaseBoxes* boxes, unsigned int* deltas) {
    uint32_t left = boxes->stsz->GetSampleCount();
    for (const Qvox3gp::TimeToSampleEntry& entry : boxes->stts->GetSampleEntries()) {
        const uint32_t count = std::min(left, entry.sample_count);
        deltas = std::fill_n(deltas, count, entry.sample_delta);
        left -= count;
    }
    std::fill_n(deltas, left, 0u);
}
