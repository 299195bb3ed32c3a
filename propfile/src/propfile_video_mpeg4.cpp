#include "propfile/src/propfile_video.h"

using namespace kestrel;

PropFileVideoMPEG4::~PropFileVideoMPEG4() = default;

void PropFileVideoMPEG4::SetupCodecHeaders(const _TAG_VIDEO_OPEN_PARAMS& params) {
    Put(video_codec(format(), params.uAvgBitRate, params.uWidth, params.uHeight));
    Put(mpeg4_config({params.pConfig, params.pConfig != nullptr ? params.uConfigLength : 0}));
}
