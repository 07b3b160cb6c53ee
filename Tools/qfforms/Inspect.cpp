#include "Inspect.h"

#include "Files.h"
#include "Pd.h"
#include "Records.h"

#include <cmath>
#include <unordered_map>
#include <utility>
#include <vector>

namespace qfforms {

namespace {

// Coordinates are floats; printing them as doubles would show float noise
// (123.499 as 123.49900054931641), so they are rounded to 1/10000 of a point.
Json number(float v) {
    if (!std::isfinite(v)) return nullptr;
    return std::round(static_cast<double>(v) * 10000.0) / 10000.0;
}

Json rectJson(const PDRect& r) {
    Json j = Json::object();
    j["left"] = number(r.left);
    j["bottom"] = number(r.bottom);
    j["right"] = number(r.right);
    j["top"] = number(r.top);
    return j;
}

template <typename T> Json optionalJson(const std::optional<T>& v) {
    if (!v) return nullptr;
    return *v;
}

Json annotRect(PDAnnot annot) {
    PDRect rect{};
    PDResult r = PDAnnotGetRect(annot, &rect);
    if (r == PD_ERR_NO_VALUE) return nullptr;
    check(r);
    return rectJson(rect);
}

std::optional<std::string> fieldFullName(PDField field) {
    return readUtf8([&](char16_t* buf, uint32_t len, uint32_t* outLen) {
        return PDFieldGetFullName(field, buf, len, outLen);
    });
}

// Where a widget sits: the first page (and position in its /Annots) that lists it.
struct Place {
    uint32_t page;
    uint32_t annot;
};

class Inspector {
  public:
    explicit Inspector(PDDoc doc) : doc_(doc) {}

    Json run(const std::string& path) {
        Json out = Json::object();
        out["file"] = path;
        uint32_t pageCount = 0;
        check(PDDocGetNumPages(doc_, &pageCount));
        out["pageCount"] = pageCount;
        out["encryption"] = encryption();
        Json pages = Json::array();
        for (uint32_t i = 0; i < pageCount; ++i)
            pages.push_back(page(i));
        out["pages"] = std::move(pages);
        out["fields"] = fields();
        return out;
    }

  private:
    // null for an unencrypted document; else whether the owner password opened it, what its
    // permissions grant, and whether qfforms changes its form (the owner password, or the
    // permission to make and change form fields).
    Json encryption() {
        PDBool encrypted = 0, owner = 0;
        uint32_t granted = 0;
        check(PDDocIsEncrypted(doc_, &encrypted));
        if (!encrypted) return nullptr;
        check(PDDocOpenedWithOwnerPassword(doc_, &owner));
        check(PDDocGetPermissions(doc_, &granted));
        static constexpr std::pair<uint32_t, const char*> kNames[] = {
            {PD_PERM_PRINT, "print"},         {PD_PERM_PRINT_HIGH, "printHigh"},
            {PD_PERM_COPY, "copy"},           {PD_PERM_ACCESSIBILITY, "accessibility"},
            {PD_PERM_ASSEMBLE, "assemble"},   {PD_PERM_FILL_FORM, "fillForm"},
            {PD_PERM_ANNOTATE, "annotate"},   {PD_PERM_MODIFY, "modify"},
        };
        Json permissions = Json::array();
        for (const auto& [bit, name] : kNames) {
            if (granted & bit) permissions.push_back(name);
        }
        Json j = Json::object();
        j["ownerPassword"] = owner != 0;
        j["permissions"] = std::move(permissions);
        j["formEditable"] = owner || (granted & PD_PERM_EDIT_FORM) == PD_PERM_EDIT_FORM;
        return j;
    }

    Json page(uint32_t index) {
        Handle page;
        check(PDDocGetPage(doc_, index, page.out()));
        Json j = Json::object();
        j["index"] = index;
        PDRect box{};
        check(PDPageGetBox(page.get(), PD_BOX_MEDIA, &box));
        j["mediaBox"] = rectJson(box);
        check(PDPageGetBox(page.get(), PD_BOX_CROP, &box));
        j["cropBox"] = rectJson(box);
        int32_t rotation = 0;
        check(PDPageGetRotate(page.get(), &rotation));
        j["rotation"] = rotation;

        uint32_t count = 0;
        check(PDPageGetNumAnnots(page.get(), &count));
        Json annots = Json::array();
        for (uint32_t k = 0; k < count; ++k) {
            Handle annot;
            check(PDPageGetAnnot(page.get(), k, annot.out()));
            annots.push_back(annotation(annot.get(), k));
            // Kept alive to the end, so that the handles the fields' widgets give for
            // the same annotations are the same values (handle identity).
            places_.try_emplace(annot.get(), Place{index, k});
            kept_.push_back(std::move(annot));
        }
        j["annotations"] = std::move(annots);
        return j;
    }

    Json annotation(PDAnnot annot, uint32_t index) {
        Json j = Json::object();
        j["index"] = index;
        PDAtom subtype = 0;
        PDResult r = PDAnnotGetSubtype(annot, &subtype);
        if (r == PD_ERR_NO_VALUE) {
            j["subtype"] = nullptr;
        } else {
            check(r);
            j["subtype"] = atomName(subtype);
        }
        j["rect"] = annotRect(annot);
        uint32_t flags = 0;
        check(PDAnnotGetFlags(annot, &flags));
        j["flags"] = flags;
        if (r == PD_OK && subtype == PD_ATOM_Widget) {
            Handle field;
            check(PDWidgetAnnotGetParent(annot, field.out()));
            j["field"] = field ? optionalJson(fieldFullName(field.get())) : Json(nullptr);
        }
        return j;
    }

    Json fields() {
        uint32_t count = 0;
        check(PDDocGetNumFields(doc_, &count));
        Json list = Json::array();
        for (uint32_t i = 0; i < count; ++i) {
            Handle field;
            check(PDDocGetField(doc_, i, field.out()));
            list.push_back(fieldJson(field.get()));
        }
        return list;
    }

    Json fieldJson(PDField field) {
        Json j = Json::object();
        j["name"] = optionalJson(fieldFullName(field));

        PDAtom type = 0;
        PDResult r = PDFieldGetType(field, &type);
        if (r == PD_ERR_NO_VALUE) {
            type = 0;
            j["type"] = nullptr;
        } else {
            check(r);
            j["type"] = atomName(type);
        }
        uint32_t flags = 0;
        check(PDFieldGetFlags(field, &flags));
        j["flags"] = flags;

        j["value"] = optionalJson(readUtf8([&](char16_t* b, uint32_t n, uint32_t* len) {
            return PDFieldGetValue(field, b, n, len);
        }));
        j["defaultValue"] = optionalJson(readUtf8([&](char16_t* b, uint32_t n, uint32_t* len) {
            return PDFieldGetDefaultValue(field, b, n, len);
        }));
        j["tooltip"] = optionalJson(readUtf8([&](char16_t* b, uint32_t n, uint32_t* len) {
            return PDFieldGetUIName(field, b, n, len);
        }));

        if (type == PD_ATOM_Tx) {
            uint32_t maxLen = 0;
            check(PDTextFieldGetMaxLen(field, &maxLen));
            j["maxLength"] = maxLen ? Json(maxLen) : Json(nullptr);
        }
        if (type == PD_ATOM_Ch) j["options"] = options(field);

        const bool hasOnState = type == PD_ATOM_Btn && !(flags & PD_FIELD_PUSHBUTTON);
        uint32_t widgetCount = 0;
        check(PDFieldGetNumWidgets(field, &widgetCount));
        Json widgets = Json::array();
        for (uint32_t k = 0; k < widgetCount; ++k) {
            Handle widget;
            check(PDFieldGetWidget(field, k, widget.out()));
            widgets.push_back(widgetJson(widget.get(), type == PD_ATOM_Btn, hasOnState));
        }
        j["widgets"] = std::move(widgets);
        return j;
    }

    Json options(PDField field) {
        uint32_t count = 0;
        check(PDChoiceFieldGetNumOptions(field, &count));
        Json list = Json::array();
        for (uint32_t i = 0; i < count; ++i) {
            Json o = Json::object();
            o["display"] = optionalJson(readUtf8([&](char16_t* b, uint32_t n, uint32_t* len) {
                return PDChoiceFieldGetOptionValue(field, i, b, n, len);
            }));
            o["export"] = optionalJson(readUtf8([&](char16_t* b, uint32_t n, uint32_t* len) {
                return PDChoiceFieldGetOptionExportValue(field, i, b, n, len);
            }));
            list.push_back(std::move(o));
        }
        return list;
    }

    Json widgetJson(PDAnnot widget, bool button, bool hasOnState) {
        Json j = Json::object();
        auto place = places_.find(widget);
        if (place != places_.end()) {
            j["page"] = place->second.page;
            j["annotation"] = place->second.annot;
        } else {
            j["page"] = nullptr;
            j["annotation"] = nullptr;
        }
        j["rect"] = annotRect(widget);
        if (button) {
            std::optional<std::string> onState;
            if (hasOnState) {
                // A widget kid that lost its /Parent link is listed by its field but
                // is no check box or radio widget in its own right: no on-state.
                onState = readUtf8([&](char16_t* b, uint32_t n, uint32_t* len) {
                    PDResult r = PDButtonWidgetAnnotGetChoice(widget, b, n, len);
                    return r == PD_ERR_FIELD_KIND ? PD_ERR_NO_VALUE : r;
                });
            }
            j["onState"] = optionalJson(onState);
        }
        return j;
    }

    PDDoc doc_;
    std::unordered_map<PDHandle, Place> places_;
    std::vector<Handle> kept_;
};

} // namespace

Json inspectDocument(PDDoc doc, const std::string& path) {
    Inspector inspector(doc);
    return inspector.run(path);
}

Json inspectFile(const std::string& path, const Password& password) {
    if (auto problem = inputProblem(path, kMaxFileBytes))
        throw OpenRefused(OpenRefused::Reason::Unusable, "the file " + *problem);
    Handle doc;
    const PDResult r = PDDocOpenWithPassword(path.c_str(), password.text.data(),
                                             static_cast<uint32_t>(password.text.size()),
                                             doc.out());
    if (r == PD_ERR_PASSWORD)
        throw OpenRefused(OpenRefused::Reason::Password, passwordProblem(password.given));
    if (r != PD_OK) throw OpenRefused(OpenRefused::Reason::Unusable, errorText(r));
    if (auto problem = documentProblem(doc.get()))
        throw OpenRefused(OpenRefused::Reason::Unusable, *problem);
    return inspectDocument(doc.get(), path);
}

} // namespace qfforms
