#include "qf/internal/ServiceObjectException.h"
#include "qf/internal/TextConversion.h"

#include <cstring>
#include <iterator>
#include <utility>

namespace {

constexpr char kAliveTag[4] = {'S', 'O', 'E', 'X'};
constexpr char kDeadTag[4] = {'D', 'D', 'D', 'D'};

} // namespace

FailureRecord::FailureRecord(uint32_t code, const std::u16string& message,
                             const std::string& function, const std::string& file, uint32_t line)
    : code_(code), message_(message), function_(function), file_(file), line_(line) {
    std::memcpy(tag_, kAliveTag, 4);
}

FailureRecord::FailureRecord(uint32_t code, std::u16string&& message, std::string&& function,
                             std::string&& file, uint32_t line)
    : code_(code), message_(std::move(message)), function_(std::move(function)),
      file_(std::move(file)), line_(line) {
    std::memcpy(tag_, kAliveTag, 4);
}

FailureRecord::FailureRecord(uint32_t code) : code_(code) {
    std::memcpy(tag_, kAliveTag, 4);
}

FailureRecord::FailureRecord(const SODetails::ErrorInfo& view)
    : code_(view.code), message_(view.message ? view.message : u""),
      function_(view.function ? view.function : ""), file_(view.file ? view.file : ""),
      line_(view.line) {
    std::memcpy(tag_, kAliveTag, 4);
}

FailureRecord::FailureRecord(const FailureRecord& other)
    : code_(other.code_), message_(other.message_), function_(other.function_), file_(other.file_),
      line_(other.line_) {
    std::memcpy(tag_, kAliveTag, 4);
    if (other.inner_) inner_ = new FailureRecord(*other.inner_);
}

FailureRecord::FailureRecord(FailureRecord&& other) noexcept
    : inner_(std::exchange(other.inner_, nullptr)), code_(other.code_),
      message_(std::move(other.message_)), function_(std::move(other.function_)),
      file_(std::move(other.file_)), line_(other.line_) {
    std::memcpy(tag_, kAliveTag, 4);
}

FailureRecord& FailureRecord::operator=(const FailureRecord& other) {
    if (this != &other) *this = FailureRecord(other);
    return *this;
}

FailureRecord& FailureRecord::operator=(FailureRecord&& other) noexcept {
    if (this != &other) {
        destroyChain();
        inner_ = std::exchange(other.inner_, nullptr);
        code_ = other.code_;
        message_ = std::move(other.message_);
        function_ = std::move(other.function_);
        file_ = std::move(other.file_);
        line_ = other.line_;
    }
    return *this;
}

FailureRecord::~FailureRecord() {
    destroyChain();
    std::memcpy(tag_, kDeadTag, 4);
}

void FailureRecord::destroyChain() noexcept {
    delete std::exchange(inner_, nullptr);
}

void FailureRecord::SetInner(const FailureRecord& inner) {
    auto* copy = new FailureRecord(inner);
    destroyChain();
    inner_ = copy;
}

bool FailureRecord::IsAlive() const {
    return std::memcmp(tag_, kAliveTag, 4) == 0;
}

const FailureRecord& FailureRecord::Innermost() const {
    const FailureRecord* record = this;
    while (record->inner_ && record->inner_->IsAlive())
        record = record->inner_;
    return *record;
}

SODetails::ErrorInfo FailureRecord::View() const {
    const FailureRecord& r = Innermost();
    return SODetails::ErrorInfo{r.code_, r.line_, r.message_.c_str(), r.function_.c_str(),
                                r.file_.c_str()};
}

ServiceObjectException::ServiceObjectException(FailureRecord record)
    : record_(std::move(record)), what_(SOImpl::Utf16ToUtf8(record_.Message())) {}

ServiceObjectException::ServiceObjectException(uint32_t code, std::u16string message,
                                               std::string function, std::string file,
                                               uint32_t line)
    : ServiceObjectException(
          FailureRecord(code, std::move(message), std::move(function), std::move(file), line)) {}

void ThrowServiceObjectException(uint32_t code, std::u16string_view message, const char* function,
                                 SOImpl::SourceLocation where) {
    throw ServiceObjectException(code, std::u16string(message), function ? function : "",
                                 where.file_name(), where.line());
}

uint32_t TranslatePDResult(int32_t result) {
    // Rows for -1 .. 34; the gaps (9, 10, 20 to 31) fall to 4, and 0x30003 is never given.
    static constexpr uint32_t kCodes[] = {
        16,                                          // -1
        0,       2,       3,       9,       10,      // 0 .. 4
        23,      14,      11,      13,      4,       // 5 .. 9
        4,       0x30002, 0x30004, 0x30005, 0x30006, // 10 .. 14
        0x30007, 0x30008, 0x30009, 0x3000A, 0x3000B, // 15 .. 19
        4,       4,       4,       4,       4,       // 20 .. 24
        4,       4,       4,       4,       4,       // 25 .. 29
        4,       4,       0x3000C, 0x3000D, 0x3000E, // 30 .. 34
    };
    static_assert(std::size(kCodes) == 36);
    if (result < -1 || result > 34) return SOImpl::kGenericFailure;
    return kCodes[result + 1];
}

void CheckPDResult(int32_t result, const char* function, std::u16string_view message,
                   SOImpl::SourceLocation where) {
    if (result != 0)
        ThrowServiceObjectException(TranslatePDResult(result), message, function, where);
}
