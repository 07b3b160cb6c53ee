// Generic objects, destinations, file and URL references (FileSpec) and the field lists of
// form actions. Handles of these may stand for direct objects (see anyHandle); new objects
// made here are direct and belong nowhere until a caller puts them somewhere, except
// destinations, which are made indirect so that several actions can share one.
#include "Core.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace pdfcore {
namespace {

// The roles whose handles stand for plain PDF objects (Kind::Object and the roles after
// it). Any of them may be used where a generic object is expected: an action is a
// dictionary, a fields list an array.
PDHandleRec& checkedObject(PDHandle h) {
    if (!h) fail(PD_ERR_MISSING_OBJECT);
    if (h->magic != PDHandleRec::kMagic || h->kind < Kind::Object) fail(PD_ERR_WRONG_HANDLE);
    return *h;
}

std::string keyOf(PDAtom atom) {
    std::string name = atomName(atom);
    if (name.empty()) fail(PD_ERR_BAD_ARGUMENT);
    return "/" + name;
}

// The dictionary of a dictionary or stream object.
QPDFObjectHandle dictOf(PDHandleRec& h) {
    if (h.obj.isStream()) return h.obj.getDict();
    if (!h.obj.isDictionary()) fail(PD_ERR_WRONG_HANDLE);
    return h.obj;
}

// ---- destinations --------------------------------------------------------------------

// The fit types and how many numbers follow the type name in the array.
struct FitType {
    const char* name;
    int stored;
};
constexpr FitType kFitTypes[] = {{"XYZ", 3},   {"Fit", 0},  {"FitB", 0},  {"FitH", 1},
                                 {"FitBH", 1}, {"FitV", 1}, {"FitBV", 1}, {"FitR", 4}};

const FitType* fitType(const std::string& name) {
    for (const auto& t : kFitTypes) {
        if (name == t.name) return &t;
    }
    return nullptr;
}

// The explicit array of a destination: the array itself, or the /D of a destination
// dictionary; null for anything else (an unresolved name).
QPDFObjectHandle destArray(QPDFObjectHandle dest) {
    if (dest.isDictionary()) dest = dest.getKey("/D");
    return dest.isArray() ? dest : QPDFObjectHandle::newNull();
}

// Top of the visible area of a page: the crop box, else the media box.
double pageTop(QPDFObjectHandle page) {
    auto box = inherited(page, "/CropBox");
    if (!box.isArray()) box = inherited(page, "/MediaBox");
    double y0 = 0;
    double y1 = 0;
    if (box.isArray() && box.getArrayNItems() == 4 && box.getArrayItem(1).getValueAsNumber(y0) &&
        box.getArrayItem(3).getValueAsNumber(y1)) {
        return std::max(y0, y1);
    }
    return 792; // US Letter, as the page box getters assume
}

} // namespace
} // namespace pdfcore

using namespace pdfcore;

extern "C" {

// ---- generic objects -------------------------------------------------------------------

PDResult PDDocCreateDictObject(PDDoc doc, PDObject* outObject) {
    if (outObject) *outObject = nullptr;
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outObject);
        *outObject = anyHandle(d, QPDFObjectHandle::newDictionary(), Kind::Object);
    });
}

PDResult PDDocCreateIntObject(PDDoc doc, int32_t value, PDObject* outObject) {
    if (outObject) *outObject = nullptr;
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outObject);
        *outObject = anyHandle(d, QPDFObjectHandle::newInteger(value), Kind::Object);
    });
}

PDResult PDDocCreateStringObjectFromUnicode(PDDoc doc, const char16_t* text, uint32_t len,
                                            PDObject* outObject) {
    if (outObject) *outObject = nullptr;
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outObject);
        *outObject = anyHandle(d, textString(textArg(text, len)), Kind::Object);
    });
}

PDResult PDObjectGetType(PDObject object, int32_t* outType) {
    return guard([&] {
        auto& o = checkedObject(object);
        checkOut(outType);
        switch (o.obj.getTypeCode()) {
        case ::ot_boolean:
            *outType = PD_OBJ_BOOLEAN;
            break;
        case ::ot_integer:
            *outType = PD_OBJ_INTEGER;
            break;
        case ::ot_real:
            *outType = PD_OBJ_REAL;
            break;
        case ::ot_string:
            *outType = PD_OBJ_STRING;
            break;
        case ::ot_name:
            *outType = PD_OBJ_NAME;
            break;
        case ::ot_array:
            *outType = PD_OBJ_ARRAY;
            break;
        case ::ot_dictionary:
            *outType = PD_OBJ_DICTIONARY;
            break;
        case ::ot_stream:
            *outType = PD_OBJ_STREAM;
            break;
        default:
            *outType = PD_OBJ_NULL;
            break;
        }
    });
}

PDResult PDObjectGetName(PDObject object, PDAtom* outName) {
    return guard([&] {
        auto& o = checkedObject(object);
        checkOut(outName);
        if (!o.obj.isName()) fail(PD_ERR_WRONG_HANDLE);
        *outName = atomOf(o.obj.getName().substr(1));
    });
}

PDResult PDObjectGetInt(PDObject object, int32_t* outValue) {
    return guard([&] {
        auto& o = checkedObject(object);
        checkOut(outValue);
        if (!o.obj.isInteger()) fail(PD_ERR_WRONG_HANDLE);
        long long v = o.obj.getIntValue();
        if (v < std::numeric_limits<int32_t>::min() || v > std::numeric_limits<int32_t>::max()) {
            fail(PD_ERR_TOO_LARGE);
        }
        *outValue = static_cast<int32_t>(v);
    });
}

PDResult PDObjectGetUnicodeString(PDObject object, char16_t* buf, uint32_t bufLen,
                                  uint32_t* outLen) {
    std::u16string value;
    PDResult r = guard([&] {
        auto& o = checkedObject(object);
        if (!o.obj.isString() && !o.obj.isName()) fail(PD_ERR_WRONG_HANDLE);
        value = textOf(o.obj);
    });
    return r != PD_OK ? r : putText(value, buf, bufLen, outLen);
}

PDResult PDObjectDictFind(PDObject dict, PDAtom key, PDObject* outValue) {
    if (outValue) *outValue = nullptr;
    return guard([&] {
        auto& o = checkedObject(dict);
        checkOut(outValue);
        auto k = keyOf(key);
        auto value = dictOf(o).getKey(k);
        if (!value.isNull()) *outValue = anyHandle(*o.doc, value, Kind::Object);
    });
}

PDResult PDObjectDictPut(PDObject dict, PDAtom key, PDObject value) {
    return guard([&] {
        auto& o = checkedObject(dict);
        auto k = keyOf(key);
        auto target = dictOf(o);
        if (!value) {
            target.removeKey(k);
            return;
        }
        auto& v = checkedObject(value);
        sameDoc(o, v);
        if (!target.isIndirect() && holdsDirect(v.obj, target)) fail(PD_ERR_CYCLE);
        // A dictionary under /V may be a signature, if target is (or becomes) a field.
        if (k == "/V" && v.obj.isDictionary()) o.doc->signaturesPossible = true;
        target.replaceKey(k, v.obj);
    });
}

PDResult PDObjectDictPutName(PDObject dict, PDAtom key, PDAtom name) {
    return guard([&] {
        auto& o = checkedObject(dict);
        auto k = keyOf(key);
        auto n = keyOf(name);
        dictOf(o).replaceKey(k, QPDFObjectHandle::newName(n));
    });
}

// ---- destinations ------------------------------------------------------------------------

PDResult PDDestCreate(PDDoc doc, PDAtom type, uint32_t pageIndex, float param1, float param2,
                      float param3, PDDest* outDest) {
    if (outDest) *outDest = nullptr;
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outDest);
        const FitType* fit = fitType(atomName(type));
        if (!fit) fail(PD_ERR_BAD_ARGUMENT);
        if (!std::isfinite(param1) || !std::isfinite(param2) || !std::isfinite(param3)) {
            fail(PD_ERR_BAD_ARGUMENT);
        }
        auto page = pageOf(d, pageIndex);
        auto dest = QPDFObjectHandle::newArray();
        dest.appendItem(page);
        dest.appendItem(QPDFObjectHandle::newName(std::string("/") + fit->name));
        const double params[4] = {param1, param2, param3, pageTop(page)};
        for (int i = 0; i < fit->stored; ++i) {
            dest.appendItem(QPDFObjectHandle::newReal(params[i], 4, true));
        }
        *outDest = handleFor(d, makeIndirect(d, dest), Kind::Dest);
    });
}

PDResult PDDestGetPageIndex(PDDest dest, uint32_t* outPageIndex) {
    return guard([&] {
        auto& h = checked(dest, Kind::Dest);
        checkOut(outPageIndex);
        auto arr = destArray(h.obj);
        if (arr.isNull() || arr.getArrayNItems() == 0) fail(PD_ERR_NO_VALUE);
        auto page = arr.getArrayItem(0);
        // A page number is the index of a page of the file the destination points into
        // (GoToE and GoToR write them so).
        if (page.isInteger()) {
            const long long number = page.getIntValue();
            if (number < 0 || number > 0xFFFFFFFELL) fail(PD_ERR_NO_VALUE);
            *outPageIndex = static_cast<uint32_t>(number);
            return;
        }
        if (!page.isDictionary() || !page.isIndirect()) fail(PD_ERR_NO_VALUE);
        int index = -1;
        try {
            index = h.doc->qpdf->findPage(page.getObjGen());
        } catch (const std::exception&) {
            index = -1; // an object that is not in the page tree
        }
        if (index < 0) fail(PD_ERR_NO_VALUE);
        *outPageIndex = static_cast<uint32_t>(index);
    });
}

PDResult PDDestGetType(PDDest dest, PDAtom* outType) {
    return guard([&] {
        auto& h = checked(dest, Kind::Dest);
        checkOut(outType);
        auto arr = destArray(h.obj);
        if (arr.isNull() || arr.getArrayNItems() < 2) fail(PD_ERR_NO_VALUE);
        auto type = arr.getArrayItem(1);
        if (!type.isName()) fail(PD_ERR_NO_VALUE);
        *outType = atomOf(type.getName().substr(1));
    });
}

PDResult PDDestGetParams(PDDest dest, float outParams[3]) {
    return guard([&] {
        auto& h = checked(dest, Kind::Dest);
        checkOut(outParams);
        auto arr = destArray(h.obj);
        if (arr.isNull() || arr.getArrayNItems() < 2) fail(PD_ERR_NO_VALUE);
        auto type = arr.getArrayItem(1);
        if (!type.isName()) fail(PD_ERR_NO_VALUE);
        const FitType* fit = fitType(type.getName().substr(1));
        int stored = fit ? std::min(fit->stored, 3) : 0;
        float params[3] = {0, 0, 0};
        for (int i = 0; i < stored && 2 + i < arr.getArrayNItems(); ++i) {
            double v = 0;
            if (arr.getArrayItem(2 + i).getValueAsNumber(v)) params[i] = static_cast<float>(v);
        }
        std::memcpy(outParams, params, sizeof params);
    });
}

// ---- file and URL references ------------------------------------------------------------

PDResult PDFileSpecCreate(PDDoc doc, PDAtom kind, const char16_t* path, uint32_t len,
                          PDFileSpec* outFileSpec) {
    if (outFileSpec) *outFileSpec = nullptr;
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outFileSpec);
        auto p = textArg(path, len);
        auto spec = QPDFObjectHandle::newDictionary();
        if (kind == PD_ATOM_Filespec) {
            spec.replaceKey("/Type", QPDFObjectHandle::newName("/Filespec"));
            spec.replaceKey("/F", textString(p));
            spec.replaceKey("/UF", textString(p));
        } else if (kind == atomOf("URL")) {
            spec.replaceKey("/FS", QPDFObjectHandle::newName("/URL"));
            spec.replaceKey("/F", textString(p));
        } else {
            fail(PD_ERR_BAD_ARGUMENT);
        }
        *outFileSpec = anyHandle(d, spec, Kind::FileSpec);
    });
}

PDResult PDFileSpecGetPath(PDFileSpec fileSpec, char16_t* buf, uint32_t bufLen, uint32_t* outLen) {
    std::u16string value;
    PDResult r = guard([&] {
        auto& h = checked(fileSpec, Kind::FileSpec);
        QPDFObjectHandle path = h.obj;
        if (path.isDictionary()) {
            path = path.getKey("/UF");
            if (!path.isString()) path = h.obj.getKey("/F");
        }
        if (!path.isString()) fail(PD_ERR_NO_VALUE);
        value = textOf(path);
    });
    return r != PD_OK ? r : putText(value, buf, bufLen, outLen);
}

// ---- field lists ---------------------------------------------------------------------------

PDResult PDCreateActionFieldsData(PDDoc doc, PDActionFieldsData* outData) {
    if (outData) *outData = nullptr;
    return guard([&] {
        Document& d = checkedDoc(doc);
        checkOut(outData);
        *outData = anyHandle(d, QPDFObjectHandle::newArray(), Kind::FieldsData);
    });
}

PDResult PDActionFieldsDataGetNumFields(PDActionFieldsData data, uint32_t* outCount) {
    return guard([&] {
        auto& h = checked(data, Kind::FieldsData);
        checkOut(outCount);
        *outCount = h.obj.isArray() ? static_cast<uint32_t>(h.obj.getArrayNItems()) : 0;
    });
}

PDResult PDActionFieldsDataGetField(PDActionFieldsData data, uint32_t index, PDField* outField) {
    if (outField) *outField = nullptr;
    return guard([&] {
        auto& h = checked(data, Kind::FieldsData);
        checkOut(outField);
        if (!h.obj.isArray() || index >= static_cast<uint32_t>(h.obj.getArrayNItems())) {
            fail(PD_ERR_RANGE);
        }
        auto item = h.obj.getArrayItem(static_cast<int>(index));
        if (item.isDictionary() && item.isIndirect()) {
            *outField = handleFor(*h.doc, item, Kind::Field);
        } else if (item.isString()) {
            // Entries written by name are looked up as PDDocFindField does; an empty name
            // finds nothing.
            auto name = textOf(item);
            if (name.empty()) return;
            PDField found = nullptr;
            PDResult r = PDDocFindField(&h.doc->self, name.data(),
                                        static_cast<uint32_t>(name.size()), &found);
            if (r != PD_OK) fail(r);
            *outField = found;
        }
    });
}

PDResult PDActionFieldsDataAddField(PDActionFieldsData data, PDField field) {
    return guard([&] {
        auto& h = checked(data, Kind::FieldsData);
        auto& f = checked(field, Kind::Field);
        sameDoc(h, f);
        if (!h.obj.isArray()) fail(PD_ERR_WRONG_HANDLE);
        h.obj.appendItem(f.obj);
    });
}

} // extern "C"
