// The terminal fields of a form as pdfcore reads them and as pypdf reads them (through
// pypdf_fields.py, written independently of pdfcore), and their comparison field by field.
#pragma once

#include "TestSupport.h"

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

namespace pdtest {

using Options = std::vector<std::pair<std::u16string, std::u16string>>; // (export, display)

struct FieldFacts {
    std::string type; // "" when the field has no /FT
    uint32_t flags = 0;
    std::optional<std::u16string> value; // nullopt: no value
    bool compareValue = true;            // false for values pypdf cannot give as text
    Options options;                     // choice fields only
    std::vector<int> pages;              // page index of each widget (sorted), -1: on none
    bool merged = false;                 // pypdf only: the field is its one widget
    bool emptyArray = false;             // pypdf only: /V is an empty array
};
using Form = std::map<std::u16string, FieldFacts>; // by full name

struct Listing {
    Form fields;
    std::vector<std::u16string> order; // full names in tree order
    int pages = 0;
    bool encrypted = false;
    std::string error; // pypdf only: why the file could not be listed
};

inline std::string valueText(const std::optional<std::u16string>& v) {
    return v ? "\"" + utf8(*v) + "\"" : "(none)";
}

inline std::vector<std::string> utf8(const std::vector<std::u16string>& names) {
    std::vector<std::string> out;
    for (const auto& n : names)
        out.push_back(utf8(n));
    return out;
}

// The terminal fields as pdfcore reports them. Two fields of one name are a failure.
inline Listing readWithPdfcore(PDDoc doc) {
    Listing out;
    uint32_t pageCount = 0;
    EXPECT_EQ(PDDocGetNumPages(doc, &pageCount), PD_OK);
    out.pages = static_cast<int>(pageCount);
    std::vector<Owned> keep;
    std::map<PDAnnot, int> pageOf;
    for (uint32_t p = 0; p < pageCount; ++p)
        for (auto& a : annotsOf(page(doc, p).get())) {
            pageOf.emplace(a.get(), static_cast<int>(p));
            keep.push_back(std::move(a));
        }
    for (const auto& f : fieldsOf(doc)) {
        auto call = [&](auto get) {
            return fetch(
                [&](char16_t* b, uint32_t n, uint32_t* l) { return get(f.get(), b, n, l); });
        };
        Got name = call(PDFieldGetFullName);
        EXPECT_EQ(name.result, PD_OK);
        FieldFacts facts;
        PDAtom type = 0;
        PDResult r = PDFieldGetType(f.get(), &type);
        facts.type = r == PD_OK             ? atomText(type)
                     : r == PD_ERR_NO_VALUE ? ""
                                            : "<error " + std::to_string(r) + ">";
        EXPECT_EQ(PDFieldGetFlags(f.get(), &facts.flags), PD_OK);
        Got value = call(PDFieldGetValue);
        if (value.result == PD_OK)
            facts.value = value.text;
        else if (value.result != PD_ERR_NO_VALUE)
            facts.value = u"<error " + u16(std::to_string(value.result)) + u">";
        uint32_t n = 0;
        if (type == PD_ATOM_Ch) {
            EXPECT_EQ(PDChoiceFieldGetNumOptions(f.get(), &n), PD_OK);
        }
        for (uint32_t k = 0; k < n; ++k) {
            Got ex = call([k](PDField c, char16_t* b, uint32_t len, uint32_t* l) {
                return PDChoiceFieldGetOptionExportValue(c, k, b, len, l);
            });
            Got disp = call([k](PDField c, char16_t* b, uint32_t len, uint32_t* l) {
                return PDChoiceFieldGetOptionValue(c, k, b, len, l);
            });
            EXPECT_EQ(ex.result, PD_OK);
            EXPECT_EQ(disp.result, PD_OK);
            facts.options.emplace_back(ex.text, disp.text);
        }
        for (const auto& w : widgetsOf(f.get())) {
            auto it = pageOf.find(w.get()); // the same handle as the page's annotation
            facts.pages.push_back(it == pageOf.end() ? -1 : it->second);
        }
        std::sort(facts.pages.begin(), facts.pages.end());
        out.order.push_back(name.text);
        EXPECT_TRUE(out.fields.emplace(name.text, facts).second)
            << "two fields named " << utf8(name.text);
    }
    return out;
}

// The terminal fields as pypdf reads them (an encrypted file with password, ASCII).
inline Listing readWithPypdf(const std::string& path, const std::string& password = "") {
    Listing out;
    std::string script =
        (std::filesystem::path(__FILE__).parent_path() / "pypdf_fields.py").string();
    int status = -1;
    std::string json = run(std::string(QF_PYTHON) + " '" + script + "' '" + path + "' '" +
                               password + "' 2>&1",
                           &status);
    auto j = nlohmann::json::parse(json, nullptr, false);
    if (status != 0 || j.is_discarded() || !j.contains("fields")) {
        out.error = "pypdf_fields.py exit " + std::to_string(status) + ": " + json.substr(0, 400);
        return out;
    }
    out.pages = j.at("pages").get<int>();
    out.encrypted = j.at("encrypted").get<bool>();
    for (const auto& n : j.at("order"))
        out.order.push_back(utf16(n.get<std::string>()));
    auto text = [](const nlohmann::json& t) {
        return utf16(t.is_string() ? t.get<std::string>() : "");
    };
    for (const auto& [name, f] : j.at("fields").items()) {
        FieldFacts facts;
        facts.type = f.at("type").is_null() ? "" : f.at("type").get<std::string>();
        facts.flags = f.at("flags").get<uint32_t>();
        const auto& v = f.at("value");
        if (v.is_string()) {
            facts.value = text(v);
            facts.compareValue = v.get<std::string>() != "<dict>"; // a signature
        } else if (v.is_array()) {
            if (!v.empty() && v[0].is_string()) facts.value = text(v[0]);
            facts.emptyArray = v.empty();
        }
        if (facts.type == "Ch" && f.at("options").is_array())
            for (const auto& o : f.at("options"))
                facts.options.emplace_back(text(o[0]), text(o[1]));
        for (const auto& p : f.at("pages"))
            facts.pages.push_back(p.get<int>());
        facts.merged = f.at("merged").get<bool>();
        out.fields.emplace(utf16(name), facts);
    }
    return out;
}

// Field-by-field comparison, so that a difference names the field.
inline void expectSameFields(const Form& expected, const Form& actual, const std::string& what) {
    for (const auto& [name, e] : expected) {
        auto it = actual.find(name);
        if (it == actual.end()) {
            ADD_FAILURE() << what << ": field \"" << utf8(name) << "\" is missing";
            continue;
        }
        const FieldFacts& a = it->second;
        std::string at = what + ", field \"" + utf8(name) + "\"";
        EXPECT_EQ(a.type, e.type) << at;
        EXPECT_EQ(a.flags, e.flags) << at;
        EXPECT_EQ(a.pages, e.pages) << at << ": pages of the widgets";
        if (e.compareValue && a.compareValue) {
            EXPECT_EQ(valueText(a.value), valueText(e.value))
                << at << (e.emptyArray ? ": /V is an empty array, nothing is selected" : "");
        }
        if (e.type == "Ch") {
            std::vector<std::string> eo, ao;
            for (const auto& [x, d] : e.options)
                eo.push_back(utf8(x) + " | " + utf8(d));
            for (const auto& [x, d] : a.options)
                ao.push_back(utf8(x) + " | " + utf8(d));
            EXPECT_EQ(ao, eo) << at << ": options (export | display)";
        }
    }
    for (const auto& [name, a] : actual)
        if (!expected.count(name))
            ADD_FAILURE() << what << ": unexpected field \"" << utf8(name) << "\"";
}

} // namespace pdtest
