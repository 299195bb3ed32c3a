// SPDX-License-Identifier: Apache-2.0
#include "interface/src/driver/driver.h"

#include <cctype>
#include <cstdarg>
#include <new>

#include "boxes/sample_tables.h"
#include "boxes/simple3gp.h"
#include "boxes/stream_io.h"
#include "common/host_table.h"
#include "propfile/src/propfile_audio.h"
#include "propfile/src/propfile_video.h"

// Opening and closing.

using namespace kestrel;

namespace {

template <class T>
void release(std::vector<T>& values) {
    std::vector<T>().swap(values);
}

}  // namespace

namespace kestrel {

void fail(unsigned int& status_field, unsigned int status, LogSite site, const char* format, ...) {
    status_field = status;
    va_list arguments;
    va_start(arguments, format);
    SimpleException made = SimpleException::from_arguments(site.file, site.line, format, arguments);
    va_end(arguments);
    throw made;
}

}  // namespace kestrel

C3gpInterface::C3gpInterface() = default;

C3gpInterface::C3gpInterface(unsigned int) : C3gpInterface() {}

C3gpInterface::~C3gpInterface() {
    Close();
}

unsigned int C3gpInterface::Open(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE* io, const char* mode) {
    const RemarkScope scope(m_uRemarks);
    m_uStatus = KST_SUCCESS;
    const bool done = run_guarded(m_uStatus, here(), [&] {
        read_log_environment();
        if (m_uMedium == kNoMedium) {
            OpenMedium(io, mode);
        } else {
            m_uStatus = KST_ALREADY_OPEN;
        }
    });
    if (done) return m_uStatus;
    const unsigned int status = m_uStatus;
    Close();
    m_uStatus = status;
    return status;
}

void C3gpInterface::OpenMedium(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE* io, const char* mode) {
    Close();
    ParseOpenMode(mode);
    if (!is_complete(io)) {
        fail(m_uStatus, KST_BAD_ARGUMENT, here(), "Stream table is null or has a null function");
    }
    m_pIOCallback = io;
    if (m_uDirection != kRead) {
        fail(m_uStatus, KST_NOT_SUPPORTED, here(), "Unsupported conversion type");
    }
    Open3GPtoQRT();
}

void C3gpInterface::ParseOpenMode(const char* mode) {
    m_uMedium = kNoMedium;
    m_uDirection = kNoDirection;
    try {
        for (const char* at_letter = mode; at_letter != nullptr && *at_letter != '\0'; ++at_letter)
            ApplySwitch(static_cast<char>(std::tolower(static_cast<unsigned char>(*at_letter))));
        if (m_uMedium == kNoMedium) {
            fail(m_uStatus, KST_BAD_MODE, here(), "Mode not specified");
        }
        if (m_uDirection == kNoDirection) {
            fail(m_uStatus, KST_BAD_MODE, here(), "Direction not specified");
        }
    } catch (...) {
        m_uMedium = kNoMedium;
        m_uDirection = kNoDirection;
        throw;
    }
}

void C3gpInterface::ApplySwitch(char letter) {
    log_line(kDebug, here(), "Switch [%c] found", letter);
    switch (letter) {
        case 'r':
            m_uDirection = kRead;
            break;
        case 'a':
            m_uMedium = kAudio;
            m_szMedium = "AUDIO";
            break;
        case 'v':
            m_uMedium = kVideo;
            m_szMedium = "VIDEO";
            break;
        default:
            fail(m_uStatus, KST_BAD_MODE, here(), "Invalid/unsupported mode switch [%c] specified",
                 letter);
    }
}

void C3gpInterface::Open3GPtoQRT() {
    try {
        m_pSimple3gp = std::make_unique<Qvox3gp::Simple3gp>();
    } catch (const std::bad_alloc&) {
        fail(m_uStatus, KST_NO_MEMORY, here(), "Could not create 3gp object");
    }
    Read3gpBoxes();
    ValidateTracks();
    StoreTrackTables();
    AllocBuffers();
    CalcSampleOffsets(m_AVBoxes, m_SampleInfo);
    Parse3gpBoxes();
    CreateFileObjects();
    ForgetBoxes();
    Qvox3gp::macro_Seek(m_pIOCallback, 0);
}

void C3gpInterface::ForgetBoxes() {
    m_AVBoxes = {};
    m_HintBoxes = {};
    m_VideoTracks.clear();
    m_AudioTracks.clear();
    m_HintTracks.clear();
    m_pSimple3gp.reset();
    m_VideoParams.pConfig = nullptr;
}

void C3gpInterface::CreateFileObjects() {
    if (m_uMedium == kAudio) {
        CreateAudioObject();
    } else {
        CreateVideoObject();
    }
}

void C3gpInterface::CreateAudioObject() {
    try {
        m_pPropAudio = std::make_unique<PropFileAudio>(Media());
    } catch (const std::bad_alloc&) {
        fail(m_uStatus, KST_NO_MEMORY, here(), "Unable to create audio file object");
    }
    if (!m_pPropAudio->Open(&m_AudioParams)) {
        fail(m_uStatus, KST_FAILURE, here(), "Error opening audio object");
    }
}

MediaSource C3gpInterface::Media() {
    return
        [this](unsigned int sample, uint32_t offset, uint32_t length, const unsigned char** bytes) {
            return GetMediaSample(sample, offset, length, bytes);
        };
}

std::unique_ptr<PropFileVideo> C3gpInterface::NewVideoObject() {
    switch (m_uVideoCodec) {
        case kH263:
            log_line(kDebug, here(), "Creating H263 object");
            return std::make_unique<PropFileVideoH263>(Media());
        case kH263_1998:
            log_line(kDebug, here(), "Creating H263_1998 object");
            return std::make_unique<PropFileVideoH263_1998>(Media());
        case kMpeg4:
            log_line(kDebug, here(), "Creating MPEG4 object");
            return std::make_unique<PropFileVideoMPEG4>(Media());
        default:
            return nullptr;
    }
}

void C3gpInterface::CreateVideoObject() {
    try {
        m_pPropVideo = NewVideoObject();
    } catch (const std::bad_alloc&) {
        m_pPropVideo = nullptr;
    }
    if (m_pPropVideo == nullptr) {
        fail(m_uStatus, KST_NO_MEMORY, here(), "Unable to create video file object");
    }
    log_line(kDebug, here(), "Opening video object");
    if (!m_pPropVideo->Open(&m_VideoParams)) {
        fail(m_uStatus, KST_FAILURE, here(), "Error opening video object");
    }
}

unsigned int C3gpInterface::Close() {
    const RemarkScope scope(m_uRemarks);
    m_uStatus = KST_SUCCESS;
    run_guarded(m_uStatus, here(), [&] { CloseWriters(); });
    Reset();
    return m_uStatus;
}

void C3gpInterface::CloseWriters() {
    if (m_pPropVideo != nullptr) m_pPropVideo->Close();
    if (m_pPropAudio != nullptr) m_pPropAudio->Close();
}

void C3gpInterface::Reset() {
    m_uStatus = KST_SUCCESS;
    m_uMedium = kNoMedium;
    m_uDirection = kNoDirection;
    m_pIOCallback = nullptr;
    m_uVideoCodec = kNoCodec;
    m_pPropVideo.reset();
    m_pPropAudio.reset();
    ForgetBoxes();
    FreeBuffers();
    release(m_ChunkOffsets);
    release(m_SampleToChunk);
    release(m_SampleSizes);
    release(m_TimeToSample);
    release(m_SyncSamples);
    m_uMediaTimescale = m_uMovieTimescale = m_uMediaDuration = 0;
    m_VideoParams = {};
    m_AudioParams = {};
    m_uMediaSamples = m_uHintSamples = m_uHintChunks = 0;
    m_fHasSyncTable = false;
    m_Now = m_Scratch = {};
    m_fEndOfFile = m_fPassOpen = m_fArriving = false;
    m_fHintHeld = m_fFrameBegun = false;
    m_uAwaitedByte = 0;
    m_uFileSize = 0;
    m_Work = m_WorkBefore = {};
    m_uRemarks = 0;
}

void C3gpInterface::FreeBuffers() {
    release(m_MediaSample);
    release(m_MediaPiece);
    m_uReadAhead = kFirstReadAhead;
    release(m_HintSample);
    release(m_SampleInfo);
    release(m_Taken);
    m_uDelivered = 0;
    m_uMediaSampleHeld = 0;
}
