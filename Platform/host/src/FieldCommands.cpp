// The option-list command: a choice field's options and selection before and after a
// change the forms module made, written back by UNDO and DO. No exception leaves a
// method table (guarded).
#include "qfhost/FieldCommands.h"

#include "qfhost/Host.h"

#include "HeldHandle.h"
#include "Thunks.h"

#include "kr/KRRuntime.h"
#include "qf/DocumentInterfaces.h"

#include <atomic>
#include <string>
#include <utility>
#include <vector>

namespace qfhost {

namespace {

using detail::Held;

constexpr uint32_t kOptionListCommandImplId = 0x51480501;

// Slots of the "QFDocument" and "QFPage" tables used here.
enum : size_t {
    kGetPageSlot = 1,
    kNotifyAnnotChangedSlot = 2,
    kIsValidSlot = 8,
    kSetChangedSlot = 2,
};

QF::DocumentTable& documentTable(ServiceObject* document) {
    return *SODetails::methods<QF::DocumentTable>(document);
}

bool documentOpen(ServiceObject* document) {
    if (!SODetails::hasMethod(document, kIsValidSlot)) return false;
    uint32_t valid = 0;
    return documentTable(document).IsValid(document, &valid) == codes::kOk && valid != 0;
}

// A text getter of pdfcore's two-call kind, for option index k of field.
std::u16string optionText(PDResult (*get)(PDField, uint32_t, char16_t*, uint32_t, uint32_t*),
                          PDField field, uint32_t k, PDResult& rc) {
    uint32_t length = 0;
    rc = get(field, k, nullptr, 0, &length);
    if (rc != PD_OK) return {};
    std::u16string text(length, u'\0');
    if (length) rc = get(field, k, text.data(), length, &length);
    text.resize(length);
    return text;
}

// What the command writes: the options in order and the selected one.
struct Options {
    std::vector<std::pair<std::u16string, std::u16string>> pairs;
    uint32_t selection = PD_NO_SELECTION;

    PDResult read(PDField field, PDAnnot widget) {
        pairs.clear();
        uint32_t count = 0;
        PDResult rc = PDChoiceFieldGetNumOptions(field, &count);
        for (uint32_t k = 0; rc == PD_OK && k < count; ++k) {
            std::u16string display = optionText(&PDChoiceFieldGetOptionValue, field, k, rc);
            if (rc != PD_OK) break;
            std::u16string exported = optionText(&PDChoiceFieldGetOptionExportValue, field, k, rc);
            pairs.emplace_back(std::move(display), std::move(exported));
        }
        if (rc == PD_OK) rc = PDChoiceWidgetAnnotGetSelection(widget, &selection);
        return rc;
    }

    PDResult write(PDField field, PDAnnot widget) const {
        PDResult rc = PDChoiceFieldRemoveAllOptions(field);
        uint32_t k = 0;
        for (const auto& [display, exported] : pairs) {
            if (rc != PD_OK) break;
            rc = PDChoiceFieldInsertOption(field, k++, display.data(),
                                           static_cast<uint32_t>(display.size()), exported.data(),
                                           static_cast<uint32_t>(exported.size()));
        }
        if (rc == PD_OK && selection != PD_NO_SELECTION && selection < pairs.size())
            rc = PDChoiceWidgetAnnotSetSelection(widget, selection);
        if (rc == PD_OK) rc = PDFieldUpdateWidgets(field);
        return rc;
    }
};

struct OptionListCommand {
    ObjectPtr document;
    uint64_t pageIndex;
    Held widget;
    Held field;
    Options before, after;
    std::function<uint32_t()> set;  // the first DO's change; empty afterwards
    uint32_t uniqueId;
    bool changedBefore = false;

    static uint32_t nameAtom() {
        static const uint32_t atom = [] {
            uint32_t a = 0;
            return KRGetAtomFromString("Field_SetOptions", &a) == KR_OK ? a : 0u;
        }();
        return atom;
    }

    ObjectPtr page() const {
        ObjectPtr p;
        if (!SODetails::hasMethod(document.get(), kGetPageSlot) ||
            documentTable(document.get()).GetPage(document.get(), pageIndex, p.put()) !=
                codes::kOk)
            return {};
        return p;
    }

    uint32_t apply(bool undo) {
        if (!documentOpen(document.get())) return codes::kDocumentClosed;
        const ObjectPtr p = page();
        if (!p || !SODetails::hasMethod(p.get(), kSetChangedSlot)) return codes::kNotInitialized;
        auto& pageTable = *SODetails::methods<QF::PageTable>(p.get());
        if (undo) {
            if (before.write(field.get(), widget.get()) != PD_OK) return codes::kPdfFailure;
            pageTable.SetChanged(p.get(), changedBefore ? 1 : 0);
        } else {
            uint8_t changed = 0;
            pageTable.GetChanged(p.get(), &changed);
            if (set) {
                if (before.read(field.get(), widget.get()) != PD_OK) return codes::kPdfFailure;
                const uint32_t rc = std::exchange(set, nullptr)();
                if (rc != codes::kOk) {
                    before.write(field.get(), widget.get());
                    return rc;
                }
                if (after.read(field.get(), widget.get()) != PD_OK) return codes::kPdfFailure;
            } else if (after.write(field.get(), widget.get()) != PD_OK) {
                return codes::kPdfFailure;
            }
            changedBefore = changed != 0;
            pageTable.SetChanged(p.get(), 1);
        }
        if (SODetails::hasMethod(document.get(), kNotifyAnnotChangedSlot))
            documentTable(document.get()).NotifyAnnotChanged(document.get(), 3, pageIndex,
                                                             widget.get());
        return codes::kOk;
    }
};

OptionListCommand& commandOf(ServiceObject* so) {
    return SODetails::implOf<QF::CommandTable, OptionListCommand>(so);
}

uint32_t commandName(ServiceObject*, uint32_t* out) {
    if (!out) return codes::kBadArgument;
    *out = OptionListCommand::nameAtom();
    return codes::kOk;
}

const QF::CommandTable kCommandTable = {
    commandName,
    [](ServiceObject* self, uint32_t* out) -> uint32_t {
        if (!out) return codes::kBadArgument;
        *out = commandOf(self).uniqueId;
        return codes::kOk;
    },
    commandName,
    commandName,
    [](ServiceObject* self) -> uint32_t {
        return detail::guarded([&] { return commandOf(self).apply(false); });
    },
    [](ServiceObject* self) -> uint32_t {
        return detail::guarded([&] { return commandOf(self).apply(true); });
    },
};

}  // namespace

uint32_t runOptionListChange(Host& host, ServiceObject* document, uint64_t pageIndex,
                             PDAnnot widget, const std::function<uint32_t()>& set) {
    if (!document || !widget || !set ||
        SODetails::header(document)->interfaceId != QF::kDocumentId)
        return codes::kBadArgument;
    if (!documentOpen(document)) return codes::kDocumentClosed;
    Held field;
    PDAtom type = 0;
    if (PDWidgetAnnotGetParent(widget, field.put()) != PD_OK || !field.get() ||
        PDFieldGetType(field.get(), &type) != PD_OK || type != PD_ATOM_Ch)
        return codes::kBadArgument;
    static std::atomic<uint32_t> ids{0};
    ObjectPtr command = ObjectPtr::adopt(
        SODetails::makeServiceObject<QF::CommandTable, OptionListCommand, HostTraits>(
            QF::kCommandId, "Command", kOptionListCommandImplId, kCommandTable,
            OptionListCommand{ObjectPtr::share(document), pageIndex, Held::share(widget),
                              std::move(field), {}, {}, set, ++ids}));
    return host.commands().run(command.get());
}

}  // namespace qfhost
