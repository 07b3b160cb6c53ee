// The caller's source position, as failure records and log lines name it.
//
// std::source_location where the standard library offers it; otherwise the compiler
// builtins it is made of (Clang 14 with libstdc++ 12 has the header but not the type).
#pragma once

#include <cstdint>
#if __has_include(<source_location>)
#include <source_location>
#endif

namespace SOImpl {

#if defined(__cpp_lib_source_location)
using SourceLocation = std::source_location;
#else
class SourceLocation {
  public:
    static constexpr SourceLocation current(const char* file = __builtin_FILE(),
                                            std::uint_least32_t line = __builtin_LINE()) noexcept {
        SourceLocation where;
        where.file_ = file;
        where.line_ = line;
        return where;
    }
    constexpr const char* file_name() const noexcept { return file_; }
    constexpr std::uint_least32_t line() const noexcept { return line_; }

  private:
    const char* file_ = "";
    std::uint_least32_t line_ = 0;
};
#endif

} // namespace SOImpl
