#include "Edit.h"

#include "Files.h"
#include "Gate.h"
#include "HttpServer.h"
#include "MainQueue.h"
#include "Pd.h"
#include "Records.h"
#include "Session.h"

#include "kr/KRRuntime.h"
#include "qf/Interfaces.h"
#include "qf/PropertyInterfaces.h"
#include "qfhost/Graphics.h"
#include "qfhost/Host.h"
#include "qfhost/ModuleLoader.h"
#include "qfhost/UiServices.h"
#include "qfhost/View.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <functional>
#include <iostream>
#include <optional>

namespace qfforms {

const char* const kEditUsage =
    "usage: qfforms edit [IN.pdf] [--port N] [--lang en|ja] [--module PATH] [--web DIR]\n"
    "                    [--password PASSWORD | --password-file FILE]\n"
    "\n"
    "  Opens IN.pdf (without it, the built-in sample) in the form editor: a local server\n"
    "  on 127.0.0.1 (port N, else a free one) that hosts the forms module and serves the\n"
    "  editor's page, whose address (with its session token) it prints. Open it in a\n"
    "  browser; Ctrl+C stops the server. The page saves over IN.pdf or, with Save as, to\n"
    "  a new file in IN.pdf's folder. --web names the folder of the page (default: the\n"
    "  Web folder of the source tree). An encrypted IN.pdf opens with the password given\n"
    "  as PASSWORD or as the first line of FILE; without one, the page asks for it (and\n"
    "  for the owner password of a form whose permissions do not allow changing it).\n"
    "  Saves keep the file's encryption and passwords. See docs/editor.md.\n";

namespace {

namespace fs = std::filesystem;
using qfhost::Document;
using qfhost::HostError;
using qfhost::View;

constexpr const char* kEditTool = "WidgetEdit";

std::string dump(const Json& j) { return j.dump(-1, ' ', false, Json::error_handler_t::replace); }

HttpResponse jsonAnswer(int status, const Json& body) {
    return HttpResponse::json(status, dump(body));
}

// A whole number member of an event, within 32 bits.
int64_t integerOf(const Json& body, const char* key, int64_t fallback) {
    auto it = body.find(key);
    if (it == body.end()) return fallback;
    if (!it->is_number_integer())
        throw StepFailure(std::nullopt, std::string("event: ") + key + " must be a whole number");
    const int64_t v = it->get<int64_t>();
    if (v < INT32_MIN || v > UINT32_MAX)
        throw StepFailure(std::nullopt, std::string("event: ") + key + " is out of range");
    return v;
}

// A name for Save as: a bare file name ending in .pdf.
bool acceptableName(const std::string& name) {
    if (name.empty() || name.size() > 255 || name == "." || name == "..") return false;
    for (unsigned char c : name)
        if (c < 0x20 || c == '/' || c == '\\' || c == ':') return false;
    if (name.size() < 5) return false;
    std::string ext = name.substr(name.size() - 4);
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext == ".pdf" && name[0] != '.';
}

// ---- the editor ---------------------------------------------------------------------------

// What the page asks of the host, answered on the main thread.
class Editor {
  public:
    // What the document waits for before it opens: nothing (it is open), its password, or
    // its owner password (its permissions do not allow changing its form).
    enum class Lock { None, Password, Owner };

    Editor(qfhost::Host& host, qfhost::ModuleLoader& loader, Session& session, fs::path document,
           bool sample, Lock lock)
        : host_(host), loader_(loader), session_(session), path_(std::move(document)),
          sample_(sample), lock_(lock) {}

    HttpResponse handle(const HttpRequest& request) {
        const std::string& p = request.path;
        const bool get = request.method == "GET", post = request.method == "POST";
        try {
            if (p == "/api/state") return get ? answer(Json::object()) : notAllowed();
            if (p == "/api/document.pdf") {
                if (!get) return notAllowed();
                HttpResponse r;
                r.contentType = "application/pdf";
                // pdf.js on the page has no password: it draws a copy without encryption.
                r.body = viewerCopy(view().document());
                return r;
            }
            if (p.rfind("/api/overlay/", 0) == 0) return get ? overlay(request) : notAllowed();
            if (!post) return p.rfind("/api/", 0) == 0 ? notAllowed() : notFound();

            Json body;
            try {
                body = parseRequest(request.body.empty() ? "{}" : request.body);
            } catch (const Json::exception& e) {
                return jsonAnswer(400, {{"error", "the body is no JSON: " + jsonDetail(e)}});
            }
            if (!body.is_object()) return jsonAnswer(400, {{"error", "the body must be an object"}});
            if (p == "/api/event") return event(body);
            ++revision_;
            if (p == "/api/step") return step(body);
            if (p == "/api/save") return save(body);
            if (p == "/api/language") return language(body);
            if (p == "/api/password") return unlock(body);
            return notFound();
        } catch (const StepFailure& e) {
            return failure(e.what());
        } catch (const HostError& e) {
            return failure(e.what());
        } catch (const PdError& e) {
            return failure(std::string("pdfcore: ") + e.what());
        }
    }

  private:
    static HttpResponse notAllowed() {
        return jsonAnswer(405, {{"error", "not allowed for this address"}});
    }
    static HttpResponse notFound() { return jsonAnswer(404, {{"error", "no such address"}}); }

    HttpResponse failure(const std::string& text) {
        ++revision_; // what failed may have changed something before it did
        Json body;
        body["error"] = text;
        try {
            body["state"] = state();
        } catch (const std::exception&) {
            // the error says what matters
        }
        return jsonAnswer(422, body);
    }

    HttpResponse answer(Json body, int status = 200) {
        body["state"] = state();
        return jsonAnswer(status, body);
    }

    View& view() {
        if (lock_ != Lock::None)
            throw StepFailure(std::nullopt, "the document is not open: it needs its password");
        View* v = host_.currentView();
        if (!v) throw StepFailure(std::nullopt, "no document is open");
        return *v;
    }

    // Page N's overlay: ?part=annotations (what the document holds), ?part=live (what the
    // tools draw), both without a part.
    HttpResponse overlay(const HttpRequest& request) {
        uint32_t parts = qfhost::kSvgAnnotations | qfhost::kSvgLive;
        if (auto part = request.query.find("part"); part != request.query.end()) {
            if (part->second == "annotations")
                parts = qfhost::kSvgAnnotations;
            else if (part->second == "live")
                parts = qfhost::kSvgLive;
            else
                return jsonAnswer(404, {{"error", "no such part"}});
        }
        const std::string name = request.path.substr(std::string("/api/overlay/").size());
        uint32_t page = 0;
        const auto [end, ec] = std::from_chars(name.data(), name.data() + name.size(), page);
        if (ec != std::errc() || std::string(end) != ".svg")
            return jsonAnswer(404, {{"error", "no such page"}});
        View& v = view();
        if (page >= v.document().pageCount()) return jsonAnswer(404, {{"error", "no such page"}});
        HttpResponse r;
        r.contentType = "image/svg+xml";
        r.body = qfhost::renderPageSvg(host_, v, page, parts);
        return r;
    }

    // ---- events ----

    bool send(View& v, const QF::InputEvent& e) {
        bool handled = false;
        const uint32_t rc = v.sendEvent(e, &handled);
        if (rc != 0 && rc != 1) throw StepFailure(rc, moduleText(rc));
        return handled;
    }

    // The module's own text for a failure it just reported, when it left one.
    std::string moduleText(uint32_t code) {
        SODetails::ErrorInfo info{};
        qfhost::ServiceObject* so = loader_.initService();
        if (so && SODetails::header(so)->base.GetLastErrorInfo(so, &info, nullptr) == 0 &&
            info.code == code && info.message)
            return toUtf8(info.message);
        return "the tool failed with code " + std::to_string(code) + " (" + hex(code) + ")";
    }

    HttpResponse event(const Json& body) {
        QF::InputEvent e{};
        e.type = static_cast<uint32_t>(integerOf(body, "type", -1));
        e.subcode = static_cast<uint32_t>(integerOf(body, "code", 0));
        e.x = static_cast<int32_t>(integerOf(body, "x", 0));
        e.y = static_cast<int32_t>(integerOf(body, "y", 0));
        e.modifiers = static_cast<uint32_t>(integerOf(body, "modifiers", 0));
        static constexpr uint32_t kTypes[] = {QF::kEventButtonDown, QF::kEventButtonUp,
                                              QF::kEventMove, QF::kEventKeyDown, QF::kEventKey,
                                              QF::kEventCancel};
        if (std::find(std::begin(kTypes), std::end(kTypes), e.type) == std::end(kTypes))
            throw StepFailure(std::nullopt, "event: unknown type");
        const bool handled = dispatch(view(), e);
        // What the overlays show changes with anything but a pointer move no tool took.
        if (e.type != QF::kEventMove || handled) ++revision_;
        return answer({{"handled", handled}});
    }

    bool dispatch(View& v, const QF::InputEvent& e) {
        const bool editing = v.activeToolName() == kEditTool;
        if (e.type == QF::kEventButtonDown && e.subcode == QF::kButtonLeft &&
            (editing || !v.activeTool())) {
            bool handled = false;
            if (editing) {
                handled = send(v, e);
                if (v.activeTool()) return handled;
                host_.selection().clear(); // a press beside the widget ends editing
            }
            return selectAt(v, e) || handled;
        }
        if (!v.activeTool()) return false;
        const bool handled = send(v, e);
        if (editing && v.activeToolName() != kEditTool) host_.selection().clear();
        return handled;
    }

    // Select mode: selects the top-most widget under the press and hands the press to the
    // edit tool, so that the same drag moves the widget.
    bool selectAt(View& v, const QF::InputEvent& e) {
        const int64_t page = v.pageAt(e.x, e.y);
        if (page < 0) {
            host_.selection().clear();
            return false;
        }
        const auto at = v.viewToPage(static_cast<uint32_t>(page), e.x, e.y);
        const uint32_t rc = host_.selection().selectAt(static_cast<uint64_t>(page), at[0], at[1]);
        if (rc == 1) return false; // nothing there
        if (rc != 0) throw StepFailure(rc, "the widget could not be selected");
        return v.activeToolName() == kEditTool ? send(v, e) : true;
    }

    // ---- steps ----

    HttpResponse step(const Json& body) {
        if (body.size() != 1)
            throw StepFailure(std::nullopt, "a step is an object with exactly one verb");
        const std::string verb = body.begin().key();
        const Json& args = body.begin().value();
        static const char* const kVerbs[] = {"tool", "view", "set", "command", "undo",
                                             "redo", "edit", "paste", "key", "property"};
        if (std::none_of(std::begin(kVerbs), std::end(kVerbs),
                         [&](const char* v) { return verb == v; }))
            throw StepFailure(std::nullopt, "the editor does not take the step " + quoted(verb));
        if (verb == "tool" && args.is_string() && args.get<std::string>().empty()) {
            host_.selection().clear();
            view().deactivateTool();
        } else if (verb == "set" && args.is_object() && args.contains("area")) {
            setWidgetProperty(args);
        } else if (verb == "property" && args.is_object() && args.contains("widgets")) {
            throw StepFailure(std::nullopt, "property: the editor sets the selected widgets' "
                                            "properties; it takes no \"widgets\"");
        } else {
            session_.run(verb, args);
            if (verb == "view") ++annotationsRevision_; // the outlines moved on the screen
        }
        return answer(Json::object());
    }

    // A row of the selected widget's annotation sheet.
    void setWidgetProperty(const Json& args) {
        if (args.value("area", Json()) != "AnnotArea" || !args.contains("property") ||
            !args["property"].is_string() || !args.contains("value") ||
            !args["value"].is_string() || args.size() != 3)
            throw StepFailure(std::nullopt, "set: an \"AnnotArea\" row takes a property name "
                                            "and a text value");
        fillSheets();
        const qfhost::ObjectPtr property =
            host_.properties().find(u"AnnotArea", fromUtf8(args["property"].get<std::string>()));
        if (!property) throw StepFailure(std::nullopt, "set: the widget has no such row");
        const uint32_t rc = qfhost::property::setText(
            property.get(), fromUtf8(args["value"].get<std::string>()));
        if (rc != 0) throw StepFailure(rc, "the widget refused the value");
    }

    // ---- saving ----

    HttpResponse save(const Json& body) {
        fs::path target = path_;
        if (body.contains("as")) {
            if (!body["as"].is_string() || !acceptableName(body["as"].get<std::string>()))
                return jsonAnswer(403, {{"error", "Save as takes a file name ending in .pdf, "
                                                  "without folders; the file goes beside the "
                                                  "document"}});
            target = folder() / fs::u8path(body["as"].get<std::string>());
            std::error_code ec;
            if (target != path_ && fs::exists(target, ec) && !body.value("replace", false))
                return jsonAnswer(409, {{"error", target.filename().string() +
                                                      " exists already: choose another name"}});
        } else if (sample_) {
            return jsonAnswer(403, {{"error", "the built-in sample is not saved over: choose a "
                                              "name with Save as"}});
        }
        Document& doc = view().document();
        // Asked once: after the first save the signatures no longer hold anyway.
        if (!signaturesBroken_ && holdsSignatures(doc.pdDoc())) {
            if (!body.value("breakSignatures", false))
                return jsonAnswer(409, {{"error", "The document is signed: saving rewrites the "
                                                  "whole file, and its signatures will no "
                                                  "longer hold. Save anyway?"},
                                        {"signed", true}});
            signaturesBroken_ = true;
        }
        const PDResult saved = PDDocSaveEx(doc.pdDoc(), target.string().c_str(), 0);
        if (saved == PD_ERR_READ_ONLY)
            throw StepFailure(std::nullopt, "cannot save " + target.string() +
                                                ": the file is read-only; save the document "
                                                "under another name with Save as");
        if (saved != PD_OK)
            throw StepFailure(std::nullopt, "cannot save " + target.string() + ": " +
                                                writeProblem(saved, ""));
        doc.markSaved();
        path_ = target;
        sample_ = false;
        return answer({{"saved", target.string()}});
    }

    fs::path folder() const {
        std::error_code ec;
        return sample_ ? fs::current_path(ec) : path_.parent_path();
    }

    HttpResponse language(const Json& body) {
        const std::string lang = body.value("lang", std::string());
        if (lang != "en" && lang != "ja")
            throw StepFailure(std::nullopt, "the languages are \"en\" and \"ja\"");
        host_.strings().setLanguage(lang);
        lang_ = lang;
        return answer(Json::object());
    }

    // ---- the password ----

    // Opens the locked document with the password the person typed. The session forgets
    // it again whatever comes of it: nothing needs it once the document is open.
    HttpResponse unlock(const Json& body) {
        if (lock_ == Lock::None)
            return jsonAnswer(409, {{"error", "the document is open already"}});
        const auto it = body.find("password");
        if (it == body.end() || !it->is_string() || body.size() != 1)
            return jsonAnswer(400, {{"error", "the body is {\"password\": TEXT}"}});
        session_.setPassword({fromUtf8(it->get<std::string>()), true});
        try {
            session_.openFile(path_);
        } catch (const OpenRefused& e) {
            session_.setPassword({});
            // The password opened a document the program cannot show: say why, once more
            // for every password, the lock left as it was.
            if (e.reason() == OpenRefused::Reason::Unusable) {
                Json answer;
                answer["error"] = path_.filename().string() + ": " + e.what();
                answer["wrong"] = false;
                answer["state"] = state();
                return jsonAnswer(422, answer);
            }
            // A wrong password leaves the lock as it was: a document that opens without one
            // still waits for its owner password.
            const bool wrong = e.reason() == OpenRefused::Reason::Password;
            if (!wrong) lock_ = Lock::Owner;
            Json answer;
            answer["error"] = wrong ? "The password is wrong."
                                    : "This password opens the document, but its permissions "
                                      "do not allow changing its form: give its owner password.";
            answer["wrong"] = wrong;
            answer["state"] = state();
            return jsonAnswer(422, answer);
        }
        session_.setPassword({});
        lock_ = Lock::None;
        return answer(Json::object());
    }

    // ---- the state ----

    // The active tool's sheet in "ToolArea" and the selected widget's in "AnnotArea".
    void fillSheets() {
        View& v = view();
        host_.properties().clear();
        if (v.activeTool()) v.refreshToolProperties();
        const auto& selected = host_.selection().selected();
        if (selected.empty()) return;
        PDRect rect{};
        PDAnnotGetRect(selected.front().annot, &rect);
        host_.annotProperties().addAnnotProperties(
            u"Widget", v.document().object(), selected.front().pageIndex, selected.front().annot,
            rect, host_.object(qfhost::HostService::QFPropertiesContext));
    }

    Json sheet(const std::u16string& area) {
        Json rows = Json::array();
        for (const qfhost::ObjectPtr& p : host_.properties().properties(area)) {
            Json row;
            row["name"] = toUtf8(qfhost::property::name(p.get()));
            bool readOnly = false, hidden = false;
            qfhost::property::isReadOnly(p.get(), &readOnly);
            qfhost::property::isHidden(p.get(), &hidden);
            if (qfhost::property::type(p.get()) == QF::kPropertyStringPairList) {
                std::vector<std::pair<std::u16string, std::u16string>> pairs;
                qfhost::property::getPairs(p.get(), &pairs);
                row["kind"] = "pairs";
                row["value"] = Json::array();
                for (const auto& [d, x] : pairs)
                    row["value"].push_back(Json::array({toUtf8(d), toUtf8(x)}));
            } else {
                std::u16string text;
                qfhost::property::getText(p.get(), &text);
                row["kind"] = "text";
                row["value"] = toUtf8(text);
            }
            row["readOnly"] = readOnly;
            row["hidden"] = hidden;
            rows.push_back(row);
        }
        return rows;
    }

    Json selection(Document& doc) {
        const auto& selected = host_.selection().selected();
        if (selected.empty()) return nullptr;
        const auto& s = selected.front();
        Json out;
        out["page"] = s.pageIndex;
        Handle page;
        uint32_t index = 0;
        if (PDDocGetPage(doc.pdDoc(), static_cast<uint32_t>(s.pageIndex), page.out()) == PD_OK &&
            PDPageGetAnnotIndex(page.get(), s.annot, &index) == PD_OK)
            out["index"] = index;
        Handle field;
        PDAtom type = 0;
        const char* typeName = nullptr;
        if (PDWidgetAnnotGetParent(s.annot, field.out()) == PD_OK && field.get()) {
            PDField f = field.get();
            if (auto name = readText([&](char16_t* b, uint32_t n, uint32_t* len) {
                    return PDFieldGetFullName(f, b, n, len);
                }))
                out["field"] = toUtf8(*name);
            if (PDFieldGetType(field.get(), &type) == PD_OK &&
                PDAtomGetString(type, &typeName) == PD_OK && typeName)
                out["type"] = typeName;
        }
        return out;
    }

    // The document's annotations changed since the last state: its change events, or a
    // command done or undone (moving one annotation in /Annots notifies nothing).
    uint64_t annotationsRevision(Document& doc) {
        if (!annotChanged_.connected()) {
            annotChanged_ = doc.OnAnnotChanged.connect(
                [this](uint32_t, uint64_t, PDAnnot) { ++annotationsRevision_; });
            annotsChanged_ = doc.OnAnnotsChanged.connect(
                [this](uint32_t, uint64_t, const std::vector<PDAnnot>&) { ++annotationsRevision_; });
        }
        const auto depths = host_.commands().depths();
        if (depths.undo != depths_.undo || depths.redo != depths_.redo) ++annotationsRevision_;
        depths_ = depths;
        return annotationsRevision_;
    }

    Json state() {
        Json s;
        const std::string name = sample_ ? "sample.pdf" : path_.filename().string();
        if (lock_ != Lock::None) {
            s["document"] = {{"name", name},
                             {"folder", folder().string()},
                             {"modified", false},
                             {"encrypted", true}};
            s["locked"] = lock_ == Lock::Password ? "password" : "owner";
            s["revision"] = revision_;
            s["lang"] = lang_;
            return s;
        }
        View& v = view();
        Document& doc = v.document();
        s["document"] = {{"name", name},
                         {"folder", folder().string()},
                         {"modified", doc.modified()},
                         {"encrypted", doc.encrypted()}};
        s["locked"] = nullptr;
        s["revision"] = revision_;
        s["annotationsRevision"] = annotationsRevision(doc);
        Json pages = Json::array();
        int32_t width = 0, height = 0;
        for (uint32_t i = 0; i < doc.pageCount(); ++i) {
            const View::PixelRect r = v.pageRect(i);
            Handle page;
            PDRect box{};
            check(PDDocGetPage(doc.pdDoc(), i, page.out()));
            check(PDPageGetBox(page.get(), PD_BOX_CROP, &box));
            pages.push_back({{"left", r.left},
                             {"top", r.top},
                             {"right", r.right},
                             {"bottom", r.bottom},
                             {"width", std::abs(box.right - box.left)},
                             {"height", std::abs(box.top - box.bottom)},
                             {"rotation", v.pageRotation(i)}});
            width = std::max(width, r.right + View::kMargin);
            height = std::max(height, r.bottom + View::kMargin);
        }
        s["layout"] = {{"zoom", v.zoom()},   {"rotation", v.rotation()}, {"width", width},
                       {"height", height}, {"pages", pages}};
        s["tool"] = v.activeToolName();
        std::vector<std::string> tools;
        for (uint32_t atom : host_.tasks().tools().atoms()) {
            const char* name = nullptr;
            if (KRGetStringFromAtom(atom, &name) == KR_OK && name) tools.emplace_back(name);
        }
        std::sort(tools.begin(), tools.end());
        s["tools"] = tools;
        s["selection"] = selection(doc);
        s["undo"] = host_.commands().undoNames();
        s["redo"] = host_.commands().redoNames();
        fillSheets();
        s["sheet"] = sheet(u"ToolArea");
        s["widgetSheet"] = sheet(u"AnnotArea");
        s["properties"] = fieldPropertiesState(host_);
        s["lang"] = lang_;
        return s;
    }

    qfhost::Host& host_;
    qfhost::ModuleLoader& loader_;
    Session& session_;
    fs::path path_;
    bool sample_;
    Lock lock_;
    bool signaturesBroken_ = false;  // the person chose to save a signed document
    uint64_t revision_ = 0;
    uint64_t annotationsRevision_ = 0;
    boost::signals2::scoped_connection annotChanged_, annotsChanged_;
    qfhost::CommandsManager::Depths depths_{};
    std::string lang_ = "en";

  public:
    void setLanguage(const std::string& lang) { lang_ = lang; }
};

// ---- the command ---------------------------------------------------------------------------

struct Options {
    std::string in;
    std::string port;
    std::string language = "en";
    std::string module;
    std::string web;
    std::string password;
    std::string passwordFile;
    bool help = false;
};

std::optional<std::string> parseOptions(const std::vector<std::string>& args, Options& o) {
    std::vector<std::string> files;
    if (auto problem = parseArguments(args,
                                      {{"--port", &o.port},
                                       {"--lang", &o.language},
                                       {"--module", &o.module},
                                       {"--web", &o.web},
                                       {"--password", &o.password},
                                       {"--password-file", &o.passwordFile}},
                                      {{"--help", &o.help}}, files))
        return problem;
    if (files.size() > 1) return "edit takes one file";
    if (!files.empty()) o.in = files[0];
    if (o.help) return std::nullopt;
    if (!files.empty() && files[0].empty()) return "empty file name";
    if (o.language != "en" && o.language != "ja")
        return "unknown language '" + o.language + "' (en, ja)";
    return passwordUsage(o.password, o.passwordFile);
}

int usageError(const std::string& message) {
    std::cerr << "qfforms: " << message << "\n" << kEditUsage;
    return 2;
}

} // namespace

int editCommand(const std::vector<std::string>& args) {
    Options o;
    if (auto problem = parseOptions(args, o)) return usageError(*problem);
    if (o.help) {
        std::cout << kEditUsage;
        return 0;
    }
    uint16_t port = 0;
    if (!o.port.empty()) {
        unsigned value = 0;
        const auto [end, ec] = std::from_chars(o.port.data(), o.port.data() + o.port.size(), value);
        if (ec != std::errc() || end != o.port.data() + o.port.size() || value > 65535)
            return usageError("--port takes a port number, not '" + o.port + "'");
        port = static_cast<uint16_t>(value);
    }
    Password password;
    if (auto problem = readPassword(o.password, o.passwordFile, password)) {
        std::cerr << "qfforms: " << o.passwordFile << ": " << *problem << "\n";
        return 1;
    }
    const bool sample = o.in.empty();
    const fs::path document = fs::absolute(fs::u8path(sample ? QF_SAMPLE_PDF : o.in));
    std::error_code ec;
    if (auto problem = inputProblem(document.string(), kMaxFileBytes)) {
        std::cerr << "qfforms: " << document.string() << ": the file " << *problem << "\n";
        return 1;
    }
    const fs::path web = o.web.empty() ? fs::path(QF_WEB_DIR) : fs::u8path(o.web);
    if (!fs::is_regular_file(web / "index.html", ec)) {
        std::cerr << "qfforms: " << web.string() << ": the editor's page is not there\n";
        return 1;
    }
    if (!fs::is_directory(web / "node_modules" / "pdfjs-dist", ec))
        std::cerr << "qfforms: warning: " << (web / "node_modules").string()
                  << " has no pdfjs-dist (run npm ci there): pages will not be drawn\n";

    // The host first, so that the loader (and the module's objects) go before it.
    std::optional<qfhost::Host> host;
    std::optional<qfhost::ModuleLoader> loader;
    try {
        host.emplace();
        loader.emplace(&*host);
        loader->load(modulePath(o.module));
    } catch (const std::exception& e) {
        std::cerr << "qfforms: cannot start the host: " << e.what() << "\n";
        return 1;
    }
    host->strings().setLanguage(o.language);
    Session session(*host, *loader, document.parent_path());
    // Without a password on the command line, the page asks for the one the file needs.
    Editor::Lock lock = Editor::Lock::None;
    session.setPassword(password);
    try {
        session.openFile(document);
    } catch (const OpenRefused& e) {
        if (password.given || e.reason() == OpenRefused::Reason::Unusable) {
            std::cerr << "qfforms: " << document.string() << ": " << e.what() << "\n";
            return 1;
        }
        lock = e.reason() == OpenRefused::Reason::Password ? Editor::Lock::Password
                                                           : Editor::Lock::Owner;
    } catch (const std::exception& e) {
        std::cerr << "qfforms: " << document.string() << ": " << e.what() << "\n";
        return 1;
    }
    session.setPassword({});

    MainQueue queue;
    Editor editor(*host, *loader, session, document, sample, lock);
    editor.setLanguage(o.language);
    const std::string secret = Gate::newToken();
    Gate gate(secret, web, queue, [&editor](const HttpRequest& r) { return editor.handle(r); });
    std::optional<HttpServer> server;
    try {
        server.emplace(port, std::cref(gate), Gate::securityHeaders());
    } catch (const std::exception& e) {
        std::cerr << "qfforms: " << e.what() << "\n";
        return 1;
    }
    gate.setPort(server->port());

    // SIGINT and SIGTERM come to the network thread, which closes the queue: the main
    // thread ends the job it is running, the jobs still waiting answer 503.
    server->start([&queue] { queue.close(); });
    std::cout << "qfforms edit: " << document.filename().string() << " at http://127.0.0.1:"
              << server->port() << "/?token=" << secret << "\n";
    if (lock != Editor::Lock::None)
        std::cout << (lock == Editor::Lock::Password
                          ? "The document is encrypted: the page asks for its password.\n"
                          : "The document's permissions do not allow changing its form: the "
                            "page asks for its owner password.\n");
    std::cout << "Ctrl+C stops the editor." << std::endl;
    queue.serve();

    queue.close();
    server->stop();
    host->releaseModuleObjects();
    std::cout << "qfforms edit: stopped" << std::endl;
    return 0;
}

} // namespace qfforms
