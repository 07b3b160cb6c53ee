// Field detection: reads what a page draws (pdfcore's PDPageReadGraphics) and proposes the
// form fields a person would draw over it: text fields over underlines, boxes and table
// cells, comb fields over rows of small equal boxes, multiline fields over tall boxes, check
// boxes over small squares and box glyphs, radio groups over rows of small circles, and
// signature fields over lines labelled for a signature, each named after its label.
// Reading never changes the document. Single-threaded: the thread that owns the document.
#pragma once

#include "pdfcore/pdfcore.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qfforms::detect {

enum class Kind { Text, Check, Radio, Signature };

// "text", "check", "radio", "signature".
const char* kindName(Kind kind);

// A rectangle in the page's default user space (points, y up, as /Rect).
struct Box {
    float left = 0, bottom = 0, right = 0, top = 0;
    float width() const { return right - left; }
    float height() const { return top - bottom; }
};

// Intersection over union of two boxes, 0 to 1.
double overlap(const Box& a, const Box& b);

struct Proposal {
    Kind kind = Kind::Text;
    Box box;
    // The field's name from its label, made unique among the page's proposals; empty when
    // nothing labels it (the creation tool's own name then). The radio buttons of one group
    // share the group's name.
    std::u16string name;
    // The label's full text, for the tooltip; for a radio button, the text beside it.
    std::u16string label;
    bool multiline = false;
    bool comb = false;
    uint32_t maxLength = 0; // comb fields: the number of boxes
    int group = -1;         // radio buttons: the group, counted on the page from 0
};

// Caps on the work done for one page; what they leave out is said in the page's result.
struct Limits {
    uint32_t maxOperators = 300000; // content operators read
    uint32_t maxShapes = 20000;     // lines and boxes looked at
};

struct PageResult {
    uint32_t page = 0;
    std::vector<Proposal> proposals;
    uint32_t operators = 0;
    uint32_t shapes = 0; // lines, boxes and curves read
    uint32_t textRuns = 0;
    bool operatorsCapped = false; // the content was read only up to Limits::maxOperators
    bool shapesCapped = false;    // shapes past Limits::maxShapes were not looked at
    uint32_t skippedXObjects = 0;
    uint32_t existingWidgets = 0; // proposals left out because a widget lies there
    bool imageOnly = false;       // an image covers the page and nothing else is drawn
    double seconds = 0;
};

// Detects the fields of page index of doc. Throws std::runtime_error with pdfcore's message
// when the page cannot be read (no such page, content qpdf cannot parse).
PageResult detectPage(PDDoc doc, uint32_t index, const Limits& limits = {});

// A field name made from a label: ASCII letters lower-cased, runs of other ASCII marks
// (spaces, punctuation) made one "_", leaders and trailing colons dropped; letters of other
// scripts kept as they are. "First name:" gives "first_name", "氏名" stays "氏名". Empty
// when the label holds no letter or digit.
std::u16string nameFromLabel(std::u16string_view label);

} // namespace qfforms::detect
