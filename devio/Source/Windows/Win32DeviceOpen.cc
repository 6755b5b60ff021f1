// Win32Device::open: the acceptance rule that tells a VXP collection of the
// maker's devices from every other HID interface, and the opening of one.

#include <cstdlib>

#include "Base/ClassLog.h"
#include "Base/ErrorRecord.h"
#include "Windows/Win32Bus.h"
#include "Windows/Win32Device.h"

namespace devio {

namespace {
constexpr std::uint16_t kVendorId = 0x2E5A;
constexpr std::uint16_t kVendorPage = 0xFF00;
constexpr std::uint16_t kMaskPage = 0xFF43;
// What a product string buffer of 252 bytes holds: 16-bit characters, the
// last one the terminator.
constexpr std::size_t kMaxNameChars = 252 / 2 - 1;

// Bluetooth LE interfaces may give zero attributes; their path then names
// the ids.
void idsFromPath(const std::string& path, std::uint16_t& vid, std::uint16_t& pid) {
    const auto i = path.find("}_dev_vid&02");
    if (i == std::string::npos || i + 25 >= path.size()) return;
    const std::string v = path.substr(i + 12, 4);
    const std::string p = path.substr(i + 21, 4);
    DEVIO_LOG("Win32Device", 3, "open", "vid is %s and pid is %s", v.c_str(), p.c_str());
    vid = static_cast<std::uint16_t>(std::strtoul(v.c_str(), nullptr, 16));
    pid = static_cast<std::uint16_t>(std::strtoul(p.c_str(), nullptr, 16));
}

// The platform gives UTF-8; the name keeps one byte per character, the low
// byte of each character's code, as the name has always been kept.
std::string lowBytesOf(const std::string& utf8) {
    std::string out;
    for (std::size_t i = 0; i < utf8.size() && out.size() < kMaxNameChars;) {
        const auto lead = static_cast<unsigned char>(utf8[i]);
        const std::size_t len = lead < 0x80           ? 1
                                : (lead >> 5) == 0x6  ? 2
                                : (lead >> 4) == 0xE  ? 3
                                : (lead >> 3) == 0x1E ? 4
                                                      : 1;
        std::uint32_t code = len == 1 ? lead : lead & (0x7F >> len);
        for (std::size_t k = 1; k < len && i + k < utf8.size(); ++k)
            code = (code << 6) | (utf8[i + k] & 0x3F);
        if (code == 0) break;
        out += static_cast<char>(code & 0xFF);
        i += len;
    }
    return out;
}
}  // namespace

bool Win32Device::fail_open(ErrorCode err, std::uint32_t sys, const char* text) {
    close();
    set_error(err, nullptr, sys);
    DEVIO_LOG("Win32Device", 2, "open", "%s", text);
    return false;
}

bool Win32Device::open() {
    std::lock_guard<std::recursive_mutex> lifecycle(lifecycle_mutex_);
    if (removed_) {
        set_error(DeviceRemoved);
        DEVIO_LOG("Win32Device", 2, "open", "Win32Device::open exit (false, DeviceRemoved)");
        return false;
    }
    if (destructed_) {
        DEVIO_LOG("Win32Device", 2, "open",
                  "Win32Device::open enter/exit (false, already destructed)");
        return false;
    }
    if (open_) {
        DEVIO_LOG("Win32Device", 3, "open",
                  "Win32Device::open verifying handle that is already open");
        auto bus = bus_.lock();
        if (notification_ != 0 && bus &&
            bus->verifyDeviceNotificationHandleOpen(notification_, handle_)) {
            DEVIO_LOG("Win32Device", 2, "open", "Win32Device::open exit (true, already open)");
            return true;
        }
        close();
        DEVIO_LOG("Win32Device", 2, "open", "Win32Device::open handle not valid, reopening");
    }
    if (path_.empty()) {
        set_error(NoDevicePath);
        DEVIO_LOG("Win32Device", 2, "open", "Win32Device::open exit (false, no filepath)");
        return false;
    }
    DEVIO_LOG("Win32Device", 2, "open", "Opening device '%s'", path_.c_str());
    std::uint32_t sys = 0;
    handle_ = system_->open_interface(path_, sys);
    if (handle_ == kInvalidHandle) {
        set_error(CreateFileFailed, "CreateFile failed", sys);
        DEVIO_LOG("Win32Device", 2, "open", "Win32Device::open exit (false, CreateFile failed)");
        return false;
    }
    open_ = true;

    if (!caps_known_ && !passes_filters()) return false;

    sys = 0;
    stop_event_ = system_->create_event(sys);
    if (stop_event_ == kInvalidHandle)
        return fail_open(InvalidDeviceHandle, sys, "Win32Device::open exit (false, event)");

    auto bus = bus_.lock();
    if (!bus) {
        DEVIO_LOG("Win32Device", 1, "open",
                  "Win32Device::open could not lock bus to register handle");
        close();
        set_error(ShuttingDown);
        DEVIO_LOG("Win32Device", 2, "open",
                  "Win32Device::open exit (false, not a vxp collection usage code)");
        return false;
    }
    notification_ = bus->registerDeviceNotificationAndTakeOwnershipOfHandle(handle_);
    if (notification_ == 0) {
        const ErrorRecord saved = error_record();
        close();
        DEVIO_LOG("Win32Device", 2, "open",
                  "Win32Device::open exit (false, could not register device notification)");
        error_record() = saved;
        return false;
    }
    if (reading_) start_read_thread();
    DEVIO_LOG("Win32Device", 2, "open", "Win32Device::open opened dev=%s", path_.c_str());
    DEVIO_LOG("Win32Device", 2, "open", "Win32Device::open exit (true)");
    return true;
}

// Steps that run once per object: attributes, vendor, caps, usage, counts,
// sizes, product string and parent.
bool Win32Device::passes_filters() {
    std::uint32_t sys = 0;
    HidAttributes attrs;
    if (!system_->get_attributes(handle_, attrs, sys)) {
        return fail_open(GetAttributesFailed, sys,
                         "Win32Device::open exit (false, HidD_GetAttributes failed)");
    }
    vid_ = attrs.vendor_id;
    pid_ = attrs.product_id;
    version_ = attrs.version;
    DEVIO_LOG("Win32Device", 2, "open", "Win32Device::open vid=0x%04x pid=0x%04x ver=0x%04x", vid_,
              pid_, version_);
    if (vid_ == 0 && pid_ == 0) idsFromPath(path_, vid_, pid_);
    if (vid_ != kVendorId) {
        return fail_open(NotVendorDevice, pid_,
                         "Win32Device::open exit (false, ignoring non vantrel device)");
    }

    const std::shared_ptr<const HidPreparsedData> preparsed =
        system_->get_preparsed_data(handle_, sys);
    if (!preparsed) {
        return fail_open(GetPreparsedDataFailed, sys,
                         "Win32Device::open exit (false, HidD_GetPreparsedData failed)");
    }
    hid::CollectionCaps caps;
    if (!system_->get_caps(*preparsed, caps, sys)) {
        return fail_open(GetCapsFailed, sys, "Win32Device::open exit (false, HidP_GetCaps failed)");
    }
    if (!read_caps(caps)) return false;
    read_product_string();
    caps_known_ = true;
    if (collection_id() != collections_expected() && parent_instance_.empty())
        find_parent_instance();
    return true;
}

bool Win32Device::read_caps(const hid::CollectionCaps& caps) {
    output_report_length_ = caps.output.report_length;
    usage_ = caps.usage;
    usage_page_ = caps.usage_page;
    DEVIO_LOG(
        "Win32Device", 3, "open",
        "Win32Device::open inReportLength=%d outReportLength=%d usagePage=0x%04x usage=0x%04x",
        caps.input.report_length, caps.output.report_length, usage_page_, usage_);
    DEVIO_LOG("Win32Device", 3, "open",
              "Win32Device::open NumberInputDataIndices=%d NumberInputValueCaps=%d "
              "NumberInputButtonCaps=%d",
              caps.input.data_indices, static_cast<int>(caps.input.value_caps.size()),
              static_cast<int>(caps.input.button_caps.size()));
    DEVIO_LOG("Win32Device", 3, "open",
              "Win32Device::open NumberOutputDataIndices=%d NumberOutputValueCaps=%d "
              "NumberOutputButtonCaps=%d",
              caps.output.data_indices, static_cast<int>(caps.output.value_caps.size()),
              static_cast<int>(caps.output.button_caps.size()));
    DEVIO_LOG("Win32Device", 3, "open",
              "Win32Device::open NumberLinkCollectionNodes=%d featureLength=%d",
              caps.link_collection_nodes, caps.feature.report_length);

    static constexpr const char kNotVxp[] =
        "Win32Device::open exit (false, not a vxp collection usage code)";
    if (usage_page_ == kVendorPage) {
        if (usage_ != 1 && usage_ != 2) return fail_open(NotVxpCollection, 0, kNotVxp);
    } else if (usage_page_ == kMaskPage) {
        const unsigned low = usage_ & 0xFF;
        const unsigned high = usage_ >> 8;
        unsigned bit = 0;
        while (bit < 8 && low != (1u << bit)) ++bit;
        DEVIO_LOG("Win32Device", 3, "open", "Win32Device::open thisusage=%d expected=%d bit=%d",
                  low, high, bit);
        if (bit == 8 || (high & usage_) == 0) return fail_open(NotVxpCollection, 0, kNotVxp);
    } else {
        return fail_open(NotVendorUsagePage, 0,
                         "Win32Device::open exit (false, not vendor usage page)");
    }

    if (caps.output.button_caps.size() + caps.output.value_caps.size() != 1 ||
        caps.input.value_caps.size() + caps.input.button_caps.size() != 1) {
        return fail_open(NotVxpCollection, 0,
                         "Win32Device::open exit (false, not just a single button or value cap)");
    }
    if (caps.input.report_length != caps.output.report_length) {
        return fail_open(
            NotVxpCollection, 0,
            "Win32Device::open exit (false, mismatched input and output report sizes)");
    }

    int index = 0;
    for (const hid::Cap& cap : caps.output.value_caps) {
        DEVIO_LOG("Win32Device", 3, "open",
                  "Win32Device::open valcap%d reportid=%d bitsize=%d count=%d isrange=%d usage=%d",
                  index++, cap.report_id, cap.bit_size, cap.report_count, cap.is_range,
                  cap.usage_min);
        report_sizes_[cap.report_id] = output_report_length_;
    }
    index = 0;
    for (const hid::Cap& cap : caps.output.button_caps) {
        DEVIO_LOG("Win32Device", 3, "open",
                  "Win32Device::open butcap%d reportid=%d isrange=%d usage=%d", index++,
                  cap.report_id, cap.is_range, cap.usage_min);
        report_sizes_[cap.report_id] = output_report_length_;
    }
    return true;
}

// A refusal leaves the name empty without a word; only a failed query is
// logged, and the open goes on in both cases.
void Win32Device::read_product_string() {
    std::string name;
    std::uint32_t sys = 0;
    const int r = system_->get_product_string(handle_, name, sys);
    if (r < 0) {
        DEVIO_LOG("Win32Device", 1, "open",
                  "Win32Device::open HidD_GetProductString failed, err=%d", static_cast<int>(sys));
        return;
    }
    if (r == 0) return;
    product_name_ = lowBytesOf(name);
    DEVIO_LOG("Win32Device", 3, "open", "HidD_GetProductString returned str %s",
              product_name_.c_str());
}

// Pieces of one device share the parent of their interfaces; any failure
// leaves the parent unknown, silently.
void Win32Device::find_parent_instance() {
    const std::string instance = system_->setupdi_instance_from_path(path_);
    if (instance.empty()) return;
    const std::string parent = system_->setupdi_parent(instance);
    if (parent != instance) parent_instance_ = parent;
}

}  // namespace devio
