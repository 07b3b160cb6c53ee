// The ribbon tab under which the host files a change to an annotation; the widget
// commands report it as their feature name.
#pragma once

#include "pdfcore/pdfcore.h"

#include <string>

namespace QF {

// "Secure" for a widget of a signature field, "Forms" for any other widget, "Insert" for
// a link annotation and "Review" for every other annotation. A subtype that cannot be
// read throws a ServiceObjectException ("Unspecified Error!", translated pdfcore code).
std::u16string GetAnnotRibbonTabName(PDAnnot annot);

} // namespace QF
