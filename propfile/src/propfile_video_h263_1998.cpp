#include "propfile/src/propfile_video.h"

PropFileVideoH263_1998::~PropFileVideoH263_1998() = default;
