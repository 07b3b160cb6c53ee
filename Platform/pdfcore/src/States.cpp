// Saved states of a field and its widgets: what an undo puts back. A state copies the
// entries of the field's and the widgets' dictionaries (and of the style dictionaries they
// lead to by reference, and of the form's dictionary and resources), and the streams of each widget's last drawing here, which the
// next drawing writes over; restoring puts all of it back, so that the dictionaries and
// the appearance streams are again what they were, byte for byte.
#include "Core.h"

#include <algorithm>

struct PDFieldStateRec {
    pdfcore::Document* doc;
    // An indirect dictionary and a direct copy of its entries.
    struct Entries {
        QPDFObjectHandle object;
        QPDFObjectHandle copy;
    };
    std::vector<Entries> dictionaries;
    // A stream of a drawing and what it held.
    struct Stream {
        QPDFObjectHandle object;
        QPDFObjectHandle dict;
        std::string data;
    };
    std::vector<Stream> streams;
    // Each widget's list of drawn streams (none: the widget was not drawn here).
    struct Drawing {
        QPDFObjGen widget;
        bool drawn;
        std::vector<QPDFObjectHandle> streams;
    };
    std::vector<Drawing> drawings;
};

namespace pdfcore {

void markSavedStates(Document& doc, const std::function<void(QPDFObjectHandle)>& mark) {
    for (const PDFieldStateRec* state : doc.savedStates) {
        for (const auto& e : state->dictionaries) mark(e.copy);
        for (const auto& s : state->streams) {
            mark(s.object);
            mark(s.dict);
        }
    }
}

namespace {

// The indirect dictionaries (not streams) that the style entries of a field or widget
// lead to: the setters change /MK and /BS in place, and /AP with its state dictionaries
// may be shared.
void styleDictionaries(QPDFObjectHandle dict, std::vector<QPDFObjectHandle>& out) {
    auto add = [&](QPDFObjectHandle value) {
        if (value.isIndirect() && value.isDictionary() && !value.isStream()) out.push_back(value);
    };
    for (const char* key : {"/MK", "/BS", "/AP"}) add(dict.getKey(key));
    QPDFObjectHandle ap = dict.getKey("/AP");
    if (ap.isDictionary() && !ap.isStream())
        for (const char* which : {"/N", "/D", "/R"}) add(ap.getKey(which));
}

}  // namespace
}  // namespace pdfcore

using namespace pdfcore;

extern "C" {

PDResult PDFieldSaveState(PDField field, PDFieldState* outState) {
    if (outState) *outState = nullptr;
    return guard([&] {
        PDHandleRec& f = checked(field, Kind::Field);
        checkOut(outState);
        Document& doc = *f.doc;
        std::vector<QPDFObjectHandle> widgets = widgetsOf(f.obj);
        auto kids = f.obj.getKey("/Kids");
        if (kids.isArray() && widgets.size() != static_cast<size_t>(kids.getArrayNItems()))
            fail(PD_ERR_FIELD_KIND);  // kids that are fields
        // What waits to be drawn is drawn first: the state holds drawings, not intentions.
        for (auto& w : widgets) flushAppearance(doc, w);

        auto state = std::make_unique<PDFieldStateRec>();
        state->doc = &doc;
        std::vector<QPDFObjectHandle> objects{f.obj};
        for (auto& w : widgets)
            if (w.isIndirect()) objects.push_back(w);
        std::vector<QPDFObjectHandle> all;
        for (auto& o : objects) {
            all.push_back(o);
            styleDictionaries(o, all);
        }
        // Drawings add fonts to the form's resources: its dictionary (direct in the
        // catalog, often), and /DR and its /Font when they are objects of their own.
        QPDFObjectHandle form = acroForm(doc, false);
        if (form.isDictionary()) {
            all.push_back(form);
            QPDFObjectHandle resources = form.getKey("/DR");
            for (auto r : {resources, resources.getKeyIfDict("/Font")})
                if (r.isIndirect() && r.isDictionary() && !r.isStream()) all.push_back(r);
        }
        std::set<QPDFObjGen> seen;
        for (auto& o : all) {
            if (!seen.insert(o.getObjGen()).second) continue;
            state->dictionaries.push_back({o, o.shallowCopy()});  // copies direct parts too
        }
        std::set<QPDFObjGen> seenStreams;
        for (auto& w : widgets) {
            if (!w.isIndirect()) continue;
            auto it = doc.drawnStreams.find(w.getObjGen());
            if (it == doc.drawnStreams.end()) {
                state->drawings.push_back({w.getObjGen(), false, {}});
                continue;
            }
            state->drawings.push_back({w.getObjGen(), true, it->second});
            for (auto& s : it->second) {
                if (!s.isStream() || !seenStreams.insert(s.getObjGen()).second) continue;
                auto data = s.getRawStreamData();
                state->streams.push_back(
                    {s, s.getDict().shallowCopy(),
                     std::string(reinterpret_cast<const char*>(data->getBuffer()),
                                 data->getSize())});
            }
        }
        doc.savedStates.insert(state.get());
        doc.self.refs.fetch_add(1);  // the state keeps its document
        *outState = state.release();
    });
}

PDResult PDFieldRestoreState(PDFieldState state) {
    return guard([&] {
        if (!state) fail(PD_ERR_MISSING_OBJECT);
        Document& doc = *state->doc;
        auto refill = [](QPDFObjectHandle dict, QPDFObjectHandle entries) {
            for (const auto& key : dict.getKeys()) dict.removeKey(key);
            QPDFObjectHandle copy = entries.shallowCopy();  // the state stays as it is
            for (const auto& [key, value] : copy.ditems()) dict.replaceKey(key, value);
        };
        for (auto& e : state->dictionaries) refill(e.object, e.copy);
        for (auto& s : state->streams) {
            s.object.replaceStreamData(s.data, s.dict.getKey("/Filter"),
                                       s.dict.getKey("/DecodeParms"));
            refill(s.object.getDict(), s.dict);
        }
        for (auto& d : state->drawings) {
            // The restored drawing is current; nothing of the changes waits to be drawn.
            doc.staleAppearances.erase(d.widget);
            doc.annotFacts.erase(d.widget);
            if (d.drawn) {
                doc.drawnStreams[d.widget] = d.streams;
            } else {
                doc.drawnStreams.erase(d.widget);
            }
        }
    });
}

void PDFieldStateFree(PDFieldState state) {
    if (!state) return;
    Document* doc = state->doc;
    doc->savedStates.erase(state);
    delete state;
    PDHandleRelease(&doc->self);
}

}  // extern "C"
