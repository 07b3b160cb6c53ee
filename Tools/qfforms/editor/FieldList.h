// The form's fields as the editor's field list shows them.
#pragma once

#include "Session.h"

#include "pdfcore/pdfcore.h"

namespace qfforms {

// [{"name", "kind", "required", "calculated", "widgets": [[PAGE, INDEX]...]}...] in the
// form's field order: kind is "text", "check", "radio", "push", "combo", "list" or
// "signature"; a widget is its page and its place in the page's /Annots. Fields without a
// widget on a page are listed with none. Throws PdError.
Json fieldList(PDDoc doc);

} // namespace qfforms
