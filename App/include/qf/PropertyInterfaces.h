// Property sheets: the property objects ("QFProperty") that tools and selections hand to
// the host, the lists of string pairs some of them carry ("QFStringPairList"), and the
// host's properties context with its areas. Layout rules as in ServiceObject.h. All calls
// come on the user-interface thread.
#pragma once

#include "qf/Interfaces.h"

#include <cstdint>

namespace QF {

// Value types of a property (GetType).
enum : uint32_t {
    kPropertyText = 1,           // one line of text
    kPropertyStringPairList = 2, // a "QFStringPairList"
};

// A value handed to SetValue or ValidateValue: text (length units, need not end in NUL)
// for kPropertyText, list (borrowed) for kPropertyStringPairList; the other member is
// ignored.
struct PropertyValue {
    const char16_t* text;
    uint64_t length;
    ServiceObject* list;
};

// The caller's value holder for GetValue: the property calls putText or putList once.
// Text is valid during the call only; a list is borrowed (AddRef it to keep it).
struct PropertyValueSink {
    void* context;
    void (*putText)(void* context, const char16_t* text, uint64_t length);
    void (*putList)(void* context, ServiceObject* list);
};

// Runs after a property's value was set through SetValue.
using PropertyChangedProc = void (*)(void* context, ServiceObject* property);

// "QFProperty", id 0xE8122272, 88 bytes. Every method answers 3 for a missing output and
// 2 when the property lacks the callback the method needs.
struct PropertyTable {
    uint32_t (*GetName)(ServiceObject* self, const TextSink* out);
    uint32_t (*GetType)(ServiceObject* self, uint32_t* out);
    // The property's payload with one reference for the caller; null when it has none.
    uint32_t (*GetData)(ServiceObject* self, ServiceObject** out);
    // How many change listeners are registered.
    uint32_t (*GetChangeListenerCount)(ServiceObject* self, uint32_t* out);
    // Adds proc(context) to the listeners; 1 when the same pair is there already.
    uint32_t (*AddChangeListener)(ServiceObject* self, PropertyChangedProc proc, void* context);
    // 1 when the pair is not registered.
    uint32_t (*RemoveChangeListener)(ServiceObject* self, PropertyChangedProc proc,
                                     void* context);
    uint32_t (*IsReadOnly)(ServiceObject* self, uint8_t* out);
    uint32_t (*IsHidden)(ServiceObject* self, uint8_t* out);
    uint32_t (*GetValue)(ServiceObject* self, const PropertyValueSink* out);
    // Applies value; the setter's failure (code and failure record) is the result.
    uint32_t (*SetValue)(ServiceObject* self, const PropertyValue* value);
    // *outOk: whether value is acceptable. flag is passed to the validator unchanged.
    uint32_t (*ValidateValue)(ServiceObject* self, const PropertyValue* value, uint32_t flag,
                              uint8_t* outOk);
};
constexpr uint32_t kPropertyId = 0xE8122272;
static_assert(sizeof(PropertyTable) == 88);

// "QFStringPairList", id 0x5E1F0A05, 24 bytes: an ordered list of pairs of texts (for
// choice options: display text, export value). Made by either side (qf/StringPairList.h).
struct StringPairListTable {
    uint32_t (*GetCount)(ServiceObject* self, uint64_t* out);
    // 5 for an index past the end.
    uint32_t (*GetPair)(ServiceObject* self, uint64_t index, const TextSink* first,
                        const TextSink* second);
    uint32_t (*Append)(ServiceObject* self, const char16_t* first, uint64_t firstLength,
                       const char16_t* second, uint64_t secondLength);
};
constexpr uint32_t kStringPairListId = 0x5E1F0A05;

// "QFPropertiesContext", id 0x5E1F0B08, 8 bytes: the host's property panel.
struct PropertiesContextTable {
    // The area of that name ("ToolArea"), made on first use; one reference.
    uint32_t (*GetArea)(ServiceObject* self, const char16_t* name, ServiceObject** outArea);
};
constexpr uint32_t kPropertiesContextId = 0x5E1F0B08;

// "QFPropertyArea", id 0x5E1F0B09, 24 bytes: the properties of one area, in order.
struct PropertyAreaTable {
    // The area keeps a reference to property.
    uint32_t (*AddProperty)(ServiceObject* self, ServiceObject* property);
    uint32_t (*GetCount)(ServiceObject* self, uint64_t* out);
    // One reference; 5 past the end.
    uint32_t (*GetProperty)(ServiceObject* self, uint64_t index, ServiceObject** out);
};
constexpr uint32_t kPropertyAreaId = 0x5E1F0B09;

} // namespace QF
