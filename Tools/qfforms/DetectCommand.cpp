#include "DetectCommand.h"

#include "DetectFields.h"
#include "Files.h"
#include "Pd.h"
#include "Session.h"
#include "detect/Detect.h"
#include "qfhost/Document.h"
#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"

#include <charconv>
#include <filesystem>
#include <iostream>
#include <optional>
#include <set>
#include <sstream>

namespace qfforms {

const char* const kDetectUsage =
    "       qfforms detect IN.pdf --out OUT.pdf [--pages LIST] [--lang en|ja] [--json]\n"
    "                      [--full-rewrite | --incremental] [--break-signatures] [--force]\n"
    "                      [--password PASSWORD] [--password-file FILE] [--module PATH]\n";

namespace {

namespace fs = std::filesystem;

constexpr const char* kHelp = R"(
  Proposes the form fields that the pages' drawing asks for (text fields over underlines,
  boxes and table cells, comb fields over rows of small boxes, multiline fields over tall
  boxes, check boxes over small squares and box glyphs, radio groups over rows of small
  circles, signature fields over lines labelled "Signature" or "署名"), makes them fields as
  the creation tools do, named after their labels, with the tab order in rows, and writes
  OUT.pdf. Prints one line per page: what was found, what was left out.

  --pages LIST   the pages to look at, counted from 0: "0,2,5-7" (default: all)
  --lang en|ja   the language of the names the tools give unlabelled fields (default en)
  --json         print the proposals as JSON on standard output instead of the lines
  --full-rewrite write OUT.pdf whole, never as an update appended to IN.pdf's bytes (a
                 signed file is saved as an update by default, which keeps its signatures;
                 written whole it needs --break-signatures)
  --incremental  write OUT.pdf as IN.pdf's bytes and an update appended to them, whatever
                 IN.pdf's size (an encrypted or repaired file is written whole all the same)
  Exit status: 0 written (also when no page drew a box: it says so); 1 the file could not
  be read or written; 2 wrong usage.
)";

struct Options {
    std::string in, out, pages, language = "en", module, password, passwordFile;
    bool json = false, force = false, breakSignatures = false, fullRewrite = false,
         incremental = false, help = false;
};

int usage(const std::string& problem) {
    std::cerr << "qfforms: " << problem << "\nusage:\n" << kDetectUsage;
    return 2;
}

int fail(const std::string& what, const std::string& message) {
    std::cerr << "qfforms: " << what << ": " << message << "\n";
    return 1;
}

// "0,2,5-7" as page indices below count; the problem, if any.
std::optional<std::string> pageList(const std::string& text, uint32_t count,
                                    std::vector<uint32_t>& pages) {
    std::set<uint32_t> chosen;
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ',')) {
        const size_t dash = item.find('-');
        const auto number = [](const std::string& s) -> std::optional<uint32_t> {
            uint32_t v = 0;
            auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
            if (s.empty() || ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
            return v;
        };
        const auto first = number(item.substr(0, dash));
        const auto last = dash == std::string::npos ? first : number(item.substr(dash + 1));
        if (!first || !last || *last < *first)
            return "--pages: \"" + item + "\" is not a page or a range of pages (0,2,5-7)";
        if (*last >= count)
            return "--pages: page " + std::to_string(*last) + " is past the last page (" +
                   std::to_string(count) + " pages, counted from 0)";
        for (uint32_t p = *first; p <= *last; ++p)
            chosen.insert(p);
    }
    if (chosen.empty()) return "--pages: no page given";
    pages.assign(chosen.begin(), chosen.end());
    return std::nullopt;
}

Json proposalJson(const detect::Proposal& p) {
    Json j{{"kind", detect::kindName(p.kind)},
           {"rect", {p.box.left, p.box.bottom, p.box.right, p.box.top}},
           {"name", toUtf8(p.name)},
           {"label", toUtf8(p.label)}};
    if (p.multiline) j["multiline"] = true;
    if (p.comb) j["comb"] = true, j["maxLength"] = p.maxLength;
    if (p.group >= 0) j["group"] = p.group;
    return j;
}

// What was left out of a page, as a sentence after its count; empty when nothing was.
std::string leftOut(const detect::PageResult& r, const detect::Limits& limits) {
    std::string out;
    if (r.operatorsCapped)
        out += "; read its first " + std::to_string(limits.maxOperators) +
               " drawing operators only, the rest skipped";
    if (r.shapesCapped)
        out += "; looked at its first " + std::to_string(limits.maxShapes) +
               " lines and boxes only, the rest skipped";
    if (r.skippedXObjects)
        out += "; skipped " + std::to_string(r.skippedXObjects) +
               " drawings nested too deep, inside themselves or damaged";
    if (r.existingWidgets)
        out +=
            "; " + std::to_string(r.existingWidgets) +
            (r.existingWidgets == 1 ? " place kept for the field" : " places kept for the fields") +
            " already there";
    return out;
}

} // namespace

int detectCommand(const std::vector<std::string>& args) {
    Options o;
    std::vector<std::string> files;
    if (auto problem = parseArguments(args,
                                      {{"--out", &o.out},
                                       {"--pages", &o.pages},
                                       {"--lang", &o.language},
                                       {"--module", &o.module},
                                       {"--password", &o.password},
                                       {"--password-file", &o.passwordFile}},
                                      {{"--help", &o.help},
                                       {"--json", &o.json},
                                       {"--force", &o.force},
                                       {"--break-signatures", &o.breakSignatures},
                                       {"--full-rewrite", &o.fullRewrite},
                                       {"--incremental", &o.incremental}},
                                      files))
        return usage(*problem);
    if (o.help) return std::cout << "usage:\n" << kDetectUsage << kHelp, 0;
    if (files.size() != 1 || files[0].empty()) return usage("detect takes one input file");
    o.in = files[0];
    if (o.out.empty()) return usage("detect needs --out OUT.pdf");
    if (o.language != "en" && o.language != "ja")
        return usage("unknown language '" + o.language + "' (en, ja)");
    if (auto problem = passwordUsage(o.password, o.passwordFile)) return usage(*problem);
    if (auto problem = saveUsage(o.fullRewrite, o.incremental)) return usage(*problem);
    Password password;
    if (auto problem = readPassword(o.password, o.passwordFile, password))
        return fail(o.passwordFile, *problem);

    std::optional<qfhost::Host> host;
    std::optional<qfhost::ModuleLoader> loader;
    try {
        host.emplace();
        loader.emplace(&*host);
        loader->load(modulePath(o.module));
    } catch (const std::exception& e) {
        return fail("the forms module", e.what());
    }
    host->strings().setLanguage(o.language);
    Session session(*host, *loader, fs::current_path());
    session.setPassword(std::move(password));
    session.allowBreakingSignatures(o.breakSignatures);
    try {
        session.openFile(fs::u8path(o.in));
    } catch (const std::exception& e) {
        return fail(o.in, e.what());
    }
    qfhost::Document& doc = *host->currentDocument();
    std::vector<uint32_t> pages;
    if (o.pages.empty()) {
        for (uint32_t p = 0; p < doc.pageCount(); ++p)
            pages.push_back(p);
    } else if (auto problem = pageList(o.pages, doc.pageCount(), pages)) {
        return usage(*problem);
    }
    const SavePlan plan = planSave(doc.pdDoc(), saveAs(o.fullRewrite, o.incremental));
    if (plan.breaksSignatures && !o.breakSignatures)
        return fail(o.out,
                    std::string(kSignedDocument) + " (pass --break-signatures to save anyway)");

    const detect::Limits limits;
    Json report = Json::array();
    size_t total = 0;
    for (uint32_t page : pages) {
        detect::PageResult r;
        std::vector<std::string> names;
        try {
            r = detect::detectPage(doc.pdDoc(), page, limits);
            names = acceptProposals(session, *host, page, r.proposals);
        } catch (const std::exception& e) {
            return fail(o.in, "page " + std::to_string(page) + ": " + e.what());
        }
        total += r.proposals.size();
        if (o.json) {
            Json j{{"page", page},       {"seconds", r.seconds},   {"operators", r.operators},
                   {"shapes", r.shapes}, {"textRuns", r.textRuns}, {"fields", Json::array()}};
            for (size_t i = 0; i < r.proposals.size(); ++i) {
                Json f = proposalJson(r.proposals[i]);
                f["field"] = names[i];
                j["fields"].push_back(std::move(f));
            }
            if (r.operatorsCapped) j["operatorsCapped"] = true;
            if (r.shapesCapped) j["shapesCapped"] = true;
            report.push_back(std::move(j));
            continue;
        }
        std::cout << "page " << page << ": ";
        if (r.proposals.empty()) {
            if (r.imageOnly)
                std::cout << "no fields found: the page is a scanned image, and only drawn "
                             "boxes and lines are read";
            else if (r.shapes == 0 && !r.operatorsCapped)
                std::cout << "no fields found: the page draws no boxes or lines";
            else
                std::cout << "no fields found among the " << r.shapes << " lines and boxes read";
        } else {
            std::cout << r.proposals.size() << (r.proposals.size() == 1 ? " field" : " fields");
        }
        std::cout << leftOut(r, limits) << "\n";
    }
    if (o.json) std::cout << report.dump(2, ' ', false, Json::error_handler_t::replace) << "\n";

    Output out;
    if (auto problem =
            stageDocument(doc.pdDoc(), fs::u8path(o.out), plan.incremental, o.force, out))
        return fail(o.out, *problem);
    session.keep(std::move(out));
    const Written written = writeOutputs(session.outputs(), o.force);
    for (const std::string& problem : written.problems)
        std::cerr << "qfforms: " << problem << "\n";
    if (!written.problems.empty()) return 1;
    std::error_code ec;
    (o.json ? std::cerr : std::cout)
        << (total == 0 ? "no fields found; " : "") << "wrote "
        << utf8(fs::absolute(fs::u8path(o.out), ec).lexically_normal()) << "\n";
    return 0;
}

} // namespace qfforms
