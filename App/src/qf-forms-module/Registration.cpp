#include "qf/internal/Registration.h"

#include "kr/KRRuntime.h"
#include "qf/internal/ServiceObjectException.h"
#include "service-common/ServiceProvider"

namespace SOImpl {

// ---- list heads: created on first use, by the first static registration ------------------

ExportedServiceList& PublicServices() {
    static ExportedServiceList head;
    return head;
}

RegistrationList& ToolRegistrations() {
    static RegistrationList head;
    return head;
}

RegistrationList& CommandRegistrations() {
    static RegistrationList head;
    return head;
}

RegistrationList& SelectionFactoryRegistrations() {
    static RegistrationList head;
    return head;
}

RegistrationList& AnnotHandlerRegistrations() {
    static RegistrationList head;
    return head;
}

// ---- pushing ---------------------------------------------------------------------------

_AutoReg::_AutoReg(const char* name, ExportedServiceRecord::Factory factory) {
    record_.name = name;
    record_.id = kUnresolvedAtom;
    record_.factory = factory;
    ExportedServiceList& list = PublicServices();
    record_.next = list.first;
    list.first = &record_;
}

void PushRegistration(RegistrationList& list, FactoryRegistration& record, const char* name,
                      const BasicServiceObjectPtr<ServiceObject>& factory) {
    record.name = name;
    record.id = kUnresolvedAtom;
    record.factory = factory;
    record.registered = 0;
    // A new record has to be handed over by the next registration pass.
    if (list.registered) list.registered = 0;
    record.next = list.first;
    list.first = &record;
}

// ---- handing the lists to the host -------------------------------------------------------

namespace {

template <typename Operation> Operation operationAt(ServiceObject* service, size_t slot) {
    if (!SODetails::hasMethod(service, slot)) return nullptr;
    return SODetails::methods<const Operation>(service)[slot];
}

} // namespace

void RegisterList(RegistrationList& list, uint32_t serviceAtom, size_t registerSlot) {
    if (list.registered) return;
    BasicServiceObjectPtr<ServiceObject> service;
    bool looked = false;
    for (FactoryRegistration* record = list.first; record; record = record->next) {
        if (record->registered) continue;
        if (!looked) {
            service = SP::TryGetServiceObject(serviceAtom);
            looked = true;
        }
        auto registerObject = operationAt<RegisterOperation>(service.get(), registerSlot);
        if (!registerObject) continue; // no such service or operation: skipped
        if (record->id == kUnresolvedAtom) {
            const uint32_t result = KRGetAtomFromString(record->name, &record->id);
            if (result != KR_OK)
                ThrowServiceObjectException(kGenericFailure, u"Unspecified Error!",
                                            "SOImpl::RegisterList");
        }
        const uint32_t code = registerObject(service.get(), record->id, record->factory.get());
        if (code != 0)
            ThrowServiceObjectException(code, u"Unspecified Error!", "SOImpl::RegisterList");
        record->registered = 1;
    }
    list.registered = 1;
}

uint32_t WithdrawList(RegistrationList& list, uint32_t serviceAtom, size_t withdrawSlot) {
    BasicServiceObjectPtr<ServiceObject> service;
    bool looked = false;
    uint32_t firstFailure = 0;
    for (FactoryRegistration* record = list.first; record; record = record->next) {
        if (!record->registered) continue;
        if (!looked) {
            service = SP::TryGetServiceObject(serviceAtom);
            looked = true;
        }
        auto withdraw = operationAt<WithdrawOperation>(service.get(), withdrawSlot);
        if (!withdraw) continue;
        // 1: the host had nothing under the name any more, which is as good.
        const uint32_t code = withdraw(service.get(), record->id);
        if (code > kNegativeAnswer) {
            if (firstFailure == 0) firstFailure = code;
            continue;
        }
        record->registered = 0;
    }
    // Records still registered are skipped by the next pass; the rest are offered again.
    list.registered = 0;
    return firstFailure;
}

} // namespace SOImpl
