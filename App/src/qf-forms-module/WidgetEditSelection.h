// The selection of one form widget, as the host asks it for bounds, hit tests, drawing,
// operations and the annotation property sheet; and the factory through which the host
// selects, copies and pastes widgets.
#pragma once

#include "WidgetEditObject.h"

#include "qf/internal/BaseAnnotEditSelection"

#include <memory>

struct WidgetEditSelection
    : QF::BaseAnnotEditSelection<WidgetEditSelection, std::shared_ptr<WidgetEditObject>> {
    using BaseAnnotEditSelection::BaseAnnotEditSelection;

    // The class as failure records name it, whatever the compiler's own spelling.
    static constexpr const char* kFailureScope =
        "QF::BaseAnnotEditSelection<struct WidgetEditSelection,"
        "class std::shared_ptr<class WidgetEditObject> >";

    // The selection type atom "Widget".
    uint32_t GetType(uint32_t* out);
    // The widget's frame with its grips; a text field formatted as a date also gets the
    // date mark at its right edge.
    uint32_t Draw(uint64_t pageIndex);

    // A new "QFSelection" of widget (one reference). view: the view it is shown in (kept by
    // the widget's edit object); document: the widget's "QFDocument".
    static BasicServiceObjectPtr<> Create(ServiceObject* view, ServiceObject* document,
                                          uint64_t pageIndex, PDAnnot widget);
    // The selected widget's edit object behind a "QFSelection" of this module; null for
    // any other object or an empty selection.
    static std::shared_ptr<WidgetEditObject> SelectedOf(ServiceObject* selection);
};

// Whether a text field is formatted as a date: its format action is JavaScript that calls
// AFDate_Format. A format action of another type is logged as a warning; a pdfcore failure
// answers false.
bool IsDateFormat(PDField field);
