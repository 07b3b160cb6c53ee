#include "DetectFields.h"

#include "Layout.h"
#include "Pd.h"
#include "qfhost/Document.h"
#include "qfhost/Services.h"
#include "qfhost/View.h"

#include <map>
#include <optional>

namespace qfforms {

namespace {

const char* toolOf(detect::Kind kind) {
    switch (kind) {
    case detect::Kind::Text:
        return "TextFieldCreate";
    case detect::Kind::Check:
        return "CheckBoxCreate";
    case detect::Kind::Radio:
        return "RadioGroupCreate";
    case detect::Kind::Signature:
        return "DigitalSignatureFieldCreate";
    }
    return "TextFieldCreate";
}

// name, or the first "name_2", "name_3", ... that no field of doc bears.
std::string freeName(PDDoc doc, const std::string& name) {
    const std::u16string n16 = fromUtf8(name);
    Handle taken;
    check(PDDocFindField(doc, n16.data(), static_cast<uint32_t>(n16.size()), taken.out()));
    return taken ? nextFreeNames(doc, name + "_1", 1).front() : name;
}

uint32_t annotCount(PDDoc doc, uint32_t page) {
    Handle p;
    check(PDDocGetPage(doc, page, p.out()));
    uint32_t count = 0;
    check(PDPageGetNumAnnots(p.get(), &count));
    return count;
}

// The fully qualified name of the field of the widget at index of page.
std::string fieldNameAt(PDDoc doc, uint32_t page, uint32_t index) {
    Handle p, annot, field;
    check(PDDocGetPage(doc, page, p.out()));
    check(PDPageGetAnnot(p.get(), index, annot.out()));
    check(PDWidgetAnnotGetParent(annot.get(), field.out()));
    const PDField f = field.get();
    return readUtf8(
               [f](char16_t* b, uint32_t n, uint32_t* l) { return PDFieldGetFullName(f, b, n, l); })
        .value_or("");
}

} // namespace

std::vector<std::string> acceptProposals(Session& session, qfhost::Host& host, uint32_t page,
                                         const std::vector<detect::Proposal>& proposals) {
    qfhost::View* view = host.currentView();
    if (!view) throw StepFailure(std::nullopt, "no document is open");
    const PDDoc doc = view->document().pdDoc();
    if (page >= view->document().pageCount())
        throw StepFailure(std::nullopt, "no page " + std::to_string(page));
    qfhost::CommandsManager& commands = host.commands();
    if (commands.beginGroup(kDetectStepName) != 0)
        throw StepFailure(std::nullopt, "another step is under way");
    // The drags are made at a zoom where a view pixel is an eighth of a point, so that
    // the widgets take their boxes to that precision.
    const float zoom = view->zoom();
    const std::string tool = view->activeToolName();
    std::vector<std::string> names;
    try {
        view->setZoom(8);
        std::map<int, std::string> groupNames;
        std::string activeTool;
        for (const detect::Proposal& p : proposals) {
            const char* wanted = toolOf(p.kind);
            if (activeTool != wanted) {
                session.run("tool", wanted);
                activeTool = wanted;
            }
            std::optional<std::string> name;
            if (p.kind == detect::Kind::Radio && groupNames.count(p.group)) {
                name = groupNames[p.group];
            } else if (!p.name.empty()) {
                name = freeName(doc, toUtf8(p.name));
            }
            if (name) session.run("set", Json{{"property", "FieldName"}, {"value", *name}});
            const uint32_t before = annotCount(doc, page);
            session.run("drag", Json{{"page", page},
                                     {"from", {p.box.left, p.box.top}},
                                     {"to", {p.box.right, p.box.bottom}},
                                     {"moves", 1}});
            // The tool adds its widget at the end of the page's annotations.
            if (annotCount(doc, page) != before + 1)
                throw StepFailure(std::nullopt, std::string("the tool ") + wanted +
                                                    " made no field over a proposal");
            const uint32_t index = before;
            const std::string made = fieldNameAt(doc, page, index);
            if (p.kind == detect::Kind::Radio && !groupNames.count(p.group))
                groupNames[p.group] = made;
            names.push_back(made);
            const Json widget = Json::array({Json{{"page", page}, {"index", index}}});
            const auto set = [&](const char* id, Json value) {
                session.run("property",
                            Json{{"id", id}, {"value", std::move(value)}, {"widgets", widget}});
            };
            const std::u16string& tip = p.kind == detect::Kind::Radio ? std::u16string() : p.label;
            if (!tip.empty()) set("tooltip", toUtf8(tip));
            if (p.kind == detect::Kind::Text && p.multiline) set("multiline", true);
            if (p.comb && p.maxLength > 0) {
                set("maxLength", p.maxLength);
                set("comb", true);
            }
        }
        session.run("command", Json{{"name", "AutoTabOrderAnnot"}, {"pages", {page}}});
        if (tool.empty())
            view->deactivateTool();
        else
            view->activateTool(tool);
        view->setZoom(zoom);
    } catch (...) {
        commands.endGroup(false);
        view->setZoom(zoom);
        if (tool.empty())
            view->deactivateTool();
        else
            view->activateTool(tool);
        throw;
    }
    commands.endGroup(true);
    return names;
}

} // namespace qfforms
