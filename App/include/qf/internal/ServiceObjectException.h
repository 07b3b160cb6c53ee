// Failures inside the module: the failure record, the exception that carries it, the
// per-thread store of the last record (ErrorsStorage.h) and the recorder that every
// interface thunk calls.
//
// Module code throws ServiceObjectException; the thunk of the interface method catches it,
// keeps its record as the calling thread's last failure and returns its code. A caller on
// the other side of the boundary reads the record back with GetLastErrorInfo.
#pragma once

#include "qf/ServiceObject.h"
#include "qf/internal/SourceLocation.h"

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

// Result codes of the module beside the host-defined ones.
namespace SOImpl {
inline constexpr uint32_t kSuccess = 0;
inline constexpr uint32_t kNegativeAnswer = 1; // not a failure, never recorded
inline constexpr uint32_t kNotInitialized = 2;
inline constexpr uint32_t kBadArgument = 3;
inline constexpr uint32_t kGenericFailure = 4; // also what an exception of another kind gives
inline constexpr uint32_t kNoFailureRecord = 9;
inline constexpr uint32_t kUnrecordedCode = 11; // the recorder skips it
inline constexpr uint32_t kServiceNotSupported = 0x10005;
inline constexpr uint32_t kFactoryFailed = 0x10006;
inline constexpr uint32_t kNoPublicServices = 0x10007;
} // namespace SOImpl

// One failure: code, text, the function that failed and where it is. A record may wrap
// the record of the failure that caused it (inner); the accessors read the innermost
// record of that chain, so a wrapped failure keeps reporting where it started.
class FailureRecord {
  public:
    FailureRecord(uint32_t code, const std::u16string& message, const std::string& function,
                  const std::string& file, uint32_t line);
    FailureRecord(uint32_t code, std::u16string&& message, std::string&& function,
                  std::string&& file, uint32_t line);
    // Empty texts, line 0.
    explicit FailureRecord(uint32_t code);
    // From the view handed out by GetLastErrorInfo; null texts become empty ones.
    explicit FailureRecord(const SODetails::ErrorInfo& view);
    FailureRecord(const FailureRecord& other);
    FailureRecord(FailureRecord&& other) noexcept;
    FailureRecord& operator=(const FailureRecord& other);
    FailureRecord& operator=(FailureRecord&& other) noexcept;
    // Overwrites the tag with "DDDD" and destroys the chain.
    ~FailureRecord();

    // Makes a copy of inner (with its own chain) the record that this one wraps.
    void SetInner(const FailureRecord& inner);
    const FailureRecord* Inner() const { return inner_; }
    // The tag reads "SOEX" while the record is alive.
    bool IsAlive() const;

    // Of the innermost record: follow the chain while the next record is alive.
    const FailureRecord& Innermost() const;
    uint32_t Code() const { return Innermost().code_; }
    const std::u16string& Message() const { return Innermost().message_; }
    const std::string& Function() const { return Innermost().function_; }
    const std::string& File() const { return Innermost().file_; }
    uint32_t Line() const { return Innermost().line_; }

    // The innermost record's fields for GetLastErrorInfo; the pointers stay valid as long
    // as this record does and is not assigned to.
    SODetails::ErrorInfo View() const;

  private:
    void destroyChain() noexcept;

    char tag_[4];
    FailureRecord* inner_ = nullptr; // owned
    uint32_t code_ = 0;
    std::u16string message_;
    std::string function_;
    std::string file_;
    uint32_t line_ = 0;
};

class ServiceObjectException : public std::exception {
  public:
    explicit ServiceObjectException(FailureRecord record);
    ServiceObjectException(uint32_t code, std::u16string message, std::string function,
                           std::string file, uint32_t line);

    const FailureRecord& Record() const noexcept { return record_; }
    uint32_t Code() const noexcept { return record_.Code(); }
    // The innermost message as UTF-8.
    const char* what() const noexcept override { return what_.c_str(); }

  private:
    FailureRecord record_;
    std::string what_;
};

// Throws a ServiceObjectException with the code and text, naming function (qualified, as
// written by the caller) and the caller's source position.
[[noreturn]] void
ThrowServiceObjectException(uint32_t code, std::u16string_view message, const char* function,
                            SOImpl::SourceLocation where = SOImpl::SourceLocation::current());

// The module code for a pdfcore result (0 stays 0; unknown results give 4).
uint32_t TranslatePDResult(int32_t result);

// Throws "Unspecified Error!" (or the given text) with the translated code when a pdfcore
// call failed.
void CheckPDResult(int32_t result, const char* function,
                   std::u16string_view message = u"Unspecified Error!",
                   SOImpl::SourceLocation where = SOImpl::SourceLocation::current());

// Keeps a copy of record as the calling thread's last failure. Does nothing once the
// shared static-data store is gone (process shutdown). Throws std::runtime_error when the
// storage cannot be had.
void StoreFailure(const FailureRecord& record);

// The calling thread's last failure, or null (also once the store is gone). The record
// stays valid until the same thread stores another one.
const FailureRecord* FetchFailure();

// Keeps code 4 with the text of an exception of another kind (UTF-8) as the calling
// thread's failure. Whether it was kept; never throws.
bool StoreForeignFailure(const char* what) noexcept;

// Called by every interface thunk with the code its implementation returned. Codes 0, 1
// and 11, an empty interface name and a null method name record nothing; otherwise the
// thread's record becomes "<interface>::<method>() failed, code: 0x<8 hex digits>" with
// the thunk as function and the interface header as file. wrapStored: the implementation
// threw, and the record it left (the thread's current one) becomes the inner record of the
// new one, so that GetLastErrorInfo still reports the failure where it started, with its
// own text. The failure also goes to the host's logger, when there is one, as an error
// naming the call, where the failure started and its text. Never throws.
void RecordFailure(uint32_t code, const char16_t* interfaceName, const char16_t* methodName,
                   const char* thunkName, const char* headerPath, uint32_t line,
                   bool wrapStored = false) noexcept;
