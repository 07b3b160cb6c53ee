// libFuzzer target: arbitrary text parsed as JSON and made into a PDF action of a new
// three-page document with a few fields (jsonToPDAction, the converter the widget
// clipboard pastes actions with). A record may be refused by an exception or make
// nothing. When it makes an action, the action's record (pdActionToJson) must make an
// action again whose record is the same: the first conversion drops what records do not
// carry (field names the document lacks, the GoToE relationship, targets without an
// annotation index, successors of unknown types), after that nothing more may change.
// Failing that aborts, with both records on stderr. Also no crash, no leak, no hang.
//
// Single-threaded; the document of an input is closed before the next input.

#include "qf/internal/AnnotClipboardUtils"

#include "pdfcore/pdfcore.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

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
                 first.dump(-1, ' ', false, Json::error_handler_t::replace).c_str(),
                 second.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Json record = Json::parse(data, data + size, nullptr, false);
    if (record.is_discarded()) return 0;
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
    if (second != first) unstable("the record changed on a second round trip", first, second);
    return 0;
}
