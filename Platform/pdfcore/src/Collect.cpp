// Taking back the objects a session made and then let go of: a mark from the trailer and
// from every live handle, and a sweep of the unmarked objects made since the document was
// opened. qpdf never forgets an object by itself, so without this a long session of
// creating, deleting and undoing would grow without end.
#include "Core.h"
#include "Fonts.h"

#include <qpdf/BufferInputSource.hh>

#include <algorithm>
#include <functional>
#include <iterator>
#include <limits>

namespace pdfcore {
namespace {

// Erases the entries of a set or map for which pred answers true (pdfcore is also built
// as C++17, without std::erase_if).
template <typename Container, typename Pred>
void eraseIf(Container& c, Pred pred) {
    for (auto it = c.begin(); it != c.end();) it = pred(*it) ? c.erase(it) : std::next(it);
}

class Marker {
public:
    explicit Marker(Document& doc) : marked_(doc.qpdf->getObjectCount() + 1, false) {}
    size_t count() const { return count_; }

    // Marks obj and everything it leads to.
    void mark(QPDFObjectHandle obj) {
        stack_.push_back(std::move(obj));
        while (!stack_.empty()) {
            QPDFObjectHandle h = std::move(stack_.back());
            stack_.pop_back();
            if (h.isIndirect()) {
                const auto id = static_cast<size_t>(h.getObjectID());
                if (id < marked_.size()) {
                    if (marked_[id]) continue;
                    marked_[id] = true;
                    ++count_;
                }
            }
            if (h.isArray()) {
                for (auto& item : h.aitems()) stack_.push_back(item);
            } else if (h.isDictionary()) {
                for (auto& [key, value] : h.ditems()) stack_.push_back(value);
            } else if (h.isStream()) {
                stack_.push_back(h.getDict());
            }
        }
    }

    bool marked(QPDFObjGen og) const {
        const auto id = static_cast<size_t>(og.getObj());
        return id >= marked_.size() || marked_[id];
    }
    size_t size() const { return marked_.size(); }

private:
    std::vector<bool> marked_;  // by object number
    size_t count_ = 0;
    std::vector<QPDFObjectHandle> stack_;
};

}  // namespace

size_t collectGarbage(Document& doc) {
    doc.garbageOutlook = 0;
    if (doc.firstSessionObject == std::numeric_limits<int>::max()) return 0;  // none made
    flushAnnotLists(doc);
    std::vector<QPDFObjectHandle> held;
    {
        std::lock_guard lock(doc.registryMutex);
        held.reserve(doc.handles.size() + doc.directHandles.size());
        for (const auto& [key, rec] : doc.handles) held.push_back(rec->obj);
        for (const PDHandleRec* rec : doc.directHandles) held.push_back(rec->obj);
    }

    Marker marker(doc);
    {
        // Emptied fields are reached from the trailer only while they are in the form; out
        // of it, only a handle keeps them (an undoable command that may put a widget back).
        UnusedFieldsDetached unused(doc);
        marker.mark(doc.qpdf->getTrailer());
        for (auto& obj : held) marker.mark(obj);
        // The streams of a widget's last drawing are written over by its next one.
        for (const auto& [widget, streams] : doc.drawnStreams) {
            if (!marker.marked(widget)) continue;
            for (const auto& stream : streams) marker.mark(stream);
        }
        for (const auto& stream : doc.spareStreams) marker.mark(stream);
        markSavedStates(doc, [&](QPDFObjectHandle obj) { marker.mark(std::move(obj)); });
        for (const auto& object : embeddedFaceObjects(doc)) marker.mark(object);
        // Those made here that nothing holds leave the form for good.
        unused.forget([&](QPDFObjGen og) {
            return og.getObj() >= doc.firstSessionObject && !marker.marked(og);
        });
    }

    size_t freed = 0;
    const auto count = static_cast<int>(marker.size());
    for (int id = std::max(doc.firstSessionObject, 1); id < count; ++id) {
        const QPDFObjGen og(id, 0);
        if (marker.marked(og)) continue;
        QPDFObjectHandle obj = doc.qpdf->getObject(og);
        if (obj.isNull()) continue;
        if (obj.isStream()) {
            obj.replaceStreamData("", QPDFObjectHandle::newNull(), QPDFObjectHandle::newNull());
            for (const auto& key : obj.getDict().getKeys()) obj.getDict().removeKey(key);
            doc.spareStreams.push_back(obj);
        } else {
            doc.qpdf->replaceObject(og, QPDFObjectHandle::newNull());
            doc.spareNumbers.push_back(id);
        }
        ++freed;
    }
    if (freed != 0) {
        const auto gone = [&](QPDFObjGen og) { return !marker.marked(og); };
        eraseIf(doc.emptiedFields, gone);
        for (QPDFObjGen& og : doc.fieldsMade)
            if (gone(og)) og = QPDFObjGen();
        eraseIf(doc.staleAppearances, [&](const auto& e) { return gone(e.first); });
        eraseIf(doc.detachedInputs, [&](const auto& e) { return gone(e.first); });
        eraseIf(doc.annotFacts, [&](const auto& e) { return gone(e.first); });
        eraseIf(doc.drawnStreams, [&](const auto& e) { return gone(e.first); });
        eraseIf(doc.sharedDrawings, [&](const auto& e) { return gone(e.second.getObjGen()); });
        eraseIf(doc.cleanAnnots, [&](const auto& e) { return gone(e.first); });
        eraseIf(doc.annotLists, [&](const auto& e) { return gone(e.first); });
        doc.nameIndexBuilt = false;
        doc.formChanged = true;
    }
    doc.liveAtCollect = marker.count();
    return freed;
}

namespace {

constexpr int64_t kSizePastObjects = 1 << 20;
constexpr int kStreamsNumbered = 256;

// The number the next object made here takes: past the file's own objects and its /Size
// (a reference past both reads as null, and stays so unless it meets a number given out
// here), and past those qpdf numbered itself (makeStream). -1 past the largest number
// there is, where qpdf's numbering takes over (and fails).
int& nextNumber(Document& doc) {
    if (doc.nextNumber == 0) {
        const auto xref = doc.qpdf->getXRefTable();
        int64_t next = xref.empty() ? 1 : int64_t(xref.rbegin()->first.getObj()) + 1;
        QPDFObjectHandle size = doc.qpdf->getTrailer().getKey("/Size");
        // (A /Size far past the objects there are would only make numbers large.)
        if (size.isInteger() && size.getIntValue() > next &&
            size.getIntValue() <= next + kSizePastObjects)
            next = size.getIntValue();
        doc.nextNumber = next < std::numeric_limits<int>::max() ? int(next) : -1;
    }
    return doc.nextNumber;
}

// Moves next past used, a number just given out.
void passNumber(int& next, int used) {
    if (next > 0 && next <= used)
        next = used < std::numeric_limits<int>::max() - 1 ? used + 1 : -1;
}

}  // namespace

QPDFObjectHandle makeIndirect(Document& doc, QPDFObjectHandle direct) {
    ++doc.garbageOutlook;
    QPDFObjGen og;
    if (!doc.spareNumbers.empty()) {
        og = QPDFObjGen(doc.spareNumbers.back(), 0);
        doc.spareNumbers.pop_back();
    } else if (int& next = nextNumber(doc); next > 0) {
        og = QPDFObjGen(next, 0);
        passNumber(next, og.getObj());
        doc.firstSessionObject = std::min(doc.firstSessionObject, og.getObj());
    } else {
        QPDFObjectHandle made = doc.qpdf->makeIndirectObject(direct);  // throws when full
        doc.firstSessionObject = std::min(doc.firstSessionObject, made.getObjectID());
        return made;
    }
    doc.qpdf->replaceObject(og, direct);
    return doc.qpdf->getObject(og);
}

QPDFObjectHandle makeStream(Document& doc, const std::string& data) {
    ++doc.garbageOutlook;
    if (!doc.spareStreams.empty()) {
        QPDFObjectHandle stream = std::move(doc.spareStreams.back());
        doc.spareStreams.pop_back();
        stream.replaceStreamData(data, QPDFObjectHandle::newNull(), QPDFObjectHandle::newNull());
        return stream;
    }
    int& next = nextNumber(doc);
    QPDFObjectHandle made;
    if (!doc.fileBytes.empty() && doc.streamsNumbered < kStreamsNumbered && next > 0) {
        // qpdf's update from JSON is its one way to make a stream under a number of one's
        // own. Each walks every object qpdf holds, so only the first streams of a session
        // are made so; a session that draws more has the file read once, by newStream.
        ++doc.streamsNumbered;
        const QPDFObjGen og(next, 0);
        passNumber(next, og.getObj());
        doc.qpdf->updateFromJSON(std::make_shared<BufferInputSource>(
            "new stream", "{\"qpdf\": [{\"jsonversion\": 2}, {\"obj:" + og.unparse(' ') +
                              " R\": {\"stream\": {\"dict\": {}, \"data\": \"\"}}}]}"));
        made = doc.qpdf->getObject(og);
        made.replaceStreamData(data, QPDFObjectHandle::newNull(), QPDFObjectHandle::newNull());
    } else {
        made = doc.qpdf->newStream(data);
        passNumber(next, made.getObjectID());
    }
    doc.firstSessionObject = std::min(doc.firstSessionObject, made.getObjectID());
    return made;
}

void collectWhenDue(Document& doc) {
    const size_t due = std::max(kCollectAfterObjects, doc.liveAtCollect / 2);
    if (doc.garbageOutlook >= due * kOutlookPerObject) collectGarbage(doc);
}

}  // namespace pdfcore

using namespace pdfcore;

extern "C" {

PDResult PDDocCollectGarbage(PDDoc doc, uint32_t* outFreed) {
    if (outFreed) *outFreed = 0;
    return guard([&] {
        Document& d = checkedDoc(doc);
        const size_t freed = collectGarbage(d);
        if (outFreed) *outFreed = static_cast<uint32_t>(std::min<size_t>(freed, UINT32_MAX));
    });
}

}  // extern "C"
