#include "Hid/ReportDescriptor.h"

#include "Hid/HidLimits.h"

namespace devio::hid {

namespace {

// Main item tags (HID 1.11, 6.2.2.4).
enum MainTag : std::uint8_t {
    kInput = 0x8,
    kOutput = 0x9,
    kCollection = 0xA,
    kFeature = 0xB,
    kEndCollection = 0xC,
};

// Builds the collection model from the item stream; one instance per parse.
class ModelBuilder {
public:
    explicit ModelBuilder(ReportDescriptor& out) : out_(out) {}

    bool onMain(const Item& item, std::string& error) {
        switch (item.tag) {
            case kCollection:
                return openCollection(error);
            case kEndCollection:
                return closeCollection(error);
            case kInput:
                return addField(ReportKind::Input, item, error);
            case kOutput:
                return addField(ReportKind::Output, item, error);
            case kFeature:
                return addField(ReportKind::Feature, item, error);
            default:
                state_.clearLocal();
                return true;  // reserved main tag
        }
    }

    bool finish(std::string& error) {
        if (depth_ != 0) return fail(error, "collection not closed");
        out_.uses_report_ids = state_.usesReportIds();
        return true;
    }

    StateTable& state() { return state_; }

private:
    bool fail(std::string& error, const char* why) {
        error = why;
        return false;
    }

    bool openCollection(std::string& error) {
        if (depth_ >= kMaxCollectionDepth) return fail(error, "collections nested too deep");
        if (collections_seen_ >= kMaxCollections) return fail(error, "too many collections");
        ++collections_seen_;
        if (depth_ == 0) {
            TopLevelCollection tlc;
            const std::vector<UsageEntry> usages = state_.resolvedUsages();
            const std::uint32_t usage =
                usages.empty() ? (static_cast<std::uint32_t>(state_.global().usage_page) << 16)
                               : usages.front().min;
            tlc.usage_page = static_cast<std::uint16_t>(usage >> 16);
            tlc.usage = static_cast<std::uint16_t>(usage & 0xFFFF);
            out_.collections.push_back(std::move(tlc));
        }
        ++out_.collections.back().link_collections;
        ++depth_;
        state_.clearLocal();
        return true;
    }

    bool closeCollection(std::string& error) {
        if (depth_ == 0) return fail(error, "end collection without collection");
        --depth_;
        state_.clearLocal();
        return true;
    }

    bool addField(ReportKind kind, const Item& item, std::string& error) {
        if (depth_ == 0) {
            state_.clearLocal();
            return true;
        }
        if (++fields_seen_ > kMaxFields) return fail(error, "too many main items");
        const GlobalState& g = state_.global();
        std::uint64_t& bits = report_bits_[static_cast<std::size_t>(kind)][g.report_id];
        bits += std::uint64_t{g.report_size} * g.report_count;
        if (bits > kMaxReportBytes * 8) return fail(error, "report too long");
        ReportField f;
        f.kind = kind;
        f.report_id = g.report_id;
        f.report_size = g.report_size;
        f.report_count = g.report_count;
        f.flags = item.udata;
        f.logical_min = g.logical_min;
        f.logical_max = g.logical_max;
        f.usages = state_.resolvedUsages();
        state_.clearLocal();
        out_.collections.back().fields.push_back(std::move(f));
        return true;
    }

    ReportDescriptor& out_;
    StateTable state_;
    std::size_t depth_ = 0;
    std::size_t collections_seen_ = 0;
    std::size_t fields_seen_ = 0;
    std::uint64_t report_bits_[3][256] = {};
};

}  // namespace

bool parseReportDescriptor(std::span<const std::uint8_t> bytes, ReportDescriptor& out,
                           std::string& error) {
    out = ReportDescriptor{};
    if (bytes.size() > kMaxDescriptorBytes) {
        error = "descriptor too long";
        return false;
    }
    ItemReader reader(bytes);
    ModelBuilder builder(out);
    Item item;
    for (;;) {
        const DecodeStatus ds = reader.next(item);
        if (ds == DecodeStatus::End) break;
        if (ds == DecodeStatus::Truncated) {
            error = "truncated item";
            return false;
        }
        StateStatus ss = StateStatus::Ok;
        switch (item.type) {
            case ItemType::Main:
                if (!builder.onMain(item, error)) return false;
                break;
            case ItemType::Global:
                ss = builder.state().applyGlobal(item);
                break;
            case ItemType::Local:
                ss = builder.state().applyLocal(item);
                break;
            case ItemType::Reserved:
            case ItemType::Long:
                break;
        }
        if (ss != StateStatus::Ok) {
            error = toText(ss);
            return false;
        }
    }
    return builder.finish(error);
}

}  // namespace devio::hid
