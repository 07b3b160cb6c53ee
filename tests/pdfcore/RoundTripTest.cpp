// End to end: build a form of every field type on a new document and on a copy of a corpus
// file with rotated pages, rename fields and move widgets, fill in values, save, and check
// the result with qpdf --check, pypdf (pypdf_fields.py), pdfcore itself and a rendering by
// pdftoppm. Also saving over the file that was opened.
#include "FormListing.h"

#include <cmath>

using namespace pdtest;
namespace fs = std::filesystem;

namespace {

// /AS of each widget of a field, "" when absent.
std::vector<std::string> statesOf(PDField f) {
    std::vector<std::string> out;
    for (const auto& w : widgetsOf(f)) {
        PDAtom as = 0;
        PDResult r = PDAnnotGetAppearanceState(w.get(), &as);
        out.push_back(r == PD_OK ? atomText(as) : r == PD_ERR_NO_VALUE ? "" : "<error>");
    }
    return out;
}

// ---- rendering -----------------------------------------------------------------------------

// A rectangle in pixels: x to the right, y downwards.
struct PixelBox {
    double x0, y0, x1, y1;
};

// Where a rectangle of user space lands on the rendered page: the crop box is shown, turned
// clockwise by the page's /Rotate.
PixelBox toPixels(const PDRect& r, const PDRect& crop, int rotate) {
    double cx0 = std::min(crop.left, crop.right), cx1 = std::max(crop.left, crop.right);
    double cy0 = std::min(crop.bottom, crop.top), cy1 = std::max(crop.bottom, crop.top);
    auto map = [&](double x, double y) -> std::pair<double, double> {
        switch (rotate) {
        case 90:
            return {y - cy0, x - cx0};
        case 180:
            return {cx1 - x, y - cy0};
        case 270:
            return {cy1 - y, cx1 - x};
        default:
            return {x - cx0, cy1 - y};
        }
    };
    auto [ax, ay] = map(r.left, r.bottom);
    auto [bx, by] = map(r.right, r.top);
    return {std::min(ax, bx), std::min(ay, by), std::max(ax, bx), std::max(ay, by)};
}

// The number of whole pixels inside box darker than limit (in their darkest channel).
int darkPixels(const Raster& img, const PixelBox& b, int limit) {
    int count = 0;
    for (int y = std::max(0, static_cast<int>(std::ceil(b.y0)));
         y < std::min(img.height, static_cast<int>(std::floor(b.y1))); ++y)
        for (int x = std::max(0, static_cast<int>(std::ceil(b.x0)));
             x < std::min(img.width, static_cast<int>(std::floor(b.x1))); ++x)
            if (img.darkest(x, y) < limit) ++count;
    return count;
}

// The darkest pixel of the band around box between inner and outer pixels away from it.
int darkestInBand(const Raster& img, const PixelBox& b, double inner, double outer) {
    int darkest = 255;
    for (int y = std::max(0, static_cast<int>(b.y0 - outer));
         y < std::min(img.height, static_cast<int>(b.y1 + outer) + 1); ++y) {
        for (int x = std::max(0, static_cast<int>(b.x0 - outer));
             x < std::min(img.width, static_cast<int>(b.x1 + outer) + 1); ++x) {
            bool inInner = x + 1 > b.x0 - inner && x < b.x1 + inner && y + 1 > b.y0 - inner &&
                           y < b.y1 + inner;
            if (!inInner) darkest = std::min<int>(darkest, img.darkest(x, y));
        }
    }
    return darkest;
}

// ---- the scenario --------------------------------------------------------------------------

struct Placed {
    std::string field;
    uint32_t page;
    PDRect rect;
};

struct Built {
    std::vector<Placed> widgets; // every widget made, where it was put
    Form expected;               // the fields made, as they must read back
    Form unsaved;                // fields that only the open document has
};

// An area of every page that the scenario leaves empty (and the corpus file too).
const PDRect kBlank = rect(420, 60, 580, 280);

// Builds the form on pages a, b and c of doc: fields of every type, hierarchical names,
// renames (also to another parent), a widget moved from one text field to another, values.
void buildForm(PDDoc doc, uint32_t a, uint32_t b, uint32_t c, Built& out) {
    auto pa = page(doc, a), pb = page(doc, b), pc = page(doc, c);
    ASSERT_TRUE(pa && pb && pc);
    auto place = [&](PDField f, PDPage pg, uint32_t index, PDRect r, const std::string& name) {
        out.widgets.push_back({name, index, r});
        return addWidget(doc, f, pg, r);
    };
    const int ia = static_cast<int>(a), ib = static_cast<int>(b), ic = static_cast<int>(c);

    // Text fields under "person" and "person.address".
    auto name = createField(doc, "person.name", PD_ATOM_Tx);
    place(name.get(), pa.get(), a, rect(60, 340, 300, 364), "person.name");
    auto city = createField(doc, "person.address.city", PD_ATOM_Tx);
    place(city.get(), pb.get(), b, rect(60, 340, 300, 364), "person.address.city");
    auto alias = createField(doc, "person.alias", PD_ATOM_Tx);
    auto aliasW = place(alias.get(), pa.get(), a, rect(60, 200, 300, 224), "person.name");
    auto nick = createField(doc, "person.nick", PD_ATOM_Tx);
    place(nick.get(), pc.get(), c, rect(60, 300, 300, 324), "person.nickname");
    auto note = createField(doc, "misc.note", PD_ATOM_Tx);
    place(note.get(), pb.get(), b, rect(330, 340, 580, 364), "person.address.street");
    auto other = createField(doc, "misc.other", PD_ATOM_Tx);
    place(other.get(), pc.get(), c, rect(330, 340, 580, 364), "misc.other");

    // Buttons: a check box, a radio group with a widget on two pages, a push button.
    auto agree = createField(doc, "agree", PD_ATOM_Btn);
    place(agree.get(), pa.get(), a, rect(60, 300, 78, 318), "agree");
    const uint32_t radioFlags = PD_FIELD_RADIO | PD_FIELD_NO_TOGGLE_TO_OFF;
    auto color = createField(doc, "color", PD_ATOM_Btn, radioFlags);
    auto red = place(color.get(), pa.get(), a, rect(100, 300, 118, 318), "color");
    auto blue = place(color.get(), pb.get(), b, rect(100, 300, 118, 318), "color");
    for (const auto& [w, state] : {std::pair{red.get(), u"red"}, std::pair{blue.get(), u"blue"}}) {
        std::u16string s = state;
        EXPECT_EQ(PDButtonWidgetAnnotSetChoice(w, s.data(), static_cast<uint32_t>(s.size())),
                  PD_OK);
    }
    auto submit = createField(doc, "submit", PD_ATOM_Btn, PD_FIELD_PUSHBUTTON);
    auto submitW = place(submit.get(), pc.get(), c, rect(60, 340, 160, 370), "submit");
    EXPECT_EQ(PDButtonWidgetAnnotSetCaption(submitW.get(), u"Send", 4), PD_OK);

    // Choices: a combo box and a list box, options inserted out of order.
    auto country = createField(doc, "country", PD_ATOM_Ch, PD_FIELD_COMBO);
    auto languages = createField(doc, "languages", PD_ATOM_Ch);
    struct Insert {
        PDField field;
        uint32_t index;
        std::u16string display, exportValue;
    };
    for (const Insert& i :
         {Insert{country.get(), 0, u"Germany", u"DE"}, Insert{country.get(), 1, u"France", u"FR"},
          Insert{country.get(), 2, u"Japan", u""}, Insert{country.get(), 0, u"Austria", u"AT"},
          Insert{languages.get(), 0, u"English", u""},
          Insert{languages.get(), 1, u"Fran\u00e7ais", u"Fran\u00e7ais"},
          Insert{languages.get(), 2, u"\u65e5\u672c\u8a9e", u""}})
        EXPECT_EQ(insertOption(i.field, i.index, i.display, i.exportValue), PD_OK);
    auto countryW = place(country.get(), pa.get(), a, rect(60, 250, 260, 274), "country");
    place(languages.get(), pb.get(), b, rect(60, 150, 260, 230), "languages");

    // A signature field (named by pdfcore).
    PDField rawSig = nullptr;
    ASSERT_EQ(PDCreateSignField(doc, 0, &rawSig), PD_OK);
    Owned sig(rawSig);
    const std::u16string signatureName = fieldName(sig.get());
    EXPECT_FALSE(signatureName.empty());
    place(sig.get(), pc.get(), c, rect(60, 200, 260, 260), utf8(signatureName));

    // Renames: to another parent (one that exists), within the parent.
    EXPECT_EQ(rename(doc, note.get(), "person.address.street"), PD_OK);
    EXPECT_EQ(findField(doc, "person.address.street").get(), note.get());
    EXPECT_FALSE(findField(doc, "misc.note"));
    EXPECT_EQ(rename(doc, nick.get(), "person.nickname"), PD_OK);

    // Values. The name is set before the widget move: the moved widget shows it too.
    for (const auto& [f, v] :
         {std::pair{name.get(), u"Ada Lovelace"}, std::pair{city.get(), u"Z\u00fcrich"},
          std::pair{note.get(), u"\u4e38\u306e\u5185 1-1"}, std::pair{other.get(), u"other"},
          std::pair{agree.get(), u"Yes"}, std::pair{color.get(), u"blue"},
          std::pair{languages.get(), u"Fran\u00e7ais"}})
        EXPECT_EQ(setValue(f, v), PD_OK) << utf8(fieldName(f));
    EXPECT_EQ(PDChoiceWidgetAnnotSetSelection(countryW.get(), 2), PD_OK);

    // Move the widget of person.alias to person.name (a merged field: split on the way).
    EXPECT_EQ(PDFieldRemoveWidget(alias.get(), aliasW.get()), PD_OK);
    EXPECT_EQ(PDFieldAppendWidget(name.get(), aliasW.get()), PD_OK);

    auto& e = out.expected;
    e[u"person.name"] = {"Tx", 0, u"Ada Lovelace", true, {}, {ia, ia}};
    // person.alias, made here and left without its widget, stays in memory only.
    out.unsaved[u"person.alias"] = {"Tx", 0, std::nullopt, true, {}, {}};
    e[u"person.nickname"] = {"Tx", 0, std::nullopt, true, {}, {ic}};
    e[u"person.address.city"] = {"Tx", 0, u"Z\u00fcrich", true, {}, {ib}};
    e[u"person.address.street"] = {"Tx", 0, u"\u4e38\u306e\u5185 1-1", true, {}, {ib}};
    e[u"misc.other"] = {"Tx", 0, u"other", true, {}, {ic}};
    e[u"agree"] = {"Btn", 0, u"Yes", true, {}, {ia}};
    e[u"color"] = {"Btn", radioFlags, u"blue", true, {}, {std::min(ia, ib), std::max(ia, ib)}};
    e[u"submit"] = {"Btn", PD_FIELD_PUSHBUTTON, std::nullopt, true, {}, {ic}};
    e[u"country"] = {
        "Ch",
        PD_FIELD_COMBO,
        u"FR",
        true,
        {{u"AT", u"Austria"}, {u"DE", u"Germany"}, {u"FR", u"France"}, {u"Japan", u"Japan"}},
        {ia}};
    e[u"languages"] = {"Ch",
                       0,
                       u"Fran\u00e7ais",
                       true,
                       {{u"English", u"English"},
                        {u"Fran\u00e7ais", u"Fran\u00e7ais"},
                        {u"\u65e5\u672c\u8a9e", u"\u65e5\u672c\u8a9e"}},
                       {ib}};
    e[signatureName] = {"Sig", 0, std::nullopt, true, {}, {ic}};
}

// The saved file, checked three ways: qpdf --check, pypdf, and pdfcore reopening it.
void checkSaved(const std::string& path, const Form& expected, int pages) {
    EXPECT_EQ(qpdfCheck(path), 0) << run("qpdf --check '" + path + "' 2>&1");

    Listing pypdf = readWithPypdf(path);
    ASSERT_EQ(pypdf.error, "");
    EXPECT_EQ(pypdf.pages, pages);
    expectSameFields(expected, pypdf.fields, "pypdf reading the saved file");

    auto doc = openDoc(path);
    ASSERT_TRUE(doc);
    expectSameFields(expected, readWithPdfcore(doc.get()).fields, "pdfcore reopening it");
    auto agree = findField(doc.get(), "agree");
    auto color = findField(doc.get(), "color");
    ASSERT_TRUE(agree && color);
    EXPECT_EQ(statesOf(agree.get()), (std::vector<std::string>{"Yes"}));
    EXPECT_EQ(statesOf(color.get()), (std::vector<std::string>{"Off", "blue"}));
}

// Every widget made shows something inside its rectangle and nothing just outside it; the
// blank area of each page used stays white.
void checkRendering(const std::string& pdf, const std::vector<Placed>& widgets,
                    const std::string& scratchPrefix) {
    auto doc = openDoc(pdf);
    ASSERT_TRUE(doc);
    std::map<uint32_t, Raster> images;
    std::map<uint32_t, std::pair<PDRect, int32_t>> geometry;
    for (const auto& w : widgets) {
        if (images.count(w.page)) continue;
        auto pg = page(doc.get(), w.page);
        PDRect crop{};
        int32_t rotate = 0;
        ASSERT_EQ(PDPageGetBox(pg.get(), PD_BOX_CROP, &crop), PD_OK);
        ASSERT_EQ(PDPageGetRotate(pg.get(), &rotate), PD_OK);
        geometry[w.page] = {crop, rotate};
        images[w.page] = render(pdf, scratchPrefix + std::to_string(w.page), w.page);
        const Raster& img = images[w.page];
        ASSERT_GT(img.width, 0) << "page " << w.page << " did not render";
        double cw = std::fabs(crop.right - crop.left), ch = std::fabs(crop.top - crop.bottom);
        bool turned = rotate == 90 || rotate == 270;
        EXPECT_NEAR(img.width, turned ? ch : cw, 1.0) << "page " << w.page;
        EXPECT_NEAR(img.height, turned ? cw : ch, 1.0) << "page " << w.page;
        EXPECT_EQ(darkPixels(img, toPixels(kBlank, crop, rotate), 250), 0)
            << "page " << w.page << " (rotated " << rotate << "): the blank area is not white";
    }
    for (const auto& w : widgets) {
        const Raster& img = images[w.page];
        auto [crop, rotate] = geometry[w.page];
        PixelBox box = toPixels(w.rect, crop, rotate);
        std::string at = "widget of \"" + w.field + "\" on page " + std::to_string(w.page) +
                         " (rotated " + std::to_string(rotate) + ") at pixels [" +
                         std::to_string(box.x0) + ", " + std::to_string(box.y0) + ", " +
                         std::to_string(box.x1) + ", " + std::to_string(box.y1) + "]";
        EXPECT_GE(darkPixels(img, box, 200), 20) << at << ": nothing drawn inside";
        EXPECT_GE(darkestInBand(img, box, 3, 6), 230) << at << ": marks just outside";
    }
}

class RoundTrip : public ::testing::Test {
  protected:
    ScratchDir dir;
};

// The form on pages 0, 1 and 2 of a new document, and on pages 1, 4 and 7 of a corpus file,
// which have /Rotate 90, 180 and 270 (the file's own fields stay as they were).
TEST_F(RoundTrip, EveryFieldTypeOnANewDocumentAndOnRotatedPages) {
    const std::string rotated = "qpdf-rotated-pages-multiline-text.pdf";
    for (bool onCorpus : {false, true}) {
        SCOPED_TRACE(onCorpus ? rotated : "new document");
        const std::string copy = dir.file("source.pdf");
        const std::string out = dir.file(onCorpus ? "rotated.pdf" : "new.pdf");
        Listing original;
        Owned doc;
        if (onCorpus) {
            fs::copy_file(corpus(rotated), copy);
            original = readWithPypdf(copy);
            ASSERT_EQ(original.error, "");
            doc = openDoc(copy);
            ASSERT_TRUE(doc);
            for (auto [index, degrees] :
                 {std::pair{1u, 90}, std::pair{4u, 180}, std::pair{7u, 270}}) {
                int32_t rotate = -1;
                EXPECT_EQ(PDPageGetRotate(page(doc.get(), index).get(), &rotate), PD_OK);
                ASSERT_EQ(rotate, degrees) << "page " << index;
            }
        } else {
            doc = createDoc(3);
            original.pages = 3;
        }
        ASSERT_TRUE(doc);
        Built built;
        buildForm(doc.get(), onCorpus ? 1 : 0, onCorpus ? 4 : 1, onCorpus ? 7 : 2, built);
        ASSERT_FALSE(HasFatalFailure());
        Form expected = original.fields;
        for (const auto& [name, f] : built.expected)
            ASSERT_TRUE(expected.emplace(name, f).second) << utf8(name);
        Listing before = readWithPdfcore(doc.get());
        Form inMemory = expected;
        inMemory.insert(built.unsaved.begin(), built.unsaved.end());
        expectSameFields(inMemory, before.fields, "pdfcore before saving");

        ASSERT_EQ(PDDocSave(doc.get(), out.c_str()), PD_OK);
        // The document stays open and unchanged.
        expectSameFields(before.fields, readWithPdfcore(doc.get()).fields, "pdfcore after saving");
        checkSaved(out, expected, original.pages);
        checkRendering(out, built.widgets, dir.file(onCorpus ? "r" : "n"));
        // The opened copy was not touched by the save elsewhere.
        if (onCorpus) {
            EXPECT_TRUE(slurp(copy) == slurp(corpus(rotated)));
        }
    }
}

// Radio on-states and values outside ASCII (names like /gr#c3#bcn in the file) read back as
// the texts they were set to.
TEST_F(RoundTrip, NonAsciiButtonStatesSurviveSaving) {
    auto doc = createDoc(1);
    auto color = createField(doc.get(), "farbe", PD_ATOM_Btn, PD_FIELD_RADIO);
    auto pg = page(doc.get(), 0);
    auto green = addWidget(doc.get(), color.get(), pg.get(), rect(60, 700, 78, 718));
    auto blue = addWidget(doc.get(), color.get(), pg.get(), rect(100, 700, 118, 718));
    const std::u16string greenState = u"gr\u00fcn", blueState = u"\u9752";
    ASSERT_EQ(PDButtonWidgetAnnotSetChoice(green.get(), greenState.data(), 4), PD_OK);
    ASSERT_EQ(PDButtonWidgetAnnotSetChoice(blue.get(), blueState.data(), 1), PD_OK);
    ASSERT_EQ(setValue(color.get(), blueState), PD_OK);
    EXPECT_EQ(utf8(fieldValue(color.get())), utf8(blueState));
    const std::string out = dir.file("states.pdf");
    ASSERT_EQ(PDDocSave(doc.get(), out.c_str()), PD_OK);

    Listing pypdf = readWithPypdf(out);
    ASSERT_EQ(pypdf.error, "");
    ASSERT_TRUE(pypdf.fields.count(u"farbe"));
    EXPECT_EQ(valueText(pypdf.fields[u"farbe"].value), valueText(blueState)) << "pypdf";

    auto reopened = openDoc(out);
    auto again = findField(reopened.get(), "farbe");
    ASSERT_TRUE(again);
    EXPECT_EQ(utf8(fieldValue(again.get())), utf8(blueState)) << "pdfcore reopening";
    std::vector<std::string> choices;
    for (const auto& w : widgetsOf(again.get()))
        choices.push_back(utf8(text([&](char16_t* b, uint32_t n, uint32_t* l) {
            return PDButtonWidgetAnnotGetChoice(w.get(), b, n, l);
        })));
    EXPECT_EQ(choices, (std::vector<std::string>{utf8(greenState), utf8(blueState)}));
}

// ---- saving over the source ----------------------------------------------------------------

TEST_F(RoundTrip, SavingOverTheOpenedFile) {
    const std::string path = dir.file("form.pdf");
    fs::copy_file(corpus("qpdf-field-types.pdf"), path);
    fs::permissions(path, fs::perms::owner_write, fs::perm_options::add); // the corpus is read-only
    Listing original = readWithPypdf(path);
    ASSERT_EQ(original.error, "");
    auto doc = openDoc(path);
    ASSERT_TRUE(doc);
    auto textField = findField(doc.get(), "text");
    ASSERT_TRUE(textField);

    EXPECT_EQ(setValue(textField.get(), u"first"), PD_OK);
    ASSERT_EQ(PDDocSave(doc.get(), path.c_str()), PD_OK);
    // The source is gone now, twice over: replaced by the save, then by junk. The document
    // was read whole at open, so it still saves completely (content streams included).
    std::ofstream(path, std::ios::trunc) << "junk";
    EXPECT_EQ(setValue(textField.get(), u"second"), PD_OK);
    ASSERT_EQ(PDDocSave(doc.get(), path.c_str()), PD_OK);
    EXPECT_EQ(qpdfCheck(path), 0) << run("qpdf --check '" + path + "' 2>&1");

    Form expected = original.fields;
    expected[u"text"].value = u"second";
    Listing pypdf = readWithPypdf(path);
    ASSERT_EQ(pypdf.error, "");
    expectSameFields(expected, pypdf.fields, "pypdf after saving over the source");
    auto reopened = openDoc(path);
    ASSERT_TRUE(reopened);
    expectSameFields(expected, readWithPdfcore(reopened.get()).fields, "pdfcore reopening");
    // The page still draws what it drew (its content stream came through).
    Raster img = render(path, dir.file("page"));
    EXPECT_GT(darkPixels(img, {0, 0, double(img.width), double(img.height)}, 128), 1000);
}

} // namespace
