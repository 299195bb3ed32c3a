// SPDX-License-Identifier: Apache-2.0
// A whole 3GP file as a tree of boxes.
#ifndef KESTREL_BOXES_SIMPLE3GP_H
#define KESTREL_BOXES_SIMPLE3GP_H

#include <vector>

#include "boxes/box_base.h"
#include "boxes/mdat_box.h"
#include "boxes/movie_boxes.h"

namespace Qvox3gp {

// The top-level boxes. A second "ftyp" or "moov" replaces the first for the getter. Both exist, and
// are dumped, as long as the file object.
class Simple3gp : public ContainerBox, public ListedBy<Simple3gp> {
  public:
    Simple3gp();
    ~Simple3gp() override;

    // Writes the boxes in order at the current position: headers only for the media data and for
    // boxes that are not modelled.
    void Dump(Stream& io) const override;

    // Reads all boxes from the current position to the end of the file. The argument is ignored.
    // Throws SimpleException for a stream failure and for a size or count that exceeds the file;
    // the boxes read before stay in the tree. Can end the process: see ESDBox.
    void Read(Stream& io, unsigned int ignored) override;

    unsigned int GetSize() const override;

    void SetFtyp(FtypBox* ftyp, bool owned) { ftyp_ = adopt(ftyp, owned); }
    void SetMoov(MoovBox* moov, bool owned) { moov_ = adopt(moov, owned); }
    void AddMdat(MdatBox* mdat, bool owned) { adopt(mdat, owned); }
    FtypBox* GetFtyp() const { return ftyp_; }
    MoovBox* GetMoov() const { return moov_; }
    // Length of the stream when it was read, bytes.
    uint32_t GetFileSizeRead() const { return file_size_; }

    Box& new_child(uint32_t type);

  private:
    FtypBox* ftyp_ = nullptr;
    MoovBox* moov_ = nullptr;
    uint32_t file_size_ = 0;
};

}  // namespace Qvox3gp

#endif
