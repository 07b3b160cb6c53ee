// The undoable tab-order commands. The tab order of a page's fields is the order of its
// widget annotations in /Annots: "TabOrderAnnot" moves one annotation to another position,
// "MoveAnnotsFocusOrder" moves several to a target position keeping their order, and
// "AutoTabOrderAnnot" sorts the widgets of pages by where they lie, in rows or columns.
//
// Each command works on a page through its "QFPage" object, locked for the duration of
// the change, and sets the page's changed flag (UNDO puts the former one back). A page
// whose /Tabs is R, C or S (rows, columns, structure) would be tabbed in that order
// whatever /Annots says, so a command that reorders it also makes its /Tabs W (widgets in
// the order of /Annots) and puts the former value back on UNDO.
#pragma once

#include "commands-manager/CommandBase"
#include "qf/DocumentInterfaces.h"
#include "qf/internal/AnnotEditUtilities"

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

// Params: QF::TabOrderParams. DO takes the annotation at the current position and inserts it
// at the new position; UNDO puts it back. No notification is sent.
class TabOrderCommandImpl : public QF::CommandBase {
  public:
    static constexpr uint32_t kClassStamp = 0x9E79C188;
    static constexpr uint32_t kFactoryStamp = 0xDBA4DDCB;

    // 2 "Not initialized" without parameters or document service.
    explicit TabOrderCommandImpl(const QF::CommandArgs& args);

    uint32_t GetFeatureName(uint32_t* out);
    uint32_t GetTrackingFeatureName(uint32_t* out);
    // A position past the page's annotations: the translated pdfcore range error, and the
    // page is left as it was.
    uint32_t DO();
    uint32_t UNDO();

  private:
    SODetails::BasicServiceObjectPtr<> document_;
    uint64_t pageIndex_ = 0;
    uint32_t newPosition_ = 0;
    uint32_t currentPosition_ = 0;
    bool pageChanged_ = false;
    std::optional<PDAtom> formerTabs_;
    QF::PDHandlePtr annot_; // the moved annotation, between DO and UNDO
};

// Params: QF::MoveAnnotsFocusOrderParams. DO moves the annotations at the given positions,
// one after the other, so that they end up contiguous and in the given order just before the
// annotation that was at the target (at the end for a target past the last annotation;
// kTargetStart means 0); every move is recorded, and UNDO takes the records back from the
// newest. The records are kept for the life of the command: after UNDO and DO the list holds
// both runs and the next UNDO replays all of them.
class MoveOrderFocusCommandImpl : public QF::CommandBase {
  public:
    static constexpr uint32_t kClassStamp = 0x1FB20544;
    static constexpr uint32_t kFactoryStamp = 0x6A7A71D7;

    // 2 "Not initialized" without parameters or document service.
    explicit MoveOrderFocusCommandImpl(const QF::CommandArgs& args);

    uint32_t GetFeatureName(uint32_t* out);
    uint32_t GetTrackingFeatureName(uint32_t* out);
    // A position past the page's annotations: the translated pdfcore range error, and the
    // page is left as it was.
    uint32_t DO();
    uint32_t UNDO();

  private:
    struct Move {
        QF::PDHandlePtr annot;
        uint32_t from = 0;   // where it was taken from
        uint64_t target = 0; // the target when it moved
    };

    SODetails::BasicServiceObjectPtr<> document_;
    uint64_t pageIndex_ = 0;
    uint64_t target_ = 0;
    std::vector<uint32_t> positions_;
    bool pageChanged_ = false;
    std::optional<PDAtom> formerTabs_;
    std::vector<Move> undoList_;
};

// Params: QF::AutoTabOrderParams. DO sorts the widgets of every listed page (in list order)
// into row or column order and puts them first in /Annots, the page's other annotations
// after them in their former order; UNDO returns every widget to its former position.
class AutoTabOrderCommandImpl : public QF::CommandBase {
  public:
    static constexpr uint32_t kClassStamp = 0x2595EBB3;
    static constexpr uint32_t kFactoryStamp = 0xC3743458;

    // A widget and its position in the page's annotation array.
    struct Annot_t {
        uint32_t position = 0;
        QF::PDHandlePtr annot;
    };
    // 1: columns, left to right, each top down; any other value: rows, top down, each left
    // to right.
    enum OrderingType : uint32_t { kRows = 0, kColumns = 1 };

    // 2 "Not initialized" without parameters or document service.
    explicit AutoTabOrderCommandImpl(const QF::CommandArgs& args);

    uint32_t GetFeatureName(uint32_t* out);
    uint32_t GetTrackingFeatureName(uint32_t* out);
    // A failure on a page leaves the pages before it sorted.
    uint32_t DO();
    // 9 "Annotation for page not found" / "Page state not found" for a page DO did not do.
    uint32_t UNDO();

    // The widgets of the page in page order, with their positions.
    static std::vector<Annot_t> GetPageAnnots(PDPage page);
    // Sorts by the lower-left corners of the widgets' rectangles, exactly (no tolerance);
    // widgets with the same corner end in an unspecified order.
    static void Sort(std::vector<Annot_t>& annots, uint32_t orderingType);

  private:
    // Takes every annotation of list off the page and inserts each at its position, in list
    // order; notifies the change (kind 0) of a non-empty list.
    void ReOrder(PDPage page, const std::vector<Annot_t>& list, uint64_t pageIndex);
    void SortPage(uint64_t pageIndex);
    void Restore(uint64_t pageIndex);

    SODetails::BasicServiceObjectPtr<> document_;
    std::vector<uint64_t> pages_;
    uint32_t orderingType_ = kRows;
    std::map<uint64_t, bool> pageStates_;
    std::map<uint64_t, std::vector<Annot_t>> savedAnnots_;
    std::map<uint64_t, std::optional<PDAtom>> formerTabs_;
};
