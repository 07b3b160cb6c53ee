// The undoable widget commands that the host's commands manager runs by name:
// "AddWidget" puts a new widget on its page, "Widget_Rename" gives a widget's field a new
// name, "GroupRadioButtons" joins button widgets into one new radio group.
#pragma once

#include "commands-manager/CommandBase"
#include "qf/DocumentInterfaces.h"
#include "qf/internal/AnnotEditUtilities"

#include <cstdint>
#include <map>
#include <string>

// Params: QF::AddWidgetParams. DO appends the widget to the page's annotations (and to
// its field when it has lost it) and marks the page changed; UNDO takes it off the page
// and out of the field and restores the page's changed flag.
class AddWidgetCommand : public QF::CommandBase {
  public:
    static constexpr uint32_t kClassStamp = 0x6636A568;
    static constexpr uint32_t kFactoryStamp = 0x41E9643D;

    // 2 "Not initialized" for a widget without a field.
    explicit AddWidgetCommand(const QF::CommandArgs& args);

    uint32_t GetFeatureName(uint32_t* out);
    uint32_t GetTrackingFeatureName(uint32_t* out);
    uint32_t DO();
    uint32_t UNDO();

  private:
    SODetails::BasicServiceObjectPtr<> document_;
    uint64_t pageIndex_ = 0;
    SODetails::BasicServiceObjectPtr<> page_; // "QFPage"; null when the document gives none
    bool pageChanged_ = false;                // the page's changed flag before the add
    QF::PDHandlePtr widget_;
    QF::PDHandlePtr field_;
};

// Params: QF::RenameWidgetParams. The compatibility of the new name is checked once, at
// construction; DO gives the widget the new name, UNDO the old one.
class RenameWidgetCommand : public QF::CommandBase {
  public:
    static constexpr uint32_t kClassStamp = 0xED1D46BD;
    static constexpr uint32_t kFactoryStamp = 0xBCF16546;

    // 2 "Not initialized" without a name, document or field; 3 "The name cannot be
    // empty."; 14 "This name is already set for a different field type.".
    explicit RenameWidgetCommand(const QF::CommandArgs& args);

    uint32_t GetFeatureName(uint32_t* out);
    uint32_t GetTrackingFeatureName(uint32_t* out);
    uint32_t DO();
    uint32_t UNDO();

  private:
    void CheckExistingField();
    // former: the field UNDO expects to find under name (null for DO); a different field
    // found there is refused with 14 and changes nothing.
    void RenameWidget(const std::u16string& name, PDField former = nullptr);

    SODetails::BasicServiceObjectPtr<> document_;
    uint64_t pageIndex_ = 0;
    QF::PDHandlePtr widget_;
    // The field the widget had: UNDO finds it by name, and this reference keeps pdfcore
    // from taking it back while it is left without widgets (and its handle the same).
    QF::PDHandlePtr formerField_;
    std::u16string oldName_;
    std::u16string newName_;
};

// Params: QF::GroupRadioButtonsParams. DO moves the widgets, in ascending order of their
// handles, into a new radio field with on-states "1", "2", ...; UNDO returns each to its
// former field with its former on-state and appearance state.
class GroupRadioButtonsCommand : public QF::CommandBase {
  public:
    static constexpr uint32_t kClassStamp = 0xF5860530;
    static constexpr uint32_t kFactoryStamp = 0xF7CC6245;

    // 2 "Not initialized" without a widget array; 3 "Bad param" for an empty one.
    explicit GroupRadioButtonsCommand(const QF::CommandArgs& args);

    uint32_t GetFeatureName(uint32_t* out);
    uint32_t GetTrackingFeatureName(uint32_t* out);
    uint32_t DO();
    uint32_t UNDO();

  private:
    struct Entry {
        uint32_t fontColor = 0;
        int32_t highlight = 0;
        std::u16string exportValue; // the on-state name; empty when the widget has none
        PDAtom appearanceState = 0; // 0 when the widget had no /AS
        QF::PDHandlePtr formerParent;
        QF::PDHandlePtr widget;
    };

    void NotifyRegrouped();

    SODetails::BasicServiceObjectPtr<> document_;
    uint64_t pageIndex_ = 0;
    std::map<uintptr_t, Entry> entries_; // by handle value
};
