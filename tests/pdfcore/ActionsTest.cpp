// Actions and trigger actions: every action type made, chained through /Next and hung on
// every trigger, saved, and read back by pdfcore and by pypdf; the actions of real files;
// named and remote destinations and odd layouts in a small hand-written file; the edges of
// /Next, field lists, the calculation order and empty /AA dictionaries.
#include "TestSupport.h"

#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <vector>

using namespace pdtest;

namespace {

// A call's handle output (one owned reference) and a call's value output; the call must
// succeed.
template <typename F, typename... A> Owned got(F call, A... args) {
    PDHandle h = nullptr;
    EXPECT_EQ(call(args..., &h), PD_OK);
    return Owned(h);
}
template <typename T, typename F, typename... A> T val(F call, A... args) {
    T v{};
    EXPECT_EQ(call(args..., &v), PD_OK);
    return v;
}
#define TEXT(getter, ...)                                                                          \
    utf8(text([&](char16_t* b, uint32_t n, uint32_t* l) { return getter(__VA_ARGS__, b, n, l); }))

PDAtom atom(const char* name) {
    return val<PDAtom>(PDAtomPutString, name);
}

std::string num(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g", v);
    return buf;
}

// ---- one line per action and its successors, as the pypdf script prints it too ---------

std::string destText(PDDest d) {
    uint32_t page = 0;
    float p[3] = {-1, -1, -1};
    PDResult r = PDDestGetPageIndex(d, &page);
    EXPECT_TRUE(r == PD_OK || r == PD_ERR_NO_VALUE) << r;
    EXPECT_EQ(PDDestGetParams(d, p), PD_OK);
    return (r == PD_OK ? std::to_string(page) : "-") + "/" +
           atomText(val<PDAtom>(PDDestGetType, d)) + "/" + num(p[0]) + "," + num(p[1]) + "," +
           num(p[2]);
}

std::string fieldList(Owned data) {
    std::string out;
    for (uint32_t i = 0, n = val<uint32_t>(PDActionFieldsDataGetNumFields, data.get()); i < n;
         ++i) {
        Owned f = got(PDActionFieldsDataGetField, data.get(), i);
        out += (i ? "," : "") + (f ? utf8(fieldName(f.get())) : "?");
    }
    return out;
}

std::string describe(PDAction a) {
    if (!a) return "none";
    auto type = val<PDAtom>(PDActionGetType, a);
    std::string s = atomText(type);
    if (type == PD_ATOM_GoTo) s += " d=" + destText(got(PDActionGoToGetDest, a).get());
    if (type == PD_ATOM_GoToE) {
        PDBool nw = 0;
        s += " d=" + destText(got(PDActionGoToEGetDest, a).get());
        s += PDActionGoToEGetNewWindow(a, &nw) == PD_OK ? " nw=" + std::to_string(nw) : " nw=-";
        Owned name = got(PDObjectDictFind, got(PDActionGoToEGetTarget, a).get(), PD_ATOM_N);
        s += " t=" + TEXT(PDObjectGetUnicodeString, name.get());
    }
    if (type == PD_ATOM_Hide) {
        s += " h=" + std::to_string(val<PDBool>(PDActionHideIsHiding, a)) + " t=";
        for (uint32_t i = 0, n = val<uint32_t>(PDActionHideGetNumItems, a); i < n; ++i)
            s += (i ? "," : "") + TEXT(PDActionHideGetItemFieldName, a, i);
    }
    if (type == PD_ATOM_JavaScript) s += " js=" + TEXT(PDActionJavaScriptGetScript, a);
    if (type == PD_ATOM_Launch)
        s += " f=" + TEXT(PDFileSpecGetPath, got(PDActionLaunchGetFileSpec, a).get());
    if (type == PD_ATOM_Named) s += " n=" + atomText(val<PDAtom>(PDActionNamedGetName, a));
    if (type == PD_ATOM_ResetForm) {
        s += " flags=" + std::to_string(val<uint32_t>(PDActionResetFormGetFlags, a)) +
             " fields=" + fieldList(got(PDActionResetFormGetFieldsData, a));
    }
    if (type == PD_ATOM_SubmitForm) {
        s += " flags=" + std::to_string(val<uint32_t>(PDActionSubmitFormGetFlags, a)) +
             " f=" + TEXT(PDFileSpecGetPath, got(PDActionSubmitFormGetServerURL, a).get()) +
             " fields=" + fieldList(got(PDActionSubmitFormGetFieldsData, a));
    }
    if (type == PD_ATOM_URI) {
        uint32_t len = 0;
        EXPECT_EQ(PDActionURIGetURI(a, nullptr, 0, &len), PD_OK);
        std::string uri(len, '\0');
        EXPECT_EQ(PDActionURIGetURI(a, uri.data(), len, &len), PD_OK);
        s += " uri=" + uri;
    }
    for (uint32_t i = 0, n = val<uint32_t>(PDActionGetNextLength, a); i < n; ++i)
        s += " > " + describe(got(PDActionGetNext, a, i).get());
    return s;
}

// Prints "w.<field>.<key>: <action>" for the /A and /AA entries of the widgets on the
// pages, "f.<field>.<key>: ..." for the /AA of a field that is not its widget,
// "emptyAA: <field>" for an /AA without entries, and "CO: <names>" ("-" without /CO).
const char* const kPypdfScript = R"PY(
import sys, warnings, logging
warnings.filterwarnings("ignore"); logging.disable(logging.CRITICAL)
from pypdf import PdfReader
from pypdf.generic import IndirectObject, ArrayObject, ByteStringObject
r = PdfReader(sys.argv[1])
pages = {p.indirect_reference.idnum: i for i, p in enumerate(r.pages)}
res = lambda o: o.get_object() if isinstance(o, IndirectObject) else o
flag = lambda o: "1" if res(o) == True else "0"  # noqa: E712
def text(o):
    o = res(o)
    return bytes(o).decode("latin-1") if isinstance(o, ByteStringObject) else str(o)
def name(d):
    parts = []
    while d is not None:
        if "/T" in d: parts.insert(0, text(d["/T"]))
        d = res(d.get("/Parent"))
    return ".".join(parts)
def dest(d):
    d = res(d); p = d[0]
    page = (str(pages[p.idnum]) if isinstance(p, IndirectObject) and p.idnum in pages
            else str(int(p)) if isinstance(p, int) else "-")
    n = {"/XYZ": 3, "/FitR": 3, "/FitH": 1, "/FitBH": 1, "/FitV": 1, "/FitBV": 1}.get(d[1], 0)
    params = ("%g" % float(d[2 + i]) if i < n else "0" for i in range(3))
    return "%s/%s/%s" % (page, d[1][1:], ",".join(params))
path = lambda f: text(res(f).get("/UF", res(f).get("/F")))
def fields(a):
    items = (res(f) for f in res(a.get("/Fields", [])))
    return ",".join(text(f) if isinstance(f, (str, bytes)) else name(f) for f in items)
def describe(a):
    a = res(a); t = a["/S"][1:]; s = t
    if t in ("GoTo", "GoToE"): s += " d=" + dest(a["/D"])
    if t == "GoToE":
        s += " nw=" + (flag(a["/NewWindow"]) if "/NewWindow" in a else "-")
        s += " t=" + text(res(a["/T"])["/N"])
    if t == "Hide":
        s += " h=%s t=%s" % (flag(a.get("/H", True)), ",".join(text(x) for x in res(a["/T"])))
    if t == "JavaScript": s += " js=" + text(a["/JS"])
    if t == "Launch": s += " f=" + path(a["/F"])
    if t == "Named": s += " n=" + a["/N"][1:]
    if t in ("ResetForm", "SubmitForm"): s += " flags=%d" % int(a.get("/Flags", 0))
    if t == "SubmitForm": s += " f=" + path(a["/F"])
    if t in ("ResetForm", "SubmitForm"): s += " fields=" + fields(a)
    if t == "URI": s += " uri=" + text(a["/URI"])
    nxt = res(a.get("/Next"))
    for n in (nxt if isinstance(nxt, ArrayObject) else [nxt] if nxt is not None else []):
        s += " > " + describe(n)
    return s
out = set()
for page in r.pages:
    for w in (res(x) for x in res(page.get("/Annots")) or []):
        if w.get("/Subtype") != "/Widget": continue
        field = w if "/T" in w else res(w.get("/Parent"))
        for prefix, d in (("w", w), ("f", field if field is not w else None)):
            aa = res(d.get("/AA")) if d is not None else None
            if aa is not None and len(aa) == 0: out.add("emptyAA: " + name(field))
            entries = list((aa or {}).items())
            if prefix == "w" and "/A" in w: entries.append(("/A", w["/A"]))
            for k, v in entries:
                out.add("%s.%s.%s: %s" % (prefix, name(field), k[1:], describe(v)))
form = res(res(r.trailer["/Root"]).get("/AcroForm"))
co = res(form.get("/CO")) if form is not None else None
out.add("CO: " + (",".join(name(res(f)) for f in co) if co is not None else "-"))
print("\n".join(sorted(x.replace("\r", "\\r").replace("\n", "\\n") for x in out)))
)PY";

std::map<std::string, std::string> pypdfActions(const ScratchDir& dir, const std::string& pdf) {
    std::string script = dir.file("actions.py");
    std::ofstream(script) << kPypdfScript;
    int status = -1;
    std::istringstream lines(run(
        "PYTHONIOENCODING=utf-8 /usr/bin/python3 '" + script + "' '" + pdf + "' 2>&1", &status));
    EXPECT_EQ(status, 0) << lines.str();
    std::map<std::string, std::string> out;
    for (std::string line; std::getline(lines, line);) {
        size_t colon = line.find(':');
        out[line.substr(0, colon)] = colon + 2 <= line.size() ? line.substr(colon + 2) : "";
    }
    return out;
}

Owned makeAction(PDDoc doc, PDAtom type, const std::u16string& text = u"",
                 const char* bytes = nullptr, PDDest dest = nullptr) {
    PDActionArg arg{text.data(), static_cast<uint32_t>(text.size()), bytes,
                    bytes ? static_cast<uint32_t>(std::strlen(bytes)) : 0, dest};
    return got(PDActionCreate, doc, type, &arg);
}

Owned widgetOf(PDField field) {
    return got(PDFieldGetWidget, field, 0u);
}
Owned fieldWidget(PDDoc doc, const char* name) {
    return widgetOf(findField(doc, name).get());
}

// The triggers of the round trip. Owner 'w' is the widget of t1, 'b' the button's widget,
// 'f' the field t1. expected leaves out the /Next chain that every action gets.
struct Slot {
    const char* key; // as the pypdf script names it
    char owner;
    PDResult (*get)(PDHandle, PDAction*);
    PDResult (*set)(PDHandle, PDAction);
    const char* expected;
};
const Slot kSlots[] = {
    {"w.t1.E", 'w', PDWidgetAnnotGetMouseEnterAction, PDWidgetAnnotSetMouseEnterAction,
     "GoTo d=1/XYZ/10,700,1.5"},
    {"w.t1.X", 'w', PDWidgetAnnotGetMouseExitAction, PDWidgetAnnotSetMouseExitAction,
     "GoToE d=0/FitH/500,0,0 nw=1 t=Attachment.pdf"},
    {"w.t1.D", 'w', PDWidgetAnnotGetMouseDownAction, PDWidgetAnnotSetMouseDownAction,
     "Hide h=0 t=t2,grp.a"},
    {"w.t1.U", 'w', PDWidgetAnnotGetMouseUpAction, PDWidgetAnnotSetMouseUpAction,
     "Launch f=docs/readme.pdf"},
    {"w.t1.Fo", 'w', PDWidgetAnnotGetFocusAction, PDWidgetAnnotSetFocusAction, "Named n=SaveAs"},
    {"w.t1.Bl", 'w', PDWidgetAnnotGetBlurAction, PDWidgetAnnotSetBlurAction,
     "URI uri=https://example.com/forms?id=7"},
    {"w.btn.A", 'b', PDButtonWidgetAnnotGetAction, PDButtonWidgetAnnotSetAction,
     "SubmitForm flags=4 f=https://example.com/submit fields=t2,grp.a"},
    {"f.t1.F", 'f', PDFieldGetFormatAction, PDFieldSetFormatAction,
     "JavaScript js=AFNumber_Format(2); // Grüße € 日本"},
    {"f.t1.V", 'f', PDFieldGetValidateAction, PDFieldSetValidateAction,
     "ResetForm flags=1 fields=t2,btn"},
    {"f.t1.C", 'f', PDFieldGetCalculateAction, PDFieldSetCalculateAction,
     "JavaScript js=event.value = 1 + 2;"},
    {"f.t1.K", 'f', PDFieldGetModifyAction, PDFieldSetModifyAction,
     "JavaScript js=AFNumber_Keystroke(2);"},
};
const std::string kChain = " > Named n=NextPage > JavaScript js=step2";

} // namespace

TEST(ActionsRoundTrip, EveryTypeOnEveryTriggerSurvivesSavingAndReadsTheSameInPypdf) {
    ScratchDir dir;
    std::string saved = dir.file("actions.pdf");
    {
        Owned doc = createDoc(3);
        PDDoc d = doc.get();
        Owned pg = page(d, 0), t1 = createField(d, "t1", PD_ATOM_Tx),
              t2 = createField(d, "t2", PD_ATOM_Tx);
        Owned ga = createField(d, "grp.a", PD_ATOM_Tx),
              btn = createField(d, "btn", PD_ATOM_Btn, PD_FIELD_PUSHBUTTON);
        Owned w1 = addWidget(d, t1.get(), pg.get(), rect(50, 700, 250, 720));
        Owned wb = addWidget(d, btn.get(), pg.get(), rect(50, 550, 150, 570));
        addWidget(d, t2.get(), pg.get(), rect(50, 650, 250, 670));
        addWidget(d, ga.get(), pg.get(), rect(50, 600, 250, 620));

        std::vector<Owned> a;
        Owned xyz = got(PDDestCreate, d, atom("XYZ"), 1u, 10.f, 700.f, 1.5f);
        a.push_back(makeAction(d, PD_ATOM_GoTo, u"", nullptr, xyz.get()));
        a.push_back(makeAction(d, PD_ATOM_GoToE));
        // The page of a GoToE destination is written as a number; unused parameters go.
        ASSERT_EQ(PDActionGoToESetDest(
                      a[1].get(), got(PDDestCreate, d, atom("FitH"), 0u, 500.f, 7.f, 7.f).get()),
                  PD_OK);
        ASSERT_EQ(PDActionGoToESetNewWindow(a[1].get(), 1), PD_OK);
        Owned target = got(PDDocCreateDictObject, d);
        ASSERT_EQ(PDObjectDictPutName(target.get(), PD_ATOM_R, PD_ATOM_C), PD_OK);
        ASSERT_EQ(PDObjectDictPut(
                      target.get(), PD_ATOM_N,
                      got(PDDocCreateStringObjectFromUnicode, d, u"Attachment.pdf", 14u).get()),
                  PD_OK);
        ASSERT_EQ(PDActionGoToESetTarget(a[1].get(), target.get()), PD_OK);
        a.push_back(makeAction(d, PD_ATOM_Hide));
        ASSERT_EQ(PDActionHideAddItemFieldName(a[2].get(), u"t2", 2), PD_OK);
        ASSERT_EQ(PDActionHideAddItemFieldName(a[2].get(), u"grp.a", 5), PD_OK);
        ASSERT_EQ(PDActionHideSetHiding(a[2].get(), 0), PD_OK);
        a.push_back(makeAction(d, PD_ATOM_Launch, u"docs/readme.pdf"));
        a.push_back(makeAction(d, PD_ATOM_Named, u"SaveAs"));
        a.push_back(makeAction(d, PD_ATOM_URI, u"", "https://example.com/forms?id=7"));
        a.push_back(makeAction(d, PD_ATOM_SubmitForm, u"https://example.com/submit"));
        ASSERT_EQ(PDActionSubmitFormSetFlags(a[6].get(), 4), PD_OK);
        Owned list = got(PDCreateActionFieldsData, d);
        ASSERT_EQ(PDActionFieldsDataAddField(list.get(), t2.get()), PD_OK);
        ASSERT_EQ(PDActionFieldsDataAddField(list.get(), ga.get()), PD_OK);
        ASSERT_EQ(PDActionSubmitFormSetFieldsData(a[6].get(), list.get()), PD_OK);
        a.push_back(makeAction(d, PD_ATOM_JavaScript, u"AFNumber_Format(2); // Grüße € 日本"));
        a.push_back(makeAction(d, PD_ATOM_ResetForm));
        ASSERT_EQ(PDActionResetFormSetFlags(a[8].get(), 1), PD_OK);
        // Without /Fields the list is a new one that the setter copies in; afterwards the
        // list handed out is the action's own, and additions go straight in.
        Owned fresh = got(PDActionResetFormGetFieldsData, a[8].get());
        ASSERT_EQ(PDActionFieldsDataAddField(fresh.get(), t2.get()), PD_OK);
        ASSERT_EQ(PDActionResetFormSetFieldsData(a[8].get(), fresh.get()), PD_OK);
        ASSERT_EQ(PDActionFieldsDataAddField(got(PDActionResetFormGetFieldsData, a[8].get()).get(),
                                             btn.get()),
                  PD_OK);
        a.push_back(makeAction(d, PD_ATOM_JavaScript, u"event.value = 1 + 2;"));
        a.push_back(makeAction(d, PD_ATOM_JavaScript, u"AFNumber_Keystroke(2);"));
        ASSERT_EQ(a.size(), std::size(kSlots));

        for (size_t i = 0; i < a.size(); ++i) {
            Owned n1 = makeAction(d, PD_ATOM_Named, u"NextPage"),
                  n2 = makeAction(d, PD_ATOM_JavaScript, u"step2");
            ASSERT_EQ(PDActionSetNext(n1.get(), n2.get()), PD_OK);
            ASSERT_EQ(PDActionSetNext(a[i].get(), n1.get()), PD_OK);
            const Slot& s = kSlots[i];
            PDHandle owner = s.owner == 'w' ? w1.get() : s.owner == 'b' ? wb.get() : t1.get();
            ASSERT_EQ(s.set(owner, a[i].get()), PD_OK) << s.key;
        }
        ASSERT_EQ(PDDocSave(d, saved.c_str()), PD_OK);
    }
    EXPECT_EQ(qpdfCheck(saved), 0);

    Owned doc = openDoc(saved);
    Owned t1 = findField(doc.get(), "t1"), w1 = widgetOf(t1.get()),
          wb = fieldWidget(doc.get(), "btn");
    auto seen = pypdfActions(dir, saved);
    for (const Slot& s : kSlots) {
        PDHandle owner = s.owner == 'w' ? w1.get() : s.owner == 'b' ? wb.get() : t1.get();
        EXPECT_EQ(describe(got(s.get, owner).get()), s.expected + kChain) << s.key;
        EXPECT_EQ(seen[s.key], s.expected + kChain) << s.key;
    }
    EXPECT_EQ(seen["CO"], "t1");
    EXPECT_EQ(seen.size(), std::size(kSlots) + 1);
}

TEST(ActionsCorpus, ReadsTheActionsOfRealFiles) {
    struct Case {
        const char* file;
        const char* field;
        const char* expected;
    };
    const Case cases[] = {
        {"pypdf-latex-submitform-button.pdf", "Submit",
         "SubmitForm flags=0 f=http://exampe.com fields="},
        {"pdfjs-resetform-buttons.pdf", "Button14", "ResetForm flags=1 fields="},
        {"pdfjs-resetform-buttons.pdf", "Button15",
         "ResetForm flags=1 fields=Check Box8,Group11,List Box13,Text2,Text4,Text6"},
        {"pdfium-push-buttons-duplicate-acroform-key.pdf", "beep", "JavaScript js=beep();"},
        {"pdflib-sample-form-js-named-actions.pdf", "Print", "Named n=Print"},
        {"pypdf-widgets-without-acroform-launch-named-reset.pdf", "home", "Launch f=toolkit.pdf"},
        {"pdfjs-calc-order-js-field-refs.pdf", "Button3", "JavaScript js=this.calculateNow();"},
    };
    for (const Case& c : cases) {
        Owned doc = openDoc(corpus(c.file));
        EXPECT_EQ(
            describe(
                got(PDButtonWidgetAnnotGetAction, fieldWidget(doc.get(), c.field).get()).get()),
            c.expected)
            << c.file;
    }

    // Field scripts, in a file with /AcroForm and in one without.
    Owned doc = openDoc(corpus("pdflib-sample-form-js-named-actions.pdf"));
    Owned phone = findField(doc.get(), "Telephone_Home");
    EXPECT_EQ(describe(got(PDFieldGetFormatAction, phone.get()).get()),
              "JavaScript js=AFSpecial_Format(2);");
    EXPECT_EQ(describe(got(PDFieldGetModifyAction, phone.get()).get()),
              "JavaScript js=AFSpecial_Keystroke(2);");
    EXPECT_EQ(got(PDFieldGetValidateAction, phone.get()), nullptr);
    doc = openDoc(corpus("pypdf-widgets-without-acroform-launch-named-reset.pdf"));
    EXPECT_EQ(describe(got(PDFieldGetModifyAction, findField(doc.get(), "cfda.1").get()).get()),
              "JavaScript js=AutoTab(this, event, \"cfda.2\");");

    // Two buttons of one name, outside the form's tree, open different URIs.
    doc = openDoc(corpus("pdfium-push-buttons-duplicate-acroform-key.pdf"));
    std::set<std::string> uris;
    for (auto& annot : annotsOf(page(doc.get(), 0).get())) {
        if (val<PDAtom>(PDAnnotGetSubtype, annot.get()) != PD_ATOM_Widget) continue;
        auto s = describe(got(PDButtonWidgetAnnotGetAction, annot.get()).get());
        if (s.rfind("URI", 0) == 0) uris.insert(s);
    }
    EXPECT_EQ(uris, (std::set<std::string>{"URI uri=http://www.adobe.com/",
                                           "URI uri=chrome://settings/"}));

    // The Hide action of this file is its open action, which the API does not reach: an
    // equal-length patch hangs the same object on the check box as its /A.
    std::string bytes = slurp(corpus("pdfium-hide-action-check-radio.pdf"));
    size_t at = bytes.find("5 0 obj <<\n  /Type /Annot");
    ASSERT_NE(at, std::string::npos);
    doc = openBytes(bytes.replace(at + 13, 12, "/A 13 0 R   "));
    EXPECT_EQ(
        describe(got(PDButtonWidgetAnnotGetAction, fieldWidget(doc.get(), "readOnlyCheckbox").get())
                     .get()),
        "Hide h=1 t=readOnlyRadioButton.Widget8,readOnlyCheckbox");
}

TEST(ActionsCorpus, CalculationOrderAndEmptyTriggersAreCleanedUp) {
    ScratchDir dir;
    std::string saved = dir.file("calc.pdf");
    Owned doc = openDoc(corpus("pdfjs-calc-order-js-field-refs.pdf"));
    Owned text1 = findField(doc.get(), "Text1"), text2 = findField(doc.get(), "Text2");
    auto before = pypdfActions(dir, corpus("pdfjs-calc-order-js-field-refs.pdf"));
    EXPECT_EQ(before["CO"], "Text2");
    EXPECT_EQ(describe(got(PDFieldGetCalculateAction, text2.get()).get())
                  .rfind("JavaScript js=this.resetForm([\"Text2\"]);\r\n", 0),
              0u);

    // Text2 loses its calculation, its place in /CO and its /AA; Text1 keeps its keystroke
    // script and is listed once however often its calculation is set.
    ASSERT_EQ(PDFieldSetCalculateAction(text2.get(), nullptr), PD_OK);
    EXPECT_EQ(got(PDFieldGetCalculateAction, text2.get()), nullptr);
    Owned calc = makeAction(doc.get(), PD_ATOM_JavaScript, u"event.value = 2;");
    ASSERT_EQ(PDFieldSetCalculateAction(text1.get(), calc.get()), PD_OK);
    ASSERT_EQ(PDFieldSetCalculateAction(text1.get(), calc.get()), PD_OK);

    // The order is read and put as a whole: the same fields, each once, or nothing changes.
    ASSERT_EQ(PDFieldSetCalculateAction(text2.get(), calc.get()), PD_OK);
    uint32_t count = 0;
    ASSERT_EQ(PDDocGetNumCalculatedFields(doc.get(), &count), PD_OK);
    ASSERT_EQ(count, 2u);
    PDField swapped[] = {text2.get(), text1.get()}, twice[] = {text1.get(), text1.get()};
    EXPECT_EQ(PDDocSetCalculationOrder(doc.get(), twice, 2), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(PDDocSetCalculationOrder(doc.get(), swapped, 1), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(PDDocSetCalculationOrder(doc.get(), nullptr, 2), PD_ERR_BAD_ARGUMENT);
    ASSERT_EQ(PDDocSetCalculationOrder(doc.get(), swapped, 2), PD_OK);
    PDField first = nullptr;
    ASSERT_EQ(PDDocGetCalculatedField(doc.get(), 0, &first), PD_OK);
    EXPECT_EQ(Owned(first).get(), text2.get());
    EXPECT_EQ(PDDocGetCalculatedField(doc.get(), 2, &first), PD_ERR_RANGE);
    ASSERT_EQ(PDFieldSetCalculateAction(text2.get(), nullptr), PD_OK);

    ASSERT_EQ(PDDocSave(doc.get(), saved.c_str()), PD_OK);
    auto after = pypdfActions(dir, saved);
    EXPECT_EQ(after["CO"], "Text1");
    EXPECT_EQ(after.count("w.Text2.C") + after.count("emptyAA"), 0u);
    EXPECT_EQ(after["w.Text1.C"], "JavaScript js=event.value = 2;");
    EXPECT_EQ(after["w.Text1.K"], before["w.Text1.K"]);

    // Clearing every trigger of Text1 removes its /AA and empties /CO; the button's action
    // object also serves Text2.
    ASSERT_EQ(PDFieldSetCalculateAction(text1.get(), nullptr), PD_OK);
    ASSERT_EQ(PDFieldSetModifyAction(text1.get(), nullptr), PD_OK);
    Owned click = got(PDButtonWidgetAnnotGetAction, fieldWidget(doc.get(), "Button3").get());
    ASSERT_EQ(PDWidgetAnnotSetMouseEnterAction(widgetOf(text2.get()).get(), click.get()), PD_OK);
    ASSERT_EQ(PDDocSave(doc.get(), saved.c_str()), PD_OK);
    EXPECT_EQ(qpdfCheck(saved), 0);
    after = pypdfActions(dir, saved);
    EXPECT_EQ(after["CO"], "-"); // gone, not left empty
    for (const auto& entry : after)
        EXPECT_EQ(entry.first.find("Text1"), std::string::npos) << entry.first;
    EXPECT_EQ(after["w.Text2.E"], "JavaScript js=this.calculateNow();");
}

TEST(ActionsEdges, NamedAndRemoteDestinationsAndOddLayoutsInAHandWrittenFile) {
    Owned doc = openBytes(makePdf({
        "<< /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [5 0 R] >>"
        " /Dests << /old [3 0 R /Fit] >>"
        " /Names << /Dests << /Names [(chap2) << /D [4 0 R /FitH 300] >>] >> >> >>",
        "<< /Type /Pages /Kids [3 0 R 4 0 R] /Count 2 >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Annots [5 0 R] >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] >>",
        "<< /Type /Annot /Subtype /Widget /FT /Btn /Ff 65536 /T (b) /Rect [0 0 10 10] /P 3 0 R"
        " /A 6 0 R /AA << /E 9 0 R /X 10 0 R /D 11 0 R /K 12 0 R >> >>",
        "<< /S /GoTo /D /old /Next [7 0 R 8 0 R] >>",
        "<< /S /GoTo /D (chap2) >>",
        "<< /S /GoTo /D [2 /XYZ null 400 null] >>",
        "<< /S /JavaScript /JS 13 0 R >>",
        "<< /S /Launch /Win << /F (C:\\\\tools\\\\run.exe) >> >>",
        "<< /S /Hide /T [(b) 5 0 R] >>",
        "<< /S /ResetForm /Fields [(b) (nosuch) 5 0 R] >>",
        "<< /Length 12 >>\nstream\napp.alert(1)\nendstream",
    }));
    Owned b = findField(doc.get(), "b"), w = widgetOf(b.get());
    // A name through /Dests, a string through the name tree to a dictionary, a page number
    // (taken as it stands); a script in a stream; a Windows-only launch.
    EXPECT_EQ(describe(got(PDButtonWidgetAnnotGetAction, w.get()).get()),
              "GoTo d=0/Fit/0,0,0 > GoTo d=1/FitH/300,0,0 > GoTo d=2/XYZ/0,400,0");
    EXPECT_EQ(describe(got(PDWidgetAnnotGetMouseEnterAction, w.get()).get()),
              "JavaScript js=app.alert(1)");
    EXPECT_EQ(describe(got(PDWidgetAnnotGetMouseExitAction, w.get()).get()),
              "Launch f=C:\\tools\\run.exe");
    // Field lists by name, by an unknown name, by reference.
    EXPECT_EQ(describe(got(PDFieldGetModifyAction, b.get()).get()),
              "ResetForm flags=0 fields=b,?,b");
    Owned list = got(PDActionResetFormGetFieldsData, got(PDFieldGetModifyAction, b.get()).get());
    EXPECT_EQ(got(PDActionFieldsDataGetField, list.get(), 2u).get(), b.get());

    Owned hide = got(PDWidgetAnnotGetMouseDownAction, w.get());
    EXPECT_EQ(val<int32_t>(PDActionHideGetItemType, hide.get(), 0u), PD_HIDE_ITEM_FIELD_NAME);
    EXPECT_EQ(val<int32_t>(PDActionHideGetItemType, hide.get(), 1u), PD_HIDE_ITEM_ANNOT);
    uint32_t len = 0;
    EXPECT_EQ(PDActionHideGetItemFieldName(hide.get(), 1, nullptr, 0, &len), PD_ERR_WRONG_HANDLE);
    EXPECT_EQ(PDActionURIGetURI(hide.get(), nullptr, 0, &len), PD_ERR_WRONG_HANDLE);
}

TEST(ActionsEdges, NextChainsCyclesAndArguments) {
    Owned doc = createDoc(2);
    PDDoc d = doc.get();
    Owned a = makeAction(d, PD_ATOM_Named, u"A"), b = makeAction(d, PD_ATOM_Named, u"B");
    Owned c = makeAction(d, PD_ATOM_Named, u"C");
    ASSERT_EQ(PDActionSetNext(a.get(), b.get()), PD_OK);
    ASSERT_EQ(PDActionSetNext(b.get(), c.get()), PD_OK);
    EXPECT_EQ(PDActionSetNext(c.get(), a.get()), PD_ERR_CYCLE);
    EXPECT_EQ(PDActionSetNext(a.get(), a.get()), PD_ERR_CYCLE);
    EXPECT_EQ(describe(a.get()), "Named n=A > Named n=B > Named n=C");
    ASSERT_EQ(PDActionSetNext(a.get(), nullptr), PD_OK);
    EXPECT_EQ(describe(a.get()), "Named n=A");
    ASSERT_EQ(PDActionSetNext(c.get(), a.get()), PD_OK); // no loop any more

    // An action made from a generic dictionary, which cannot be put into itself.
    Owned dict = got(PDDocCreateDictObject, d), one = got(PDDocCreateIntObject, d, 1);
    PDAction made = nullptr;
    EXPECT_EQ(PDCreateActionFromObject(d, dict.get(), &made), PD_ERR_BAD_ARGUMENT);
    ASSERT_EQ(PDObjectDictPutName(dict.get(), PD_ATOM_S, PD_ATOM_GoToE), PD_OK);
    EXPECT_EQ(PDObjectDictPut(dict.get(), PD_ATOM_T, dict.get()), PD_ERR_CYCLE);
    Owned goToE = got(PDCreateActionFromObject, d, dict.get());
    PDBool nw = 7;
    EXPECT_EQ(PDActionGoToEGetNewWindow(goToE.get(), &nw), PD_ERR_NO_VALUE);
    ASSERT_EQ(PDObjectDictPut(dict.get(), atom("NewWindow"), one.get()), PD_OK);
    EXPECT_EQ(PDActionGoToEGetNewWindow(goToE.get(), &nw), PD_ERR_RANGE);
    EXPECT_EQ(nw, 7);

    PDHandle none = nullptr;
    EXPECT_EQ(PDActionCreate(d, PD_ATOM_GoTo, nullptr, &none), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(PDActionCreate(d, atom("GoToR"), nullptr, &none), PD_ERR_UNSUPPORTED);
    EXPECT_EQ(PDDestCreate(d, atom("XYZ"), 2, 0, 0, 0, &none), PD_ERR_RANGE);
    EXPECT_EQ(PDWidgetAnnotSetFocusAction(a.get(), b.get()), PD_ERR_WRONG_HANDLE);
    EXPECT_EQ(destText(got(PDDestCreate, d, atom("FitR"), 0u, 1.f, 2.f, 3.f).get()),
              "0/FitR/1,2,3");
}
