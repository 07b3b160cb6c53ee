#include "WidgetCommands.h"

#include "AnnotRibbonTab.h"
#include "kr/KRRuntime.h"
#include "pdmodel-proxy/FormField"
#include "qf/internal/ServiceObjectException.h"

#include <string>
#include <vector>

using QF::PDHandlePtr;
using SODetails::BasicServiceObjectPtr;
using SODetails::ServiceObject;

namespace {

const _AutoReg_Command::Registration<AddWidgetCommand> kAddWidget("AddWidget");
const _AutoReg_Command::Registration<RenameWidgetCommand> kRenameWidget("Widget_Rename");
const _AutoReg_Command::Registration<GroupRadioButtonsCommand>
    kGroupRadioButtons("GroupRadioButtons");

constexpr const char16_t* kPDFLayerError = u"PDF layer error!";

// Change kinds of the document's annotation notifications.
constexpr uint32_t kChangeInserted = 0;
constexpr uint32_t kChangeRemoved = 1;
constexpr uint32_t kChangeRegrouped = 2;
constexpr uint32_t kChangeFieldName = 3;

// Slots of QF::DocumentTable and QF::PageTable.
constexpr size_t kGetPDDocSlot = 0;
constexpr size_t kGetPageSlot = 1;
constexpr size_t kNotifyAnnotChangedSlot = 2;
constexpr size_t kNotifyAnnotsChangedSlot = 3;
constexpr size_t kInvalidateRectSlot = 4;
constexpr size_t kGetPDPageSlot = 0;
constexpr size_t kGetChangedSlot = 1;
constexpr size_t kSetChangedSlot = 2;

[[noreturn]] void throwNotInitialized(const char* function) {
    ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized", function);
}

// The document service's operations, each skipped when the service does not offer it.
QF::DocumentTable& documentOps(const BasicServiceObjectPtr<>& document) {
    return *SODetails::methods<QF::DocumentTable>(document.get());
}
QF::PageTable& pageOps(const BasicServiceObjectPtr<>& page) {
    return *SODetails::methods<QF::PageTable>(page.get());
}

// The document's pdfcore handle; null when the service gives none.
PDHandlePtr getPDDoc(const BasicServiceObjectPtr<>& document) {
    PDHandlePtr doc;
    if (SODetails::hasMethod(document.get(), kGetPDDocSlot) &&
        documentOps(document).GetPDDoc(document.get(), doc.put()) != 0)
        doc.reset();
    return doc;
}

BasicServiceObjectPtr<> getPage(const BasicServiceObjectPtr<>& document, uint64_t pageIndex) {
    BasicServiceObjectPtr<> page;
    if (SODetails::hasMethod(document.get(), kGetPageSlot) &&
        documentOps(document).GetPage(document.get(), pageIndex, page.put()) != 0)
        page.reset();
    return page;
}

PDHandlePtr getPDPage(const BasicServiceObjectPtr<>& page) {
    PDHandlePtr handle;
    if (SODetails::hasMethod(page.get(), kGetPDPageSlot) &&
        pageOps(page).GetPDPage(page.get(), handle.put()) != 0)
        handle.reset();
    return handle;
}

void notifyAnnotChanged(const BasicServiceObjectPtr<>& document, uint32_t kind, uint64_t pageIndex,
                        PDAnnot annot) {
    if (SODetails::hasMethod(document.get(), kNotifyAnnotChangedSlot))
        documentOps(document).NotifyAnnotChanged(document.get(), kind, pageIndex, annot);
}

void invalidateRect(const BasicServiceObjectPtr<>& document, uint64_t pageIndex,
                    const PDRect& rect) {
    if (!SODetails::hasMethod(document.get(), kInvalidateRectSlot)) return;
    const float corners[4] = {rect.left, rect.top, rect.right, rect.bottom};
    documentOps(document).InvalidateRect(document.get(), pageIndex, corners, 1);
}

PDHandlePtr parentOf(PDAnnot widget, const char* function, std::u16string_view message) {
    PDHandlePtr parent;
    CheckPDResult(PDWidgetAnnotGetParent(widget, parent.put()), function, message);
    return parent;
}

// The atom of the ribbon tab of annot, the feature name of a command on it.
uint32_t featureAtom(PDAnnot annot, const char* function) {
    const std::u16string tab = QF::GetAnnotRibbonTabName(annot);
    uint32_t atom = 0;
    const uint32_t result = KRGetAtomFromStringW(tab.c_str(), &atom);
    if (result != 0) ThrowServiceObjectException(result, u"Unspecified Error!", function);
    return atom;
}

template <typename Params>
const Params& paramsOf(const QF::CommandArgs& args, const char* function) {
    if (!args.params) ThrowServiceObjectException(SOImpl::kBadArgument, u"Bad param", function);
    return *static_cast<const Params*>(args.params);
}

} // namespace

// ---- AddWidgetCommand -------------------------------------------------------------------

AddWidgetCommand::AddWidgetCommand(const QF::CommandArgs& args) : CommandBase(args) {
    static constexpr const char* kFunction = "AddWidgetCommand::AddWidgetCommand";
    const auto& params = paramsOf<QF::AddWidgetParams>(args, kFunction);
    document_ = BasicServiceObjectPtr<>::share(params.document);
    pageIndex_ = params.pageIndex;
    widget_ = PDHandlePtr::share(params.widget);

    field_ = parentOf(widget_.get(), kFunction, kPDFLayerError);
    if (!field_) throwNotInitialized(kFunction);

    page_ = getPage(document_, pageIndex_);
    // No document, a page past its pages or a closed document: nothing to add the widget to.
    if (!page_) ThrowServiceObjectException(SOImpl::kBadArgument, u"Bad param", kFunction);
    uint8_t changed = 0;
    if (SODetails::hasMethod(page_.get(), kGetChangedSlot) &&
        pageOps(page_).GetChanged(page_.get(), &changed) == 0)
        pageChanged_ = changed != 0;
}

uint32_t AddWidgetCommand::GetFeatureName(uint32_t* out) {
    *out = featureAtom(widget_.get(), "AddWidgetCommand::GetFeatureName");
    return 0;
}

uint32_t AddWidgetCommand::GetTrackingFeatureName(uint32_t* out) {
    *out = featureAtom(widget_.get(), "AddWidgetCommand::GetTrackingFeatureName");
    return 0;
}

uint32_t AddWidgetCommand::DO() {
    static constexpr const char* kFunction = "AddWidgetCommand::DO";
    PDAnnot widget = widget_.get();
    if (const PDHandlePtr page = getPDPage(page_)) {
        uint32_t count = 0;
        CheckPDResult(PDPageGetNumAnnots(page.get(), &count), kFunction, kPDFLayerError);
        CheckPDResult(PDPageAddAnnot(page.get(), count, widget), kFunction, kPDFLayerError);
    }
    if (!parentOf(widget, kFunction, kPDFLayerError))
        CheckPDResult(PDFieldAppendWidget(field_.get(), widget), kFunction, kPDFLayerError);

    PDRect rect{};
    CheckPDResult(PDAnnotGetRect(widget, &rect), kFunction, kPDFLayerError);
    notifyAnnotChanged(document_, kChangeInserted, pageIndex_, widget);
    invalidateRect(document_, pageIndex_, rect);

    if (SODetails::hasMethod(page_.get(), kSetChangedSlot))
        pageOps(page_).SetChanged(page_.get(), 1);
    return 0;
}

uint32_t AddWidgetCommand::UNDO() {
    static constexpr const char* kFunction = "AddWidgetCommand::UNDO";
    PDAnnot widget = widget_.get();
    PDRect rect{};
    CheckPDResult(PDAnnotGetRect(widget, &rect), kFunction, kPDFLayerError);
    if (const PDHandlePtr page = getPDPage(page_))
        CheckPDResult(PDPageRemoveAnnot(page.get(), widget), kFunction, kPDFLayerError);
    CheckPDResult(PDFieldRemoveWidget(field_.get(), widget), kFunction, kPDFLayerError);

    notifyAnnotChanged(document_, kChangeRemoved, pageIndex_, widget);
    invalidateRect(document_, pageIndex_, rect);

    if (SODetails::hasMethod(page_.get(), kSetChangedSlot))
        pageOps(page_).SetChanged(page_.get(), pageChanged_ ? 1 : 0);
    return 0;
}

// ---- RenameWidgetCommand ----------------------------------------------------------------

RenameWidgetCommand::RenameWidgetCommand(const QF::CommandArgs& args) : CommandBase(args) {
    static constexpr const char* kFunction = "RenameWidgetCommand::RenameWidgetCommand";
    const auto& params = paramsOf<QF::RenameWidgetParams>(args, kFunction);
    document_ = BasicServiceObjectPtr<>::share(params.document);
    pageIndex_ = params.pageIndex;
    widget_ = PDHandlePtr::share(params.widget);
    if (!params.name) throwNotInitialized(kFunction);

    newName_ = params.name;
    if (newName_.empty())
        ThrowServiceObjectException(SOImpl::kBadArgument,
                                    QF::Translate(u"The name cannot be empty."), kFunction);

    PDHandlePtr parent = parentOf(widget_.get(), kFunction, u"Unspecified Error!");
    if (!parent) throwNotInitialized(kFunction);
    oldName_ = QF::GetFieldFullName(parent.get(), kFunction);
    formerField_ = std::move(parent);

    CheckExistingField();
}

void RenameWidgetCommand::CheckExistingField() {
    // Part of the construction, and named so in failure records.
    static constexpr const char* kFunction = "RenameWidgetCommand::RenameWidgetCommand";
    const PDHandlePtr doc = getPDDoc(document_);
    if (!doc) throwNotInitialized(kFunction);
    const PDHandlePtr parent = parentOf(widget_.get(), kFunction, u"Unspecified Error!");
    PDHandlePtr found;
    CheckPDResult(PDDocFindField(doc.get(), newName_.data(), static_cast<uint32_t>(newName_.size()),
                                 found.put()),
                  kFunction);
    if (found && !PDFL::AreFieldsCompatible(parent.get(), found.get()))
        ThrowServiceObjectException(
            14, QF::Translate(u"This name is already set for a different field type."), kFunction);
}

void RenameWidgetCommand::RenameWidget(const std::u16string& name, PDField former) {
    static constexpr const char* kFunction = "RenameWidgetCommand::RenameWidget";
    PDAnnot widget = widget_.get();
    const PDHandlePtr parent = parentOf(widget, kFunction, u"Unspecified Error!");
    if (!parent) throwNotInitialized(kFunction);
    PDAtom type = 0;
    CheckPDResult(PDFieldGetType(parent.get(), &type), kFunction);
    uint32_t flags = 0;
    CheckPDResult(PDFieldGetFlags(parent.get(), &flags), kFunction);
    const PDHandlePtr doc = getPDDoc(document_);
    if (!doc) throwNotInitialized(kFunction);

    PDHandlePtr found;
    CheckPDResult(PDDocFindField(doc.get(), name.data(), static_cast<uint32_t>(name.size()),
                                 found.put()),
                  kFunction);
    // The name was given to another field since: going there would put the widget into a
    // field it never had.
    if (former && found && found.get() != former)
        ThrowServiceObjectException(
            14,
            QF::Translate(u"This name now belongs to another field; the rename cannot be undone."),
            kFunction);
    QF::WidgetUtilities::MoveWidgetToName(doc.get(), parent.get(), widget, name, found.get(), type,
                                          flags, kFunction);
    notifyAnnotChanged(document_, kChangeFieldName, pageIndex_, widget);
}

uint32_t RenameWidgetCommand::GetFeatureName(uint32_t* out) {
    *out = featureAtom(widget_.get(), "RenameWidgetCommand::GetFeatureName");
    return 0;
}

uint32_t RenameWidgetCommand::GetTrackingFeatureName(uint32_t* out) {
    *out = featureAtom(widget_.get(), "RenameWidgetCommand::GetTrackingFeatureName");
    return 0;
}

uint32_t RenameWidgetCommand::DO() {
    RenameWidget(newName_);
    return 0;
}

uint32_t RenameWidgetCommand::UNDO() {
    RenameWidget(oldName_, formerField_.get());
    return 0;
}

// ---- GroupRadioButtonsCommand -----------------------------------------------------------

GroupRadioButtonsCommand::GroupRadioButtonsCommand(const QF::CommandArgs& args)
    : CommandBase(args) {
    static constexpr const char* kFunction = "GroupRadioButtonsCommand::GroupRadioButtonsCommand";
    const auto& params = paramsOf<QF::GroupRadioButtonsParams>(args, kFunction);
    document_ = BasicServiceObjectPtr<>::share(params.document);
    pageIndex_ = params.pageIndex;
    if (!params.widgets) throwNotInitialized(kFunction);

    const QF::WidgetList& list = *params.widgets;
    for (uint64_t i = 0; list.items && i < list.count; ++i) {
        PDAnnot widget = list.items[i];
        const auto key = reinterpret_cast<uintptr_t>(widget);
        if (entries_.count(key)) continue;
        Entry entry;
        entry.formerParent = parentOf(widget, kFunction, kPDFLayerError);
        CheckPDResult(PDWidgetAnnotGetFontColor(widget, &entry.fontColor), kFunction,
                      kPDFLayerError);
        CheckPDResult(PDWidgetAnnotGetHighlight(widget, &entry.highlight), kFunction,
                      kPDFLayerError);
        entry.exportValue = QF::GetButtonChoice(widget, kFunction, kPDFLayerError);
        const PDResult state = PDAnnotGetAppearanceState(widget, &entry.appearanceState);
        if (state == PD_ERR_NO_VALUE) {
            entry.appearanceState = 0;
        } else {
            CheckPDResult(state, kFunction, kPDFLayerError);
        }
        entry.widget = PDHandlePtr::share(widget);
        entries_.emplace(key, std::move(entry));
    }
    if (entries_.empty())
        ThrowServiceObjectException(SOImpl::kBadArgument, u"Bad param", kFunction);
}

uint32_t GroupRadioButtonsCommand::GetFeatureName(uint32_t* out) {
    *out = featureAtom(entries_.begin()->second.widget.get(),
                       "GroupRadioButtonsCommand::GetFeatureName");
    return 0;
}

uint32_t GroupRadioButtonsCommand::GetTrackingFeatureName(uint32_t* out) {
    *out = featureAtom(entries_.begin()->second.widget.get(),
                       "GroupRadioButtonsCommand::GetTrackingFeatureName");
    return 0;
}

uint32_t GroupRadioButtonsCommand::DO() {
    static constexpr const char* kFunction = "GroupRadioButtonsCommand::DO";
    const PDHandlePtr doc = getPDDoc(document_);
    if (!doc) throwNotInitialized(kFunction);
    PDHandlePtr group;
    CheckPDResult(PDCreateButtonField(doc.get(), nullptr, 0, PD_FIELD_RADIO, group.put()),
                  kFunction, kPDFLayerError);
    if (!group) return 0;

    uint32_t counter = 1;
    for (auto& [key, entry] : entries_) {
        PDAnnot widget = entry.widget.get();
        if (const PDHandlePtr parent = parentOf(widget, kFunction, kPDFLayerError))
            CheckPDResult(PDFieldRemoveWidget(parent.get(), widget), kFunction, kPDFLayerError);
        CheckPDResult(PDFieldAppendWidget(group.get(), widget), kFunction, kPDFLayerError);
        CheckPDResult(PDWidgetAnnotSetFontColor(widget, entry.fontColor), kFunction,
                      kPDFLayerError);
        CheckPDResult(PDWidgetAnnotSetHighlight(widget, entry.highlight), kFunction,
                      kPDFLayerError);
        const std::string digits = std::to_string(counter);
        const std::u16string choice(digits.begin(), digits.end());
        CheckPDResult(PDButtonWidgetAnnotSetChoice(widget, choice.data(),
                                                   static_cast<uint32_t>(choice.size())),
                      kFunction, kPDFLayerError);
        CheckPDResult(PDAnnotSetAppearanceState(widget, PD_ATOM_Off), kFunction, kPDFLayerError);
        ++counter;
    }
    NotifyRegrouped();
    return 0;
}

uint32_t GroupRadioButtonsCommand::UNDO() {
    static constexpr const char* kFunction = "GroupRadioButtonsCommand::UNDO";
    for (auto& [key, entry] : entries_) {
        PDAnnot widget = entry.widget.get();
        if (const PDHandlePtr parent = parentOf(widget, kFunction, kPDFLayerError))
            CheckPDResult(PDFieldRemoveWidget(parent.get(), widget), kFunction, kPDFLayerError);
        if (entry.formerParent)
            CheckPDResult(PDFieldAppendWidget(entry.formerParent.get(), widget), kFunction,
                          kPDFLayerError);
        CheckPDResult(PDWidgetAnnotSetFontColor(widget, entry.fontColor), kFunction,
                      kPDFLayerError);
        CheckPDResult(PDWidgetAnnotSetHighlight(widget, entry.highlight), kFunction,
                      kPDFLayerError);
        // An empty on-state name takes away the one DO gave.
        CheckPDResult(PDButtonWidgetAnnotSetChoice(widget, entry.exportValue.data(),
                                                   static_cast<uint32_t>(entry.exportValue.size())),
                      kFunction, kPDFLayerError);
        CheckPDResult(PDAnnotSetAppearanceState(widget, entry.appearanceState), kFunction,
                      kPDFLayerError);
    }
    NotifyRegrouped();
    return 0;
}

void GroupRadioButtonsCommand::NotifyRegrouped() {
    if (!SODetails::hasMethod(document_.get(), kNotifyAnnotsChangedSlot)) return;
    std::vector<PDAnnot> widgets;
    widgets.reserve(entries_.size());
    for (const auto& [key, entry] : entries_)
        widgets.push_back(entry.widget.get());
    documentOps(document_).NotifyAnnotsChanged(document_.get(), kChangeRegrouped, pageIndex_,
                                               widgets.data(), widgets.size());
}
