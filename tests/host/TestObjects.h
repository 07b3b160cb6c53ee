// Service objects the host tests hand to the host: commands with a scripted outcome,
// their factory, tools, and plain objects for the registries.
#pragma once

#include "qfhost/HostObjects.h"

#include "kr/KRRuntime.h"
#include "pdfcore/pdfcore.h"
#include "qf/Interfaces.h"

#include <string>
#include <vector>

namespace hosttest {

using qfhost::ObjectPtr;
using SODetails::ServiceObject;

inline uint32_t atom(const char* name) {
    uint32_t id = 0;
    KRGetAtomFromString(name, &id);
    return id;
}

inline int32_t refs(ServiceObject* so) { return SODetails::header(so)->base.GetRefCount(so); }

// One pdfcore reference, dropped at the end of the scope.
struct Handle {
    PDHandle h = nullptr;
    Handle() = default;
    explicit Handle(PDHandle x) : h(x) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { PDHandleRelease(h); }
    PDHandle* put() {
        PDHandleRelease(h);
        h = nullptr;
        return &h;
    }
    PDHandle get() const { return h; }
    explicit operator bool() const { return h != nullptr; }
};

// A text widget of a new field, put at the end of the page's /Annots (one reference for the
// caller; NULL when a call failed).
inline PDAnnot addTextWidget(PDDoc doc, uint32_t pageIndex, const PDRect& rect) {
    Handle page, field;
    PDAnnot widget = nullptr;
    uint32_t n = 0;
    if (PDDocGetPage(doc, pageIndex, page.put()) != PD_OK ||
        PDCreateTextField(doc, nullptr, 0, 0, field.put()) != PD_OK ||
        PDCreateTextWidgetAnnot(doc, field.h, page.h, &rect, &widget) != PD_OK ||
        PDPageGetNumAnnots(page.h, &n) != PD_OK || PDPageAddAnnot(page.h, n, widget) != PD_OK) {
        PDHandleRelease(widget);
        return nullptr;
    }
    return widget;
}

// What the test commands did, in order: "do:<tag>", "undo:<tag>", "gone:<tag>".
using Journal = std::vector<std::string>;

// The params record of a test command (CommandArgs::params).
struct CommandScript {
    Journal* journal;
    std::string tag;
    uint32_t doResult = 0;
    uint32_t undoResult = 0;
};

struct TestCommand {
    CommandScript script;
    explicit TestCommand(const CommandScript& s) : script(s) {}
    ~TestCommand() { script.journal->push_back("gone:" + script.tag); }
};

// The host calls only DO and UNDO.
inline const QF::CommandTable kCommandTable = {
    nullptr, nullptr, nullptr, nullptr,
    [](ServiceObject* self) -> uint32_t {
        auto& c = SODetails::implOf<QF::CommandTable, TestCommand>(self);
        c.script.journal->push_back("do:" + c.script.tag);
        return c.script.doResult;
    },
    [](ServiceObject* self) -> uint32_t {
        auto& c = SODetails::implOf<QF::CommandTable, TestCommand>(self);
        c.script.journal->push_back("undo:" + c.script.tag);
        return c.script.undoResult;
    },
};

struct Empty {};

// Makes a TestCommand from args->params; a null params makes a factory failure (0x33).
inline const QF::CommandFactoryTable kCommandFactoryTable = {
    [](ServiceObject*, const QF::CommandArgs* args, ServiceObject** out) -> uint32_t {
        if (!args || !out) return 3;
        if (!args->params) return 0x33;
        *out = SODetails::makeServiceObject<QF::CommandTable, TestCommand, qfhost::HostTraits>(
            QF::kCommandId, "Command", 0x7E570001, kCommandTable,
            *static_cast<const CommandScript*>(args->params));
        return 0;
    }};

inline ObjectPtr makeCommandFactory() {
    return ObjectPtr::adopt(
        SODetails::makeServiceObject<QF::CommandFactoryTable, Empty, qfhost::HostTraits>(
            QF::kCommandFactoryId, "CommandFactory", 0x7E570002, kCommandFactoryTable));
}

// A one-method object; what the method does does not matter to the registries.
struct PlainTable {
    uint32_t (*Method)(ServiceObject*);
};
inline ObjectPtr makePlain() {
    static const PlainTable table = {[](ServiceObject*) -> uint32_t { return 0; }};
    return ObjectPtr::adopt(SODetails::makeServiceObject<PlainTable, Empty, qfhost::HostTraits>(
        0x7E57000F, "Plain", 0x7E570003, table));
}

}  // namespace hosttest
