#pragma once

#include <cstdint>

namespace devio {

// The library's error numbers. The values are fixed: hosts log and compare
// them as numbers, so a value is never reused or moved. Gaps are unassigned.
enum ErrorCode : std::uint32_t {
    Success = 0,
    InternalError = 1,  // always with a text
    CommandResponseTooShort = 2,
    NoResponse = 4,  // time-out of a command, or all retries used
    NotConnected = 5,
    RegisterNotificationFailed = 6,
    InvalidDeviceHandle = 7,
    // A VXP 1.0 error report; the error byte is also kept as `sys`.
    Vxp10Error0 = 8,
    Vxp10Error1 = 9,
    Vxp10Error2 = 10,
    Vxp10Error3 = 11,
    Vxp10Error4 = 12,
    Vxp10Error5 = 13,
    Vxp10Error6 = 14,
    Vxp10Error7 = 15,
    Vxp10Error8 = 16,
    Vxp10Error9 = 17,
    Vxp10Error10 = 18,
    Vxp10Error11 = 19,
    Vxp10Error12 = 20,
    Vxp10ErrorUnknown = 21,
    NotVxp20 = 22,
    WriteExceedsCollectionSize = 25,
    CannotPerformBlockingWriteOnReadThread = 26,
    CannotPerformWriteWithoutReadThreadRunning = 27,
    DeviceRemoved = 28,
    EmptyName = 29,
    NotPresent = 30,
    PlatformLibraryFailed = 31,
    NoDevicePath = 32,
    CreateFileFailed = 33,
    GetAttributesFailed = 34,
    GetPreparsedDataFailed = 35,
    GetCapsFailed = 36,
    NotVendorUsagePage = 37,
    NotVxpCollection = 38,
    WriteTimeout = 39,
    WriteError = 40,
    WindowCreateFailed = 41,
    SetupApiFailed = 42,
    BadPointerCast = 43,
    // A VXP 2.0 error report; the error byte is also kept as `sys`.
    Vxp20Error0 = 44,
    Vxp20Error1 = 45,
    Vxp20Error2 = 46,
    Vxp20Error3 = 47,
    Vxp20Error4 = 48,
    Vxp20Error5 = 49,
    Vxp20Error6 = 50,
    Vxp20Error7 = 51,
    Vxp20Error8 = 52,
    Vxp20Error9 = 53,
    Vxp20ErrorUnknown = 54,
    Abandoned = 55,
    WriteGeneralFailure = 61,
    WindowThreadException = 62,
    InterfaceNotificationFailed = 63,
    BluetoothStartFailed = 64,
    ArrivalCountMismatch = 65,
    FwVersionChanged = 67,
    SwidCollision = 68,
    NotVendorDevice = 70,
    WriteTooShort = 71,
    ShuttingDown = 72,
    RadioNotPresent = 73,
    BluetoothDeviceInfoFailed = 74,
    FileHandleClosed = 75,
    InvalidConfigItem = 76,
    EnumerationFailed = 77,
    PingEchoMismatch = 78,
};

}  // namespace devio
