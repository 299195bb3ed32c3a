// SPDX-License-Identifier: Apache-2.0
// The track, its header, references and edits, and the media boxes above the sample tables.
#ifndef KESTREL_BOXES_TRACK_BOXES_H
#define KESTREL_BOXES_TRACK_BOXES_H

#include <array>
#include <cstdint>
#include <vector>

#include "boxes/box_base.h"
#include "common/movie_defaults.h"

namespace Qvox3gp {

class StblBox;

// "tkhd". A new one is enabled, in the movie and its preview, at full volume.
class TkhdBox : public Described<TkhdBox, FullBox, FixupableDims, FixupableTime, Timed> {
  public:
    TkhdBox();
    ~TkhdBox() override;

    void SetDimensions(unsigned int width, unsigned int height) override;
    // The duration is in movie ticks; the timescale itself is not in the box.
    void SetTimescale(unsigned int movie, unsigned int) override { timescale_ = movie; }
    void SetDuration(unsigned int duration) override { duration_ = duration; }
    virtual unsigned int GetTrackId() const { return track_id_; }
    virtual unsigned int GetVolume() const { return volume_; }
    unsigned int GetTimescale() const override { return timescale_; }
    unsigned int GetDuration() const override { return duration_; }
    // 16.16.
    virtual unsigned int GetWidth() const { return width_; }
    virtual unsigned int GetHeight() const { return height_; }
    void GoToStart(Stream& io) override { seek_to_start(io); }

    void SetTrackId(uint32_t id) { track_id_ = id; }

    static void fields(auto& f, auto& self);

  private:
    uint32_t timescale_ = kestrel::kMovieTimescale;
    uint32_t track_id_ = 1;
    uint32_t reserved_ = 0;
    uint32_t duration_ = 0;
    std::array<uint8_t, 8> reserved_2_{};
    uint16_t layer_ = 0;
    uint16_t alternate_group_ = 0;
    uint16_t volume_ = kestrel::kFullVolume;
    uint16_t reserved_3_ = 0;
    std::array<uint32_t, 9> matrix_ = kestrel::kUnityMatrix;
    uint32_t width_ = 0;
    uint32_t height_ = 0;
};

// "hint", the only reference type that is modelled: the track whose media a hint track packetises.
// Only the first track ID is read. A box without one, such as that of a hint track that holds all
// its data itself, stays empty.
class TrackReferenceTypeBox : public Described<TrackReferenceTypeBox, Box> {
  public:
    TrackReferenceTypeBox();
    ~TrackReferenceTypeBox() override;

    // Returns the track ID at index 0; 0, which is not a track ID, for none.
    uint32_t GetTrackID(unsigned int index) const {
        return index < track_ids_.size() ? track_ids_[index] : 0;
    }
    void SetTrackID(uint32_t id) { track_ids_.assign(1, id); }

    static void fields(auto& f, auto& self);

  private:
    std::vector<uint32_t> track_ids_;  // at most one
};

// "tref"
class TrefBox : public Described<TrefBox, ContainerBox> {
  public:
    TrefBox();
    ~TrefBox() override;

    void SetTrackReferenceTypeBox(TrackReferenceTypeBox* hint, bool owned) {
        hint_ = adopt(hint, owned);
    }
    TrackReferenceTypeBox* GetTrackReferenceTypeBox() const { return hint_; }

    Box& new_child(uint32_t type);

  private:
    TrackReferenceTypeBox* hint_ = nullptr;
};

struct EditEntry {
    uint32_t segment_duration = 0;  // movie ticks
    int32_t media_time = 0;         // media ticks; -1 for an empty edit
    int16_t media_rate_integer = 1;
    int16_t media_rate_fraction = 0;

    static void fields(auto& f, auto& self);
};

// "elst"
class ElstBox : public Described<ElstBox, FullBox> {
  public:
    ElstBox();
    ~ElstBox() override;

    const std::vector<EditEntry>& GetEditEntries() const { return entries_; }

    static void fields(auto& f, auto& self);

  private:
    std::vector<EditEntry> entries_;
};

// "edts"
class EdtsBox : public Described<EdtsBox, ContainerBox> {
  public:
    EdtsBox();
    ~EdtsBox() override;

    void SetElst(ElstBox* elst, bool owned) { elst_ = adopt(elst, owned); }
    ElstBox* GetElst() const { return elst_; }

    Box& new_child(uint32_t type);

  private:
    ElstBox* elst_ = nullptr;
};

// "mdhd"
class MdhdBox : public Described<MdhdBox, FullBox, Timed, FixupableTime> {
  public:
    MdhdBox();
    ~MdhdBox() override;

    // Uses the timescale of the media.
    void SetTimescale(unsigned int, unsigned int media) override { timescale_ = media; }
    void SetDuration(unsigned int duration) override { duration_ = duration; }
    unsigned int GetTimescale() const override { return timescale_; }
    unsigned int GetDuration() const override { return duration_; }
    void GoToStart(Stream& io) override { seek_to_start(io); }

    static void fields(auto& f, auto& self);

  private:
    uint32_t timescale_ = kestrel::kMovieTimescale;
    uint32_t duration_ = 0;
    uint16_t language_ = kestrel::kUndeterminedLanguage;
    uint16_t pre_defined_ = 0;
};

// "hdlr". The name is not stored: Dump writes an empty one.
class HdlrBox : public Described<HdlrBox, FullBox> {
  public:
    HdlrBox();
    ~HdlrBox() override;

    // As stored: code("soun"), code("vide"), code("hint") and others.
    uint32_t GetHandlerType() const { return handler_type_; }
    void SetHandlerType(uint32_t type) { handler_type_ = type; }

    static void fields(auto& f, auto& self);

  private:
    uint32_t pre_defined_ = 0;
    uint32_t handler_type_ = code("soun");
    std::array<uint32_t, 3> reserved_{};
};

// "vmhd". The graphics mode is not stored: Dump writes 0, which is copy.
class VmhdBox : public Described<VmhdBox, FullBox> {
  public:
    VmhdBox();
    ~VmhdBox() override;

    template <class F, class Self>
    static void fields(F& f, Self& self);

  private:
    std::array<uint16_t, 3> opcolor_{};
};

// "smhd"
class SmhdBox : public Described<SmhdBox, FullBox> {
  public:
    SmhdBox();
    ~SmhdBox() override;

    static void fields(auto& f, auto& self);

  private:
    uint16_t balance_ = 0;
    uint16_t reserved_ = 0;
};

// "hmhd"
class HmhdBox : public Described<HmhdBox, FullBox> {
  public:
    HmhdBox();
    ~HmhdBox() override;

    // Bytes, and bits per second.
    void SetSizes(uint16_t max_pdu, uint16_t average_pdu, uint32_t max_rate, uint32_t average_rate);

    static void fields(auto& f, auto& self);

  private:
    uint16_t max_pdu_size_ = 0;
    uint16_t average_pdu_size_ = 0;
    uint32_t max_bit_rate_ = 0;
    uint32_t average_bit_rate_ = 0;
    uint32_t reserved_ = 0;
};

// An entry of "dref". Its body is skipped. A new one declares that the media is in the same file.
class DataEntryBox : public Described<DataEntryBox, FullBox> {
  public:
    DataEntryBox();
    ~DataEntryBox() override;

    template <class F, class Self>
    static void fields(F& f, Self& self);
};

// "dref"
class DrefBox : public Described<DrefBox, FullBox> {
  public:
    DrefBox();
    ~DrefBox() override;

    void AddDataEntryBox(DataEntryBox* entry, bool owned) { entries_.add(entry, owned); }
    const std::vector<DataEntryBox*>& children() const { return entries_.boxes(); }

    Box& new_child(uint32_t type);
    static void fields(auto& f, auto& self);

  private:
    BoxList<DataEntryBox> entries_;
};

// "dinf"
class DinfBox : public Described<DinfBox, ContainerBox> {
  public:
    DinfBox();
    ~DinfBox() override;

    void SetDref(DrefBox* dref, bool owned) { dref_ = adopt(dref, owned); }
    DrefBox* GetDref() const { return dref_; }

    Box& new_child(uint32_t type);

  private:
    DrefBox* dref_ = nullptr;
};

// "minf". Its Read can end the process (see ESDBox), as can those of MdiaBox and TrakBox.
class MinfBox : public Described<MinfBox, ContainerBox> {
  public:
    MinfBox();
    ~MinfBox() override;

    void SetVmhd(VmhdBox* vmhd, bool owned) { adopt(vmhd, owned); }
    void SetSmhd(SmhdBox* smhd, bool owned) { adopt(smhd, owned); }
    void SetHmhd(HmhdBox* hmhd, bool owned) { adopt(hmhd, owned); }
    void SetDinf(DinfBox* dinf, bool owned) { adopt(dinf, owned); }
    void SetStbl(StblBox* stbl, bool owned);
    StblBox* GetStbl() const { return stbl_; }

    Box& new_child(uint32_t type);

  private:
    StblBox* stbl_ = nullptr;
};

// "mdia"
class MdiaBox : public Described<MdiaBox, ContainerBox> {
  public:
    MdiaBox();
    ~MdiaBox() override;

    void SetMdhd(MdhdBox* mdhd, bool owned) { mdhd_ = adopt(mdhd, owned); }
    void SetHdlr(HdlrBox* hdlr, bool owned) { hdlr_ = adopt(hdlr, owned); }
    void SetMinf(MinfBox* minf, bool owned) { minf_ = adopt(minf, owned); }
    MdhdBox* GetMdhd() const { return mdhd_; }
    HdlrBox* GetHdlr() const { return hdlr_; }
    MinfBox* GetMinf() const { return minf_; }

    Box& new_child(uint32_t type);

  private:
    MdhdBox* mdhd_ = nullptr;
    HdlrBox* hdlr_ = nullptr;
    MinfBox* minf_ = nullptr;
};

// "trak"
class TrakBox : public Described<TrakBox, ContainerBox> {
  public:
    TrakBox();
    ~TrakBox() override;

    void SetTkhd(TkhdBox* tkhd, bool owned) { tkhd_ = adopt(tkhd, owned); }
    void SetTref(TrefBox* tref, bool owned) { tref_ = adopt(tref, owned); }
    void SetEdts(EdtsBox* edts, bool owned) { edts_ = adopt(edts, owned); }
    void SetMdia(MdiaBox* mdia, bool owned) { mdia_ = adopt(mdia, owned); }
    TkhdBox* GetTkhd() const { return tkhd_; }
    TrefBox* GetTref() const { return tref_; }
    EdtsBox* GetEdts() const { return edts_; }
    MdiaBox* GetMdia() const { return mdia_; }

    Box& new_child(uint32_t type);

  private:
    TkhdBox* tkhd_ = nullptr;
    TrefBox* tref_ = nullptr;
    EdtsBox* edts_ = nullptr;
    MdiaBox* mdia_ = nullptr;
};

}  // namespace Qvox3gp

#endif
