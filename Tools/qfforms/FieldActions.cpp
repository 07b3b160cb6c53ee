#include "FieldActions.h"

#include "Pd.h"
#include "Session.h"

#include "qf/DocumentInterfaces.h"
#include "qf/internal/AnnotClipboardUtils"
#include "qfhost/Document.h"
#include "qfhost/Selection.h"
#include "qfhost/View.h"

#include <algorithm>
#include <map>
#include <set>
#include <vector>

namespace qfforms {

namespace {

using QF::PDHandlePtr;
namespace records = JsonUtility::ActionSerialization;

using Getter = PDResult (*)(PDHandle, PDAction*);
using Setter = PDResult (*)(PDHandle, PDAction);

struct Trigger {
    const char* name;
    bool field;  // a trigger of the field (text and choice fields), else of the widget
    Getter get;
    Setter set;
};

const Trigger kTriggers[] = {
    {"Action", false, PDButtonWidgetAnnotGetAction, PDButtonWidgetAnnotSetAction},
    {"MouseUp", false, PDWidgetAnnotGetMouseUpAction, PDWidgetAnnotSetMouseUpAction},
    {"MouseDown", false, PDWidgetAnnotGetMouseDownAction, PDWidgetAnnotSetMouseDownAction},
    {"MouseEnter", false, PDWidgetAnnotGetMouseEnterAction, PDWidgetAnnotSetMouseEnterAction},
    {"MouseExit", false, PDWidgetAnnotGetMouseExitAction, PDWidgetAnnotSetMouseExitAction},
    {"Focus", false, PDWidgetAnnotGetFocusAction, PDWidgetAnnotSetFocusAction},
    {"Blur", false, PDWidgetAnnotGetBlurAction, PDWidgetAnnotSetBlurAction},
    {"Keystroke", true, PDFieldGetModifyAction, PDFieldSetModifyAction},
    {"Format", true, PDFieldGetFormatAction, PDFieldSetFormatAction},
    {"Validate", true, PDFieldGetValidateAction, PDFieldSetValidateAction},
    {"Calculate", true, PDFieldGetCalculateAction, PDFieldSetCalculateAction},
};

[[noreturn]] void refuse(const std::string& text) { throw StepFailure(std::nullopt, text); }

qfhost::Document& documentOf(qfhost::Host& host) {
    qfhost::View* view = host.currentView();
    if (!view) refuse("no document is open");
    return view->document();
}

std::string atomText(PDAtom atom) {
    const char* name = nullptr;
    return PDAtomGetString(atom, &name) == PD_OK && name ? name : "";
}

// The record of an action and its chain; named actions (which the clipboard's records
// carry without their name) get "name".
Json recordOf(PDDoc doc, PDAction action) {
    if (!action) return nullptr;
    Json record = records::pdActionToJson(doc, action);  // keys sorted as the module's are
    // The record follows, of several next actions, the last one: so does this walk.
    Json* node = &record;
    PDHandlePtr held = PDHandlePtr::share(action);
    for (size_t depth = 0; node && held && depth < records::kMaxRecordNesting; ++depth) {
        PDAtom type = 0;
        PDAtom name = 0;
        if (PDActionGetType(held.get(), &type) == PD_OK && type == PD_ATOM_Named &&
            PDActionNamedGetName(held.get(), &name) == PD_OK)
            (*node)["name"] = atomText(name);
        auto next = node->find("next-action");
        if (next == node->end()) break;
        node = &*next;
        uint32_t count = 0;
        PDActionGetNextLength(held.get(), &count);
        PDHandlePtr successor;
        if (count == 0 || PDActionGetNext(held.get(), count - 1, successor.put()) != PD_OK) break;
        held = std::move(successor);
    }
    return record;
}

PDHandlePtr oneAction(PDDoc doc, const Json& record) {
    if (!record.is_object()) refuse("an action is an object with \"action-type\"");
    const auto type = record.find("action-type");
    if (type == record.end() || !type->is_number_integer())
        refuse("an action needs its \"action-type\"");
    PDHandlePtr action;
    if (type->get<int64_t>() == PD_ATOM_Named) {
        const auto name = record.find("name");
        if (name == record.end() || !name->is_string() || name->get<std::string>().empty())
            refuse("a named action needs its \"name\" (for example \"Print\")");
        const std::u16string text = fromUtf8(name->get<std::string>());
        PDActionArg arg{};
        arg.text = text.data();
        arg.textLen = static_cast<uint32_t>(text.size());
        check(PDActionCreate(doc, PD_ATOM_Named, &arg, action.put()));
        return action;
    }
    records::Json alone = record;
    alone.erase("next-action");
    action = records::jsonToPDAction(doc, alone);
    if (!action)
        refuse("the action of type " + std::to_string(type->get<int64_t>()) +
               " lacks what it needs (a destination, a file, a field list) or is of a type "
               "the editor does not make");
    return action;
}

// A new action made from record and its chain, linked from the first on.
PDHandlePtr actionOf(PDDoc doc, const Json& record) {
    if (record.is_null()) return {};
    if (records::nestingOf(records::Json(record)) > records::kMaxRecordNesting)
        refuse("the action chain is nested too deeply");
    PDHandlePtr first, previous;
    for (const Json* node = &record; node;) {
        PDHandlePtr action = oneAction(doc, *node);
        if (previous) check(PDActionSetNext(previous.get(), action.get()));
        const auto next = node->find("next-action");
        node = next != node->end() && !next->is_null() ? &*next : nullptr;
        if (!first) first = action;
        previous = std::move(action);
    }
    return first;
}

// The parent field of a widget, one reference.
PDHandlePtr fieldOf(PDAnnot widget) {
    PDHandlePtr field;
    check(PDWidgetAnnotGetParent(widget, field.put()));
    return field;
}

bool textOrChoice(PDField field) {
    PDAtom type = 0;
    return field && PDFieldGetType(field, &type) == PD_OK &&
           (type == PD_ATOM_Tx || type == PD_ATOM_Ch);
}

const Trigger* triggerNamed(const std::string& name) {
    for (const Trigger& t : kTriggers)
        if (name == t.name) return &t;
    return nullptr;
}

// The calculated fields in their order, one reference each.
std::vector<PDHandlePtr> calculated(PDDoc doc) {
    uint32_t count = 0;
    check(PDDocGetNumCalculatedFields(doc, &count));
    std::vector<PDHandlePtr> fields(count);
    for (uint32_t i = 0; i < count; ++i) check(PDDocGetCalculatedField(doc, i, fields[i].put()));
    return fields;
}

PDResult putOrder(PDDoc doc, const std::vector<PDHandlePtr>& order) {
    std::vector<PDField> fields;
    for (const PDHandlePtr& f : order) fields.push_back(f.get());
    return PDDocSetCalculationOrder(doc, fields.data(), static_cast<uint32_t>(fields.size()));
}

// Marks pages changed for a command's DO and puts their flags back for its UNDO.
class PageFlags {
  public:
    PageFlags(qfhost::Document& doc, std::set<uint64_t> pages)
        : doc_(doc), pages_(std::move(pages)) {}

    void mark(bool undo) {
        for (uint64_t index : pages_) {
            auto* page = doc_.page(static_cast<uint32_t>(index));
            if (!page) continue;
            auto& table = *SODetails::methods<QF::PageTable>(page);
            if (undo) {
                table.SetChanged(page, before_[index]);
            } else {
                uint8_t changed = 0;
                table.GetChanged(page, &changed);
                before_[index] = changed;
                table.SetChanged(page, 1);
            }
        }
    }

  private:
    qfhost::Document& doc_;
    std::set<uint64_t> pages_;
    std::map<uint64_t, uint8_t> before_;
};

} // namespace

Json describeActions(qfhost::Host& host) {
    const auto& selected = host.selection().selected();
    if (selected.empty() || !host.currentView()) return nullptr;
    PDDoc doc = documentOf(host).pdDoc();
    bool fieldTriggers = true;
    for (const auto& s : selected) fieldTriggers = fieldTriggers && textOrChoice(fieldOf(s.annot).get());
    Json out = {{"widget", Json::object()}, {"field", Json::object()}, {"mixed", Json::array()}};
    for (const Trigger& t : kTriggers) {
        if (t.field && !fieldTriggers) continue;
        std::optional<Json> common;
        bool mixed = false;
        for (const auto& s : selected) {
            PDHandlePtr owner = t.field ? fieldOf(s.annot) : PDHandlePtr::share(s.annot);
            PDHandlePtr action;
            check(t.get(owner.get(), action.put()));
            Json record = recordOf(doc, action.get());
            if (!common) {
                common = std::move(record);
            } else if (*common != record) {
                mixed = true;
                break;
            }
        }
        if (mixed)
            out["mixed"].push_back(t.name);
        else
            out[t.field ? "field" : "widget"][t.name] = common.value_or(nullptr);
    }
    // What a calculation, a reset or a hide action may name.
    out["fields"] = Json::array();
    uint32_t count = 0;
    check(PDDocGetNumFields(doc, &count));
    for (uint32_t i = 0; i < count; ++i) {
        PDHandlePtr field;
        check(PDDocGetField(doc, i, field.put()));
        auto name = readUtf8([&](char16_t* b, uint32_t n, uint32_t* len) {
            return PDFieldGetFullName(field.get(), b, n, len);
        });
        if (name && !name->empty()) out["fields"].push_back(*name);
    }
    return out;
}

void setActions(qfhost::Host& host, const Json& request) {
    if (!request.is_object() || request.empty())
        refuse("actions: the step is {TRIGGER: RECORD or null, ...}");
    std::vector<std::pair<const Trigger*, const Json*>> asked;
    for (const auto& [name, record] : request.items()) {
        const Trigger* trigger = triggerNamed(name);
        if (!trigger) {
            std::string names;
            for (const Trigger& t : kTriggers)
                names += (names.empty() ? "" : ", ") + std::string(t.name);
            refuse("actions: no trigger " + quoted(name) + " (" + names + ")");
        }
        asked.emplace_back(trigger, &record);
    }
    const auto& selected = host.selection().selected();
    if (selected.empty()) refuse("actions: no widget is selected");
    qfhost::Document& document = documentOf(host);
    PDDoc doc = document.pdDoc();

    struct Change {
        const Trigger* trigger;
        PDHandlePtr owner, before, after;
    };
    std::vector<Change> changes;
    std::set<uint64_t> pages;
    bool calculate = false;
    try {
        for (const auto& [trigger, record] : asked) {
            calculate = calculate || std::string(trigger->name) == "Calculate";
            for (const auto& s : selected) {
                PDHandlePtr owner =
                    trigger->field ? fieldOf(s.annot) : PDHandlePtr::share(s.annot);
                if (trigger->field && !textOrChoice(owner.get()))
                    refuse("actions: only text fields and lists have " +
                           quoted(trigger->name) + " actions");
                pages.insert(s.pageIndex);
                // (Clang 14 captures no structured binding: the trigger goes by copy.)
                if (std::any_of(changes.begin(), changes.end(),
                                [&, t = trigger](const Change& c) {
                                    return c.trigger == t && c.owner.get() == owner.get();
                                }))
                    continue;  // a field of several selected widgets
                Change c{trigger, std::move(owner), {}, {}};
                check(trigger->get(c.owner.get(), c.before.put()));
                c.after = actionOf(doc, *record);
                changes.push_back(std::move(c));
            }
        }
    } catch (const StepFailure&) {
        throw;
    } catch (const PdError& e) {
        refuse(std::string("actions: the action could not be made: ") + e.what());
    } catch (const std::exception& e) {
        refuse(std::string("actions: the action record is not usable: ") + e.what());
    }

    auto order = std::make_shared<std::vector<PDHandlePtr>>(calculated(doc));
    auto flags = std::make_shared<PageFlags>(document, pages);
    auto held = std::make_shared<std::vector<Change>>(std::move(changes));
    const uint32_t rc = host.commands().run(
        "SetActions", [doc, calculate, order, flags, held](bool undo) -> uint32_t {
            for (const Change& c : *held) {
                if (c.trigger->set(c.owner.get(), undo ? c.before.get() : c.after.get()) !=
                    PD_OK)
                    return 4;
            }
            // Undone, the calculated fields stand in their former order again.
            if (undo && calculate && putOrder(doc, *order) != PD_OK) return 4;
            flags->mark(undo);
            return 0;
        });
    if (rc != 0)
        refuse("actions: the document refused the actions (code " + std::to_string(rc) + ")");
}

Json calculationOrder(qfhost::Host& host) {
    if (!host.currentView()) return nullptr;
    Json names = Json::array();
    for (const PDHandlePtr& f : calculated(documentOf(host).pdDoc())) {
        auto name = readUtf8([&](char16_t* b, uint32_t n, uint32_t* len) {
            return PDFieldGetFullName(f.get(), b, n, len);
        });
        names.push_back(name.value_or(""));
    }
    return names;
}

void setCalculationOrder(qfhost::Host& host, const Json& names) {
    if (!names.is_array()) refuse("calculationOrder: the step takes the list of field names");
    qfhost::Document& document = documentOf(host);
    PDDoc doc = document.pdDoc();
    auto before = std::make_shared<std::vector<PDHandlePtr>>(calculated(doc));
    auto after = std::make_shared<std::vector<PDHandlePtr>>();
    for (const Json& name : names) {
        if (!name.is_string()) refuse("calculationOrder: a field name is a text");
        const std::u16string text = fromUtf8(name.get<std::string>());
        PDHandlePtr field;
        if (text.empty() ||
            PDDocFindField(doc, text.data(), static_cast<uint32_t>(text.size()), field.put()) !=
                PD_OK ||
            !field)
            refuse("calculationOrder: no field " + quoted(name.get<std::string>()));
        after->push_back(std::move(field));
    }
    if (putOrder(doc, *after) != PD_OK || putOrder(doc, *before) != PD_OK)
        refuse("calculationOrder: the list must name each calculated field once, and no other "
               "field");
    // The order belongs to the form, not to a page: the first page carries the change.
    auto flags = std::make_shared<PageFlags>(document, std::set<uint64_t>{0});
    const uint32_t rc = host.commands().run(
        "SetCalculationOrder", [doc, before, after, flags](bool undo) -> uint32_t {
            if (putOrder(doc, undo ? *before : *after) != PD_OK) return 4;
            flags->mark(undo);
            return 0;
        });
    if (rc != 0) refuse("calculationOrder: the document refused the order");
}

} // namespace qfforms
