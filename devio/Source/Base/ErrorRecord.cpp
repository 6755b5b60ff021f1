#include "Base/ErrorRecord.h"

namespace devio {

namespace {
thread_local ErrorRecord record;
}  // namespace

ErrorRecord& error_record() {
    return record;
}

void set_error(ErrorCode err, const char* str, std::uint32_t sys) {
    record.err = err;
    record.str = str;
    record.sys = sys;
}

}  // namespace devio
