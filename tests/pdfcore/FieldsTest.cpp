// The field tree: names, renames, widget membership and splitting of merged fields,
// handle identity, values and options.
#include "TestSupport.h"

#include <algorithm>
#include <random>

using namespace pdtest;

namespace {

PDResult createRaw(PDDoc doc, const std::string& name, PDAtom type) {
    PDField f = nullptr;
    auto n = u16(name);
    PDResult r = PDDocCreateField(doc, n.data(), static_cast<uint32_t>(n.size()), type, 0, &f);
    PDHandleRelease(f);
    return r;
}

size_t fieldCount(PDDoc doc) {
    return fieldsOf(doc).size();
}

// The field "text" of a corpus file that stores it and its one widget in one dictionary, as
// most real files store a single-widget field, and the widget's handle.
struct Merged {
    Owned doc, field, widget;
};
Merged openMerged() {
    Merged m;
    m.doc = openDoc(corpus("qpdf-field-types.pdf"));
    m.field = findField(m.doc.get(), "text");
    if (!m.field) return m;
    auto widgets = widgetsOf(m.field.get());
    EXPECT_EQ(widgets.size(), 1u);
    if (!widgets.empty()) m.widget = std::move(widgets[0]);
    return m;
}

} // namespace

TEST(Fields, DottedNamesBuildTheHierarchy) {
    auto doc = createDoc();
    auto city = createField(doc.get(), "person.address.city", PD_ATOM_Tx);
    EXPECT_EQ(fieldName(city.get()), u"person.address.city");
    EXPECT_EQ(text([&](char16_t* b, uint32_t n, uint32_t* l) {
                  return PDFieldGetName(city.get(), b, n, l);
              }),
              u"city");
    auto address = findField(doc.get(), "person.address");
    ASSERT_TRUE(address);
    PDAtom type = 0;
    EXPECT_EQ(PDFieldGetType(address.get(), &type), PD_ERR_NO_VALUE); // non-terminal
    // A sibling reuses the parents that exist.
    auto zip = createField(doc.get(), "person.address.zip", PD_ATOM_Tx);
    EXPECT_EQ(findField(doc.get(), "person.address").get(), address.get());
    EXPECT_EQ(fieldCount(doc.get()), 2u); // only terminal fields are listed
}

TEST(Fields, CreateRefusesTakenAndMalformedNames) {
    auto doc = createDoc();
    auto f = createField(doc.get(), "a.b", PD_ATOM_Btn);
    struct Case {
        const char* name;
        PDAtom type;
        PDResult result;
    };
    for (const Case& c :
         {Case{"a.b", PD_ATOM_Btn, PD_ERR_NAME_IN_USE}, Case{"a.b", PD_ATOM_Tx, PD_ERR_NAME_IN_USE},
          Case{"a.b.c", PD_ATOM_Tx, PD_ERR_NAME_IN_USE}, // through a terminal
          Case{"a..c", PD_ATOM_Tx, PD_ERR_BAD_NAME}, Case{".c", PD_ATOM_Tx, PD_ERR_BAD_NAME},
          Case{"c.", PD_ATOM_Tx, PD_ERR_BAD_NAME}, Case{"c", PD_ATOM_Widget, PD_ERR_BAD_ARGUMENT},
          Case{"", PD_ATOM_Tx, PD_ERR_BAD_ARGUMENT}})
        EXPECT_EQ(createRaw(doc.get(), c.name, c.type), c.result) << c.name;
    EXPECT_EQ(fieldCount(doc.get()), 1u) << "a failed create leaves nothing behind";
}

TEST(Fields, UnnamedFieldsGetFreshNames) {
    auto doc = createDoc();
    auto taken = createField(doc.get(), "Button1", PD_ATOM_Btn);
    PDField a = nullptr, b = nullptr, s = nullptr;
    ASSERT_EQ(PDCreateButtonField(doc.get(), nullptr, 0, PD_FIELD_RADIO, &a), PD_OK);
    ASSERT_EQ(PDCreateButtonField(doc.get(), nullptr, 0, PD_FIELD_RADIO, &b), PD_OK);
    ASSERT_EQ(PDCreateSignField(doc.get(), 0, &s), PD_OK);
    Owned oa(a), ob(b), os(s);
    auto na = fieldName(a), nb = fieldName(b);
    EXPECT_FALSE(na.empty());
    EXPECT_NE(na, nb);
    EXPECT_NE(na, u"Button1");
    uint32_t flags = 0;
    EXPECT_EQ(PDFieldGetFlags(a, &flags), PD_OK);
    EXPECT_EQ(flags, static_cast<uint32_t>(PD_FIELD_RADIO));
    PDAtom type = 0;
    EXPECT_EQ(PDFieldGetType(s, &type), PD_OK);
    EXPECT_EQ(type, static_cast<PDAtom>(PD_ATOM_Sig));
    EXPECT_EQ(findField(doc.get(), nb).get(), b);
}

TEST(Fields, RenamesKeepHandleValueAndWidgetsAndMoveSubtrees) {
    auto doc = createDoc();
    auto pg = page(doc.get(), 0);
    auto [f, w] = addField(doc.get(), pg.get(), "old", PD_ATOM_Tx, rect(10, 10, 110, 30));
    ASSERT_EQ(setValue(f.get(), u"kept"), PD_OK);

    ASSERT_EQ(rename(doc.get(), f.get(), "group.new"), PD_OK);
    EXPECT_EQ(fieldName(f.get()), u"group.new");
    EXPECT_EQ(fieldValue(f.get()), u"kept");
    EXPECT_EQ(parentOf(w.get()).get(), f.get());
    EXPECT_FALSE(findField(doc.get(), "old"));
    EXPECT_EQ(findField(doc.get(), "group.new").get(), f.get());

    // Back to the root, and renaming to its own name is a no-op.
    ASSERT_EQ(rename(doc.get(), f.get(), "top"), PD_OK);
    EXPECT_EQ(findField(doc.get(), "top").get(), f.get());
    EXPECT_FALSE(findField(doc.get(), "group.new"));
    EXPECT_EQ(rename(doc.get(), f.get(), "top"), PD_OK);

    auto other = createField(doc.get(), "other", PD_ATOM_Tx);
    EXPECT_EQ(rename(doc.get(), f.get(), "other"), PD_ERR_NAME_IN_USE);
    EXPECT_EQ(rename(doc.get(), f.get(), "other.x"), PD_ERR_NAME_IN_USE);
    EXPECT_EQ(rename(doc.get(), f.get(), "top.x"), PD_ERR_BAD_NAME); // under itself
    EXPECT_EQ(fieldName(f.get()), u"top");

    // Renaming a parent renames its subtree.
    auto city = createField(doc.get(), "p.addr.city", PD_ATOM_Tx);
    ASSERT_EQ(rename(doc.get(), findField(doc.get(), "p.addr").get(), "q.home"), PD_OK);
    EXPECT_EQ(fieldName(city.get()), u"q.home.city");
    EXPECT_EQ(findField(doc.get(), "q.home.city").get(), city.get());
    EXPECT_FALSE(findField(doc.get(), "p.addr.city"));
    EXPECT_FALSE(findField(doc.get(), "p.addr"));
}

TEST(Fields, WidgetsMoveBetweenFieldsAndFieldsOutliveThem) {
    auto doc = createDoc(2);
    auto p0 = page(doc.get(), 0);
    auto p1 = page(doc.get(), 1);
    auto a = createField(doc.get(), "a", PD_ATOM_Tx);
    auto b = createField(doc.get(), "b", PD_ATOM_Tx);
    auto w1 = addWidget(doc.get(), a.get(), p0.get(), rect(10, 10, 100, 30));
    auto w2 = addWidget(doc.get(), a.get(), p1.get(), rect(10, 50, 100, 70));
    EXPECT_EQ(widgetsOf(a.get()).size(), 2u);

    EXPECT_EQ(PDFieldRemoveWidget(b.get(), w1.get()), PD_ERR_NOT_KID);
    EXPECT_EQ(PDFieldAppendWidget(b.get(), w1.get()), PD_ERR_ALREADY);
    ASSERT_EQ(PDFieldRemoveWidget(a.get(), w1.get()), PD_OK);
    EXPECT_FALSE(parentOf(w1.get()));
    ASSERT_EQ(PDFieldAppendWidget(b.get(), w1.get()), PD_OK);
    EXPECT_EQ(parentOf(w1.get()).get(), b.get());

    ASSERT_EQ(PDFieldRemoveWidget(a.get(), w2.get()), PD_OK);
    EXPECT_TRUE(widgetsOf(a.get()).empty());
    EXPECT_EQ(findField(doc.get(), "a").get(), a.get()); // still in the form
    EXPECT_EQ(annotsOf(p1.get()).size(), 1u);            // and the widget is still on its page

    // A widget of a field of another type cannot be created.
    auto check = createField(doc.get(), "c", PD_ATOM_Btn);
    PDRect r = rect(0, 0, 10, 10);
    PDAnnot bad = nullptr;
    EXPECT_EQ(PDCreateTextWidgetAnnot(doc.get(), check.get(), p0.get(), &r, &bad),
              PD_ERR_FIELD_KIND);
    EXPECT_EQ(bad, nullptr);
}

TEST(Fields, MergedFieldsSplitWithoutChangingHandles) {
    auto [doc, text, widget] = openMerged();
    ASSERT_TRUE(widget);
    EXPECT_NE(static_cast<void*>(widget.get()), static_cast<void*>(text.get()));
    EXPECT_EQ(parentOf(widget.get()).get(), text.get());
    auto before = fieldValue(text.get());

    auto pg = page(doc.get(), 0);
    auto second = addWidget(doc.get(), text.get(), pg.get(), rect(300, 300, 400, 320));
    EXPECT_EQ(widgetsOf(text.get()).size(), 2u);
    EXPECT_EQ(parentOf(widget.get()).get(), text.get());
    EXPECT_EQ(parentOf(second.get()).get(), text.get());
    EXPECT_EQ(findField(doc.get(), "text").get(), text.get());
    EXPECT_EQ(fieldValue(text.get()), before);

    // Round trip: the split field is one field with two widgets for an independent reader.
    ScratchDir dir;
    ASSERT_EQ(PDDocSave(doc.get(), dir.file("split.pdf").c_str()), PD_OK);
    EXPECT_EQ(qpdfCheck(dir.file("split.pdf")), 0);
    auto re = openDoc(dir.file("split.pdf"));
    auto reText = findField(re.get(), "text");
    ASSERT_TRUE(reText);
    EXPECT_EQ(widgetsOf(reText.get()).size(), 2u);
}

TEST(Fields, RemovingTheWidgetOfAMergedFieldKeepsBoth) {
    auto [doc, text, widget] = openMerged();
    ASSERT_TRUE(widget);
    ASSERT_EQ(PDFieldRemoveWidget(text.get(), widget.get()), PD_OK);
    EXPECT_TRUE(widgetsOf(text.get()).empty());
    EXPECT_FALSE(parentOf(widget.get()));
    EXPECT_EQ(findField(doc.get(), "text").get(), text.get());
    auto other = createField(doc.get(), "moved", PD_ATOM_Tx);
    ASSERT_EQ(PDFieldAppendWidget(other.get(), widget.get()), PD_OK);
    EXPECT_EQ(parentOf(widget.get()).get(), other.get());
}

// Undoing a removal: a widget goes back to its old place among the field's widgets, also
// for a merged field, whose field moved to a new object when the widget went.
TEST(Fields, WidgetsGoBackWhereTheyWere) {
    auto doc = openDoc(corpus("qpdf-field-types.pdf"));
    auto radio = findField(doc.get(), "r1");
    auto widgets = widgetsOf(radio.get());
    ASSERT_EQ(widgets.size(), 3u);
    uint32_t index = 99;
    ASSERT_EQ(PDFieldGetWidgetIndex(radio.get(), widgets[1].get(), &index), PD_OK);
    EXPECT_EQ(index, 1u);
    ASSERT_EQ(PDFieldRemoveWidget(radio.get(), widgets[1].get()), PD_OK);
    EXPECT_EQ(PDFieldGetWidgetIndex(radio.get(), widgets[1].get(), &index), PD_ERR_NOT_KID);
    EXPECT_EQ(PDFieldInsertWidget(radio.get(), 3, widgets[1].get()), PD_ERR_RANGE);
    EXPECT_EQ(PDFieldInsertWidget(radio.get(), 0, widgets[0].get()), PD_ERR_ALREADY);
    ASSERT_EQ(PDFieldInsertWidget(radio.get(), 1, widgets[1].get()), PD_OK);
    ASSERT_EQ(PDFieldRemoveWidget(radio.get(), widgets[2].get()), PD_OK);
    ASSERT_EQ(PDFieldInsertWidget(radio.get(), 2, widgets[2].get()), PD_OK); // count: appends
    auto back = widgetsOf(radio.get());
    ASSERT_EQ(back.size(), 3u);
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(back[i].get(), widgets[i].get()) << i;

    // Also into a field of a damaged tree that holds widgets beside a field kid (grouping
    // such a widget as a radio button and undoing it failed); a field of fields alone
    // takes none.
    auto broken = openDoc(corpus("qpdf-broken-button-set.pdf"));
    auto mixed = findField(broken.get(), "r1");
    auto own = widgetsOf(mixed.get());
    ASSERT_EQ(own.size(), 2u);
    ASSERT_EQ(PDFieldRemoveWidget(mixed.get(), own[0].get()), PD_OK);
    ASSERT_EQ(PDFieldInsertWidget(mixed.get(), 0, own[0].get()), PD_OK);
    EXPECT_EQ(widgetsOf(mixed.get()).at(0).get(), own[0].get());
    createField(doc.get(), "outer.inner", PD_ATOM_Tx);
    EXPECT_EQ(PDFieldAppendWidget(findField(doc.get(), "outer").get(), widgets[0].get()),
              PD_ERR_FIELD_KIND);

    auto text = findField(doc.get(), "text");
    auto widget = std::move(widgetsOf(text.get()).at(0));
    ASSERT_EQ(PDFieldRemoveWidget(text.get(), widget.get()), PD_OK);
    ScratchDir dir;
    ASSERT_EQ(PDDocSave(doc.get(), dir.file("emptied.pdf").c_str()), PD_OK);
    EXPECT_FALSE(findField(openDoc(dir.file("emptied.pdf")).get(), "text"));
    ASSERT_EQ(PDFieldInsertWidget(text.get(), 0, widget.get()), PD_OK);
    ASSERT_EQ(PDDocSave(doc.get(), dir.file("back.pdf").c_str()), PD_OK);
    auto saved = openDoc(dir.file("back.pdf"));
    auto savedText = findField(saved.get(), "text");
    ASSERT_TRUE(savedText);
    EXPECT_EQ(widgetsOf(savedText.get()).size(), 1u);
}

TEST(Fields, HandlesAreStableAndKeepTheDocumentAlive) {
    PDDoc doc = nullptr;
    ASSERT_EQ(PDDocCreate(1, 200, 200, &doc), PD_OK);
    auto f = createField(doc, "f", PD_ATOM_Tx);
    EXPECT_EQ(findField(doc, "f").get(), f.get());
    ASSERT_EQ(PDHandleAcquire(f.get()), PD_OK);
    ASSERT_EQ(PDHandleRelease(f.get()), PD_OK);
    ASSERT_EQ(PDDocClose(doc), PD_OK);
    // The field still works: its handle holds the document.
    EXPECT_EQ(fieldName(f.get()), u"f");
    PDDoc back = nullptr;
    ASSERT_EQ(PDHandleGetDoc(f.get(), &back), PD_OK);
    Owned owned(back);
    EXPECT_EQ(back, doc);

    EXPECT_EQ(PDHandleAcquire(nullptr), PD_ERR_MISSING_OBJECT);
    EXPECT_EQ(PDHandleRelease(nullptr), PD_OK);
    uint32_t flags = 0;
    EXPECT_EQ(PDFieldGetFlags(nullptr, &flags), PD_ERR_MISSING_OBJECT);
    EXPECT_EQ(PDFieldGetFlags(back, &flags), PD_ERR_WRONG_HANDLE);
    EXPECT_EQ(PDFieldGetFlags(f.get(), nullptr), PD_ERR_BAD_ARGUMENT);
}

// Handles grow in the order objects are first reached, whatever became of the memory of
// handles released before: the order some commands follow does not depend on the allocator.
TEST(Fields, HandlesGrowInTheOrderObjectsAreReached) {
    PDDoc doc = nullptr;
    ASSERT_EQ(PDDocCreate(1, 200, 200, &doc), PD_OK);
    Owned owned(doc);
    std::vector<Owned> kept;
    uintptr_t last = 0;
    for (int i = 0; i < 2000; ++i) {
        const std::string name = "f" + std::to_string(i);
        auto f = createField(doc, name, PD_ATOM_Tx);
        const auto value = reinterpret_cast<uintptr_t>(f.get());
        EXPECT_GT(value, last) << i;
        last = value;
        // Every other handle is released at once, its memory free for the next.
        if (i % 2 == 0) kept.push_back(std::move(f));
    }
    // A released handle's object reached again gets a new, larger handle.
    auto again = findField(doc, "f1");
    EXPECT_GT(reinterpret_cast<uintptr_t>(again.get()), last);
}

TEST(Fields, TextsRoundTripThroughSaveIncludingNonLatin) {
    const std::u16string name = u"\u540d\u524d";              // CJK
    const std::u16string value = u"\u00e9t\u00e9 \U0001F600"; // Latin-1 and a surrogate pair
    ScratchDir dir;
    {
        auto doc = createDoc();
        PDField f = nullptr;
        ASSERT_EQ(PDDocCreateField(doc.get(), name.data(), 2, PD_ATOM_Tx, 0, &f), PD_OK);
        Owned field(f);
        ASSERT_EQ(setValue(f, value), PD_OK);
        ASSERT_EQ(PDFieldSetUIName(f, value.data(), static_cast<uint32_t>(value.size())), PD_OK);
        ASSERT_EQ(PDDocSave(doc.get(), dir.file("t.pdf").c_str()), PD_OK);
    }
    auto doc = openDoc(dir.file("t.pdf"));
    auto field = findField(doc.get(), name);
    ASSERT_TRUE(field);
    PDField f = field.get();
    EXPECT_EQ(fieldValue(f), value);
    EXPECT_EQ(
        text([&](char16_t* b, uint32_t n, uint32_t* l) { return PDFieldGetUIName(f, b, n, l); }),
        value);

    // The two-call pattern: too small a buffer says how much is needed.
    char16_t small[2];
    uint32_t len = 0;
    EXPECT_EQ(PDFieldGetValue(f, small, 2, &len), PD_ERR_BUFFER_SMALL);
    EXPECT_EQ(len, value.size());
    EXPECT_EQ(PDFieldGetDefaultValue(f, nullptr, 0, &len), PD_ERR_NO_VALUE);
}

TEST(Fields, ChoiceOptionsKeepOrderAndExportValues) {
    auto doc = createDoc();
    auto combo = createField(doc.get(), "combo", PD_ATOM_Ch, PD_FIELD_COMBO);
    ASSERT_EQ(insertOption(combo.get(), 0, u"Two", u"2"), PD_OK);
    ASSERT_EQ(insertOption(combo.get(), 0, u"One", u"1"), PD_OK);
    ASSERT_EQ(insertOption(combo.get(), 2, u"Three", u""), PD_OK);
    EXPECT_EQ(insertOption(combo.get(), 4, u"Five", u"5"), PD_ERR_RANGE);
    uint32_t n = 0;
    ASSERT_EQ(PDChoiceFieldGetNumOptions(combo.get(), &n), PD_OK);
    std::vector<std::u16string> got;
    for (uint32_t i = 0; i < n; ++i) {
        got.push_back(text([&](char16_t* b, uint32_t c, uint32_t* l) {
            return PDChoiceFieldGetOptionValue(combo.get(), i, b, c, l);
        }));
        got.push_back(text([&](char16_t* b, uint32_t c, uint32_t* l) {
            return PDChoiceFieldGetOptionExportValue(combo.get(), i, b, c, l);
        }));
    }
    EXPECT_EQ(got, (std::vector<std::u16string>{u"One", u"1", u"Two", u"2", u"Three", u"Three"}));

    ASSERT_EQ(PDChoiceFieldRemoveAllOptions(combo.get()), PD_OK);
    ASSERT_EQ(PDChoiceFieldGetNumOptions(combo.get(), &n), PD_OK);
    EXPECT_EQ(n, 0u);
    auto textField = createField(doc.get(), "t", PD_ATOM_Tx);
    EXPECT_EQ(PDChoiceFieldGetNumOptions(textField.get(), &n), PD_ERR_FIELD_KIND);
}

TEST(Fields, CheckBoxValueDrivesTheAppearanceState) {
    auto doc = createDoc();
    auto [box, w] =
        addField(doc.get(), page(doc.get(), 0).get(), "box", PD_ATOM_Btn, rect(10, 10, 30, 30));
    EXPECT_EQ(text([&](char16_t* b, uint32_t n, uint32_t* l) {
                  return PDButtonWidgetAnnotGetChoice(w.get(), b, n, l);
              }),
              u"Yes");
    for (const char* value : {"", "Yes", "Off"}) { // "": before any value is set
        if (*value) {
            ASSERT_EQ(setValue(box.get(), u16(value)), PD_OK);
        }
        PDAtom as = 0;
        ASSERT_EQ(PDAnnotGetAppearanceState(w.get(), &as), PD_OK);
        EXPECT_EQ(atomText(as), *value ? value : "Off");
    }
}

// The list of terminal fields is kept up to date when a root field is made, not walked
// again: it must come out as a fresh walk of the form would give it, also in files whose
// widgets lead to fields that /AcroForm /Fields does not list (or no /AcroForm at all).
// ... and fields renamed under the same parent keep theirs.
TEST(Fields, NewRootFieldsTakeTheirPlaceInTheFieldList) {
    for (const char* file : {"qpdf-field-types.pdf", "qpdf-broken-button-set.pdf",
                             "pdfium-tab-order-annotiter.pdf",
                             "pypdf-widgets-without-acroform-launch-named-reset.pdf"}) {
        SCOPED_TRACE(file);
        auto names = [](PDDoc doc) {
            std::vector<std::u16string> out;
            for (auto& f : fieldsOf(doc)) out.push_back(fieldName(f.get()));
            return out;
        };
        auto listedFirst = openDoc(corpus(file));
        auto walkedAfter = openDoc(corpus(file));
        const size_t before = names(listedFirst.get()).size();
        const std::u16string first = names(listedFirst.get()).front();
        for (auto* doc : {listedFirst.get(), walkedAfter.get()}) {
            auto added = createField(doc, "added1", PD_ATOM_Tx);
            createField(doc, "added2", PD_ATOM_Ch);
            ASSERT_EQ(rename(doc, added.get(), "renamed1"), PD_OK);
            const std::u16string moved = first + u"_2";
            ASSERT_EQ(PDDocRenameField(doc, findField(doc, first).get(), moved.data(),
                                       uint32_t(moved.size())),
                      PD_OK);
        }
        const auto kept = names(listedFirst.get());
        EXPECT_EQ(kept, names(walkedAfter.get()));
        EXPECT_EQ(kept.size(), before + 2);
        EXPECT_EQ(std::count(kept.begin(), kept.end(), u"renamed1"), 1);
        EXPECT_EQ(std::count(kept.begin(), kept.end(), first + u"_2"), 1);
    }
}

// The page of an annotation: from its /P when that page lists it, else by a search.
TEST(Pages, PageOfAnAnnotation) {
    auto doc = createDoc(3);
    auto p1 = page(doc.get(), 1), p2 = page(doc.get(), 2);
    auto [f, w] = addField(doc.get(), p2.get(), "f", PD_ATOM_Tx, rect(0, 0, 10, 10));
    auto pageIndexOf = [](PDAnnot a) {
        PDPage raw = nullptr;
        const PDResult r = PDAnnotGetPage(a, &raw);
        Owned pg(raw);
        uint32_t index = UINT32_MAX;
        if (r == PD_OK) {
            EXPECT_EQ(PDPageGetIndex(pg.get(), &index), PD_OK);
        }
        return r == PD_OK ? int64_t(index) : -int64_t(r);
    };
    EXPECT_EQ(pageIndexOf(w.get()), 2);
    // Listed on page 1 as well, /P now names page 1: the hint is right.
    ASSERT_EQ(PDPageAddAnnot(p1.get(), 0, w.get()), PD_OK);
    EXPECT_EQ(pageIndexOf(w.get()), 1);
    // Off page 1 again while /P still names it: found on page 2 by the search.
    ASSERT_EQ(PDPageRemoveAnnot(p1.get(), w.get()), PD_OK);
    EXPECT_EQ(pageIndexOf(w.get()), 2);
    ASSERT_EQ(PDPageRemoveAnnot(p2.get(), w.get()), PD_OK);
    EXPECT_EQ(pageIndexOf(w.get()), -int64_t(PD_ERR_NOT_ON_PAGE));
    PDPage out = reinterpret_cast<PDPage>(1);
    EXPECT_EQ(PDAnnotGetPage(nullptr, &out), PD_ERR_MISSING_OBJECT);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(PDAnnotGetPage(w.get(), nullptr), PD_ERR_BAD_ARGUMENT);
}

TEST(Pages, AnnotationListEditing) {
    auto doc = createDoc();
    auto pg = page(doc.get(), 0);
    auto [f, first] = addField(doc.get(), pg.get(), "f", PD_ATOM_Tx, rect(0, 0, 10, 10));
    PDRect r = rect(20, 20, 30, 30);
    PDAnnot w = nullptr;
    ASSERT_EQ(PDCreateTextWidgetAnnot(doc.get(), f.get(), pg.get(), &r, &w), PD_OK);
    Owned second(w);
    uint32_t index = 0;
    EXPECT_EQ(PDPageGetAnnotIndex(pg.get(), w, &index), PD_ERR_NOT_FOUND);
    EXPECT_EQ(PDPageRemoveAnnot(pg.get(), w), PD_ERR_NOT_ON_PAGE);
    EXPECT_EQ(PDPageAddAnnot(pg.get(), 2, w), PD_ERR_RANGE);
    ASSERT_EQ(PDPageAddAnnot(pg.get(), 0, w), PD_OK);
    EXPECT_EQ(PDPageAddAnnot(pg.get(), 0, w), PD_ERR_ALREADY);
    ASSERT_EQ(PDPageGetAnnotIndex(pg.get(), first.get(), &index), PD_OK);
    EXPECT_EQ(index, 1u);
    EXPECT_EQ(annotsOf(pg.get())[0].get(), w);
    ASSERT_EQ(PDPageRemoveAnnot(pg.get(), w), PD_OK);
    EXPECT_EQ(annotsOf(pg.get()).size(), 1u);
}

// Random insertions and removals on a page, checked after every step against a plain list
// of what the page must hold, then in the written file: positions, lookups and the order
// of /Annots stay right whatever free room the list keeps between its annotations.
TEST(Pages, AnnotationListFollowsEveryInsertAndRemoval) {
    ScratchDir dir;
    auto doc = createDoc(2);
    auto pg = page(doc.get(), 0);
    std::vector<Owned> pool;
    for (int i = 0; i < 60; ++i) {
        PDRect r = rect(float(i), 0, float(i) + 5, 5);
        PDAnnot raw = nullptr;
        PDAtom text = 0;
        ASSERT_EQ(PDAtomPutString("Text", &text), PD_OK);
        ASSERT_EQ(PDDocCreateAnnot(doc.get(), text, &r, &raw), PD_OK);
        pool.emplace_back(raw);
    }
    std::vector<PDAnnot> model;
    std::mt19937 random(7);
    for (int step = 0; step < 3000; ++step) {
        PDAnnot a = pool[random() % pool.size()].get();
        const auto at = std::find(model.begin(), model.end(), a);
        if (at == model.end()) {
            // Mostly rising positions, as a reorder puts annotations back; sometimes anywhere.
            const uint32_t index = random() % 3 ? uint32_t(model.size()) : random() % (model.size() + 1);
            ASSERT_EQ(PDPageAddAnnot(pg.get(), index, a), PD_OK);
            model.insert(model.begin() + index, a);
        } else if (random() % 2) {
            ASSERT_EQ(PDPageRemoveAnnot(pg.get(), a), PD_OK);
            model.erase(at);
        } else {
            EXPECT_EQ(PDPageAddAnnot(pg.get(), 0, a), PD_ERR_ALREADY);
        }
        uint32_t count = 0;
        ASSERT_EQ(PDPageGetNumAnnots(pg.get(), &count), PD_OK);
        ASSERT_EQ(count, model.size()) << "step " << step;
        const uint32_t probe = random() % (count + 1);
        if (probe < count) {
            PDAnnot got = nullptr;
            ASSERT_EQ(PDPageGetAnnot(pg.get(), probe, &got), PD_OK);
            Owned held(got);
            EXPECT_EQ(got, model[probe]) << "step " << step;
            uint32_t index = 0;
            ASSERT_EQ(PDPageGetAnnotIndex(pg.get(), model[probe], &index), PD_OK);
            EXPECT_EQ(index, probe);
        } else {
            PDAnnot got = nullptr;
            EXPECT_EQ(PDPageGetAnnot(pg.get(), probe, &got), PD_ERR_RANGE);
        }
    }
    std::vector<PDRect> expected;
    for (PDAnnot a : model) {
        PDRect r{};
        ASSERT_EQ(PDAnnotGetRect(a, &r), PD_OK);
        expected.push_back(r);
    }
    ASSERT_EQ(PDDocSave(doc.get(), dir.file("order.pdf").c_str()), PD_OK);
    auto reopened = openDoc(dir.file("order.pdf"));
    auto saved = annotsOf(page(reopened.get(), 0).get());
    ASSERT_EQ(saved.size(), expected.size());
    for (size_t i = 0; i < saved.size(); ++i) {
        PDRect r{};
        ASSERT_EQ(PDAnnotGetRect(saved[i].get(), &r), PD_OK);
        EXPECT_EQ(r.left, expected[i].left) << i;
    }
}

// Notes made here are on no page until added; replies may not loop. (The host's tests read
// notes and replies back from saved files.)
TEST(Pages, NotesAndReplies) {
    auto doc = createDoc();
    auto pg = page(doc.get(), 0);
    PDAtom text = 0, square = 0;
    ASSERT_EQ(PDAtomPutString("Text", &text), PD_OK);
    ASSERT_EQ(PDAtomPutString("Square", &square), PD_OK);
    const PDRect r = rect(300, 700, 280, 720); // left and right swapped: normalised
    PDAnnot raw = reinterpret_cast<PDAnnot>(1);
    EXPECT_EQ(PDDocCreateAnnot(doc.get(), square, &r, &raw), PD_ERR_UNSUPPORTED);
    EXPECT_EQ(raw, nullptr);
    EXPECT_EQ(PDDocCreateAnnot(doc.get(), text, nullptr, &raw), PD_ERR_BAD_ARGUMENT);
    ASSERT_EQ(PDDocCreateAnnot(doc.get(), text, &r, &raw), PD_OK);
    Owned note(raw);
    ASSERT_EQ(PDDocCreateAnnot(doc.get(), text, &r, &raw), PD_OK);
    Owned reply(raw);
    uint32_t index = 0;
    EXPECT_EQ(PDPageGetAnnotIndex(pg.get(), note.get(), &index), PD_ERR_NOT_FOUND);
    PDRect got{};
    ASSERT_EQ(PDAnnotGetRect(note.get(), &got), PD_OK);
    EXPECT_EQ(got.left, 280);

    ASSERT_EQ(PDMarkupAnnotSetInReplyTo(reply.get(), note.get()), PD_OK);
    EXPECT_EQ(PDMarkupAnnotSetInReplyTo(note.get(), reply.get()), PD_ERR_CYCLE);
    EXPECT_EQ(PDMarkupAnnotSetInReplyTo(note.get(), note.get()), PD_ERR_CYCLE);
    auto [field, widget] = addField(doc.get(), pg.get(), "f", PD_ATOM_Tx, rect(0, 0, 10, 10));
    EXPECT_EQ(PDMarkupAnnotSetInReplyTo(widget.get(), note.get()), PD_ERR_BAD_ARGUMENT);
    ASSERT_EQ(PDMarkupAnnotSetInReplyTo(reply.get(), nullptr), PD_OK); // NULL: no reply
    PDAnnot parent = reinterpret_cast<PDAnnot>(1);
    ASSERT_EQ(PDMarkupAnnotGetInReplyTo(reply.get(), &parent), PD_OK);
    EXPECT_EQ(parent, nullptr);
}

TEST(Documents, ListenersHearNotificationsInOrder) {
    auto doc = createDoc();
    using Heard = std::vector<std::pair<int, int32_t>>;
    Heard heard;
    auto proc = [](void* data, PDDoc, int32_t kind, uint32_t, PDAnnot) {
        static_cast<Heard*>(data)->push_back({0, kind});
    };
    auto proc2 = [](void* data, PDDoc, int32_t kind, uint32_t, PDAnnot) {
        static_cast<Heard*>(data)->push_back({1, kind});
    };
    uint32_t c1 = 0, c2 = 0;
    ASSERT_EQ(PDDocAddAnnotChangedListener(doc.get(), proc, &heard, &c1), PD_OK);
    ASSERT_EQ(PDDocAddAnnotChangedListener(doc.get(), proc2, &heard, &c2), PD_OK);
    ASSERT_EQ(PDDocNotifyAnnotChanged(doc.get(), 3, 0, nullptr), PD_OK);
    ASSERT_EQ(PDDocRemoveAnnotChangedListener(doc.get(), c1), PD_OK);
    EXPECT_EQ(PDDocRemoveAnnotChangedListener(doc.get(), c1), PD_ERR_NOT_FOUND);
    ASSERT_EQ(PDDocNotifyAnnotChanged(doc.get(), 0, 0, nullptr), PD_OK);
    EXPECT_EQ(heard, (Heard{{0, 3}, {1, 3}, {1, 0}}));
}

// A file whose widgets sit on the page without any /AcroForm: the first field created
// makes the form, and the fields already there must stay part of it.
TEST(Fields, AFormMadeLaterKeepsTheFieldsAlreadyOnThePages) {
    ScratchDir dir;
    auto doc = openDoc(corpus("pypdf-widgets-without-acroform-launch-named-reset.pdf"));
    const size_t before = fieldsOf(doc.get()).size();
    ASSERT_GT(before, 0u);
    auto added = createField(doc.get(), "added", PD_ATOM_Tx);
    ASSERT_EQ(PDDocSave(doc.get(), dir.file("form.pdf").c_str()), PD_OK);
    auto reopened = openDoc(dir.file("form.pdf"));
    EXPECT_EQ(fieldsOf(reopened.get()).size(), before + 1);
    // Another reader sees them through /AcroForm /Fields alone.
    int status = -1;
    auto count = run(std::string(QF_PYTHON) +
                         " -c \"import sys; from pypdf import PdfReader; "
                         "print(len(PdfReader(sys.argv[1]).trailer['/Root']['/AcroForm']['/Fields']))\" '" +
                         dir.file("form.pdf") + "'",
                     &status);
    ASSERT_EQ(status, 0);
    EXPECT_GT(std::stoul(count), 1u);
}

// A field whose last widget was removed in the session and that holds none when saving is
// left out of the file, whether made here or read from the file, and so is every parent
// emptied by that; fields that never lost a widget here are written. The open document
// keeps all of them, and a field that gets a widget back is written again.
TEST(Fields, FieldsEmptiedHereAreNotWritten) {
    ScratchDir dir;
    const std::string source = dir.file("source.pdf");
    {
        auto doc = createDoc(1);
        auto pg = page(doc.get(), 0);
        addField(doc.get(), pg.get(), "kept", PD_ATOM_Tx, rect(60, 700, 200, 720));
        addField(doc.get(), pg.get(), "group.a", PD_ATOM_Tx, rect(60, 650, 200, 670));
        addField(doc.get(), pg.get(), "group.b", PD_ATOM_Tx, rect(60, 600, 200, 620));
        createField(doc.get(), "bare", PD_ATOM_Tx);
        ASSERT_EQ(PDDocSave(doc.get(), source.c_str()), PD_OK);
    }
    auto doc = openDoc(source);
    auto pg = page(doc.get(), 0);
    auto a = findField(doc.get(), "group.a");
    auto aWidget = std::move(widgetsOf(a.get()).at(0));
    ASSERT_EQ(PDFieldRemoveWidget(a.get(), aWidget.get()), PD_OK);
    auto undone = addField(doc.get(), pg.get(), "made.undone", PD_ATOM_Btn, rect(60, 500, 78, 518));
    ASSERT_EQ(PDFieldRemoveWidget(undone.field.get(), undone.widget.get()), PD_OK);
    auto fresh = createField(doc.get(), "fresh", PD_ATOM_Tx);

    auto names = [](PDDoc d) {
        std::vector<std::string> out;
        for (const auto& f : fieldsOf(d)) out.push_back(utf8(fieldName(f.get())));
        return out;
    };
    auto written = [&](const std::string& file) {
        EXPECT_EQ(PDDocSave(doc.get(), dir.file(file).c_str()), PD_OK);
        EXPECT_EQ(qpdfCheck(dir.file(file)), 0);
        return openDoc(dir.file(file));
    };
    const auto inMemory = names(doc.get());
    {
        auto saved = written("out.pdf");
        EXPECT_EQ(names(doc.get()), inMemory);
        for (const char* name : {"kept", "bare", "fresh", "group", "group.b"})
            EXPECT_TRUE(findField(saved.get(), name)) << name;
        for (const char* name : {"group.a", "made.undone", "made"})
            EXPECT_FALSE(findField(saved.get(), name)) << name;
        // The widgets stay on the page, without a field.
        EXPECT_EQ(annotsOf(page(saved.get(), 0).get()).size(), 4u);
    }

    // The last kid of a parent from the file goes: the parent goes too.
    auto b = findField(doc.get(), "group.b");
    ASSERT_EQ(PDFieldRemoveWidget(b.get(), widgetsOf(b.get()).at(0).get()), PD_OK);
    {
        auto saved = written("empty-group.pdf");
        EXPECT_FALSE(findField(saved.get(), "group"));
        EXPECT_TRUE(findField(saved.get(), "kept"));
    }

    // A widget back: its field and the parent are written again.
    ASSERT_EQ(PDFieldInsertWidget(a.get(), 0, aWidget.get()), PD_OK);
    {
        auto saved = written("again.pdf");
        EXPECT_TRUE(findField(saved.get(), "group.a"));
        EXPECT_FALSE(findField(saved.get(), "group.b"));
    }
    EXPECT_EQ(names(doc.get()), inMemory);
}

// An emptied field leaves the calculation order of the file too, and comes back into it.
TEST(Fields, EmptiedFieldsLeaveTheCalculationOrder) {
    ScratchDir dir;
    auto doc = createDoc(1);
    auto pg = page(doc.get(), 0);
    auto total = addField(doc.get(), pg.get(), "total", PD_ATOM_Tx, rect(60, 700, 200, 720));
    auto sum = addField(doc.get(), pg.get(), "sum", PD_ATOM_Tx, rect(60, 600, 200, 620));
    const std::u16string script = u"event.value = 1;";
    PDActionArg arg{script.data(), static_cast<uint32_t>(script.size()), nullptr, 0, nullptr};
    for (PDField f : {total.field.get(), sum.field.get()}) {
        PDAction action = nullptr;
        ASSERT_EQ(PDActionCreate(doc.get(), PD_ATOM_JavaScript, &arg, &action), PD_OK);
        ASSERT_EQ(PDFieldSetCalculateAction(f, action), PD_OK);
        PDHandleRelease(action);
    }
    ASSERT_EQ(PDFieldRemoveWidget(total.field.get(), total.widget.get()), PD_OK);
    auto order = [&](const std::string& file) {
        EXPECT_EQ(PDDocSave(doc.get(), dir.file(file).c_str()), PD_OK);
        int status = -1;
        auto out = run(std::string(QF_PYTHON) +
                           " -c \"import sys; from pypdf import PdfReader; "
                           "co = PdfReader(sys.argv[1]).trailer['/Root']['/AcroForm']['/CO']; "
                           "print(' '.join(str(f.get_object()['/T']) for f in co))\" '" +
                           dir.file(file) + "'",
                       &status);
        EXPECT_EQ(status, 0);
        return out;
    };
    EXPECT_EQ(order("without.pdf"), "sum\n");
    ASSERT_EQ(PDFieldAppendWidget(total.field.get(), total.widget.get()), PD_OK);
    EXPECT_EQ(order("with.pdf"), "total sum\n");
}
