// libFuzzer target: arbitrary text parsed as JSON and made into a PDF action of a new
// three-page document with a few fields (jsonToPDAction, the converter the widget
// clipboard pastes actions with). A record may be refused by an exception or make
// nothing. When it makes an action, the action's record (pdActionToJson) must make an
// action again whose record is the same: the first conversion drops what records do not
// carry (field names the document lacks, the GoToE relationship, targets without an
// annotation index, successors of unknown types), after that nothing more may change.
// Failing that aborts, with both records on stderr. Also no crash, no leak, no hang, at
// any depth of nesting the records allow (chains of next actions, nested targets).
//
// Single-threaded; the document of an input is closed before the next input.

#include "qf/internal/AnnotClipboardUtils"

#include "pdfcore/pdfcore.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using namespace JsonUtility::ActionSerialization;
using QF::PDHandlePtr;

PDHandlePtr newDocument() {
    PDHandlePtr doc;
    if (PDDocCreate(3, 612, 792, doc.put()) != PD_OK) std::abort();
    // The names of the seed records' field lists and hide items.
    for (std::u16string_view name : {u"name", u"address.city", u"Text1", u"CheckBox1"}) {
        PDHandlePtr field;
        if (PDDocCreateField(doc.get(), name.data(), uint32_t(name.size()), PD_ATOM_Tx, 0,
                             field.put()) != PD_OK)
            std::abort();
    }
    return doc;
}

[[noreturn]] void unstable(const char* what, const Json& first, const Json& second) {
    std::fprintf(stderr, "action_fuzzer: %s\nfirst:  %s\nsecond: %s\n", what,
                 recordText(first, Json::error_handler_t::replace).c_str(),
                 recordText(second, Json::error_handler_t::replace).c_str());
    std::abort();
}

// a == b for records of any depth (the library's comparison calls itself per level).
bool same(const Json& a, const Json& b) {
    std::vector<std::pair<const Json*, const Json*>> pending{{&a, &b}};
    while (!pending.empty()) {
        const auto [x, y] = pending.back();
        pending.pop_back();
        if (!x->is_structured() || !y->is_structured()) {
            if (*x != *y) return false;
        } else if (x->type() != y->type() || x->size() != y->size()) {
            return false;
        } else if (x->is_object()) {
            for (auto i = x->begin(), j = y->begin(); i != x->end(); ++i, ++j) {
                if (i.key() != j.key()) return false;
                pending.emplace_back(&*i, &*j);
            }
        } else {
            for (size_t k = 0; k < x->size(); ++k) pending.emplace_back(&(*x)[k], &(*y)[k]);
        }
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Json record;
    try {
        record = parseRecord(std::string(reinterpret_cast<const char*>(data), size));
    } catch (const Json::exception&) {
        return 0;
    }
    const PDHandlePtr doc = newDocument();
    PDHandlePtr action;
    try {
        action = jsonToPDAction(doc.get(), record);
    } catch (...) {
        return 0; // a refused record: an answer
    }
    if (!action) return 0;
    // From here on every record is one the converters wrote themselves: any exception is a
    // fault and ends the run as one.
    const Json first = pdActionToJson(doc.get(), action.get());
    const PDHandlePtr again = jsonToPDAction(doc.get(), first);
    if (!again) unstable("the record of an action makes no action", first, Json());
    const Json second = pdActionToJson(doc.get(), again.get());
    if (!same(first, second)) unstable("the record changed on a second round trip", first, second);
    return 0;
}
