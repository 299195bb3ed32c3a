// Any bytes as a native stream: the walk lists records that lie in order inside it, and ends with
// the stream or at the damage.
#include "fuzz/support/support.h"
#include "tools/depacketise.h"
#include "tools/native_walk.h"

namespace {

using namespace fuzz;

// Looks at all that it is given, and joins the video as `unpack` does.
class Reader final : public tool::RecordSink {
  public:
    explicit Reader(View stream) : stream_(stream) {}

    void record(const tool::StreamRecord& record) override {
        check(record.offset >= behind_ && record.offset < stream_.size());
        behind_ = record.offset + 1;
        look_at(record.payload);
        for (const tool::Field& field : record.fields) {
            check(!field.name.empty());
            if (const auto* bytes = std::get_if<View>(&field.value)) look_at(*bytes);
        }
    }
    void medium(tool::Medium medium, View config) override {
        check(!joiner_);
        look_at(config);
        joiner_ = tool::make_depacketiser(medium, config,
                                          [this](View bytes) { joined_ += bytes.size(); });
    }
    void speech_frame(View frame) override { check(!frame.empty() && frame.size() <= 62); }
    void video_packet(View payload) override {
        look_at(payload);
        check(joiner_ != nullptr);
        joiner_->packet(payload);
        packets_++;
    }

    void finish() {
        if (joiner_) joiner_->finish();
        // A packet becomes no longer than it was but for start codes, and the configuration.
        check(joined_ <= 3 * stream_.size() + 5 * packets_);
    }

  private:
    void look_at(View bytes) {
        for (const uint8_t byte : bytes)
            sum_ = sum_ + byte;
    }

    View stream_;
    size_t behind_ = 0;
    std::unique_ptr<tool::Depacketiser> joiner_;
    size_t joined_ = 0;
    size_t packets_ = 0;
    volatile unsigned sum_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader reader({data, size});
    try {
        tool::walk_native({data, size}, reader);
        reader.finish();
    } catch (const tool::Damage& damage) {
        check(damage.offset <= size && !damage.reason.empty());
    }
    return 0;
}
