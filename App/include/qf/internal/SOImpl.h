// Machinery behind the interface thunks. For interface I and implementation class Impl,
// SOImpl::CppIBase<Impl, SODetails::ServiceObjectTraits> (declared in I's header) fills
// I's method table with static functions <Method>Impl::staticF. Each of them
//   1. returns 3 when self or a required pointer argument is null, without calling Impl;
//   2. otherwise calls Impl's member function; a ServiceObjectException thrown there is
//      kept as the thread's failure record and its code returned, any other exception
//      gives 4 (a std::exception with a record of its what() text);
//   3. hands the code to RecordFailure with the interface and method names, its own full
//      name, the header that declares it and the line of the declaration; the record of a
//      thrown exception becomes the inner record of the thunk's, so that the caller still
//      reads the thrown text, function and place;
//   4. returns the code.
// No exception leaves a thunk.
#pragma once

#include "qf/ServiceObjectBlock.h"
#include "qf/internal/ServiceObjectException.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace SODetails {

// The module's side of the base operations: GetLastErrorInfo reads the calling thread's
// record from ErrorsStorage.
struct ServiceObjectTraits {
    static uint32_t GetLastErrorInfo(ServiceObject* self, ErrorInfo* out, const void** outRecord);
};

} // namespace SODetails

// Opens the declaration of method Name inside a thunk class: its names and the line of
// the declaration, which is what failure records report.
#define SOIMPL_METHOD(Name)                                                                        \
    static constexpr const char16_t* kMethodW = u"" #Name;                                         \
    static constexpr const char* kMethod = #Name;                                                  \
    static constexpr uint32_t kLine = __LINE__

namespace SOImpl {

using SODetails::ServiceObject;

namespace detail {

// The compiler's spelling of T.
template <typename T> constexpr std::string_view RawTypeName() {
#if defined(_MSC_VER)
    std::string_view s = __FUNCSIG__;
    const std::string_view open = "RawTypeName<";
    s.remove_prefix(s.find(open) + open.size());
    return s.substr(0, s.rfind(">(void)"));
#else
    std::string_view s = __PRETTY_FUNCTION__;
    const std::string_view open = "T = ";
    s.remove_prefix(s.find(open) + open.size());
    return s.substr(0, s.find_first_of(";]"));
#endif
}

constexpr uint32_t Fnv1a(std::string_view text) {
    uint32_t h = 0x811C9DC5u;
    for (char c : text) {
        h ^= static_cast<uint8_t>(c);
        h *= 0x01000193u;
    }
    return h;
}

} // namespace detail

template <typename T> constexpr std::string_view TypeName() {
    return detail::RawTypeName<T>();
}

// The implementation id written after "EOFT": Impl::kClassStamp when the class declares
// one, else a hash of the class's name (fixed for a given compiler).
template <typename Impl> constexpr uint32_t ClassStamp() {
    if constexpr (requires { Impl::kClassStamp; }) {
        return Impl::kClassStamp;
    } else {
        return detail::Fnv1a(TypeName<Impl>());
    }
}

// The implementation id of Factory, the factory object of class T: T::kFactoryStamp when T
// declares one, else a hash of Factory's name.
template <typename T, typename Factory> constexpr uint32_t FactoryStamp() {
    if constexpr (requires { T::kFactoryStamp; }) {
        return T::kFactoryStamp;
    } else {
        return detail::Fnv1a(TypeName<Factory>());
    }
}

template <typename... Pointers> constexpr bool AllGiven(const Pointers*... pointers) {
    return ((pointers != nullptr) && ...);
}

// Runs body and turns what it throws into a result code (see the top of this file);
// *stored tells whether the thrown record was kept as the thread's failure.
template <typename Body> uint32_t InvokeImplementation(Body&& body, bool* stored) noexcept {
    *stored = false;
    try {
        return body();
    } catch (const ServiceObjectException& e) {
        try {
            StoreFailure(e.Record());
            *stored = true;
        } catch (...) {
            // The storage is gone or broken; the code still reaches the caller.
        }
        return e.Code();
    } catch (const std::exception& e) {
        // A failure of a library the module uses (JSON text that does not parse, a missing
        // key): code 4, with the library's own text.
        *stored = StoreForeignFailure(e.what());
        return kGenericFailure;
    } catch (...) {
        return kGenericFailure;
    }
}

// "SOImpl::<Base><Impl,Traits>::<Method>Impl::staticF", built once per thunk.
template <typename Base, typename Method> const char* ThunkName() noexcept {
    try {
        static const std::string name = std::string("SOImpl::") + Base::kThunkBaseName + "<" +
                                        std::string(TypeName<typename Base::ImplType>()) + "," +
                                        std::string(TypeName<typename Base::TraitsType>()) +
                                        ">::" + Method::kMethod + "Impl::staticF";
        return name.c_str();
    } catch (...) {
        return Base::kThunkBaseName;
    }
}

// The body of every thunk: argumentsGiven says whether self's required pointer arguments
// are all there; call runs the implementation's method on Impl&.
template <typename Base, typename Method, typename Call>
uint32_t Thunk(ServiceObject* self, bool argumentsGiven, Call&& call) noexcept {
    uint32_t code = kBadArgument;
    bool thrown = false;
    if (self && argumentsGiven) {
        code = InvokeImplementation(
            [&]() -> uint32_t {
                return call(SODetails::implOf<typename Base::Table, typename Base::ImplType>(self));
            },
            &thrown);
    }
    RecordFailure(code, Base::kInterfaceNameW, Method::kMethodW, ThunkName<Base, Method>(),
                  Base::kHeaderPath, Method::kLine, thrown);
    return code;
}

// Makes a service object of Base's interface around a new Impl built from args: one
// reference for the caller. Throws what allocation or Impl's constructor throws.
template <typename Base, typename... Args> ServiceObject* MakeServiceObject(Args&&... args) {
    return SODetails::makeServiceObject<typename Base::Table, typename Base::ImplType,
                                        typename Base::TraitsType>(
        Base::kInterfaceId, Base::kInterfaceName, ClassStamp<typename Base::ImplType>(),
        Base::kTable, std::forward<Args>(args)...);
}

// The implementation object behind a block made through Base.
template <typename Base> typename Base::ImplType& ImplOf(ServiceObject* so) {
    return SODetails::implOf<typename Base::Table, typename Base::ImplType>(so);
}

} // namespace SOImpl
