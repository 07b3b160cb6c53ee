#include "FieldList.h"

#include "Pd.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace qfforms {

namespace {

constexpr uint32_t kRequired = 1u << 1;
constexpr uint32_t kRadio = 1u << 15, kPush = 1u << 16, kCombo = 1u << 17;

std::string fullName(PDField field) {
    return readUtf8([&](char16_t* b, uint32_t n, uint32_t* len) {
               return PDFieldGetFullName(field, b, n, len);
           })
        .value_or("");
}

const char* kindOf(PDAtom type, uint32_t flags) {
    switch (type) {
    case PD_ATOM_Tx: return "text";
    case PD_ATOM_Ch: return flags & kCombo ? "combo" : "list";
    case PD_ATOM_Sig: return "signature";
    case PD_ATOM_Btn: return flags & kPush ? "push" : flags & kRadio ? "radio" : "check";
    default: return "text";
    }
}

} // namespace

Json fieldList(PDDoc doc) {
    // Where each field's widgets lie, from the pages: one walk of every /Annots.
    std::map<std::string, Json> places;
    uint32_t pages = 0;
    check(PDDocGetNumPages(doc, &pages));
    for (uint32_t p = 0; p < pages; ++p) {
        Handle page;
        check(PDDocGetPage(doc, p, page.out()));
        uint32_t count = 0;
        check(PDPageGetNumAnnots(page.get(), &count));
        for (uint32_t i = 0; i < count; ++i) {
            Handle annot, field;
            if (PDPageGetAnnot(page.get(), i, annot.out()) != PD_OK ||
                PDWidgetAnnotGetParent(annot.get(), field.out()) != PD_OK || !field)
                continue;
            places[fullName(field.get())].push_back(Json::array({p, i}));
        }
    }
    std::set<std::string> calculated;
    uint32_t count = 0;
    check(PDDocGetNumCalculatedFields(doc, &count));
    for (uint32_t i = 0; i < count; ++i) {
        Handle field;
        check(PDDocGetCalculatedField(doc, i, field.out()));
        calculated.insert(fullName(field.get()));
    }

    Json fields = Json::array();
    check(PDDocGetNumFields(doc, &count));
    for (uint32_t i = 0; i < count; ++i) {
        Handle field;
        check(PDDocGetField(doc, i, field.out()));
        PDAtom type = 0;
        uint32_t flags = 0;
        PDFieldGetType(field.get(), &type);
        PDFieldGetFlags(field.get(), &flags);
        const std::string name = fullName(field.get());
        auto at = places.find(name);
        fields.push_back({{"name", name},
                          {"kind", kindOf(type, flags)},
                          {"required", (flags & kRequired) != 0},
                          {"calculated", calculated.count(name) != 0},
                          {"widgets", at == places.end() ? Json::array() : at->second}});
    }
    return fields;
}

} // namespace qfforms
