// SPDX-License-Identifier: Apache-2.0
#include "boxes/foreign_codec_hook.h"

#include "boxes/simple3gp.h"
#include "common/simple_exception.h"
#include "companion/probe/reasons.h"

namespace {

thread_local bool is_met = false;

}  // namespace

// The library ends the process here; programs with this definition continue.
void Qvox3gp::meet_foreign_codec() {
    is_met = true;
}

bool kestrel::probe::has_foreign_codec(KST_IOSTREAM_CALLBACK_INTERFACE& stream) {
    is_met = false;
    KST_IOSTREAM_CALLBACK_INTERFACE* io = &stream;
    stream.Seek(stream.Context, 0);
    unsigned int remarks = 0;
    const RemarkScope scope(remarks);
    try {
        Qvox3gp::Simple3gp file;
        file.Read(io, 0);
    } catch (const SimpleException&) {
        // The class API refuses the file at the same place.
    }
    stream.Seek(stream.Context, 0);
    return is_met;
}
