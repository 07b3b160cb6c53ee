// What becomes of a widget's appearance when it is moved, resized, filled or restyled: the
// drawings other tools made are kept wherever pdfcore could not draw them as well, its own
// are drawn again, also after the file was written and read back. Streams are compared
// through pypdf, as a reader decodes them.
#include "TestSupport.h"

#include <cmath>
#include <map>
#include <sstream>

using namespace pdtest;

namespace {

// One line per annotation of page 0: "<index> <AS> <entry>:<state>:<md5 of the data and
// the dictionary but its length and filters> ...".
const char* kStreams = R"PY(
import sys, hashlib, warnings, logging
warnings.filterwarnings('ignore'); logging.disable(logging.CRITICAL)
from pypdf import PdfReader
pdf = PdfReader(sys.argv[1])
from pypdf.generic import IndirectObject, DictionaryObject, ArrayObject, StreamObject
def canon(o, depth=0):
    if isinstance(o, IndirectObject):
        o = o.get_object()
    if depth > 12:
        return '...'
    if isinstance(o, StreamObject):
        return hashlib.md5(o.get_data()).hexdigest() + canon(DictionaryObject(
            {k: v for k, v in o.items() if k not in ('/Length', '/Filter', '/DecodeParms')}),
            depth + 1)
    if isinstance(o, DictionaryObject):
        return '{' + ','.join(k + ':' + canon(v, depth + 1) for k, v in sorted(o.items())) + '}'
    if isinstance(o, ArrayObject):
        return '[' + ','.join(canon(v, depth + 1) for v in o) + ']'
    return repr(o)
def digest(s):
    return hashlib.md5(canon(s).encode()).hexdigest()[:10]
annots = pdf.pages[0].get('/Annots')
for i, a in enumerate(annots.get_object() if annots else []):
    a = a.get_object()
    parts = [str(i), str(a.get('/AS', '-'))]
    for which, ap in sorted(a.get('/AP', {}).items()):
        ap = ap.get_object()
        states = [('-', ap)] if hasattr(ap, 'get_data') else sorted(ap.items())
        parts += ['%s:%s:%s' % (which, k, digest(s.get_object())) for k, s in states]
    print(' '.join(parts))
)PY";

std::map<int, std::string> streamsByAnnot(const std::string& pdf) {
    std::istringstream lines(run(std::string(QF_PYTHON) + " - '" + pdf + "' <<'PY'\n" +
                                 kStreams + "\nPY\n"));
    std::map<int, std::string> out;
    std::string line;
    while (std::getline(lines, line)) {
        size_t space = line.find(' ');
        out[std::stoi(line.substr(0, space))] = line.substr(space + 1);
    }
    return out;
}

// A pypdf expression over `s`, the stream of an /AP entry (and state) of annotation
// `index` of page 0.
std::string streamFact(const std::string& pdf, int index, const std::string& path,
                       const std::string& expression) {
    return run(std::string(QF_PYTHON) + " - '" + pdf + "' <<'PY'\n" +
               "import sys, warnings, logging\nwarnings.filterwarnings('ignore')\n"
               "logging.disable(logging.CRITICAL)\nfrom pypdf import PdfReader\n"
               "a = PdfReader(sys.argv[1]).pages[0]['/Annots'].get_object()[" +
               std::to_string(index) + "].get_object()\ns = a['/AP']" + path +
               ".get_object()\nprint(" + expression + ")\nPY\n");
}

PDRect rectOf(PDAnnot a) {
    PDRect r{};
    EXPECT_EQ(PDAnnotGetRect(a, &r), PD_OK);
    return r;
}
PDResult setRect(PDAnnot a, PDRect r) {
    return PDAnnotSetRect(a, &r);
}
PDRect moved(PDRect r, float dx, float dy) {
    return PDRect{r.left + dx, r.top + dy, r.right + dx, r.bottom + dy};
}
PDRect grown(PDRect r, float dw, float dh) {
    return PDRect{r.left, r.top, r.right + dw, r.bottom - dh};
}

PDAtom fieldTypeOf(PDAnnot w, uint32_t* flags) {
    Owned field = parentOf(w);
    PDAtom type = 0;
    *flags = 0;
    if (!field) return 0;
    PDFieldGetType(field.get(), &type);
    PDFieldGetFlags(field.get(), flags);
    return type;
}

class AuthoredLook : public ::testing::Test {
  protected:
    ScratchDir dir;
};

} // namespace

// pdf-lib's sample, drawn by a commercial editor: images, rotations, captions and borders
// that the widgets' entries do not describe.
TEST_F(AuthoredLook, MovesKeepEveryStreamAndResizesKeepWhatCannotBeDrawnAgain) {
    const std::string source = corpus("pdflib-fancy-fields.pdf");
    const auto before = streamsByAnnot(source);
    ASSERT_GT(before.size(), 20u);

    Owned doc = openDoc(source);
    auto annots = annotsOf(page(doc.get(), 0).get());
    std::vector<int> textual;
    for (size_t i = 0; i < annots.size(); ++i) {
        PDAnnot a = annots[i].get();
        ASSERT_EQ(setRect(a, moved(rectOf(a), 7, -5)), PD_OK);
        ASSERT_EQ(setRect(a, moved(rectOf(a), -2, 1)), PD_OK);
    }
    const std::string movedFile = dir.file("moved.pdf");
    ASSERT_EQ(PDDocSave(doc.get(), movedFile.c_str()), PD_OK);
    EXPECT_EQ(streamsByAnnot(movedFile), before);

    // A new size: buttons keep their drawings for viewers to fit; text and choice fields keep
    // the author's frame under their text, drawn again for the new size.
    for (size_t i = 0; i < annots.size(); ++i) {
        PDAnnot a = annots[i].get();
        uint32_t flags = 0;
        PDAtom type = fieldTypeOf(a, &flags);
        if (type == PD_ATOM_Tx || type == PD_ATOM_Ch) textual.push_back(static_cast<int>(i));
        ASSERT_EQ(setRect(a, grown(rectOf(a), 12, 8)), PD_OK);
    }
    ASSERT_FALSE(textual.empty());
    const std::string resized = dir.file("resized.pdf");
    ASSERT_EQ(PDDocSave(doc.get(), resized.c_str()), PD_OK);
    EXPECT_EQ(qpdfCheck(resized), 0);
    auto after = streamsByAnnot(resized);
    for (const auto& [index, streams] : before) {
        bool isText = std::find(textual.begin(), textual.end(), index) != textual.end();
        if (!isText) {
            EXPECT_EQ(after[index], streams) << "annotation " << index;
            continue;
        }
        EXPECT_NE(after[index], streams) << "annotation " << index;
        EXPECT_EQ(streamFact(resized, index, "['/N']",
                             "'/Frame' in s['/Resources']['/XObject'] and "
                             "b'/Frame Do' in s.get_data() and b'/Tx BMC' in s.get_data()"),
                  "True\n")
            << "annotation " << index;
    }
    // The text's box is the new one: 12 points wider (turned widgets: taller).
    const int first = textual.front();
    PDRect r = rectOf(annots[first].get());
    std::string box = streamFact(resized, first, "['/N']",
                                 "sorted(round(float(v)) for v in s['/BBox'])[2:]");
    int w = static_cast<int>(std::lround(r.right - r.left)),
        h = static_cast<int>(std::lround(r.top - r.bottom));
    EXPECT_TRUE(box == "[" + std::to_string(std::min(w, h)) + ", " +
                           std::to_string(std::max(w, h)) + "]\n")
        << box;
}

// qpdf's field-types form: check boxes and radio buttons drawn by another tool, shown by
// their state.
TEST_F(AuthoredLook, ValuesOfDrawnButtonsOnlyChangeTheirState) {
    const std::string source = corpus("qpdf-field-types.pdf");
    const auto before = streamsByAnnot(source);
    Owned doc = openDoc(source);
    auto annots = annotsOf(page(doc.get(), 0).get());
    int checkBox = -1;
    for (size_t i = 0; i < annots.size() && checkBox < 0; ++i) {
        uint32_t flags = 0;
        if (fieldTypeOf(annots[i].get(), &flags) == PD_ATOM_Btn &&
            !(flags & (PD_FIELD_RADIO | PD_FIELD_PUSHBUTTON)))
            checkBox = static_cast<int>(i);
    }
    ASSERT_GE(checkBox, 0);
    PDAnnot box = annots[checkBox].get();
    std::u16string on = text([&](char16_t* b, uint32_t n, uint32_t* l) {
        return PDButtonWidgetAnnotGetChoice(box, b, n, l);
    });
    ASSERT_EQ(setValue(parentOf(box).get(), on), PD_OK);
    const std::string filled = dir.file("filled.pdf");
    ASSERT_EQ(PDDocSave(doc.get(), filled.c_str()), PD_OK);
    auto after = streamsByAnnot(filled);
    std::string was = before.at(checkBox), now = after.at(checkBox);
    EXPECT_EQ(now.substr(now.find(' ')), was.substr(was.find(' ')));
    EXPECT_EQ(now.substr(0, now.find(' ')), "/" + utf8(on));

}

// A drawing of the author's that the widget's entries do not describe (a box drawn in the
// Off state, no colours in /MK) stays where a new drawing would show nothing.
TEST_F(AuthoredLook, NothingVisibleBecomesInvisible) {
    const std::string ours = dir.file("ours.pdf"), theirs = dir.file("theirs.pdf");
    {
        Owned doc = createDoc();
        Owned pg = page(doc.get(), 0);
        addField(doc.get(), pg.get(), "Agree", PD_ATOM_Btn, rect(100, 600, 120, 620));
        ASSERT_EQ(PDDocSave(doc.get(), ours.c_str()), PD_OK);
    }
    ASSERT_EQ(run(std::string(QF_PYTHON) + " - '" + ours + "' '" + theirs + "' <<'PY'\n" +
                  R"PY(
import sys
from pypdf import PdfReader, PdfWriter
from pypdf.generic import DecodedStreamObject, NameObject
w = PdfWriter()
w.clone_reader_document_root(PdfReader(sys.argv[1]))
a = w.pages[0]['/Annots'][0].get_object()
for key in ('/BC', '/BG'):
    if key in a['/MK']:
        del a['/MK'][key]
for which in ('/N', '/D'):
    states = a['/AP'][which]
    for state in list(states.keys()):
        old = states[state].get_object()
        s = DecodedStreamObject()
        s.update({k: v for k, v in old.items() if k not in ('/Length', '/Filter')})
        s.set_data(b'0 0 1 RG 1 w 1 1 18 18 re S' + (b' 5 5 10 10 re f' if state != '/Off' else b''))
        states[NameObject(state)] = w._add_object(s)
w.write(sys.argv[2])
print('ok')
)PY" + "\nPY\n"),
              "ok\n");
    const auto authored = streamsByAnnot(theirs).at(0);
    Owned doc = openDoc(theirs);
    Owned box = std::move(annotsOf(page(doc.get(), 0).get())[0]);
    ASSERT_EQ(PDWidgetAnnotSetFontSize(box.get(), 9), PD_OK);
    const std::string restyled = dir.file("restyled.pdf");
    ASSERT_EQ(PDDocSave(doc.get(), restyled.c_str()), PD_OK);
    std::string now = streamsByAnnot(restyled).at(0);
    const std::string offState = authored.substr(authored.find("/N:/Off:"), 18);
    EXPECT_NE(now.find(offState), std::string::npos) << authored << "\n" << now;
    EXPECT_EQ(streamFact(restyled, 0, "['/N']['/Yes']", "s.get_data()[:10]"), "b'%qf-forms\\n'\n");
}

// A drawing of pdfcore's own is recognised in the file it wrote: a resize draws it again
// for the new box instead of leaving viewers to stretch it.
TEST_F(AuthoredLook, OwnDrawingsAreDrawnAgainAfterReopening) {
    const std::string first = dir.file("first.pdf");
    {
        Owned doc = createDoc();
        Owned pg = page(doc.get(), 0);
        auto check = addField(doc.get(), pg.get(), "Agree", PD_ATOM_Btn, rect(100, 600, 120, 620));
        auto name = addField(doc.get(), pg.get(), "Name", PD_ATOM_Tx, rect(100, 500, 300, 520));
        ASSERT_EQ(setValue(name.field.get(), u"Jane"), PD_OK);
        ASSERT_EQ(PDDocSave(doc.get(), first.c_str()), PD_OK);
    }
    Owned doc = openDoc(first);
    auto annots = annotsOf(page(doc.get(), 0).get());
    ASSERT_EQ(annots.size(), 2u);
    for (auto& a : annots)
        ASSERT_EQ(setRect(a.get(), grown(rectOf(a.get()), 40, 20)), PD_OK);
    const std::string second = dir.file("second.pdf");
    ASSERT_EQ(PDDocSave(doc.get(), second.c_str()), PD_OK);
    EXPECT_EQ(streamFact(second, 0, "['/N']['/Yes']", "[round(float(v)) for v in s['/BBox']]"),
              "[0, 0, 60, 40]\n");
    EXPECT_EQ(streamFact(second, 1, "['/N']",
                         "[round(float(v)) for v in s['/BBox']], '/XObject' in s['/Resources']"),
              "[0, 0, 240, 40] False\n");
}
