// Atoms: the process-wide numbering of PDF names.
//
// Numbers below kPredefinedCount index the fixed table in AtomTable.inc and are found by
// binary search without a lock. Other names get a number from kPredefinedCount up to
// 2^31 - 1 taken from a hash of the name (the next free one when two names meet), so a
// name has the same number in every process that does not meet such a clash: numbers
// written into a clipboard record by one run mean the same names in the next. The table
// only grows; its strings never move and are never freed, so the pointers
// PDAtomGetString hands out stay valid.
#include "Core.h"

#include <algorithm>
#include <deque>
#include <iterator>
#include <string>
#include <unordered_map>
#include <mutex>
#include <string_view>

namespace pdfcore {
namespace {

constexpr std::string_view kPredefined[] =
#include "AtomTable.inc"
    ;
constexpr uint32_t kPredefinedCount = static_cast<uint32_t>(std::size(kPredefined));

constexpr bool strictlyAscending() {
    for (size_t i = 1; i < std::size(kPredefined); ++i)
        if (!(kPredefined[i - 1] < kPredefined[i])) return false;
    return true;
}
static_assert(strictlyAscending(), "AtomTable.inc must be sorted, without duplicates");
static_assert(kPredefined[0].empty(), "atom 0 is the empty name");

// The numbers that pdfcore.h promises.
constexpr bool at(PDAtom atom, std::string_view name) {
    return atom < kPredefinedCount && kPredefined[atom] == name;
}
static_assert(at(PD_ATOM_A, "A") && at(PD_ATOM_Action, "Action") && at(PD_ATOM_Btn, "Btn") &&
                  at(PD_ATOM_C, "C") && at(PD_ATOM_Ch, "Ch") && at(PD_ATOM_Filespec, "Filespec") &&
                  at(PD_ATOM_GoTo, "GoTo") && at(PD_ATOM_GoToE, "GoToE") &&
                  at(PD_ATOM_Hide, "Hide") && at(PD_ATOM_JavaScript, "JavaScript") &&
                  at(PD_ATOM_Launch, "Launch") && at(PD_ATOM_Link, "Link") && at(PD_ATOM_N, "N") &&
                  at(PD_ATOM_Named, "Named") && at(PD_ATOM_Off, "Off") && at(PD_ATOM_P, "P") &&
                  at(PD_ATOM_Popup, "Popup") && at(PD_ATOM_R, "R") &&
                  at(PD_ATOM_ResetForm, "ResetForm") && at(PD_ATOM_S, "S") &&
                  at(PD_ATOM_Sig, "Sig") && at(PD_ATOM_SubmitForm, "SubmitForm") &&
                  at(PD_ATOM_T, "T") && at(PD_ATOM_Tx, "Tx") && at(PD_ATOM_Type, "Type") &&
                  at(PD_ATOM_URI, "URI") && at(PD_ATOM_W, "W") && at(PD_ATOM_Widget, "Widget"),
              "AtomTable.inc must keep the PD_ATOM_* numbers of pdfcore.h");

// The predefined atom of name, or 0 when name is not in the table.
PDAtom predefinedAtom(std::string_view name) {
    const auto end = std::end(kPredefined);
    const auto it = std::lower_bound(std::begin(kPredefined), end, name);
    return it != end && *it == name ? static_cast<PDAtom>(it - std::begin(kPredefined)) : 0;
}

class DynamicAtoms {
  public:
    PDAtom atomOf(std::string_view name) {
        std::lock_guard lock(mutex_);
        if (auto it = atoms_.find(name); it != atoms_.end()) return it->second;
        if (names_.size() >= kSpan / 2) fail(PD_ERR_TOO_LARGE);
        PDAtom atom = kPredefinedCount + hash(name) % kSpan;
        while (byAtom_.count(atom))
            atom = atom + 1 < kPredefinedCount + kSpan ? atom + 1 : kPredefinedCount;
        noteName(name);
        const std::string& stored = names_.emplace_back(name);
        try {
            byAtom_.emplace(atom, &stored);
            try {
                atoms_.emplace(std::string_view(stored), atom);
            } catch (...) {
                byAtom_.erase(atom);
                throw;
            }
        } catch (...) {
            names_.pop_back();
            throw;
        }
        return atom;
    }

    // The stored name of a dynamic atom, or nullptr for a number never handed out.
    const std::string* name(PDAtom atom) const {
        std::lock_guard lock(mutex_);
        const auto it = byAtom_.find(atom);
        return it != byAtom_.end() ? it->second : nullptr;
    }

  private:
    static constexpr PDAtom kSpan = 0x7FFFFFFFu - kPredefinedCount;

    // FNV-1a: fixed across builds and platforms, unlike std::hash.
    static uint32_t hash(std::string_view name) {
        uint32_t h = 2166136261u;
        for (const char c : name)
            h = (h ^ static_cast<unsigned char>(c)) * 16777619u;
        return h;
    }

    // Not std::shared_mutex, which MinGW builds on winpthreads' rwlock: its lazy set-up
    // on first use races. The lock is held for one hash lookup.
    mutable std::mutex mutex_;
    std::deque<std::string> names_;
    std::unordered_map<std::string_view, PDAtom> atoms_;
    std::unordered_map<PDAtom, const std::string*> byAtom_;
};

// Never destroyed, so that names stay valid during static destruction too.
DynamicAtoms& dynamicAtoms() {
    static DynamicAtoms* const atoms = new DynamicAtoms;
    return *atoms;
}

} // namespace

PDAtom atomOf(const std::string& nameWithoutSlash) {
    if (nameWithoutSlash.empty()) return 0;
    if (const PDAtom atom = predefinedAtom(nameWithoutSlash)) return atom;
    return dynamicAtoms().atomOf(nameWithoutSlash);
}

std::string atomName(PDAtom atom) {
    if (atom < kPredefinedCount) return std::string(kPredefined[atom]);
    const std::string* name = dynamicAtoms().name(atom);
    return name ? *name : std::string();
}

} // namespace pdfcore

using namespace pdfcore;

extern "C" {

PDFCORE_API uint32_t PDAtomGetPredefinedCount(void) {
    return kPredefinedCount;
}

PDFCORE_API PDResult PDAtomPutString(const char* name, PDAtom* outAtom) {
    return guard([&] {
        checkOut(outAtom);
        if (!name || !*name) fail(PD_ERR_BAD_ARGUMENT);
        const std::string_view view(name);
        const PDAtom predefined = predefinedAtom(view);
        *outAtom = predefined ? predefined : dynamicAtoms().atomOf(view);
    });
}

PDFCORE_API PDResult PDAtomGetString(PDAtom atom, const char** outName) {
    return guard([&] {
        checkOut(outName);
        if (atom < kPredefinedCount) {
            *outName = kPredefined[atom].data(); // literals, so NUL-terminated
            return;
        }
        const std::string* name = dynamicAtoms().name(atom);
        if (!name) fail(PD_ERR_RANGE);
        *outName = name->c_str();
    });
}

} // extern "C"
