// Values in other scripts: 1,000 text fields of the font the creation tool gives them
// ("MS Gothic"), filled with Latin values (drawn in Helvetica, nothing embedded) or with
// Japanese ones (shaped and drawn in a system face, embedded once as a subset), and the
// document written to memory. The Japanese run may cost at most 1.5 times the Latin one.

#include "pdfcore/pdfcore.h"

#include <benchmark/benchmark.h>
#include <string>

namespace {

constexpr uint32_t kFields = 1000;

std::u16string ascii16(const std::string& s) {
    return std::u16string(s.begin(), s.end());
}

// A value per field, none alike: the Japanese ones draw on a pool of about 60 characters,
// as names and addresses do.
std::u16string valueOf(uint32_t i, bool japanese) {
    if (!japanese) return ascii16("Customer " + std::to_string(i) + ", 12 Main Street");
    static const std::u16string pool = u"山田太郎花子東京都千代田区大阪府北海道様株式会社営業部第一課"
                                       u"電話番号住所氏名生年月日郵便あいうえおかきくけこ";
    std::u16string v;
    for (uint32_t k = 0, n = i; k < 8; ++k, n = n * 7 + 3)
        v += pool[n % pool.size()];
    return v + u" " + ascii16(std::to_string(i));
}

void BM_FillAndWrite(benchmark::State& state) {
    const bool japanese = state.range(0) != 0;
    PDAtom gothic = 0;
    PDAtomPutString("MS Gothic", &gothic);
    for (auto _ : state) {
        PDDoc doc = nullptr;
        if (PDDocCreate(10, 612, 792, &doc) != PD_OK) {
            state.SkipWithError("PDDocCreate failed");
            return;
        }
        for (uint32_t i = 0; i < kFields; ++i) {
            PDPage page = nullptr;
            PDDocGetPage(doc, i / 100, &page);
            std::u16string name = ascii16("Text" + std::to_string(i + 1));
            PDField field = nullptr;
            PDDocCreateField(doc, name.data(), static_cast<uint32_t>(name.size()), PD_ATOM_Tx, 0,
                             &field);
            float top = 770.0f - static_cast<float>(i % 100 / 2) * 15;
            float left = i % 2 ? 320.0f : 40.0f;
            PDRect rect{left, top, left + 250, top - 13};
            PDAnnot widget = nullptr;
            PDCreateTextWidgetAnnot(doc, field, page, &rect, &widget);
            uint32_t count = 0;
            PDPageGetNumAnnots(page, &count);
            PDPageAddAnnot(page, count, widget);
            PDFontInfo font{gothic, 1, 0};
            PDWidgetAnnotSetFontInfo(widget, &font);
            std::u16string value = valueOf(i, japanese);
            PDFieldSetValue(field, value.data(), static_cast<uint32_t>(value.size()));
            PDHandleRelease(widget);
            PDHandleRelease(field);
            PDHandleRelease(page);
        }
        void* data = nullptr;
        size_t size = 0;
        if (PDDocSaveMem(doc, &data, &size) != PD_OK) state.SkipWithError("PDDocSaveMem failed");
        state.counters["bytes"] = static_cast<double>(size);
        PDFreeBuffer(data);
        PDDocClose(doc);
    }
}
BENCHMARK(BM_FillAndWrite)->ArgName("japanese")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

} // namespace
