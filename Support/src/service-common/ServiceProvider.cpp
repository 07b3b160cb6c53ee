#include "service-common/ServiceProvider"

#include "kr/KRRuntime.h"
#include "qf/internal/TextConversion.h"

#include <utility>

namespace SP {

namespace {

using SOImpl::FormatText;

std::u16string checkText(uint32_t code, uint32_t systemError) {
    switch (code) {
    case 0x10005:
        return u"service is not supported by the corresponding module.\n";
    case 0x10006:
        return u"service object factory function failed.\n";
    case 0x10007:
        return u"there are no public service objects in corresponding module.\n";
    case 0x10008:
        return u"corresponding service is not supported by the service provider.\n";
    case 0x10009:
        if (systemError == 0)
            return u"the service provider cannot find corresponding module to create service "
                   u"object.\n";
        return FormatText("the service provider cannot find corresponding module to create service "
                          "object.\n\nSystem error code: [%1%]\nDescription: %2%\n",
                          systemError, SystemErrorDescription(systemError));
    case 0x1000A:
        // The short text ends in a blank and no line break, unlike the others.
        if (systemError == 0)
            return u"the service provider cannot find corresponding factory function in the "
                   u"module to create service object. ";
        return FormatText(
            "the service provider cannot find corresponding factory function in the module "
            "to create service object.\n\nSystem error code: [%1%]\nDescription: %2%\n",
            systemError, SystemErrorDescription(systemError));
    default:
        if (systemError == 0)
            return FormatText("\"ServiceProviderGetServiceObject()\" call failed with code %1%.\n",
                              code);
        return FormatText(
            "\"ServiceProviderGetServiceObject()\" call failed with code %1%.\n\nSystem error "
            "code: [%2%]\nDescription: %3%\n",
            code, systemError, SystemErrorDescription(systemError));
    }
}

std::u16string serviceNameOf(uint32_t serviceId, const char* serviceName) {
    if (serviceName) return SOImpl::AcpToUtf16(serviceName);
    const char* name = nullptr;
    if (KRGetStringFromAtom(serviceId, &name) != KR_OK) return {};
    return SOImpl::AcpToUtf16(name);
}

} // namespace

void _CheckServiceProviderApiResult(uint32_t code, uint32_t systemError) {
    if (code == 0) return;
    throw ServiceObjectException(code, checkText(code, systemError),
                                 "SP::_CheckServiceProviderApiResult", kServiceProviderHeaderPath,
                                 kCheckServiceProviderApiResultLine);
}

uint32_t ResolveAtom(const char* name) {
    uint32_t id = KR_ATOM_NONE;
    if (KRGetAtomFromString(name, &id) != KR_OK) return KR_ATOM_NONE;
    return id;
}

SODetails::BasicServiceObjectPtr<> GetServiceObject(uint32_t serviceId, const char* serviceName) {
    try {
        SODetails::ServiceObject* out = nullptr;
        uint32_t systemError = 0;
        const uint32_t code = ServiceProviderGetServiceObject(serviceId, &out, &systemError);
        auto service = SODetails::BasicServiceObjectPtr<>::adopt(out);
        _CheckServiceProviderApiResult(code, systemError);
        return service;
    } catch (const ServiceObjectException& e) {
        const FailureRecord& cause = e.Record();
        throw ServiceObjectException(cause.Code(),
                                     FormatText("Fail to query %1% service object: %2%",
                                                serviceNameOf(serviceId, serviceName),
                                                cause.Message()),
                                     cause.Function(), cause.File(), cause.Line());
    }
}

SODetails::BasicServiceObjectPtr<> TryGetServiceObject(uint32_t serviceId) noexcept {
    SODetails::ServiceObject* out = nullptr;
    uint32_t systemError = 0;
    const uint32_t code = ServiceProviderGetServiceObject(serviceId, &out, &systemError);
    auto service = SODetails::BasicServiceObjectPtr<>::adopt(out);
    if (code != 0) service.reset();
    return service;
}

} // namespace SP
