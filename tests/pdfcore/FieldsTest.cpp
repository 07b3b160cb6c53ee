// The field tree: names, renames, widget membership and splitting of merged fields,
// handle identity, values and options.
#include "TestSupport.h"

#include <vector>

using namespace pdtest;

namespace {

PDResult createRaw(PDDoc doc, const std::string& name, PDAtom type, uint32_t flags = 0) {
    PDField f = nullptr;
    auto n = u16(name);
    PDResult r = PDDocCreateField(doc, n.data(), static_cast<uint32_t>(n.size()), type, flags, &f);
    PDHandleRelease(f);
    return r;
}

PDResult rename(PDDoc doc, PDField f, const std::string& name) {
    auto n = u16(name);
    return PDDocRenameField(doc, f, n.data(), static_cast<uint32_t>(n.size()));
}

PDResult setValue(PDField f, const std::u16string& v) {
    return PDFieldSetValue(f, v.data(), static_cast<uint32_t>(v.size()));
}

uint32_t widgetCount(PDField f) {
    uint32_t n = 0;
    EXPECT_EQ(PDFieldGetNumWidgets(f, &n), PD_OK);
    return n;
}

Owned parentOf(PDAnnot w) {
    PDField f = nullptr;
    EXPECT_EQ(PDWidgetAnnotGetParent(w, &f), PD_OK);
    return Owned(f);
}

}  // namespace

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
    EXPECT_EQ(PDFieldGetType(address.get(), &type), PD_ERR_NO_VALUE);  // non-terminal
    // A sibling reuses the parents that exist.
    auto zip = createField(doc.get(), "person.address.zip", PD_ATOM_Tx);
    auto again = findField(doc.get(), "person.address");
    EXPECT_EQ(again.get(), address.get());
    uint32_t count = 0;
    ASSERT_EQ(PDDocGetNumFields(doc.get(), &count), PD_OK);
    EXPECT_EQ(count, 2u);  // only terminal fields are listed
}

TEST(Fields, CreateRefusesTakenAndMalformedNames) {
    auto doc = createDoc();
    auto f = createField(doc.get(), "a.b", PD_ATOM_Btn);
    EXPECT_EQ(createRaw(doc.get(), "a.b", PD_ATOM_Btn), PD_ERR_NAME_IN_USE);
    EXPECT_EQ(createRaw(doc.get(), "a.b", PD_ATOM_Tx), PD_ERR_NAME_IN_USE);
    EXPECT_EQ(createRaw(doc.get(), "a.b.c", PD_ATOM_Tx), PD_ERR_NAME_IN_USE);  // through a terminal
    EXPECT_EQ(createRaw(doc.get(), "a..c", PD_ATOM_Tx), PD_ERR_BAD_NAME);
    EXPECT_EQ(createRaw(doc.get(), ".c", PD_ATOM_Tx), PD_ERR_BAD_NAME);
    EXPECT_EQ(createRaw(doc.get(), "c.", PD_ATOM_Tx), PD_ERR_BAD_NAME);
    EXPECT_EQ(createRaw(doc.get(), "c", PD_ATOM_Widget), PD_ERR_BAD_ARGUMENT);
    EXPECT_EQ(createRaw(doc.get(), "", PD_ATOM_Tx), PD_ERR_BAD_ARGUMENT);
    // A failed create leaves nothing behind.
    uint32_t count = 0;
    ASSERT_EQ(PDDocGetNumFields(doc.get(), &count), PD_OK);
    EXPECT_EQ(count, 1u);
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
    EXPECT_EQ(findField(doc.get(), narrow(nb)).get(), b);
}

TEST(Fields, RenameKeepsHandleValueAndWidgets) {
    auto doc = createDoc();
    auto pg = page(doc.get(), 0);
    auto f = createField(doc.get(), "old", PD_ATOM_Tx);
    auto w = addWidget(doc.get(), f.get(), pg.get(), rect(10, 10, 110, 30));
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
    EXPECT_EQ(rename(doc.get(), f.get(), "top.x"), PD_ERR_BAD_NAME);  // under itself
    EXPECT_EQ(fieldName(f.get()), u"top");
}

TEST(Fields, RenamingAParentRenamesItsSubtree) {
    auto doc = createDoc();
    auto city = createField(doc.get(), "p.addr.city", PD_ATOM_Tx);
    auto addr = findField(doc.get(), "p.addr");
    ASSERT_EQ(rename(doc.get(), addr.get(), "q.home"), PD_OK);
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
    EXPECT_EQ(widgetCount(a.get()), 2u);

    EXPECT_EQ(PDFieldRemoveWidget(b.get(), w1.get()), PD_ERR_NOT_KID);
    EXPECT_EQ(PDFieldAppendWidget(b.get(), w1.get()), PD_ERR_ALREADY);
    ASSERT_EQ(PDFieldRemoveWidget(a.get(), w1.get()), PD_OK);
    EXPECT_FALSE(parentOf(w1.get()));
    ASSERT_EQ(PDFieldAppendWidget(b.get(), w1.get()), PD_OK);
    EXPECT_EQ(parentOf(w1.get()).get(), b.get());

    ASSERT_EQ(PDFieldRemoveWidget(a.get(), w2.get()), PD_OK);
    EXPECT_EQ(widgetCount(a.get()), 0u);
    EXPECT_EQ(findField(doc.get(), "a").get(), a.get());  // still in the form
    uint32_t n = 0;
    ASSERT_EQ(PDPageGetNumAnnots(p1.get(), &n), PD_OK);
    EXPECT_EQ(n, 1u);  // and the widget is still on its page

    // A widget of a field of another type cannot be created.
    auto check = createField(doc.get(), "c", PD_ATOM_Btn);
    PDRect r = rect(0, 0, 10, 10);
    PDAnnot bad = nullptr;
    EXPECT_EQ(PDCreateTextWidgetAnnot(doc.get(), check.get(), p0.get(), &r, &bad),
              PD_ERR_FIELD_KIND);
    EXPECT_EQ(bad, nullptr);
}

// Most real files store a single-widget field and its widget in one dictionary.
TEST(Fields, MergedFieldsSplitWithoutChangingHandles) {
    auto doc = openDoc(corpus("qpdf-field-types.pdf"));
    auto text = findField(doc.get(), "text");
    ASSERT_TRUE(text);
    ASSERT_EQ(widgetCount(text.get()), 1u);
    PDAnnot w = nullptr;
    ASSERT_EQ(PDFieldGetWidget(text.get(), 0, &w), PD_OK);
    Owned widget(w);
    EXPECT_NE(static_cast<void*>(widget.get()), static_cast<void*>(text.get()));
    EXPECT_EQ(parentOf(widget.get()).get(), text.get());
    auto before = fieldValue(text.get());

    auto pg = page(doc.get(), 0);
    auto second = addWidget(doc.get(), text.get(), pg.get(), rect(300, 300, 400, 320));
    EXPECT_EQ(widgetCount(text.get()), 2u);
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
    EXPECT_EQ(widgetCount(reText.get()), 2u);
}

TEST(Fields, RemovingTheWidgetOfAMergedFieldKeepsBoth) {
    auto doc = openDoc(corpus("qpdf-field-types.pdf"));
    auto text = findField(doc.get(), "text");
    ASSERT_TRUE(text);
    PDAnnot w = nullptr;
    ASSERT_EQ(PDFieldGetWidget(text.get(), 0, &w), PD_OK);
    Owned widget(w);
    ASSERT_EQ(PDFieldRemoveWidget(text.get(), widget.get()), PD_OK);
    EXPECT_EQ(widgetCount(text.get()), 0u);
    EXPECT_FALSE(parentOf(widget.get()));
    EXPECT_EQ(findField(doc.get(), "text").get(), text.get());
    auto other = createField(doc.get(), "moved", PD_ATOM_Tx);
    ASSERT_EQ(PDFieldAppendWidget(other.get(), widget.get()), PD_OK);
    EXPECT_EQ(parentOf(widget.get()).get(), other.get());
}

TEST(Fields, HandlesAreStableAndKeepTheDocumentAlive) {
    PDDoc doc = nullptr;
    ASSERT_EQ(PDDocCreate(1, 200, 200, &doc), PD_OK);
    auto f = createField(doc, "f", PD_ATOM_Tx);
    auto found = findField(doc, "f");
    EXPECT_EQ(found.get(), f.get());
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

TEST(Fields, TextsRoundTripThroughSaveIncludingNonLatin) {
    const std::u16string name = u"\u540d\u524d";              // CJK
    const std::u16string value = u"\u00e9t\u00e9 \U0001F600";  // Latin-1 and a surrogate pair
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
    PDField f = nullptr;
    ASSERT_EQ(PDDocFindField(doc.get(), name.data(), 2, &f), PD_OK);
    Owned field(f);
    ASSERT_TRUE(f);
    EXPECT_EQ(fieldValue(f), value);
    EXPECT_EQ(text([&](char16_t* b, uint32_t n, uint32_t* l) { return PDFieldGetUIName(f, b, n, l); }),
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
    auto insert = [&](uint32_t at, const std::u16string& shown, const std::u16string& exported) {
        return PDChoiceFieldInsertOption(combo.get(), at, shown.data(),
                                         static_cast<uint32_t>(shown.size()), exported.data(),
                                         static_cast<uint32_t>(exported.size()));
    };
    ASSERT_EQ(insert(0, u"Two", u"2"), PD_OK);
    ASSERT_EQ(insert(0, u"One", u"1"), PD_OK);
    ASSERT_EQ(insert(2, u"Three", u""), PD_OK);
    EXPECT_EQ(insert(4, u"Five", u"5"), PD_ERR_RANGE);
    uint32_t n = 0;
    ASSERT_EQ(PDChoiceFieldGetNumOptions(combo.get(), &n), PD_OK);
    ASSERT_EQ(n, 3u);
    std::vector<std::pair<std::u16string, std::u16string>> got;
    for (uint32_t i = 0; i < n; ++i) {
        got.emplace_back(text([&](char16_t* b, uint32_t c, uint32_t* l) {
                             return PDChoiceFieldGetOptionValue(combo.get(), i, b, c, l);
                         }),
                         text([&](char16_t* b, uint32_t c, uint32_t* l) {
                             return PDChoiceFieldGetOptionExportValue(combo.get(), i, b, c, l);
                         }));
    }
    using P = std::pair<std::u16string, std::u16string>;
    EXPECT_EQ(got, (std::vector<P>{P{u"One", u"1"}, P{u"Two", u"2"}, P{u"Three", u"Three"}}));

    auto pg = page(doc.get(), 0);
    auto w = addWidget(doc.get(), combo.get(), pg.get(), rect(10, 10, 150, 30));
    ASSERT_EQ(PDChoiceWidgetAnnotSetSelection(w.get(), 1), PD_OK);
    EXPECT_EQ(fieldValue(combo.get()), u"2");
    uint32_t sel = 0;
    ASSERT_EQ(PDChoiceWidgetAnnotGetSelection(w.get(), &sel), PD_OK);
    EXPECT_EQ(sel, 1u);
    EXPECT_EQ(PDChoiceWidgetAnnotSetSelection(w.get(), 3), PD_ERR_RANGE);

    ASSERT_EQ(PDChoiceFieldRemoveAllOptions(combo.get()), PD_OK);
    ASSERT_EQ(PDChoiceFieldGetNumOptions(combo.get(), &n), PD_OK);
    EXPECT_EQ(n, 0u);
    auto textField = createField(doc.get(), "t", PD_ATOM_Tx);
    EXPECT_EQ(PDChoiceFieldGetNumOptions(textField.get(), &n), PD_ERR_FIELD_KIND);
}

TEST(Fields, CheckBoxValueDrivesTheAppearanceState) {
    auto doc = createDoc();
    auto pg = page(doc.get(), 0);
    auto box = createField(doc.get(), "box", PD_ATOM_Btn);
    auto w = addWidget(doc.get(), box.get(), pg.get(), rect(10, 10, 30, 30));
    auto onState = text([&](char16_t* b, uint32_t n, uint32_t* l) {
        return PDButtonWidgetAnnotGetChoice(w.get(), b, n, l);
    });
    EXPECT_EQ(onState, u"Yes");
    PDAtom as = 0;
    ASSERT_EQ(PDAnnotGetAppearanceState(w.get(), &as), PD_OK);
    EXPECT_EQ(as, static_cast<PDAtom>(PD_ATOM_Off));
    ASSERT_EQ(setValue(box.get(), u"Yes"), PD_OK);
    ASSERT_EQ(PDAnnotGetAppearanceState(w.get(), &as), PD_OK);
    const char* name = nullptr;
    ASSERT_EQ(PDAtomGetString(as, &name), PD_OK);
    EXPECT_STREQ(name, "Yes");
    ASSERT_EQ(setValue(box.get(), u"Off"), PD_OK);
    ASSERT_EQ(PDAnnotGetAppearanceState(w.get(), &as), PD_OK);
    EXPECT_EQ(as, static_cast<PDAtom>(PD_ATOM_Off));
}

TEST(Pages, AnnotationListEditing) {
    auto doc = createDoc();
    auto pg = page(doc.get(), 0);
    auto f = createField(doc.get(), "f", PD_ATOM_Tx);
    auto first = addWidget(doc.get(), f.get(), pg.get(), rect(0, 0, 10, 10));
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
    PDAnnot at0 = nullptr;
    ASSERT_EQ(PDPageGetAnnot(pg.get(), 0, &at0), PD_OK);
    Owned a0(at0);
    EXPECT_EQ(at0, w);
    ASSERT_EQ(PDPageRemoveAnnot(pg.get(), w), PD_OK);
    uint32_t n = 0;
    ASSERT_EQ(PDPageGetNumAnnots(pg.get(), &n), PD_OK);
    EXPECT_EQ(n, 1u);
}

TEST(Documents, ListenersHearNotificationsInOrder) {
    auto doc = createDoc();
    struct Heard {
        std::vector<std::pair<int, int32_t>> calls;
    } heard;
    auto proc = [](void* data, PDDoc, int32_t kind, uint32_t, PDAnnot) {
        static_cast<Heard*>(data)->calls.push_back({0, kind});
    };
    auto proc2 = [](void* data, PDDoc, int32_t kind, uint32_t, PDAnnot) {
        static_cast<Heard*>(data)->calls.push_back({1, kind});
    };
    uint32_t c1 = 0, c2 = 0;
    ASSERT_EQ(PDDocAddAnnotChangedListener(doc.get(), proc, &heard, &c1), PD_OK);
    ASSERT_EQ(PDDocAddAnnotChangedListener(doc.get(), proc2, &heard, &c2), PD_OK);
    ASSERT_EQ(PDDocNotifyAnnotChanged(doc.get(), 3, 0, nullptr), PD_OK);
    ASSERT_EQ(PDDocRemoveAnnotChangedListener(doc.get(), c1), PD_OK);
    EXPECT_EQ(PDDocRemoveAnnotChangedListener(doc.get(), c1), PD_ERR_NOT_FOUND);
    ASSERT_EQ(PDDocNotifyAnnotChanged(doc.get(), 0, 0, nullptr), PD_OK);
    using C = std::pair<int, int32_t>;
    EXPECT_EQ(heard.calls, (std::vector<C>{C{0, 3}, C{1, 3}, C{1, 0}}));
}
