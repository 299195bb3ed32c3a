// SPDX-License-Identifier: Apache-2.0
// The file type box, the movie and its header.
#ifndef KESTREL_BOXES_MOVIE_BOXES_H
#define KESTREL_BOXES_MOVIE_BOXES_H

#include <array>
#include <cstdint>
#include <vector>

#include "boxes/box_base.h"
#include "common/movie_defaults.h"

namespace Qvox3gp {

class TrakBox;

// "ftyp". A new one is a 3GPP Release 6 file that Release 5 and 4 readers can play.
class FtypBox : public Described<FtypBox, Box> {
  public:
    FtypBox();
    ~FtypBox() override;

    // Codes as stored (see code()).
    uint32_t GetMajorBrand() const { return major_brand_; }
    const std::vector<uint32_t>& GetCompatibleBrands() const { return compatible_brands_; }
    void SetBrands(uint32_t major, uint32_t minor_version, std::vector<uint32_t> compatible);

    static void fields(auto& f, auto& self);

  private:
    uint32_t major_brand_ = code("3gp6");
    uint32_t minor_version_ = 256;
    std::vector<uint32_t> compatible_brands_ = {code("3gp5"), code("3gp4")};
};

// "mvhd": rate 1.0 and full volume in a new one.
class MvhdBox : public Described<MvhdBox, FullBox, Timed, FixupableTime> {
  public:
    MvhdBox();
    ~MvhdBox() override;

    // Uses the timescale of the movie.
    void SetTimescale(unsigned int movie, unsigned int) override { timescale_ = movie; }
    void SetDuration(unsigned int duration) override { duration_ = duration; }
    unsigned int GetTimescale() const override { return timescale_; }
    unsigned int GetDuration() const override { return duration_; }
    void GoToStart(Stream& io) override { seek_to_start(io); }

    uint32_t GetNextTrackId() const { return next_track_id_; }
    void SetNextTrackId(uint32_t id) { next_track_id_ = id; }

    static void fields(auto& f, auto& self);

  private:
    uint32_t timescale_ = kestrel::kMovieTimescale;
    uint32_t duration_ = 0;
    uint32_t rate_ = kestrel::kUnity;
    uint16_t volume_ = kestrel::kFullVolume;
    uint16_t reserved_ = 0;
    std::array<uint8_t, 8> reserved_2_{};
    std::array<uint32_t, 9> matrix_ = kestrel::kUnityMatrix;
    std::array<uint32_t, 6> pre_defined_{};
    uint32_t next_track_id_ = 1;
};

// "moov". Its Read can end the process (see ESDBox).
class MoovBox : public Described<MoovBox, ContainerBox> {
  public:
    MoovBox();
    ~MoovBox() override;

    void SetMvhd(MvhdBox* mvhd, bool owned) { mvhd_ = adopt(mvhd, owned); }
    void AddTrak(TrakBox* trak, bool owned);  // not null
    MvhdBox* GetMvhd() const { return mvhd_; }
    const std::vector<TrakBox*>& GetTraks() const { return traks_; }

    Box& new_child(uint32_t type);

  private:
    MvhdBox* mvhd_ = nullptr;
    std::vector<TrakBox*> traks_;
};

}  // namespace Qvox3gp

#endif
