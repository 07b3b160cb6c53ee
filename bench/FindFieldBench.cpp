// Field lookup by fully qualified name on a large form.
//
// The form has 20,000 text fields named "section<i/100>.field<i>": 200 non-terminal
// parents with 100 terminal kids each. PDDocFindField must answer from the name index
// in microseconds, not by walking the form.

#include "pdfcore/pdfcore.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <system_error>
#include <vector>

namespace {

constexpr uint32_t kFieldCount = 20000;
constexpr uint32_t kPerSection = 100;
constexpr size_t kQueryCount = 4096;

std::u16string ascii16(const std::string& s) {
    return std::u16string(s.begin(), s.end());
}

std::u16string fieldName(uint32_t i) {
    return ascii16("section" + std::to_string(i / kPerSection) + ".field" + std::to_string(i));
}

// The 20,000-field document, built once, and a copy of it saved to a temporary file.
class LargeForm {
  public:
    LargeForm() {
        // This object is destroyed at exit. qpdf makes some of its own function-local
        // statics the first time a document is destroyed; if that first happened after
        // this constructor (in BM_OpenAndFirstFind), those statics would be gone before
        // our destructor closes the document. Destroying a document here first makes
        // them outlive this object.
        PDDoc warmUp = nullptr;
        if (PDDocCreate(1, 612, 792, &warmUp) == PD_OK) PDDocClose(warmUp);

        if (PDDocCreate(1, 612, 792, &doc_) != PD_OK) {
            error_ = "PDDocCreate failed";
            return;
        }
        for (uint32_t i = 0; i < kFieldCount; ++i) {
            std::u16string name = fieldName(i);
            PDField field = nullptr;
            PDResult r = PDDocCreateField(doc_, name.data(), static_cast<uint32_t>(name.size()),
                                          PD_ATOM_Tx, 0, &field);
            PDHandleRelease(field);
            if (r != PD_OK) {
                error_ = "PDDocCreateField failed with " + std::to_string(r);
                return;
            }
        }
        std::error_code ec;
        path_ = (std::filesystem::temp_directory_path(ec) /
                 ("qf_bench_fields_" + std::to_string(std::random_device{}()) + ".pdf"))
                    .string();
        if (PDDocSave(doc_, path_.c_str()) != PD_OK) {
            error_ = "PDDocSave failed";
            path_.clear();
        }
    }
    ~LargeForm() {
        PDDocClose(doc_);
        if (!path_.empty()) std::remove(path_.c_str());
    }
    LargeForm(const LargeForm&) = delete;
    LargeForm& operator=(const LargeForm&) = delete;

    PDDoc doc() const { return doc_; }
    const std::string& path() const { return path_; }
    const std::string& error() const { return error_; }

  private:
    PDDoc doc_ = nullptr;
    std::string path_;
    std::string error_;
};

LargeForm& largeForm() {
    static LargeForm form;
    return form;
}

bool ready(benchmark::State& state) {
    if (!largeForm().error().empty()) {
        state.SkipWithError(largeForm().error().c_str());
        return false;
    }
    return true;
}

std::vector<std::u16string> existingNames() {
    std::mt19937 rng(12345);
    std::uniform_int_distribution<uint32_t> pick(0, kFieldCount - 1);
    std::vector<std::u16string> names;
    for (size_t i = 0; i < kQueryCount; ++i)
        names.push_back(fieldName(pick(rng)));
    return names;
}

// Names that are not in the form: a field number under the wrong section, an unknown
// section, a name continuing past a terminal field, and a near miss.
std::vector<std::u16string> missingNames() {
    std::mt19937 rng(67890);
    std::uniform_int_distribution<uint32_t> pick(0, kFieldCount - 1);
    std::vector<std::u16string> names;
    for (size_t i = 0; i < kQueryCount; ++i) {
        uint32_t n = pick(rng);
        switch (i % 4) {
        case 0:
            names.push_back(ascii16("section" + std::to_string((n / kPerSection + 1) % 200) +
                                    ".field" + std::to_string(n)));
            break;
        case 1:
            names.push_back(
                ascii16("section" + std::to_string(200 + n) + ".field" + std::to_string(n)));
            break;
        case 2:
            names.push_back(fieldName(n) + u".x");
            break;
        default:
            names.push_back(fieldName(n) + u"0");
            break;
        }
    }
    return names;
}

void findAll(benchmark::State& state, const std::vector<std::u16string>& names, bool expectFound) {
    if (!ready(state)) return;
    PDDoc doc = largeForm().doc();
    size_t i = 0;
    for (auto _ : state) {
        const std::u16string& name = names[i++ % names.size()];
        PDField field = nullptr;
        PDResult r = PDDocFindField(doc, name.data(), static_cast<uint32_t>(name.size()), &field);
        benchmark::DoNotOptimize(field);
        if (r != PD_OK || (field != nullptr) != expectFound) {
            PDHandleRelease(field);
            state.SkipWithError("PDDocFindField gave a wrong answer");
            break;
        }
        PDHandleRelease(field);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void BM_FindExistingField(benchmark::State& state) {
    static const std::vector<std::u16string> names = existingNames();
    findAll(state, names, true);
}
BENCHMARK(BM_FindExistingField);

void BM_FindMissingField(benchmark::State& state) {
    static const std::vector<std::u16string> names = missingNames();
    findAll(state, names, false);
}
BENCHMARK(BM_FindMissingField);

void BM_FindParentField(benchmark::State& state) {
    static const std::vector<std::u16string> names = [] {
        std::vector<std::u16string> v;
        for (uint32_t s = 0; s < kFieldCount / kPerSection; ++s)
            v.push_back(ascii16("section" + std::to_string(s)));
        return v;
    }();
    findAll(state, names, true);
}
BENCHMARK(BM_FindParentField);

// Opening the saved form and the first lookup, which builds the name index.
void BM_OpenAndFirstFind(benchmark::State& state) {
    if (!ready(state)) return;
    const std::u16string name = fieldName(kFieldCount / 2 + 7);
    for (auto _ : state) {
        PDDoc doc = nullptr;
        if (PDDocOpen(largeForm().path().c_str(), &doc) != PD_OK) {
            state.SkipWithError("PDDocOpen failed");
            break;
        }
        PDField field = nullptr;
        PDResult r = PDDocFindField(doc, name.data(), static_cast<uint32_t>(name.size()), &field);
        const bool found = r == PD_OK && field != nullptr;
        PDHandleRelease(field);
        PDDocClose(doc);
        if (!found) {
            state.SkipWithError("the saved form lost a field");
            break;
        }
    }
}
BENCHMARK(BM_OpenAndFirstFind)->Unit(benchmark::kMillisecond);

} // namespace
