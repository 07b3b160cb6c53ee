#include "qf/internal/AnnotEditUtilities"

#include "pdmodel-proxy/FormField"
#include "qf/DocumentInterfaces.h"
#include "qf/Property.SO"
#include "qf/internal/ServiceObjectException.h"
#include "service-common/ServiceProvider"

#include <vector>

using SODetails::BasicServiceObjectPtr;
using SODetails::ServiceObject;

namespace QF {

namespace {

// GetTranslatedString's slot in the host's "QFStringService".
constexpr size_t kGetTranslatedStringSlot = 0;

// Reads a pdfcore text in two calls; getter(buf, bufLen, outLen).
template <typename Getter>
std::u16string readText(Getter&& getter, const char* function, std::u16string_view message) {
    uint32_t length = 0;
    CheckPDResult(getter(nullptr, 0, &length), function, message);
    std::u16string text(length + 1, u'\0');
    CheckPDResult(getter(text.data(), static_cast<uint32_t>(text.size()), &length), function,
                  message);
    text.resize(length);
    return text;
}

// A pdfcore failure raised with pdfcore's own text for it.
void checkWithLibraryMessage(PDResult result, const char* function) {
    if (result != PD_OK) CheckPDResult(result, function, PDGetErrMessage(result));
}

} // namespace

std::u16string Translate(std::u16string_view text) {
    static const uint32_t kStringServiceAtom = SP::ResolveAtom("QFStringService");
    const std::u16string original(text);
    BasicServiceObjectPtr<> service = SP::TryGetServiceObject(kStringServiceAtom);
    if (!SODetails::hasMethod(service.get(), kGetTranslatedStringSlot)) return original;
    auto& ops = *SODetails::methods<StringServiceTable>(service.get());
    const auto length = static_cast<uint32_t>(original.size());
    uint32_t needed = 0;
    if (ops.GetTranslatedString(service.get(), original.data(), length, nullptr, 0, &needed) != 0)
        return original;
    std::vector<char16_t> buffer(static_cast<size_t>(needed) + 1, u'\0');
    uint32_t written = 0;
    if (ops.GetTranslatedString(service.get(), original.data(), length, buffer.data(),
                                static_cast<uint32_t>(buffer.size()), &written) != 0 ||
        written > needed)
        return original;
    return std::u16string(buffer.data(), written);
}

std::u16string GetFieldFullName(PDField field, const char* function, std::u16string_view message) {
    return readText([field](char16_t* buf, uint32_t len,
                            uint32_t* out) { return PDFieldGetFullName(field, buf, len, out); },
                    function, message);
}

std::u16string GetButtonChoice(PDAnnot widget, const char* function, std::u16string_view message) {
    uint32_t length = 0;
    const PDResult probe = PDButtonWidgetAnnotGetChoice(widget, nullptr, 0, &length);
    if (probe == PD_ERR_NO_VALUE) return {};
    CheckPDResult(probe, function, message);
    return readText(
        [widget](char16_t* buf, uint32_t len, uint32_t* out) {
            return PDButtonWidgetAnnotGetChoice(widget, buf, len, out);
        },
        function, message);
}

namespace WidgetUtilities {

void RenameFormWidget(ServiceObject* documentService, PDAnnot widget, uint64_t pageIndex,
                      const std::u16string& name) {
    static constexpr const char* kFunction = "QF::WidgetUtilities::RenameFormWidget";
    const auto service = BasicServiceObjectPtr<>::adopt(documentService);
    const auto widgetRef = PDHandlePtr::adopt(widget);

    if (name.empty())
        ThrowServiceObjectException(SOImpl::kBadArgument, Translate(u"The name cannot be empty."),
                                    kFunction);

    PDHandlePtr document;
    if (SODetails::hasMethod(service.get(), 0)) {
        auto& ops = *SODetails::methods<DocumentTable>(service.get());
        if (ops.GetPDDoc(service.get(), document.put()) != 0) document.reset();
    }
    if (!document)
        ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized", kFunction);

    PDHandlePtr parent;
    checkWithLibraryMessage(PDWidgetAnnotGetParent(widget, parent.put()), kFunction);
    if (!parent)
        ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized", kFunction);
    PDAtom type = 0;
    checkWithLibraryMessage(PDFieldGetType(parent.get(), &type), kFunction);
    uint32_t flags = 0;
    checkWithLibraryMessage(PDFieldGetFlags(parent.get(), &flags), kFunction);

    const auto length = static_cast<uint32_t>(name.size());
    PDHandlePtr existing;
    CheckPDResult(PDDocFindField(document.get(), name.data(), length, existing.put()), kFunction);

    if (existing && !PDFL::AreFieldsCompatible(parent.get(), existing.get()))
        ThrowServiceObjectException(
            14, Translate(u"This name is already set for a different field type."), kFunction);
    MoveWidgetToName(document.get(), parent.get(), widget, name, existing.get(), type, flags,
                     kFunction);

    CheckPDResult(
        PDDocNotifyAnnotChanged(document.get(), 3, static_cast<uint32_t>(pageIndex), widget),
        kFunction);
}

void MoveWidgetToName(PDDoc document, PDField parent, PDAnnot widget, const std::u16string& name,
                      PDField existing, PDAtom type, uint32_t flags, const char* function) {
    const auto length = static_cast<uint32_t>(name.size());
    if (existing) {
        CheckPDResult(PDFieldRemoveWidget(parent, widget), function);
        CheckPDResult(PDFieldAppendWidget(existing, widget), function);
        return;
    }
    uint32_t widgets = 0;
    CheckPDResult(PDFieldGetNumWidgets(parent, &widgets), function);
    if (widgets == 1) {
        CheckPDResult(PDDocRenameField(document, parent, name.data(), length), function);
        return;
    }
    PDHandlePtr created;
    CheckPDResult(PDDocCreateField(document, name.data(), length, type, flags, created.put()),
                  function);
    CheckPDResult(PDFieldRemoveWidget(parent, widget), function);
    CheckPDResult(PDFieldAppendWidget(created.get(), widget), function);
}

namespace {

// The widget's field; 2 "Not initialized" without one.
PDHandlePtr choiceFieldOf(PDAnnot widget, const char* function) {
    PDHandlePtr field;
    checkWithLibraryMessage(PDWidgetAnnotGetParent(widget, field.put()), function);
    if (!field) ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized", function);
    return field;
}

std::u16string libraryText(PDResult (*getter)(PDField, uint32_t, char16_t*, uint32_t, uint32_t*),
                           PDField field, uint32_t index, const char* function) {
    uint32_t length = 0;
    checkWithLibraryMessage(getter(field, index, nullptr, 0, &length), function);
    std::u16string text(length + 1, u'\0');
    checkWithLibraryMessage(getter(field, index, text.data(), static_cast<uint32_t>(text.size()),
                                   &length),
                            function);
    text.resize(length);
    return text;
}

} // namespace

std::shared_ptr<PropStringPairListData> GetComboOptionsList(PDAnnot widget) {
    static constexpr const char* kFunction = "QF::WidgetUtilities::GetComboOptionsList";
    const PDHandlePtr field = choiceFieldOf(widget, kFunction);
    auto list = std::make_shared<PropStringPairListData>();
    uint32_t count = 0;
    checkWithLibraryMessage(PDChoiceFieldGetNumOptions(field.get(), &count), kFunction);
    for (uint32_t k = 0; k < count; ++k) {
        std::u16string display =
            libraryText(&PDChoiceFieldGetOptionValue, field.get(), k, kFunction);
        std::u16string exportValue =
            libraryText(&PDChoiceFieldGetOptionExportValue, field.get(), k, kFunction);
        list->Pairs().emplace_back(std::move(display), std::move(exportValue));
    }
    return list;
}

void SetComboOptionsList(ServiceObject* documentService, PDAnnot widget, uint64_t pageIndex,
                         std::shared_ptr<PropStringPairListData> list) {
    static constexpr const char* kFunction = "QF::WidgetUtilities::SetComboOptionsList";
    const auto service = BasicServiceObjectPtr<>::adopt(documentService);
    const auto widgetRef = PDHandlePtr::adopt(widget);
    const auto options = std::move(list);
    const PDHandlePtr field = choiceFieldOf(widget, kFunction);
    checkWithLibraryMessage(PDChoiceFieldRemoveAllOptions(field.get()), kFunction);
    if (options) {
        uint32_t k = 0;
        for (const auto& [display, exportValue] : options->Pairs()) {
            checkWithLibraryMessage(
                PDChoiceFieldInsertOption(field.get(), k++, display.data(),
                                          static_cast<uint32_t>(display.size()),
                                          exportValue.data(),
                                          static_cast<uint32_t>(exportValue.size())),
                kFunction);
        }
    }
    checkWithLibraryMessage(PDFieldUpdateWidgets(field.get()), kFunction);
    if (SODetails::hasMethod(service.get(), 2))
        SODetails::methods<DocumentTable>(service.get())
            ->NotifyAnnotChanged(service.get(), 3, pageIndex, widget);
}

} // namespace WidgetUtilities

} // namespace QF
