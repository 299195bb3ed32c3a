// SPDX-License-Identifier: Apache-2.0
// A file as the class API reads it.
#ifndef KESTREL_COMPANION_PROBE_CLASS_FILE_H
#define KESTREL_COMPANION_PROBE_CLASS_FILE_H

#include <memory>
#include <optional>

#include "companion/probe/media_tracks.h"
#include "companion/probe/sample_places.h"

namespace Qvox3gp {
class Simple3gp;
}

namespace kestrel::probe {

class ClassFile {
  public:
    // Reads the boxes. The stream must outlive the object.
    explicit ClassFile(KST_IOSTREAM_CALLBACK_INTERFACE* stream);
    ClassFile(ClassFile&&) noexcept;
    ClassFile& operator=(ClassFile&&) noexcept;
    ~ClassFile();

    // True when C3gpInterface::Open ends the process: there is an MPEG-4 sample entry of another
    // codec.
    bool ends_process() const { return ends_process_; }

    // Opens a medium of a file that does not end the process, and returns the status. Where that
    // takes memory for millions of samples, looks for the boxes only.
    int32_t open(MediaKind kind) const;

    // The tables of a medium and of its hint track; nothing where one of them is missing.
    struct Track {
        SamplePlaces media, hint;
        uint32_t media_timescale = 0, hint_timescale = 0;
    };
    std::optional<Track> track(MediaKind kind) const;

  private:
    KST_IOSTREAM_CALLBACK_INTERFACE* stream_;
    std::unique_ptr<Qvox3gp::Simple3gp> boxes_;
    bool ends_process_ = false;
};

}  // namespace kestrel::probe

#endif
