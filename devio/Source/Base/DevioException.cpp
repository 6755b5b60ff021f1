#include "Base/DevioException.h"

#include "Base/ErrorRecord.h"

namespace devio {

DevioException::DevioException(ErrorCode err_, const char* str_, std::uint32_t sys_)
    : DevioException(str_ != nullptr ? str_ : "devio platform error", err_, str_, sys_) {}

DevioException::DevioException(const std::string& text, ErrorCode err_, const char* str_,
                               std::uint32_t sys_)
    : std::runtime_error(text), err(err_), sys(sys_), str(str_) {}

void DevioException::record() const {
    set_error(static_cast<ErrorCode>(err), str, sys);
}

}  // namespace devio
