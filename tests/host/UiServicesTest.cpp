// The user-interface services as a module reaches them: looked up through the provider
// while a Host lives and called through their method tables.
#include "Portable.h"
#include "TestObjects.h"

#include "qfhost/Host.h"
#include "qfhost/HostError.h"

#include "qf/DocumentInterfaces.h"
#include "qf/PropertyInterfaces.h"
#include "qf/StringPairList.h"
#include "service-common/ServiceProviderApi.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <new>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <string>

#include <unistd.h>

namespace {

using namespace hosttest;
using qfhost::Host;
using qfhost::UserSettings;
namespace fs = std::filesystem;
namespace property = qfhost::property;

ObjectPtr query(const char* name) {
    ObjectPtr so;
    EXPECT_EQ(ServiceProviderGetServiceObject(atom(name), so.put(), nullptr), 0u) << name;
    return so;
}

template <typename Table>
Table& table(const ObjectPtr& so) {
    return *SODetails::methods<Table>(so.get());
}

// ---- a small QFProperty -------------------------------------------------------------------

struct FakeProperty {
    std::u16string name;
    uint32_t type = QF::kPropertyText;
    std::u16string text{};
    QF::StringPairs pairs{};
    uint32_t setResult = 0;  // what SetValue answers; the value changes only on 0
};

// The fake behind a block of any table size: the implementation follows the block's
// prefix (header, table, tag, count, weak slot), whose size the header gives.
FakeProperty& fake(ServiceObject* so) {
    static_assert(alignof(FakeProperty) <= 8);
    char* impl = reinterpret_cast<char*>(so) + sizeof(SODetails::Header) +
                 SODetails::header(so)->tableSize + 24;
    return *std::launder(reinterpret_cast<FakeProperty*>(impl));
}

// No listeners, no IsHidden, no ValidateValue.
const QF::PropertyTable kFakeTable = {
    [](ServiceObject* self, const QF::TextSink* out) -> uint32_t {
        out->put(out->context, fake(self).name.data(), fake(self).name.size());
        return 0;
    },
    [](ServiceObject* self, uint32_t* out) -> uint32_t {
        *out = fake(self).type;
        return 0;
    },
    nullptr, nullptr, nullptr, nullptr,
    [](ServiceObject*, uint8_t* out) -> uint32_t {
        *out = 1;
        return 0;
    },
    nullptr,
    [](ServiceObject* self, const QF::PropertyValueSink* out) -> uint32_t {
        FakeProperty& p = fake(self);
        if (p.type == QF::kPropertyText) {
            out->putText(out->context, p.text.data(), p.text.size());
        } else {
            ObjectPtr list = ObjectPtr::adopt(QF::MakeStringPairList<qfhost::HostTraits>(p.pairs));
            out->putList(out->context, list.get());
        }
        return 0;
    },
    [](ServiceObject* self, const QF::PropertyValue* value) -> uint32_t {
        FakeProperty& p = fake(self);
        if (p.setResult != 0) return p.setResult;
        if (p.type == QF::kPropertyText) {
            p.text.assign(value->text, value->length);
        } else {
            p.pairs = QF::ReadStringPairList(value->list);
        }
        return 0;
    },
    nullptr,
};

// A property of an older, shorter interface: only GetName and GetType.
struct OldPropertyTable {
    decltype(QF::PropertyTable::GetName) GetName;
    decltype(QF::PropertyTable::GetType) GetType;
};

ObjectPtr makeProperty(FakeProperty p) {
    return ObjectPtr::adopt(
        SODetails::makeServiceObject<QF::PropertyTable, FakeProperty, qfhost::HostTraits>(
            QF::kPropertyId, "QFProperty", 0x7E570101, kFakeTable, std::move(p)));
}

ObjectPtr makeOldProperty(FakeProperty p) {
    static const OldPropertyTable table = {kFakeTable.GetName, kFakeTable.GetType};
    return ObjectPtr::adopt(
        SODetails::makeServiceObject<OldPropertyTable, FakeProperty, qfhost::HostTraits>(
            QF::kPropertyId, "QFProperty", 0x7E570102, table, std::move(p)));
}

// ---- properties context ------------------------------------------------------------------

class PropertiesContextTest : public ::testing::Test {
protected:
    ObjectPtr area(const char16_t* name) {
        ObjectPtr a;
        EXPECT_EQ(table<QF::PropertiesContextTable>(context).GetArea(context.get(), name, a.put()),
                  0u);
        return a;
    }
    uint64_t count(const ObjectPtr& a) {
        uint64_t n = 99;
        EXPECT_EQ(table<QF::PropertyAreaTable>(a).GetCount(a.get(), &n), 0u);
        return n;
    }

    Host host;
    ObjectPtr context = query("QFPropertiesContext");
};

TEST_F(PropertiesContextTest, AreasKeepOneReferencePerPropertyUntilCleared) {
    ObjectPtr tools = area(u"ToolArea");
    ASSERT_TRUE(tools);
    EXPECT_EQ(SODetails::header(tools.get())->interfaceId, QF::kPropertyAreaId);
    EXPECT_EQ(area(u"ToolArea").get(), tools.get());
    EXPECT_NE(area(u"Other").get(), tools.get());
    EXPECT_EQ(refs(tools.get()), 2);  // the context's and ours

    ObjectPtr first = makeProperty({.name = u"Name"});
    ObjectPtr second = makeProperty({.name = u"Tooltip"});
    auto& ops = table<QF::PropertyAreaTable>(tools);
    EXPECT_EQ(ops.AddProperty(tools.get(), first.get()), 0u);
    EXPECT_EQ(ops.AddProperty(tools.get(), second.get()), 0u);
    EXPECT_EQ(ops.AddProperty(tools.get(), first.get()), 1u);  // already there
    EXPECT_EQ(ops.AddProperty(tools.get(), makePlain().get()), 3u);
    EXPECT_EQ(refs(first.get()), 2);
    EXPECT_EQ(count(tools), 2u);

    ObjectPtr got;
    EXPECT_EQ(ops.GetProperty(tools.get(), 1, got.put()), 0u);
    EXPECT_EQ(got.get(), second.get());
    EXPECT_EQ(refs(second.get()), 3);
    got.reset();
    EXPECT_EQ(ops.GetProperty(tools.get(), 2, got.put()), 5u);
    EXPECT_FALSE(got);

    auto& ctx = host.properties();
    ASSERT_EQ(ctx.properties(u"ToolArea").size(), 2u);
    EXPECT_EQ(ctx.properties(u"ToolArea")[0].get(), first.get());
    EXPECT_EQ(ctx.find(u"ToolArea", u"Tooltip").get(), second.get());
    EXPECT_FALSE(ctx.find(u"ToolArea", u"Missing"));
    EXPECT_TRUE(ctx.properties(u"NoSuchArea").empty());

    ctx.clear();
    EXPECT_EQ(refs(first.get()), 1);
    EXPECT_EQ(refs(second.get()), 1);
    EXPECT_EQ(count(tools), 0u);
    EXPECT_EQ(area(u"ToolArea").get(), tools.get());  // the area itself stays
}

TEST(PropertyAccessTest, TextAndPairValuesGoThroughTheTable) {
    ObjectPtr text = makeProperty({.name = u"Name", .text = u"Text1"});
    EXPECT_EQ(property::name(text.get()), u"Name");
    EXPECT_EQ(property::type(text.get()), QF::kPropertyText);
    bool flag = false;
    EXPECT_EQ(property::isReadOnly(text.get(), &flag), 0u);
    EXPECT_TRUE(flag);
    EXPECT_EQ(property::isHidden(text.get(), &flag), 2u);  // empty slot

    std::u16string value;
    EXPECT_EQ(property::setText(text.get(), u"Total"), 0u);
    EXPECT_EQ(property::getText(text.get(), &value), 0u);
    EXPECT_EQ(value, u"Total");
    fake(text.get()).setResult = 14;
    EXPECT_EQ(property::setText(text.get(), u"Clash"), 14u);
    EXPECT_EQ(fake(text.get()).text, u"Total");
    QF::StringPairs pairs{{u"keep", u"me"}};
    EXPECT_EQ(property::getPairs(text.get(), &pairs), 13u);
    EXPECT_EQ(pairs.size(), 1u);

    ObjectPtr list = makeProperty({.name = u"Options",
                                   .type = QF::kPropertyStringPairList,
                                   .pairs = {{u"1", u"One"}}});
    const QF::StringPairs options{{u"a", u"Apple"}, {u"", u"Blank"}, {u"c", u"カキ"}};
    EXPECT_EQ(property::setPairs(list.get(), options), 0u);
    EXPECT_EQ(fake(list.get()).pairs, options);
    EXPECT_EQ(property::getPairs(list.get(), &pairs), 0u);
    EXPECT_EQ(pairs, options);
    value = u"keep";
    EXPECT_EQ(property::getText(list.get(), &value), 13u);
    EXPECT_EQ(value, u"keep");
}

TEST(PropertyAccessTest, MissingMethodsAndNullsAreAnswered) {
    ObjectPtr old = makeOldProperty({.name = u"Old"});
    EXPECT_EQ(property::name(old.get()), u"Old");
    bool flag = false;
    std::u16string text;
    QF::StringPairs pairs;
    EXPECT_EQ(property::isReadOnly(old.get(), &flag), 2u);
    EXPECT_EQ(property::getText(old.get(), &text), 2u);
    EXPECT_EQ(property::getPairs(old.get(), &pairs), 2u);
    EXPECT_EQ(property::setText(old.get(), u"x"), 2u);
    EXPECT_EQ(property::setPairs(old.get(), {}), 2u);

    EXPECT_EQ(property::name(nullptr), u"");
    EXPECT_EQ(property::type(nullptr), 0u);
    EXPECT_EQ(property::getText(nullptr, &text), 3u);
    EXPECT_EQ(property::setPairs(nullptr, {}), 3u);
    ObjectPtr p = makeProperty({});
    EXPECT_EQ(property::getText(p.get(), nullptr), 3u);
    EXPECT_EQ(property::isReadOnly(p.get(), nullptr), 3u);
}

// ---- annotation properties factory --------------------------------------------------------

// What the fake "AddWidget" commands saw; each command DOes and UNDOes into it.
struct AddWidgetLog {
    std::vector<QF::CommandArgs> args;
    std::vector<QF::AddWidgetParams> params;
    std::vector<std::string> steps;
};

struct FakeAddWidget {
    AddWidgetLog* log;
};

const QF::CommandTable kFakeAddWidgetTable = {
    nullptr, nullptr, nullptr, nullptr,
    [](ServiceObject* self) -> uint32_t {
        SODetails::implOf<QF::CommandTable, FakeAddWidget>(self).log->steps.push_back("do");
        return 0;
    },
    [](ServiceObject* self) -> uint32_t {
        SODetails::implOf<QF::CommandTable, FakeAddWidget>(self).log->steps.push_back("undo");
        return 0;
    },
};

const QF::CommandFactoryTable kFakeAddWidgetFactoryTable = {
    [](ServiceObject* self, const QF::CommandArgs* args, ServiceObject** out) -> uint32_t {
        AddWidgetLog* log = SODetails::implOf<QF::CommandFactoryTable, FakeAddWidget>(self).log;
        log->args.push_back(*args);
        log->params.push_back(*static_cast<const QF::AddWidgetParams*>(args->params));
        *out = SODetails::makeServiceObject<QF::CommandTable, FakeAddWidget, qfhost::HostTraits>(
            QF::kCommandId, "Command", 0x7E570104, kFakeAddWidgetTable, FakeAddWidget{log});
        return 0;
    }};

TEST(AnnotPropertiesFactoryTest, AddWidgetRunsTheAddWidgetCommand) {
    AddWidgetLog log;
    Host host;
    qfhost::Document& doc = host.newDocument(2, 612, 792);
    PDPage page = nullptr;
    PDField field = nullptr;
    PDAnnot widget = nullptr;
    const PDRect rect{100, 700, 250, 678};
    ASSERT_EQ(PDDocGetPage(doc.pdDoc(), 1, &page), PD_OK);
    ASSERT_EQ(PDCreateTextField(doc.pdDoc(), nullptr, 0, 0, &field), PD_OK);
    ASSERT_EQ(PDCreateTextWidgetAnnot(doc.pdDoc(), field, page, &rect, &widget), PD_OK);

    ObjectPtr factory = query("QFAnnotPropertiesFactory");
    auto& ops = table<QF::AnnotPropertiesFactoryTable>(factory);
    EXPECT_EQ(ops.AddWidget(factory.get(), doc.object(), 1, widget), 0x10005u);  // no command

    ObjectPtr commandFactory = ObjectPtr::adopt(
        SODetails::makeServiceObject<QF::CommandFactoryTable, FakeAddWidget, qfhost::HostTraits>(
            QF::kCommandFactoryId, "CommandFactory", 0x7E570103, kFakeAddWidgetFactoryTable,
            FakeAddWidget{&log}));
    ASSERT_EQ(host.commands().factories().put(atom("AddWidget"), commandFactory.get()), 0u);

    EXPECT_EQ(ops.AddWidget(factory.get(), doc.object(), 1, widget), 0u);
    EXPECT_EQ(ops.AddWidget(factory.get(), doc.object(), 0, widget), 0u);

    ASSERT_EQ(log.args.size(), 2u);
    EXPECT_EQ(log.args[0].nameAtom, atom("AddWidget"));
    EXPECT_NE(log.args[0].uniqueId, log.args[1].uniqueId);
    EXPECT_EQ(log.params[0].document, doc.object());
    EXPECT_EQ(log.params[0].pageIndex, 1u);
    EXPECT_EQ(log.params[0].widget, widget);
    EXPECT_EQ(log.params[1].pageIndex, 0u);
    EXPECT_EQ(host.commands().depths().undo, 2u);
    EXPECT_EQ(host.commands().undo(), 0u);
    EXPECT_EQ(log.steps, (std::vector<std::string>{"do", "do", "undo"}));

    host.commands().clear();
    PDHandleRelease(widget);
    PDHandleRelease(field);
    PDHandleRelease(page);
}

// ---- string service ------------------------------------------------------------------------

class StringServiceTest : public ::testing::Test {
protected:
    uint32_t translate(std::u16string_view text, char16_t* buf, uint32_t bufLen,
                       uint32_t* outLen) {
        return table<QF::StringServiceTable>(service).GetTranslatedString(
            service.get(), text.data(), static_cast<uint32_t>(text.size()), buf, bufLen, outLen);
    }

    Host host;
    ObjectPtr service = query("QFStringService");
};

TEST_F(StringServiceTest, TwoCallTranslationInJapanese) {
    const std::u16string_view english = u"The name cannot be empty.";
    uint32_t len = 0;
    EXPECT_EQ(translate(english, nullptr, 0, &len), 1u);  // English: keep the text

    EXPECT_FALSE(host.strings().setLanguage("fr"));
    EXPECT_EQ(host.strings().language(), "en");
    ASSERT_TRUE(host.strings().setLanguage("ja"));

    const std::u16string expected = *host.strings().translate(std::u16string(english));
    EXPECT_EQ(translate(english, nullptr, 0, &len), 0u);
    ASSERT_EQ(len, expected.size());

    std::u16string buf(len + 1, u'#');
    uint32_t got = 0;
    EXPECT_EQ(translate(english, buf.data(), len, &got), 8u);  // no room for the NUL
    EXPECT_EQ(got, len);
    EXPECT_EQ(buf, std::u16string(len + 1, u'#'));
    EXPECT_EQ(translate(english, buf.data(), len + 1, &got), 0u);
    EXPECT_EQ(got, len);
    EXPECT_EQ(buf, expected + u'\0');

    EXPECT_EQ(translate(u"No such text", nullptr, 0, &len), 1u);
    EXPECT_EQ(translate(u"Not initialized", nullptr, 0, &len), 1u);
}

TEST(StringCatalogTest, FieldNameWordsMakeUsableNames) {
    const std::set<std::u16string> words = {u"Text",        u"CheckBox",    u"RadioGroup",
                                            u"ComboBox",    u"ListBox",     u"Button",
                                            u"PrintButton", u"EmailButton", u"SaveButton",
                                            u"SubmitButton", u"Signature"};
    std::set<std::u16string> english, wordTranslations;
    for (const auto& [en, ja] : qfhost::StringService::japaneseCatalog()) {
        EXPECT_TRUE(english.insert(en).second) << "twice in the catalog";
        EXPECT_FALSE(ja.empty());
        if (!words.count(en)) continue;
        EXPECT_EQ(ja.find_first_of(u" .\u3000\uFF0E\u3002"), std::u16string::npos);
        EXPECT_TRUE(wordTranslations.insert(ja).second) << "two words, one translation";
    }
    EXPECT_EQ(wordTranslations.size(), words.size());
    EXPECT_EQ(english.size(), words.size() + 6 + 21);  // the six messages, the 21 refusals
                                                       // of the field properties
    EXPECT_FALSE(english.count(u"Not initialized"));
}

// ---- user settings -------------------------------------------------------------------------

class UserSettingsTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() /
              ("qfhost-settings-" + std::to_string(::getpid()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir);
    }
    void TearDown() override { fs::remove_all(dir); }

    QF::UserSettingsTable& ops() { return table<QF::UserSettingsTable>(service); }
    std::optional<int64_t> integer(const char16_t* path) {
        int64_t v = 0;
        if (ops().GetInteger(service.get(), path, &v) != 0) return std::nullopt;
        return v;
    }
    void write(const fs::path& file, const std::string& text) {
        fs::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << text;
    }

    Host host;
    ObjectPtr service = query("QFUserSettings");
    UserSettings& settings = host.settings();
    fs::path dir;
};

TEST_F(UserSettingsTest, DefaultsAndTypedAccess) {
    EXPECT_EQ(integer(u"Forms/CheckBox/Width"), 14);
    EXPECT_EQ(integer(u"Forms/DigitalSignatureField/Height"), 44);
    EXPECT_EQ(integer(u"Forms/Widget creation frame color"), 0xFF0078D7);
    EXPECT_EQ(integer(u"Forms/SubmitButton/Highlight"), 3);
    std::u16string text;
    const QF::TextSink sink{&text, [](void* c, const char16_t* t, uint64_t n) {
                                static_cast<std::u16string*>(c)->assign(t, n);
                            }};
    EXPECT_EQ(ops().GetString(service.get(), u"Forms/SubmitButton/Format", &sink), 0u);
    EXPECT_EQ(text, u"PDF");

    // Wrong types, unknown paths and null arguments: AbiBadArgumentsTest.
    EXPECT_EQ(ops().SetInteger(service.get(), u"Forms/CheckBox/Width", 20), 0u);
    EXPECT_EQ(integer(u"Forms/CheckBox/Width"), 20);
    EXPECT_EQ(ops().SetInteger(service.get(), u"Forms/CheckBox/Width", 0), 3u);
    EXPECT_EQ(ops().SetString(service.get(), u"Forms/SubmitButton/Format", u"DOC", 3), 3u);
    EXPECT_EQ(ops().SetString(service.get(), u"Forms/SubmitButton/Format", u"XFDF", 4), 0u);
    EXPECT_EQ(integer(u"Forms/CheckBox/Width"), 20);

    settings.reset();
    EXPECT_EQ(integer(u"Forms/CheckBox/Width"), 14);
    EXPECT_EQ(settings.get(u"Forms/SubmitButton/Format"), UserSettings::Value(u"PDF"));
}

TEST_F(UserSettingsTest, SaveWritesOnlyOverridesAndLoadReadsThemBack) {
    ASSERT_EQ(settings.set(u"Forms/CheckBox/Width", int64_t{16}), 0u);
    ASSERT_EQ(settings.set(u"Forms/EmailButton/Subject", u"見積もり"), 0u);
    ASSERT_EQ(settings.set(u"Forms/SubmitButton/Format", u"XFDF"), 0u);
    ASSERT_EQ(settings.set(u"Forms/ListBox/Height", int64_t{80}), 0u);
    ASSERT_EQ(settings.set(u"Forms/ListBox/Height", int64_t{66}), 0u);  // the default again

    const fs::path file = dir / "nested" / "settings.json";
    settings.save(file.string());
    std::ifstream in(file);
    EXPECT_EQ(nlohmann::json::parse(in), nlohmann::json::parse(R"({"Forms": {
        "CheckBox": {"Width": 16},
        "EmailButton": {"Subject": "見積もり"},
        "SubmitButton": {"Format": "XFDF"}}})"));
    EXPECT_EQ(std::distance(fs::directory_iterator(file.parent_path()), {}), 1);  // no leftovers

    ObjectPtr other = ObjectPtr::adopt(UserSettings::create());
    UserSettings& loaded = UserSettings::of(other.get());
    ASSERT_EQ(loaded.set(u"Forms/PushButton/Font size", int64_t{12}), 0u);
    loaded.load(file.string());
    EXPECT_EQ(loaded.get(u"Forms/CheckBox/Width"), UserSettings::Value(int64_t{16}));
    EXPECT_EQ(loaded.get(u"Forms/EmailButton/Subject"), UserSettings::Value(u"見積もり"));
    EXPECT_EQ(loaded.get(u"Forms/SubmitButton/Format"), UserSettings::Value(u"XFDF"));
    EXPECT_EQ(loaded.get(u"Forms/PushButton/Font size"), UserSettings::Value(int64_t{10}));

    loaded.load((dir / "missing.json").string());
    EXPECT_EQ(loaded.get(u"Forms/CheckBox/Width"), UserSettings::Value(int64_t{14}));
}

TEST_F(UserSettingsTest, RejectedFilesChangeNothing) {
    const char* files[] = {
        "{",
        "",
        "[1, 2]",
        R"({"Forms": {"CheckBox": {"Width": "wide"}}})",
        R"({"Forms": {"CheckBox": {"Width": 16.5}}})",
        R"({"Forms": {"CheckBox": {"Width": 16, "Height": true}}})",
        R"({"Forms": {"CheckBox": {"Width": 18446744073709551615}}})",
        R"({"Forms": {"CheckBox": {"Width": 0}}})",
        R"({"Forms": {"SubmitButton": {"Format": "DOC"}}})",
        R"({"Forms": {"SubmitButton": {"URL": null}}})",
        R"({"Forms": {"CheckBox": 16}})",
        R"({"Forms": {"CheckBox/Width": 16}})",
        R"({"Forms": {"Slider": {"Width": 16}}})",
        R"({"Forms": {"CheckBox": {"Width": {"Value": 16}}}})",
        R"({"Colors": {}})",
    };
    ASSERT_EQ(settings.set(u"Forms/CheckBox/Width", int64_t{30}), 0u);
    const fs::path file = dir / "settings.json";
    for (const char* text : files) {
        write(file, text);
        try {
            settings.load(file.string());
            ADD_FAILURE() << "accepted: " << text;
        } catch (const qfhost::HostError& e) {
            EXPECT_EQ(e.code(), 3u) << text;
            EXPECT_NE(std::string(e.what()).find(file.string()), std::string::npos) << e.what();
        }
        EXPECT_EQ(integer(u"Forms/CheckBox/Width"), 30) << text;
        EXPECT_EQ(integer(u"Forms/CheckBox/Height"), 14) << text;
    }
}

#if !defined(_WIN32) // the base-directory rules are POSIX-only; Windows has %APPDATA%
TEST_F(UserSettingsTest, DefaultPathFollowsXdgConfigHome) {
    auto saved = [](const char* name) -> std::optional<std::string> {
        const char* v = std::getenv(name);
        return v ? std::optional<std::string>(v) : std::nullopt;
    };
    const auto xdg = saved("XDG_CONFIG_HOME"), home = saved("HOME");

    qftest::setEnv("XDG_CONFIG_HOME", "/srv/config/");
    qftest::setEnv("HOME", "/home/someone");
    EXPECT_EQ(UserSettings::defaultPath(), "/srv/config/qf-forms/settings.json");
    qftest::setEnv("XDG_CONFIG_HOME", "relative/config");  // not absolute: ignored
    EXPECT_EQ(UserSettings::defaultPath(), "/home/someone/.config/qf-forms/settings.json");
    qftest::setEnv("XDG_CONFIG_HOME", nullptr);
    EXPECT_EQ(UserSettings::defaultPath(), "/home/someone/.config/qf-forms/settings.json");

    auto restore = [](const char* name, const std::optional<std::string>& v) {
        qftest::setEnv(name, v ? v->c_str() : nullptr);
    };
    restore("XDG_CONFIG_HOME", xdg);
    restore("HOME", home);
}
#endif

}  // namespace
