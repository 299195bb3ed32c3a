#include "propfile/src/propfile_video.h"

using namespace kestrel;

PropFileVideoH263::~PropFileVideoH263() = default;

void PropFileVideoH263::SetupCodecHeaders(const _TAG_VIDEO_OPEN_PARAMS& params) {
    Put(video_codec(format(), params.uAvgBitRate, params.uWidth, params.uHeight));
    Put(VID_Header_H263CodecConfig{params.uProfile, params.uLevel});
}
