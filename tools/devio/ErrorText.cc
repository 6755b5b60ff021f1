#include "ErrorText.h"

namespace devio_tool {

const char* errorName(devio::ErrorCode err) {
    // Spelled as the library's enumeration, so that a user can search the
    // library's log and documentation for it.
#define DEVIO_TOOL_NAME(code) \
    case devio::code:         \
        return #code;
    switch (err) {
        DEVIO_TOOL_NAME(Success)
        DEVIO_TOOL_NAME(InternalError)
        DEVIO_TOOL_NAME(CommandResponseTooShort)
        DEVIO_TOOL_NAME(NoResponse)
        DEVIO_TOOL_NAME(NotConnected)
        DEVIO_TOOL_NAME(RegisterNotificationFailed)
        DEVIO_TOOL_NAME(InvalidDeviceHandle)
        DEVIO_TOOL_NAME(Vxp10Error0)
        DEVIO_TOOL_NAME(Vxp10Error1)
        DEVIO_TOOL_NAME(Vxp10Error2)
        DEVIO_TOOL_NAME(Vxp10Error3)
        DEVIO_TOOL_NAME(Vxp10Error4)
        DEVIO_TOOL_NAME(Vxp10Error5)
        DEVIO_TOOL_NAME(Vxp10Error6)
        DEVIO_TOOL_NAME(Vxp10Error7)
        DEVIO_TOOL_NAME(Vxp10Error8)
        DEVIO_TOOL_NAME(Vxp10Error9)
        DEVIO_TOOL_NAME(Vxp10Error10)
        DEVIO_TOOL_NAME(Vxp10Error11)
        DEVIO_TOOL_NAME(Vxp10Error12)
        DEVIO_TOOL_NAME(Vxp10ErrorUnknown)
        DEVIO_TOOL_NAME(NotVxp20)
        DEVIO_TOOL_NAME(WriteExceedsCollectionSize)
        DEVIO_TOOL_NAME(CannotPerformBlockingWriteOnReadThread)
        DEVIO_TOOL_NAME(CannotPerformWriteWithoutReadThreadRunning)
        DEVIO_TOOL_NAME(DeviceRemoved)
        DEVIO_TOOL_NAME(EmptyName)
        DEVIO_TOOL_NAME(NotPresent)
        DEVIO_TOOL_NAME(PlatformLibraryFailed)
        DEVIO_TOOL_NAME(NoDevicePath)
        DEVIO_TOOL_NAME(CreateFileFailed)
        DEVIO_TOOL_NAME(GetAttributesFailed)
        DEVIO_TOOL_NAME(GetPreparsedDataFailed)
        DEVIO_TOOL_NAME(GetCapsFailed)
        DEVIO_TOOL_NAME(NotVendorUsagePage)
        DEVIO_TOOL_NAME(NotVxpCollection)
        DEVIO_TOOL_NAME(WriteTimeout)
        DEVIO_TOOL_NAME(WriteError)
        DEVIO_TOOL_NAME(WindowCreateFailed)
        DEVIO_TOOL_NAME(SetupApiFailed)
        DEVIO_TOOL_NAME(BadPointerCast)
        DEVIO_TOOL_NAME(Vxp20Error0)
        DEVIO_TOOL_NAME(Vxp20Error1)
        DEVIO_TOOL_NAME(Vxp20Error2)
        DEVIO_TOOL_NAME(Vxp20Error3)
        DEVIO_TOOL_NAME(Vxp20Error4)
        DEVIO_TOOL_NAME(Vxp20Error5)
        DEVIO_TOOL_NAME(Vxp20Error6)
        DEVIO_TOOL_NAME(Vxp20Error7)
        DEVIO_TOOL_NAME(Vxp20Error8)
        DEVIO_TOOL_NAME(Vxp20Error9)
        DEVIO_TOOL_NAME(Vxp20ErrorUnknown)
        DEVIO_TOOL_NAME(Abandoned)
        DEVIO_TOOL_NAME(WriteGeneralFailure)
        DEVIO_TOOL_NAME(WindowThreadException)
        DEVIO_TOOL_NAME(InterfaceNotificationFailed)
        DEVIO_TOOL_NAME(BluetoothStartFailed)
        DEVIO_TOOL_NAME(ArrivalCountMismatch)
        DEVIO_TOOL_NAME(FwVersionChanged)
        DEVIO_TOOL_NAME(SwidCollision)
        DEVIO_TOOL_NAME(NotVendorDevice)
        DEVIO_TOOL_NAME(WriteTooShort)
        DEVIO_TOOL_NAME(ShuttingDown)
        DEVIO_TOOL_NAME(RadioNotPresent)
        DEVIO_TOOL_NAME(BluetoothDeviceInfoFailed)
        DEVIO_TOOL_NAME(FileHandleClosed)
        DEVIO_TOOL_NAME(InvalidConfigItem)
        DEVIO_TOOL_NAME(EnumerationFailed)
        DEVIO_TOOL_NAME(PingEchoMismatch)
    }
#undef DEVIO_TOOL_NAME
    return "unknown error";
}

Failure lastFailure() {
    const devio::ErrorRecord& r = devio::error_record();
    return Failure{r.err, r.str ? r.str : "", r.sys};
}

std::string describe(const Failure& f) {
    std::string text = std::string(errorName(f.err)) + " (" + std::to_string(f.err) + ")";
    if (!f.text.empty()) text += ": " + f.text;
    if (f.sys != 0) text += ", sys " + std::to_string(f.sys);
    return text;
}

}  // namespace devio_tool
