#include "FormsCommands.h"

#include "kr/KRRuntime.h"
#include "qf/internal/ServiceObjectException.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <utility>

using QF::PDHandlePtr;
using SODetails::BasicServiceObjectPtr;
using SODetails::ServiceObject;

namespace {

const _AutoReg_Command::Registration<TabOrderCommandImpl> kTabOrder("TabOrderAnnot");
const _AutoReg_Command::Registration<AutoTabOrderCommandImpl> kAutoTabOrder("AutoTabOrderAnnot");
const _AutoReg_Command::Registration<MoveOrderFocusCommandImpl>
    kMoveOrderFocus("MoveAnnotsFocusOrder");

constexpr const char16_t* kPDFLayerError = u"PDF layer error!";

// Change kinds of the document's several-annotations notification.
constexpr uint32_t kChangeInserted = 0;
constexpr uint32_t kChangeRemoved = 1;

// Slots of QF::DocumentTable and QF::PageTable.
constexpr size_t kGetPageSlot = 1;
constexpr size_t kNotifyAnnotsChangedSlot = 3;
constexpr size_t kGetPDPageSlot = 0;
constexpr size_t kGetChangedSlot = 1;
constexpr size_t kSetChangedSlot = 2;
constexpr size_t kLockSlot = 3;
constexpr size_t kUnlockSlot = 4;

[[noreturn]] void throwNotInitialized(const char* function) {
    ThrowServiceObjectException(SOImpl::kNotInitialized, u"Not initialized", function);
}

template <typename Params>
const Params& paramsOf(const QF::CommandArgs& args, const char* function) {
    const auto* params = static_cast<const Params*>(args.params);
    if (!params || !params->document) throwNotInitialized(function);
    return *params;
}

uint32_t featureAtom(const char* name) {
    uint32_t atom = 0;
    const uint32_t result = KRGetAtomFromString(name, &atom);
    if (result != 0) ThrowServiceObjectException(result, u"Unspecified Error!", name);
    return atom;
}

// One page of a command, its "QFPage" object locked (exclusive) from construction to
// destruction. A page the document does not give: 2 "Not initialized"; a page locked by
// someone else: the host's answer.
class LockedPage {
  public:
    LockedPage(const BasicServiceObjectPtr<>& document, uint64_t pageIndex, const char* function)
        : function_(function) {
        if (!document) throwNotInitialized(function);
        if (SODetails::hasMethod(document.get(), kGetPageSlot) &&
            SODetails::methods<QF::DocumentTable>(document.get())
                    ->GetPage(document.get(), pageIndex, page_.put()) != 0)
            page_.reset();
        if (!page_) throwNotInitialized(function);
        if (SODetails::hasMethod(page_.get(), kLockSlot)) {
            const uint32_t result = ops().Lock(page_.get(), 1, &token_);
            if (result != 0) ThrowServiceObjectException(result, u"Unspecified Error!", function);
        }
        if (SODetails::hasMethod(page_.get(), kGetPDPageSlot) &&
            ops().GetPDPage(page_.get(), pdPage_.put()) != 0)
            pdPage_.reset();
        if (!pdPage_) {
            Unlock();
            throwNotInitialized(function);
        }
    }
    ~LockedPage() { Unlock(); }
    LockedPage(const LockedPage&) = delete;
    LockedPage& operator=(const LockedPage&) = delete;

    PDPage Get() const { return pdPage_.get(); }

    bool Changed() const {
        uint8_t changed = 0;
        return SODetails::hasMethod(page_.get(), kGetChangedSlot) &&
               ops().GetChanged(page_.get(), &changed) == 0 && changed != 0;
    }
    void SetChanged(bool changed) const {
        if (SODetails::hasMethod(page_.get(), kSetChangedSlot))
            ops().SetChanged(page_.get(), changed ? 1 : 0);
    }

    uint32_t Count() const {
        uint32_t count = 0;
        CheckPDResult(PDPageGetNumAnnots(Get(), &count), function_, kPDFLayerError);
        return count;
    }
    PDHandlePtr Annot(uint32_t position) const {
        PDHandlePtr annot;
        CheckPDResult(PDPageGetAnnot(Get(), position, annot.put()), function_, kPDFLayerError);
        return annot;
    }
    // Takes annot off the page and inserts it at position.
    void Move(PDAnnot annot, uint32_t position) const {
        CheckPDResult(PDPageRemoveAnnot(Get(), annot), function_, kPDFLayerError);
        CheckPDResult(PDPageAddAnnot(Get(), position, annot), function_, kPDFLayerError);
    }

  private:
    QF::PageTable& ops() const { return *SODetails::methods<QF::PageTable>(page_.get()); }
    void Unlock() {
        if (token_ && SODetails::hasMethod(page_.get(), kUnlockSlot))
            ops().Unlock(page_.get(), std::exchange(token_, 0));
    }

    const char* function_;
    BasicServiceObjectPtr<> page_;
    PDHandlePtr pdPage_;
    uint64_t token_ = 0;
};

// Fails as pdfcore does for a position past the page's annotations.
void checkPosition(uint64_t position, uint32_t count, const char* function) {
    if (position >= count) CheckPDResult(PD_ERR_RANGE, function, kPDFLayerError);
}

void notifyAnnotsChanged(const BasicServiceObjectPtr<>& document, uint32_t kind,
                         uint64_t pageIndex, const std::vector<PDAnnot>& annots) {
    if (SODetails::hasMethod(document.get(), kNotifyAnnotsChangedSlot))
        SODetails::methods<QF::DocumentTable>(document.get())
            ->NotifyAnnotsChanged(document.get(), kind, pageIndex, annots.data(), annots.size());
}

// Makes a page whose /Tabs orders by rows, columns or structure follow /Annots instead
// (/Tabs /W); the former value when it was changed, nothing when the page already followed
// /Annots.
std::optional<PDAtom> followAnnotOrder(PDPage page, const char* function) {
    PDAtom tabs = 0;
    const PDResult result = PDPageGetTabOrder(page, &tabs);
    if (result == PD_ERR_NO_VALUE) return std::nullopt;
    CheckPDResult(result, function, kPDFLayerError);
    if (tabs != PD_ATOM_R && tabs != PD_ATOM_C && tabs != PD_ATOM_S) return std::nullopt;
    CheckPDResult(PDPageSetTabOrder(page, PD_ATOM_W), function, kPDFLayerError);
    return tabs;
}

void restoreTabOrder(PDPage page, std::optional<PDAtom>& former, const char* function) {
    if (!former) return;
    CheckPDResult(PDPageSetTabOrder(page, *former), function, kPDFLayerError);
    former.reset();
}

} // namespace

// ---- TabOrderCommandImpl ------------------------------------------------------------------

TabOrderCommandImpl::TabOrderCommandImpl(const QF::CommandArgs& args) : CommandBase(args) {
    const auto& params =
        paramsOf<QF::TabOrderParams>(args, "TabOrderCommandImpl::TabOrderCommandImpl");
    document_ = BasicServiceObjectPtr<>::share(params.document);
    pageIndex_ = params.pageIndex;
    newPosition_ = params.newPosition;
    currentPosition_ = params.currentPosition;
}

uint32_t TabOrderCommandImpl::GetFeatureName(uint32_t* out) {
    *out = featureAtom("Forms.SetTabOrder");
    return 0;
}

uint32_t TabOrderCommandImpl::GetTrackingFeatureName(uint32_t* out) {
    *out = featureAtom("Forms.SetTabOrder");
    return 0;
}

uint32_t TabOrderCommandImpl::DO() {
    static constexpr const char* kFunction = "TabOrderCommandImpl::Do";
    const LockedPage page(document_, pageIndex_, kFunction);
    const uint32_t count = page.Count();
    checkPosition(currentPosition_, count, kFunction);
    checkPosition(newPosition_, count, kFunction);
    annot_ = page.Annot(currentPosition_);
    pageChanged_ = page.Changed();
    page.Move(annot_.get(), newPosition_);
    formerTabs_ = followAnnotOrder(page.Get(), kFunction);
    page.SetChanged(true);
    return 0;
}

uint32_t TabOrderCommandImpl::UNDO() {
    static constexpr const char* kFunction = "TabOrderCommandImpl::Undo";
    const LockedPage page(document_, pageIndex_, kFunction);
    if (!annot_) return 0; // DO did not run
    page.Move(annot_.get(), currentPosition_);
    restoreTabOrder(page.Get(), formerTabs_, kFunction);
    page.SetChanged(pageChanged_);
    annot_.reset();
    return 0;
}

// ---- MoveOrderFocusCommandImpl ------------------------------------------------------------

MoveOrderFocusCommandImpl::MoveOrderFocusCommandImpl(const QF::CommandArgs& args)
    : CommandBase(args) {
    const auto& params = paramsOf<QF::MoveAnnotsFocusOrderParams>(
        args, "MoveOrderFocusCommandImpl::MoveOrderFocusCommandImpl");
    document_ = BasicServiceObjectPtr<>::share(params.document);
    pageIndex_ = params.pageIndex;
    target_ = params.target;
    if (params.count && !params.positions)
        ThrowServiceObjectException(SOImpl::kBadArgument, u"Bad param",
                                    "MoveOrderFocusCommandImpl::MoveOrderFocusCommandImpl");
    positions_.reserve(params.count);
    for (uint64_t i = 0; i < params.count; ++i)
        positions_.push_back(static_cast<uint32_t>(params.positions[i]));
}

uint32_t MoveOrderFocusCommandImpl::GetFeatureName(uint32_t* out) {
    *out = featureAtom("Forms.Move");
    return 0;
}

uint32_t MoveOrderFocusCommandImpl::GetTrackingFeatureName(uint32_t* out) {
    *out = featureAtom("Forms.Move");
    return 0;
}

uint32_t MoveOrderFocusCommandImpl::DO() {
    static constexpr const char* kFunction = "MoveOrderFocusCommandImpl::Do";
    if (target_ == QF::MoveAnnotsFocusOrderParams::kTargetStart) target_ = 0;
    const LockedPage page(document_, pageIndex_, kFunction);
    const uint32_t count = page.Count();
    for (const uint32_t position : positions_)
        checkPosition(position, count, kFunction);
    pageChanged_ = page.Changed();

    std::deque<uint64_t> queue(positions_.begin(), positions_.end());
    // Past the last annotation is the end of the array.
    uint64_t t = std::min<uint64_t>(target_, count);
    while (!queue.empty()) {
        const uint64_t i = queue.front();
        queue.pop_front();
        PDHandlePtr annot = page.Annot(static_cast<uint32_t>(i));
        // Before the target, or (taken from before it) one less; at 0 for the first
        // annotation moved to the start.
        const uint64_t at = t < i ? t : (t == 0 ? 0 : t - 1);
        page.Move(annot.get(), static_cast<uint32_t>(at));
        undoList_.push_back(Move{std::move(annot), static_cast<uint32_t>(i), t});
        for (uint64_t& j : queue) {
            if (t < j && j < i)
                ++j;
            else if (i < j && j <= t)
                --j;
        }
        if (i >= t) ++t;
    }
    formerTabs_ = followAnnotOrder(page.Get(), kFunction);
    page.SetChanged(true);

    // The undo list keeps every run (a redo appends to it), and the notice names them all.
    std::vector<PDAnnot> moved;
    for (const Move& m : undoList_)
        moved.push_back(m.annot.get());
    notifyAnnotsChanged(document_, kChangeInserted, pageIndex_, moved);
    return 0;
}

uint32_t MoveOrderFocusCommandImpl::UNDO() {
    static constexpr const char* kFunction = "MoveOrderFocusCommandImpl::Undo";
    const LockedPage page(document_, pageIndex_, kFunction);
    std::vector<PDAnnot> moved;
    for (auto it = undoList_.rbegin(); it != undoList_.rend(); ++it) {
        page.Move(it->annot.get(), it->from);
        moved.push_back(it->annot.get());
    }
    restoreTabOrder(page.Get(), formerTabs_, kFunction);
    page.SetChanged(pageChanged_);
    notifyAnnotsChanged(document_, kChangeRemoved, pageIndex_, moved);
    return 0;
}

// ---- AutoTabOrderCommandImpl --------------------------------------------------------------

AutoTabOrderCommandImpl::AutoTabOrderCommandImpl(const QF::CommandArgs& args)
    : CommandBase(args) {
    static constexpr const char* kFunction = "AutoTabOrderCommandImpl::AutoTabOrderCommandImpl";
    const auto& params = paramsOf<QF::AutoTabOrderParams>(args, kFunction);
    document_ = BasicServiceObjectPtr<>::share(params.document);
    if (params.count && !params.pages)
        ThrowServiceObjectException(SOImpl::kBadArgument, u"Bad param", kFunction);
    pages_.assign(params.pages, params.pages + params.count);
    orderingType_ = params.orderingType;
}

uint32_t AutoTabOrderCommandImpl::GetFeatureName(uint32_t* out) {
    *out = featureAtom("Forms.SetTabOrder");
    return 0;
}

uint32_t AutoTabOrderCommandImpl::GetTrackingFeatureName(uint32_t* out) {
    *out = featureAtom("Forms.SetTabOrder");
    return 0;
}

std::vector<AutoTabOrderCommandImpl::Annot_t> AutoTabOrderCommandImpl::GetPageAnnots(PDPage page) {
    static constexpr const char* kFunction = "AutoTabOrderCommandImpl::GetPageAnnots";
    uint32_t count = 0;
    CheckPDResult(PDPageGetNumAnnots(page, &count), kFunction, kPDFLayerError);
    std::vector<Annot_t> widgets;
    for (uint32_t i = 0; i < count; ++i) {
        PDHandlePtr annot;
        PDAtom subtype = 0;
        CheckPDResult(PDPageGetAnnot(page, i, annot.put()), kFunction, kPDFLayerError);
        CheckPDResult(PDAnnotGetSubtype(annot.get(), &subtype), kFunction, kPDFLayerError);
        if (subtype != PD_ATOM_Widget) continue;
        uint32_t position = 0;
        CheckPDResult(PDPageGetAnnotIndex(page, annot.get(), &position), kFunction,
                      kPDFLayerError);
        widgets.push_back(Annot_t{position, std::move(annot)});
    }
    return widgets;
}

void AutoTabOrderCommandImpl::Sort(std::vector<Annot_t>& annots, uint32_t orderingType) {
    static constexpr const char* kFunction = "AutoTabOrderCommandImpl::Sort";
    // The lower-left corner of each rectangle, read once. A coordinate that is not a number
    // counts as 0, so that the order stays a strict weak one.
    struct Keyed {
        float left, bottom;
        Annot_t annot;
    };
    auto number = [](float v) { return std::isnan(v) ? 0.0f : v; };
    std::vector<Keyed> keyed;
    keyed.reserve(annots.size());
    for (Annot_t& a : annots) {
        PDRect r{};
        CheckPDResult(PDAnnotGetRect(a.annot.get(), &r), kFunction, kPDFLayerError);
        keyed.push_back(Keyed{std::min(number(r.left), number(r.right)),
                              std::min(number(r.bottom), number(r.top)), std::move(a)});
    }
    if (orderingType == kColumns)
        std::sort(keyed.begin(), keyed.end(), [](const Keyed& a, const Keyed& b) {
            return a.left < b.left || (a.left == b.left && a.bottom > b.bottom);
        });
    else
        std::sort(keyed.begin(), keyed.end(), [](const Keyed& a, const Keyed& b) {
            return a.bottom > b.bottom || (a.bottom == b.bottom && a.left < b.left);
        });
    for (size_t k = 0; k < keyed.size(); ++k)
        annots[k] = std::move(keyed[k].annot);
}

void AutoTabOrderCommandImpl::ReOrder(PDPage page, const std::vector<Annot_t>& list,
                                      uint64_t pageIndex) {
    static constexpr const char* kFunction = "AutoTabOrderCommandImpl::ReOrder";
    for (const Annot_t& a : list)
        CheckPDResult(PDPageRemoveAnnot(page, a.annot.get()), kFunction, kPDFLayerError);
    for (const Annot_t& a : list)
        CheckPDResult(PDPageAddAnnot(page, a.position, a.annot.get()), kFunction,
                      kPDFLayerError);
    if (list.empty()) return;
    std::vector<PDAnnot> annots;
    annots.reserve(list.size());
    for (const Annot_t& a : list)
        annots.push_back(a.annot.get());
    notifyAnnotsChanged(document_, kChangeInserted, pageIndex, annots);
}

void AutoTabOrderCommandImpl::SortPage(uint64_t pageIndex) {
    static constexpr const char* kFunction = "AutoTabOrderCommandImpl::Do";
    const LockedPage page(document_, pageIndex, kFunction);
    pageStates_[pageIndex] = page.Changed();
    std::vector<Annot_t> widgets = GetPageAnnots(page.Get());
    std::vector<Annot_t> sorted = widgets;
    savedAnnots_[pageIndex] = std::move(widgets);
    Sort(sorted, orderingType_);
    for (size_t k = 0; k < sorted.size(); ++k)
        sorted[k].position = static_cast<uint32_t>(k);
    ReOrder(page.Get(), sorted, pageIndex);
    formerTabs_[pageIndex] =
        sorted.empty() ? std::nullopt : followAnnotOrder(page.Get(), kFunction);
    page.SetChanged(true);
}

void AutoTabOrderCommandImpl::Restore(uint64_t pageIndex) {
    static constexpr const char* kFunction = "AutoTabOrderCommandImpl::Restore";
    const LockedPage page(document_, pageIndex, kFunction);
    const auto saved = savedAnnots_.find(pageIndex);
    if (saved == savedAnnots_.end())
        ThrowServiceObjectException(9, u"Annotation for page not found", kFunction);
    ReOrder(page.Get(), saved->second, pageIndex);
    savedAnnots_.erase(saved);
    if (auto tabs = formerTabs_.find(pageIndex); tabs != formerTabs_.end()) {
        restoreTabOrder(page.Get(), tabs->second, kFunction);
        formerTabs_.erase(tabs);
    }
    const auto state = pageStates_.find(pageIndex);
    if (state == pageStates_.end())
        ThrowServiceObjectException(9, u"Page state not found", kFunction);
    page.SetChanged(state->second);
    pageStates_.erase(state);
}

uint32_t AutoTabOrderCommandImpl::DO() {
    if (!document_) throwNotInitialized("AutoTabOrderCommandImpl::Do");
    for (const uint64_t page : pages_)
        SortPage(page);
    return 0;
}

uint32_t AutoTabOrderCommandImpl::UNDO() {
    if (!document_) throwNotInitialized("AutoTabOrderCommandImpl::Undo");
    for (const uint64_t page : pages_)
        Restore(page);
    return 0;
}
