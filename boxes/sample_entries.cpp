// SPDX-License-Identifier: Apache-2.0
#include "boxes/sample_entries.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "boxes/fields.h"
#include "boxes/foreign_codec_hook.h"
#include "common/log_sources.h"
#include "common/simple_exception.h"
#include "native/codec/amr_format.h"
#include "native/codec/mpeg4_visual.h"
#include "native/codec/nal_unit.h"

namespace Qvox3gp {
void SampleEntry::fields(auto& f, auto& self) {
    f.bytes("reserved", part<SampleEntry>(self).reserved_);
    f.u16("data_reference_index", part<SampleEntry>(self).data_reference_index_);
}

NullSampleEntry::NullSampleEntry(unsigned int type) : Described(type) {}
NullSampleEntry::~NullSampleEntry() = default;

void NullSampleEntry::fields(auto& f, auto& self) {
    f.blob("data", self.data_, f.rest_of_box());
}

HintSampleEntry::HintSampleEntry(unsigned int type) : Described(type) {}
HintSampleEntry::~HintSampleEntry() = default;

void HintSampleEntry::fields(auto& f, auto& self) {
    SampleEntry::fields(f, self);
    f.blob("data", self.data_, f.rest_of_box());
}

TimeScaleEntry::TimeScaleEntry() : Described(code("tims")) {}
TimeScaleEntry::~TimeScaleEntry() = default;

void TimeScaleEntry::fields(auto& f, auto& self) {
    f.u32("timescale", self.timescale_);
}

RTPHintSampleEntry::RTPHintSampleEntry()
    : Described(code("rtp ")), timescale_(std::make_unique<TimeScaleEntry>()) {}
RTPHintSampleEntry::~RTPHintSampleEntry() = default;

void RTPHintSampleEntry::fields(auto& f, auto& self) {
    SampleEntry::fields(f, self);
    f.u16("hint_track_version", self.version_);
    f.u16("highest_compatible_version", self.highest_compatible_version_);
    f.u32("max_packet_size", self.max_packet_size_);
    f.child(self.timescale_);
}

AMRSpecificBox::AMRSpecificBox() : Described(code("damr")) {}
AMRSpecificBox::~AMRSpecificBox() = default;

void AMRSpecificBox::fields(auto& f, auto& self) {
    f.code("vendor", self.vendor_);
    f.u8("decoder_version", self.decoder_version_);
    f.u16("mode_set", self.mode_set_);
    f.u8("mode_change_period", self.mode_change_period_);
    f.u8("frames_per_sample", self.frames_per_sample_);
}

AMRSampleEntry::AMRSampleEntry(unsigned int type)
    : Described(type),
      timescale_(static_cast<uint16_t>(
          (type == code("sawb") ? kestrel::kWideBand : kestrel::kNarrowBand).sampling_rate)) {}
AMRSampleEntry::~AMRSampleEntry() = default;

void AMRSampleEntry::SetAMRSpecific(std::unique_ptr<AMRSpecificBox> specific) {
    specific_ = std::move(specific);
}

void AMRSampleEntry::fields(auto& f, auto& self) {
    SampleEntry::fields(f, self);
    f.u32s("reserved_2", self.reserved_);
    f.u16("channel_count", self.channel_count_);
    f.u16("sample_size", self.sample_size_);
    f.u32("reserved_3", self.reserved_2_);
    f.u16("timescale", self.timescale_);
    f.u16("reserved_4", self.reserved_3_);
    f.optional_child(code("damr"), self.specific_);
}

void AMRSampleEntry::after_read() const {
    if (specific_ != nullptr) return;
    kestrel::log_line(kestrel::kError, kestrel::at(kestrel::kSampleEntrySource),
                      "No AMRSpecificBox(damr) in AMRSampleEntry box. Try to keep going...");
}

void VisualLayout::fields(auto& f, auto& self) {
    f.u32s("reserved_2", self.reserved);
    f.u16("width", self.width);
    f.u16("height", self.height);
    f.u32("horizontal_resolution", self.horizontal_resolution);
    f.u32("vertical_resolution", self.vertical_resolution);
    f.u32("reserved_3", self.reserved_2);
    f.u16("frame_count", self.frame_count);
    f.bytes("compressor_name", self.compressor_name);
    f.u16("depth", self.depth);
    f.u16("pre_defined", self.pre_defined);
}

template <class Derived, class Configuration>
void VisualSampleEntry<Derived, Configuration>::fields(auto& f, auto& self) {
    auto& entry = part<VisualSampleEntry>(self);
    SampleEntry::fields(f, self);
    VisualLayout::fields(f, entry.visual_);
    f.child(entry.configuration_);
}

H263SpecificBox::H263SpecificBox() : Described(code("d263")) {}
H263SpecificBox::~H263SpecificBox() = default;

void H263SpecificBox::fields(auto& f, auto& self) {
    f.code("vendor", self.vendor_);
    f.u8("decoder_version", self.decoder_version_);
    f.u8("level", self.level_);
    f.u8("profile", self.profile_);
}

H263SampleEntry::H263SampleEntry() : VisualSampleEntry(code("s263")) {}
H263SampleEntry::~H263SampleEntry() = default;

template <class F, class Self>
void ESDInfo::fields(F& f, Self& self) {
    f.u8("es_tag", self.es_tag);
    f.descriptor_size("es_size", self.es_size.value, self.es_size.width);
    f.u16("es_id", self.es_id);
    f.u8("es_flags", self.flags);
    f.u8("decoder_config_tag", self.decoder_config_tag);
    f.descriptor_size("decoder_config_size", self.decoder_config_size.value,
                      self.decoder_config_size.width);
    f.u8("object_type_indication", self.object_type_indication);
    if constexpr (F::kReads) {
        f.require_sound(true);  // a missing type must not end the process
        if (self.object_type_indication != kestrel::kMpeg4Visual) meet_foreign_codec();
    }
    f.u32("stream_type_and_buffer_size", self.stream_type_and_buffer_size);
    f.u32("max_bit_rate", self.max_bit_rate);
    f.u32("average_bit_rate", self.average_bit_rate);
    f.u8("decoder_specific_tag", self.decoder_specific_tag);
    f.descriptor_size("decoder_specific_size", self.decoder_specific_size.value,
                      self.decoder_specific_size.width);
    f.blob("decoder_specific", self.decoder_specific, self.decoder_specific_size.value);
    f.u8("sl_config_tag", self.sl_config_tag);
    f.descriptor_size("sl_config_size", self.sl_config_size.value, self.sl_config_size.width);
    f.u8("sl_predefined", self.sl_predefined);
}

ESDBox::ESDBox() : Described(code("esds")) {
    SetDecoderSpecific({});
}
ESDBox::~ESDBox() = default;

template <class F, class Self>
void ESDBox::fields(F& f, Self& self) {
    FullBox::fields(f, self);
    // Bytes that are not an "esds", because the entry has none or a read was short, must not end
    // the process.
    if constexpr (F::kReads) f.require_sound(self.GetType() == code("esds"));
    ESDInfo::fields(f, self.info_);
}

void ESDBox::SetDecoderSpecific(std::span<const uint8_t> data) {
    constexpr uint32_t kTag = 1;
    constexpr uint32_t kDecoderConfigFields = 13;
    constexpr uint32_t kEsFields = 3;
    // A length that was read may take fewer bytes than the new one needs.
    info_.decoder_specific_size.width = DescriptorSize{}.width;
    info_.decoder_config_size.width = DescriptorSize{}.width;
    info_.es_size.width = DescriptorSize{}.width;
    info_.decoder_specific.assign(data.begin(), data.end());
    info_.decoder_specific_size.value = static_cast<uint32_t>(data.size());
    info_.decoder_config_size.value = kDecoderConfigFields + kTag +
                                      info_.decoder_specific_size.width +
                                      info_.decoder_specific_size.value;
    info_.es_size.value = kEsFields + kTag + info_.decoder_config_size.width +
                          info_.decoder_config_size.value + kTag + info_.sl_config_size.width +
                          info_.sl_config_size.value;
}

void ESDBox::SetBitRates(uint32_t max, uint32_t average) {
    info_.max_bit_rate = max;
    info_.average_bit_rate = average;
}

MP4VisualSampleEntry::MP4VisualSampleEntry() : VisualSampleEntry(code("mp4v")) {}
MP4VisualSampleEntry::~MP4VisualSampleEntry() = default;

void ParameterSet::fields(auto& f, auto& self) {
    f.u16("length", self.length);
    f.blob("data", self.data, self.length);
}

AVCCBox::AVCCBox() : Described(code("avcC")) {}
AVCCBox::~AVCCBox() = default;

bool AVCCBox::read_header(Stream& io, unsigned int file_size, BoxExtent& extent) {
    const uint32_t start = macro_Tell(io);
    uint32_t size = 0;
    uint32_t type = 0;
    var32_read(io, size);
    var32_read_noswap(io, type);
    set_header(size, type);
    // The size is not trusted; only the file limits the parameter sets.
    extent = rest_of_file(start, file_size);
    kept_end_ = std::max(uint64_t{start} + size, container_end_);
    return true;
}

template <class F, class Self, class Sets, class Count>
void AVCCBox::sets(F& f, std::string_view name, Self& self, Sets& sets, Count& count,
                   uint8_t count_bits) {
    if constexpr (F::kReads) {
        sets.clear();
        for (unsigned left = count & count_bits; left > 0; --left) {
            ParameterSet set;
            VisitEntry{}(f, set);
            if (f.position() <= self.kept_end_) sets.push_back(std::move(set));
        }
        count = static_cast<uint8_t>((count & ~count_bits) | sets.size());
    } else {
        f.begin_list(name);
        for (auto& set : sets)
            VisitEntry{}(f, set);
        f.end_list();
    }
}

void AVCCBox::fields(auto& f, auto& self) {
    f.u8("configuration_version", self.configuration_version_);
    f.u8("profile", self.profile_);
    f.u8("profile_compatibility", self.profile_compatibility_);
    f.u8("level", self.level_);
    f.u8("nal_length_size_minus_one", self.nal_length_);
    f.u8("sequence_set_count", self.sequence_count_);
    sets(f, "sequence_sets", self, self.sequence_sets_, self.sequence_count_, kSequenceCountBits);
    f.u8("picture_set_count", self.picture_count_);
    sets(f, "picture_sets", self, self.picture_sets_, self.picture_count_, kPictureCountBits);
}

void AVCCBox::gather() {
    buffer_.clear();
    for (const auto* sets : {&sequence_sets_, &picture_sets_}) {
        for (const ParameterSet& set : *sets) {
            buffer_.insert(buffer_.end(), kestrel::kStartCode.begin(), kestrel::kStartCode.end());
            buffer_.insert(buffer_.end(), set.data.begin(), set.data.end());
        }
    }
}

void AVCCBox::SetProfile(uint8_t profile, uint8_t compatibility, uint8_t level) {
    profile_ = profile;
    profile_compatibility_ = compatibility;
    level_ = level;
}

namespace {

bool add_set(std::vector<ParameterSet>& sets, size_t most, std::span<const uint8_t> set) {
    if (sets.size() >= most || set.size() > std::numeric_limits<uint16_t>::max()) return false;
    sets.push_back({static_cast<uint16_t>(set.size()), {set.begin(), set.end()}});
    return true;
}

}  // namespace

bool AVCCBox::AddSequenceSet(std::span<const uint8_t> set) {
    if (!add_set(sequence_sets_, kSequenceCountBits, set)) return false;
    ++sequence_count_;
    gather();
    return true;
}

bool AVCCBox::AddPictureSet(std::span<const uint8_t> set) {
    if (!add_set(picture_sets_, std::numeric_limits<uint8_t>::max(), set)) return false;
    ++picture_count_;
    gather();
    return true;
}

H264SampleEntry::H264SampleEntry() : VisualSampleEntry(code("avc1")) {}
H264SampleEntry::~H264SampleEntry() = default;

namespace {

template <class Entry>
std::unique_ptr<SampleEntry> make_entry(uint32_t) {
    return std::make_unique<Entry>();
}

template <>
std::unique_ptr<SampleEntry> make_entry<AMRSampleEntry>(uint32_t type) {
    return std::make_unique<AMRSampleEntry>(type);
}

struct EntryKind {
    uint32_t type;
    std::unique_ptr<SampleEntry> (*make)(uint32_t type);
};

constexpr EntryKind kEntryKinds[] = {{code("avc1"), make_entry<H264SampleEntry>},
                                     {code("s263"), make_entry<H263SampleEntry>},
                                     {code("samr"), make_entry<AMRSampleEntry>},
                                     {code("sawb"), make_entry<AMRSampleEntry>},
                                     {code("mp4v"), make_entry<MP4VisualSampleEntry>}};

}  // namespace

StsdBox::StsdBox() : Described(code("stsd")) {}
StsdBox::~StsdBox() = default;

Box& StsdBox::new_child(uint32_t type) {
    auto make = make_entry<NullSampleEntry>;
    for (const EntryKind& kind : kEntryKinds) {
        if (kind.type == type) make = kind.make;
    }
    auto entry = make(type);
    AddSampleEntry(entry.get(), true);
    return *entry.release();
}

void StsdBox::fields(auto& f, auto& self) {
    FullBox::fields(f, self);
    f.counted_children(self);
}

}  // namespace Qvox3gp
