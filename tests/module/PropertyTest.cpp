// Property objects driven through the QFProperty table as the host calls them, and the
// lookup of the host's properties context through the service provider.
#include "qf/Property.SO"

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

namespace {

using moduletest::refCountOf;
using moduletest::ServiceObject;
using SODetails::BasicServiceObjectPtr;
using ListPtr = std::shared_ptr<PropStringPairListData>;
using Text = QFTextProperty;

QF::PropertyTable& ops(ServiceObject* so) {
    return *SODetails::methods<QF::PropertyTable>(so);
}

void storeText(void* context, const char16_t* text, uint64_t length) {
    static_cast<std::u16string*>(context)->assign(text, length);
}
void keepList(void* context, ServiceObject* list) {
    *static_cast<BasicServiceObjectPtr<>*>(context) = BasicServiceObjectPtr<>::share(list);
}
std::u16string textOf(ServiceObject* p) {
    std::u16string text;
    const QF::PropertyValueSink sink{&text, storeText, nullptr};
    EXPECT_EQ(ops(p).GetValue(p, &sink), 0u);
    return text;
}
BasicServiceObjectPtr<> listOf(ServiceObject* p) {
    BasicServiceObjectPtr<> list;
    const QF::PropertyValueSink sink{&list, nullptr, keepList};
    EXPECT_EQ(ops(p).GetValue(p, &sink), 0u);
    return list;
}
uint8_t flagOf(uint32_t (*method)(ServiceObject*, uint8_t*), ServiceObject* p) {
    uint8_t flag = 9;
    EXPECT_EQ(method(p, &flag), 0u);
    return flag;
}
QF::PropertyValue text(std::u16string_view s) {
    return {s.data(), s.size(), nullptr};
}
BasicServiceObjectPtr<> wireList(QF::StringPairs pairs) {
    return BasicServiceObjectPtr<>::adopt(
        QF::MakeStringPairList<moduletest::FakeTraits>(std::move(pairs)));
}
SODetails::ErrorInfo lastError(ServiceObject* p) {
    SODetails::ErrorInfo info{};
    EXPECT_EQ(SODetails::header(p)->base.GetLastErrorInfo(p, &info, nullptr), 0u);
    return info;
}

// A text property over `value` with the stock checks and validator.
BasicServiceObjectPtr<> textProperty(std::u16string& value) {
    return Text::Create(
        u"FieldName", [&value] { return value; }, [&value](const auto& v) { value = v; },
        Text::MakeCheckFunc_False(), Text::MakeCheckFunc_False(), Text::MakeValidateFunc_Dummy());
}

const QF::StringPairs kOptions = {{u"1", u"One"}, {u"2", u"Two"}};

TEST(Property, TextRoundTripChecksAndValidation) {
    std::u16string value = u"Text1";
    uint32_t seenFlag = 0;
    auto p = Text::Create(
        u"FieldName", [&] { return value; }, [&](const std::u16string& v) { value = v; },
        [] { return true; }, [] { return false; },
        [&](const std::u16string& v, uint32_t flag) { return seenFlag = flag, v != u"bad"; });
    auto* so = p.get();
    EXPECT_EQ(flagOf(ops(so).IsReadOnly, so), 1);
    EXPECT_EQ(flagOf(ops(so).IsHidden, so), 0);

    EXPECT_EQ(textOf(so), u"Text1");
    // Only `length` units count; the text need not end there.
    const std::u16string typed = u"Straße\u00e9 and more";
    const QF::PropertyValue prefix{typed.data(), 7, nullptr};
    EXPECT_EQ(ops(so).SetValue(so, &prefix), 0u);
    EXPECT_EQ(textOf(so), u"Straße\u00e9");

    uint8_t ok = 9;
    const auto bad = text(u"bad"), good = text(u"good");
    EXPECT_EQ(ops(so).ValidateValue(so, &bad, 42, &ok), 0u);
    EXPECT_EQ(ok, 0);
    EXPECT_EQ(seenFlag, 42u);
    EXPECT_EQ(ops(so).ValidateValue(so, &good, 7, &ok), 0u);
    EXPECT_EQ(ok, 1);
    EXPECT_EQ(value, u"Straße\u00e9"); // validating sets nothing

    // The stock callbacks: never read-only or hidden, every value (even empty) accepted.
    auto stock = textProperty(value);
    EXPECT_EQ(flagOf(ops(stock.get()).IsReadOnly, stock.get()), 0);
    EXPECT_EQ(flagOf(ops(stock.get()).IsHidden, stock.get()), 0);
    const QF::PropertyValue empty{nullptr, 0, nullptr};
    EXPECT_EQ(ops(stock.get()).ValidateValue(stock.get(), &empty, 0xFFFFFFFF, &ok), 0u);
    EXPECT_EQ(ok, 1);
    EXPECT_TRUE(QFStringPairListProperty::MakeValidateFunc_Dummy()(nullptr, 0));
    EXPECT_EQ(ops(stock.get()).SetValue(stock.get(), &empty), 0u);
    EXPECT_EQ(value, u"");
}

TEST(Property, ListRoundTripCopiesAndEmptyLists) {
    ListPtr value = std::make_shared<PropStringPairListData>(kOptions);
    auto p = QFStringPairListProperty::Create(
        u"ComboOptList", [&] { return value; }, [&](const ListPtr& v) { value = v; }, {}, {},
        QFStringPairListProperty::MakeValidateFunc_Dummy());
    auto* so = p.get();
    EXPECT_EQ(QF::ReadStringPairList(listOf(so).get()), kOptions);

    // The incoming list is borrowed and copied: the value outlives it.
    const QF::StringPairs three = {{u"a", u"A"}, {u"", u""}, {u"c", u"C"}};
    auto incoming = wireList(three);
    const QF::PropertyValue set{nullptr, 0, incoming.get()};
    EXPECT_EQ(ops(so).SetValue(so, &set), 0u);
    EXPECT_EQ(refCountOf(incoming.get()), 1);
    incoming.reset();
    ASSERT_TRUE(value);
    EXPECT_EQ(value->Pairs(), three);
    EXPECT_EQ(QF::ReadStringPairList(listOf(so).get()), three);

    // No list on the wire sets an empty list; a null value reads as an empty list.
    const QF::PropertyValue none{nullptr, 0, nullptr};
    EXPECT_EQ(ops(so).SetValue(so, &none), 0u);
    ASSERT_TRUE(value);
    EXPECT_TRUE(value->Pairs().empty());
    value.reset();
    auto read = listOf(so);
    ASSERT_TRUE(read);
    EXPECT_TRUE(QF::ReadStringPairList(read.get()).empty());
}

TEST(Property, ListReadStaysValidAfterThePropertyIsReleased) {
    auto data = std::make_shared<PropStringPairListData>(kOptions);
    auto p =
        QFStringPairListProperty::Create(u"ComboOptList", [data] { return data; }, {}, {}, {}, {});
    BasicServiceObjectPtr<> read = listOf(p.get());
    p.reset();
    data->Pairs().clear();
    ASSERT_TRUE(read);
    EXPECT_EQ(refCountOf(read.get()), 1);
    EXPECT_EQ(QF::ReadStringPairList(read.get()), kOptions);
}

TEST(Property, SetterFailurePassesThroughWithARecord) {
    int heard = 0;
    auto p = Text::Create(u"FieldName", {},
                          [](const std::u16string&) {
                              ThrowServiceObjectException(
                                  14, u"This name is already set for a different field type.",
                                  "Test::Setter");
                          },
                          {}, {}, {});
    auto count = [](void* c, ServiceObject*) { ++*static_cast<int*>(c); };
    ASSERT_EQ(ops(p.get()).AddChangeListener(p.get(), count, &heard), 0u);
    const auto v = text(u"Name");
    EXPECT_EQ(ops(p.get()).SetValue(p.get(), &v), 14u);
    EXPECT_EQ(heard, 0);
    const SODetails::ErrorInfo info = lastError(p.get());
    // The caller reads the setter's own failure, wrapped by the thunk's record.
    EXPECT_EQ(info.code, 14u);
    EXPECT_EQ(std::u16string(info.message), u"This name is already set for a different field type.");
    EXPECT_STREQ(info.function, "Test::Setter");
    EXPECT_STREQ(info.file, "tests/module/PropertyTest.cpp");
    const FailureRecord* record = FetchFailure();
    ASSERT_NE(record, nullptr);
    EXPECT_NE(record->Inner(), nullptr);

    auto q = Text::Create(u"X", {}, [](const std::u16string&) { throw std::runtime_error("boom"); },
                          {}, {}, {});
    EXPECT_EQ(ops(q.get()).SetValue(q.get(), &v), 4u); // any other exception
}

// Null arguments of every method: AbiBadArgumentsTest, through the tools' sheets.
TEST(Property, MissingCallbacksGiveTwoMissingArgumentsThree) {
    auto p = Text::Create(u"Bare", {}, {}, {}, {}, {});
    auto* so = p.get();
    auto& t = ops(so);
    uint8_t flag = 0;
    std::u16string s;
    const QF::PropertyValueSink textSink{&s, storeText, nullptr};
    const auto v = text(u"x");
    const uint32_t missing[] = {t.IsReadOnly(so, &flag), t.IsHidden(so, &flag),
                                t.GetValue(so, &textSink), t.SetValue(so, &v),
                                t.ValidateValue(so, &v, 0, &flag)};
    for (size_t i = 0; i < std::size(missing); ++i)
        EXPECT_EQ(missing[i], 2u) << "case " << i;

    uint32_t u = 0;
    EXPECT_EQ(t.GetType(nullptr, &u), 3u);
    EXPECT_EQ(t.AddChangeListener(nullptr, [](void*, ServiceObject*) {}, nullptr), 3u);

    // A sink without the function the type needs; a text pointer missing with a length.
    std::u16string value;
    auto q = textProperty(value);
    const QF::PropertyValueSink listOnly{&s, nullptr, keepList};
    EXPECT_EQ(ops(q.get()).GetValue(q.get(), &listOnly), 3u);
    const QF::PropertyValue broken{nullptr, 5, nullptr};
    EXPECT_EQ(ops(q.get()).SetValue(q.get(), &broken), 3u);
}

using Calls = std::vector<std::pair<int, ServiceObject*>>;
template <int Tag> void hear(void* context, ServiceObject* property) {
    static_cast<Calls*>(context)->emplace_back(Tag, property);
}

TEST(Property, ChangeListenersRunAfterSetValueOnly) {
    std::u16string value;
    auto p = textProperty(value);
    auto* so = p.get();
    Calls a, b;
    EXPECT_EQ(ops(so).AddChangeListener(so, hear<1>, &a), 0u);
    EXPECT_EQ(ops(so).AddChangeListener(so, hear<2>, &a), 0u); // same context, other proc
    EXPECT_EQ(ops(so).AddChangeListener(so, hear<1>, &b), 0u);
    EXPECT_EQ(ops(so).AddChangeListener(so, hear<1>, &a), 1u);
    EXPECT_EQ(ops(so).RemoveChangeListener(so, hear<2>, &b), 1u);
    uint32_t count = 0;
    EXPECT_EQ(ops(so).GetChangeListenerCount(so, &count), 0u);
    EXPECT_EQ(count, 3u);

    textOf(so);
    uint8_t ok = 0;
    const auto v = text(u"New");
    ops(so).ValidateValue(so, &v, 0, &ok);
    EXPECT_TRUE(a.empty());
    EXPECT_EQ(ops(so).SetValue(so, &v), 0u);
    EXPECT_EQ(value, u"New");
    EXPECT_EQ(a, (Calls{{1, so}, {2, so}}));
    EXPECT_EQ(b, (Calls{{1, so}}));

    EXPECT_EQ(ops(so).RemoveChangeListener(so, hear<1>, &a), 0u);
    EXPECT_EQ(ops(so).RemoveChangeListener(so, hear<1>, &a), 1u);
    EXPECT_EQ(ops(so).SetValue(so, &v), 0u);
    EXPECT_EQ(a, (Calls{{1, so}, {2, so}, {2, so}}));

    // A listener that drops the last reference does not pull the property from under
    // SetValue: the listeners after it still run.
    auto drop = [](void* c, ServiceObject*) { static_cast<BasicServiceObjectPtr<>*>(c)->reset(); };
    ASSERT_EQ(ops(so).RemoveChangeListener(so, hear<1>, &b), 0u);
    ASSERT_EQ(ops(so).AddChangeListener(so, drop, &p), 0u);
    ASSERT_EQ(ops(so).AddChangeListener(so, hear<1>, &b), 0u);
    EXPECT_EQ(ops(so).SetValue(so, &v), 0u);
    EXPECT_FALSE(p);
    EXPECT_EQ(b.size(), 3u);
}

TEST(Property, CallbacksHoldTheirOwnerWeakly) {
    auto owner = wireList({});
    QF::WeakServiceObject weak(owner.get());
    int writes = 0;
    auto p = Text::Create(
        u"FieldName", [weak] { return weak.Lock() ? u"alive" : std::u16string(); },
        [weak, &writes](const std::u16string&) { writes += weak.Lock() ? 1 : 0; }, {}, {}, {});
    const auto v = text(u"x");
    EXPECT_EQ(textOf(p.get()), u"alive");
    EXPECT_EQ(ops(p.get()).SetValue(p.get(), &v), 0u);
    EXPECT_EQ(writes, 1);
    EXPECT_EQ(refCountOf(owner.get()), 1); // the lock was given back

    owner.reset();
    EXPECT_EQ(textOf(p.get()), u"");
    EXPECT_EQ(ops(p.get()).SetValue(p.get(), &v), 0u);
    EXPECT_EQ(writes, 1);

    // Copies share the weak block by its count; a default or null hold never locks.
    auto other = wireList({});
    SODetails::WeakReference* block = nullptr;
    ASSERT_EQ(SODetails::header(other.get())->base.GetWeakReference(other.get(), &block), 0u);
    {
        QF::WeakServiceObject first(other.get());
        QF::WeakServiceObject copy = first;
        EXPECT_EQ(block->ops->GetRefCount(block), 4);
        EXPECT_EQ(copy.Lock().get(), other.get());
    }
    EXPECT_EQ(block->ops->GetRefCount(block), 2);
    block->ops->Release(block);
    EXPECT_FALSE(QF::WeakServiceObject().Lock());
    EXPECT_FALSE(QF::WeakServiceObject(nullptr).Lock());
}

TEST(Property, GetDataHandsOutNewReferences) {
    auto data = wireList(kOptions);
    auto p = Text::Create(u"FieldName", {}, {}, {}, {}, {}, data);
    EXPECT_EQ(refCountOf(data.get()), 2);
    BasicServiceObjectPtr<> got;
    EXPECT_EQ(ops(p.get()).GetData(p.get(), got.put()), 0u);
    EXPECT_EQ(got.get(), data.get());
    EXPECT_EQ(refCountOf(data.get()), 3);
    got.reset();
    p.reset();
    EXPECT_EQ(refCountOf(data.get()), 1);

    auto bare = Text::Create(u"FieldName", {}, {}, {}, {}, {});
    ServiceObject* out = data.get();
    EXPECT_EQ(ops(bare.get()).GetData(bare.get(), &out), 0u);
    EXPECT_EQ(out, nullptr);
}

// ---- the host's properties context ---------------------------------------------------------

std::u16string gAreaName;
ServiceObject* gArea = nullptr;

const QF::PropertiesContextTable kContextTable{
    [](ServiceObject* self, const char16_t* name, ServiceObject** out) -> uint32_t {
        gAreaName = name;
        const uint32_t code = moduletest::record<QF::PropertiesContextTable>(self, {0});
        *out = code == 0 ? BasicServiceObjectPtr<>::share(gArea).detach() : nullptr;
        return code;
    }};
const QF::PropertyAreaTable kAreaTable{
    [](ServiceObject* self, ServiceObject* property) -> uint32_t {
        return moduletest::record<QF::PropertyAreaTable>(self, {0, 0, 0, 0, 0, property});
    },
    nullptr, nullptr};

// A context of an interface version without methods: its table is empty.
struct EmptyContextBlock {
    SODetails::Header header;
    char eoft[4];
    uint32_t implementationId;
    std::atomic<int32_t> refs;
    uint32_t padding;
    std::atomic<SODetails::WeakReference*> weak;
};

TEST(PropertyArea, OpenAndAddThroughTheHostContext) {
    std::u16string value;
    auto property = textProperty(value);
    EXPECT_FALSE(QF::OpenPropertyArea(u"ToolArea").context); // no context offered
    QF::AddProperty({}, property.get());

    auto area = BasicServiceObjectPtr<>::adopt(
        SODetails::makeServiceObject<QF::PropertyAreaTable, moduletest::FakeService,
                                     moduletest::FakeTraits>(QF::kPropertyAreaId, "QFPropertyArea",
                                                             2, kAreaTable));
    gArea = area.get();
    {
        moduletest::ServiceRegistration context("QFPropertiesContext", QF::kPropertiesContextId,
                                                kContextTable);
        QF::PropertyArea opened = QF::OpenPropertyArea(u"ToolArea");
        EXPECT_EQ(opened.context.get(), context.object());
        EXPECT_EQ(opened.area.get(), area.get());
        EXPECT_EQ(gAreaName, u"ToolArea");
        QF::AddProperty(opened, property.get());
        auto& added = SODetails::implOf<QF::PropertyAreaTable, moduletest::FakeService>(gArea);
        ASSERT_EQ(added.calls.size(), 1u);
        EXPECT_EQ(added.calls[0].object, property.get());
        EXPECT_EQ(refCountOf(property.get()), 2); // the area keeps one

        added.results[0] = 7;
        EXPECT_THROW(QF::AddProperty(opened, property.get()), ServiceObjectException);
        context.fake().results[0] = 0x10008;
        try {
            QF::OpenPropertyArea(u"ToolArea");
            ADD_FAILURE() << "no exception";
        } catch (const ServiceObjectException& e) {
            EXPECT_EQ(e.Code(), 0x10008u);
        }
    }
    gArea = nullptr;
    area.reset();
    EXPECT_EQ(refCountOf(property.get()), 1);

    // An older context without GetArea: nothing opened, nothing added, nothing kept.
    static EmptyContextBlock old{};
    auto release = [](ServiceObject* so) {
        return SODetails::detail::refsOf(so)->fetch_sub(1) - 1;
    };
    old.header = {QF::kPropertiesContextId,
                  0,
                  "QFPropertiesContext",
                  {SODetails::detail::addRef, release, SODetails::detail::getRefCount, nullptr,
                   moduletest::FakeTraits::GetLastErrorInfo}};
    old.refs = 1;
    auto give = [](void* c) {
        return BasicServiceObjectPtr<>::share(static_cast<ServiceObject*>(c)).detach();
    };
    const uint32_t atom = moduletest::atomOf("QFPropertiesContext");
    ASSERT_EQ(ServiceProviderRegisterService(atom, give, &old), 0u);
    QF::PropertyArea none = QF::OpenPropertyArea(u"ToolArea");
    EXPECT_FALSE(none.context);
    EXPECT_FALSE(none.area);
    QF::AddProperty(none, property.get());
    EXPECT_EQ(refCountOf(property.get()), 1);
    EXPECT_EQ(old.refs.load(), 1);
    ServiceProviderRegisterService(atom, nullptr, nullptr);
}

} // namespace
