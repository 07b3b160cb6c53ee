#include "Detect.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <optional>
#include <stdexcept>
#include <tuple>

namespace qfforms::detect {

namespace {

// A segment along one axis: horizontal at `at` from `from` to `to`, or vertical likewise.
struct Segment {
    float at, from, to;
    float length() const { return to - from; }
};

struct Phrase {
    Box box;
    std::u16string text;
    float size = 0;
};

struct Circle {
    Box box;
};

// What one page draws, sorted into the pieces detection uses.
struct Drawing {
    Box page;
    std::vector<Segment> horizontal, vertical;
    std::vector<Box> boxes;      // stroked or filled rectangles of some size both ways
    std::vector<Box> whiteBoxes; // rectangles filled white
    std::vector<Circle> circles;
    std::vector<Phrase> runs; // text runs as drawn
    std::vector<Box> images;
    uint32_t shapes = 0;
    bool shapesCapped = false;
    uint32_t maxShapes = 0;
};

class PdfFailure : public std::runtime_error {
  public:
    explicit PdfFailure(PDResult r) : std::runtime_error(message(r)) {}

  private:
    static std::string message(PDResult r) {
        std::string text;
        for (const char16_t* m = PDGetErrMessage(r); m && *m; ++m)
            text += *m < 0x80 ? static_cast<char>(*m) : '?';
        return text;
    }
};

void check(PDResult r) {
    if (r != PD_OK) throw PdfFailure(r);
}

bool isWhite(uint32_t argb) {
    if ((argb >> 24) == 0) return false;
    const uint32_t r = (argb >> 16) & 0xFF, g = (argb >> 8) & 0xFF, b = argb & 0xFF;
    return r > 235 && g > 235 && b > 235;
}

int32_t collect(const PDGraphic* g, void* data) {
    Drawing& d = *static_cast<Drawing*>(data);
    // Only what lies within reach of the page is looked at (nothing infinite or NaN).
    for (float v : {g->x0, g->y0, g->x1, g->y1})
        if (!(std::fabs(v) < 1e6f)) return 0;
    if (g->kind == PD_GRAPHIC_TEXT) {
        d.runs.push_back({{g->x0, g->y0, g->x1, g->y1},
                          std::u16string(g->text ? g->text : u"", g->textLen),
                          g->fontSize});
        return 0;
    }
    if (g->kind == PD_GRAPHIC_IMAGE) {
        d.images.push_back({g->x0, g->y0, g->x1, g->y1});
        return 0;
    }
    if (d.shapes >= d.maxShapes) {
        d.shapesCapped = true;
        return 0;
    }
    ++d.shapes;
    const float l = std::min(g->x0, g->x1), r = std::max(g->x0, g->x1);
    const float b = std::min(g->y0, g->y1), t = std::max(g->y0, g->y1);
    const float w = r - l, h = t - b;
    // Shapes painted white only cover what lies under them; a white rectangle of a field's
    // size on a page is a place to write, left white in a tinted or ruled area.
    const bool stroked = (g->flags & PD_GRAPHIC_STROKED) && !isWhite(g->strokeColor);
    const bool filled = (g->flags & PD_GRAPHIC_FILLED) && !isWhite(g->fillColor);
    if (!stroked && !filled) {
        if (g->kind == PD_GRAPHIC_RECT && (g->flags & PD_GRAPHIC_FILLED) && w > 4 && h > 4 &&
            h < 100 && w < 0.9f * d.page.width())
            d.whiteBoxes.push_back({l, b, r, t});
        return 0;
    }
    if (g->kind == PD_GRAPHIC_LINE) {
        if (!stroked) return 0;
        if (h < 0.8f && w > 2)
            d.horizontal.push_back({(b + t) / 2, l, r});
        else if (w < 0.8f && h > 2)
            d.vertical.push_back({(l + r) / 2, b, t});
        return 0;
    }
    if (g->kind == PD_GRAPHIC_CURVE) {
        // Closed curves of a small square's size: circles (arcs are rounded corners).
        if ((g->flags & PD_GRAPHIC_CLOSED) && w >= 6 && h >= 6 && w < 24 && h < 24 &&
            std::fabs(w - h) < 0.2f * std::max(w, h))
            d.circles.push_back({{l, b, r, t}});
        return 0;
    }
    // Rectangles: thin ones are rules, others boxes (and their sides rules too, so that
    // cells of boxes drawn side by side are found like cells of ruled tables).
    if (h <= 2.5f && w > 2) {
        d.horizontal.push_back({(b + t) / 2, l, r});
        return 0;
    }
    if (w <= 2.5f && h > 2) {
        d.vertical.push_back({(l + r) / 2, b, t});
        return 0;
    }
    if (filled && !stroked) return 0; // a shaded area, not an outline
    d.boxes.push_back({l, b, r, t});
    d.horizontal.push_back({b, l, r});
    d.horizontal.push_back({t, l, r});
    d.vertical.push_back({l, b, t});
    d.vertical.push_back({r, b, t});
    return 0;
}

bool isLeader(char16_t c) {
    return c == u'.' || c == u' ' || c == u'_' || c == 0x2026 || c == u'-' || c == 0x00B7;
}

bool blankText(const std::u16string& s) {
    return std::all_of(s.begin(), s.end(), [](char16_t c) { return isLeader(c) || c == u':'; });
}

// The glyphs forms draw as boxes to tick.
bool isBoxGlyph(char16_t c) {
    return c == 0x2610 || c == 0x25A1 || c == 0x274F || c == 0x2750 || c == 0x2751 || c == 0x2752 ||
           c == 0x25A2 || c == 0x2B1C;
}

// Joins runs into phrases: runs on one baseline with at most a wide space between them.
std::vector<Phrase> phrases(std::vector<Phrase> runs) {
    // Lines: runs whose bottoms lie within a third of their size, from the top.
    std::sort(runs.begin(), runs.end(),
              [](const Phrase& a, const Phrase& b) { return a.box.bottom > b.box.bottom; });
    std::vector<Phrase> out;
    for (size_t i = 0; i < runs.size();) {
        size_t j = i + 1;
        const float tolerance = 0.35f * std::max(runs[i].size, 4.0f);
        while (j < runs.size() && runs[i].box.bottom - runs[j].box.bottom <= tolerance)
            ++j;
        std::vector<Phrase> line(runs.begin() + i, runs.begin() + j);
        std::sort(line.begin(), line.end(),
                  [](const Phrase& a, const Phrase& b) { return a.box.left < b.box.left; });
        Phrase p = line[0];
        for (size_t k = 1; k < line.size(); ++k) {
            const Phrase& r = line[k];
            const float size = std::max(std::max(p.size, r.size), 4.0f);
            const float gap = r.box.left - p.box.right;
            if (gap > 0.8f * size) {
                out.push_back(std::move(p));
                p = r;
                continue;
            }
            if (gap > 0.15f * size && !p.text.empty() && p.text.back() != u' ') p.text += u' ';
            p.text += r.text;
            p.box.left = std::min(p.box.left, r.box.left);
            p.box.right = std::max(p.box.right, r.box.right);
            p.box.bottom = std::min(p.box.bottom, r.box.bottom);
            p.box.top = std::max(p.box.top, r.box.top);
            p.size = std::max(p.size, r.size);
        }
        out.push_back(std::move(p));
        i = j;
    }
    return out;
}

// A label's text without leaders, trailing colons and spaces.
std::u16string cleanLabel(std::u16string s) {
    while (!s.empty() && (isLeader(s.back()) || s.back() == u':' || s.back() == 0xFF1A))
        s.pop_back();
    size_t start = 0;
    while (start < s.size() && (isLeader(s[start])))
        ++start;
    return s.substr(start);
}

float vOverlap(const Box& a, const Box& b) {
    return std::min(a.top, b.top) - std::max(a.bottom, b.bottom);
}
float hOverlap(const Box& a, const Box& b) {
    return std::min(a.right, b.right) - std::max(a.left, b.left);
}
bool inside(const Box& inner, const Box& outer, float slack) {
    return inner.left >= outer.left - slack && inner.right <= outer.right + slack &&
           inner.bottom >= outer.bottom - slack && inner.top <= outer.top + slack;
}

struct Candidate {
    Kind kind;
    Box box;
    bool multiline = false, comb = false;
    uint32_t maxLength = 0;
    bool fromUnderline = false;
    int group = -1;
};

// Cells of ruled tables and boxes: for every horizontal rule, the nearest rule above it
// that overlaps it, closed on both sides by vertical rules.
std::vector<Box> cells(const Drawing& d) {
    std::vector<Box> out;
    std::vector<Segment> hs = d.horizontal, vs = d.vertical;
    std::sort(hs.begin(), hs.end(), [](const Segment& a, const Segment& b) { return a.at < b.at; });
    std::sort(vs.begin(), vs.end(), [](const Segment& a, const Segment& b) { return a.at < b.at; });
    const float tol = 1.5f;
    for (size_t i = 0; i < hs.size(); ++i) {
        const Segment& low = hs[i];
        // Vertical rules standing on this rule, left to right.
        std::vector<const Segment*> posts;
        for (const Segment& v : vs) {
            if (v.at < low.from - tol || v.at > low.to + tol) continue;
            if (v.from > low.at + tol || v.to < low.at + 3) continue;
            posts.push_back(&v);
        }
        for (size_t k = 0; k + 1 < posts.size(); ++k) {
            const Segment& a = *posts[k];
            const Segment& b = *posts[k + 1];
            if (b.at - a.at < 3) continue;
            const float reach = std::min(a.to, b.to);
            // The lowest rule above this one spanning from a to b, within both posts.
            float top = 0;
            bool found = false;
            for (size_t j = i + 1; j < hs.size(); ++j) {
                const Segment& up = hs[j];
                if (up.at <= low.at + 3) continue;
                if (up.at > reach + tol) break;
                if (up.from <= a.at + tol && up.to >= b.at - tol) {
                    top = up.at;
                    found = true;
                    break;
                }
            }
            if (found) out.push_back({a.at, low.at, b.at, top});
        }
    }
    // Each cell once.
    std::sort(out.begin(), out.end(), [](const Box& a, const Box& b) {
        return std::tie(a.bottom, a.left, a.right, a.top) <
               std::tie(b.bottom, b.left, b.right, b.top);
    });
    out.erase(std::unique(out.begin(), out.end(),
                          [](const Box& a, const Box& b) {
                              return std::fabs(a.left - b.left) < 1 &&
                                     std::fabs(a.right - b.right) < 1 &&
                                     std::fabs(a.top - b.top) < 1 &&
                                     std::fabs(a.bottom - b.bottom) < 1;
                          }),
              out.end());
    return out;
}

// How much of box the text of phrases covers, 0 to 1.
float textCover(const Box& box, const std::vector<Phrase>& ps) {
    float area = 0;
    for (const Phrase& p : ps) {
        if (blankText(p.text)) continue;
        const float w = hOverlap(box, p.box), h = vOverlap(box, p.box);
        if (w > 0 && h > 0) area += w * h;
    }
    return area / std::max(box.width() * box.height(), 1.0f);
}

// Whether text (not leaders) lies inside box.
bool holdsText(const Box& box, const std::vector<Phrase>& ps) {
    for (const Phrase& p : ps) {
        if (blankText(p.text)) continue;
        const float w = hOverlap(box, p.box), h = vOverlap(box, p.box);
        if (w > 0.5f * std::min(p.box.width(), box.width()) && h > 0.5f * p.box.height())
            return true;
    }
    return false;
}

// Where one writes in box: all of it when it holds no text; the part below the text when
// its label sits at its top, or right of the text when the label sits at its left; none
// when text fills it (a printed cell).
std::optional<Box> roomIn(const Box& box, const std::vector<Phrase>& ps) {
    float lowest = box.top, rightmost = box.left, leftmost = box.right;
    bool any = false;
    for (const Phrase& p : ps) {
        if (blankText(p.text)) continue;
        const float w = hOverlap(box, p.box), h = vOverlap(box, p.box);
        if (w > 0.5f * std::min(p.box.width(), box.width()) && h > 0.5f * p.box.height()) {
            any = true;
            lowest = std::min(lowest, p.box.bottom);
            rightmost = std::max(rightmost, p.box.right);
            leftmost = std::min(leftmost, p.box.left);
        }
    }
    if (!any) return box;
    if (textCover(box, ps) > 0.35f) return std::nullopt;
    if (lowest - box.bottom >= 9) return Box{box.left, box.bottom, box.right, lowest - 1};
    if (box.right - rightmost >= 40 && leftmost - box.left < std::max(20.0f, 0.1f * box.width()))
        return Box{rightmost + 2, box.bottom, box.right, box.top};
    return std::nullopt;
}

} // namespace

const char* kindName(Kind kind) {
    switch (kind) {
    case Kind::Text:
        return "text";
    case Kind::Check:
        return "check";
    case Kind::Radio:
        return "radio";
    case Kind::Signature:
        return "signature";
    }
    return "text";
}

double overlap(const Box& a, const Box& b) {
    const double w = std::min(a.right, b.right) - std::max(a.left, b.left);
    const double h = std::min(a.top, b.top) - std::max(a.bottom, b.bottom);
    if (w <= 0 || h <= 0) return 0;
    const double i = w * h;
    const double u = double(a.width()) * a.height() + double(b.width()) * b.height() - i;
    return u > 0 ? i / u : 0;
}

std::u16string nameFromLabel(std::u16string_view label) {
    std::u16string out;
    bool pendingGap = false;
    for (char16_t c : label) {
        if (c == u'(' || c == 0xFF08) break; // explanations in brackets do not name
        const bool asciiWord = (c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9');
        if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c - u'A' + u'a');
        if (asciiWord || (c >= u'a' && c <= u'z')) {
            if (pendingGap && !out.empty()) out += u'_';
            pendingGap = false;
            out += c;
        } else if (c < 0x80 || c == 0x3000 || c == 0xFF1A || c == 0x3001 || c == 0x3002 ||
                   (c >= 0x2000 && c <= 0x206F)) {
            pendingGap = true; // spaces, punctuation, ideographic space and stops
        } else {
            if (pendingGap && !out.empty()) out += u'_';
            pendingGap = false;
            out += c;
        }
        if (out.size() >= 40) break;
    }
    while (!out.empty() && out.back() == u'_')
        out.pop_back();
    return out;
}

namespace {

// The label of box: the text inside it at the top, else the nearest phrase to its left on
// its line, else (for an underline) the caption just under its line at its start, else the
// nearest phrase above it, else the phrase to its left however far.
std::optional<Phrase> labelOf(const Box& box, const std::vector<Phrase>& ps, bool underline) {
    const Phrase* left = nullptr;
    float leftGap = 0;
    const Phrase* above = nullptr;
    float aboveGap = 0;
    const Phrase* within = nullptr;
    const Phrase* below = nullptr;
    const float cy = (box.bottom + box.top) / 2;
    for (const Phrase& p : ps) {
        if (blankText(p.text)) continue;
        const float py = (p.box.bottom + p.box.top) / 2;
        if (p.box.right <= box.left + 2 && (std::fabs(py - cy) < std::max(6.0f, box.height() / 2) ||
                                            vOverlap(p.box, box) > 0.5f * p.box.height())) {
            const float gap = box.left - p.box.right;
            if (gap < 200 && (!left || gap < leftGap)) left = &p, leftGap = gap;
        }
        if (hOverlap(p.box, box) > 0 && p.box.bottom >= box.top - 3 &&
            p.box.bottom < box.top + 24) {
            const float gap = p.box.bottom - box.top;
            if (!above || gap < aboveGap) above = &p, aboveGap = gap;
        }
        if (inside(p.box, box, 1) && (!within || p.box.top > within->box.top)) within = &p;
        if (underline && p.box.top <= box.bottom + 1 && p.box.top > box.bottom - 12 &&
            p.box.left >= box.left - 6 && p.box.left < box.left + 0.5f * box.width() &&
            (!below || p.box.top > below->box.top))
            below = &p;
    }
    if (within) return *within;
    if (left && leftGap < 60) return *left;
    if (below) return *below;
    if (above) return *above;
    if (left) return *left;
    return std::nullopt;
}

// The text right beside a small box or circle: its option.
std::u16string optionText(const Box& box, const std::vector<Phrase>& ps) {
    const Phrase* best = nullptr;
    for (const Phrase& p : ps)
        if (!blankText(p.text) && p.box.left >= box.right - 1 && p.box.left < box.right + 30 &&
            vOverlap(p.box, box) > 0.3f * std::min(p.box.height(), box.height()) &&
            (!best || p.box.left < best->box.left))
            best = &p;
    return best ? cleanLabel(best->text) : std::u16string();
}

bool signatureLabel(const std::u16string& text) {
    std::u16string lower;
    for (char16_t c : text)
        lower += (c >= u'A' && c <= u'Z') ? char16_t(c - u'A' + u'a') : c;
    return lower.find(u"signature") != std::u16string::npos ||
           lower.find(u"sign here") != std::u16string::npos ||
           lower.find(u"署名") != std::u16string::npos ||
           lower.find(u"サイン") != std::u16string::npos ||
           lower.find(u"記名押印") != std::u16string::npos;
}

std::vector<Candidate> candidates(const Drawing& d, const std::vector<Phrase>& ps) {
    std::vector<Candidate> out;
    const float pageArea = d.page.width() * d.page.height();

    // Box glyphs drawn as text: check boxes over their square.
    for (const Phrase& run : d.runs) {
        if (run.text.size() != 1 || !isBoxGlyph(run.text[0])) continue;
        const float s = std::min(run.box.width(), run.box.height());
        const float cx = (run.box.left + run.box.right) / 2,
                    cy = (run.box.bottom + run.box.top) / 2;
        out.push_back({Kind::Check, {cx - s / 2, cy - s / 2, cx + s / 2, cy + s / 2}});
    }
    // Circles: one radio button per centre (a ring and its dot are one); circles that cut
    // across others belong to a drawing (a logo), as do those holding text.
    for (size_t i = 0; i < d.circles.size(); ++i) {
        const Box& c = d.circles[i].box;
        const float cx = (c.left + c.right) / 2, cy = (c.bottom + c.top) / 2;
        bool keep = !holdsText(c, ps);
        for (size_t j = 0; j < d.circles.size() && keep; ++j) {
            const Box& o = d.circles[j].box;
            if (j == i || overlap(c, o) <= 0) continue;
            const bool concentric = std::fabs((o.left + o.right) / 2 - cx) < 1 &&
                                    std::fabs((o.bottom + o.top) / 2 - cy) < 1;
            if (!concentric)
                keep = false;
            else if (o.width() > c.width() + 0.5f ||
                     (std::fabs(o.width() - c.width()) <= 0.5f && j < i))
                keep = false; // the outer ring (or the first of equal ones) stands for them
        }
        if (keep) out.push_back({Kind::Radio, c});
    }

    // Boxes: drawn rectangles and the cells of ruled tables.
    std::vector<Box> all = d.boxes;
    for (const Box& c : cells(d))
        all.push_back(c);
    for (const Box& w : d.whiteBoxes)
        all.push_back(w);
    std::vector<Box> small, large;
    for (const Box& b : all) {
        const float w = b.width(), h = b.height();
        if (w < 4 || h < 4) continue;
        if (w * h > 0.25f * pageArea) continue;
        const bool square = std::fabs(w - h) <= 0.25f * std::max(w, h);
        if (square && w <= 20)
            small.push_back(b);
        else
            large.push_back(b);
    }
    // Each box once (a drawn rectangle is also a cell of its own sides).
    const auto dedupe = [](std::vector<Box>& v) {
        std::vector<Box> kept;
        for (const Box& b : v) {
            bool dup = false;
            for (const Box& k : kept)
                dup = dup || overlap(b, k) > 0.8;
            if (!dup) kept.push_back(b);
        }
        v = std::move(kept);
    };
    dedupe(small);
    dedupe(large);
    // Boxes that hold smaller boxes are frames of groups, not fields; but a drawn box that
    // rules only split into parts of its full height is one field (a number written in
    // groups: the parts show where), a comb when the parts are three or more alike.
    const auto drawn = [&d](const Box& b) {
        for (const Box& o : d.boxes)
            if (overlap(o, b) > 0.9) return true;
        for (const Box& o : d.whiteBoxes)
            if (overlap(o, b) > 0.9) return true;
        return false;
    };
    std::vector<Box> parted;
    {
        std::vector<Box> kept;
        std::vector<bool> part(large.size(), false);
        for (size_t i = 0; i < large.size(); ++i) {
            const Box& b = large[i];
            std::vector<size_t> inner;
            bool smallInside = false;
            for (size_t j = 0; j < large.size(); ++j)
                if (j != i && inside(large[j], b, 1) &&
                    large[j].width() * large[j].height() < 0.9f * b.width() * b.height())
                    inner.push_back(j);
            for (const Box& o : small)
                smallInside = smallInside || inside(o, b, 1);
            for (const Circle& o : d.circles)
                smallInside = smallInside || inside(o.box, b, 1);
            if (inner.empty() && !smallInside) continue;
            bool parts = !smallInside && drawn(b);
            bool alike = inner.size() >= 3;
            for (size_t j : inner) {
                parts = parts && large[j].height() >= 0.85f * b.height();
                alike = alike && std::fabs(large[j].width() - large[inner[0]].width()) <= 1.5f;
            }
            if (!parts) {
                part[i] = true; // a frame
                continue;
            }
            for (size_t j : inner)
                part[j] = true;
            if (alike) {
                Candidate c{Kind::Text, b};
                c.comb = true;
                c.maxLength = static_cast<uint32_t>(inner.size());
                out.push_back(c);
                part[i] = true;
            } else {
                parted.push_back(b);
            }
        }
        for (size_t i = 0; i < large.size(); ++i)
            if (!part[i]) kept.push_back(large[i]);
        large = std::move(kept);
    }

    // Rows of small equal boxes side by side: one comb field each; other small squares are
    // check boxes.
    std::sort(small.begin(), small.end(), [](const Box& a, const Box& b) {
        if (std::fabs(a.bottom - b.bottom) > 1) return a.bottom > b.bottom;
        return a.left < b.left;
    });
    std::vector<bool> inComb(small.size(), false);
    for (size_t i = 0; i < small.size();) {
        size_t j = i + 1;
        while (j < small.size() && std::fabs(small[j].bottom - small[i].bottom) <= 1 &&
               std::fabs(small[j].width() - small[i].width()) <= 1.5f &&
               small[j].left - small[j - 1].right <= 1.5f &&
               small[j].left - small[j - 1].right >= -1.5f)
            ++j;
        if (j - i >= 3) {
            Candidate c{Kind::Text,
                        {small[i].left, small[i].bottom, small[j - 1].right, small[i].top}};
            c.comb = true;
            c.maxLength = static_cast<uint32_t>(j - i);
            out.push_back(c);
            for (size_t k = i; k < j; ++k)
                inComb[k] = true;
        }
        i = j;
    }
    for (size_t i = 0; i < small.size(); ++i) {
        if (inComb[i]) continue;
        const Box& b = small[i];
        // A square holding text is a label's frame (a number in a circle or box).
        if (holdsText(b, ps)) continue;
        out.push_back({Kind::Check, b});
    }

    for (const Box& b : parted)
        large.push_back(b);
    for (const Box& b : large) {
        if (b.height() < 7 || b.width() < 12) continue;
        const std::optional<Box> room = roomIn(b, ps);
        if (!room) continue;
        Candidate c{Kind::Text, *room};
        if (room->height() > 40 && room->width() > 60) c.multiline = true;
        out.push_back(c);
    }

    // Underlines: horizontal rules that no box or cell uses, with room above them.
    std::vector<Segment> rules = d.horizontal;
    std::sort(rules.begin(), rules.end(), [](const Segment& a, const Segment& b) {
        return std::tie(a.at, a.from) < std::tie(b.at, b.from);
    });
    for (const Segment& r : rules) {
        if (r.length() < 30) continue;
        // A rule across the page parts sections: only room that a label on it starts
        // ("Address: ____") is a place to write.
        const bool across = r.length() > 0.85f * d.page.width();
        // The room above it up to the next rule over it, at most 16 points.
        float roof = r.at + 16;
        bool ruled = false; // a rule above closes the room: the band of a ruled table
        for (const Segment& o : rules)
            if (o.at > r.at + 1 && o.at < roof && o.from < r.to - 2 && o.to > r.from + 2)
                roof = o.at, ruled = true;
        // Text over the rule that does not stand on it (a title above a rule) leaves only
        // the room below it.
        for (const Phrase& p : ps)
            if (!blankText(p.text) && p.box.bottom > r.at + 4 && p.box.bottom < roof &&
                hOverlap(p.box, {r.from, 0, r.to, 0}) > 0)
                roof = p.box.bottom;
        if (roof - r.at < 8) continue;
        // What of it is taken: the sides of boxes lying on it and the text standing on it
        // (labels and underlined text). The rest is room to write.
        std::vector<std::pair<float, float>> taken;
        for (const Box& b : all)
            if ((std::fabs(b.bottom - r.at) < 1.5f || std::fabs(b.top - r.at) < 1.5f) &&
                b.height() >= 4)
                taken.emplace_back(b.left - 1, b.right + 1);
        for (const Phrase& p : ps)
            if (!blankText(p.text) && p.box.bottom > r.at - 3 && p.box.bottom < roof - 2)
                taken.emplace_back(p.box.left - 2, p.box.right + 2);
        std::sort(taken.begin(), taken.end());
        float from = r.from;
        const auto labelled = [&](float at) {
            for (const Phrase& p : ps)
                if (!blankText(p.text) && p.box.bottom > r.at - 3 && p.box.bottom < roof - 2 &&
                    p.box.right <= at + 3 && p.box.right > at - 14)
                    return true;
            return false;
        };
        const auto room = [&](float to) {
            // Across the page, and in a band of a ruled table, only room that a label
            // starts is written in (the rest of a heading's row is not).
            if (to - from >= 30 && (!(across || ruled) || labelled(from))) {
                Candidate c{Kind::Text, {from, r.at, to, roof}};
                c.fromUnderline = true;
                out.push_back(c);
            }
        };
        for (const auto& [l, rt] : taken) {
            if (rt <= from || l >= r.to) continue;
            if (l > from) room(std::min(l, r.to));
            from = std::max(from, rt);
        }
        if (from < r.to) room(r.to);
    }
    return out;
}

} // namespace

PageResult detectPage(PDDoc doc, uint32_t index, const Limits& limits) {
    const auto started = std::chrono::steady_clock::now();
    PageResult result;
    result.page = index;
    PDPage page = nullptr;
    check(PDDocGetPage(doc, index, &page));
    struct Release {
        PDHandle h;
        ~Release() { PDHandleRelease(h); }
    } release{page};

    Drawing d;
    d.maxShapes = limits.maxShapes;
    PDRect crop{};
    check(PDPageGetBox(page, PD_BOX_CROP, &crop));
    d.page = {std::min(crop.left, crop.right), std::min(crop.bottom, crop.top),
              std::max(crop.left, crop.right), std::max(crop.bottom, crop.top)};
    PDGraphicsSummary summary{};
    check(PDPageReadGraphics(page, limits.maxOperators, collect, &d, &summary));
    result.operators = summary.operators;
    result.operatorsCapped = summary.skippedOperators != 0;
    result.skippedXObjects = summary.skippedXObjects;
    result.shapes = d.shapes;
    result.shapesCapped = d.shapesCapped;
    result.textRuns = static_cast<uint32_t>(d.runs.size());
    const float pageArea = d.page.width() * d.page.height();
    for (const Box& im : d.images)
        if (im.width() * im.height() > 0.6f * pageArea && d.shapes == 0 && d.runs.empty())
            result.imageOnly = true;

    const std::vector<Phrase> ps = phrases(d.runs);
    std::vector<Candidate> found = candidates(d, ps);
    // A cell several lines tall in a column of one-line cells (the amounts of a tax form)
    // is written in its last line, as the others are.
    for (Candidate& c : found) {
        if (c.kind != Kind::Text || c.fromUnderline || c.comb || c.box.width() > 120) continue;
        std::vector<float> heights;
        for (const Candidate& o : found)
            if (&o != &c && o.kind == Kind::Text && !o.fromUnderline &&
                std::fabs(o.box.left - c.box.left) < 1.5f &&
                std::fabs(o.box.right - c.box.right) < 1.5f)
                heights.push_back(o.box.height());
        if (heights.size() < 3) continue;
        std::nth_element(heights.begin(), heights.begin() + heights.size() / 2, heights.end());
        const float line = heights[heights.size() / 2];
        if (c.box.height() >= 1.8f * line) {
            c.box.top = c.box.bottom + line;
            c.multiline = false;
        }
    }

    // Widgets already on the page keep their place: nothing is proposed over them.
    std::vector<Box> widgets;
    uint32_t count = 0;
    check(PDPageGetNumAnnots(page, &count));
    for (uint32_t i = 0; i < count; ++i) {
        PDAnnot annot = nullptr;
        if (PDPageGetAnnot(page, i, &annot) != PD_OK) continue;
        PDAtom subtype = 0;
        PDRect r{};
        if (PDAnnotGetSubtype(annot, &subtype) == PD_OK && subtype == PD_ATOM_Widget &&
            PDAnnotGetRect(annot, &r) == PD_OK)
            widgets.push_back({std::min(r.left, r.right), std::min(r.bottom, r.top),
                               std::max(r.left, r.right), std::max(r.bottom, r.top)});
        PDHandleRelease(annot);
    }

    // One proposal per place: later candidates that cover an earlier one are dropped. Each
    // stays on the page (the part of it there, when that is of a field's size).
    std::vector<Candidate> kept;
    for (Candidate c : found) {
        c.box = {std::max(c.box.left, d.page.left), std::max(c.box.bottom, d.page.bottom),
                 std::min(c.box.right, d.page.right), std::min(c.box.top, d.page.top)};
        if (c.box.width() < 4 || c.box.height() < 4) continue;
        bool taken = false;
        for (const Candidate& k : kept)
            taken = taken || overlap(c.box, k.box) > 0.5;
        bool widget = false;
        for (const Box& w : widgets)
            widget = widget || overlap(c.box, w) > 0.3;
        if (widget) ++result.existingWidgets;
        if (!taken && !widget) kept.push_back(c);
    }

    // Radio groups: circles on one row, each the next within 200 points, or in one column,
    // each the next within three heights.
    std::vector<size_t> radios;
    for (size_t i = 0; i < kept.size(); ++i)
        if (kept[i].kind == Kind::Radio) radios.push_back(i);
    std::vector<size_t> root(kept.size());
    for (size_t i = 0; i < root.size(); ++i)
        root[i] = i;
    const auto find = [&root](size_t i) {
        while (root[i] != i)
            i = root[i] = root[root[i]];
        return i;
    };
    for (size_t a : radios) {
        for (size_t b : radios) {
            const Box &x = kept[a].box, &y = kept[b].box;
            if (a >= b) continue;
            const bool row = std::fabs(x.bottom - y.bottom) <= 2 &&
                             std::max(x.left, y.left) - std::min(x.right, y.right) < 200;
            const bool column =
                std::fabs(x.left - y.left) <= 2 &&
                std::max(x.bottom, y.bottom) - std::min(x.top, y.top) < 2 * x.height();
            if (row || column) root[find(a)] = find(b);
        }
    }
    std::map<size_t, int> groupOf;
    for (size_t i : radios) {
        const size_t r = find(i);
        if (!groupOf.count(r)) groupOf.emplace(r, static_cast<int>(groupOf.size()));
        kept[i].group = groupOf[r];
    }
    // The group's name comes from the label of its first button, top left.
    std::map<int, size_t> firstOf;
    for (size_t i : radios) {
        auto it = firstOf.find(kept[i].group);
        const Box& b = kept[i].box;
        if (it == firstOf.end() || b.top > kept[it->second].box.top + 2 ||
            (std::fabs(b.top - kept[it->second].box.top) <= 2 &&
             b.left < kept[it->second].box.left))
            firstOf[kept[i].group] = i;
    }

    // Labels, kinds by label, names.
    // Names once per page: base, then base_2, base_3, ...
    std::map<std::u16string, int> used;
    const auto unique = [&used](const std::u16string& base) {
        if (base.empty()) return base;
        std::u16string name = base;
        for (int n = 2; used.count(name); ++n) {
            std::u16string digits;
            for (int v = n; v > 0; v /= 10)
                digits.insert(digits.begin(), char16_t(u'0' + v % 10));
            name = base + u"_" + digits;
        }
        used[name] = 1;
        return name;
    };
    std::map<int, std::u16string> groupNames;
    for (const Candidate& c : kept) {
        Proposal p;
        p.kind = c.kind;
        p.box = c.box;
        p.multiline = c.multiline;
        p.comb = c.comb;
        p.maxLength = c.maxLength;
        p.group = c.group;
        std::u16string label;
        if (c.kind == Kind::Radio) {
            // The option: the text just right of the circle; the group: the label of its
            // first circle.
            p.label = optionText(c.box, ps);
            auto g = groupNames.find(c.group);
            if (g == groupNames.end()) {
                const auto l = labelOf(kept[firstOf[c.group]].box, ps, false);
                const std::u16string base =
                    l ? nameFromLabel(cleanLabel(l->text)) : std::u16string();
                g = groupNames.emplace(c.group, unique(base)).first;
            }
            p.name = g->second;
            result.proposals.push_back(std::move(p));
            continue;
        }
        // A check box's label is the text right beside it, as a radio button's option.
        if (c.kind == Kind::Check) label = optionText(c.box, ps);
        if (label.empty())
            if (const auto l = labelOf(c.box, ps, c.fromUnderline)) label = cleanLabel(l->text);
        p.label = label;
        if (c.kind == Kind::Text && !c.comb && signatureLabel(label) && c.box.height() < 60)
            p.kind = Kind::Signature, p.multiline = false;
        p.name = unique(nameFromLabel(label));
        result.proposals.push_back(std::move(p));
    }
    // Rows from the top, left to right, as the tab order goes.
    std::stable_sort(result.proposals.begin(), result.proposals.end(),
                     [](const Proposal& a, const Proposal& b) {
                         if (a.box.bottom != b.box.bottom) return a.box.bottom > b.box.bottom;
                         return a.box.left < b.box.left;
                     });
    result.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    return result;
}

} // namespace qfforms::detect
