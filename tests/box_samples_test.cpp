// SPDX-License-Identifier: Apache-2.0
// Every sample file through the box model, against its own bytes.
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "boxes/sample_entries.h"
#include "boxes/sample_tables.h"
#include "boxes/simple3gp.h"
#include "boxes/track_boxes.h"
#include "tests/support/box_io.h"

namespace Qvox3gp {
namespace {

class EverySample : public testing::TestWithParam<std::string> {
  protected:
    void SetUp() override {
        bytes_ = read_sample(GetParam());
        ASSERT_FALSE(bytes_.empty());
        stream_ = std::make_unique<MemoryStream>(bytes_);
        file_.Read(stream_->io(), 0);
    }

    Bytes slice(int64_t offset, size_t size) const {
        const auto from = bytes_.begin() + static_cast<std::ptrdiff_t>(offset);
        return {from, from + static_cast<std::ptrdiff_t>(size)};
    }

    Bytes bytes_;
    std::unique_ptr<MemoryStream> stream_;
    Simple3gp file_;
};

std::string test_name(const testing::TestParamInfo<std::string>& info) {
    return info.param.substr(0, info.param.find('.'));
}

std::vector<ChildPlace> all_places(const Box& parent) {
    std::vector<ChildPlace> places;
    visit_children(parent, [&](const ChildPlace& place) {
        places.push_back(place);
        const auto below = all_places(*place.box);
        places.insert(places.end(), below.begin(), below.end());
    });
    return places;
}

// Boxes of which the model keeps less than the file has (docs/box-model.md).
bool is_shortened(const ChildPlace& place) {
    static const std::set<std::string> kShortened = {"free", "udta", "mdat", "sgpd", "sbgp",
                                                     "ctts", "hdlr", "avc1", "s263", "mp4v"};
    return kShortened.contains(type_text(place.box->GetType())) &&
           place.box->GetSize() != place.size;
}

// What Dump writes for a box that the file has: its own bytes, save where the model shortens it or
// something below it; then its own fields still, and the sum of what is below.
TEST_P(EverySample, DumpsEachModelledBoxAsItStands) {
    const auto places = all_places(file_);  // first: Dump gives a box a new place
    std::set<std::string> exact;
    for (const ChildPlace& place : places) {
        const std::string name = type_text(place.box->GetType());
        const auto below = all_places(*place.box);
        const Bytes dumped = dump(*place.box);
        EXPECT_EQ(dumped.size(), place.box->GetSize()) << name;
        if (!is_shortened(place) && std::none_of(below.begin(), below.end(), is_shortened)) {
            EXPECT_EQ(dumped, slice(place.offset, place.size)) << name << " at " << place.offset;
            exact.insert(name);
            continue;
        }
        size_t own = dumped.size();
        visit_children(*place.box, [&](const ChildPlace& child) { own -= child.box->GetSize(); });
        if (name == "hdlr") --own;  // the terminator stands where the name was
        EXPECT_EQ(Bytes(dumped.begin() + 4, dumped.begin() + static_cast<std::ptrdiff_t>(own)),
                  slice(place.offset + 4, own - 4))
            << name << " at " << place.offset;
    }
    for (const char* name :
         {"ftyp", "mvhd", "tkhd", "mdhd", "dinf", "dref", "url ", "stts", "stsc", "stsz", "stco"}) {
        EXPECT_TRUE(exact.contains(name)) << name;
    }
}

TEST_P(EverySample, ReadsItsOwnDumpBackToTheSameDump) {
    // Without the media data and the skipped boxes, whose sizes are those of their headers then.
    const Bytes once = dump(file_);
    EXPECT_EQ(once.size(), file_.GetSize());
    MemoryStream stream(once + box("free", zeros(8)));  // a last header alone would be reset
    Simple3gp again;
    again.Read(stream.io(), 0);
    const Bytes twice = dump(again);
    EXPECT_EQ(Bytes(twice.begin(), twice.begin() + static_cast<std::ptrdiff_t>(once.size())), once);
}

INSTANTIATE_TEST_SUITE_P(Samples, EverySample, testing::ValuesIn(sample_names()), test_name);

// Collects field names and values, to show that the listing says what the getters say.
class Collector : public FieldVisitor {
  public:
    void number(std::string_view name, int64_t value) override {
        out_ << name << '=' << value << ';';
    }
    void code(std::string_view name, std::string_view four_bytes) override {
        out_ << name << '=' << four_bytes << ';';
    }
    void bytes(std::string_view name, std::span<const uint8_t> data) override {
        out_ << name << '#' << data.size() << ';';
    }
    void begin_list(std::string_view name) override { out_ << name << '['; }
    void end_list() override { out_ << ']'; }
    void begin_record() override { out_ << '{'; }
    void end_record() override { out_ << '}'; }
    std::string text() const { return out_.str(); }

  private:
    std::ostringstream out_;
};

std::string fields_of(const Box& box) {
    Collector collector;
    visit_fields(box, collector);
    return collector.text();
}

// Those of a box and of what is in it.
std::string fields_below(const Box& box) {
    std::string fields = fields_of(box);
    visit_children(box, [&](const ChildPlace& place) {
        fields += type_text(place.box->GetType()) + '(' + fields_below(*place.box) + ')';
    });
    return fields;
}

const Bytes kEntryFields = zeros(6) + be16(1);
const Bytes kVisualFields = kEntryFields + zeros(16) + be16(176) + be16(144) + be32(0x480000) +
                            be32(0x480000) + zeros(4) + be16(1) + zeros(32) + be16(24) +
                            be16(0xFFFF);
constexpr const char* kVisual =
    "reserved#6;data_reference_index=1;reserved_2[=0;=0;=0;=0;]width=176;height=144;"
    "horizontal_resolution=4718592;vertical_resolution=4718592;reserved_3=0;frame_count=1;"
    "compressor_name#32;depth=24;pre_defined=65535;";

// Each field of a box in file order, read from bytes; and the box writes these bytes again.
TEST(FieldListing, NamesTheFieldsInFileOrder) {
    const std::string visual = kVisual;
    const struct {
        Bytes entry;
        std::string fields;
    } entries[] = {
        {box("samr", kEntryFields + zeros(8) + be16(2) + be16(16) + zeros(4) + be16(8000) +
                         be16(0) + box("damr", text("ABCD") + Bytes{1, 0x81, 0xFF, 3, 5})),
         "samr(reserved#6;data_reference_index=1;reserved_2[=0;=0;]channel_count=2;sample_size=16;"
         "reserved_3=0;timescale=8000;reserved_4=0;damr(vendor=ABCD;decoder_version=1;"
         "mode_set=33279;mode_change_period=3;frames_per_sample=5;))"},
        {box("s263", kVisualFields + box("d263", text("ABCD") + Bytes{9, 45, 3})),
         "s263(" + visual + "d263(vendor=ABCD;decoder_version=9;level=45;profile=3;))"},
        {box("avc1", kVisualFields + box("avcC", Bytes{1, 66, 0xC0, 10, 0xFF, 0xE1, 0, 2, 0x67, 8,
                                                       1, 0, 1, 0x68})),
         "avc1(" + visual +
             "avcC(configuration_version=1;profile=66;profile_compatibility=192;level=10;"
             "nal_length_size_minus_one=255;sequence_set_count=225;"
             "sequence_sets[{length=2;data#2;}]picture_set_count=1;"
             "picture_sets[{length=1;data#1;}]))"},
        {box("mp4v", kVisualFields +
                         full_box("esds", Bytes{3, 0x20, 0,   1,   0,   4, 0x15, 0x20, 0x11, 0,
                                                0, 9,    0,   0,   250, 0, 0,    0,    187,  128,
                                                5, 3,    'a', 'b', 'c', 6, 1,    2})),
         "mp4v(" + visual +
             "esds(version=0;flags=0;es_tag=3;es_size=32;es_id=1;es_flags=0;decoder_config_tag=4;"
             "decoder_config_size=21;object_type_indication=32;"
             "stream_type_and_buffer_size=285212681;max_bit_rate=64000;average_bit_rate=48000;"
             "decoder_specific_tag=5;decoder_specific_size=3;decoder_specific#3;sl_config_tag=6;"
             "sl_config_size=1;sl_predefined=2;))"},
        {box("rtp ", kEntryFields + be16(1) + be16(1) + be32(1450) + box("tims", be32(90000))),
         "rtp (data#28;)"},
    };
    for (const auto& [entry, fields] : entries) {
        MemoryStream in(full_box("stsd", be32(1) + entry) + zeros(1));
        StsdBox stsd;
        stsd.Read(in.io(), in.size());
        EXPECT_EQ(fields_below(stsd), "version=0;flags=0;entry_count=1;" + fields);
        EXPECT_EQ(dump(*stsd.GetSampleEntries().at(0)), entry);
    }
    MemoryStream in(full_box("elst", be32(2) + words({600, 0xFFFFFFFF, 0x10000, 5, 7, 0x20003})) +
                    zeros(1));
    ElstBox elst;
    elst.Read(in.io(), in.size());
    EXPECT_EQ(fields_of(elst),
              "version=0;flags=0;entry_count=2;entries[{segment_duration=600;media_time=-1;"
              "media_rate_integer=1;media_rate_fraction=0;}{segment_duration=5;media_time=7;"
              "media_rate_integer=2;media_rate_fraction=3;}]");
    EXPECT_EQ(fields_of(FtypBox()),
              "major_brand=3gp6;minor_version=256;compatible_brands[=3gp5;=3gp4;]");
    EXPECT_EQ(fields_of(UnknownBox()) + fields_of(MoovBox()), "");
}

}  // namespace
}  // namespace Qvox3gp
