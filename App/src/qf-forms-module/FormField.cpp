#include "pdmodel-proxy/FormField"

#include "qf/internal/ServiceObjectException.h"

namespace PDFL {

uint32_t SubKindMask(PDAtom fieldType) {
    switch (fieldType) {
    case PD_ATOM_Btn:
        return PD_FIELD_RADIO | PD_FIELD_PUSHBUTTON;
    case PD_ATOM_Ch:
        return PD_FIELD_COMBO;
    default:
        return 0;
    }
}

bool IsFieldTypeAndFlagsCompatible(PDField field, PDAtom fieldType, uint32_t flags) {
    static constexpr const char* kFunction = "PDFL::IsFieldTypeAndFlagsCompatible";
    PDAtom type = 0;
    CheckPDResult(PDFieldGetType(field, &type), kFunction);
    if (type != fieldType) return false;
    const uint32_t mask = SubKindMask(fieldType);
    uint32_t fieldFlags = 0;
    CheckPDResult(PDFieldGetFlags(field, &fieldFlags), kFunction);
    return (fieldFlags & mask) == (flags & mask);
}

bool AreFieldsCompatible(PDField a, PDField b) {
    static constexpr const char* kFunction = "PDFL::AreFieldsCompatible";
    PDAtom type = 0;
    CheckPDResult(PDFieldGetType(b, &type), kFunction);
    uint32_t flags = 0;
    CheckPDResult(PDFieldGetFlags(b, &flags), kFunction);
    return IsFieldTypeAndFlagsCompatible(a, type, flags);
}

} // namespace PDFL
