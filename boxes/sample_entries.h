// SPDX-License-Identifier: Apache-2.0
// The sample description box, its entries and their codec configuration boxes.
#ifndef KESTREL_BOXES_SAMPLE_ENTRIES_H
#define KESTREL_BOXES_SAMPLE_ENTRIES_H

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "boxes/box_base.h"
#include "common/movie_defaults.h"
#include "native/codec/mpeg4_visual.h"
#include "native/codec/payload_types.h"

namespace Qvox3gp {

class SampleEntry : public Box {
  public:
    static void fields(auto& f, auto& self);

  protected:
    explicit SampleEntry(unsigned int type = kUnknownType) : Box(type) {}

  private:
    std::array<uint8_t, 6> reserved_{};
    uint16_t data_reference_index_ = 1;  // from 1, of the entry of "dref" that locates the media
};

// An entry of a type without a class of its own, hint entries included: all bytes after the box
// header, uninterpreted.
class NullSampleEntry : public Described<NullSampleEntry, SampleEntry> {
  public:
    explicit NullSampleEntry(unsigned int type = kUnknownType);
    ~NullSampleEntry() override;

    const std::vector<uint8_t>& GetData() const { return data_; }

    static void fields(auto& f, auto& self);

  private:
    std::vector<uint8_t> data_;
};

// A hint entry of any protocol, with uninterpreted data. Never made by reading.
class HintSampleEntry : public Described<HintSampleEntry, SampleEntry> {
  public:
    explicit HintSampleEntry(unsigned int type = code("rtp "));
    ~HintSampleEntry() override;

    const std::vector<uint8_t>& GetData() const { return data_; }

    static void fields(auto& f, auto& self);

  private:
    std::vector<uint8_t> data_;
};

// "tims": the ticks per second of the RTP timestamps.
class TimeScaleEntry : public Described<TimeScaleEntry, Box> {
  public:
    TimeScaleEntry();
    ~TimeScaleEntry() override;

    uint32_t GetTimescale() const { return timescale_; }
    void SetTimescale(uint32_t timescale) { timescale_ = timescale; }

    static void fields(auto& f, auto& self);

  private:
    uint32_t timescale_ = kestrel::kVideoClock;
};

// "rtp " (ISO/IEC 14496-12, 9.1.2). Never made by reading; for building hint tracks.
class RTPHintSampleEntry : public Described<RTPHintSampleEntry, SampleEntry> {
  public:
    RTPHintSampleEntry();
    ~RTPHintSampleEntry() override;

    TimeScaleEntry* GetTimeScaleEntry() const { return timescale_.get(); }

    static void fields(auto& f, auto& self);

  private:
    uint16_t version_ = 1;
    uint16_t highest_compatible_version_ = 1;
    uint32_t max_packet_size_ = 1450;
    std::unique_ptr<TimeScaleEntry> timescale_;
};

// "damr" (3GPP TS 26.244)
class AMRSpecificBox : public Described<AMRSpecificBox, Box> {
  public:
    AMRSpecificBox();
    ~AMRSpecificBox() override;

    // A bit per mode that may occur.
    uint16_t GetModeSet() const { return mode_set_; }
    uint8_t GetFramesPerSample() const { return frames_per_sample_; }

    static void fields(auto& f, auto& self);

  private:
    uint32_t vendor_ = 0;
    uint8_t decoder_version_ = 0;
    uint16_t mode_set_ = 0x81FF;  // all speech modes of AMR and comfort noise
    uint8_t mode_change_period_ = 0;
    uint8_t frames_per_sample_ = 1;
};

// "samr" and "sawb". An entry without "damr" is read and logged.
class AMRSampleEntry : public Described<AMRSampleEntry, SampleEntry> {
  public:
    explicit AMRSampleEntry(unsigned int type = code("samr"));
    ~AMRSampleEntry() override;

    // Null when the entry has none.
    AMRSpecificBox* GetAMRSpecific() const { return specific_.get(); }
    void SetAMRSpecific(std::unique_ptr<AMRSpecificBox> specific);
    void SetTimescale(uint16_t timescale) { timescale_ = timescale; }

    static void fields(auto& f, auto& self);
    void after_read() const;

  private:
    std::array<uint32_t, 2> reserved_{};
    uint16_t channel_count_ = 2;
    uint16_t sample_size_ = 16;
    uint32_t reserved_2_ = 0;
    uint16_t timescale_;
    uint16_t reserved_3_ = 0;
    std::unique_ptr<AMRSpecificBox> specific_;
};

// The fields of all visual sample entries.
struct VisualLayout {
    std::array<uint32_t, 4> reserved{};
    uint16_t width = 0;
    uint16_t height = 0;
    uint32_t horizontal_resolution = kestrel::kScreenResolution;
    uint32_t vertical_resolution = kestrel::kScreenResolution;
    uint32_t reserved_2 = 0;
    uint16_t frame_count = 1;
    std::array<uint8_t, 32> compressor_name{};
    uint16_t depth = kestrel::kColourDepth;
    uint16_t pre_defined = 0xFFFF;

    static void fields(auto& f, auto& self);
};

// A visual sample entry: the fields above, then a configuration box. The type of that box is not
// checked.
template <class Derived, class Configuration>
class VisualSampleEntry : public Described<Derived, SampleEntry, FixupableDims> {
  public:
    using Described<Derived, SampleEntry, FixupableDims>::Described;

    void SetDimensions(unsigned int width, unsigned int height) override {
        visual_.width = static_cast<uint16_t>(width);
        visual_.height = static_cast<uint16_t>(height);
    }
    void GoToStart(Stream& io) override { this->seek_to_start(io); }

    uint16_t GetWidth() const { return visual_.width; }
    uint16_t GetHeight() const { return visual_.height; }

    static void fields(auto& f, auto& self);

  protected:
    Configuration* configuration() const { return configuration_.get(); }
    void set_configuration(std::unique_ptr<Configuration> box) { configuration_ = std::move(box); }

  private:
    VisualLayout visual_;
    std::unique_ptr<Configuration> configuration_;
};

// "d263" (3GPP TS 26.244)
class H263SpecificBox : public Described<H263SpecificBox, Box> {
  public:
    H263SpecificBox();
    ~H263SpecificBox() override;

    uint8_t GetLevel() const { return level_; }
    uint8_t GetProfile() const { return profile_; }
    void SetProfile(uint8_t profile, uint8_t level) {
        profile_ = profile;
        level_ = level;
    }

    static void fields(auto& f, auto& self);

  private:
    uint32_t vendor_ = 0;
    uint8_t decoder_version_ = 0;
    uint8_t level_ = 10;
    uint8_t profile_ = 0;
};

// "s263".
class H263SampleEntry : public VisualSampleEntry<H263SampleEntry, H263SpecificBox> {
  public:
    H263SampleEntry();
    ~H263SampleEntry() override;

    H263SpecificBox* GetH263Specific() const { return configuration(); }
    void SetH263Specific(std::unique_ptr<H263SpecificBox> box) {
        set_configuration(std::move(box));
    }
};

// The length of a descriptor, and the number of bytes that it takes.
struct DescriptorSize {
    uint32_t value = 0;
    uint8_t width = 4;
};

// The elementary stream descriptor of ISO/IEC 14496-1 in an "esds".
struct ESDInfo {
    uint8_t es_tag = 0x03;
    DescriptorSize es_size;
    uint16_t es_id = 0;
    uint8_t flags = 0;
    uint8_t decoder_config_tag = 0x04;
    DescriptorSize decoder_config_size;
    uint8_t object_type_indication = kestrel::kMpeg4Visual;
    uint32_t stream_type_and_buffer_size = 0x11000000;  // visual stream, then 24 bits of bytes
    uint32_t max_bit_rate = 0;
    uint32_t average_bit_rate = 0;
    uint8_t decoder_specific_tag = 0x05;
    DescriptorSize decoder_specific_size;
    std::vector<uint8_t> decoder_specific;
    uint8_t sl_config_tag = 0x06;
    DescriptorSize sl_config_size{1, 4};
    uint8_t sl_predefined = 2;

    template <class F, class Self>
    static void fields(F& f, Self& self);
};

// "esds". Optional fields selected by the flags of the ES descriptor are not supported.
//
// Read calls meet_foreign_codec (boxes/foreign_codec_hook.h) when the object type indication is not
// that of MPEG-4 Visual. In the library this ends the process with exit status 1.
class ESDBox : public Described<ESDBox, FullBox> {
  public:
    ESDBox();
    ~ESDBox() override;

    const ESDInfo& GetESDInfo() const { return info_; }
    // Sets the decoder specific information and the descriptor lengths that depend on it.
    void SetDecoderSpecific(std::span<const uint8_t> data);
    void SetBitRates(uint32_t max, uint32_t average);

    template <class F, class Self>
    static void fields(F& f, Self& self);

  private:
    ESDInfo info_;
};

// "mp4v". An entry without an "esds" directly after its fields is thrown as an invalid size. Its
// Read can end the process.
class MP4VisualSampleEntry : public VisualSampleEntry<MP4VisualSampleEntry, ESDBox> {
  public:
    MP4VisualSampleEntry();
    ~MP4VisualSampleEntry() override;

    ESDBox* GetESDBox() const { return configuration(); }
    void SetESDBox(std::unique_ptr<ESDBox> box) { set_configuration(std::move(box)); }
};

struct ParameterSet {
    uint16_t length = 0;
    std::vector<uint8_t> data;

    static void fields(auto& f, auto& self);
};

// "avcC" (ISO/IEC 14496-15). A full box by class, but with the layout of a plain one. Its header is
// read as eight plain bytes, without a start position and without a check of the size. Bytes after
// the picture parameter sets are not read. Sets after the end of both the box and the sample entry
// that it is in are skipped, so that the boxes of a file limit the memory.
class AVCCBox : public Described<AVCCBox, FullBox> {
  public:
    AVCCBox();
    ~AVCCBox() override;

    uint8_t GetProfile() const { return profile_; }
    uint8_t GetLevel() const { return level_; }
    // Bytes of the length before each NAL unit of a sample: 1 to 4.
    unsigned int GetNalLengthSize() const { return (nal_length_ & kNalLengthBits) + 1u; }
    // All parameter sets, each after a start code 00 00 00 01, sequence sets first.
    const std::vector<uint8_t>& GetParameterSets() const { return buffer_; }

    void SetProfile(uint8_t profile, uint8_t compatibility, uint8_t level);
    // Accepts at most 31 sequence and 255 picture sets of at most 65535 bytes. Returns false for a
    // set that does not fit.
    bool AddSequenceSet(std::span<const uint8_t> set);
    bool AddPictureSet(std::span<const uint8_t> set);

    // Sets the offset after the box that this one is in, before it is read.
    void set_container_end(uint64_t end) { container_end_ = end; }

    bool read_header(Stream& io, unsigned int file_size, BoxExtent& extent);
    static void fields(auto& f, auto& self);
    void after_read() { gather(); }

  private:
    static constexpr uint8_t kNalLengthBits = 0x03;
    static constexpr uint8_t kSequenceCountBits = 0x1F;
    static constexpr uint8_t kPictureCountBits = 0xFF;

    template <class F, class Self, class Sets, class Count>
    static void sets(F& f, std::string_view name, Self& self, Sets& sets, Count& count,
                     uint8_t count_bits);
    void gather();

    uint8_t configuration_version_ = 1;
    uint8_t profile_ = 66;
    uint8_t profile_compatibility_ = 0;
    uint8_t level_ = 10;
    uint8_t nal_length_ = 0xFF;      // six reserved bits
    uint8_t sequence_count_ = 0xE0;  // three reserved bits
    std::vector<ParameterSet> sequence_sets_;
    uint8_t picture_count_ = 0;
    std::vector<ParameterSet> picture_sets_;
    std::vector<uint8_t> buffer_;
    uint64_t container_end_ = UINT64_MAX;
    uint64_t kept_end_ = UINT64_MAX;  // offset after the last set that is kept
};

// "avc1".
class H264SampleEntry : public VisualSampleEntry<H264SampleEntry, AVCCBox> {
  public:
    H264SampleEntry();
    ~H264SampleEntry() override;

    AVCCBox* GetAVCCBox() const { return configuration(); }
    void SetAVCCBox(std::unique_ptr<AVCCBox> box) { set_configuration(std::move(box)); }
};

// "stsd". Its Read can end the process (see ESDBox).
class StsdBox : public Described<StsdBox, FullBox, Rewindable> {
  public:
    StsdBox();
    ~StsdBox() override;

    void GoToStart(Stream& io) override { seek_to_start(io); }

    void AddSampleEntry(SampleEntry* entry, bool owned) { entries_.add(entry, owned); }
    const std::vector<SampleEntry*>& GetSampleEntries() const { return entries_.boxes(); }
    const std::vector<SampleEntry*>& children() const { return entries_.boxes(); }

    Box& new_child(uint32_t type);
    static void fields(auto& f, auto& self);

  private:
    BoxList<SampleEntry> entries_;
};

}  // namespace Qvox3gp

#endif
