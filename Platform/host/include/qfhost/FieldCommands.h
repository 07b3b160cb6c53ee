// Host commands over a form field's entries that the forms module sets directly (its
// tool sheet writes them without a command): the host runs the module's change inside a
// command of its own, so that the change is undone and redone like any other.
// Single-threaded (user-interface thread).
#pragma once

#include "qfhost/HostObjects.h"

#include "pdfcore/pdfcore.h"

#include <cstdint>
#include <functional>

namespace qfhost {

class Host;

// Changes the option list of the choice field of widget (on page pageIndex of document, a
// "QFDocument" block) by calling set, which writes the new list (the forms module's
// "ComboOptList" row), as the command "Field_SetOptions" on host's commands manager. UNDO
// puts back the options and the selected option the field had before set; DO, as a redo,
// the ones set left. Each sets the page's changed flag (UNDO restores it), redraws the
// field's widgets and notifies the document (kind 3, as the module does).
// Returns set's result; a failing set leaves nothing on the stacks and the options as they
// were. 3 (set is not called) for a null document or widget, a widget without a field or
// whose field is no choice field; kDocumentClosed for a closed document. [main-thread]
QFHOST_API uint32_t runOptionListChange(Host& host, ServiceObject* document, uint64_t pageIndex,
                                        PDAnnot widget, const std::function<uint32_t()>& set);

}  // namespace qfhost
