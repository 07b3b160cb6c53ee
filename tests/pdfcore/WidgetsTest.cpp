// Widget properties through save and reopen, and the appearance streams as viewers draw
// them: pages rendered with pdftoppm, objects read back with pypdf.
#include "TestSupport.h"

#include <cstring>
#include <functional>
#include <tuple>

using namespace pdtest;

namespace {

using TextGetter = PDResult (*)(PDAnnot, char16_t*, uint32_t, uint32_t*);
using TextSetter = PDResult (*)(PDAnnot, const char16_t*, uint32_t);

std::u16string get(TextGetter getter, PDAnnot w) {
    return text([&](char16_t* b, uint32_t n, uint32_t* l) { return getter(w, b, n, l); });
}
PDResult put(TextSetter setter, PDAnnot w, const std::u16string& s) {
    return setter(w, s.data(), static_cast<uint32_t>(s.size()));
}
// What a getter of one value gives; a failure when it fails.
template <typename T> T get(PDResult (*getter)(PDAnnot, T*), PDAnnot w) {
    T value{};
    EXPECT_EQ(getter(w, &value), PD_OK);
    return value;
}
PDAtom atom(const char* name) {
    PDAtom a = 0;
    EXPECT_EQ(PDAtomPutString(name, &a), PD_OK);
    return a;
}
auto fields(const PDBorderStyle& s) {
    return std::tuple(s.style, s.width, s.dashCount);
}
auto fields(const PDIconFit& f) {
    return std::tuple(f.scaleWhen, f.scaleHow, f.left, f.bottom, f.fitBounds);
}
auto fields(const PDFontInfo& i) {
    return std::tuple(atomText(i.family), i.format, i.style);
}

Owned reopen(PDDoc doc, const std::string& path) {
    EXPECT_EQ(PDDocSave(doc, path.c_str()), PD_OK);
    return openDoc(path);
}
Owned annotAt(PDDoc doc, uint32_t index) {
    auto annots = annotsOf(page(doc, 0).get());
    return index < annots.size() ? std::move(annots[index]) : Owned();
}

// Runs a pypdf script with sys.argv[1:] = args; `pdf` holds the PdfReader of args[0].
std::string python(const std::string& script, const std::string& args) {
    std::string prelude =
        "import sys, warnings, logging\nwarnings.filterwarnings('ignore')\n"
        "logging.disable(logging.CRITICAL)\nfrom pypdf import PdfReader, PdfWriter\n"
        "from pypdf.generic import *\npdf = PdfReader(sys.argv[1])\n";
    return run(std::string(QF_PYTHON) + " - " + args + " <<'PY'\n" + prelude + script + "\nPY\n");
}

// Copies in to out with pypdf, running `code` with `annots`: the resolved widgets of page 0.
void edit(const std::string& in, const std::string& out, const std::string& code) {
    std::string script = "w = PdfWriter()\nw.clone_reader_document_root(pdf)\n"
                         "annots = [a.get_object() for a in w.pages[0]['/Annots']]\n" +
                         code + "\nw.write(sys.argv[2])\nprint('edited')\n";
    ASSERT_EQ(python(script, "'" + in + "' '" + out + "'"), "edited\n");
}

// One line per appearance stream: "<field> <N|D> <state|-> bbox=.. matrix=.. fonts=.. tj=..".
const char* kDescribe = R"(
import re
form = pdf.trailer['/Root'].get('/AcroForm', {}).get_object()
print('need', form.get('/NeedAppearances', 'absent'))
for k, f in sorted(form.get('/DR', {}).get('/Font', {}).items()):
    f = f.get_object()
    print('font', k, f.get('/Subtype'), f.get('/BaseFont'), f.get('/Encoding', '-'))
def nums(a):
    return ' '.join('%g' % float(v) for v in a) if a is not None else '-'
for page in pdf.pages:
    for a in page.get('/Annots', []):
        a = a.get_object()
        name = a.get('/T') or a['/Parent'].get_object().get('/T')
        print('as', name, a.get('/AS', '-'))
        for which, ap in sorted(a.get('/AP', {}).items()):
            ap = ap.get_object()
            states = [('-', ap)] if hasattr(ap, 'get_data') else sorted(ap.items())
            for state, s in states:
                s = s.get_object()
                text = s.get_data().decode('latin-1')
                fonts = ','.join(sorted(s.get('/Resources', {}).get('/Font', {}).keys()))
                print(name, which, state, 'bbox=' + nums(s.get('/BBox')),
                      'matrix=' + nums(s.get('/Matrix')), 'fonts=' + fonts,
                      'tx=' + str('/Tx BMC' in text),
                      'tj=' + '|'.join(re.findall(r'\((.*?)\) Tj', text)))
)";

// Expects every line in the description of the appearance streams of pdf; returns it.
std::string expectDescribed(const std::string& pdf, std::initializer_list<const char*> lines) {
    std::string out = python(kDescribe, pdf);
    for (const char* line : lines)
        EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
    return out;
}

// ---- rendering -------------------------------------------------------------------------

using PixelTest = std::function<bool(const uint8_t*)>;

bool isDark(const uint8_t* p) {
    return std::max({p[0], p[1], p[2]}) < 110;
}
PixelTest isColour(uint32_t argb) {
    return [argb](const uint8_t* p) {
        for (int i = 0; i < 3; ++i)
            if (std::abs(p[i] - static_cast<int>((argb >> (16 - 8 * i)) & 0xFF)) > 12) return false;
        return true;
    };
}

// Counts the pixels inside the user-space box (l, b, r, t) of an unrotated page that pass
// test, leaving out `inset` points at each side.
int count(const Raster& r, float l, float b, float rt, float t, float inset,
          const PixelTest& test) {
    int n = 0;
    for (int y = static_cast<int>(r.height - t + inset); y < r.height - b - inset; ++y)
        for (int x = static_cast<int>(l + inset); x < rt - inset; ++x)
            if (x >= 0 && y >= 0 && x < r.width && y < r.height && test(r.at(x, y))) ++n;
    return n;
}

// Bounding box (width, height) in pixels of the dark pixels inside a raster region.
std::pair<int, int> darkExtent(const Raster& r, int x0, int y0, int x1, int y1) {
    int minX = x1, maxX = x0 - 1, minY = y1, maxY = y0 - 1;
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x)
            if (isDark(r.at(x, y))) {
                minX = std::min(minX, x), maxX = std::max(maxX, x);
                minY = std::min(minY, y), maxY = std::max(maxY, y);
            }
    return {std::max(0, maxX - minX + 1), std::max(0, maxY - minY + 1)};
}

// A one-page PDF (page 3 0 R, 200 x 200) whose only annotation and field is the dictionary
// widget (object 4), with an empty stream as object 5 for its appearances.
std::string minimalPdf(const std::string& widget) {
    const std::string objects[] = {
        "<< /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [4 0 R] >> >>",
        "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Annots [4 0 R] >>", widget,
        "<< /Length 0 >>\nstream\n\nendstream"};
    std::string pdf = "%PDF-1.7\n";
    std::vector<size_t> offsets;
    for (size_t i = 0; i < std::size(objects); ++i) {
        offsets.push_back(pdf.size());
        pdf += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
    }
    const size_t xref = pdf.size();
    pdf += "xref\n0 " + std::to_string(offsets.size() + 1) + "\n0000000000 65535 f \n";
    for (size_t at : offsets) {
        char line[32];
        std::snprintf(line, sizeof line, "%010zu 00000 n \n", at);
        pdf += line;
    }
    return pdf + "trailer\n<< /Size " + std::to_string(offsets.size() + 1) +
           " /Root 1 0 R >>\nstartxref\n" + std::to_string(xref) + "\n%%EOF\n";
}

// A new one-page document, its page and a scratch folder.
class Widgets : public ::testing::Test {
  protected:
    FieldAndWidget add(const std::string& name, PDAtom type, PDRect r, uint32_t flags = 0) {
        return addField(doc.get(), pg.get(), name, type, r, flags);
    }
    ScratchDir dir;
    Owned doc = createDoc();
    Owned pg = page(doc.get(), 0);
};

} // namespace

TEST_F(Widgets, GeometryBorderColoursAndHighlightSurviveSaving) {
    auto [f, w] = add("t", PD_ATOM_Tx, rect(100, 100, 300, 130));

    EXPECT_EQ(get(PDWidgetAnnotGetRotate, w.get()), 0);
    EXPECT_EQ(PDWidgetAnnotSetRotate(w.get(), 45), PD_ERR_BAD_ARGUMENT);
    ASSERT_EQ(PDWidgetAnnotSetRotate(w.get(), -90), PD_OK);
    EXPECT_EQ(get(PDWidgetAnnotGetHighlight, w.get()), 1) << "invert when /H is absent";
    ASSERT_EQ(PDWidgetAnnotSetHighlight(w.get(), 3), PD_OK);
    EXPECT_EQ(PDWidgetAnnotSetHighlight(w.get(), 5), PD_ERR_BAD_ARGUMENT);

    PDBorderStyle bs{};
    bs.style = 1;
    bs.width = 2.5f;
    bs.dashCount = 12; // cut to PD_MAX_DASH
    for (int i = 0; i < 12; ++i)
        bs.dash[i % PD_MAX_DASH] = static_cast<float>(i % PD_MAX_DASH + 1);
    ASSERT_EQ(PDWidgetAnnotSetBorderStyle(w.get(), &bs), PD_OK);
    for (auto spoil :
         {+[](PDBorderStyle& s) { s.style = 5; }, +[](PDBorderStyle& s) { s.width = -1; }}) {
        PDBorderStyle bad = bs;
        spoil(bad);
        EXPECT_EQ(PDWidgetAnnotSetBorderStyle(w.get(), &bad), PD_ERR_BAD_ARGUMENT);
    }
    ASSERT_EQ(PDWidgetAnnotSetBgColor(w.get(), 0xFF336699), PD_OK);
    ASSERT_EQ(PDWidgetAnnotSetBorderColor(w.get(), 0x80FF0001), PD_OK) << "any alpha is opaque";

    auto copy = reopen(doc.get(), dir.file("a.pdf"));
    auto w2 = annotAt(copy.get(), 0);
    EXPECT_EQ(get(PDWidgetAnnotGetRotate, w2.get()), 270);
    EXPECT_EQ(get(PDWidgetAnnotGetHighlight, w2.get()), 3);
    PDBorderStyle read = get(PDWidgetAnnotGetBorderStyle, w2.get());
    EXPECT_EQ(fields(read), std::tuple(1, 2.5f, uint32_t(PD_MAX_DASH)));
    EXPECT_FLOAT_EQ(read.dash[0], 1);
    EXPECT_FLOAT_EQ(read.dash[9], 10);
    EXPECT_EQ(get(PDWidgetAnnotGetBgColor, w2.get()), 0xFF336699u);
    EXPECT_EQ(get(PDWidgetAnnotGetBorderColor, w2.get()), 0xFFFF0001u);

    // Alpha 0 removes a colour; a style without dashes stores none.
    ASSERT_EQ(PDWidgetAnnotSetBgColor(w2.get(), 0x00FFFFFF), PD_OK);
    ASSERT_EQ(PDWidgetAnnotSetRotate(w2.get(), 450), PD_OK);
    PDBorderStyle solid{};
    ASSERT_EQ(PDWidgetAnnotSetBorderStyle(w2.get(), &solid), PD_OK);
    auto third = reopen(copy.get(), dir.file("b.pdf"));
    auto w3 = annotAt(third.get(), 0);
    EXPECT_EQ(get(PDWidgetAnnotGetBgColor, w3.get()), 0u);
    EXPECT_EQ(get(PDWidgetAnnotGetRotate, w3.get()), 90);
    EXPECT_EQ(fields(get(PDWidgetAnnotGetBorderStyle, w3.get())), std::tuple(0, 0.f, 0u));
}

TEST_F(Widgets, FontsGoToTheFormResourcesAndReadBack) {
    struct Case {
        const char* family;
        int32_t style;
        int32_t format; // as read back
        const char* baseFont;
    } cases[] = {
        {"Helvetica", 1, 0, "Helvetica-Bold"},    {"Times", 2, 0, "Times-Italic"},
        {"Courier", 3, 0, "Courier-BoldOblique"}, {"ZapfDingbats", 1, 0, "ZapfDingbats"},
        {"Arial", 3, 1, "Arial,BoldItalic"},      {"MS Gothic", 0, 1, "MSGothic"},
        {"Helvetica", 1, 0, "Helvetica-Bold"}, // reuses the first resource
    };
    std::vector<Owned> fieldsMade;
    for (size_t i = 0; i < std::size(cases); ++i) {
        fieldsMade.push_back(createField(doc.get(), "f" + std::to_string(i), PD_ATOM_Tx));
        auto w = addWidget(doc.get(), fieldsMade.back().get(), pg.get(),
                           rect(50, 700 - 30.f * i, 250, 720 - 30.f * i));
        PDFontInfo info{atom(cases[i].family), 1, cases[i].style};
        ASSERT_EQ(PDWidgetAnnotSetFontInfo(w.get(), &info), PD_OK) << cases[i].family;
        ASSERT_EQ(setValue(fieldsMade.back().get(), u"Sample"), PD_OK);
    }
    auto w0 = annotAt(doc.get(), 0);
    for (PDFontInfo bad : {PDFontInfo{atom("Helvetica"), 0, 4}, PDFontInfo{0, 0, 0}})
        EXPECT_EQ(PDWidgetAnnotSetFontInfo(w0.get(), &bad), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(PDWidgetAnnotSetFontSize(w0.get(), -1), PD_ERR_BAD_ARGUMENT);
    ASSERT_EQ(PDWidgetAnnotSetFontSize(w0.get(), 14.5f), PD_OK);
    ASSERT_EQ(PDWidgetAnnotSetFontColor(w0.get(), 0xFF336699), PD_OK);

    std::string path = dir.file("fonts.pdf");
    auto copy = reopen(doc.get(), path);
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case& c = cases[i];
        int32_t style = std::string(c.family) == "ZapfDingbats" ? 0 : c.style;
        EXPECT_EQ(fields(get(PDWidgetAnnotGetFontInfo, annotAt(copy.get(), i).get())),
                  std::tuple(std::string(c.family), c.format, style))
            << i;
    }
    auto r0 = annotAt(copy.get(), 0), r1 = annotAt(copy.get(), 1);
    EXPECT_FLOAT_EQ(get(PDWidgetAnnotGetFontSize, r0.get()), 14.5f);
    EXPECT_EQ(get(PDWidgetAnnotGetFontColor, r0.get()), 0xFF336699u);
    EXPECT_FLOAT_EQ(get(PDWidgetAnnotGetFontSize, r1.get()), 0)
        << "the form's /DA asks for automatic size";
    EXPECT_EQ(get(PDWidgetAnnotGetFontColor, r1.get()), 0xFF000000u);
    ASSERT_EQ(PDWidgetAnnotSetFontColor(r0.get(), 0), PD_OK);
    EXPECT_EQ(get(PDWidgetAnnotGetFontColor, r0.get()), 0xFF000000u) << "no colour reads as black";

    std::string out =
        expectDescribed(path, {"need absent", "/Type1 /Helvetica-Bold /WinAnsiEncoding",
                               "/Type1 /Times-Italic /WinAnsiEncoding", "/Type1 /ZapfDingbats -",
                               "/TrueType /Arial,BoldItalic /WinAnsiEncoding",
                               "/TrueType /MSGothic /WinAnsiEncoding",
                               // Each stream carries the font its /DA names.
                               "f0 /N - bbox=0 0 200 20 matrix=- fonts=/HeBo tx=True tj=Sample"});
    size_t first = out.find("/Helvetica-Bold");
    EXPECT_EQ(out.find("/Helvetica-Bold", first + 1), std::string::npos) << "reused, not added";
}

TEST_F(Widgets, ReadsEntriesWrittenByOtherProducers) {
    auto [f, a] = add("shared", PD_ATOM_Tx, rect(50, 700, 250, 720));
    auto b = addWidget(doc.get(), f.get(), pg.get(), rect(50, 650, 250, 670));
    std::string made = dir.file("made.pdf"), edited = dir.file("edited.pdf");
    ASSERT_EQ(PDDocSave(doc.get(), made.c_str()), PD_OK);
    edit(made, edited, R"(
fonts = w._root_object['/AcroForm']['/DR']['/Font']
fonts[NameObject('/F9')] = w._add_object(DictionaryObject({
    NameObject('/Type'): NameObject('/Font'), NameObject('/Subtype'): NameObject('/TrueType'),
    NameObject('/BaseFont'): NameObject('/ABCDEF+Arial-BoldMT')}))
a, b = annots
a[NameObject('/DA')] = TextStringObject('/F9 9 Tf 0 0 0 1 k')
def numbers(*v):
    return ArrayObject([FloatObject(x) for x in v])
a[NameObject('/MK')] = DictionaryObject({NameObject('/BG'): numbers(0.5),
    NameObject('/BC'): numbers(0, 1, 1, 0), NameObject('/R'): NumberObject(-90)})
del a['/BS']
a[NameObject('/Border')] = ArrayObject([NumberObject(0), NumberObject(0), NumberObject(3)])
b[NameObject('/H')] = NameObject('/Q')
)");
    auto copy = openDoc(edited);
    auto wa = annotAt(copy.get(), 0), wb = annotAt(copy.get(), 1);
    EXPECT_EQ(get(PDWidgetAnnotGetBgColor, wa.get()), 0xFF808080u) << "grey";
    EXPECT_EQ(get(PDWidgetAnnotGetBorderColor, wa.get()), 0xFFFF0000u) << "CMYK";
    EXPECT_EQ(get(PDWidgetAnnotGetFontColor, wa.get()), 0xFF000000u) << "CMYK black";
    EXPECT_EQ(get(PDWidgetAnnotGetRotate, wa.get()), 270);
    EXPECT_EQ(get(PDWidgetAnnotGetHighlight, wb.get()), 1) << "an unknown mode reads as default";
    EXPECT_FLOAT_EQ(get(PDWidgetAnnotGetBorderStyle, wa.get()).width, 3)
        << "from /Border when /BS is absent";
    EXPECT_EQ(fields(get(PDWidgetAnnotGetFontInfo, wa.get())), std::tuple("Arial", 1, 1));

    // The widget's own /DA wins for reading; a setter on one widget of a field with
    // several changes that widget only.
    EXPECT_FLOAT_EQ(get(PDWidgetAnnotGetFontSize, wa.get()), 9);
    EXPECT_FLOAT_EQ(get(PDWidgetAnnotGetFontSize, wb.get()), 0);
    ASSERT_EQ(PDWidgetAnnotSetFontSize(wa.get(), 11), PD_OK);
    ASSERT_EQ(PDWidgetAnnotSetFontColor(wb.get(), 0xFF0000FFu), PD_OK);
    EXPECT_FLOAT_EQ(get(PDWidgetAnnotGetFontSize, wa.get()), 11);
    EXPECT_FLOAT_EQ(get(PDWidgetAnnotGetFontSize, wb.get()), 0);
    EXPECT_EQ(get(PDWidgetAnnotGetFontColor, wa.get()), 0xFF000000u);
    EXPECT_EQ(get(PDWidgetAnnotGetFontColor, wb.get()), 0xFF0000FFu);
    EXPECT_EQ(atomText(get(PDWidgetAnnotGetFontInfo, wb.get()).family), "Helvetica")
        << "the field keeps its own font";
}

TEST_F(Widgets, ButtonCaptionsAndIconFit) {
    auto [push, w] = add("push", PD_ATOM_Btn, rect(50, 50, 150, 80), PD_FIELD_PUSHBUTTON);
    auto [tf, tw] = add("text", PD_ATOM_Tx, rect(50, 100, 150, 120));
    const struct {
        TextGetter get;
        TextSetter set;
        std::u16string text;
    } captions[] = {
        {PDButtonWidgetAnnotGetCaption, PDButtonWidgetAnnotSetCaption, u"Send \u20AC"},
        {PDButtonWidgetAnnotGetDownCaption, PDButtonWidgetAnnotSetDownCaption, u"Sending"},
        {PDButtonWidgetAnnotGetRolloverCaption, PDButtonWidgetAnnotSetRolloverCaption, u"Go"},
    };
    for (const auto& c : captions) {
        EXPECT_EQ(get(c.get, w.get()), u"<error 3>") << "none yet";
        ASSERT_EQ(put(c.set, w.get(), c.text), PD_OK);
        EXPECT_EQ(put(c.set, tw.get(), u"x"), PD_ERR_FIELD_KIND);
        EXPECT_EQ(get(c.get, tw.get()), u"<error 13>");
    }

    EXPECT_EQ(fields(get(PDButtonWidgetAnnotGetIconFit, w.get())),
              fields(PDIconFit{0, 0, 0.5f, 0.5f, 0}));
    PDIconFit set{2, 1, 0.25f, 1, 1};
    ASSERT_EQ(PDButtonWidgetAnnotSetIconFit(w.get(), &set), PD_OK);
    for (PDIconFit bad : {PDIconFit{2, 1, 1.5f, 1, 1}, PDIconFit{4, 1, 0.25f, 1, 1}})
        EXPECT_EQ(PDButtonWidgetAnnotSetIconFit(w.get(), &bad), PD_ERR_BAD_ARGUMENT);

    std::string path = dir.file("captions.pdf");
    auto copy = reopen(doc.get(), path);
    auto w2 = annotAt(copy.get(), 0);
    for (const auto& c : captions)
        EXPECT_EQ(get(c.get, w2.get()), c.text);
    EXPECT_EQ(fields(get(PDButtonWidgetAnnotGetIconFit, w2.get())), fields(set));
    ASSERT_EQ(put(PDButtonWidgetAnnotSetRolloverCaption, w2.get(), u""), PD_OK);
    EXPECT_EQ(get(PDButtonWidgetAnnotGetRolloverCaption, w2.get()), u"<error 3>");

    // The normal face shows /CA (the euro sign in WinAnsi), the down face /AC.
    expectDescribed(path, {"push /N - bbox=0 0 100 30 matrix=- fonts=/Helv tx=False tj=Send \\200",
                           "push /D - bbox=0 0 100 30 matrix=- fonts=/Helv tx=False tj=Sending"});
}

TEST_F(Widgets, RenamingTheOnStateKeepsTheButtonOn) {
    auto [box, bw] = add("box", PD_ATOM_Btn, rect(50, 50, 70, 70));
    auto [radio, r1] = add("radio", PD_ATOM_Btn, rect(100, 50, 120, 70), PD_FIELD_RADIO);
    auto r2 = addWidget(doc.get(), radio.get(), pg.get(), rect(130, 50, 150, 70));
    auto [push, pw] = add("push", PD_ATOM_Btn, rect(200, 50, 260, 70), PD_FIELD_PUSHBUTTON);

    EXPECT_EQ(get(PDButtonWidgetAnnotGetChoice, pw.get()), u"<error 3>");
    EXPECT_EQ(put(PDButtonWidgetAnnotSetChoice, pw.get(), u"x"), PD_ERR_FIELD_KIND);
    EXPECT_EQ(put(PDButtonWidgetAnnotSetChoice, bw.get(), u"Off"), PD_ERR_BAD_ARGUMENT);

    ASSERT_EQ(setValue(box.get(), u"Yes"), PD_OK);
    ASSERT_EQ(put(PDButtonWidgetAnnotSetChoice, bw.get(), u"Accept"), PD_OK);
    EXPECT_EQ(get(PDButtonWidgetAnnotGetChoice, bw.get()), u"Accept");
    EXPECT_EQ(fieldValue(box.get()), u"Accept");
    ASSERT_EQ(put(PDButtonWidgetAnnotSetChoice, r1.get(), u"left"), PD_OK);
    ASSERT_EQ(put(PDButtonWidgetAnnotSetChoice, r2.get(), u"right"), PD_OK);
    ASSERT_EQ(setValue(radio.get(), u"right"), PD_OK);
    ASSERT_EQ(put(PDButtonWidgetAnnotSetChoice, r1.get(), u"west"), PD_OK);
    EXPECT_EQ(fieldValue(radio.get()), u"right") << "renaming an off widget leaves the value";

    std::string path = dir.file("states.pdf");
    auto copy = reopen(doc.get(), path);
    auto b2 = annotAt(copy.get(), 0), r1b = annotAt(copy.get(), 1), r2b = annotAt(copy.get(), 2);
    EXPECT_EQ(get(PDButtonWidgetAnnotGetChoice, b2.get()), u"Accept");
    EXPECT_EQ(get(PDButtonWidgetAnnotGetChoice, r1b.get()), u"west");
    EXPECT_EQ(get(PDButtonWidgetAnnotGetChoice, r2b.get()), u"right");
    EXPECT_EQ(atomText(get(PDAnnotGetAppearanceState, b2.get())), "Accept");
    EXPECT_EQ(atomText(get(PDAnnotGetAppearanceState, r1b.get())), "Off");

    // An empty name takes the on state away: the check box is off, without one.
    ASSERT_EQ(put(PDButtonWidgetAnnotSetChoice, bw.get(), u""), PD_OK);
    EXPECT_EQ(get(PDButtonWidgetAnnotGetChoice, bw.get()), u"<error 3>");
    EXPECT_EQ(atomText(get(PDAnnotGetAppearanceState, bw.get())), "Off");
    EXPECT_EQ(fieldValue(box.get()), u"Off");

    std::string out =
        expectDescribed(path, {"box /N /Accept bbox=0 0 20 20 matrix=- fonts=/ZaDb tx=False tj=4",
                               "box /N /Off bbox=0 0 20 20", "box /D /Accept", "box /D /Off",
                               "radio /N /west bbox=0 0 20 20 matrix=- fonts=/ZaDb tx=False tj=l",
                               "as radio /Off", "as radio /right"});
    EXPECT_EQ(out.find("/Yes"), std::string::npos) << "no trace of the old name\n" << out;
}

// Names with '#' (also one that reads like an escape, as some writers leave them), spaces
// and non-ASCII letters, as field names, on-states and values: the same bytes after a save,
// for pdfcore, pypdf and qpdf.
TEST_F(Widgets, NamesComeBackByteExact) {
    const std::u16string states[] = {u"A#1", u"A#20B", u"a b", u"\u65e5\u672c\u8a9e",
                                     u"\u00e9t\u00e9", u"#e5#a5#b3"};
    const std::u16string radioName = u"Choice #1 \u65e5\u672c", boxName = u"\u00e9t\u00e9#20";
    PDField made = nullptr;
    ASSERT_EQ(PDDocCreateField(doc.get(), radioName.data(), uint32_t(radioName.size()), PD_ATOM_Btn,
                               PD_FIELD_RADIO, &made),
              PD_OK);
    Owned radio(made);
    std::vector<Owned> widgets;
    for (size_t i = 0; i < std::size(states); ++i) {
        const float x = 20 + 30 * static_cast<float>(i);
        widgets.push_back(addWidget(doc.get(), radio.get(), pg.get(), rect(x, 50, x + 20, 70)));
        ASSERT_EQ(put(PDButtonWidgetAnnotSetChoice, widgets.back().get(), states[i]), PD_OK);
    }
    ASSERT_EQ(setValue(radio.get(), states[1]), PD_OK);
    ASSERT_EQ(PDDocCreateField(doc.get(), boxName.data(), uint32_t(boxName.size()), PD_ATOM_Btn, 0,
                               &made),
              PD_OK);
    Owned box(made);
    auto bw = addWidget(doc.get(), box.get(), pg.get(), rect(20, 100, 40, 120));
    ASSERT_EQ(put(PDButtonWidgetAnnotSetChoice, bw.get(), states[2]), PD_OK);
    ASSERT_EQ(setValue(box.get(), states[2]), PD_OK);

    const std::string path = dir.file("names.pdf");
    auto copy = reopen(doc.get(), path);
    auto radio2 = findField(copy.get(), radioName), box2 = findField(copy.get(), boxName);
    ASSERT_TRUE(radio2 && box2);
    EXPECT_EQ(fieldValue(radio2.get()), states[1]);
    EXPECT_EQ(fieldValue(box2.get()), states[2]);
    for (size_t i = 0; i < std::size(states); ++i) {
        auto w = annotAt(copy.get(), static_cast<uint32_t>(i));
        EXPECT_EQ(get(PDButtonWidgetAnnotGetChoice, w.get()), states[i]) << i;
        EXPECT_EQ(atomText(get(PDAnnotGetAppearanceState, w.get())), i == 1 ? utf8(states[1]) : "Off")
            << i;
    }
    EXPECT_EQ(atomText(get(PDAnnotGetAppearanceState, annotAt(copy.get(), 6).get())), "a b");

    // Another reader sees the same names, and qpdf finds no stray '#'.
    const std::string seen = python(R"(
for a in pdf.pages[0]['/Annots']:
    a = a.get_object()
    f = a['/Parent'].get_object() if '/Parent' in a else a
    print(f['/T'], '|', f.get('/V'), '|', a['/AS'], '|', ' '.join(sorted(a['/AP']['/N'])))
)",
                                    path);
    std::string expected;
    for (size_t i = 0; i < std::size(states); ++i) {
        const std::string on = "/" + utf8(states[i]);
        expected += utf8(radioName) + " | /A#20B | " + (i == 1 ? on : "/Off") + " | " +
                    std::min(on, std::string("/Off")) + " " + std::max(on, std::string("/Off")) +
                    "\n";
    }
    expected += utf8(boxName) + " | /a b | /a b | /Off /a b\n";
    EXPECT_EQ(seen, expected);
    const std::string check = run("qpdf --check '" + path + "' 2>&1");
    EXPECT_EQ(check.find("WARNING"), std::string::npos) << check;

    // A state named in another encoding than UTF-8 (Latin-1 here) keeps its bytes when its
    // text is set as the value.
    const std::string latin = dir.file("latin.pdf");
    {
        std::ofstream(latin, std::ios::binary) << minimalPdf(
            "<< /Type /Annot /Subtype /Widget /FT /Btn /T (ok) /Rect [10 10 30 30] /P 3 0 R "
            "/V /Off /AS /Off /AP << /N << /Oui#E9 5 0 R /Off 5 0 R >> >> >>");
    }
    auto old = openDoc(latin);
    auto ok = findField(old.get(), "ok");
    ASSERT_TRUE(ok);
    ASSERT_EQ(setValue(ok.get(), u"Oui\u00e9"), PD_OK);
    const std::string saved = dir.file("latin-saved.pdf");
    auto back = reopen(old.get(), saved);
    EXPECT_EQ(atomText(get(PDAnnotGetAppearanceState, annotAt(back.get(), 0).get())), "Oui\xe9");
    const std::string plain =
        run("qpdf --qdf --object-streams=disable '" + saved + "' - | grep -a -o '/[A-Z]* */Oui[^ ]*'");
    EXPECT_EQ(plain, "/AS /Oui#e9\n/V /Oui#e9\n") << "the value, the state and its key agree";
}

// A '#' that the file escapes inside a compressed object stream is escaped again when the
// file is written whole (in a process that made no such name itself). qpdf writes the name
// "A#23B" as it is, which reads back as "A#B".
TEST(WidgetNames, AHashEscapedInAnObjectStreamStaysEscaped) {
    ScratchDir dir;
    const std::string packed = dir.file("packed.pdf");
    std::ofstream(dir.file("hash.pdf"), std::ios::binary) << minimalPdf(
        "<< /Type /Annot /Subtype /Widget /FT /Btn /T (h) /Rect [10 10 30 30] /P 3 0 R "
        "/V /A#2323B /AS /A#2323B /AP << /N << /A#2323B 5 0 R /Off 5 0 R >> >> >>");
    run("qpdf --object-streams=generate '" + dir.file("hash.pdf") + "' '" + packed + "'");
    ASSERT_EQ(run("grep -c '#23' '" + packed + "'"), "0\n");
    auto hashed = reopen(openDoc(packed).get(), dir.file("packed-saved.pdf"));
    EXPECT_EQ(atomText(get(PDAnnotGetAppearanceState, annotAt(hashed.get(), 0).get())), "A#B");
}

TEST_F(Widgets, QuaddingAndChoiceSelection) {
    auto [tf, tw] = add("text", PD_ATOM_Tx, rect(50, 700, 250, 720));
    auto tw2 = addWidget(doc.get(), tf.get(), pg.get(), rect(50, 650, 250, 670));
    auto [ch, cw] = add("choice", PD_ATOM_Ch, rect(50, 600, 250, 620), PD_FIELD_COMBO);
    auto [box, bw] = add("box", PD_ATOM_Btn, rect(50, 550, 70, 570));

    EXPECT_EQ(get(PDTextWidgetAnnotGetQuadding, tw.get()), 0);
    EXPECT_EQ(PDTextWidgetAnnotSetQuadding(tw.get(), 3), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(PDTextWidgetAnnotSetQuadding(bw.get(), 1), PD_ERR_FIELD_KIND);
    ASSERT_EQ(PDTextWidgetAnnotSetQuadding(tw.get(), 2), PD_OK);

    ASSERT_EQ(insertOption(ch.get(), 0, u"Red", u"r"), PD_OK);
    ASSERT_EQ(insertOption(ch.get(), 1, u"Green", u"g"), PD_OK);
    ASSERT_EQ(insertOption(ch.get(), 2, u"Blue", u""), PD_OK);
    EXPECT_EQ(get(PDChoiceWidgetAnnotGetSelection, cw.get()), PD_NO_SELECTION);
    EXPECT_EQ(PDChoiceWidgetAnnotSetSelection(cw.get(), 3), PD_ERR_RANGE);
    EXPECT_EQ(PDChoiceWidgetAnnotSetSelection(tw.get(), 0), PD_ERR_FIELD_KIND);
    ASSERT_EQ(PDChoiceWidgetAnnotSetSelection(cw.get(), 1), PD_OK);
    EXPECT_EQ(fieldValue(ch.get()), u"g") << "the export value";

    std::string path = dir.file("q.pdf");
    auto copy = reopen(doc.get(), path);
    auto cwb = annotAt(copy.get(), 2);
    EXPECT_EQ(get(PDTextWidgetAnnotGetQuadding, annotAt(copy.get(), 1).get()), 2)
        << "stored on the field, seen by every widget";
    EXPECT_EQ(get(PDChoiceWidgetAnnotGetSelection, cwb.get()), 1u);
    std::string out = python("f = pdf.trailer['/Root']['/AcroForm']['/Fields'][1].get_object()\n"
                             "print(f.get('/V'), list(f.get('/I', [])))",
                             path);
    EXPECT_EQ(out, "g [1]\n");
    // A combo box shows the display text.
    expectDescribed(path, {"choice /N - bbox=0 0 200 20 matrix=- fonts=/Helv tx=True tj=Green"});

    ASSERT_EQ(PDChoiceWidgetAnnotSetSelection(cwb.get(), 2), PD_OK);
    auto ch2 = findField(copy.get(), "choice");
    EXPECT_EQ(fieldValue(ch2.get()), u"Blue");
    ASSERT_EQ(PDChoiceWidgetAnnotSetSelection(cwb.get(), PD_NO_SELECTION), PD_OK);
    EXPECT_EQ(fieldValue(ch2.get()), u"<error 3>");
    EXPECT_EQ(get(PDChoiceWidgetAnnotGetSelection, cwb.get()), PD_NO_SELECTION);
}

TEST_F(Widgets, CallsCheckHandlesAndOutputs) {
    auto [tf, w] = add("t", PD_ATOM_Tx, rect(10, 10, 50, 30));
    int32_t v = 0;
    uint32_t u = 0;
    EXPECT_EQ(PDWidgetAnnotGetRotate(nullptr, &v), PD_ERR_MISSING_OBJECT);
    EXPECT_EQ(PDWidgetAnnotGetRotate(pg.get(), &v), PD_ERR_WRONG_HANDLE);
    EXPECT_EQ(PDWidgetAnnotSetBgColor(tf.get(), 0xFF000000), PD_ERR_WRONG_HANDLE);
    EXPECT_EQ(PDWidgetAnnotGetRotate(w.get(), nullptr), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(PDWidgetAnnotGetBgColor(w.get(), nullptr), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(PDWidgetAnnotSetBorderStyle(w.get(), nullptr), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(PDWidgetAnnotSetFontInfo(w.get(), nullptr), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(PDChoiceWidgetAnnotGetSelection(w.get(), &u), PD_ERR_FIELD_KIND);
    EXPECT_EQ(PDButtonWidgetAnnotSetCaption(w.get(), nullptr, 3), PD_ERR_BAD_ARGUMENT);
    auto [box, bw] = add("b", PD_ATOM_Btn, rect(60, 10, 80, 30));
    char16_t small[2];
    EXPECT_EQ(PDButtonWidgetAnnotGetChoice(bw.get(), small, 2, &u), PD_ERR_BUFFER_SMALL);
    EXPECT_EQ(u, 3u);
}

TEST(WidgetAppearance, EveryKindIsDrawnInsideItsRectangle) {
    ScratchDir dir;
    auto doc = createDoc(1, 400, 400);
    auto pg = page(doc.get(), 0);
    auto add = [&](const char* name, PDAtom type, uint32_t flags, PDRect r) {
        return addField(doc.get(), pg.get(), name, type, r, flags);
    };
    auto [text, tw] = add("text", PD_ATOM_Tx, 0, rect(20, 350, 200, 375));
    ASSERT_EQ(setValue(text.get(), u"Hello"), PD_OK);
    auto [on, onW] = add("on", PD_ATOM_Btn, 0, rect(20, 300, 40, 320));
    ASSERT_EQ(setValue(on.get(), u"Yes"), PD_OK);
    auto [off, offW] = add("off", PD_ATOM_Btn, 0, rect(60, 300, 80, 320));
    auto [radio, rw] = add("radio", PD_ATOM_Btn, PD_FIELD_RADIO, rect(100, 300, 120, 320));
    ASSERT_EQ(setValue(radio.get(), u"Yes"), PD_OK);
    auto [push, pw] = add("push", PD_ATOM_Btn, PD_FIELD_PUSHBUTTON, rect(150, 290, 250, 320));
    ASSERT_EQ(put(PDButtonWidgetAnnotSetCaption, pw.get(), u"OK"), PD_OK);
    ASSERT_EQ(PDWidgetAnnotSetBgColor(pw.get(), 0xFF00C000), PD_OK);
    auto [combo, cw] = add("combo", PD_ATOM_Ch, PD_FIELD_COMBO, rect(20, 240, 200, 262));
    auto [list, lw] = add("list", PD_ATOM_Ch, 0, rect(220, 180, 380, 262));
    for (auto* f : {combo.get(), list.get()})
        for (uint32_t i = 0; i < 4; ++i)
            ASSERT_EQ(insertOption(f, i, u"Item " + u16(std::to_string(i)), u""), PD_OK);
    ASSERT_EQ(PDChoiceWidgetAnnotSetSelection(cw.get(), 2), PD_OK);
    ASSERT_EQ(PDChoiceWidgetAnnotSetSelection(lw.get(), 1), PD_OK);
    PDField sig = nullptr;
    ASSERT_EQ(PDCreateSignField(doc.get(), 0, &sig), PD_OK);
    Owned sigField(sig);
    auto sw = addWidget(doc.get(), sig, pg.get(), rect(20, 20, 200, 80));
    ASSERT_EQ(PDWidgetAnnotSetBgColor(sw.get(), 0xFFFFC0C0), PD_OK);
    ASSERT_EQ(PDWidgetAnnotSetBorderColor(sw.get(), 0), PD_OK);

    std::string path = dir.file("kinds.pdf");
    ASSERT_EQ(PDDocSave(doc.get(), path.c_str()), PD_OK);
    EXPECT_EQ(qpdfCheck(path), 0);
    Raster r = render(path, dir.file("kinds"));
    ASSERT_EQ(r.width, 400);
    // Inside the border (inset 2): value text, check mark, radio dot, caption, combo text.
    EXPECT_GT(count(r, 20, 350, 200, 375, 2, isDark), 30);
    EXPECT_GT(count(r, 20, 300, 40, 320, 2, isDark), 20) << "check box that is on";
    EXPECT_EQ(count(r, 60, 300, 80, 320, 2, isDark), 0) << "check box that is off";
    EXPECT_GT(count(r, 104, 304, 116, 316, 0, isDark), 20) << "radio dot";
    EXPECT_GT(count(r, 150, 290, 250, 320, 2, isColour(0xFF00C000)), 1500) << "button face";
    EXPECT_GT(count(r, 150, 290, 250, 320, 2, isDark), 20) << "caption";
    EXPECT_GT(count(r, 20, 240, 200, 262, 2, isDark), 30) << "combo text";
    // The list box highlights its second row (12 pt, 13.8 high, from y 261 down) only.
    auto highlight = isColour(0xFF99BFD9);
    EXPECT_GT(count(r, 222, 235, 378, 245, 0, highlight), 500);
    EXPECT_EQ(count(r, 222, 249, 378, 260, 0, highlight), 0);
    EXPECT_EQ(count(r, 222, 182, 378, 231, 0, highlight), 0);
    EXPECT_GT(count(r, 222, 182, 378, 260, 1, isDark), 80) << "four items";
    EXPECT_GT(count(r, 20, 20, 200, 80, 0, isColour(0xFFFFC0C0)), 180 * 60 - 10)
        << "a signature box without border is all background";
    EXPECT_EQ(count(r, 0, 100, 400, 170, 0, [](const uint8_t* p) { return p[0] < 250; }), 0)
        << "nothing drawn outside the widgets";
}

TEST(WidgetAppearance, TextLayoutFollowsFlagsAndAlignment) {
    ScratchDir dir;
    auto doc = createDoc(1, 400, 400);
    auto pg = page(doc.get(), 0);
    auto add = [&](const char* name, uint32_t flags, PDRect r, const std::u16string& value) {
        auto made = addField(doc.get(), pg.get(), name, PD_ATOM_Tx, r, flags);
        EXPECT_EQ(setValue(made.field.get(), value), PD_OK);
        return made;
    };
    auto [right, rw] = add("right", 0, rect(20, 350, 380, 370), u"ends right");
    ASSERT_EQ(PDTextWidgetAnnotSetQuadding(rw.get(), 2), PD_OK);
    auto [multi, mw] = add("multi", PD_FIELD_MULTILINE, rect(20, 200, 120, 330),
                           u"several words that cannot fit on a single line\nand a break");
    auto [comb, cw] = add("comb", PD_FIELD_COMB, rect(20, 150, 220, 175), u"");
    ASSERT_EQ(PDTextFieldSetMaxLen(comb.get(), 4), PD_OK);
    ASSERT_EQ(setValue(comb.get(), u"7788"), PD_OK);
    ASSERT_EQ(PDWidgetAnnotSetBorderColor(cw.get(), 0xFF0000FF), PD_OK);
    auto [secret, pw] = add("secret", PD_FIELD_PASSWORD, rect(20, 100, 220, 125), u"hunter2");
    auto [small, sw] = add("small", 0, rect(250, 100, 380, 116), u"Hg");
    auto [big, bw] = add("big", 0, rect(250, 130, 380, 175), u"Hg");

    std::string path = dir.file("layout.pdf");
    ASSERT_EQ(PDDocSave(doc.get(), path.c_str()), PD_OK);
    Raster r = render(path, dir.file("layout"));
    EXPECT_EQ(count(r, 20, 350, 250, 370, 2, isDark), 0) << "right-aligned: left part empty";
    EXPECT_GT(count(r, 300, 350, 380, 370, 2, isDark), 30);

    // Wrapped lines: count bands of rows that hold dark pixels.
    int bands = 0;
    bool inBand = false;
    for (int y = 400 - 328; y < 400 - 202; ++y) {
        bool dark = false;
        for (int x = 23; x < 117; ++x)
            dark = dark || isDark(r.at(x, y));
        bands += dark && !inBand;
        inBand = dark;
    }
    EXPECT_GE(bands, 4) << "the long paragraph wraps, the break starts a new line";

    // Comb: one digit centred in each of the four 50-point cells, dividers in blue.
    for (int cell = 0; cell < 4; ++cell) {
        float x0 = 20 + 50.f * cell;
        EXPECT_GT(count(r, x0 + 15, 152, x0 + 35, 173, 0, isDark), 10) << cell;
        EXPECT_EQ(count(r, x0 + 3, 152, x0 + 12, 173, 0, isDark), 0) << cell;
    }
    auto bluish = [](const uint8_t* p) { return p[2] > 200 && p[0] < 200 && p[1] < 200; };
    EXPECT_GT(count(r, 68, 152, 72, 173, 0, bluish), 15) << "cell divider";

    // Automatic size grows with the box.
    auto smallExt = darkExtent(r, 252, 400 - 115, 378, 400 - 101);
    auto bigExt = darkExtent(r, 252, 400 - 173, 378, 400 - 132);
    EXPECT_GT(bigExt.second, 2 * smallExt.second);
    EXPECT_GT(smallExt.second, 4);

    expectDescribed(path,
                    {"secret /N - bbox=0 0 200 25 matrix=- fonts=/Helv tx=True tj=*******\n"});
}

TEST(WidgetAppearance, RotatedWidgetsReadUprightOnARotatedPage) {
    ScratchDir dir;
    std::string flat = dir.file("flat.pdf"), turned = dir.file("turned.pdf");
    {
        auto doc = createDoc(1, 400, 300);
        ASSERT_EQ(PDDocSave(doc.get(), flat.c_str()), PD_OK);
    }
    int status = -1;
    run("qpdf '" + flat + "' --rotate=+90 '" + turned + "'", &status);
    ASSERT_EQ(status, 0);
    auto doc = openDoc(turned);
    auto pg = page(doc.get(), 0);
    int32_t pageRotation = 0;
    ASSERT_EQ(PDPageGetRotate(pg.get(), &pageRotation), PD_OK);
    ASSERT_EQ(pageRotation, 90);
    // Tall rectangles on the page, so that they lie wide on the turned page.
    auto [up, upW] = addField(doc.get(), pg.get(), "up", PD_ATOM_Tx, rect(50, 50, 80, 250));
    ASSERT_EQ(PDWidgetAnnotSetRotate(upW.get(), 90), PD_OK);
    ASSERT_EQ(setValue(up.get(), u"Upright text"), PD_OK);
    auto [side, sideW] = addField(doc.get(), pg.get(), "side", PD_ATOM_Tx, rect(150, 50, 200, 250));
    ASSERT_EQ(PDWidgetAnnotSetFontSize(sideW.get(), 10), PD_OK);
    ASSERT_EQ(setValue(side.get(), u"Sideways"), PD_OK);
    auto [push, pushW] = addField(doc.get(), pg.get(), "push", PD_ATOM_Btn, rect(250, 50, 280, 150),
                                  PD_FIELD_PUSHBUTTON);
    ASSERT_EQ(PDWidgetAnnotSetRotate(pushW.get(), 90), PD_OK);
    ASSERT_EQ(put(PDButtonWidgetAnnotSetCaption, pushW.get(), u"Press"), PD_OK);

    std::string path = dir.file("rotated.pdf");
    ASSERT_EQ(PDDocSave(doc.get(), path.c_str()), PD_OK);
    Raster r = render(path, dir.file("rotated"));
    ASSERT_EQ(r.width, 300);
    ASSERT_EQ(r.height, 400);
    // Turned a quarter clockwise, user point (x, y) shows at pixel (y, x).
    auto extent = [&](float l, float b, float rr, float t) {
        return darkExtent(r, static_cast<int>(b) + 3, static_cast<int>(l) + 3,
                          static_cast<int>(t) - 3, static_cast<int>(rr) - 3);
    };
    auto upright = extent(50, 50, 80, 250);
    auto sideways = extent(150, 50, 200, 250);
    auto caption = extent(250, 50, 280, 150);
    EXPECT_GT(upright.first, 3 * upright.second) << "a line of text lies along the width";
    EXPECT_GT(sideways.second, 3 * sideways.first) << "without /R the text runs down the page";
    EXPECT_GT(caption.first, caption.second);

    expectDescribed(path, {"up /N - bbox=0 0 200 30 matrix=0 1 -1 0 30 0",
                           "side /N - bbox=0 0 50 200 matrix=-"});
}

// A widget drawn again writes over the streams of its last drawing: what the new drawing
// does not set (a /Matrix after the turn is undone, the check mark's font after the style
// changes) must not survive in them, and every state keeps a stream of its own.
TEST(WidgetAppearance, DrawingAgainLeavesNothingOfTheLastDrawing) {
    ScratchDir dir;
    auto doc = createDoc();
    auto pg = page(doc.get(), 0);
    auto [text, textW] = addField(doc.get(), pg.get(), "text", PD_ATOM_Tx, rect(50, 50, 250, 80));
    auto [box, boxW] = addField(doc.get(), pg.get(), "box", PD_ATOM_Btn, rect(300, 50, 320, 70));
    ASSERT_EQ(put(PDButtonWidgetAnnotSetChoice, boxW.get(), u"Yes"), PD_OK);
    ASSERT_EQ(PDWidgetAnnotSetRotate(textW.get(), 90), PD_OK);
    ASSERT_EQ(setValue(text.get(), u"Turned"), PD_OK);
    const std::string first = dir.file("first.pdf");
    ASSERT_EQ(PDDocSave(doc.get(), first.c_str()), PD_OK);
    expectDescribed(first, {"text /N - bbox=0 0 30 200 matrix=0 1 -1 0 200 0"});
    ASSERT_EQ(PDWidgetAnnotSetRotate(textW.get(), 0), PD_OK);
    ASSERT_EQ(setValue(text.get(), u"Upright"), PD_OK);
    ASSERT_EQ(put(PDButtonWidgetAnnotSetChoice, boxW.get(), u"On"), PD_OK);
    const std::string again = dir.file("again.pdf");
    ASSERT_EQ(PDDocSave(doc.get(), again.c_str()), PD_OK);
    const std::string out = expectDescribed(
        again, {"text /N - bbox=0 0 200 30 matrix=- fonts=/Helv tx=True tj=Upright",
                "box /N /On bbox=0 0 20 20", "box /N /Off bbox=0 0 20 20",
                "box /D /On bbox=0 0 20 20", "box /D /Off bbox=0 0 20 20"});
    EXPECT_EQ(out.find("Yes"), std::string::npos) << out;
    // Four states, four streams.
    EXPECT_EQ(python("ids = set()\n"
                     "for a in pdf.pages[0]['/Annots']:\n"
                     "    for ap in a.get_object()['/AP'].values():\n"
                     "        ap = ap.get_object()\n"
                     "        if not hasattr(ap, 'get_data'):\n"
                     "            ids.update(v.idnum for v in ap.values())\n"
                     "print(len(ids))",
                     "'" + again + "'"),
              "4\n");
}

TEST(WidgetAppearance, ButtonIconFollowsTheIconFit) {
    ScratchDir dir;
    auto doc = createDoc(1, 200, 200);
    auto pg = page(doc.get(), 0);
    auto [push, w] = addField(doc.get(), pg.get(), "push", PD_ATOM_Btn, rect(20, 20, 180, 180),
                              PD_FIELD_PUSHBUTTON);
    ASSERT_EQ(PDWidgetAnnotSetBgColor(w.get(), 0xFFFFFFFF), PD_OK);
    std::string made = dir.file("made.pdf"), edited = dir.file("edited.pdf");
    ASSERT_EQ(PDDocSave(doc.get(), made.c_str()), PD_OK);
    // A 20 x 10 red icon shown alone (/TP 1).
    edit(made, edited, R"(
icon = StreamObject()
icon._data = b'1 0 0 rg 0 0 20 10 re f'
icon.update({NameObject('/Type'): NameObject('/XObject'),
             NameObject('/Subtype'): NameObject('/Form'),
             NameObject('/BBox'): ArrayObject([NumberObject(v) for v in (0, 0, 20, 10)])})
annots[0]['/MK'][NameObject('/I')] = w._add_object(icon)
annots[0]['/MK'][NameObject('/TP')] = NumberObject(1)
)");
    auto copy = openDoc(edited);
    auto cw = annotAt(copy.get(), 0);
    auto red = isColour(0xFFFF0000);
    auto rendered = [&](PDIconFit fit, const std::string& name) {
        EXPECT_EQ(PDButtonWidgetAnnotSetIconFit(cw.get(), &fit), PD_OK);
        std::string path = dir.file(name + ".pdf");
        EXPECT_EQ(PDDocSave(copy.get(), path.c_str()), PD_OK);
        return render(path, dir.file(name));
    };

    Raster r = rendered({3, 0, 0, 0, 0}, "never"); // natural size, bottom-left corner
    EXPECT_NEAR(count(r, 20, 20, 180, 180, 0, red), 200, 40);
    EXPECT_GT(count(r, 21, 21, 41, 31, 1, red), 100);

    r = rendered({0, 0, 0.5f, 0.5f, 0}, "always"); // proportional: 158 wide, 79 high, centred
    EXPECT_NEAR(count(r, 20, 20, 180, 180, 0, red), 158 * 79, 800);
    EXPECT_EQ(count(r, 21, 21, 179, 55, 1, red), 0) << "room left below";
    EXPECT_GT(count(r, 21, 70, 179, 130, 1, red), 150 * 55);
}

// A page's rectangles in one call are those its annotations answer one by one, in the
// list's order also after annotations left and came back in between.
TEST(AnnotRects, FollowTheListOrder) {
    Owned doc = createDoc();
    Owned pg = page(doc.get(), 0);
    std::vector<FieldAndWidget> made;
    for (int i = 0; i < 6; ++i)
        made.push_back(addField(doc.get(), pg.get(), "R" + std::to_string(i), PD_ATOM_Tx,
                                rect(10.f * i, 100, 10.f * i + 8, 120)));
    ASSERT_EQ(PDPageRemoveAnnot(pg.get(), made[1].widget.get()), PD_OK);
    ASSERT_EQ(PDPageAddAnnot(pg.get(), 4, made[1].widget.get()), PD_OK);
    ASSERT_EQ(PDPageRemoveAnnot(pg.get(), made[3].widget.get()), PD_OK);

    uint32_t count = 0;
    ASSERT_EQ(PDPageGetAnnotRects(pg.get(), 0, nullptr, 0, &count), PD_OK);
    ASSERT_EQ(count, 5u);
    std::vector<PDRect> rects(count);
    // A window from position 3 gets the last two; one past the end is refused.
    uint32_t total = 0;
    ASSERT_EQ(PDPageGetAnnotRects(pg.get(), 3, rects.data() + 3, 4, &total), PD_OK);
    EXPECT_EQ(total, 5u);
    EXPECT_EQ(PDPageGetAnnotRects(pg.get(), 6, rects.data(), 1, &total), PD_ERR_BAD_ARGUMENT);
    ASSERT_EQ(PDPageGetAnnotRects(pg.get(), 0, rects.data(), 3, &count), PD_OK);
    auto annots = annotsOf(pg.get());
    ASSERT_EQ(annots.size(), 5u);
    for (size_t i = 0; i < annots.size(); ++i) {
        PDRect r{};
        ASSERT_EQ(PDAnnotGetRect(annots[i].get(), &r), PD_OK);
        EXPECT_EQ(std::memcmp(&r, &rects[i], sizeof r), 0) << i;
    }
}
