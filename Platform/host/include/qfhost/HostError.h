// Result codes the host answers with, and the exception its C++ API throws.
#pragma once

#include "qfhost/Export.h"

#include <cstdint>
#include <stdexcept>
#include <string>

namespace qfhost {

namespace codes {
inline constexpr uint32_t kOk = 0;
inline constexpr uint32_t kNegative = 1;         // nothing to do (empty stack, unknown atom)
inline constexpr uint32_t kNotInitialized = 2;   // an object lacks the method the call needs
inline constexpr uint32_t kBadArgument = 3;      // null pointer, atom 0 or KR_ATOM_NONE
inline constexpr uint32_t kHostFailure = 4;      // the host itself failed (out of memory)
inline constexpr uint32_t kOutOfRange = 5;       // an index past the end of a list
inline constexpr uint32_t kBufferSmall = 8;      // a buffer shorter than what goes into it
inline constexpr uint32_t kNotRegistered = 0x10005;   // nothing registered under the atom
inline constexpr uint32_t kFactoryFailed = 0x10006;   // a factory made nothing usable
inline constexpr uint32_t kNoPublicServices = 0x10007;
inline constexpr uint32_t kNotSupported = 0x10008;
inline constexpr uint32_t kNoModule = 0x10009;
inline constexpr uint32_t kNoFactory = 0x1000A;
inline constexpr uint32_t kNoFieldToJoin = 0x10010;   // a paste asked to join a field not there
inline constexpr uint32_t kCannotJoin = 0x10011;      // that field is of another kind, or a parent
}  // namespace codes

// A failure of the host's C++ API: the result code and, for loading failures, the
// system's error number.
class QFHOST_API HostError : public std::runtime_error {
public:
    HostError(uint32_t code, const std::string& message, uint32_t systemError = 0);
    ~HostError() override;
    uint32_t code() const { return code_; }
    uint32_t systemError() const { return systemError_; }

private:
    uint32_t code_;
    uint32_t systemError_;
};

}  // namespace qfhost
