#include "Clip.h"

#include "Files.h"
#include "Pd.h"
#include "Records.h"

#include "kr/KRRuntime.h"
#include "qf/Interfaces.h"
#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <optional>

namespace qfforms {

const char* const kClipUsage =
    "       qfforms copy IN.pdf --field NAME [--widget K] [--password PASSWORD]\n"
    "                    [--password-file FILE] [--module PATH]\n"
    "       qfforms paste IN.pdf --page N --out OUT.pdf [--join] [--break-signatures]\n"
    "                     [--full-rewrite | --incremental] [--force] [--password PASSWORD]\n"
    "                     [--password-file FILE]\n"
    "                     [--module PATH] < RECORD.json\n";

namespace {

namespace fs = std::filesystem;

struct Options {
    std::string in, field, out, module, widget, page, password, passwordFile;
    bool help = false;
    bool breakSignatures = false;
    bool fullRewrite = false;
    bool incremental = false;
    bool join = false;
    bool force = false;
};

// The whole of text as a number from 0, or nothing.
std::optional<uint32_t> number(const std::string& text) {
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    return static_cast<uint32_t>(std::stoul(text));
}

// Fills o; the usage problem, if any. copy takes --field and --widget, paste --page and
// --out.
std::optional<std::string> parse(const std::vector<std::string>& args, Options& o, bool copy) {
    std::vector<std::string> files;
    const auto problem =
        copy ? parseArguments(args,
                              {{"--field", &o.field},
                               {"--widget", &o.widget},
                               {"--password", &o.password},
                               {"--password-file", &o.passwordFile},
                               {"--module", &o.module}},
                              {{"--help", &o.help}}, files)
             : parseArguments(args,
                              {{"--page", &o.page},
                               {"--out", &o.out},
                               {"--password", &o.password},
                               {"--password-file", &o.passwordFile},
                               {"--module", &o.module}},
                              {{"--help", &o.help},
                               {"--break-signatures", &o.breakSignatures},
                               {"--full-rewrite", &o.fullRewrite},
                               {"--incremental", &o.incremental},
                               {"--join", &o.join},
                               {"--force", &o.force}},
                              files);
    if (problem || o.help) return problem;
    if (auto conflict = passwordUsage(o.password, o.passwordFile)) return conflict;
    if (auto conflict = saveUsage(o.fullRewrite, o.incremental)) return conflict;
    if (files.size() > 1) return "one input file";
    if (files.empty() || files[0].empty()) return "an input file is needed";
    o.in = files[0];
    for (const auto& [name, text] :
         {std::pair{"--widget", &o.widget}, std::pair{"--page", &o.page}})
        if (!text->empty() && !number(*text)) return std::string(name) + " takes a number from 0";
    if (copy && o.field.empty()) return "copy needs --field NAME";
    if (!copy && o.page.empty()) return "paste needs --page N";
    if (!copy && o.out.empty()) return "paste needs --out OUT.pdf";
    return std::nullopt;
}

int usage(const std::string& problem) {
    std::cerr << "qfforms: " << problem << "\nusage:\n" << kClipUsage;
    return 2;
}

int fail(const std::string& what, const std::string& message) {
    std::cerr << "qfforms: " << what << ": " << message << "\n";
    return 1;
}

// The module's failure text for code, when it left one.
std::string moduleText(qfhost::ModuleLoader& loader, uint32_t code) {
    SODetails::ErrorInfo info{};
    qfhost::ServiceObject* so = loader.initService();
    if (so && SODetails::header(so)->base.GetLastErrorInfo(so, &info, nullptr) == 0 &&
        info.code == code && info.message)
        return toUtf8(info.message);
    return "code " + std::to_string(code);
}

// Reads the record on standard input into text, up to one byte past the largest record, so
// that a stream without end (/dev/zero) is refused rather than read into memory.
std::optional<std::string> readRecord(std::string& text) {
    text.clear();
    char buffer[65536];
    while (text.size() <= kMaxRecordBytes) {
        const size_t got = std::fread(buffer, 1, sizeof buffer, stdin);
        text.append(buffer, got);
        if (got < sizeof buffer) {
            if (std::ferror(stdin)) return "cannot read the record";
            break;
        }
    }
    if (text.empty()) return "no record: give one on standard input (qfforms copy prints one)";
    return std::nullopt;
}

// The "name" of a widget record, quoted, for messages.
std::string recordName(const std::string& text) {
    const auto record = nlohmann::json::parse(text, nullptr, false);
    const auto it = record.is_object() ? record.find("name") : record.end();
    return nlohmann::json(it != record.end() && it->is_string() ? it->get<std::string>() : "")
        .dump();
}

// A host with the module loaded and in.pdf open in a view, to read it or to change it.
struct Session {
    Session(const Options& o, const Password& password, Use use) {
        loader.load(modulePath(o.module));
        host.openView(openDocument(host, o.in, password, use));
    }
    qfhost::Host host;
    qfhost::ModuleLoader loader{&host};
};

} // namespace

int copyCommand(const std::vector<std::string>& args) {
    Options o;
    if (auto problem = parse(args, o, true)) return usage(*problem);
    if (o.help) return std::cout << "usage:\n" << kClipUsage, 0;
    const uint32_t widgetIndex = o.widget.empty() ? 0 : *number(o.widget);
    Password password;
    if (auto problem = readPassword(o.password, o.passwordFile, password))
        return fail(o.passwordFile, *problem);
    try {
        Session s(o, password, Use::Read);
        qfhost::Document& doc = *s.host.currentDocument();
        const std::u16string name = fromUtf8(o.field);
        Handle field;
        check(PDDocFindField(doc.pdDoc(), name.data(), uint32_t(name.size()), field.out()));
        if (!field) return fail(o.in, "no field is named \"" + o.field + "\"");
        Handle widget;
        if (PDFieldGetWidget(field.get(), widgetIndex, widget.out()) != PD_OK || !widget)
            return fail(o.in, "the field has no widget " + std::to_string(widgetIndex));
        std::optional<uint32_t> page;
        for (uint32_t p = 0; p < doc.pageCount() && !page; ++p) {
            Handle pg;
            uint32_t at = 0;
            check(PDDocGetPage(doc.pdDoc(), p, pg.out()));
            if (PDPageGetAnnotIndex(pg.get(), widget.get(), &at) == PD_OK) page = p;
        }
        if (!page) return fail(o.in, "the widget is on no page");
        qfhost::ObjectPtr factory = s.host.annotEdit().editSelectFactories().find(PD_ATOM_Widget);
        if (!SODetails::hasMethod(factory.get(), 1)) return fail(o.in, "the module copies no widgets");
        qfhost::ObjectPtr data;
        const uint32_t rc = SODetails::methods<QF::AnnotEditSelectFactoryTable>(factory.get())
                                ->CopyAnnot(factory.get(), s.host.currentView()->object(), *page,
                                            widget.get(), data.put());
        if (rc != 0 || !data) return fail(o.in, "cannot copy the widget: " + moduleText(s.loader, rc));
        auto& ops = *SODetails::methods<QF::DataObjectTable>(data.get());
        uint64_t length = 0;
        ops.GetData(data.get(), nullptr, 0, &length);
        std::string text(length, '\0');
        ops.GetData(data.get(), text.data(), length, &length);
        text.resize(length);
        std::cout << text << "\n";
        return std::cout.flush() ? 0 : 1;
    } catch (const std::exception& e) {
        return fail(o.in, e.what());
    }
}

int pasteCommand(const std::vector<std::string>& args) {
    Options o;
    if (auto problem = parse(args, o, false)) return usage(*problem);
    if (o.help) return std::cout << "usage:\n" << kClipUsage, 0;
    const uint32_t page = *number(o.page);
    Password password;
    if (auto problem = readPassword(o.password, o.passwordFile, password))
        return fail(o.passwordFile, *problem);
    std::string text;
    if (auto problem = readRecord(text)) return fail("standard input", *problem);
    if (auto problem = recordProblem(text)) return fail("standard input", *problem);
    try {
        Session s(o, password, Use::Edit);
        qfhost::Document& doc = *s.host.currentDocument();
        if (page >= doc.pageCount())
            return fail(o.in, "no page " + std::to_string(page) + " (" +
                                  std::to_string(doc.pageCount()) + " pages)");
        PDAnnot widget = nullptr;
        const uint32_t rc = s.host.selection().pasteText(
            page, text,
            o.join ? qfhost::AnnotSelection::Naming::Join : qfhost::AnnotSelection::Naming::NewField,
            &widget);
        Handle pasted(widget);
        if (rc == 1) return fail("standard input", "the record makes no widget");
        if (rc == qfhost::codes::kNoFieldToJoin)
            return fail(o.in, "no field is named " + recordName(text) +
                                  " to join (without --join the widget makes a new field)");
        if (rc == qfhost::codes::kCannotJoin)
            return fail(o.in, "the field " + recordName(text) +
                                  " is of another kind than the copied widget, or holds fields "
                                  "rather than widgets: the widget cannot join it");
        if (rc != 0)
            return fail(o.in, "the forms module could not make a widget of the record (the "
                              "forms module: " + moduleText(s.loader, rc) + ")");
        const SavePlan plan = planSave(doc.pdDoc(), saveAs(o.fullRewrite, o.incremental));
        if (plan.breaksSignatures && !o.breakSignatures)
            return fail(o.out, std::string(kSignedDocument) +
                                   " (pass --break-signatures to save anyway)");
        const PDResult saved = PDDocSaveEx(
            doc.pdDoc(), o.out.c_str(),
            (o.force ? PD_SAVE_FORCE : 0) | (plan.incremental ? PD_SAVE_INCREMENTAL : 0));
        if (saved != PD_OK) return fail(o.out, writeProblem(saved, "--force"));
        Handle field;
        check(PDWidgetAnnotGetParent(pasted.get(), field.out()));
        const PDField f = field.get();
        const auto name = readUtf8([f](char16_t* b, uint32_t n, uint32_t* l) {
            return PDFieldGetFullName(f, b, n, l);
        });
        std::cout << "pasted the field \"" << name.value_or("") << "\"\nwrote "
                  << utf8(fs::absolute(fs::u8path(o.out)).lexically_normal()) << "\n";
        return 0;
    } catch (const std::exception& e) {
        return fail(o.in, e.what());
    }
}

} // namespace qfforms
