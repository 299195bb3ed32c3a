// SPDX-License-Identifier: Apache-2.0
// Every sample file through the box model, against an independent listing and against its own
// bytes.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "boxes/sample_entries.h"
#include "boxes/sample_tables.h"
#include "boxes/simple3gp.h"
#include "boxes/track_boxes.h"
#include "tests/support/box_io.h"

namespace Qvox3gp {
namespace {

struct ListedBox {
    int depth;
    std::string type;
    int64_t offset;
    uint32_t size;

    auto operator<=>(const ListedBox&) const = default;
    int64_t end() const { return offset + size; }
};

std::ostream& operator<<(std::ostream& out, const ListedBox& box) {
    return out << box.depth << ' ' << box.type << ' ' << box.offset << ' ' << box.size;
}

using Listing = std::vector<ListedBox>;

// The other program's listing of every sample.
std::map<std::string, Listing> golden_listings() {
    std::map<std::string, Listing> files;
    std::ifstream in(KESTREL_TEST_DATA "/golden/box_list.txt");
    std::string line;
    Listing* current = nullptr;
    while (std::getline(in, line)) {
        if (line.starts_with('#')) continue;
        if (line.starts_with("file ")) {
            current = &files[line.substr(5)];
            continue;
        }
        ListedBox box{};
        const size_t type_at = line.find(' ') + 1;
        std::istringstream(line) >> box.depth;
        box.type = line.substr(type_at, 4);
        std::istringstream(line.substr(type_at + 4)) >> box.offset >> box.size;
        current->push_back(box);
    }
    return files;
}

void list_below(const Box& parent, int depth, Listing& listing) {
    visit_children(parent, [&](const ChildPlace& place) {
        listing.push_back({depth, type_text(place.box->GetType()), place.offset, place.size});
        list_below(*place.box, depth + 1, listing);
    });
}

class EverySample : public testing::TestWithParam<std::string> {
  protected:
    void SetUp() override {
        bytes_ = file_bytes(std::string(KESTREL_SAMPLES "/") + GetParam());
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

std::vector<std::string> sample_names() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(KESTREL_SAMPLES)) {
        if (entry.path().extension() == ".3gp") names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string test_name(const testing::TestParamInfo<std::string>& info) {
    return info.param.substr(0, info.param.find('.'));
}

// Bodies that the model does not open.
const std::set<std::string> kClosed = {"udta", "rtp ", "mp4a", "free"};
// What the model skips after the configuration box of a visual entry.
const std::set<std::string> kPassedOver = {"pasp", "fiel", "colr", "btrt"};

// What the model can be expected to list of the other program's listing.
Listing expected_of(const Listing& golden) {
    Listing expected;
    int64_t closed_until = 0;
    for (const ListedBox& box : golden) {
        if (box.offset < closed_until || kPassedOver.contains(box.type)) continue;
        if (kClosed.contains(box.type)) closed_until = box.end();
        expected.push_back(box);
        // A header without a body at the very end of what a stream holds would read as "????"; the
        // samples have none.
    }
    return expected;
}

TEST_P(EverySample, HasTheBoxesThatAnotherProgramLists) {
    const auto golden = golden_listings();
    ASSERT_TRUE(golden.contains(GetParam())) << "no golden listing: see tests/golden/box_list.txt";
    Listing ours;
    list_below(file_, 0, ours);
    EXPECT_EQ(ours, expected_of(golden.at(GetParam())));
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
    Listing listing;
    list_below(again, 0, listing);
    const Bytes twice = dump(again);
    EXPECT_EQ(Bytes(twice.begin(), twice.begin() + static_cast<std::ptrdiff_t>(once.size())), once);
}

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

TEST_P(EverySample, HasTheTablesThatPlaybackNeeds) {
    ASSERT_NE(file_.GetFtyp(), nullptr);
    ASSERT_NE(file_.GetMoov(), nullptr);
    ASSERT_NE(file_.GetMoov()->GetMvhd(), nullptr);
    EXPECT_NE(file_.GetMoov()->GetMvhd()->GetTimescale(), 0u);
    for (const TrakBox* trak : file_.GetMoov()->GetTraks()) {
        const StblBox* stbl = trak->GetMdia()->GetMinf()->GetStbl();
        ASSERT_NE(stbl, nullptr);
        uint64_t samples = 0;
        for (const auto& entry : stbl->GetStts()->GetSampleEntries())
            samples += entry.sample_count;
        EXPECT_EQ(samples, stbl->GetStsz()->GetSampleCount());
        EXPECT_LE(stbl->GetStts()->GetDuration(), trak->GetMdia()->GetMdhd()->GetDuration());
        for (uint32_t offset : stbl->GetStco()->GetChunkOffsets())
            EXPECT_LT(offset, bytes_.size());
        EXPECT_NE(fields_of(*trak->GetTkhd())
                      .find("track_id=" + std::to_string(trak->GetTkhd()->GetTrackId()) + ';'),
                  std::string::npos);
        EXPECT_EQ(stbl->GetStsd()->GetSampleEntries().size(), 1u);
    }
}

INSTANTIATE_TEST_SUITE_P(Samples, EverySample, testing::ValuesIn(sample_names()), test_name);

TEST(FieldListing, NamesTheFieldsInFileOrder) {
    SttsBox stts;
    stts.AddSampleEntry({3, 160});
    stts.AddSampleEntry({1, 80});
    EXPECT_EQ(fields_of(stts),
              "version=0;flags=0;entry_count=2;entries[{sample_count=3;sample_delta=160;}"
              "{sample_count=1;sample_delta=80;}]");
    StssBox stss;
    stss.AddSyncSampleEntry(7);
    EXPECT_EQ(fields_of(stss), "version=0;flags=0;entry_count=1;sync_samples[=7;]");
    ElstBox elst;
    elst.AddEditEntry({500, -1, 1, 0});
    EXPECT_NE(fields_of(elst).find("media_time=-1;media_rate_integer=1;"), std::string::npos);
    EXPECT_EQ(fields_of(FtypBox()),
              "major_brand=3gp6;minor_version=256;compatible_brands[=3gp5;=3gp4;]");
    EXPECT_EQ(fields_of(UnknownBox()), "");
    EXPECT_EQ(fields_of(MoovBox()), "");
}

}  // namespace
}  // namespace Qvox3gp
