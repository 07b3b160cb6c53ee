#include "Records.h"

#include "qf/internal/AnnotClipboardUtils"

#include <nlohmann/json.hpp>
#include <valijson/adapters/nlohmann_json_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>

#include <algorithm>
#include <cmath>
#include <deque>
#include <memory>
#include <vector>

namespace qfforms {

// The text of docs/schema/widget-record.schema.json, built in (RecordSchema.cpp.in).
extern const char* const kRecordSchema;

namespace {

using Json = nlohmann::json;

// A schema, as JSON (to describe what a key must hold) and as valijson's checker.
struct Format {
    Json json;
    valijson::Schema schema;

    explicit Format(Json text) : json(std::move(text)) {
        valijson::SchemaParser parser(valijson::SchemaParser::kDraft7);
        valijson::adapters::NlohmannJsonAdapter adapter(json);
        parser.populateSchema(adapter, schema);
    }
};

// The record's schema, and its definitions of an action and of a GoToE target on their
// own: chains of them are checked a link at a time.
struct RecordFormat {
    Format record, action, target;

    RecordFormat()
        : record(Json::parse(kRecordSchema)), action(part("action")), target(part("target")) {}

  private:
    static Json part(const char* name) {
        return Json{{"$ref", std::string("#/definitions/") + name},
                    {"definitions", Json::parse(kRecordSchema)["definitions"]}};
    }
};

const RecordFormat& recordFormat() {
    static const RecordFormat format;
    return format;
}

// A node of the schema with its local "$ref" followed; the referring node's description
// is kept when the target has none.
struct SchemaNode {
    const Json* node = nullptr;
    std::string description;
};

SchemaNode resolve(const Json& root, const Json* node) {
    SchemaNode out;
    for (int hops = 0; node && node->is_object() && hops < 8; ++hops) {
        if (out.description.empty() && node->contains("description"))
            out.description = (*node)["description"].get<std::string>();
        const auto ref = node->find("$ref");
        if (ref == node->end()) break;
        const std::string target = ref->get<std::string>();
        node = target.rfind("#/", 0) == 0
                   ? &root.at(Json::json_pointer(target.substr(1)))
                   : nullptr;
    }
    out.node = node;
    if (node && node->contains("description"))
        out.description = (*node)["description"].get<std::string>();
    return out;
}

// One step of a path through a record: a key of an object or an index of a list.
struct Step {
    std::string key;
    std::optional<size_t> index;
};

// The steps of valijson's context ("<root>", "[Rect]", "[left]"), told apart by the value
// each one enters.
std::vector<Step> stepsOf(const std::vector<std::string>& context, const Json& record) {
    std::vector<Step> steps;
    const Json* value = &record;
    for (size_t i = 1; i < context.size(); ++i) {
        const std::string& part = context[i];
        if (part.size() < 2 || part.front() != '[' || part.back() != ']') break;
        const std::string inner = part.substr(1, part.size() - 2);
        if (value && value->is_array()) {
            const size_t k = std::stoul(inner);
            steps.push_back({"", k});
            value = k < value->size() ? &(*value)[k] : nullptr;
        } else {
            steps.push_back({inner, std::nullopt});
            value = value && value->is_object() && value->contains(inner) ? &(*value)[inner]
                                                                          : nullptr;
        }
    }
    return steps;
}

bool plainKey(const std::string& key) {
    return !key.empty() && std::all_of(key.begin(), key.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_';
    });
}

// "Rect.left", "options[2].option-value", "[\"odd key\"]"; a key repeated more than
// twice in a row (a chain of actions) once, with the count: "next-action (x12000)".
std::string pathText(const std::vector<Step>& steps) {
    std::string out;
    for (size_t i = 0; i < steps.size(); ++i) {
        const Step& s = steps[i];
        size_t run = 1;
        while (!s.index && i + run < steps.size() && !steps[i + run].index &&
               steps[i + run].key == s.key)
            ++run;
        if (run > 2) {
            out += (out.empty() ? "" : ".") + s.key + " (x" + std::to_string(run) + ")";
            i += run - 1;
            continue;
        }
        if (s.index) {
            out += "[" + std::to_string(*s.index) + "]";
        } else if (plainKey(s.key)) {
            out += (out.empty() ? "" : ".") + s.key;
        } else {
            out += "[" + Json(s.key).dump(-1, ' ', false, Json::error_handler_t::replace) + "]";
        }
    }
    return out;
}

std::string where(const std::vector<Step>& steps) {
    return steps.empty() ? "the record" : "the record's " + pathText(steps);
}

const Json* valueAt(const Json& record, const std::vector<Step>& steps) {
    const Json* value = &record;
    for (const Step& s : steps) {
        if (s.index) {
            if (!value->is_array() || *s.index >= value->size()) return nullptr;
            value = &(*value)[*s.index];
        } else {
            if (!value->is_object() || !value->contains(s.key)) return nullptr;
            value = &(*value)[s.key];
        }
    }
    return value;
}

SchemaNode schemaAt(const Json& root, const std::vector<Step>& steps) {
    SchemaNode at = resolve(root, &root);
    for (const Step& s : steps) {
        const Json* next = nullptr;
        if (at.node && at.node->is_object()) {
            if (s.index) {
                if (at.node->contains("items")) next = &(*at.node)["items"];
            } else if (at.node->contains("properties") &&
                       (*at.node)["properties"].contains(s.key)) {
                next = &(*at.node)["properties"][s.key];
            }
        }
        if (!next) return {};
        at = resolve(root, next);
    }
    return at;
}

std::string numberText(const Json& n) { return n.dump(); }

// What a node of the schema asks for: "a whole number from 0 to 4 (0 left, ...)".
std::string expectation(const SchemaNode& at) {
    if (!at.node || !at.node->is_object()) return "";
    const Json& n = *at.node;
    std::string out;
    if (n.contains("enum")) {
        const Json& values = n["enum"];
        out = "one of ";
        for (size_t i = 0; i < values.size(); ++i)
            out += (i == 0 ? "" : i + 1 == values.size() ? " or " : ", ") + values[i].dump();
    } else if (n.contains("type")) {
        auto kind = [](const std::string& type) -> std::string {
            if (type == "integer") return "a whole number";
            if (type == "number") return "a number";
            if (type == "string") return "a text";
            if (type == "boolean") return "true or false";
            if (type == "object") return "an object";
            if (type == "array") return "a list";
            return type;
        };
        const Json& type = n["type"];
        if (type.is_array()) {
            for (size_t i = 0; i < type.size(); ++i)
                out += (i == 0 ? "" : " or ") + kind(type[i].get<std::string>());
        } else {
            out = kind(type.get<std::string>());
        }
        if (n.contains("multipleOf")) out += ", a multiple of " + numberText(n["multipleOf"]);
        if (n.contains("minimum") && n.contains("maximum"))
            out += " from " + numberText(n["minimum"]) + " to " + numberText(n["maximum"]);
        else if (n.contains("minimum"))
            out += " of " + numberText(n["minimum"]) + " or more";
        if (n.contains("minItems"))
            out += " of at least " + std::to_string(n["minItems"].get<int>()) + " items";
        if (n.contains("maxLength"))
            out += " of at most " + std::to_string(n["maxLength"].get<int>()) + " characters";
    }
    if (!at.description.empty()) out += " (" + at.description + ")";
    return out;
}

// A short picture of a value, for "not ...".
std::string valueText(const Json& v) {
    switch (v.type()) {
    case Json::value_t::object: return "an object";
    case Json::value_t::array:
        return "a list of " + std::to_string(v.size()) + (v.size() == 1 ? " item" : " items");
    case Json::value_t::null: return "null";
    case Json::value_t::string: {
        std::string s = v.get<std::string>();
        if (s.size() > 40) s = s.substr(0, 37) + "...";
        return Json(s).dump(-1, ' ', false, Json::error_handler_t::replace);
    }
    default: return v.dump();
    }
}

// The text between the last pair of single quotes of a valijson description.
std::string quotedName(const std::string& description) {
    const size_t end = description.rfind('\'');
    const size_t start = end == std::string::npos ? end : description.rfind('\'', end - 1);
    if (start == std::string::npos) return "";
    return description.substr(start + 1, end - start - 1);
}

// The sentence for error, found in value (at prefix in the record) against schema.
std::string sentence(const valijson::ValidationResults::Error& error, const Json& value,
                     const Json& schema, const std::vector<Step>& prefix) {
    const std::vector<Step> inside = stepsOf(error.context, value);
    std::vector<Step> steps = prefix;
    steps.insert(steps.end(), inside.begin(), inside.end());
    const Json& record = value;
    const std::string& d = error.description;
    if (d.rfind("Missing required property", 0) == 0) {
        const std::string key = quotedName(d);
        std::vector<Step> keyPath = inside;
        keyPath.push_back({key, std::nullopt});
        const std::string expected = expectation(schemaAt(schema, keyPath));
        return where(steps) + " lacks " + Json(key).dump() +
               (expected.empty() ? "" : ", which must be " + expected);
    }
    if (d.rfind("Object contains a property that could not be validated", 0) == 0) {
        const SchemaNode at = schemaAt(schema, inside);
        std::string known;
        if (at.node && at.node->contains("properties") && (*at.node)["properties"].size() <= 8) {
            for (const auto& [key, value] : (*at.node)["properties"].items())
                known += (known.empty() ? "" : ", ") + Json(key).dump();
            known = " (the keys it may hold: " + known + ")";
        } else {
            known = " (docs/schema/widget-record.schema.json lists the keys)";
        }
        return where(steps) + " holds the unknown key " +
               Json(quotedName(d)).dump(-1, ' ', false, Json::error_handler_t::replace) + known;
    }
    const Json* found = valueAt(record, inside);
    const std::string expected = expectation(schemaAt(schema, inside));
    if (expected.empty()) return where(steps) + " is not of the record format (" + d + ")";
    return where(steps) + " must be " + expected + (found ? ", not " + valueText(*found) : "");
}

// The first control character of name (UTF-8), or nothing.
std::optional<unsigned char> controlCharacter(std::string_view name) {
    for (const char c : name) {
        const auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7F) return u;
    }
    return std::nullopt;
}

std::string hexByte(unsigned char c) {
    static const char* const digits = "0123456789ABCDEF";
    return std::string("U+00") + digits[c >> 4] + digits[c & 15];
}

// A link of a chain taken out of the record to be checked on its own: an action or a GoToE
// target, found below the record's trigger key after `actions` next actions and `targets`
// targets.
struct Link {
    Json value;
    bool isTarget;
    std::string key;
    size_t actions;
    size_t targets;

    std::vector<Step> path() const {
        std::vector<Step> steps{{key, std::nullopt}};
        for (size_t i = 0; i < actions; ++i) steps.push_back({"next-action", std::nullopt});
        for (size_t i = 0; i < targets; ++i)
            steps.push_back({"go-to-e-action-target", std::nullopt});
        return steps;
    }
};

// Takes the value of key out of holder (an object) when it is an object, leaving {} in
// its place, which the schema takes for either kind of link.
std::optional<Json> detach(Json& holder, const char* key) {
    if (!holder.is_object()) return std::nullopt;
    const auto it = holder.find(key);
    if (it == holder.end() || !it->is_object()) return std::nullopt;
    Json taken = std::move(*it);
    *it = Json::object();
    return taken;
}

// Cuts the chains of the record's actions into links, so that a chain of any length is
// checked in time and stack proportional to it: the record keeps each trigger's first
// action and that action's first target, every further link goes to links.
void cutChains(Json& record, std::deque<Link>& links) {
    for (auto& [key, first] : record.items()) {
        if (!first.is_object() || key == "Rect" || key == "border-style" || key == "icon-fit")
            continue;
        Json* action = &first;
        size_t actions = 0;
        for (;;) {
            if (auto target = detach(*action, "go-to-e-action-target")) {
                // The action's own target stays with it; deeper ones become links.
                Json* holder = &*target;
                size_t targets = 1;
                while (auto nested = detach(*holder, "go-to-e-action-target")) {
                    links.push_back({std::move(*nested), true, key, actions, ++targets});
                    holder = &links.back().value;
                }
                (*action)["go-to-e-action-target"] = std::move(*target);
            }
            auto next = detach(*action, "next-action");
            if (!next) break;
            links.push_back({std::move(*next), false, key, ++actions, 0});
            action = &links.back().value;
        }
    }
}

} // namespace

std::optional<std::string> recordProblem(std::string_view text) {
    if (text.size() > kMaxRecordBytes)
        return "the record is " + std::to_string(text.size()) + " bytes, more than the " +
               std::to_string(kMaxRecordBytes >> 20) + " MiB a record may hold";
    Json record;
    try {
        // As deep as the module reads records, and no deeper.
        record = JsonUtility::ActionSerialization::parseRecord(text);
    } catch (const Json::parse_error& e) {
        return "the record is not JSON (" + jsonDetail(e) + ")";
    }
    if (!record.is_object())
        return "the record must be a JSON object of a widget's keys, not " + valueText(record);

    const RecordFormat& format = recordFormat();
    const auto name = record.is_object() && record.contains("name") && record["name"].is_string()
                          ? std::optional<std::string>(record["name"].get<std::string>())
                          : std::nullopt;
    std::deque<Link> links;
    cutChains(record, links);
    valijson::Validator validator;
    auto problem = [&](const Format& f, const Json& value,
                       const std::vector<Step>& prefix) -> std::optional<std::string> {
        valijson::ValidationResults results;
        if (validator.validate(f.schema, valijson::adapters::NlohmannJsonAdapter(value),
                               &results))
            return std::nullopt;
        valijson::ValidationResults::Error error;
        results.popError(error);
        return sentence(error, value, f.json, prefix);
    };
    if (auto p = problem(format.record, record, {})) return p;
    for (const Link& link : links)
        if (auto p = problem(link.isTarget ? format.target : format.action, link.value,
                             link.path()))
            return p;
    if (name) return nameProblem(*name, "the record's \"name\"");
    return std::nullopt;
}

std::string jsonDetail(const std::exception& e) {
    std::string text = e.what();
    if (const size_t tag = text.find("[json.exception."); tag != std::string::npos)
        if (const size_t end = text.find("] ", tag); end != std::string::npos)
            text.erase(tag, end + 2 - tag);
    return text;
}

std::optional<std::string> nameProblem(std::string_view name, const std::string& what) {
    const auto c = controlCharacter(name);
    if (!c) return std::nullopt;
    return what + " holds the control character " + hexByte(*c) +
           ", which no field name may hold (U+0000 to U+001F, U+007F)";
}

} // namespace qfforms
