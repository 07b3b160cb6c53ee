// The module's static registration lists.
//
// Static objects push records at load time: the public service objects that
// CreateServiceObject can make (ExportedServiceRecord), and per interface the factories
// that the init service hands to the host (FactoryRegistration: tools, commands,
// selection factories, and a fourth list of annotation handler factories). Records are
// pushed at the head, so every list is walked newest first; they live as long as the
// module and are never unlinked.
#pragma once

#include "qf/ServiceObjectBlock.h"

#include <cstddef>
#include <cstdint>

namespace SOImpl {

using SODetails::BasicServiceObjectPtr;
using SODetails::ServiceObject;

// Atom id of a name that has not been resolved yet.
inline constexpr uint32_t kUnresolvedAtom = 0xFFFFFFFF;

// ---- public service objects ---------------------------------------------------------

struct ExportedServiceRecord {
    using Factory = BasicServiceObjectPtr<ServiceObject> (*)();

    const char* name = nullptr;
    uint32_t id = kUnresolvedAtom; // atom of name, resolved by CreateServiceObject
    Factory factory = nullptr;
    ExportedServiceRecord* next = nullptr;
};

struct ExportedServiceList {
    ExportedServiceRecord* first = nullptr;
};

ExportedServiceList& PublicServices();

// The static registration of one public service object.
class _AutoReg {
  public:
    _AutoReg(const char* name, ExportedServiceRecord::Factory factory);
    _AutoReg(const _AutoReg&) = delete;
    _AutoReg& operator=(const _AutoReg&) = delete;

  private:
    ExportedServiceRecord record_;
};

// ---- factories handed to host services ------------------------------------------------

struct FactoryRegistration {
    const char* name = nullptr;                   // the name the factory is registered under
    uint32_t id = kUnresolvedAtom;                // atom of name, resolved when first registered
    BasicServiceObjectPtr<ServiceObject> factory; // one reference
    FactoryRegistration* next = nullptr;
    uint8_t registered = 0; // 1 once handed to the host
};

struct RegistrationList {
    FactoryRegistration* first = nullptr;
    uint8_t registered = 0; // 1 once every record was offered to the host
};

RegistrationList& ToolRegistrations();             // QFInputHandlerFactory objects
RegistrationList& CommandRegistrations();          // CommandFactory objects
RegistrationList& SelectionFactoryRegistrations(); // QFSelectionFactory objects
RegistrationList& AnnotHandlerRegistrations();     // none in this module

// Fills record with name and one reference to factory and links it in front of list.
// Clears the list's registered flag, so that the next registration pass picks it up.
void PushRegistration(RegistrationList& list, FactoryRegistration& record, const char* name,
                      const BasicServiceObjectPtr<ServiceObject>& factory);

// A host operation that registers an object under a name atom, and the one that withdraws
// it; both stand in slot positions of the host service's method table.
using RegisterOperation = uint32_t (*)(ServiceObject* self, uint32_t nameAtom,
                                       ServiceObject* object);
using WithdrawOperation = uint32_t (*)(ServiceObject* self, uint32_t nameAtom);

// Hands the list's unregistered records to the host service whose name has atom
// serviceAtom, through the operation in slot registerSlot, and marks each one registered;
// then marks the list registered. Nothing happens when the list is registered already.
// Records are skipped (and stay unregistered) while the service or the operation is
// missing. A failing host call throws a ServiceObjectException with its code.
void RegisterList(RegistrationList& list, uint32_t serviceAtom, size_t registerSlot);

// Withdraws the list's registered records from the service through the operation in
// withdrawSlot and marks each withdrawn one unregistered; then marks the list
// unregistered, so that the next registration pass offers them again. A missing service
// or operation leaves the records as they are. Every record is tried; the first failing
// host call's code is returned (0 when none failed).
uint32_t WithdrawList(RegistrationList& list, uint32_t serviceAtom, size_t withdrawSlot);

} // namespace SOImpl
