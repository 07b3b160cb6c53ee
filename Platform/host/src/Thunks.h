// Helpers for the host's service-object thunks.
#pragma once

#include "qfhost/HostError.h"
#include "qfhost/HostObjects.h"

namespace qfhost::detail {

// Runs f, turning an escaping exception (out of memory) into code 4: nothing thrown
// crosses a method table.
template <typename F>
uint32_t guarded(F&& f) noexcept {
    try {
        return f();
    } catch (...) {
        return codes::kHostFailure;
    }
}

template <typename Table, typename Impl>
ServiceObject* makeHostObject(uint32_t interfaceId, const char* interfaceName,
                              uint32_t implementationId, const Table& table) {
    return SODetails::makeServiceObject<Table, Impl, HostTraits>(interfaceId, interfaceName,
                                                                 implementationId, table);
}

// Implementation ids of the host's own classes.
enum : uint32_t {
    kTasksRepositoryImplId = 0x51480101,
    kCommandsManagerImplId = 0x51480102,
    kAnnotEditServiceImplId = 0x51480103,
    kEditServiceImplId = 0x51480104,
    kEditObjectPickerImplId = 0x51480105,
    kEditModuleServiceImplId = 0x51480106,
    kPDAnnotServiceImplId = 0x51480107,
    kPropertiesContextImplId = 0x51480109,
    kPropertyAreaImplId = 0x5148010A,
    kAnnotPropertiesFactoryImplId = 0x5148010B,
    kStringServiceImplId = 0x5148010C,
    kUserSettingsImplId = 0x5148010D,
    kHostStringPairListImplId = 0x5148010E,
    kDocumentViewImplId = 0x51480108,
    kAnnotSelectionImplId = 0x5148010F,
    kCompositeFactoryImplId = 0x51480110,
    kCompositeImplId = 0x51480111,
    kGraphicsServiceImplId = 0x51480112,
    kAnnotPropertiesValidateImplId = 0x51480113,
    kDataObjectImplId = 0x51480114,
    kWinServicesImplId = 0x51480115,
    kSystemClipboardImplId = 0x51480116,
    kFunctionCommandImplId = 0x51480117,
};

}  // namespace qfhost::detail
